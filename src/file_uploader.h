// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef FILE_UPLOADER_H
#define FILE_UPLOADER_H

#include <QByteArray>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

// Copies one received file of an accepted type into the print spool under a new unique name
// and then removes the received file. What a phone sent either reaches the spool once, whole,
// or stays in the receive folder with an error saying why. Nothing is logged here.
class FileUploader : public QObject
{
    Q_OBJECT

public:
    FileUploader();

    // path: a file in the OBEX receive folder, as the folder's bytes name it.
    void doWork(const QByteArray &path);

    // "." and what follows the last dot of the name ("." alone without a dot), and whether
    // that suffix is one of the accepted ones, letter case included.
    static QByteArray suffixOf(const QByteArray &fileName);
    bool accepts(const QByteArray &suffix) const;
    // The hidden name the copy is written under; the six X become unique characters.
    QString nameTemplate(quint32 number, const QByteArray &suffix) const;

signals:
    void uploadDone(const QString &name);
    void error(const QString &text);

private:
    enum class Outcome { Spooled, NotThere, Refused, SpoolFailed };
    Outcome take(const QByteArray &path);

    QString mUploadDir;
    QString mFilePrefix;
    QStringList mAcceptedSuffixes;
    QMutex mMutex;
    quint32 mCounter = 0;
    // Received files the spool could not take; tried again once it takes one.
    QSet<QByteArray> mWaiting;
};

#endif // FILE_UPLOADER_H
