// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "deviceinterface.h"

#include "constants.h"
#include "dbus_types.h"

void DeviceInterface::update(const QString &interface, const QVariantMap &properties)
{
    if (interface != Names::DeviceInterface)
        return;
    for (auto it = properties.constBegin(); it != properties.constEnd(); ++it) {
        if (it.key() == QLatin1String("Alias"))
            mAlias = textUpToNul(it.value());
        else if (it.key() == QLatin1String("Paired"))
            mPaired = it.value().toBool();
        else if (it.key() == QLatin1String("Connected"))
            mConnected = it.value().toBool();
    }
}

void DeviceInterface::PropertiesChanged(const QString &interface, const QVariantMap &changed)
{
    update(interface, changed);
    // BlueZ sends an empty map when it only invalidates properties: nothing to report.
    if (changed.isEmpty())
        return;
    const auto first = changed.constBegin();
    // No BlueZ property name has quotes, so every change is reported, with the first changed
    // value (in name order) as the status: see data/com.quorvane.BluetoothAgent.md.
    if (first.key() == QLatin1String("\"Connected\""))
        return;
    emit DeviceConnected(mAlias, first.value().toBool());
}
