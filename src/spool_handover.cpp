// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "spool_handover.h"

#include "constants.h"

#include <QFile>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <memory>
#include <new>
#include <sys/ioctl.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>

namespace {

// Closes a descriptor when it goes out of scope (and with it gives up a lease taken on it).
struct Descriptor
{
    explicit Descriptor(int fd)
        : fd(fd)
    { }
    ~Descriptor()
    {
        if (fd != -1)
            ::close(fd);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int release() { return std::exchange(fd, -1); }
    int fd;
};

// Whether the daemon may take the file: it can read it and may remove it afterwards (not
// immutable, not append-only, not on a read-only mount, a folder it may write).
bool removable(const QByteArray &path, int fd)
{
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL)))
        return false;
    return access(path.constData(), W_OK) == 0;
}

// Whether the version being copied is still the only one: a writer that asks for the file
// breaks the lease (its open waits until the lease is given up), and any change shows in the
// stamp.
bool unchanged(int fd, const FileStamp &taken, bool leased)
{
    struct stat now;
    return (!leased || fcntl(fd, F_GETLEASE) == F_RDLCK) && fstat(fd, &now) == 0
        && FileStamp::of(now) == taken;
}

FileStamp stampOf(int fd)
{
    struct stat now
    {
    };
    fstat(fd, &now);
    return FileStamp::of(now);
}

// Copies what is left of source into target: the kernel's own copy where it can, pieces through
// a small buffer where it cannot, so memory stays the same whatever the size. Stops between
// pieces when a writer asks for a leased source. The number of bytes copied, or -1.
qint64 copyAll(int source, int target, bool leased)
{
    const auto wanted = [source, leased] { return leased && fcntl(source, F_GETLEASE) != F_RDLCK; };
    qint64 total = 0;
    for (;;) {
        if (wanted())
            return -1;
        const ssize_t n = copy_file_range(source, nullptr, target, nullptr, 8 << 20, 0);
        if (n > 0) {
            total += n;
            continue;
        }
        if (n == 0)
            return total;
        if (errno == EINTR)
            continue;
        if (errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP)
            return -1;
        break;
    }
    constexpr size_t pieceSize = 1 << 20;
    const std::unique_ptr<char[]> piece(new (std::nothrow) char[pieceSize]);
    if (!piece)
        return -1;
    for (;;) {
        if (wanted())
            return -1;
        const ssize_t n = read(source, piece.get(), pieceSize);
        if (n == 0)
            return total;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        // Never more than was read.
        for (ssize_t written = 0; written < n;) {
            const ssize_t w = write(target, piece.get() + written, size_t(n - written));
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                return -1;
            written += w;
        }
        total += n;
    }
}

// Puts a folder's entries (a name taken or removed) on the disk.
bool syncFolder(const QByteArray &dir)
{
    const Descriptor folder(open(dir.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.fd != -1 && fsync(folder.fd) == 0;
}

QByteArray inReceiveFolder(const QByteArray &name)
{
    return Names::ReceiveDir.toLocal8Bit() + '/' + name;
}

bool sameFile(const QByteArray &path, const FileStamp &taken)
{
    const auto now = FileStamp::at(path.constData());
    return now && now->device == taken.device && now->inode == taken.inode;
}

// Removes the received file, but only the one that was taken: a new file that has taken its
// name meanwhile waits for its own close event. The removal reaches the disk before the file
// counts as handed over. False when a writer asked for it at the last moment: it stays, under
// its name.
bool removeSource(const QByteArray &path, int fd, const FileStamp &taken, bool leased)
{
    if (!sameFile(path, taken))
        return true;
    // Moved out of sight before the last look at the lease: a writer who found the file before
    // has asked for the lease by then (its open breaks it), and one who comes later finds nothing.
    // Removed straight away, a writer who found it just before would write into a removed file.
    const QByteArray aside = inReceiveFolder(Names::TakenName.toLocal8Bit());
    const bool moved =
        renameat2(AT_FDCWD, path.constData(), AT_FDCWD, aside.constData(), RENAME_NOREPLACE) == 0;
    if (moved && !sameFile(aside, taken)) {
        // Another file took the name just before: it goes back, and ours was gone already.
        renameat2(AT_FDCWD, aside.constData(), AT_FDCWD, path.constData(), RENAME_NOREPLACE);
        return true;
    }
    if (leased && fcntl(fd, F_GETLEASE) != F_RDLCK) {
        if (moved)
            renameat2(AT_FDCWD, aside.constData(), AT_FDCWD, path.constData(), RENAME_NOREPLACE);
        return false;
    }
    if (unlink(moved ? aside.constData() : path.constData()) == 0)
        syncFolder(Names::ReceiveDir.toLocal8Bit());
    return true;
}

} // namespace

SpoolHandover::SpoolHandover()
    : mUploadDir(Names::SpoolDir)
    // Backslashes and quotes included: see data/com.quorvane.BluetoothAgent.md.
    , mFilePrefix(QStringLiteral("\\\"bluetooth-agent\\\""))
    , mAcceptedSuffixes({ QStringLiteral(".pdf"), QStringLiteral(".doc"), QStringLiteral(".docx"),
          QStringLiteral(".rtf"), QStringLiteral(".txt"), QStringLiteral(".brf"),
          QStringLiteral(".brl"), QStringLiteral(".bra"), QStringLiteral(".elpp"),
          QStringLiteral(".tvx"), QStringLiteral(".template") })
{ }

QByteArray SpoolHandover::suffixOf(const QByteArray &fileName)
{
    const int dot = fileName.lastIndexOf('.');
    return dot == -1 ? QByteArray(".") : fileName.mid(dot);
}

bool SpoolHandover::accepts(const QByteArray &suffix) const
{
    return mAcceptedSuffixes.contains(QString::fromLatin1(suffix), Qt::CaseSensitive);
}

QString SpoolHandover::nameTemplate(quint32 number, const QByteArray &suffix) const
{
    // The leading dot hides the file from the spooler while it is written.
    return mUploadDir + QLatin1String("/.") + mFilePrefix + QString::number(number)
        + QLatin1String("-XXXXXX") + QString::fromLatin1(suffix);
}

SpoolHandover::Result SpoolHandover::take(const QByteArray &name, const FileStamp &settled)
{
    const QByteArray path = inReceiveFolder(name);
    // Read-only, so that taking a file makes no close event of its own; never through a link,
    // never waiting for a pipe's writer, never creating anything.
    Descriptor source(
        open(path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (source.fd == -1 && errno == ENOENT)
        return { Outcome::Gone, {}, {} };
    // A read lease is refused exactly while some process has the file open for writing: its
    // writer is not done, and the close that ends the writing brings it back. Where leases are
    // not to be had (a file system without them), the stamps are all there is to go by.
    bool leased = false;
    if (source.fd != -1) {
        leased = fcntl(source.fd, F_SETLEASE, F_RDLCK) == 0;
        if (!leased && errno == EAGAIN)
            return { Outcome::Gone, {}, {} };
    }
    struct stat st;
    if (source.fd == -1 || fstat(source.fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1
        || !removable(path, source.fd))
        return { Outcome::Refused, QStringLiteral("unable to open file"), {} };
    const FileStamp taken = FileStamp::of(st);
    if (taken != settled)
        return { Outcome::Changed, {}, taken };

    const QByteArray suffix = suffixOf(name);
    if (!accepts(suffix)) {
        removeSource(path, source.fd, taken, false);
        return { Outcome::Refused, QStringLiteral("wrong file type"), {} };
    }
    const Result result = copyToSpool(source.fd, path, taken, leased, suffix);
    if (result.outcome == Outcome::Spooled)
        mTaken = source.release();
    return result;
}

void SpoolHandover::release()
{
    if (mTaken != -1)
        ::close(std::exchange(mTaken, -1));
}

SpoolHandover::Result SpoolHandover::copyToSpool(int source, const QByteArray &path,
    const FileStamp &taken, bool leased, const QByteArray &suffix)
{
    const quint32 number = ++mCounter;
    const auto failed = [](const QString &text) {
        return Result { Outcome::SpoolFailed, text, {} };
    };
    const QString openFailed = QStringLiteral("unable to open temp file");
    const QString renameFailed = QStringLiteral("unable to rename file");
    const QByteArray spool = QFile::encodeName(mUploadDir);
    // What cannot fit is not written at all: a document waiting for room costs nothing.
    struct statvfs room;
    if (statvfs(spool.constData(), &room) != 0
        || quint64(taken.size) > quint64(room.f_bfree) * room.f_frsize)
        return failed(openFailed);
    try {
        QTemporaryFile copy(nameTemplate(number, suffix));
        if (!copy.open())
            return failed(openFailed);
        copy.setAutoRemove(false);
        const QString hidden = copy.fileName();
        // On the disk before it takes its visible name: a power cut never leaves a visible
        // empty or partial job.
        const bool written =
            copyAll(source, copy.handle(), leased) == taken.size && fsync(copy.handle()) == 0;
        copy.close();
        const bool same = unchanged(source, taken, leased);
        if (!written || !same) {
            QFile::remove(hidden);
            return same ? failed(openFailed) : Result { Outcome::Changed, {}, stampOf(source) };
        }
        const QString visible = mUploadDir + QLatin1Char('/') + hidden.mid(mUploadDir.size() + 2);
        // Never over an existing file: a copy of that name stays, and this one is tried again.
        if (!copy.rename(visible)) {
            QFile::remove(hidden);
            return failed(renameFailed);
        }
        if (!syncFolder(spool)) {
            QFile::remove(visible);
            return failed(renameFailed);
        }
        // A writer came back while the copy took its name: this copy is not the last version.
        if (!unchanged(source, taken, leased) || !removeSource(path, source, taken, leased)) {
            QFile::remove(visible);
            syncFolder(spool);
            return { Outcome::Changed, {}, stampOf(source) };
        }
    } catch (const std::bad_alloc &) {
        return failed(openFailed);
    }
    return { Outcome::Spooled, {}, {} };
}

void SpoolHandover::removeHiddenCopies() const
{
    // A file a power cut caught on its way out: its copy is in the spool already.
    if (unlink(inReceiveFolder(Names::TakenName.toLocal8Bit()).constData()) == 0)
        syncFolder(Names::ReceiveDir.toLocal8Bit());
    const QByteArray spool = QFile::encodeName(mUploadDir);
    DIR *dir = opendir(spool.constData());
    if (!dir)
        return;
    const QByteArray hidden = '.' + mFilePrefix.toUtf8();
    bool removed = false;
    while (const dirent *entry = readdir(dir)) {
        if (QByteArray(entry->d_name).startsWith(hidden))
            removed |= unlinkat(dirfd(dir), entry->d_name, 0) == 0;
    }
    closedir(dir);
    if (removed)
        syncFolder(spool);
}
