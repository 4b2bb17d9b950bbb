// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef BLUEZ_SETUP_H
#define BLUEZ_SETUP_H

#include <QDBusPendingCall>
#include <QObject>

class BluetoothAdapterInterface;
class PairingAgent;

// BlueZ's part of start-up, in this order: the adapter powered, named after the host, the known
// devices loaded, the agent registered and made the default. At start each step is waited for;
// after BlueZ came back nothing waits: each step goes on when BlueZ answers. Deleting the object
// abandons what is left.
class BluezSetUp : public QObject
{
    Q_OBJECT

public:
    enum Occasion {
        Start, // the daemon's own start-up
        BluezCame, // a bluetoothd took BlueZ's name; hci0 may not be there yet
        AdapterCame, // hci0 appeared while the daemon waited for it
    };

    BluezSetUp(Occasion occasion, BluetoothAdapterInterface *adapter, PairingAgent *agent,
        QObject *parent);

    // At Start: false when the adapter cannot be powered. Otherwise it returns at once.
    bool run();

signals:
    // BluezCame: the new bluetoothd has no hci0 yet.
    void adapterMissing();

private:
    using Step = void (BluezSetUp::*)(const QDBusPendingCall &);
    void then(const QDBusPendingCall &call, Step next);
    void poweredRead(const QDBusPendingCall &call);
    void poweredWritten(const QDBusPendingCall &call);
    void nameAdapter();
    void aliasWritten(const QDBusPendingCall &call);
    void objectsRead(const QDBusPendingCall &call);
    void registered(const QDBusPendingCall &call);
    void madeDefault(const QDBusPendingCall &call);
    QDBusPendingCall callAgentManager(const QString &method, const QVariantList &args);

    const Occasion occasion;
    BluetoothAdapterInterface *const adapter;
    PairingAgent *const agent;
    bool powered = true;
};

#endif // BLUEZ_SETUP_H
