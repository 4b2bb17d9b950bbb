// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "daemon.h"
#include "logging.h"

#include <QCoreApplication>
#include <QTextCodec>

#include <csignal>

int main(int argc, char *argv[])
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    // A writer that opens a received file while the daemon holds a lease on it raises SIGIO,
    // whose default would end the daemon: the lease itself tells the daemon what it needs.
    std::signal(SIGIO, SIG_IGN);
    installJournalPriorities();
    int exitCode = -1;
    {
        QCoreApplication app(argc, argv);
        // Never deleted: it lives as long as the process.
        auto *daemon = new Daemon;
        if (daemon->init()) {
            emit daemon->startMonitor();
            exitCode = app.exec();
        }
    }
    return exitCode;
}
