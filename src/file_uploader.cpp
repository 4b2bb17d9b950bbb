// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "file_uploader.h"

#include "constants.h"

#include <QMutexLocker>

#include <algorithm>
#include <chrono>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace {

// The kernel's I/O priority interface, written out here: some versions of <linux/ioprio.h> use
// C++ keywords as parameter names and do not compile in C++.
constexpr int IoprioWhoProcess = 1;
constexpr int IoprioClassBestEffort = 2;
constexpr int IoprioClassShift = 13;
constexpr int IoprioLowest = 7;

// A spool that could not take a file is asked again after a second, then less and less often.
constexpr int FirstRetry = 1000;
constexpr int LastRetry = 60000;

qint64 now()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

FileUploader::FileUploader()
    : mSettleTimer(this)
    , mRetryTimer(this)
    , mRetryDelay(FirstRetry)
{
    mSettleTimer.setSingleShot(true);
    // A coarse timer may fire some 5% late: a document would wait 263 ms instead of 250.
    mSettleTimer.setTimerType(Qt::PreciseTimer);
    mRetryTimer.setSingleShot(true);
    connect(&mSettleTimer, &QTimer::timeout, this, &FileUploader::settleDue);
    connect(&mRetryTimer, &QTimer::timeout, this, [this] { retryWaiting(true); });
}

void FileUploader::enqueue(const QByteArray &name)
{
    QMutexLocker lock(&mMutex);
    if (!mIncomingNames.contains(name)) {
        mIncomingNames.insert(name);
        mIncoming.append(name);
    }
    if (!std::exchange(mWakePosted, true))
        QMetaObject::invokeMethod(this, &FileUploader::takeIncoming, Qt::QueuedConnection);
}

void FileUploader::spoolChanged()
{
    QMutexLocker lock(&mMutex);
    mSpoolChanged = true;
    if (!std::exchange(mWakePosted, true))
        QMetaObject::invokeMethod(this, &FileUploader::takeIncoming, Qt::QueuedConnection);
}

void FileUploader::start()
{
    // Copying gives way to everything else the board does: a pairing question never waits for a
    // document. The lowest best-effort class still moves documents on a busy disk.
    setpriority(PRIO_PROCESS, pid_t(syscall(SYS_gettid)), 19);
    syscall(SYS_ioprio_set, IoprioWhoProcess, 0,
        IoprioClassBestEffort << IoprioClassShift | IoprioLowest);
    mHandover.removeHiddenCopies();
}

void FileUploader::takeIncoming()
{
    QList<QByteArray> names;
    bool spool;
    {
        QMutexLocker lock(&mMutex);
        names.swap(mIncoming);
        mIncomingNames.clear();
        spool = std::exchange(mSpoolChanged, false);
        mWakePosted = false;
    }
    const QByteArray receiveDir = Names::ReceiveDir.toLocal8Bit() + '/';
    for (const QByteArray &name : qAsConst(names)) {
        // Gone already (a push dropped half-way): nothing to take.
        if (const auto stamp = FileStamp::at(QByteArray(receiveDir + name).constData()))
            settle(name, *stamp);
        else
            mSettling.remove(name);
    }
    if (spool)
        retryWaiting(false);
}

void FileUploader::settle(const QByteArray &name, const FileStamp &stamp)
{
    // A new version of a waiting file is taken as any other, after it settled.
    mWaiting.remove(name);
    mSettling.insert(name, { stamp, now() + SettleTime, ++mArrivals });
    // Files that came together settle together: one timer for all, set for the earliest.
    if (!mSettleTimer.isActive())
        mSettleTimer.start(SettleTime);
}

void FileUploader::settleDue()
{
    const qint64 time = now();
    QList<QPair<quint64, QByteArray>> due;
    qint64 next = -1;
    for (auto it = mSettling.cbegin(); it != mSettling.cend(); ++it) {
        if (it->due <= time)
            due.append({ it->arrival, it.key() });
        else
            next = next == -1 ? it->due : qMin(next, it->due);
    }
    // In order of arrival; taken only as they were when they settled. A file changed since
    // settles again, a file still open for writing is left to its own close.
    std::sort(due.begin(), due.end());
    for (const auto &entry : qAsConst(due))
        take(entry.second, mSettling.take(entry.second).stamp);
    if (next != -1 && !mSettleTimer.isActive())
        mSettleTimer.start(int(qMax<qint64>(0, next - now())));
}

void FileUploader::take(const QByteArray &name, const FileStamp &settled)
{
    using Outcome = SpoolHandover::Outcome;
    const SpoolHandover::Result result = mHandover.take(name, settled);
    switch (result.outcome) {
    case Outcome::Spooled:
        mWaiting.remove(name);
        emit uploadDone(QString::fromUtf8(name));
        // Closing the removed file frees its pages, which may take milliseconds: not before the
        // document is announced.
        mHandover.release();
        break;
    case Outcome::Gone:
        mWaiting.remove(name);
        break;
    case Outcome::Changed:
        settle(name, result.stamp);
        break;
    case Outcome::Refused:
        mWaiting.remove(name);
        emit error(result.error);
        break;
    case Outcome::SpoolFailed:
        // Said once; the document waits without another word until the spool takes it.
        if (!mWaiting.contains(name))
            emit error(result.error);
        mWaiting.insert(name, settled);
        if (!mRetryTimer.isActive())
            mRetryTimer.start(mRetryDelay);
        break;
    }
}

void FileUploader::retryWaiting(bool backOff)
{
    const QHash<QByteArray, FileStamp> waiting = mWaiting;
    for (auto it = waiting.constBegin(); it != waiting.constEnd(); ++it)
        take(it.key(), it.value());
    if (mWaiting.isEmpty()) {
        mRetryTimer.stop();
        mRetryDelay = FirstRetry;
        return;
    }
    if (backOff) {
        mRetryDelay = qMin(2 * mRetryDelay, LastRetry);
        mRetryTimer.start(mRetryDelay);
    }
}
