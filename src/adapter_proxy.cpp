// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "adapter_proxy.h"

#include "constants.h"
#include "dbus_types.h"

BluetoothAdapterInterface::BluetoothAdapterInterface(
    const QString &service, const QString &path, const QDBusConnection &connection, QObject *parent)
    : QDBusAbstractInterface(
        service, path, Names::AdapterInterface.toLatin1().constData(), connection, parent)
{ }

BluetoothAdapterInterface::~BluetoothAdapterInterface() = default;

bool BluetoothAdapterInterface::discoverable() const { return property("Discoverable").toBool(); }

void BluetoothAdapterInterface::setDiscoverable(bool value)
{
    setProperty("Discoverable", QVariant(value));
}

bool BluetoothAdapterInterface::powered() const { return property("Powered").toBool(); }

void BluetoothAdapterInterface::setPowered(bool value) { setProperty("Powered", QVariant(value)); }

QString BluetoothAdapterInterface::alias() const { return textUpToNul(property("Alias")); }

void BluetoothAdapterInterface::setAlias(const QString &value)
{
    setProperty("Alias", QVariant(value));
}
