// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef LOGGING_H
#define LOGGING_H

#include <QLoggingCategory>

// Critical messages are on by default; QT_LOGGING_RULES can switch them off.
Q_DECLARE_LOGGING_CATEGORY(lcDaemon)
Q_DECLARE_LOGGING_CATEGORY(lcPairingAgent)
Q_DECLARE_LOGGING_CATEGORY(lcFileMonitor)

// When standard error is the journal, each line starts with its journal priority: routine lines
// (a pairing question, BlueZ coming back) below warning, failures err or worse. The lines' texts
// and Qt's levels stay as they are.
void installJournalPriorities();

#endif // LOGGING_H
