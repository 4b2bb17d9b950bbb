// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

// The floor for the pairing relay: a minimal Qt agent that only defers BlueZ's question,
// signals it to the user interface and replies with the answer. For the load it is measured
// under, it also passes on each of BlueZ's property changes and answers the device list (with
// an empty one: it keeps none).

#include "constants.h"

#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>

class FloorAgent : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.bluez.Agent1")

public:
    explicit FloorAgent(QObject *parent)
        : QDBusAbstractAdaptor(parent)
    { }

public slots:
    void RequestConfirmation(const QDBusObjectPath &, uint passkey, const QDBusMessage &msg)
    {
        msg.setDelayedReply(true);
        pending = msg;
        emit RequestUserConfirmation(passkey);
    }

    void userConfirmation(bool confirm)
    {
        QDBusConnection::systemBus().send(confirm
                ? pending.createReply(true)
                : pending.createErrorReply(Names::RejectedError, Names::RejectedMessage));
    }

    void getDevices() { emit BluetoothDevices(QVariantMap()); }

signals:
    void RequestUserConfirmation(uint passkey);
    void ConnectionStatus(const QString &device, bool status);
    void BluetoothDevices(const QVariantMap &devs);

private slots:
    void propertiesChanged(const QDBusMessage &msg) { emit ConnectionStatus(msg.path(), true); }

private:
    QDBusMessage pending;
};

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QObject agent;
    auto *adaptor = new FloorAgent(&agent);
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.registerObject(Names::AgentPath, &agent) || !bus.registerService(Names::AgentService))
        return 1;
    bus.connect(Names::BluezService, QString(), Names::PropertiesInterface,
        QStringLiteral("PropertiesChanged"), adaptor, SLOT(propertiesChanged(QDBusMessage)));
    return app.exec();
}

#include "floor_agent.moc"
