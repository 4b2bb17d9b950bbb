// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "agent_client.h"

#include "bluetoothagent_interface.h"
#include "constants.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QEventLoop>
#include <QTimer>

namespace {
// The daemon reads each device's properties from BlueZ before it answers with the list.
constexpr int listTimeoutMs = 25000;
} // namespace

AgentClient::AgentClient()
    : proxy(new BluetoothAgentInterface(
        Names::AgentService, Names::AgentPath, QDBusConnection::systemBus(), this))
{
    // Qt holds back a new bus connection's incoming signals until the event loop first runs;
    // that pass lets the signals a command waits for be delivered as they come.
    QCoreApplication::processEvents();
}

QDBusError AgentClient::reach()
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return QDBusError(
            QDBusError::Disconnected, QLatin1String("no system bus: ") + bus.lastError().message());
    const QDBusMessage ping = QDBusMessage::createMethodCall(Names::AgentService, Names::AgentPath,
        QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
    return QDBusError(bus.call(ping));
}

QDBusError AgentClient::confirm(bool yes, bool *pending)
{
    return answer([this, yes] { return proxy->userConfirmation(yes); }, pending);
}

QDBusError AgentClient::pin(bool give, const QString &code, bool *pending)
{
    return answer([this, give, &code] { return proxy->userSuppliedPin(give, code); }, pending);
}

template <typename Call> QDBusError AgentClient::answer(Call call, bool *pending)
{
    // An answer that finds no question makes the daemon send RequestCancelled. The daemon's bus
    // thread sends signals, so its reply can overtake the signal; a ping answered by that
    // thread comes after it, and by then the signal is queued here.
    bool cancelled = false;
    const QMetaObject::Connection listening = connect(proxy,
        &BluetoothAgentInterface::RequestCancelled, this, [&cancelled] { cancelled = true; });
    QDBusPendingReply<> reply = call();
    reply.waitForFinished();
    const QDBusError error = reply.isError() ? reply.error() : reach();
    QCoreApplication::processEvents();
    disconnect(listening);
    *pending = !cancelled;
    return error;
}

QDBusError AgentClient::power(bool *on)
{
    QDBusPendingReply<bool> reply = proxy->getPower();
    reply.waitForFinished();
    if (reply.isValid())
        *on = reply.value();
    return reply.error();
}

QDBusError AgentClient::setPower(bool on)
{
    QDBusPendingReply<> reply = proxy->setPower(on);
    reply.waitForFinished();
    return reply.error();
}

QDBusError AgentClient::setDiscoverable(bool on)
{
    QDBusPendingReply<> reply = proxy->SetDiscoverable(on);
    reply.waitForFinished();
    return reply.error();
}

QDBusError AgentClient::discoverable(bool *on)
{
    const QDBusMessage get = QDBusMessage::createMethodCall(Names::BluezService, Names::AdapterPath,
                                 Names::PropertiesInterface, QStringLiteral("Get"))
        << Names::AdapterInterface << QStringLiteral("Discoverable");
    const QDBusMessage reply = QDBusConnection::systemBus().call(get);
    if (reply.type() == QDBusMessage::ErrorMessage)
        return QDBusError(reply);
    *on = reply.arguments().value(0).value<QDBusVariant>().variant().toBool();
    return QDBusError();
}

QDBusError AgentClient::devices(QVariantMap *list)
{
    return callAndWaitForList([this] { return proxy->getDevices(); }, list);
}

QDBusError AgentClient::forget(const QString &address, QVariantMap *left)
{
    return callAndWaitForList([this, &address] { return proxy->forgetDevice(address); }, left);
}

template <typename Call> QDBusError AgentClient::callAndWaitForList(Call call, QVariantMap *list)
{
    // Listen before calling: the list is sent before the call's reply.
    QEventLoop loop;
    bool received = false;
    const QMetaObject::Connection listening = connect(
        proxy, &BluetoothAgentInterface::BluetoothDevices, &loop, [&](const QVariantMap &devices) {
            *list = devices;
            received = true;
            loop.quit();
        });
    QDBusPendingReply<> reply = call();
    reply.waitForFinished();
    if (reply.isError()) {
        disconnect(listening);
        return reply.error();
    }
    if (!received) {
        QTimer::singleShot(listTimeoutMs, &loop, &QEventLoop::quit);
        loop.exec();
    }
    disconnect(listening);
    if (!received)
        return QDBusError(QDBusError::Timeout, QStringLiteral("no device list came back"));
    return QDBusError();
}
