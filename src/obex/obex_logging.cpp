// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "obex_logging.h"

Q_LOGGING_CATEGORY(lcObexAgent, "BluetoothObexAgent", QtInfoMsg)
