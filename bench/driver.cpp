// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

// Measures bluetooth-agent, or a floor program standing in for it, as its peers see it. Prints
// one latency in nanoseconds per line.
//   bench-driver pairing N             BlueZ sends RequestConfirmation; a user interface answers
//                                      at once; time until BlueZ has the reply
//   bench-driver intake SIZE N OBEX WWW  a phone's file of SIZE bytes: time from the writer's
//                                      close() until TransferComplete arrives

#include "constants.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDir>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

const QString &service = Names::AgentService;
const QString &path = Names::AgentPath;
const QString &iface = Names::AgentInterface;
constexpr int warmUp = 20;

qint64 now()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

QDBusConnection connect(const QString &name)
{
    return QDBusConnection::connectToBus(qEnvironmentVariable("DBUS_SYSTEM_BUS_ADDRESS"), name);
}

// The user interface: answers every question at once.
class Answerer : public QObject
{
    Q_OBJECT

public:
    explicit Answerer(QDBusConnection bus)
        : bus(bus)
    { }

public slots:
    void question(uint)
    {
        QDBusMessage answer = QDBusMessage::createMethodCall(
            service, path, iface, QStringLiteral("userConfirmation"));
        answer << true;
        bus.asyncCall(answer);
    }

private:
    QDBusConnection bus;
};

// The phone: waits for the announcement of its file.
class Listener : public QObject
{
    Q_OBJECT

public:
    QString expected;
    qint64 arrived = 0;
    QEventLoop loop;

public slots:
    void transferred(const QString &file)
    {
        if (file == expected) {
            arrived = now();
            loop.quit();
        }
    }
};

int pairing(int count)
{
    QDBusConnection ui = connect(QStringLiteral("ui"));
    QDBusConnection bluez = connect(QStringLiteral("bluez"));
    Answerer answerer(ui);
    ui.connect(QString(), path, iface, QStringLiteral("RequestUserConfirmation"), &answerer,
        SLOT(question(uint)));
    for (int i = 0; i < warmUp + count; ++i) {
        QDBusMessage request = QDBusMessage::createMethodCall(
            service, path, iface, QStringLiteral("RequestConfirmation"));
        request << QVariant::fromValue(QDBusObjectPath(QStringLiteral("/org/bluez/hci0/dev_AA")))
                << uint(i);
        const qint64 sent = now();
        QDBusPendingCallWatcher watcher(bluez.asyncCall(request));
        QEventLoop loop;
        QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
        loop.exec();
        const qint64 replied = now();
        if (watcher.isError() || !watcher.reply().arguments().value(0).toBool()) {
            fprintf(stderr, "request %d: no yes from the agent\n", i);
            return 1;
        }
        if (i >= warmUp)
            printf("%lld\n", replied - sent);
    }
    return 0;
}

int intake(qint64 size, int count, const QString &obex, const QString &www)
{
    QDBusConnection phone = connect(QStringLiteral("phone"));
    Listener listener;
    phone.connect(QString(), path, iface, QStringLiteral("TransferComplete"), &listener,
        SLOT(transferred(QString)));
    const QByteArray content(int(size), 'b');
    for (int i = 0; i < 3 + count; ++i) {
        listener.expected = QStringLiteral("bench-%1-%2.pdf").arg(size).arg(i);
        const QByteArray file = QFile::encodeName(obex + QLatin1Char('/') + listener.expected);
        const int fd = open(file.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        for (qint64 done = 0; done < size;)
            done += write(fd, content.constData() + done, size_t(size - done));
        const qint64 closing = now();
        close(fd);
        QTimer giveUp;
        giveUp.setSingleShot(true);
        QObject::connect(&giveUp, &QTimer::timeout, &listener.loop, &QEventLoop::quit);
        giveUp.start(120000);
        listener.loop.exec();
        if (!listener.arrived) {
            fprintf(stderr, "%s: no TransferComplete\n", file.constData());
            return 1;
        }
        if (i >= 3)
            printf("%lld\n", listener.arrived - closing);
        listener.arrived = 0;
        // Untimed: keep the spool from filling up.
        const QStringList copies = QDir(www).entryList(QDir::Files | QDir::Hidden);
        for (const QString &copy : copies)
            QFile::remove(www + QLatin1Char('/') + copy);
    }
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.value(1) == QLatin1String("pairing") && args.size() == 3)
        return pairing(args[2].toInt());
    if (args.value(1) == QLatin1String("intake") && args.size() == 6)
        return intake(args[2].toLongLong(), args[3].toInt(), args[4], args[5]);
    fprintf(stderr, "usage: bench-driver pairing N | intake SIZE N OBEX WWW\n");
    return 2;
}

#include "driver.moc"
