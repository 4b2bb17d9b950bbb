// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "file_uploader.h"

#include "constants.h"

#include <QFile>
#include <QMutexLocker>
#include <QTemporaryFile>

#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <memory>
#include <new>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

// Closes a descriptor when it goes out of scope.
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
    const int fd;
};

// Whether the daemon may take the file: it can read it and, as for a file it opened for reading
// and writing, may remove it afterwards (not immutable, not append-only, not read-only mounted).
bool removable(const QByteArray &path, int fd)
{
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL)))
        return false;
    return access(path.constData(), W_OK) == 0;
}

// Whether some process still has the file open for writing: then its writer is not done, and
// the close that ends its writing brings it back. A read lease is refused exactly then. The
// kernel sends the close event before the closing writer's write access is dropped, so a lease
// refused at once may be that same close still under way: it is asked again for a moment before
// the file is left to its writer.
bool stillBeingWritten(int fd)
{
    constexpr int attempts = 50;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (fcntl(fd, F_SETLEASE, F_RDLCK) == 0) {
            fcntl(fd, F_SETLEASE, F_UNLCK);
            return false;
        }
        // Leases not to be had here (no right to them, a file system without them): the close
        // event that brought the file is all there is to go by.
        if (errno != EAGAIN)
            return false;
        usleep(2000);
    }
    return true;
}

// Copies what is left of source into target: the kernel's own copy where it can, pieces through
// a small buffer where it cannot, so memory stays the same whatever the size. The number of bytes
// copied, or -1 on any failure.
qint64 copyAll(int source, int target)
{
    qint64 total = 0;
    for (;;) {
        const ssize_t n = copy_file_range(source, nullptr, target, nullptr, 1 << 30, 0);
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

// Removes the received file, but only the one that was taken: a new file that has taken its
// name meanwhile waits for its own close event.
void removeSource(const QByteArray &path, const struct stat &taken)
{
    struct stat now;
    if (lstat(path.constData(), &now) == 0 && now.st_dev == taken.st_dev
        && now.st_ino == taken.st_ino)
        unlink(path.constData());
}

} // namespace

FileUploader::FileUploader()
    : mUploadDir(Names::SpoolDir)
    // Backslashes and quotes included: see "Deliberate behaviours" in the README.
    , mFilePrefix(QStringLiteral("\\\"bluetooth-agent\\\""))
    , mAcceptedSuffixes({ QStringLiteral(".pdf"), QStringLiteral(".doc"), QStringLiteral(".docx"),
          QStringLiteral(".rtf"), QStringLiteral(".txt"), QStringLiteral(".brf"),
          QStringLiteral(".brl"), QStringLiteral(".bra"), QStringLiteral(".elpp"),
          QStringLiteral(".tvx"), QStringLiteral(".template") })
{ }

QByteArray FileUploader::suffixOf(const QByteArray &fileName)
{
    const int dot = fileName.lastIndexOf('.');
    return dot == -1 ? QByteArray(".") : fileName.mid(dot);
}

bool FileUploader::accepts(const QByteArray &suffix) const
{
    return mAcceptedSuffixes.contains(QString::fromLatin1(suffix), Qt::CaseSensitive);
}

QString FileUploader::nameTemplate(quint32 number, const QByteArray &suffix) const
{
    // The leading dot hides the file from the spooler while it is written.
    return mUploadDir + QLatin1String("/.") + mFilePrefix + QString::number(number)
        + QLatin1String("-XXXXXX") + QString::fromLatin1(suffix);
}

void FileUploader::doWork(const QByteArray &path)
{
    if (take(path) != Outcome::Spooled)
        return;
    // The spool takes files again: those it could not take before are tried once more.
    const QSet<QByteArray> waiting = std::exchange(mWaiting, {});
    for (const QByteArray &earlier : waiting)
        take(earlier);
}

FileUploader::Outcome FileUploader::take(const QByteArray &path)
{
    // Read-only, so that taking a file makes no close event of its own; never through a link,
    // never waiting for a pipe's writer, never creating anything.
    const Descriptor source(
        open(path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (source.fd == -1 && errno == ENOENT) {
        // Taken already, or removed by its writer: nothing is lost.
        mWaiting.remove(path);
        return Outcome::NotThere;
    }
    // First whether its writer is done: the size read below must be the final one.
    if (source.fd != -1 && stillBeingWritten(source.fd))
        return Outcome::NotThere;
    struct stat taken;
    if (source.fd == -1 || fstat(source.fd, &taken) != 0 || !S_ISREG(taken.st_mode)
        || taken.st_nlink != 1 || !removable(path, source.fd)) {
        emit error(QStringLiteral("unable to open file"));
        return Outcome::Refused;
    }

    const QByteArray name = path.mid(path.lastIndexOf('/') + 1);
    const QByteArray suffix = suffixOf(name);
    if (!accepts(suffix)) {
        emit error(QStringLiteral("wrong file type"));
        removeSource(path, taken);
        return Outcome::Refused;
    }

    quint32 number;
    {
        QMutexLocker lock(&mMutex);
        number = ++mCounter;
    }
    // The copy is whole and closed before it takes its visible name; until then, and after any
    // failure, the received file stays where it is.
    const auto spoolFailed = [this, &path](const QString &text) {
        emit error(text);
        mWaiting.insert(path);
        return Outcome::SpoolFailed;
    };
    try {
        QTemporaryFile copy(nameTemplate(number, suffix));
        if (!copy.open())
            return spoolFailed(QStringLiteral("unable to open temp file"));
        copy.setAutoRemove(false);
        const bool whole = copyAll(source.fd, copy.handle()) == qint64(taken.st_size);
        copy.close();
        if (!whole || copy.error() != QFileDevice::NoError) {
            QFile::remove(copy.fileName());
            return spoolFailed(QStringLiteral("unable to open temp file"));
        }
        const QString hidden = copy.fileName();
        const QString visible = mUploadDir + QLatin1Char('/') + hidden.mid(mUploadDir.size() + 2);
        // Never over an existing file: a copy of the same name stays, and this one is tried again.
        if (!copy.rename(visible)) {
            QFile::remove(hidden);
            return spoolFailed(QStringLiteral("unable to rename file"));
        }
    } catch (const std::bad_alloc &) {
        return spoolFailed(QStringLiteral("unable to open temp file"));
    }
    removeSource(path, taken);
    mWaiting.remove(path);
    emit uploadDone(QString::fromUtf8(name));
    return Outcome::Spooled;
}
