// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef DEVICEINTERFACE_H
#define DEVICEINTERFACE_H

#include <QDBusAbstractInterface>
#include <QVariantMap>

// One BlueZ device object: three read-only properties (each read is a blocking Properties
// Get), and its property changes, handed in by PairingAgent, reported as DeviceConnected.
class DeviceInterface : public QDBusAbstractInterface
{
    Q_OBJECT
    Q_PROPERTY(bool Connected READ connected)
    Q_PROPERTY(QString Alias READ alias)
    Q_PROPERTY(bool Paired READ paired)

public:
    DeviceInterface(const QString &service, const QString &path, const QDBusConnection &connection,
        QObject *parent = nullptr);

    bool connected() const;
    QString alias() const;
    bool paired() const;

signals:
    void DeviceConnected(const QString &name, bool status);

public slots:
    void PropertiesChanged(const QString &interface, const QVariantMap &changed);

protected:
    // DeviceConnected is this watcher's own report, no signal of BlueZ: connecting to it must not
    // subscribe to anything on the bus.
    void connectNotify(const QMetaMethod &) override { }
    void disconnectNotify(const QMetaMethod &) override { }

private:
    QString devicePath;
};

#endif // DEVICEINTERFACE_H
