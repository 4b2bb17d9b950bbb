// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef DBUS_TYPES_H
#define DBUS_TYPES_H

#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QMap>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <utility>

// The object manager's containers. Qt's container templates give them their meta-type names.
using InterfaceList = QMap<QString, QVariantMap>; // a{sa{sv}}
using ManagedObjectList = QMap<QDBusObjectPath, InterfaceList>; // a{oa{sa{sv}}}

// Names from BlueZ and the host name are UTF-8 text; a NUL byte ends them.
inline QString textUpToNul(const QByteArray &bytes) { return QString::fromUtf8(bytes.constData()); }
inline QString textUpToNul(const QVariant &value) { return textUpToNul(value.toByteArray()); }

// The value of a Properties Get; a failed one is an invalid QVariant (false, empty text).
inline QVariant propertyValue(const QDBusPendingCall &call)
{
    const QDBusPendingReply<QDBusVariant> reply = call;
    return reply.isError() ? QVariant() : reply.value().variant();
}

// Runs done(call) on context's thread once BlueZ answered, or failed to in Qt's time-out.
// Once per call: a second watcher of the same call misses an answer that came in between.
template <typename Done>
void whenFinished(const QDBusPendingCall &call, QObject *context, Done done)
{
    auto *watcher = new QDBusPendingCallWatcher(call, context);
    QObject::connect(
        watcher, &QDBusPendingCallWatcher::finished, context, [watcher, done = std::move(done)] {
            watcher->deleteLater();
            done(*watcher);
        });
}

#endif // DBUS_TYPES_H
