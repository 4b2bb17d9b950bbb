// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef FILE_UPLOADER_H
#define FILE_UPLOADER_H

#include "file_stamp.h"
#include "spool_handover.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

// Decides when each received file is handed over to the print spool: once its writer closed it
// and it stayed as it was for a moment (a push dropped half-way is removed by the receiver right
// after its close), once per name however many events came for it, and again later when the
// spool could not take it. Lives on a thread of its own; nothing waits there for a file.
class FileUploader : public QObject
{
    Q_OBJECT

public:
    // How long a closed file must stay as it is before it is taken, in milliseconds.
    static constexpr int SettleTime = 250;

    FileUploader();

    // From any thread: the receive folder's file name was closed after writing, moved in, or
    // found there.
    void enqueue(const QByteArray &name);
    // From any thread: the spool may take more now (something left it, or a folder came back).
    void spoolChanged();
    // Once, on the uploader's own thread, before any work arrives.
    void start();

signals:
    void uploadDone(const QString &name);
    void error(const QString &text);

private:
    void takeIncoming();
    void settleDue();
    void retryWaiting(bool backOff);
    void take(const QByteArray &name, const FileStamp &settled);
    void settle(const QByteArray &name, const FileStamp &stamp);

    SpoolHandover mHandover;

    // Handed over by other threads: one entry per name, so a flood of events costs one entry.
    // In order of arrival, which is the order documents are spooled in.
    QMutex mMutex;
    QList<QByteArray> mIncoming;
    QSet<QByteArray> mIncomingNames;
    bool mSpoolChanged = false;
    bool mWakePosted = false;

    struct Settling
    {
        FileStamp stamp;
        qint64 due;
        quint64 arrival;
    };
    quint64 mArrivals = 0;
    QHash<QByteArray, Settling> mSettling;
    // Files the spool could not take, with the version that was to be taken.
    QHash<QByteArray, FileStamp> mWaiting;
    // Run only while something settles or waits: an idle daemon wakes up for nothing.
    QTimer mSettleTimer;
    QTimer mRetryTimer;
    int mRetryDelay;
};

#endif // FILE_UPLOADER_H
