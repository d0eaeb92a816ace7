/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_FOLDERLISTING_H
#define ZAV_FOLDERLISTING_H

#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <QVector>

namespace Dm
{
namespace ScreenSaver
{
// What tells a file replaced in place from the one listed before it.
struct FileStamp {
    qint64 size = -1;
    // Milliseconds since the epoch.
    qint64 modified = 0;

    bool operator==(const FileStamp &other) const
    {
        return size == other.size && modified == other.modified;
    }
    bool operator!=(const FileStamp &other) const
    {
        return !(*this == other);
    }
};

// The images of a folder as one listing found them, in the show's order,
// and what changed since the listing before it. Made by the listing's own
// thread and only read after it has been handed over.
struct FolderListing {
    QString folder;
    QStringList paths;
    // One for each path.
    QVector<FileStamp> stamps;
    // Against the listing before it (all empty for the first listing of a
    // folder): the images that came, went, or were replaced in place.
    QStringList joined;
    QStringList left;
    QStringList replaced;
    // Files that changed less than settleTime ago (perhaps still being
    // written) were left out, or kept as they were listed before: the folder
    // should be listed again soon.
    bool unsettled = false;
    // On a local disk, whose changes a file system watcher reports; a
    // network share or a FUSE folder reports nothing.
    bool local = false;
};

// How long a new or changed file must have been left alone before the show
// takes it, in milliseconds.
constexpr qint64 settleTime = 2000;

// Lists the images of a folder: its regular files and links to them, not
// hidden, whose names end in .jpg, .jpeg, .bmp, .pbm, .pgm, .ppm, .xbm, .xpm
// or .png in any letter case, in the show's order. With the listing before it
// (of the same folder), says what changed, and leaves the files that changed
// too lately to that listing's state. Blocks for as long as the file system
// does: never called on the GUI thread.
QSharedPointer<FolderListing> listImageFolder(const QString &folder, const QSharedPointer<const FolderListing> &previous);

// The show's order: by file name, ignoring case (ties by the exact name).
bool showsBefore(const QString &path, const QString &other);
}
}

#endif // ZAV_FOLDERLISTING_H
