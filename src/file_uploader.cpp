#include "file_uploader.h"

#include "constants.h"

#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QTemporaryFile>

#include <fstream>
#include <limits>

namespace {
// What QByteArray holds at most, less its header; and the pieces a larger file is copied in.
constexpr qint64 largestInMemory = std::numeric_limits<int>::max() - 64;
constexpr qint64 largestPiece = 8 * 1024 * 1024;
} // namespace

FileUploader::FileUploader()
    : mUploadDir(Names::SpoolDir)
    // Backslashes and quotes included: every spool name carries these 19 characters as they are.
    , mFilePrefix(QStringLiteral("\\\"bluetooth-agent\\\""))
    , mAcceptedSuffixes({ QStringLiteral(".pdf"), QStringLiteral(".doc"), QStringLiteral(".docx"),
          QStringLiteral(".rtf"), QStringLiteral(".txt"), QStringLiteral(".brf"),
          QStringLiteral(".brl"), QStringLiteral(".bra"), QStringLiteral(".elpp"),
          QStringLiteral(".tvx"), QStringLiteral(".template") })
{ }

void FileUploader::doWork(const QString &path)
{
    // Read-write on purpose: closing it makes the one echo event that the daemon discards.
    QFile source(path);
    if (!source.open(QIODevice::ReadWrite)) {
        emit error(QStringLiteral("unable to open file"));
        return;
    }

    const QString suffix = QLatin1Char('.') + QFileInfo(path).suffix();
    if (!mAcceptedSuffixes.contains(suffix, Qt::CaseSensitive)) {
        emit error(QStringLiteral("wrong file type"));
        source.remove();
        return;
    }

    QString nameTemplate;
    {
        QMutexLocker lock(&mMutex);
        ++mCounter;
        // The leading dot hides the file from the spooler while it is written.
        nameTemplate = mUploadDir + QLatin1String("/.") + mFilePrefix + QString::number(mCounter)
            + QLatin1String("-XXXXXX") + suffix;
    }

    auto *temporary = new QTemporaryFile(nameTemplate, this);
    if (!temporary->open()) {
        emit error(QStringLiteral("unable to open temp file"));
        source.remove();
        delete temporary;
        return;
    }
    temporary->setAutoRemove(false);

    // Whether the stream opened is not checked: the file then stays empty and goes on.
    std::ofstream out(
        temporary->fileName().toLocal8Bit().constData(), std::ios::out | std::ios::trunc);
    if (source.size() <= largestInMemory) {
        const QByteArray content = source.readAll();
        // The source's size now, but never more than was read: it may have shrunk meanwhile.
        out.write(
            content.constData(), std::streamsize(qMin<qint64>(source.size(), content.size())));
    } else {
        // Qt cannot read this much in one piece and would leave the copy empty while the received
        // file is removed: the whole file is copied all the same, a piece at a time.
        QByteArray piece;
        while (!(piece = source.read(largestPiece)).isEmpty())
            out.write(piece.constData(), piece.size());
    }
    temporary->close();

    const QFileInfo temporaryInfo(*temporary);
    const QString destination =
        temporaryInfo.absolutePath() + QLatin1Char('/') + temporaryInfo.fileName().mid(1);
    bool moved = false;
    // A file already standing under the new name is removed, and that counts as a failure.
    if (QFile::remove(destination)) {
        emit error(QLatin1String("unable to remove destination file") + destination);
    } else if (temporary->rename(destination)) {
        moved = true;
        const QString name = QFileInfo(source).fileName();
        source.remove();
        emit uploadDone(name);
    } else {
        emit error(QStringLiteral("unable to rename file"));
    }
    if (!moved) {
        QFile::remove(temporary->fileName());
        source.remove();
    }

    // Flushed only now, after the rename and the signal: that order is kept.
    out.close();
    delete temporary;
}
