// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

// The floor for the pairing relay: a minimal Qt agent that only defers BlueZ's question,
// signals it to the user interface and replies with the answer.

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

signals:
    void RequestUserConfirmation(uint passkey);

private:
    QDBusMessage pending;
};

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QObject agent;
    new FloorAgent(&agent);
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.registerObject(Names::AgentPath, &agent) || !bus.registerService(Names::AgentService))
        return 1;
    return app.exec();
}

#include "floor_agent.moc"
