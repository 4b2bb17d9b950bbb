#include "filemonitor.h"

#include "constants.h"
#include "logging.h"

#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

FileMonitor::FileMonitor() = default;

void FileMonitor::doWork()
{
    // Blocking descriptor: the read below is the thread's only waiting point. It is never
    // closed; the process's end releases it.
    mInotifyFd = inotify_init();
    if (mInotifyFd == -1) {
        qCCritical(lcFileMonitor) << "mInotifyFd = -1";
        return;
    }
    mWatchD = inotify_add_watch(
        mInotifyFd, Names::ReceiveDir.toLocal8Bit().constData(), IN_CREATE | IN_CLOSE_WRITE);
    if (mWatchD == -1) {
        qCCritical(lcFileMonitor) << "mWatchD = -1";
        return;
    }

    // Zeroed once only: behind a short read, bytes of an earlier one may remain.
    alignas(inotify_event) char buffer[4096] = {};
    constexpr size_t header = sizeof(inotify_event);
    for (;;) {
        const ssize_t n = read(mInotifyFd, buffer, sizeof buffer);
        // Nothing read or an error: read again at once.
        if (n <= 0)
            continue;
        for (size_t offset = 0; offset + header <= size_t(n);) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + offset);
            // The name runs to its NUL, found within the buffer, not taken from len.
            const char *name = buffer + offset + header;
            const size_t length = strnlen(name, sizeof buffer - offset - header);
            emit fileEvent(QString::fromUtf8(name, int(length)), event->mask);
            offset += header + event->len;
        }
    }
}
