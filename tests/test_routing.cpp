#include "daemon.h"

#include <QSignalSpy>
#include <QtTest>

#include <sys/inotify.h>

// How the daemon turns the receive folder's events into uploads. Runs in the sandbox: the
// uploads it starts touch only the sandbox's spool.
class RoutingTest : public QObject
{
    Q_OBJECT

    // Never deleted, like the process's own: its worker threads run until the process ends.
    Daemon *daemon = new Daemon;

    QStringList uploadsFor(const QString &name, const QList<uint> &masks)
    {
        QSignalSpy started(daemon, &Daemon::startUploader);
        for (uint mask : masks)
            daemon->processFileEvent(name, mask);
        QStringList paths;
        for (const QList<QVariant> &args : started)
            paths << args.at(0).toString();
        return paths;
    }

private slots:
    void closeEventsOfOneNameAlternate()
    {
        const QString path = QStringLiteral("/var/spool/lp/obex/a.pdf");
        QCOMPARE(uploadsFor(QStringLiteral("a.pdf"), { IN_CLOSE_WRITE }), QStringList { path });
        // The uploader's echo only clears the name; the next close starts a new upload.
        QCOMPARE(uploadsFor(QStringLiteral("a.pdf"), { IN_CLOSE_WRITE }), QStringList {});
        QCOMPARE(uploadsFor(QStringLiteral("a.pdf"), { IN_CLOSE_WRITE }), QStringList { path });
    }

    void onlyAPlainCloseAfterWriteCounts()
    {
        const QList<uint> others { IN_CREATE, IN_CREATE | IN_ISDIR, IN_CLOSE_WRITE | IN_ISDIR,
            IN_CLOSE_WRITE | IN_CREATE, IN_CLOSE_WRITE | IN_IGNORED, IN_Q_OVERFLOW, IN_IGNORED, 0 };
        QCOMPARE(uploadsFor(QStringLiteral("b.txt"), others), QStringList {});
        // None of them touched the name's state: the first plain close starts an upload.
        QCOMPARE(uploadsFor(QStringLiteral("b.txt"), { IN_CLOSE_WRITE }).size(), 1);
    }

    void namesDifferingInCaseAreDifferent()
    {
        QCOMPARE(uploadsFor(QStringLiteral("Doc.txt"), { IN_CLOSE_WRITE }).size(), 1);
        QCOMPARE(uploadsFor(QStringLiteral("doc.txt"), { IN_CLOSE_WRITE }).size(), 1);
        QCOMPARE(uploadsFor(QStringLiteral("DOC.txt"), { IN_CLOSE_WRITE }).size(), 1);
    }
};

QTEST_GUILESS_MAIN(RoutingTest)
#include "test_routing.moc"
