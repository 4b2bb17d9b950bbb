// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef ADAPTER_PROXY_H
#define ADAPTER_PROXY_H

#include <QDBusAbstractInterface>

// BlueZ's adapter. QObject::property() and setProperty() on the three properties are
// blocking Properties Get and Set calls; a failed read gives an invalid QVariant (false,
// empty text) and a failed write makes setProperty() return false.
class BluetoothAdapterInterface : public QDBusAbstractInterface
{
    Q_OBJECT
    Q_PROPERTY(bool Discoverable READ discoverable WRITE setDiscoverable)
    Q_PROPERTY(bool Powered READ powered WRITE setPowered)
    Q_PROPERTY(QString Alias READ alias WRITE setAlias)

public:
    BluetoothAdapterInterface(const QString &service, const QString &path,
        const QDBusConnection &connection, QObject *parent);
    ~BluetoothAdapterInterface() override;

    bool discoverable() const;
    void setDiscoverable(bool value);
    bool powered() const;
    void setPowered(bool value);
    QString alias() const;
    void setAlias(const QString &value);
};

#endif // ADAPTER_PROXY_H
