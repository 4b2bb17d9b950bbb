// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef AGENT_CLIENT_H
#define AGENT_CLIENT_H

#include <QDBusError>
#include <QObject>
#include <QVariantMap>

class BluetoothAgentInterface;

// bluetooth-agent as its user interface reaches it: blocking calls on the system bus. Each
// returns the D-Bus error, or an invalid QDBusError when all went well.
class AgentClient : public QObject
{
    Q_OBJECT

public:
    AgentClient();

    // The proxy, for listening to the daemon's signals.
    BluetoothAgentInterface *agent() const { return proxy; }

    // Whether the daemon is on the bus and lets us talk to it.
    QDBusError reach();
    // An answer reaches BlueZ only while a question is pending; *pending tells whether one was.
    QDBusError confirm(bool yes, bool *pending);
    QDBusError pin(bool give, const QString &code, bool *pending);
    QDBusError power(bool *on);
    QDBusError setPower(bool on);
    QDBusError setDiscoverable(bool on);
    // Read from BlueZ itself: the daemon has no method for it.
    QDBusError discoverable(bool *on);
    // The device list comes back as a signal; these wait for it.
    QDBusError devices(QVariantMap *list);
    QDBusError forget(const QString &address, QVariantMap *left);

private:
    template <typename Call> QDBusError callAndWaitForList(Call call, QVariantMap *list);
    template <typename Call> QDBusError answer(Call call, bool *pending);

    BluetoothAgentInterface *proxy;
};

#endif // AGENT_CLIENT_H
