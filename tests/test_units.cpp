// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "command_line.h"
#include "pairing_agent.h"
#include "receive_folder.h"
#include "signal_printer.h"
#include "spool_handover.h"

#include <QSignalSpy>
#include <QtTest>

// The daemon's, the control tool's and the OBEX agent's rules that need no bus, no root and no
// files.
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
        SpoolHandover handover;
        QCOMPARE(SpoolHandover::suffixOf(name), suffix);
        QCOMPARE(handover.accepts(suffix), accepted);
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

    // A phone's name names one file in the receive folder, and a numbered one still fits.
    void pushedNamesStayOneFileName()
    {
        QCOMPARE(ReceiveFolder::safeName("../a/"), QString("unnamed"));
        const QString longName = QString(250, 'x') + ".brf";
        QCOMPARE(ReceiveFolder::candidate(longName, 0), longName.toUtf8());
        QCOMPARE(ReceiveFolder::candidate(longName, 12), QByteArray(248, 'x') + "-12.brf");
    }
};

QTEST_GUILESS_MAIN(UnitsTest)
#include "test_units.moc"
