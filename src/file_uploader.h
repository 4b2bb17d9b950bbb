#ifndef FILE_UPLOADER_H
#define FILE_UPLOADER_H

#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>

// Copies one received file of an accepted type into the print spool under a new unique name
// and removes the received file. Every outcome leaves as uploadDone or error; nothing is logged.
class FileUploader : public QObject
{
    Q_OBJECT

public:
    FileUploader();

    // path: a received file in the OBEX receive folder. Emits exactly one signal per call.
    void doWork(const QString &path);

signals:
    void uploadDone(const QString &name);
    void error(const QString &text);

private:
    QString mUploadDir;
    QString mFilePrefix;
    QStringList mAcceptedSuffixes;
    QMutex mMutex;
    quint32 mCounter = 0;
};

#endif // FILE_UPLOADER_H
