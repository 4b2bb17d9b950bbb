// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "command_line.h"
#include "pairing_agent.h"
#include "receive_folder.h"
#include "signal_printer.h"

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

    void commandLinesAreCheckedBeforeAnythingIsSent()
    {
        const Command help = parseCommandLine({ "forget", "--help" });
        QCOMPARE(std::make_tuple(int(help.kind), help.text, help.error),
            std::make_tuple(int(Command::Help), QString("forget"), QString()));
        QCOMPARE(int(parseCommandLine({ "--version" }).kind), int(Command::Version));
        for (const QStringList &args : QList<QStringList> { {}, { "frobnicate" },
                 { "confirm", "maybe" }, { "pin" }, { "power", "half" }, { "discoverable" },
                 { "forget", "AA:BB:CC:DD:EE" }, { "devices", "extra" } })
            QVERIFY2(!parseCommandLine(args).error.isEmpty(), qPrintable(args.join(' ')));
    }

    void monitorShowsPhoneTextsOnOneLine()
    {
        const QString phoneName = QStringLiteral("a\"b\\c\nRequestUserPin\t\x1b[31m\u202e\u2028ok");
        QCOMPARE(SignalPrinter::quoted(phoneName),
            QStringLiteral("\"a\\\"b\\\\c\\nRequestUserPin\\t\\u001b[31m\\u202e\\u2028ok\""));
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
