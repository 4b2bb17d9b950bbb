// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

// Measures bluetooth-agent, or a floor program standing in for it, as its peers see it. Prints
// "TARGET NANOSECONDS" per latency (TARGET: the place of its bus among the arguments, from 0),
// then what else it counted as "name value" lines. Several buses are measured in turn, one
// request or file each, so that whatever else the machine does weighs on all of them alike.
//   bench-driver pairing N BUS...      BlueZ sends RequestConfirmation; a user interface answers
//                                      at once; time until BlueZ has the reply
//   bench-driver pairing-loaded SECONDS OBEX WWW  the same for SECONDS, on the system bus, while
//                                      a phone sends a 64 MiB document every 250 ms and the user
//                                      interface asks for the device list 10 times a second; then
//                                      what the load reached
//   bench-driver intake SIZE N (BUS OBEX WWW)...  a phone's file of SIZE bytes: time from the
//                                      writer's close() until TransferComplete arrives
//   bench-driver devices N             the user interface asks for the device list on the system
//                                      bus: time until BluetoothDevices arrives; then the size of
//                                      the last list
//   bench-driver settle                how long the daemon lets a closed file settle (ms)

#include "constants.h"
#include "file_uploader.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDir>
#include <QEventLoop>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

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

QDBusConnection connect(const QString &address, const QString &name)
{
    return QDBusConnection::connectToBus(address, name);
}

QString systemBus() { return qEnvironmentVariable("DBUS_SYSTEM_BUS_ADDRESS"); }

void fail(const char *what)
{
    fprintf(stderr, "%s\n", what);
    exit(1);
}

// Waits in the event loop, so that replies and signals keep coming meanwhile.
void runFor(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

// Removes the copies the spooler would have printed (not the hidden ones still being written).
void emptySpool(const QString &www)
{
    for (const QString &copy : QDir(www).entryList(QDir::Files))
        QFile::remove(www + QLatin1Char('/') + copy);
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

// BlueZ asking one agent, with a user interface that answers.
class Relay
{
public:
    Relay(const QString &address, int target)
        : ui(connect(address, QStringLiteral("ui%1").arg(target)))
        , bluez(connect(address, QStringLiteral("bluez%1").arg(target)))
        , answerer(ui)
    {
        ui.connect(QString(), path, iface, QStringLiteral("RequestUserConfirmation"), &answerer,
            SLOT(question(uint)));
    }

    // One question: the time until BlueZ has the answer (ns).
    qint64 ask(uint passkey)
    {
        QDBusMessage request = QDBusMessage::createMethodCall(
            service, path, iface, QStringLiteral("RequestConfirmation"));
        request << QVariant::fromValue(QDBusObjectPath(QStringLiteral("/org/bluez/hci0/dev_AA")))
                << passkey;
        const qint64 sent = now();
        QDBusPendingCallWatcher watcher(bluez.asyncCall(request));
        QEventLoop loop;
        QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
        loop.exec();
        const qint64 replied = now();
        if (watcher.isError() || !watcher.reply().arguments().value(0).toBool())
            fail("no yes from the agent");
        return replied - sent;
    }

    QDBusConnection ui;

private:
    QDBusConnection bluez;
    Answerer answerer;
};

// The phone, waiting for the announcement of its file; or the user interface, for the device
// list.
class Listener : public QObject
{
    Q_OBJECT

public:
    QString expected;
    qint64 arrived = 0;
    QVariantMap list;
    QEventLoop loop;

    // Waits for the announcement, two minutes at most; the time it came.
    qint64 wait()
    {
        QTimer giveUp;
        giveUp.setSingleShot(true);
        QObject::connect(&giveUp, &QTimer::timeout, &loop, &QEventLoop::quit);
        giveUp.start(120000);
        loop.exec();
        return std::exchange(arrived, 0);
    }

public slots:
    void transferred(const QString &file)
    {
        if (file == expected) {
            arrived = now();
            loop.quit();
        }
    }

    void listed(const QVariantMap &devices)
    {
        arrived = now();
        list = devices;
        loop.quit();
    }
};

// Counts the daemon's signals of one name.
class Counter : public QObject
{
    Q_OBJECT

public:
    int count = 0;

public slots:
    void seen() { ++count; }
};

// What keeps a busy embosser busy: a phone's 64 MiB document every 250 ms, and the user
// interface asking for the device list ten times a second. Runs from construction until stop().
class Load
{
public:
    Load(QDBusConnection ui, const QString &obex, const QString &www)
        : ui(ui)
        , www(www)
    {
        ui.connect(
            QString(), path, iface, QStringLiteral("TransferComplete"), &spooled, SLOT(seen()));
        ui.connect(
            QString(), path, iface, QStringLiteral("BluetoothDevices"), &lists, SLOT(seen()));
        ui.connect(
            QString(), path, iface, QStringLiteral("ConnectionStatus"), &statuses, SLOT(seen()));
        QObject::connect(&poll, &QTimer::timeout, &poll, [this] {
            this->ui.asyncCall(
                QDBusMessage::createMethodCall(service, path, iface, QStringLiteral("getDevices")));
        });
        poll.setTimerType(Qt::PreciseTimer);
        poll.start(100);
        receiver = std::thread([this, obex] { publishDocuments(obex); });
    }

    ~Load() { stop(); }

    // Ends the load and prints what it reached; then waits until the daemon has taken every
    // document, and empties the spool, so that nothing of the load is left when it returns.
    void stop()
    {
        if (stopping.exchange(true))
            return;
        const double seconds = (now() - started) / 1e9;
        poll.stop();
        receiver.join();
        printf("seconds %.3f\ndocuments %d\n", seconds, published.load());
        printf("lists %d\nstatuses %d\n", lists.count, statuses.count);
        for (int waited = 0; spooled.count < published && waited < 30000; waited += 10)
            runFor(10);
        printf("spooled %d\n", spooled.count);
        emptySpool(www);
    }

private:
    // As the OBEX receiver does it: a whole document is renamed into the receive folder from
    // the staging folder. Its bytes came beforehand, over minutes from a phone; a sparse file
    // stands for them, so that making them does not load the machine. The spooler leaves the
    // copies until the load ends.
    void publishDocuments(const QString &obex)
    {
        const QString staging = obex + QLatin1String("/.incoming");
        QDir().mkpath(staging);
        auto next = std::chrono::steady_clock::now();
        for (int i = 0; !stopping; ++i) {
            const QString name = QStringLiteral("/load-%1.pdf").arg(i);
            const QByteArray received = QFile::encodeName(staging + name);
            const int fd = open(received.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd == -1 || ftruncate(fd, 64 << 20) != 0)
                fail("cannot make a document");
            close(fd);
            if (rename(received.constData(), QFile::encodeName(obex + name).constData()) != 0)
                fail("cannot publish a document");
            ++published;
            next += std::chrono::milliseconds(250);
            std::this_thread::sleep_until(next);
        }
    }

    QDBusConnection ui;
    const QString www;
    const qint64 started = now();
    QTimer poll;
    Counter spooled, lists, statuses;
    std::atomic<int> published { 0 };
    std::atomic<bool> stopping { false };
    std::thread receiver;
};

int pairing(int count, const QStringList &buses)
{
    std::vector<std::unique_ptr<Relay>> relays;
    for (const QString &bus : buses)
        relays.push_back(std::make_unique<Relay>(bus, int(relays.size())));
    for (int i = 0; i < warmUp + count; ++i) {
        for (size_t target = 0; target < relays.size(); ++target) {
            const qint64 latency = relays[target]->ask(uint(i));
            if (i >= warmUp)
                printf("%zu %lld\n", target, latency);
        }
    }
    return 0;
}

int pairingLoaded(double seconds, const QString &obex, const QString &www)
{
    Relay relay(systemBus(), 0);
    Load load(relay.ui, obex, www);
    // The first documents are settling and being copied by the time the questions come.
    runFor(500);
    std::vector<qint64> latencies;
    for (const qint64 end = now() + qint64(seconds * 1e9); now() < end;)
        latencies.push_back(relay.ask(uint(latencies.size())));
    load.stop();
    for (const qint64 latency : latencies)
        printf("0 %lld\n", latency);
    return 0;
}

// A phone sending files to one program.
struct Phone
{
    Phone(const QString &address, int target, const QString &obex, const QString &www)
        : bus(connect(address, QStringLiteral("phone%1").arg(target)))
        , obex(obex)
        , www(www)
    {
        bus.connect(QString(), path, iface, QStringLiteral("TransferComplete"), &listener,
            SLOT(transferred(QString)));
    }

    QDBusConnection bus;
    const QString obex, www;
    Listener listener;
};

int intake(qint64 size, int count, const QStringList &targets)
{
    std::vector<std::unique_ptr<Phone>> phones;
    for (int i = 0; i + 2 < targets.size(); i += 3)
        phones.push_back(std::make_unique<Phone>(
            targets[i], int(phones.size()), targets[i + 1], targets[i + 2]));
    const QByteArray content(int(size), 'b');
    for (int i = 0; i < 3 + count; ++i) {
        for (size_t target = 0; target < phones.size(); ++target) {
            Phone &phone = *phones[target];
            phone.listener.expected = QStringLiteral("bench-%1-%2.pdf").arg(size).arg(i);
            const QByteArray file =
                QFile::encodeName(phone.obex + QLatin1Char('/') + phone.listener.expected);
            const int fd = open(file.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            for (qint64 done = 0; done < size;)
                done += write(fd, content.constData() + done, size_t(size - done));
            const qint64 closing = now();
            close(fd);
            const qint64 arrived = phone.listener.wait();
            if (!arrived)
                fail("no TransferComplete");
            if (i >= 3)
                printf("%zu %lld\n", target, arrived - closing);
            // Untimed: keep the spool from filling up.
            emptySpool(phone.www);
        }
    }
    return 0;
}

int devices(int count)
{
    QDBusConnection ui = connect(systemBus(), QStringLiteral("ui"));
    Listener listener;
    ui.connect(QString(), path, iface, QStringLiteral("BluetoothDevices"), &listener,
        SLOT(listed(QVariantMap)));
    for (int i = 0; i < count; ++i) {
        const qint64 asked = now();
        ui.asyncCall(
            QDBusMessage::createMethodCall(service, path, iface, QStringLiteral("getDevices")));
        const qint64 arrived = listener.wait();
        if (!arrived)
            fail("no BluetoothDevices");
        printf("0 %lld\n", arrived - asked);
    }
    printf("listed %d\n", int(listener.list.size()));
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString mode = args.value(1);
    if (mode == QLatin1String("pairing") && args.size() >= 4)
        return pairing(args[2].toInt(), args.mid(3));
    if (mode == QLatin1String("pairing-loaded") && args.size() == 5)
        return pairingLoaded(args[2].toDouble(), args[3], args[4]);
    if (mode == QLatin1String("intake") && args.size() >= 7 && (args.size() - 4) % 3 == 0)
        return intake(args[2].toLongLong(), args[3].toInt(), args.mid(4));
    if (mode == QLatin1String("devices") && args.size() == 3)
        return devices(args[2].toInt());
    if (mode == QLatin1String("settle") && args.size() == 2)
        return printf("%d\n", FileUploader::SettleTime) < 0;
    fprintf(stderr,
        "usage: bench-driver pairing N BUS... | pairing-loaded SECONDS OBEX WWW"
        " | intake SIZE N (BUS OBEX WWW)... | devices N | settle\n");
    return 2;
}

#include "driver.moc"
