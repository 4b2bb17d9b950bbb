// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "command_line.h"
#include "daemon.h"
#include "file_uploader.h"
#include "pairing_agent.h"
#include "signal_printer.h"

#include <QSignalSpy>
#include <QtTest>

#include <sys/inotify.h>

// The daemon's and the control tool's rules that need no bus, no root and no files.
class UnitsTest : public QObject
{
    Q_OBJECT

private slots:
    void addressFromPath_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("address");
        QTest::newRow("device") << "/org/bluez/hci0/dev_00_11_22_33_44_55"
                                << "00:11:22:33:44:55";
        QTest::newRow("below a device") << "/org/bluez/hci0/dev_00_11_22_33_44_55/sep1"
                                        << "";
        QTest::newRow("no slash") << "dev_AA_BB"
                                  << "AA:BB";
    }

    void addressFromPath()
    {
        QFETCH(QString, path);
        QFETCH(QString, address);
        QCOMPARE(PairingAgent::addressFromPath(path), address);
    }

    void suffixesAreTakenAfterTheLastDotAndCompareExactly_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("suffix");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("brf") << QByteArray("letter.brf") << QByteArray(".brf") << true;
        QTest::newRow("two dots") << QByteArray("archive.tar.brf") << QByteArray(".brf") << true;
        QTest::newRow("template") << QByteArray("form.template") << QByteArray(".template") << true;
        QTest::newRow("upper case") << QByteArray("REPORT.PDF") << QByteArray(".PDF") << false;
        QTest::newRow("no dot") << QByteArray("notes") << QByteArray(".") << false;
        QTest::newRow("bytes") << QByteArray("\xff.p\xe4"
                                             "f")
                               << QByteArray(".p\xe4"
                                             "f")
                               << false;
    }

    void suffixesAreTakenAfterTheLastDotAndCompareExactly()
    {
        QFETCH(QByteArray, name);
        QFETCH(QByteArray, suffix);
        QFETCH(bool, accepted);
        FileUploader uploader;
        QCOMPARE(FileUploader::suffixOf(name), suffix);
        QCOMPARE(uploader.accepts(suffix), accepted);
    }

    void onlyAPlainCloseAfterWriteOrAFoundFileStartsAnUpload()
    {
        // Never deleted: its worker threads run until the process ends, as in the daemon.
        auto *daemon = new Daemon;
        disconnect(daemon, &Daemon::startUploader, nullptr, nullptr);
        QSignalSpy started(daemon, &Daemon::startUploader);
        for (uint mask : QList<uint> { IN_CREATE, IN_CREATE | IN_ISDIR, IN_CLOSE_WRITE | IN_ISDIR,
                 IN_Q_OVERFLOW, IN_IGNORED, 0 })
            daemon->processFileEvent("a.pdf", mask);
        QCOMPARE(started.size(), 0);
        daemon->processFileEvent("caf\xe9.txt", IN_CLOSE_WRITE);
        daemon->processFoundFile("b.brf");
        QCOMPARE(started.size(), 2);
        QCOMPARE(started.at(0).at(0).toByteArray(), QByteArray("/var/spool/lp/obex/caf\xe9.txt"));
        QCOMPARE(started.at(1).at(0).toByteArray(), QByteArray("/var/spool/lp/obex/b.brf"));
    }

    void commandLine_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("kind");
        QTest::addColumn<bool>("flag");
        QTest::addColumn<QString>("text");
        QTest::newRow("help") << QStringList { "forget", "--help" } << int(Command::Help) << false
                              << "forget";
        QTest::newRow("version") << QStringList { "--version" } << int(Command::Version) << false
                                 << QString();
    }

    void commandLine()
    {
        QFETCH(QStringList, args);
        QFETCH(int, kind);
        const Command command = parseCommandLine(args);
        QCOMPARE(command.error, QString());
        QCOMPARE(int(command.kind), kind);
        QTEST(command.flag, "flag");
        QTEST(command.text, "text");
    }

    void monitorShowsPhoneTextsOnOneLine()
    {
        const QString phoneName = QStringLiteral("a\"b\\c\nRequestUserPin\t\x1b[31m\u202e\u2028ok");
        QCOMPARE(SignalPrinter::quoted(phoneName),
            QStringLiteral("\"a\\\"b\\\\c\\nRequestUserPin\\t\\u001b[31m\\u202e\\u2028ok\""));
    }

    void wrongCommandLinesSendNothing()
    {
        for (const QStringList &args : QList<QStringList> { {}, { "frobnicate" },
                 { "confirm", "maybe" }, { "pin" }, { "power", "half" }, { "discoverable" },
                 { "forget", "AA:BB:CC:DD:EE" }, { "devices", "extra" } })
            QVERIFY2(!parseCommandLine(args).error.isEmpty(), qPrintable(args.join(' ')));
    }
};

QTEST_GUILESS_MAIN(UnitsTest)
#include "test_units.moc"
