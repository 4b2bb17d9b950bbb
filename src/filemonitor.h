// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef FILEMONITOR_H
#define FILEMONITOR_H

#include <QByteArray>
#include <QObject>
#include <QSet>

#include <sys/types.h>

// Watches the OBEX receive folder and reports what happens in it as fileEvent, and every file
// that stands in it when nothing may have been reported (at start, after the kernel dropped
// events, when another folder comes to the fixed path) as fileFound. Names are the folder's
// exact bytes. The folders are the ones now at the fixed paths: a folder moved away, made anew
// or mounted over is noticed. Something leaving the spool is reported as spoolChanged.
// Lives on a thread of its own, which doWork() blocks for good once it watches.
class FileMonitor : public QObject
{
    Q_OBJECT

public:
    FileMonitor();

    // Sets up the watches, then waits for events for ever; returns only when inotify is not to
    // be had.
    void doWork();

signals:
    void fileEvent(const QByteArray &name, uint mask);
    void fileFound(const QByteArray &name);
    void spoolChanged();

private:
    void refresh();
    void handleEvent(int wd, uint mask, const QByteArray &name);
    void sweep();

    int mInotifyFd = -1;
    int mWatchD = -1;
    // The receive folder being watched, as the file system knows it.
    dev_t mReceiveDevice = 0;
    ino_t mReceiveInode = 0;
    // "mWatchD = -1" was logged for the receive folder's latest absence.
    bool mSaidMissing = false;
    // The spool folder and every folder above the two: whatever changes there may put another
    // folder at a fixed path, or make room in the spool.
    QSet<int> mOtherWatches;
    int mSpoolWatch = -1;
};

#endif // FILEMONITOR_H
