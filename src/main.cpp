// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "daemon.h"

#include <QCoreApplication>
#include <QTextCodec>

int main(int argc, char *argv[])
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
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
