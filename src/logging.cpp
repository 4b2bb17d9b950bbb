// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "logging.h"

#include <cstdio>
#include <cstring>

Q_LOGGING_CATEGORY(lcDaemon, "BluetoothAgentDaemon", QtCriticalMsg)
Q_LOGGING_CATEGORY(lcPairingAgent, "BluetoothPairingAgent", QtCriticalMsg)
Q_LOGGING_CATEGORY(lcFileMonitor, "BluetoothFileMonitor", QtCriticalMsg)

namespace {

// Syslog priorities of the daemon's lines, by category and beginning of text; the first that
// matches counts. Every line is a critical message to Qt, whatever it means to the board.
struct Priority
{
    const char *category;
    const char *text;
    int priority;
};
constexpr Priority priorities[] = {
    { "BluetoothPairingAgent", "", 6 }, // BlueZ's questions and notices
    { "BluetoothAgentDaemon", "BlueZ is on the system bus", 5 },
    { "BluetoothAgentDaemon", "hci0 appeared", 5 },
    { "BluetoothAgentDaemon", "BlueZ left the system bus", 4 },
    { "BluetoothAgentDaemon", "could not open /etc/hostname", 4 },
    { "BluetoothAgentDaemon", "uploadError:", 3 },
    { "BluetoothAgentDaemon", "RegisterAgent unsuccessful!", 3 },
    { "BluetoothAgentDaemon", "RequestDefaultAgent unsuccessful!", 3 },
    { "BluetoothFileMonitor", "mWatchD = -1", 3 },
};

int journalPriority(QtMsgType type, const char *category, const QString &message)
{
    if (type != QtCriticalMsg)
        return type == QtFatalMsg ? 0 : type == QtWarningMsg ? 4 : type == QtInfoMsg ? 6 : 7;
    for (const Priority &p : priorities) {
        if (category && std::strcmp(category, p.category) == 0
            && message.startsWith(QLatin1String(p.text)))
            return p.priority;
    }
    // A start-up that fails, or no inotify at all.
    return 2;
}

void toJournal(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const QByteArray line = qFormatLogMessage(type, context, message).toLocal8Bit();
    std::fprintf(
        stderr, "<%d>%s\n", journalPriority(type, context.category, message), line.constData());
}

} // namespace

void installJournalPriorities()
{
    // systemd names the journal's stream here when it is standard error.
    if (qEnvironmentVariableIsSet("JOURNAL_STREAM"))
        qInstallMessageHandler(toJournal);
}
