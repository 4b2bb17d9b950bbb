// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef COMMAND_LINE_H
#define COMMAND_LINE_H

#include <QString>
#include <QStringList>

// One invocation of bluetooth-agentctl, checked before anything is sent to the daemon.
struct Command
{
    enum Kind { Help, Version, Monitor, Confirm, Pin, Power, Discoverable, Devices, Forget };

    Kind kind = Help;
    bool flag = false; // confirm yes, pin given (not --reject), on
    bool query = false; // power without an argument: only show it
    QString text; // the PIN, the device address, or the command whose help is asked for
    QString error; // non-empty: the arguments are wrong, nothing may be sent
};

// Reads the arguments after the program name.
Command parseCommandLine(const QStringList &args);

// The overview, or one command's own help.
QString helpText(const QString &command = QString());

#endif // COMMAND_LINE_H
