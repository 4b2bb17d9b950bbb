// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "signal_printer.h"

#include "bluetoothagent_interface.h"

#include <QDBusServiceWatcher>
#include <QDateTime>
#include <QTextStream>

SignalPrinter::SignalPrinter(BluetoothAgentInterface *agent, QTextStream &out)
    : QObject(agent)
    , out(out)
    , watcher(new QDBusServiceWatcher(
          agent->service(), agent->connection(), QDBusServiceWatcher::WatchForOwnerChange, this))
{
    using Agent = BluetoothAgentInterface;
    connect(agent, &Agent::RequestUserConfirmation, this, [this](uint passkey) {
        print(QStringLiteral("RequestUserConfirmation passkey %1")
                  .arg(passkey, 6, 10, QLatin1Char('0')));
    });
    connect(agent, &Agent::DisplayUserPasskey, this, [this](uint passkey, ushort entered) {
        print(QStringLiteral("DisplayUserPasskey passkey %1 entered %2")
                  .arg(passkey, 6, 10, QLatin1Char('0'))
                  .arg(entered));
    });
    connect(agent, &Agent::RequestCancelled, this,
        [this] { print(QStringLiteral("RequestCancelled")); });
    connect(
        agent, &Agent::RequestUserPin, this, [this] { print(QStringLiteral("RequestUserPin")); });
    connect(agent, &Agent::ConnectionStatus, this, [this](const QString &device, bool status) {
        print(QLatin1String("ConnectionStatus ") + quoted(device)
            + (status ? QLatin1String(" connected") : QLatin1String(" disconnected")));
    });
    connect(agent, &Agent::BluetoothDevices, this, [this](const QVariantMap &devices) {
        print(QLatin1String("BluetoothDevices ") + deviceList(devices));
    });
    connect(agent, &Agent::TransferComplete, this,
        [this](const QString &file) { print(QLatin1String("TransferComplete ") + quoted(file)); });
    connect(agent, &Agent::PowerStateChanged, this, [this](bool state) {
        print(QLatin1String("PowerStateChanged ") + QLatin1String(state ? "on" : "off"));
    });
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
        [this](const QString &, const QString &, const QString &newOwner) {
            print(newOwner.isEmpty() ? QStringLiteral("bluetooth-agent left the system bus")
                                     : QStringLiteral("bluetooth-agent is on the system bus"));
        });
}

QString SignalPrinter::deviceList(const QVariantMap &devices)
{
    if (devices.isEmpty())
        return QStringLiteral("none");
    QStringList entries;
    for (auto it = devices.constBegin(); it != devices.constEnd(); ++it)
        entries << quoted(it.key()) + QLatin1Char(' ') + it.value().toString();
    return entries.join(QLatin1String(", "));
}

QString SignalPrinter::quoted(const QString &text)
{
    // Aliases and file names come from phones: control and format characters (a line feed that
    // would start a forged line, a terminal's escape sequence, a reversal of the text's direction)
    // are shown escaped, so that one signal is always one plain line.
    QString escaped;
    for (const QChar c : text) {
        if (c == QLatin1Char('\\') || c == QLatin1Char('"'))
            escaped += QLatin1Char('\\') + c;
        else if (c == QLatin1Char('\n'))
            escaped += QLatin1String("\\n");
        else if (c == QLatin1Char('\t'))
            escaped += QLatin1String("\\t");
        else if (c.category() == QChar::Other_Control || c.category() == QChar::Other_Format
            || c.category() == QChar::Separator_Line || c.category() == QChar::Separator_Paragraph)
            escaped += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
        else
            escaped += c;
    }
    return QLatin1Char('"') + escaped + QLatin1Char('"');
}

void SignalPrinter::print(const QString &line)
{
    out << QDateTime::currentDateTime().toString(Qt::ISODateWithMs) << ' ' << line << Qt::endl;
}
