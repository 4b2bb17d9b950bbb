// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "logging.h"

Q_LOGGING_CATEGORY(lcDaemon, "BluetoothAgentDaemon", QtCriticalMsg)
Q_LOGGING_CATEGORY(lcPairingAgent, "BluetoothPairingAgent", QtCriticalMsg)
Q_LOGGING_CATEGORY(lcFileMonitor, "BluetoothFileMonitor", QtCriticalMsg)
