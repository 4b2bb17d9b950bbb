// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "command_line.h"

#include <QRegularExpression>

namespace {

struct CommandHelp
{
    const char *name;
    const char *synopsis;
    const char *summary;
    const char *description;
};

const CommandHelp commands[] = {
    { "monitor", "monitor", "print every signal of the daemon as it comes",
        "Prints every signal of bluetooth-agent as it comes, one line each with a time stamp,\n"
        "until interrupted: pairing questions (a passkey as six digits), passkeys to type on a\n"
        "device, questions that ended unanswered, connection changes, device lists (alias and\n"
        "address), received files and power changes." },
    { "confirm", "confirm yes|no", "answer the pending pairing question",
        "Answers the pending pairing question (a passkey shown on the phone): yes pairs,\n"
        "no refuses. Fails when no question is pending: the answer went nowhere." },
    { "pin", "pin CODE | pin --reject", "answer the pending PIN request",
        "Answers the pending PIN request with CODE, or refuses it. Fails when none is pending." },
    { "power", "power [on|off]", "show the adapter's power, or switch it",
        "Without an argument shows whether the adapter is on. With one, switches it and shows\n"
        "the state BlueZ reports afterwards; fails when it did not change." },
    { "discoverable", "discoverable on|off", "make the adapter discoverable or not",
        "Makes the adapter discoverable or not, and shows the state BlueZ reports afterwards;\n"
        "fails when it did not change." },
    { "devices", "devices", "list the paired devices",
        "Lists the paired devices: address and alias, one per line." },
    { "forget", "forget ADDRESS", "remove a device from BlueZ",
        "Removes a device from BlueZ (ADDRESS like AA:BB:CC:DD:EE:FF; lower case is taken as\n"
        "upper case), then lists the paired devices left. Fails when it is still paired." },
    { "help", "help [COMMAND]", "this text, or a command's own help",
        "Shows the overview, or a command's own help." },
};

const CommandHelp *findCommand(const QString &name)
{
    for (const CommandHelp &command : commands) {
        if (name == QLatin1String(command.name))
            return &command;
    }
    return nullptr;
}

bool onOff(const QString &word, bool *on)
{
    if (word != QLatin1String("on") && word != QLatin1String("off"))
        return false;
    *on = word == QLatin1String("on");
    return true;
}

} // namespace

Command parseCommandLine(const QStringList &args)
{
    Command command;
    if (args.isEmpty()) {
        command.error = QStringLiteral("a command is needed");
        return command;
    }
    const QString name = args.first();
    const QStringList rest = args.mid(1);
    const auto usage = [&command, &name](const char *problem) {
        command.error = QLatin1String(problem) + QLatin1String("; usage: bluetooth-agentctl ")
            + QLatin1String(findCommand(name)->synopsis);
        return command;
    };

    if (name == QLatin1String("--help") || name == QLatin1String("-h")) {
        command.kind = Command::Help;
        return command;
    }
    if (name == QLatin1String("--version")) {
        command.kind = Command::Version;
        return command;
    }
    if (!findCommand(name)) {
        command.error = QLatin1String("unknown command: ") + name;
        return command;
    }
    if (name == QLatin1String("help") || rest.contains(QLatin1String("--help"))
        || rest.contains(QLatin1String("-h"))) {
        command.kind = Command::Help;
        command.text = name == QLatin1String("help") ? rest.value(0) : name;
        if (!command.text.isEmpty() && !findCommand(command.text))
            command.error = QLatin1String("unknown command: ") + command.text;
        return command;
    }

    if (name == QLatin1String("monitor") || name == QLatin1String("devices")) {
        command.kind = name == QLatin1String("monitor") ? Command::Monitor : Command::Devices;
        if (!rest.isEmpty())
            return usage("no arguments expected");
    } else if (name == QLatin1String("confirm")) {
        command.kind = Command::Confirm;
        if (rest.size() != 1
            || (rest.first() != QLatin1String("yes") && rest.first() != QLatin1String("no")))
            return usage("yes or no expected");
        command.flag = rest.first() == QLatin1String("yes");
    } else if (name == QLatin1String("pin")) {
        command.kind = Command::Pin;
        if (rest.size() != 1)
            return usage("a PIN code or --reject expected");
        command.flag = rest.first() != QLatin1String("--reject");
        if (command.flag)
            command.text = rest.first();
    } else if (name == QLatin1String("power")) {
        command.kind = Command::Power;
        command.query = rest.isEmpty();
        if (rest.size() > 1 || (!command.query && !onOff(rest.first(), &command.flag)))
            return usage("on or off expected");
    } else if (name == QLatin1String("discoverable")) {
        command.kind = Command::Discoverable;
        if (rest.size() != 1 || !onOff(rest.first(), &command.flag))
            return usage("on or off expected");
    } else if (name == QLatin1String("forget")) {
        command.kind = Command::Forget;
        static const QRegularExpression address(QStringLiteral("^[0-9A-F]{2}(:[0-9A-F]{2}){5}$"),
            QRegularExpression::CaseInsensitiveOption);
        if (rest.size() != 1 || !address.match(rest.first()).hasMatch())
            return usage("a device address like AA:BB:CC:DD:EE:FF expected");
        // BlueZ names devices by upper-case addresses.
        command.text = rest.first().toUpper();
    }
    return command;
}

QString helpText(const QString &command)
{
    if (const CommandHelp *help = findCommand(command)) {
        return QLatin1String("Usage: bluetooth-agentctl ") + QLatin1String(help->synopsis)
            + QLatin1String("\n\n") + QLatin1String(help->description) + QLatin1Char('\n');
    }
    QString text = QStringLiteral(
        "Usage: bluetooth-agentctl COMMAND [ARGUMENT]\n\n"
        "Talks to bluetooth-agent, the embosser's Bluetooth agent, on the system bus.\n\n"
        "Commands:\n");
    for (const CommandHelp &help : commands)
        text += QLatin1String("  ") + QString::fromLatin1(help.synopsis).leftJustified(26)
            + QLatin1String(help.summary) + QLatin1Char('\n');
    text += QStringLiteral(
        "\n'bluetooth-agentctl COMMAND --help' tells more about a command.\n\n"
        "'bluetooth-agentctl --version' shows the version.\n\n"
        "Exit codes: 0 done; 1 refused or failed; 2 wrong usage; 3 bluetooth-agent\n"
        "is not on the system bus; 4 not allowed to talk to it (see its D-Bus policy).\n");
    return text;
}
