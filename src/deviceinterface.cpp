// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "deviceinterface.h"

#include "constants.h"
#include "dbus_types.h"

DeviceInterface::DeviceInterface(
    const QString &service, const QString &path, const QDBusConnection &connection, QObject *parent)
    : QDBusAbstractInterface(
        service, path, Names::DeviceInterface.toLatin1().constData(), connection, parent)
    , devicePath(path)
{ }

bool DeviceInterface::connected() const { return property("Connected").toBool(); }

QString DeviceInterface::alias() const { return textUpToNul(property("Alias")); }

bool DeviceInterface::paired() const { return property("Paired").toBool(); }

void DeviceInterface::PropertiesChanged(const QString &interface, const QVariantMap &changed)
{
    Q_UNUSED(interface)
    // BlueZ sends an empty map when it only invalidates properties: nothing to report.
    if (changed.isEmpty())
        return;
    const auto first = changed.constBegin();
    // No BlueZ property name has quotes, so every change is reported, with the first changed
    // value (in name order) as the status: see "Deliberate behaviours" in the README.
    if (first.key() == QLatin1String("\"Connected\""))
        return;
    emit DeviceConnected(alias(), first.value().toBool());
}
