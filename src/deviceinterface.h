// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef DEVICEINTERFACE_H
#define DEVICEINTERFACE_H

#include <QObject>
#include <QString>
#include <QVariantMap>

// One BlueZ device object as BlueZ's own announcements describe it: its alias and whether it is
// paired and connected, kept up to date without asking BlueZ, and its property changes, handed
// in by PairingAgent, reported as DeviceConnected.
class DeviceInterface : public QObject
{
    Q_OBJECT

public:
    QString alias() const { return mAlias; }
    bool paired() const { return mPaired; }
    bool connected() const { return mConnected; }

    // Takes in what BlueZ announced of the object's interface (its org.bluez.Device1 properties
    // are kept; other interfaces change nothing here).
    void update(const QString &interface, const QVariantMap &properties);

signals:
    void DeviceConnected(const QString &name, bool status);

public slots:
    void PropertiesChanged(const QString &interface, const QVariantMap &changed);

private:
    QString mAlias;
    bool mPaired = false;
    bool mConnected = false;
};

#endif // DEVICEINTERFACE_H
