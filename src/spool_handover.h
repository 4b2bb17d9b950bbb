// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef SPOOL_HANDOVER_H
#define SPOOL_HANDOVER_H

#include "file_stamp.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

// Hands one received file of an accepted type over to the print spool, so that the power going
// off at any moment loses nothing: the copy reaches the disk under a hidden name, then takes its
// visible name, and only once that is on the disk too is the received file removed. A copy is
// made of one closed version only: a writer that comes back meanwhile makes it start again.
class SpoolHandover
{
public:
    enum class Outcome {
        Spooled, // whole in the spool under its visible name; the received file removed
        Gone, // not there, or still open for writing: its own close brings it back
        Changed, // not the version that settled, or rewritten while it was copied
        Refused, // left where it is, or removed for its type; error says why
        SpoolFailed, // the spool could not take it; the received file stays
    };
    struct Result
    {
        Outcome outcome;
        QString error;
        // The file as it is now (Changed).
        FileStamp stamp;
    };

    SpoolHandover();

    // name: a file of the receive folder, as the folder's bytes name it; settled: the version
    // that is to be taken.
    Result take(const QByteArray &name, const FileStamp &settled);
    // Closes the file last spooled, which take() leaves open so that it can be announced first.
    void release();

    // Hidden copies that a power cut or a crash left half-written in the spool, and a received
    // file it caught on its way out after its copy was spooled.
    void removeHiddenCopies() const;

    // "." and what follows the last dot of the name ("." alone without a dot), and whether
    // that suffix is one of the accepted ones, letter case included.
    static QByteArray suffixOf(const QByteArray &fileName);
    bool accepts(const QByteArray &suffix) const;
    // The hidden name the copy is written under; the six X become unique characters.
    QString nameTemplate(quint32 number, const QByteArray &suffix) const;

private:
    Result copyToSpool(int source, const QByteArray &path, const FileStamp &taken, bool leased,
        const QByteArray &suffix);

    QString mUploadDir;
    QString mFilePrefix;
    QStringList mAcceptedSuffixes;
    quint32 mCounter = 0;
    int mTaken = -1;
};

#endif // SPOOL_HANDOVER_H
