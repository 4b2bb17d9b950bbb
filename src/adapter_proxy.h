// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef ADAPTER_PROXY_H
#define ADAPTER_PROXY_H

#include <QDBusAbstractInterface>
#include <QDBusObjectPath>
#include <QDBusPendingCall>

// BlueZ's adapter. Every call returns at once; whoever needs the answer watches the pending
// call, or waits for it during start-up, the one time the daemon may wait for BlueZ.
class BluetoothAdapterInterface : public QDBusAbstractInterface
{
    Q_OBJECT

public:
    BluetoothAdapterInterface(const QString &service, const QString &path,
        const QDBusConnection &connection, QObject *parent);
    ~BluetoothAdapterInterface() override;

    // Properties Get and Set of "Discoverable", "Powered" or "Alias"; a failed Get counts as
    // false or empty text.
    QDBusPendingCall get(const QString &property) const;
    QDBusPendingCall set(const QString &property, const QVariant &value) const;
    QDBusPendingCall removeDevice(const QDBusObjectPath &device);
};

#endif // ADAPTER_PROXY_H
