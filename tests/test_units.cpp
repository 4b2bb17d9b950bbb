// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "command_line.h"
#include "receive_folder.h"

#include <QtTest>

// Rules of the control tool and the OBEX agent that need no bus, no root, no files.
class UnitsTest : public QObject
{
    Q_OBJECT

private slots:
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
