// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef LOGGING_H
#define LOGGING_H

#include <QLoggingCategory>

// Critical messages are on by default; QT_LOGGING_RULES can switch them off.
Q_DECLARE_LOGGING_CATEGORY(lcDaemon)
Q_DECLARE_LOGGING_CATEGORY(lcPairingAgent)
Q_DECLARE_LOGGING_CATEGORY(lcFileMonitor)

#endif // LOGGING_H
