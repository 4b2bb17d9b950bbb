#ifndef FILEMONITOR_H
#define FILEMONITOR_H

#include <QObject>
#include <QString>

// Watches the OBEX receive folder and reports every inotify record as fileEvent, unfiltered.
// Lives on a thread of its own, which doWork() blocks for good once the watch is set.
class FileMonitor : public QObject
{
    Q_OBJECT

public:
    FileMonitor();

    // Sets up the watch, then reads events for ever; returns only when setting up fails.
    void doWork();

signals:
    void fileEvent(const QString &name, uint mask);

private:
    int mInotifyFd = -1;
    int mWatchD = -1;
};

#endif // FILEMONITOR_H
