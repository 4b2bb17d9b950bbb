// The floor for start-up and for the idle footprint: a minimal Qt program that makes the calls
// bluetooth-agent makes at start, as plain blocking messages, then idles in its event loop.

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QFile>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QDBusConnection bus = QDBusConnection::systemBus();
    QObject agent;
    bus.registerObject(QStringLiteral("/BluetoothAgent"), &agent);
    bus.registerService(QStringLiteral("com.quorvane.BluetoothAgent"));

    const auto call = [&bus](const QString &path, const QString &iface, const QString &member,
                          const QVariantList &args) {
        QDBusMessage message =
            QDBusMessage::createMethodCall(QStringLiteral("org.bluez"), path, iface, member);
        message.setArguments(args);
        return bus.call(message);
    };
    const QString adapter = QStringLiteral("/org/bluez/hci0");
    const QString properties = QStringLiteral("org.freedesktop.DBus.Properties");
    const QString adapterIface = QStringLiteral("org.bluez.Adapter1");
    const QDBusMessage powered = call(
        adapter, properties, QStringLiteral("Get"), { adapterIface, QStringLiteral("Powered") });
    if (!powered.arguments().value(0).value<QDBusVariant>().variant().toBool())
        call(adapter, properties, QStringLiteral("Set"),
            { adapterIface, QStringLiteral("Powered"), QVariant::fromValue(QDBusVariant(true)) });
    QFile hostname(QStringLiteral("/etc/hostname"));
    hostname.open(QIODevice::ReadOnly | QIODevice::Text);
    call(adapter, properties, QStringLiteral("Set"),
        { adapterIface, QStringLiteral("Alias"),
            QVariant::fromValue(QDBusVariant(QString::fromUtf8(hostname.readLine()))) });
    call(QStringLiteral("/"), QStringLiteral("org.freedesktop.DBus.ObjectManager"),
        QStringLiteral("GetManagedObjects"), {});
    const QVariant self = QVariant::fromValue(QDBusObjectPath(QStringLiteral("/BluetoothAgent")));
    const QString manager = QStringLiteral("org.bluez.AgentManager1");
    call(QStringLiteral("/org/bluez"), manager, QStringLiteral("RegisterAgent"),
        { self, QStringLiteral("DisplayYesNo") });
    call(QStringLiteral("/org/bluez"), manager, QStringLiteral("RequestDefaultAgent"), { self });
    return app.exec();
}
