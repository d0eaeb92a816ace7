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
// The order of the show: by name (depth first through the subfolders), or
// shuffled afresh each round. The integer value is what the "Order" setting
// stores; any other is by name.
enum ShowOrder : int {
    ByName = 0,
    Shuffle = 1,
};

// What a listing takes in.
struct ListingOptions {
    bool includeSubfolders = false;
    // The patterns of the image files: the nine of any Qt, and those of the
    // formats that the installed image plug-ins read.
    QStringList nameFilters;

    bool operator==(const ListingOptions &other) const
    {
        return includeSubfolders == other.includeSubfolders && nameFilters == other.nameFilters;
    }
};

// The most images a show takes; a tree with more is shown up to there.
constexpr int maximumImages = 100000;

// The patterns of the image files this machine can show: "*.jpg", "*.jpeg",
// "*.bmp", "*.pbm", "*.pgm", "*.ppm", "*.xbm", "*.xpm", "*.png", and those of
// WebP, TIFF, GIF, HEIF, AVIF and JPEG XL where a Qt image plug-in reads them
// (asked once, at run time). The GUI thread asks, before any listing.
QStringList imageNameFilters();

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
    // More images than maximumImages were found: only the first are listed.
    bool truncated = false;
};

// How long a new or changed file must have been left alone before the show
// takes it, in milliseconds.
constexpr qint64 settleTime = 2000;

// Lists the images of a folder: its regular files and links to them, not
// hidden, whose names match the patterns in any letter case, by name; with
// the subfolders, then those of each subfolder in name order, and so on down
// (depth first), leaving out hidden folders and the ones network storage
// keeps beside photos, and listing each real folder once, however many links
// lead to it. At most maximumImages. With the listing before it (of the same
// folder), says what changed, and leaves the files that changed too lately
// to that listing's state. Blocks for as long as the file system does: never
// called on the GUI thread.
QSharedPointer<FolderListing> listImageFolder(const QString &folder, const ListingOptions &options, const QSharedPointer<const FolderListing> &previous);

// The order of a listing: by name, ignoring case (ties by the exact name),
// part by part of the paths, a folder's own images before its subfolders.
bool showsBefore(const QString &path, const QString &other);
}
}

#endif // ZAV_FOLDERLISTING_H
