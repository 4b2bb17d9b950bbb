// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef DBUS_TYPES_H
#define DBUS_TYPES_H

#include <QDBusObjectPath>
#include <QMap>
#include <QString>
#include <QVariant>
#include <QVariantMap>

// The object manager's containers. Qt's container templates give them their meta-type names.
using InterfaceList = QMap<QString, QVariantMap>; // a{sa{sv}}
using ManagedObjectList = QMap<QDBusObjectPath, InterfaceList>; // a{oa{sa{sv}}}

// BlueZ names are UTF-8 text; a NUL byte ends them.
inline QString textUpToNul(const QVariant &value)
{
    return QString::fromUtf8(value.toByteArray().constData());
}

#endif // DBUS_TYPES_H
