// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef RECEIVE_FOLDER_H
#define RECEIVE_FOLDER_H

#include <QByteArray>
#include <QString>

// The receive folder and the staging folder inside it. obexd writes each push into a file of
// its own in the staging folder; only a whole document is moved on into the receive folder, where
// the daemon takes it. Both folders are fixed; the move is a rename within one file system.
namespace ReceiveFolder {

// Makes the staging folder if it is missing and removes what an earlier run left in it: pushes
// that never ended. False when the folder cannot be had.
bool prepare();

// A new empty file in the staging folder for one push, its path; empty on failure (errno).
QByteArray stage();

// Moves a staged file into the receive folder under name (as safeName() makes it), or under the
// first free of stem-1.ext, stem-2.ext, ... An existing file is never replaced. The name it got,
// or empty on failure (errno).
QString publish(const QByteArray &staged, const QString &name);

// A phone's name for its document as a name in the receive folder: its last path component,
// and a harmless name for one that would name no file there.
QString safeName(const QString &pushed);

// The n-th name to try for name (0: name itself), cut to what one file name can hold.
QByteArray candidate(const QString &name, int n);

} // namespace ReceiveFolder

#endif // RECEIVE_FOLDER_H
