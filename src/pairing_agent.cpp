// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "pairing_agent.h"

#include "constants.h"
#include "dbus_types.h"
#include "deviceinterface.h"
#include "logging.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMetaType>

#include <iterator>

PairingAgent::PairingAgent()
{
    qDBusRegisterMetaType<InterfaceList>();
    qDBusRegisterMetaType<ManagedObjectList>();

    // The slots take the whole message and read it only when its types are BlueZ's: Qt D-Bus
    // would hand a mistyped dictionary to a typed slot unchecked. One subscription serves every
    // device, whatever their number over the daemon's life.
    QDBusConnection bus = QDBusConnection::systemBus();
    bus.connect(Names::BluezService, Names::ObjectManagerPath, Names::ObjectManagerInterface,
        QStringLiteral("InterfacesAdded"), this, SLOT(onInterfacesAdded(QDBusMessage)));
    bus.connect(Names::BluezService, Names::ObjectManagerPath, Names::ObjectManagerInterface,
        QStringLiteral("InterfacesRemoved"), this, SLOT(onInterfacesRemoved(QDBusMessage)));
    bus.connect(Names::BluezService, QString(), Names::PropertiesInterface,
        QStringLiteral("PropertiesChanged"), this, SLOT(onPropertiesChanged(QDBusMessage)));
}

void PairingAgent::onInterfacesAdded(const QDBusMessage &msg)
{
    if (msg.signature() != QLatin1String("oa{sa{sv}}"))
        return;
    const QList<QVariant> args = msg.arguments();
    const auto path = args.at(0).value<QDBusObjectPath>();
    const auto interfaces = qdbus_cast<InterfaceList>(args.at(1));
    if (path.path() == Names::AdapterPath && interfaces.contains(Names::AdapterInterface))
        emit adapterAdded();
    if (DeviceInterface *watcher = watchers.value(path.path()))
        watcher->update(Names::DeviceInterface, interfaces.value(Names::DeviceInterface));
    interfaceAdded(path, interfaces);
}

void PairingAgent::onInterfacesRemoved(const QDBusMessage &msg)
{
    if (msg.signature() != QLatin1String("oas"))
        return;
    const QList<QVariant> args = msg.arguments();
    if (!qdbus_cast<QStringList>(args.at(1)).contains(Names::DeviceInterface))
        return;
    deviceRemoved(args.at(0).value<QDBusObjectPath>().path());
}

void PairingAgent::deviceRemoved(const QString &path)
{
    // The device and the objects below it are gone, and with them all the daemon kept of them.
    const auto gone = [&path](const QString &other) {
        return other == path || other.startsWith(path + QLatin1Char('/'));
    };
    for (auto it = watchers.begin(); it != watchers.end();) {
        if (gone(it.key())) {
            delete it.value();
            it = watchers.erase(it);
        } else {
            ++it;
        }
    }
    for (auto it = devices.begin(); it != devices.end();)
        it = gone(it.value()) ? devices.erase(it) : std::next(it);
    // Announced again, it is registered again.
    if (gone(lastDevicePath))
        lastDevicePath.clear();
}

void PairingAgent::onPropertiesChanged(const QDBusMessage &msg)
{
    if (msg.signature() != QLatin1String("sa{sv}as"))
        return;
    DeviceInterface *watcher = watchers.value(msg.path());
    if (!watcher)
        return;
    const QList<QVariant> args = msg.arguments();
    watcher->PropertiesChanged(args.at(0).toString(), qdbus_cast<QVariantMap>(args.at(1)));
}

void PairingAgent::forgetBluez()
{
    if (pendingMessage.type() == QDBusMessage::MethodCallMessage)
        emit RequestCancelled();
    pendingMessage = QDBusMessage();
    // Its devices went with it; the next BlueZ announces its own.
    qDeleteAll(watchers);
    watchers.clear();
    devices.clear();
    lastDevicePath.clear();
}

void PairingAgent::loadDevices(const ManagedObjectList &objects)
{
    for (auto it = objects.constBegin(); it != objects.constEnd(); ++it) {
        const QString path = it.key().path();
        // Anything whose path mentions "dev" counts as a device, objects below one included.
        if (!path.contains(QLatin1String("dev")))
            continue;
        watchDevice(path)->update(Names::DeviceInterface, it->value(Names::DeviceInterface));
        devices.insert(addressFromPath(path), path);
    }
}

void PairingAgent::interfaceAdded(const QDBusObjectPath &path, const InterfaceList &args)
{
    // BlueZ always announces at least one interface; an empty announcement says nothing.
    if (args.isEmpty())
        return;

    // Only the first interface name in sort order decides what the object is.
    if (args.firstKey() != Names::DeviceInterface) {
        if (path.path() == lastOtherInterfacePath)
            return;
        lastOtherInterfacePath = path.path();
        getDevices();
        return;
    }

    // Each announcement reports the device's state; a repeated one adds no second watcher.
    DeviceInterface *device = watchDevice(path.path());
    device->update(Names::DeviceInterface, args.value(Names::DeviceInterface));
    deviceConnected(device->alias(), device->connected());

    if (path.path() == lastDevicePath)
        return;
    devices.insert(addressFromPath(path.path()), path.path());
    lastDevicePath = path.path();
}

void PairingAgent::deviceConnected(const QString &devName, bool status)
{
    emit ConnectionStatus(devName, status);
}

void PairingAgent::Release() { qCCritical(lcPairingAgent) << "pairing_agent::Release"; }

QString PairingAgent::RequestPinCode(const QDBusObjectPath &device, const QDBusMessage &msg)
{
    deferReply(msg);
    emit RequestUserPin();
    qCCritical(lcPairingAgent) << "pairing_agent::RequestPinCode " << device.path();
    handBack(msg);
    // Never sent: the reply waits for userSuppliedPin().
    return QStringLiteral("");
}

void PairingAgent::DisplayPinCode(
    const QDBusObjectPath &device, const QString &pincode, const QDBusMessage &msg)
{
    Q_UNUSED(msg)
    qCCritical(lcPairingAgent) << "pairing_agent::DisplayPinCode " << device.path() << " "
                               << pincode;
}

int PairingAgent::RequestPasskey(const QDBusObjectPath &device, const QDBusMessage &msg)
{
    Q_UNUSED(msg)
    qCCritical(lcPairingAgent) << "pairing_agent::RequestPasskey " << device.path();
    return 73;
}

void PairingAgent::DisplayPasskey(
    const QDBusObjectPath &device, uint passkey, ushort entered, const QDBusMessage &msg)
{
    Q_UNUSED(msg)
    qCCritical(lcPairingAgent) << "pairing_agent::DisplayPasskey " << device.path() << " "
                               << passkey << " " << entered;
    // The other side has a keyboard only: the user types this number there.
    emit DisplayUserPasskey(passkey, entered);
}

void PairingAgent::RequestConfirmation(
    const QDBusObjectPath &device, uint passkey, const QDBusMessage &msg)
{
    deferReply(msg);
    emit RequestUserConfirmation(passkey);
    qCCritical(lcPairingAgent) << "pairing_agent::RequestConfirmation " << device.path() << " "
                               << passkey;
    handBack(msg);
}

void PairingAgent::RequestAuthorization(const QDBusObjectPath &device, const QDBusMessage &msg)
{
    Q_UNUSED(msg)
    // Granted without asking: the automatic empty reply accepts the call ("Deliberate behaviours"
    // and the security note in data/com.quorvane.BluetoothAgent.md).
    qCCritical(lcPairingAgent) << "pairing_agent::RequestAuthorization " << device.path();
}

void PairingAgent::AuthorizeService(
    const QDBusObjectPath &device, const QString &uuid, const QDBusMessage &msg)
{
    Q_UNUSED(device)
    Q_UNUSED(uuid)
    rejectAtOnce(msg);
}

void PairingAgent::Cancel(const QDBusMessage &msg)
{
    // BlueZ gave up waiting (60 s) or the pairing failed: the question is over, so a late
    // answer must not reach BlueZ as if the user had accepted. The Cancel call itself is
    // refused as before; BlueZ does not wait for that reply.
    pendingMessage = QDBusMessage();
    emit RequestCancelled();
    rejectAtOnce(msg);
}

void PairingAgent::userConfirmation(bool confirm) { answerPending(confirm, QVariant(true)); }

void PairingAgent::userSuppliedPin(bool confirm, const QString &pin)
{
    answerPending(confirm, QVariant(pin));
}

void PairingAgent::getDevices()
{
    // From what BlueZ announced: nothing is asked, however many devices there are.
    QVariantMap result;
    for (auto it = devices.constBegin(); it != devices.constEnd(); ++it) {
        const DeviceInterface *device = watchers.value(it.value());
        if (device && device->paired())
            result.insert(device->alias(), QVariant(it.key()));
    }
    emit BluetoothDevices(result);
}

void PairingAgent::deferReply(const QDBusMessage &msg)
{
    pendingMessage = msg;
    // Shared with the stored copy, so Qt D-Bus leaves the call unanswered on return.
    msg.setDelayedReply(true);
}

void PairingAgent::handBack(const QDBusMessage &msg)
{
    // Hands the call back to its sender as a one-way message; the result does not matter. Only
    // after the user interface was asked: the question is what someone waits for.
    QDBusConnection::systemBus().send(msg);
}

void PairingAgent::answerPending(bool confirm, const QVariant &value)
{
    // An answer with no request pending (none received yet, or BlueZ cancelled it) reaches no
    // caller; a reply built on the empty message would make libdbus abort the process, so
    // nothing is sent, and whoever answered is told that no question is open. A later answer to
    // a request already answered is still sent, and the bus discards it.
    if (pendingMessage.type() != QDBusMessage::MethodCallMessage) {
        emit RequestCancelled();
        return;
    }

    QDBusMessage reply;
    pendingMessage.setDelayedReply(false);
    if (confirm)
        reply = pendingMessage.createReply(QVariantList { value });
    else
        reply = pendingMessage.createErrorReply(Names::RejectedError, Names::RejectedMessage);
    if (reply.type() != QDBusMessage::InvalidMessage)
        QDBusConnection::systemBus().send(reply);
}

void PairingAgent::rejectAtOnce(const QDBusMessage &msg)
{
    // Not deferred: Qt D-Bus's own empty reply follows the error, and the bus drops it.
    QDBusConnection::systemBus().send(
        msg.createErrorReply(Names::RejectedError, Names::RejectedMessage));
}

DeviceInterface *PairingAgent::watchDevice(const QString &path)
{
    DeviceInterface *&device = watchers[path];
    if (!device) {
        // Lives until BlueZ removes the device or leaves the bus.
        device = new DeviceInterface;
        connect(device, &DeviceInterface::DeviceConnected, this, &PairingAgent::deviceConnected);
    }
    return device;
}

QString PairingAgent::addressFromPath(const QString &path)
{
    // Drops the "/" and the "dev_" in front of the address.
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    return path.mid(slash + 5).replace(QLatin1Char('_'), QLatin1Char(':'));
}

QString PairingAgent::pathFromAddress(const QString &address)
{
    return Names::DevicePathPrefix + QString(address).replace(QLatin1Char(':'), QLatin1Char('_'));
}
