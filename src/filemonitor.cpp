// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "filemonitor.h"

#include "constants.h"
#include "logging.h"

#include <cstring>
#include <dirent.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {
// Files created and files closed after writing; and the folder itself moved away (its removal
// ends the watch with IN_IGNORED).
constexpr uint receiveMask = IN_CREATE | IN_CLOSE_WRITE | IN_MOVE_SELF;
// A missing receive folder is waited for in its nearest existing parent.
constexpr uint parentMask = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;
constexpr uint watchGone = IN_IGNORED | IN_MOVE_SELF | IN_UNMOUNT;

QByteArray parentOf(const QByteArray &dir)
{
    const int slash = dir.lastIndexOf('/');
    return slash > 0 ? dir.left(slash) : QByteArray("/");
}
} // namespace

FileMonitor::FileMonitor() = default;

void FileMonitor::doWork()
{
    // Blocking descriptor: the read below is the thread's only waiting point. It is never
    // closed; the process's end releases it.
    mInotifyFd = inotify_init1(IN_CLOEXEC);
    if (mInotifyFd == -1) {
        qCCritical(lcFileMonitor) << "mInotifyFd = -1";
        return;
    }
    // Watch first, then take what is already there: nothing falls between the two.
    if (watchReceiveDir())
        sweep();
    else
        qCCritical(lcFileMonitor) << "mWatchD = -1";

    alignas(inotify_event) char buffer[4096];
    constexpr size_t header = sizeof(inotify_event);
    for (;;) {
        const ssize_t n = read(mInotifyFd, buffer, sizeof buffer);
        // Nothing read or an error: read again at once.
        if (n <= 0)
            continue;
        for (size_t offset = 0; offset + header <= size_t(n);) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + offset);
            // The name ends at its NUL, and never beyond what was read.
            const char *name = buffer + offset + header;
            const size_t length = strnlen(name, qMin<size_t>(event->len, n - offset - header));
            handleEvent(event->wd, event->mask, QByteArray(name, int(length)));
            offset += header + event->len;
        }
    }
}

void FileMonitor::handleEvent(int wd, uint mask, const QByteArray &name)
{
    if (mask & IN_Q_OVERFLOW) {
        // The kernel dropped events: whatever they were about is in the folder still.
        if (mWatchD != -1 || watchReceiveDir())
            sweep();
    } else if (wd == mWatchD && (mask & watchGone)) {
        // Removed, moved away or unmounted: wait for it to come back, and say so once.
        if (!(mask & IN_IGNORED))
            inotify_rm_watch(mInotifyFd, mWatchD);
        mWatchD = -1;
        qCCritical(lcFileMonitor) << "mWatchD = -1";
        if (watchReceiveDir())
            sweep();
    } else if (wd == mWatchD) {
        emit fileEvent(name, mask);
    } else if (wd == mParentWatch && mWatchD == -1) {
        // Something appeared on the way to the receive folder; files may already be in it.
        if (watchReceiveDir())
            sweep();
    }
}

bool FileMonitor::watchReceiveDir()
{
    const QByteArray receiveDir = Names::ReceiveDir.toLocal8Bit();
    const auto watch = [this, &receiveDir] {
        mWatchD = inotify_add_watch(mInotifyFd, receiveDir.constData(), receiveMask);
        if (mWatchD != -1 && mParentWatch != -1) {
            inotify_rm_watch(mInotifyFd, mParentWatch);
            mParentWatch = -1;
        }
        return mWatchD != -1;
    };
    if (watch())
        return true;
    // Watch the nearest parent that exists, then look again: the folder may have appeared in
    // between.
    int parent = -1;
    for (QByteArray dir = receiveDir; parent == -1 && dir != "/";) {
        dir = parentOf(dir);
        parent = inotify_add_watch(mInotifyFd, dir.constData(), parentMask);
    }
    if (mParentWatch != -1 && mParentWatch != parent)
        inotify_rm_watch(mInotifyFd, mParentWatch);
    mParentWatch = parent;
    return watch();
}

void FileMonitor::sweep()
{
    DIR *dir = opendir(Names::ReceiveDir.toLocal8Bit().constData());
    if (!dir)
        return;
    while (const dirent *entry = readdir(dir)) {
        // Only files: links, folders and pipes are no documents and are left alone here.
        if (entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN)
            continue;
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            emit fileFound(name);
    }
    closedir(dir);
}
