// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "agent_adaptor.h"

#include "adapter_proxy.h"
#include "constants.h"
#include "pairing_agent.h"

#include <QDBusConnection>
#include <QMetaObject>

AgentAdaptor::AgentAdaptor(PairingAgent *parent)
    : QDBusAbstractAdaptor(parent)
    , adapter(new BluetoothAdapterInterface(
          Names::BluezService, Names::AdapterPath, QDBusConnection::systemBus(), nullptr))
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
    // gets its empty reply. See "Deliberate behaviours" in the README before changing it.
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
    adapter->setProperty("Discoverable", QVariant(mode));
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

bool AgentAdaptor::getPower() { return adapter->property("Powered").toBool(); }

void AgentAdaptor::setPower(bool state)
{
    if (adapter->setProperty("Powered", QVariant(state)))
        emit PowerStateChanged(state);
}

void AgentAdaptor::forgetDevice(const QString &btaddr)
{
    QString devicePart = btaddr;
    devicePart.replace(QLatin1Char(':'), QLatin1Char('_'));
    // A text that makes no valid object path gives an empty one (Qt warns); BlueZ then
    // refuses the call, which is ignored like any other answer to it.
    adapter->call(QStringLiteral("RemoveDevice"),
        QVariant::fromValue(QDBusObjectPath(Names::DevicePathPrefix + devicePart)));
    getDevices();
}

void AgentAdaptor::getDevices()
{
    QMetaObject::invokeMethod(parent(), "getDevices", Qt::AutoConnection);
}
