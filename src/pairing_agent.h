// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef PAIRING_AGENT_H
#define PAIRING_AGENT_H

#include "dbus_types.h"

#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QHash>
#include <QMap>
#include <QObject>
#include <QString>
#include <QVariantMap>

class DeviceInterface;

// BlueZ's pairing agent and the registry of known devices. The agent calls reach it through
// AgentAdaptor; questions go to the user interface as signals and its answers come back
// through userConfirmation() and userSuppliedPin().
class PairingAgent : public QObject, public QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.bluez.Agent1")

public:
    PairingAgent();

    // Fills the registry from BlueZ's object manager's list, at start-up and when BlueZ came back.
    void loadDevices(const ManagedObjectList &objects);

    // The address in a BlueZ device path: what follows "/dev_" after the last "/", with ":" for
    // "_" (…/dev_00_11_22_33_44_55 gives 00:11:22:33:44:55).
    static QString addressFromPath(const QString &path);
    // The other way round, for hci0: 00:11:22:33:44:55 gives …/hci0/dev_00_11_22_33_44_55.
    static QString pathFromAddress(const QString &address);

    // BlueZ left the bus: its pending question can no longer be answered and its devices are
    // gone.
    void forgetBluez();
    // BlueZ removed the device at path (and what was below it).
    void deviceRemoved(const QString &path);

signals:
    void ConnectionStatus(const QString &device, bool status);
    void TransferComplete(const QString &file);
    void RequestUserPin();
    void RequestUserConfirmation(uint passkey);
    void DisplayUserPasskey(uint passkey, ushort entered);
    void RequestCancelled();
    void BluetoothDevices(const QVariantMap &devs);
    // BlueZ announced the adapter hci0.
    void adapterAdded();

private slots:
    // BlueZ's object-manager and property signals, checked for the types BlueZ sends.
    void onInterfacesAdded(const QDBusMessage &msg);
    void onInterfacesRemoved(const QDBusMessage &msg);
    void onPropertiesChanged(const QDBusMessage &msg);
    void deviceConnected(const QString &devName, bool status);

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
    void userConfirmation(bool confirm);
    void userSuppliedPin(bool confirm, const QString &pin);
    void getDevices();

private:
    void deferReply(const QDBusMessage &msg);
    void handBack(const QDBusMessage &msg);
    void answerPending(bool confirm, const QVariant &value);
    void rejectAtOnce(const QDBusMessage &msg);
    void interfaceAdded(const QDBusObjectPath &path, const InterfaceList &interfaces);
    DeviceInterface *watchDevice(const QString &path);

    QDBusMessage pendingMessage;
    QMap<QString, QString> devices; // address -> device object path
    // One watcher per device object path, holding what BlueZ announced of it; BlueZ's property
    // changes are handed to it by path.
    QHash<QString, DeviceInterface *> watchers;
    // Paths remembered by interfaceAdded() to skip an announcement repeated at once.
    QString lastDevicePath;
    QString lastOtherInterfacePath;
};

#endif // PAIRING_AGENT_H
