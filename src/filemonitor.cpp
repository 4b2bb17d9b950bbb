// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "filemonitor.h"

#include "constants.h"
#include "logging.h"

#include <QFile>

#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {
// Files closed after writing or moved in (a receiver that publishes complete documents by
// rename); and the folder itself going away.
constexpr uint receiveMask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVE_SELF | IN_DELETE_SELF;
// Room made in the spool, and the spool folder going away.
constexpr uint spoolMask = IN_DELETE | IN_MOVED_FROM | IN_MOVE_SELF | IN_DELETE_SELF | IN_ONLYDIR;
// Entries of the folders above that come, go or move, and those folders themselves moving.
constexpr uint pathMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MOVE_SELF
    | IN_DELETE_SELF | IN_ONLYDIR;
constexpr uint watchGone = IN_IGNORED | IN_MOVE_SELF | IN_DELETE_SELF | IN_UNMOUNT;

// The folders above path, nearest first, "/" last.
QList<QByteArray> foldersAbove(QByteArray path)
{
    QList<QByteArray> folders;
    while (path != "/") {
        const int slash = path.lastIndexOf('/');
        path = slash > 0 ? path.left(slash) : QByteArray("/");
        folders.append(path);
    }
    return folders;
}
} // namespace

FileMonitor::FileMonitor() = default;

void FileMonitor::doWork()
{
    // Blocking descriptor: poll() below is the thread's only waiting point. It is never
    // closed; the process's end releases it.
    mInotifyFd = inotify_init1(IN_CLOEXEC);
    if (mInotifyFd == -1) {
        qCCritical(lcFileMonitor) << "mInotifyFd = -1";
        return;
    }
    // A file system mounted over a folder makes no inotify event; the mount table says so.
    const int mounts = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    refresh();

    alignas(inotify_event) char buffer[4096];
    constexpr size_t header = sizeof(inotify_event);
    pollfd fds[] = { { mInotifyFd, POLLIN, 0 }, { mounts, POLLPRI, 0 } };
    for (;;) {
        if (poll(fds, mounts == -1 ? 1 : 2, -1) <= 0)
            continue;
        if (fds[1].revents & (POLLPRI | POLLERR)) {
            refresh();
            emit spoolChanged();
        }
        if (!(fds[0].revents & POLLIN))
            continue;
        const ssize_t n = read(mInotifyFd, buffer, sizeof buffer);
        // Nothing read or an error: wait again.
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
        // The kernel dropped events: whatever they were about is in the folders still.
        refresh();
        sweep();
        emit spoolChanged();
    } else if (wd == mWatchD && !(mask & watchGone)) {
        emit fileEvent(name, mask);
    } else if (wd == mWatchD || mOtherWatches.contains(wd)) {
        // Hidden entries are copies still being written: they make no room in the spool.
        if (name.startsWith('.') && !(mask & watchGone))
            return;
        // A folder went, came or moved; a job that left the spool changes no folder.
        if (wd != mSpoolWatch || (mask & watchGone))
            refresh();
        emit spoolChanged();
    }
}

void FileMonitor::refresh()
{
    const QByteArray receiveDir = QFile::encodeName(Names::ReceiveDir);
    const QByteArray spoolDir = QFile::encodeName(Names::SpoolDir);
    QSet<int> others;
    const auto watch = [this, &others](const QByteArray &dir, uint mask) {
        const int wd = inotify_add_watch(mInotifyFd, dir.constData(), mask);
        if (wd != -1)
            others.insert(wd);
    };
    for (const QByteArray &dir : foldersAbove(receiveDir) + foldersAbove(spoolDir))
        watch(dir, pathMask);
    mSpoolWatch = inotify_add_watch(mInotifyFd, spoolDir.constData(), spoolMask);
    if (mSpoolWatch != -1)
        others.insert(mSpoolWatch);

    // The receive folder now at the fixed path; a symbolic link root made is followed.
    struct stat st;
    const bool there = stat(receiveDir.constData(), &st) == 0 && S_ISDIR(st.st_mode);
    if (!there || st.st_dev != mReceiveDevice || st.st_ino != mReceiveInode || mWatchD == -1) {
        if (mWatchD != -1 && !others.contains(mWatchD))
            inotify_rm_watch(mInotifyFd, mWatchD);
        mWatchD = there ? inotify_add_watch(mInotifyFd, receiveDir.constData(), receiveMask) : -1;
        mReceiveDevice = there ? st.st_dev : 0;
        mReceiveInode = there ? st.st_ino : 0;
        if (mWatchD != -1) {
            // Another folder: what stands in it was never reported.
            mSaidMissing = false;
            sweep();
        } else if (!std::exchange(mSaidMissing, true)) {
            // Said once each time it goes; the folders above tell when it comes back.
            qCCritical(lcFileMonitor) << "mWatchD = -1";
        }
    }
    for (const int wd : qAsConst(mOtherWatches)) {
        if (!others.contains(wd) && wd != mWatchD)
            inotify_rm_watch(mInotifyFd, wd);
    }
    mOtherWatches = others;
}

void FileMonitor::sweep()
{
    DIR *dir = opendir(QFile::encodeName(Names::ReceiveDir).constData());
    if (!dir)
        return;
    while (const dirent *entry = readdir(dir)) {
        // Only files: links, folders and pipes are no documents and are left alone here.
        struct stat st;
        const bool file = entry->d_type == DT_REG
            || (entry->d_type == DT_UNKNOWN
                && fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0
                && S_ISREG(st.st_mode));
        if (file)
            emit fileFound(QByteArray(entry->d_name));
    }
    closedir(dir);
}
