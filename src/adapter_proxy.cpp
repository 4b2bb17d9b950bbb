// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "adapter_proxy.h"

#include "constants.h"

#include <QDBusMessage>
#include <QDBusVariant>

BluetoothAdapterInterface::BluetoothAdapterInterface(
    const QString &service, const QString &path, const QDBusConnection &connection, QObject *parent)
    : QDBusAbstractInterface(
        service, path, Names::AdapterInterface.toLatin1().constData(), connection, parent)
{ }

BluetoothAdapterInterface::~BluetoothAdapterInterface() = default;

QDBusPendingCall BluetoothAdapterInterface::get(const QString &property) const
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        service(), path(), Names::PropertiesInterface, QStringLiteral("Get"));
    call << Names::AdapterInterface << property;
    return connection().asyncCall(call);
}

QDBusPendingCall BluetoothAdapterInterface::set(
    const QString &property, const QVariant &value) const
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        service(), path(), Names::PropertiesInterface, QStringLiteral("Set"));
    call << Names::AdapterInterface << property << QVariant::fromValue(QDBusVariant(value));
    return connection().asyncCall(call);
}

QDBusPendingCall BluetoothAdapterInterface::removeDevice(const QDBusObjectPath &device)
{
    return asyncCall(QStringLiteral("RemoveDevice"), QVariant::fromValue(device));
}
