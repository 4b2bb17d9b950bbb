# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""exec_timed.py FILE PROGRAM [ARG...]: writes the monotonic clock (ns) to FILE, then becomes
PROGRAM. Marks the moment of exec for the start-up benchmark."""

import os
import sys
import time

with open(sys.argv[1], "w", encoding="ascii") as stamp:
    stamp.write(str(time.monotonic_ns()))
os.execv(sys.argv[2], sys.argv[2:])
