// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "agent_adaptor.h"

#include "adapter_proxy.h"
#include "constants.h"
#include "dbus_types.h"
#include "pairing_agent.h"

#include <QDBusConnection>
#include <QMetaObject>

AgentAdaptor::AgentAdaptor(PairingAgent *parent)
    : QDBusAbstractAdaptor(parent)
    , adapter(new BluetoothAdapterInterface(
          Names::BluezService, Names::AdapterPath, QDBusConnection::systemBus(), this))
{
    setAutoRelaySignals(false);
    // Re-emitting on the adaptor is what puts the agent's notifications on the bus.
    connect(parent, &PairingAgent::ConnectionStatus, this, &AgentAdaptor::ConnectionStatus);
    connect(parent, &PairingAgent::TransferComplete, this, &AgentAdaptor::TransferComplete);
    connect(parent, &PairingAgent::RequestUserConfirmation, this,
        &AgentAdaptor::RequestUserConfirmation);
    connect(parent, &PairingAgent::RequestUserPin, this, &AgentAdaptor::RequestUserPin);
    connect(parent, &PairingAgent::DisplayUserPasskey, this, &AgentAdaptor::DisplayUserPasskey);
    connect(parent, &PairingAgent::RequestCancelled, this, &AgentAdaptor::RequestCancelled);
    connect(parent, &PairingAgent::BluetoothDevices, this, &AgentAdaptor::BluetoothDevices);
}

// The forwards hand the received message on, so a delayed-reply mark set by the agent keeps
// Qt D-Bus from answering the call here. Their results are not checked.

void AgentAdaptor::Release() { QMetaObject::invokeMethod(parent(), "Release", Qt::AutoConnection); }

QString AgentAdaptor::RequestPinCode(const QDBusObjectPath &device, const QDBusMessage &msg)
{
    QString pin;
    QMetaObject::invokeMethod(parent(), "RequestPinCode", Qt::AutoConnection,
        Q_RETURN_ARG(QString, pin), Q_ARG(QDBusObjectPath, device), Q_ARG(QDBusMessage, msg));
    return pin;
}

void AgentAdaptor::DisplayPinCode(
    const QDBusObjectPath &device, const QString &pincode, const QDBusMessage &msg)
{
    // "DisplayPincode" names no method of the agent: Qt warns, a shown PIN goes nowhere and BlueZ
    // gets its empty reply. See the deliberate behaviours in
    // data/com.quorvane.BluetoothAgent.md before changing it.
    QMetaObject::invokeMethod(parent(), "DisplayPincode", Qt::AutoConnection,
        Q_ARG(QDBusObjectPath, device), Q_ARG(QString, pincode), Q_ARG(QDBusMessage, msg));
}

int AgentAdaptor::RequestPasskey(const QDBusObjectPath &device, const QDBusMessage &msg)
{
    // The agent's own value is not asked for: BlueZ always receives 0 ("Deliberate behaviours").
    QMetaObject::invokeMethod(parent(), "RequestPasskey", Qt::AutoConnection,
        Q_ARG(QDBusObjectPath, device), Q_ARG(QDBusMessage, msg));
    return 0;
}

void AgentAdaptor::DisplayPasskey(
    const QDBusObjectPath &device, uint passkey, ushort entered, const QDBusMessage &msg)
{
    QMetaObject::invokeMethod(parent(), "DisplayPasskey", Qt::AutoConnection,
        Q_ARG(QDBusObjectPath, device), Q_ARG(quint32, passkey), Q_ARG(quint16, entered),
        Q_ARG(QDBusMessage, msg));
}

void AgentAdaptor::RequestConfirmation(
    const QDBusObjectPath &device, uint passkey, const QDBusMessage &msg)
{
    QMetaObject::invokeMethod(parent(), "RequestConfirmation", Qt::AutoConnection,
        Q_ARG(QDBusObjectPath, device), Q_ARG(quint32, passkey), Q_ARG(QDBusMessage, msg));
}

void AgentAdaptor::RequestAuthorization(const QDBusObjectPath &device, const QDBusMessage &msg)
{
    QMetaObject::invokeMethod(parent(), "RequestAuthorization", Qt::AutoConnection,
        Q_ARG(QDBusObjectPath, device), Q_ARG(QDBusMessage, msg));
}

void AgentAdaptor::AuthorizeService(
    const QDBusObjectPath &device, const QString &uuid, const QDBusMessage &msg)
{
    QMetaObject::invokeMethod(parent(), "AuthorizeService", Qt::AutoConnection,
        Q_ARG(QDBusObjectPath, device), Q_ARG(QString, uuid), Q_ARG(QDBusMessage, msg));
}

void AgentAdaptor::Cancel(const QDBusMessage &msg)
{
    QMetaObject::invokeMethod(parent(), "Cancel", Qt::AutoConnection, Q_ARG(QDBusMessage, msg));
}

void AgentAdaptor::SetDiscoverable(bool mode)
{
    // Answered once BlueZ has: the caller knows it is done, and nothing else waits meanwhile.
    replyWhenDone(adapter->set(QStringLiteral("Discoverable"), QVariant(mode)));
}

void AgentAdaptor::userConfirmation(bool confirm)
{
    QMetaObject::invokeMethod(
        parent(), "userConfirmation", Qt::AutoConnection, Q_ARG(bool, confirm));
}

void AgentAdaptor::userSuppliedPin(bool confirm, const QString &pin)
{
    QMetaObject::invokeMethod(
        parent(), "userSuppliedPin", Qt::AutoConnection, Q_ARG(bool, confirm), Q_ARG(QString, pin));
}

bool AgentAdaptor::getPower()
{
    // BlueZ's answer, or false when it gives none in time.
    const QDBusPendingCall call = adapter->get(QStringLiteral("Powered"));
    const QDBusMessage msg = deferredCall();
    whenFinished(call, this, [msg](const QDBusPendingCall &done) {
        QDBusConnection::systemBus().send(msg.createReply(QVariant(propertyValue(done).toBool())));
    });
    return false;
}

void AgentAdaptor::setPower(bool state)
{
    replyWhenDone(adapter->set(QStringLiteral("Powered"), QVariant(state)),
        [this, state](const QDBusPendingCall &done) {
            if (!done.isError())
                emit PowerStateChanged(state);
        });
}

void AgentAdaptor::forgetDevice(const QString &btaddr)
{
    // A text that makes no valid object path gives an empty one (Qt warns); BlueZ then
    // refuses the call, which is ignored like any other answer to it.
    const QDBusObjectPath device(PairingAgent::pathFromAddress(btaddr));
    replyWhenDone(adapter->removeDevice(device), [this, device](const QDBusPendingCall &done) {
        // BlueZ announces the removal only after it answered: the fresh list must not wait.
        if (!done.isError())
            static_cast<PairingAgent *>(parent())->deviceRemoved(device.path());
        getDevices();
    });
}

QDBusMessage AgentAdaptor::deferredCall() const
{
    // Qt D-Bus keeps the call being served with the object the adaptor belongs to.
    const auto *agent = static_cast<PairingAgent *>(parent());
    agent->setDelayedReply(true);
    return agent->message();
}

void AgentAdaptor::replyWhenDone(
    const QDBusPendingCall &call, const std::function<void(const QDBusPendingCall &)> &first)
{
    const QDBusMessage msg = deferredCall();
    whenFinished(call, this, [msg, first](const QDBusPendingCall &done) {
        if (first)
            first(done);
        QDBusConnection::systemBus().send(msg.createReply());
    });
}

void AgentAdaptor::getDevices()
{
    QMetaObject::invokeMethod(parent(), "getDevices", Qt::AutoConnection);
}
