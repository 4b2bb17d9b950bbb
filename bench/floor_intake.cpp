// The floor for the received-file intake: a minimal program that reads each file closed in the
// receive folder, writes it into the spool under a hidden name, renames it, removes the received
// file and signals TransferComplete, all in one thread. Prints "ready" once it watches.

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sys/inotify.h>
#include <unistd.h>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QDBusConnection bus = QDBusConnection::systemBus();
    const QString obex = QStringLiteral("/var/spool/lp/obex/");
    const QString www = QStringLiteral("/var/spool/lp/www/");
    const int fd = inotify_init();
    if (inotify_add_watch(fd, "/var/spool/lp/obex", IN_CLOSE_WRITE) == -1)
        return 1;
    printf("ready\n");
    fflush(stdout);

    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        for (ssize_t offset = 0; offset < n;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + offset);
            offset += ssize_t(sizeof(inotify_event) + event->len);
            const QString name = QString::fromUtf8(event->name);
            QFile source(obex + name);
            if (!source.open(QIODevice::ReadOnly))
                continue;
            const QByteArray content = source.readAll();
            const QString hidden = www + QLatin1Char('.') + name;
            {
                std::ofstream out(QFile::encodeName(hidden).constData(), std::ios::trunc);
                out.write(content.constData(), content.size());
            }
            QFile::rename(hidden, www + name);
            source.remove();
            QDBusMessage done = QDBusMessage::createSignal(QStringLiteral("/BluetoothAgent"),
                QStringLiteral("org.bluez.Agent1"), QStringLiteral("TransferComplete"));
            done << name;
            bus.send(done);
        }
    }
}
