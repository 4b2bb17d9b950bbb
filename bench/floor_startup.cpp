// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

// The floor for start-up and for the idle footprint: a minimal Qt program that makes the calls
// bluetooth-agent makes at start, as plain blocking messages, then idles in its event loop.

#include "constants.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QFile>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QDBusConnection bus = QDBusConnection::systemBus();
    QObject agent;
    bus.registerObject(Names::AgentPath, &agent);
    bus.registerService(Names::AgentService);

    const auto call = [&bus](const QString &path, const QString &iface, const QString &member,
                          const QVariantList &args) {
        QDBusMessage message =
            QDBusMessage::createMethodCall(Names::BluezService, path, iface, member);
        message.setArguments(args);
        return bus.call(message);
    };
    const QString adapter = Names::AdapterPath;
    const QString properties = Names::PropertiesInterface;
    const QString adapterIface = Names::AdapterInterface;
    const QDBusMessage powered = call(
        adapter, properties, QStringLiteral("Get"), { adapterIface, QStringLiteral("Powered") });
    if (!powered.arguments().value(0).value<QDBusVariant>().variant().toBool())
        call(adapter, properties, QStringLiteral("Set"),
            { adapterIface, QStringLiteral("Powered"), QVariant::fromValue(QDBusVariant(true)) });
    QFile hostname(Names::HostnameFile);
    hostname.open(QIODevice::ReadOnly | QIODevice::Text);
    call(adapter, properties, QStringLiteral("Set"),
        { adapterIface, QStringLiteral("Alias"),
            QVariant::fromValue(QDBusVariant(QString::fromUtf8(hostname.readLine()))) });
    call(Names::ObjectManagerPath, Names::ObjectManagerInterface,
        QStringLiteral("GetManagedObjects"), {});
    const QVariant self = QVariant::fromValue(QDBusObjectPath(Names::AgentPath));
    const QString manager = Names::AgentManagerInterface;
    call(Names::AgentManagerPath, manager, QStringLiteral("RegisterAgent"),
        { self, Names::AgentCapability });
    call(Names::AgentManagerPath, manager, QStringLiteral("RequestDefaultAgent"), { self });
    return app.exec();
}
