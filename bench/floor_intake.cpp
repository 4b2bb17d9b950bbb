// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

// The floor for the received-file intake: a minimal program shaped like the daemon. A watcher
// thread reads inotify and hands each file closed in the receive folder, or moved into it, to a
// copier thread; the copier copies it in the kernel into the spool under a hidden temporary
// name, renames it, removes the received file and reports to the main thread, which signals
// TransferComplete. The copier runs at the daemon's priority for copying, the lowest, or the
// figures would set priorities against each other rather than work. With --durable it pays
// what a hand-over that survives a power cut must pay, as the daemon does: the copy reaches the
// disk before its rename, the spool folder after it, and the receive folder after the removal.
// With --settle MS it takes a file MS milliseconds after it was closed, as the daemon lets a
// closed file settle, so that what waking up after that wait costs is known apart from the
// daemon's own work. Prints "ready" once it watches.

#include "constants.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>
#include <QTemporaryFile>
#include <QThread>
#include <QTimer>

#include <cstdio>
#include <fcntl.h>
#include <linux/ioprio.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

void syncFolder(const QString &dir)
{
    const int fd = open(QFile::encodeName(dir).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd != -1) {
        fsync(fd);
        close(fd);
    }
}

} // namespace

class Watcher : public QObject
{
    Q_OBJECT

public:
    void run(int fd)
    {
        alignas(inotify_event) char buffer[4096];
        for (;;) {
            const ssize_t n = read(fd, buffer, sizeof buffer);
            for (ssize_t offset = 0; offset < n;) {
                const auto *event = reinterpret_cast<const inotify_event *>(buffer + offset);
                offset += ssize_t(sizeof(inotify_event) + event->len);
                emit closed(QByteArray(event->name));
            }
        }
    }

signals:
    void closed(const QByteArray &name);
};

class Copier : public QObject
{
    Q_OBJECT

public:
    Copier(bool durable, int settle)
        : durable(durable)
        , settle(settle)
    { }

    void take(const QByteArray &name)
    {
        if (settle)
            QTimer::singleShot(settle, Qt::PreciseTimer, this, [this, name] { copy(name); });
        else
            copy(name);
    }

    void copy(const QByteArray &name)
    {
        const QString path = Names::ReceiveDir + QLatin1Char('/') + QFile::decodeName(name);
        const int source = open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
        if (source == -1)
            return;
        QTemporaryFile copy(Names::SpoolDir + QLatin1String("/.XXXXXX"));
        if (!copy.open()) {
            close(source);
            return;
        }
        copy.setAutoRemove(false);
        while (copy_file_range(source, nullptr, copy.handle(), nullptr, 8 << 20, 0) > 0) { }
        close(source);
        if (durable)
            fsync(copy.handle());
        copy.close();
        copy.rename(Names::SpoolDir + QLatin1Char('/') + QFile::decodeName(name));
        if (durable)
            syncFolder(Names::SpoolDir);
        QFile::remove(path);
        if (durable)
            syncFolder(Names::ReceiveDir);
        emit done(QString::fromUtf8(name));
    }

signals:
    void done(const QString &name);

private:
    const bool durable;
    const int settle;
};

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const bool durable = args.contains(QStringLiteral("--durable"));
    const int settle = args.contains(QStringLiteral("--settle"))
        ? args.value(args.indexOf(QStringLiteral("--settle")) + 1).toInt()
        : 0;
    const int fd = inotify_init();
    if (inotify_add_watch(
            fd, Names::ReceiveDir.toLocal8Bit().constData(), IN_CLOSE_WRITE | IN_MOVED_TO)
        == -1)
        return 1;
    QThread watcherThread, copierThread;
    Watcher watcher;
    Copier copier(durable, settle);
    watcher.moveToThread(&watcherThread);
    copier.moveToThread(&copierThread);
    // As in the daemon, a closed file goes from the watcher straight to the copier; only the
    // announcement passes the main thread.
    QObject::connect(&watcher, &Watcher::closed, &copier, &Copier::take);
    QObject::connect(&copier, &Copier::done, &app, [](const QString &name) {
        QDBusMessage signal = QDBusMessage::createSignal(
            Names::AgentPath, Names::AgentInterface, QStringLiteral("TransferComplete"));
        signal << name;
        QDBusConnection::systemBus().send(signal);
    });
    watcherThread.start();
    copierThread.start();
    QMetaObject::invokeMethod(&copier, [] {
        setpriority(PRIO_PROCESS, pid_t(syscall(SYS_gettid)), 19);
        syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, 7));
    });
    QMetaObject::invokeMethod(&watcher, [&watcher, fd] { watcher.run(fd); });
    printf("ready\n");
    fflush(stdout);
    return app.exec();
}

#include "floor_intake.moc"
