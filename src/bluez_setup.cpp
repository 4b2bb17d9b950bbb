// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "bluez_setup.h"

#include "adapter_proxy.h"
#include "constants.h"
#include "daemon.h"
#include "dbus_types.h"
#include "logging.h"
#include "pairing_agent.h"

#include <QDBusConnection>
#include <QDBusMessage>

BluezSetUp::BluezSetUp(
    Occasion occasion, BluetoothAdapterInterface *adapter, PairingAgent *agent, QObject *parent)
    : QObject(parent)
    , occasion(occasion)
    , adapter(adapter)
    , agent(agent)
{ }

bool BluezSetUp::run()
{
    then(adapter->get(QStringLiteral("Powered")), &BluezSetUp::poweredRead);
    return powered;
}

void BluezSetUp::then(const QDBusPendingCall &call, Step next)
{
    if (occasion == Start) {
        QDBusPendingCall waited = call;
        waited.waitForFinished();
        (this->*next)(waited);
        return;
    }
    whenFinished(call, this, [this, next](const QDBusPendingCall &done) { (this->*next)(done); });
}

void BluezSetUp::poweredRead(const QDBusPendingCall &call)
{
    const QVariant value = propertyValue(call);
    if (occasion == BluezCame) {
        if (!value.isValid()) {
            qCCritical(lcDaemon) << "BlueZ is on the system bus without hci0: waiting for it";
            emit adapterMissing();
            return;
        }
        qCCritical(lcDaemon) << "BlueZ is on the system bus: registering the agent";
    }
    // A failed read counts as "off" and leads to the write.
    if (value.toBool())
        nameAdapter();
    else
        then(adapter->set(QStringLiteral("Powered"), QVariant(true)), &BluezSetUp::poweredWritten);
}

void BluezSetUp::poweredWritten(const QDBusPendingCall &call)
{
    if (call.isError()) {
        qCCritical(lcDaemon) << "not powered...";
        powered = false;
        return;
    }
    nameAdapter();
}

void BluezSetUp::nameAdapter()
{
    then(adapter->set(QStringLiteral("Alias"), QVariant(getHostname())), &BluezSetUp::aliasWritten);
}

void BluezSetUp::aliasWritten(const QDBusPendingCall &)
{
    // A refused name is no reason to stop.
    const QDBusMessage call =
        QDBusMessage::createMethodCall(Names::BluezService, Names::ObjectManagerPath,
            Names::ObjectManagerInterface, QStringLiteral("GetManagedObjects"));
    then(QDBusConnection::systemBus().asyncCall(call), &BluezSetUp::objectsRead);
}

void BluezSetUp::objectsRead(const QDBusPendingCall &call)
{
    // Without an answer the registry stays empty; devices announced later still arrive.
    const QDBusPendingReply<ManagedObjectList> reply = call;
    if (!reply.isError())
        agent->loadDevices(reply.value());
    const QVariant path = QVariant::fromValue(QDBusObjectPath(Names::AgentPath));
    then(callAgentManager(QStringLiteral("RegisterAgent"), { path, Names::AgentCapability }),
        &BluezSetUp::registered);
}

void BluezSetUp::registered(const QDBusPendingCall &call)
{
    // A refusal is logged and the set-up goes on.
    if (call.isError())
        qCCritical(lcDaemon) << "RegisterAgent unsuccessful!" << call.error().message();
    then(callAgentManager(QStringLiteral("RequestDefaultAgent"),
             { QVariant::fromValue(QDBusObjectPath(Names::AgentPath)) }),
        &BluezSetUp::madeDefault);
}

void BluezSetUp::madeDefault(const QDBusPendingCall &call)
{
    if (call.isError())
        qCCritical(lcDaemon) << "RequestDefaultAgent unsuccessful!" << call.error().message();
}

QDBusPendingCall BluezSetUp::callAgentManager(const QString &method, const QVariantList &args)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        Names::BluezService, Names::AgentManagerPath, Names::AgentManagerInterface, method);
    call.setArguments(args);
    return QDBusConnection::systemBus().asyncCall(call);
}
