// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

// The floor for the received-file intake: a minimal program shaped like the daemon. A watcher
// thread reads inotify and reports each file closed in the receive folder to the main thread,
// which hands it to a copier thread; the copier writes it into the spool under a hidden temporary
// name, renames it, removes the received file and reports back; the main thread signals
// TransferComplete. Prints "ready" once it watches.

#include "constants.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>
#include <QTemporaryFile>
#include <QThread>

#include <cstdio>
#include <sys/inotify.h>
#include <unistd.h>

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
    void copy(const QByteArray &name)
    {
        QFile source(QFile::decodeName(Names::ReceiveDir.toLocal8Bit() + '/' + name));
        if (!source.open(QIODevice::ReadOnly))
            return;
        QTemporaryFile copy(Names::SpoolDir + QLatin1String("/.XXXXXX"));
        if (!copy.open())
            return;
        copy.setAutoRemove(false);
        copy.write(source.readAll());
        copy.close();
        copy.rename(Names::SpoolDir + QLatin1Char('/') + QFile::decodeName(name));
        source.remove();
        emit done(QString::fromUtf8(name));
    }

signals:
    void done(const QString &name);
};

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int fd = inotify_init();
    if (inotify_add_watch(fd, Names::ReceiveDir.toLocal8Bit().constData(), IN_CLOSE_WRITE) == -1)
        return 1;
    QThread watcherThread, copierThread;
    Watcher watcher;
    Copier copier;
    watcher.moveToThread(&watcherThread);
    copier.moveToThread(&copierThread);
    QObject router;
    QObject::connect(&watcher, &Watcher::closed, &router, [&copier](const QByteArray &name) {
        QMetaObject::invokeMethod(&copier, [&copier, name] { copier.copy(name); });
    });
    QObject::connect(&copier, &Copier::done, &router, [](const QString &name) {
        QDBusMessage signal = QDBusMessage::createSignal(
            Names::AgentPath, Names::AgentInterface, QStringLiteral("TransferComplete"));
        signal << name;
        QDBusConnection::systemBus().send(signal);
    });
    watcherThread.start();
    copierThread.start();
    QMetaObject::invokeMethod(&watcher, [&watcher, fd] { watcher.run(fd); });
    printf("ready\n");
    fflush(stdout);
    return app.exec();
}

#include "floor_intake.moc"
