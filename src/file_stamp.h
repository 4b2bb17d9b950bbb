// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef FILE_STAMP_H
#define FILE_STAMP_H

#include <optional>
#include <sys/stat.h>

// What tells one closed version of a received file from another: the same file (device and
// inode), the same size and the same change time.
struct FileStamp
{
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec changed {};

    static FileStamp of(const struct stat &st)
    {
        return { st.st_dev, st.st_ino, st.st_size, st.st_ctim };
    }

    // The entry at path itself (a link is not followed); none when nothing is there.
    static std::optional<FileStamp> at(const char *path)
    {
        struct stat st;
        if (lstat(path, &st) != 0)
            return std::nullopt;
        return of(st);
    }

    bool operator==(const FileStamp &other) const
    {
        return device == other.device && inode == other.inode && size == other.size
            && changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
    }
    bool operator!=(const FileStamp &other) const { return !(*this == other); }
};

#endif // FILE_STAMP_H
