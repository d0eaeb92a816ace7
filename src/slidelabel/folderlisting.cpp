/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "slidelabel/folderlisting.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <algorithm>
#include <numeric>

#include <sys/vfs.h>

namespace Dm
{
namespace ScreenSaver
{
namespace
{
QStringRef fileNameOf(const QString &path)
{
    return path.midRef(path.lastIndexOf(QLatin1Char('/')) + 1);
}

// Network shares and FUSE folders: a watcher would hear nothing of their
// changes (and may hang on them).
bool isLocalFileSystem(const QString &folder)
{
    struct statfs info {
    };
    if (::statfs(QFile::encodeName(folder).constData(), &info) != 0) {
        return false;
    }
    static const unsigned long remote[] = {
        0x6969, // NFS
        0x517b, // SMB
        0xff534d42, // CIFS
        0xfe534d42, // SMB2
        0x65735546, // FUSE
        0x01021997, // 9P
        0x00c36400, // Ceph
        0x5346414f, // AFS
        0x73757245, // Coda
        0x564c, // NCP
        0x01161970, // GFS2
        0x7461636f, // OCFS2
    };
    const unsigned long type = static_cast<unsigned long>(info.f_type);
    return std::find(std::begin(remote), std::end(remote), type) == std::end(remote);
}
}

bool showsBefore(const QString &path, const QString &other)
{
    const QStringRef name = fileNameOf(path);
    const QStringRef otherName = fileNameOf(other);
    const int order = name.compare(otherName, Qt::CaseInsensitive);
    return order != 0 ? order < 0 : name.compare(otherName, Qt::CaseSensitive) < 0;
}

QSharedPointer<FolderListing> listImageFolder(const QString &folder, const QSharedPointer<const FolderListing> &previous)
{
    static const QStringList nameFilters = {
        QStringLiteral("*.jpg"),
        QStringLiteral("*.jpeg"),
        QStringLiteral("*.bmp"),
        QStringLiteral("*.pbm"),
        QStringLiteral("*.pgm"),
        QStringLiteral("*.ppm"),
        QStringLiteral("*.xbm"),
        QStringLiteral("*.xpm"),
        QStringLiteral("*.png"),
    };
    auto listing = QSharedPointer<FolderListing>::create();
    listing->folder = folder;

    // What the listing before knew of each file.
    QHash<QString, int> known;
    if (previous) {
        known.reserve(previous->paths.size());
        for (int i = 0; i < previous->paths.size(); ++i) {
            known.insert(previous->paths.at(i), i);
        }
    }
    const qint64 now = QDateTime::currentMSecsSinceEpoch();

    // Files only (links to files included, hidden files not), the patterns
    // matched regardless of case. An empty path is the working directory,
    // as for QDir.
    QDir directory(folder);
    directory.setNameFilters(nameFilters);
    directory.setFilter(QDir::Files);
    QStringList paths;
    QVector<FileStamp> stamps;
    QDirIterator it(directory);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        // QDir takes any link for a file; keep only what is, or leads to, a
        // regular file. A link to a named pipe or a device would block the
        // worker in open() for as long as nobody writes to it.
        if (!info.isFile()) {
            continue;
        }
        QString path = directory.filePath(it.fileName());
        FileStamp stamp{info.size(), info.lastModified().toMSecsSinceEpoch()};
        const auto before = known.constFind(path);
        if (before != known.constEnd()) {
            // The listing before's own string: the two share it, and the
            // GUI thread, which lets go of the old listing, has a reference
            // to drop rather than a string to free, for each of perhaps many
            // thousand images.
            path = previous->paths.at(*before);
        }
        const bool changed = previous && (before == known.constEnd() || previous->stamps.at(*before) != stamp);
        // Touched within the last moments (a clock far ahead aside): perhaps
        // still being written. A new file waits; a changed one stays as it
        // was until it is left alone.
        if (changed && now - stamp.modified < settleTime && stamp.modified - now < 3600 * 1000) {
            listing->unsettled = true;
            if (before == known.constEnd()) {
                continue;
            }
            stamp = previous->stamps.at(*before);
        }
        paths.append(path);
        stamps.append(stamp);
    }

    // Sorted once, through an index, so that the stamps follow their paths.
    QVector<int> order(paths.size());
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&paths](int a, int b) {
        return showsBefore(paths.at(a), paths.at(b));
    });
    listing->paths.reserve(paths.size());
    listing->stamps.reserve(paths.size());
    for (int index : order) {
        listing->paths.append(paths.at(index));
        listing->stamps.append(stamps.at(index));
    }

    if (previous) {
        QHash<QString, int> found;
        found.reserve(listing->paths.size());
        for (int i = 0; i < listing->paths.size(); ++i) {
            const QString &path = listing->paths.at(i);
            found.insert(path, i);
            const auto before = known.constFind(path);
            if (before == known.constEnd()) {
                listing->joined.append(path);
            } else if (previous->stamps.at(*before) != listing->stamps.at(i)) {
                listing->replaced.append(path);
            }
        }
        for (const QString &path : previous->paths) {
            if (!found.contains(path)) {
                listing->left.append(path);
            }
        }
    }
    listing->local = isLocalFileSystem(directory.path());
    return listing;
}
}
}
