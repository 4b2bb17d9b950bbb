// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef OBEXD_WATCH_H
#define OBEXD_WATCH_H

#include <QDBusConnection>
#include <QObject>
#include <QString>

// Follows obexd, without which the agent is of no use: its name on the session bus and its
// process. The receiver's start script starts obexd and then becomes this program, so obexd is
// our child, and its end is seen even when it ends before it ever reached the bus.
class ObexdWatch : public QObject
{
    Q_OBJECT

public:
    // Keeps the child signal for the watch: call it before any thread is started, since a thread
    // that does not block the signal would take it.
    static void blockChildSignal();

    explicit ObexdWatch(const QDBusConnection &bus, QObject *parent = nullptr);

    // Starts following obexd; appeared() follows when it is on the bus already.
    void start();

signals:
    void appeared();
    void gone(const QString &why);

private slots:
    void ownerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);
    void childSignal();

private:
    QDBusConnection bus;
    int signalFd = -1;
    bool present = false;
};

#endif // OBEXD_WATCH_H
