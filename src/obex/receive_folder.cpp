// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "receive_folder.h"

#include "constants.h"
#include "obex_logging.h"

#include <QFile>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ReceiveFolder {

bool prepare()
{
    const QByteArray staging = QFile::encodeName(Names::StagingDir);
    DIR *dir = nullptr;
    if ((mkdir(staging.constData(), 0700) != 0 && errno != EEXIST)
        || !(dir = opendir(staging.constData()))) {
        const int error = errno;
        qCCritical(lcObexAgent) << "cannot use the staging folder:" << qt_error_string(error);
        return false;
    }
    int removed = 0;
    while (const dirent *entry = readdir(dir)) {
        if (qstrcmp(entry->d_name, ".") != 0 && qstrcmp(entry->d_name, "..") != 0
            && unlinkat(dirfd(dir), entry->d_name, 0) == 0)
            ++removed;
    }
    closedir(dir);
    if (removed > 0)
        qCInfo(lcObexAgent) << "removed unfinished pushes of an earlier run:" << removed;
    return true;
}

QByteArray stage()
{
    // Created here, so that the name is ours alone; obexd truncates and writes it.
    QByteArray path = QFile::encodeName(Names::StagingDir) + "/push-XXXXXX";
    const int fd = mkstemp(path.data());
    if (fd == -1)
        return {};
    close(fd);
    return path;
}

QString publish(const QByteArray &staged, const QString &name)
{
    const QByteArray receiveDir = QFile::encodeName(Names::ReceiveDir) + '/';
    for (int n = 0; n < INT_MAX; ++n) {
        const QByteArray target = candidate(name, n);
        const QByteArray path = receiveDir + target;
        if (renameat2(AT_FDCWD, staged.constData(), AT_FDCWD, path.constData(), RENAME_NOREPLACE)
            == 0)
            return QFile::decodeName(target);
        if (errno != EEXIST)
            break;
    }
    return {};
}

QString safeName(const QString &pushed)
{
    const QString last = pushed.section(QLatin1Char('/'), -1);
    if (last.isEmpty() || last == QLatin1String(".") || last == QLatin1String(".."))
        return QStringLiteral("unnamed");
    return last;
}

QByteArray candidate(const QString &name, int n)
{
    // The number goes before the suffix, which decides whether the document is printed.
    const int dot = name.lastIndexOf(QLatin1Char('.'));
    QByteArray stem = QFile::encodeName(dot < 0 ? name : name.left(dot));
    QByteArray suffix = dot < 0 ? QByteArray() : QFile::encodeName(name.mid(dot));
    const QByteArray number = n > 0 ? '-' + QByteArray::number(n) : QByteArray();
    suffix.truncate(NAME_MAX - number.size());
    stem.truncate(NAME_MAX - number.size() - suffix.size());
    return stem + number + suffix;
}

} // namespace ReceiveFolder
