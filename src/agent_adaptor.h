// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef AGENT_ADAPTOR_H
#define AGENT_ADAPTOR_H

#include <QDBusAbstractAdaptor>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCall>
#include <QVariantMap>

#include <functional>

class BluetoothAdapterInterface;
class PairingAgent;

// "/BluetoothAgent" on the bus: BlueZ's agent calls and the user interface's control calls
// come in here, the agent's notifications go out from here. Agent calls are forwarded to the
// PairingAgent by name; power, discoverability and forgetting go to the adapter, and their
// callers are answered when BlueZ has answered, without the daemon waiting for it.
class AgentAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.bluez.Agent1")

public:
    explicit AgentAdaptor(PairingAgent *parent);

public slots:
    void Release();
    QString RequestPinCode(const QDBusObjectPath &device, const QDBusMessage &msg);
    void DisplayPinCode(
        const QDBusObjectPath &device, const QString &pincode, const QDBusMessage &msg);
    int RequestPasskey(const QDBusObjectPath &device, const QDBusMessage &msg);
    void DisplayPasskey(
        const QDBusObjectPath &device, uint passkey, ushort entered, const QDBusMessage &msg);
    void RequestConfirmation(const QDBusObjectPath &device, uint passkey, const QDBusMessage &msg);
    void RequestAuthorization(const QDBusObjectPath &device, const QDBusMessage &msg);
    void AuthorizeService(
        const QDBusObjectPath &device, const QString &uuid, const QDBusMessage &msg);
    void Cancel(const QDBusMessage &msg);
    void SetDiscoverable(bool mode);
    void userConfirmation(bool confirm);
    void userSuppliedPin(bool confirm, const QString &pin);
    bool getPower();
    void setPower(bool state);
    void forgetDevice(const QString &btaddr);
    void getDevices();

signals:
    void TransferComplete(const QString &file);
    void ConnectionStatus(const QString &device, bool status);
    void RequestUserPin();
    void RequestUserConfirmation(uint passkey);
    void DisplayUserPasskey(uint passkey, ushort entered);
    void RequestCancelled();
    void BluetoothDevices(const QVariantMap &devs);
    void PowerStateChanged(bool state);

private:
    // The call being served, answered later: its reply waits for BlueZ's answer.
    QDBusMessage deferredCall() const;
    // Answers the call being served once BlueZ answered call (or failed to), whatever it said,
    // after first (in the one watcher of call).
    void replyWhenDone(const QDBusPendingCall &call,
        const std::function<void(const QDBusPendingCall &)> &first = {});

    BluetoothAdapterInterface *adapter;
};

#endif // AGENT_ADAPTOR_H
