// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "obex_agent.h"
#include "obexd_watch.h"
#include "receive_folder.h"

#include <QCoreApplication>
#include <QTextCodec>

int main(int argc, char *argv[])
{
    // Before Qt starts its bus thread.
    ObexdWatch::blockChildSignal();
    // A phone's names reach the file system as UTF-8, whatever locale systemd gives us.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    QCoreApplication app(argc, argv);
    if (!ReceiveFolder::prepare())
        return 1;
    ObexAgent agent(QDBusConnection::sessionBus());
    if (!agent.start())
        return 1;
    return app.exec();
}
