// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef FILEMONITOR_H
#define FILEMONITOR_H

#include <QByteArray>
#include <QObject>

// Watches the OBEX receive folder and reports what happens in it as fileEvent, and every file
// that stands in it when nothing may have been reported (at start, after the kernel dropped
// events, when the folder comes back) as fileFound. Names are the folder's exact bytes.
// Lives on a thread of its own, which doWork() blocks for good once it watches.
class FileMonitor : public QObject
{
    Q_OBJECT

public:
    FileMonitor();

    // Sets up the watch, then reads events for ever; returns only when inotify is not to be had.
    void doWork();

signals:
    void fileEvent(const QByteArray &name, uint mask);
    void fileFound(const QByteArray &name);

private:
    bool watchReceiveDir();
    void handleEvent(int wd, uint mask, const QByteArray &name);
    void sweep();

    int mInotifyFd = -1;
    int mWatchD = -1;
    // While the receive folder is missing: its nearest existing parent, watched for it.
    int mParentWatch = -1;
};

#endif // FILEMONITOR_H
