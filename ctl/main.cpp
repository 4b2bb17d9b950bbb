// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "agent_client.h"
#include "command_line.h"
#include "signal_printer.h"

#include <QCoreApplication>
#include <QDBusError>
#include <QTextStream>

namespace {

enum ExitCode { Done = 0, Failed = 1, Usage = 2, NotRunning = 3, NotAllowed = 4 };

int fail(QTextStream &err, const QDBusError &error)
{
    switch (error.type()) {
    case QDBusError::ServiceUnknown:
    case QDBusError::Disconnected:
        err << "bluetooth-agentctl: bluetooth-agent is not on the system bus (" << error.message()
            << ")" << Qt::endl;
        return NotRunning;
    case QDBusError::AccessDenied:
        err << "bluetooth-agentctl: not allowed to talk to bluetooth-agent; its D-Bus policy "
               "admits root and the user interface's group ("
            << error.message() << ")" << Qt::endl;
        return NotAllowed;
    default:
        err << "bluetooth-agentctl: " << error.name() << ": " << error.message() << Qt::endl;
        return Failed;
    }
}

// Shows the state read back, and fails when it is not the one asked for.
int readBack(QTextStream &out, QTextStream &err, const char *what, bool on, bool wanted)
{
    out << (on ? "on" : "off") << Qt::endl;
    if (on == wanted)
        return Done;
    err << "bluetooth-agentctl: " << what << " is still " << (on ? "on" : "off") << Qt::endl;
    return Failed;
}

void printDevices(QTextStream &out, QTextStream &err, const QVariantMap &devices)
{
    if (devices.isEmpty())
        err << "no paired devices" << Qt::endl;
    for (auto it = devices.constBegin(); it != devices.constEnd(); ++it)
        out << it.value().toString() << "  " << it.key() << Qt::endl;
}

int run(const Command &command, AgentClient &client, QTextStream &out, QTextStream &err)
{
    QDBusError error = client.reach();
    if (error.isValid())
        return fail(err, error);

    switch (command.kind) {
    case Command::Help:
    case Command::Version:
        break;
    case Command::Monitor: {
        auto *printer = new SignalPrinter(client.agent(), out);
        // The bus handles our messages in order: once the daemon answered again, the
        // subscriptions are in place and nothing from here on is missed.
        if ((error = client.reach()).isValid())
            break;
        printer->print(QStringLiteral("watching bluetooth-agent"));
        return QCoreApplication::exec();
    }
    case Command::Confirm:
    case Command::Pin: {
        bool pending = true;
        error = command.kind == Command::Confirm ? client.confirm(command.flag, &pending)
                                                 : client.pin(command.flag, command.text, &pending);
        if (error.isValid() || pending)
            break;
        err << "bluetooth-agentctl: no pairing question is pending (none was asked, or BlueZ "
               "cancelled it): the answer went nowhere"
            << Qt::endl;
        return Failed;
    }
    case Command::Discoverable: {
        bool on = false;
        if ((error = client.setDiscoverable(command.flag)).isValid()
            || (error = client.discoverable(&on)).isValid())
            break;
        return readBack(out, err, "discoverable", on, command.flag);
    }
    case Command::Power: {
        // The daemon does not say whether BlueZ switched: the state read back does.
        if (!command.query && (error = client.setPower(command.flag)).isValid())
            break;
        bool on = false;
        if ((error = client.power(&on)).isValid())
            break;
        return readBack(out, err, "power", on, command.query ? on : command.flag);
    }
    case Command::Devices: {
        QVariantMap devices;
        if (!(error = client.devices(&devices)).isValid())
            printDevices(out, err, devices);
        break;
    }
    case Command::Forget: {
        QVariantMap left;
        if ((error = client.forget(command.text, &left)).isValid())
            break;
        printDevices(out, err, left);
        if (left.values().contains(QVariant(command.text))) {
            err << "bluetooth-agentctl: " << command.text << " is still paired" << Qt::endl;
            return Failed;
        }
        break;
    }
    }
    return error.isValid() ? fail(err, error) : Done;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    QTextStream err(stderr);
    out.setCodec("UTF-8");
    err.setCodec("UTF-8");

    const Command command = parseCommandLine(app.arguments().mid(1));
    if (!command.error.isEmpty()) {
        err << "bluetooth-agentctl: " << command.error << Qt::endl
            << "Try 'bluetooth-agentctl --help'." << Qt::endl;
        return Usage;
    }
    if (command.kind == Command::Help) {
        out << helpText(command.text);
        return Done;
    }
    if (command.kind == Command::Version) {
        out << "bluetooth-agentctl " << BLUETOOTH_AGENT_VERSION << Qt::endl;
        return Done;
    }
    AgentClient client;
    return run(command, client, out, err);
}
