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
#include <QImageReader>
#include <QSet>

#include <algorithm>
#include <numeric>
#include <utility>

#include <sys/vfs.h>

namespace Dm
{
namespace ScreenSaver
{
namespace
{
// Compares two names as the show orders them.
int compareNames(const QStringRef &name, const QStringRef &other)
{
    const int order = name.compare(other, Qt::CaseInsensitive);
    return order != 0 ? order : name.compare(other, Qt::CaseSensitive);
}

// The folders that network storage keeps beside photos: thumbnails,
// deleted files, snapshots.
bool isStorageFolder(const QString &name)
{
    static const QStringList names = {
        QStringLiteral("@eaDir"),
        QStringLiteral("#recycle"),
        QStringLiteral("@Recycle"),
        QStringLiteral("#snapshot"),
        QStringLiteral("lost+found"),
    };
    return names.contains(name);
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

QStringList imageNameFilters()
{
    static const QStringList filters = [] {
        QStringList patterns = {
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
        // Today's formats, where this machine's Qt image plug-ins read them:
        // suffix and the format's name.
        static const struct {
            const char *suffix;
            const char *format;
        } more[] = {
            {"webp", "webp"},
            {"tif", "tif"},
            {"tiff", "tiff"},
            {"gif", "gif"},
            {"heic", "heic"},
            {"heif", "heif"},
            {"avif", "avif"},
            {"jxl", "jxl"},
        };
        const QList<QByteArray> supported = QImageReader::supportedImageFormats();
        for (const auto &format : more) {
            if (supported.contains(QByteArray(format.format))) {
                patterns.append(QStringLiteral("*.") + QLatin1String(format.suffix));
            }
        }
        return patterns;
    }();
    return filters;
}

bool showsBefore(const QString &path, const QString &other)
{
    // Part by part: where the paths part, a name that is the last part (an
    // image) comes before one that goes on (a folder); otherwise the names
    // decide.
    int start = 0;
    int otherStart = 0;
    for (;;) {
        const int end = path.indexOf(QLatin1Char('/'), start);
        const int otherEnd = other.indexOf(QLatin1Char('/'), otherStart);
        const QStringRef part = path.midRef(start, end < 0 ? -1 : end - start);
        const QStringRef otherPart = other.midRef(otherStart, otherEnd < 0 ? -1 : otherEnd - otherStart);
        if (part != otherPart || end < 0 || otherEnd < 0) {
            if (part == otherPart) {
                // One path ends where the other goes on.
                return end < 0 && otherEnd >= 0;
            }
            if ((end < 0) != (otherEnd < 0)) {
                return end < 0;
            }
            return compareNames(part, otherPart) < 0;
        }
        start = end + 1;
        otherStart = otherEnd + 1;
    }
}

QSharedPointer<FolderListing> listImageFolder(const QString &folder, const ListingOptions &options, const QSharedPointer<const FolderListing> &previous)
{
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

    // Depth first, in the show's order: the folders still to list, the next
    // one last; each real folder once, whatever links lead to it, so that a
    // loop of links ends. An empty path is the working directory, as for
    // QDir.
    const QDir root(folder);
    QStringList pending{folder};
    QSet<QString> visited;
    QVector<int> order;
    QStringList names;
    while (!pending.isEmpty() && !listing->truncated) {
        QDir directory(pending.takeLast());
        // Listed under the first path that reaches it in the show's order; a
        // link that leads nowhere is no folder.
        const QString real = QFileInfo(directory.path()).canonicalFilePath();
        if (!visited.isEmpty() && (real.isEmpty() || visited.contains(real))) {
            continue;
        }
        visited.insert(real);
        // Files only (links to files included, hidden files not), the
        // patterns matched regardless of case.
        directory.setNameFilters(options.nameFilters);
        directory.setFilter(QDir::Files);
        QStringList paths;
        QVector<FileStamp> stamps;
        QDirIterator files(directory);
        while (files.hasNext()) {
            files.next();
            const QFileInfo info = files.fileInfo();
            // QDir takes any link for a file; keep only what is, or leads to,
            // a regular file. A link to a named pipe or a device would block
            // the worker in open() for as long as nobody writes to it.
            if (!info.isFile()) {
                continue;
            }
            QString path = directory.filePath(files.fileName());
            FileStamp stamp{info.size(), info.lastModified().toMSecsSinceEpoch()};
            const auto before = known.constFind(path);
            if (before != known.constEnd()) {
                // The listing before's own string: the two share it, and the
                // GUI thread, which lets go of the old listing, has a
                // reference to drop rather than a string to free, for each
                // of perhaps many thousand images.
                path = previous->paths.at(*before);
            }
            const bool changed = previous && (before == known.constEnd() || previous->stamps.at(*before) != stamp);
            // Touched within the last moments (a clock far ahead aside):
            // perhaps still being written. A new file waits; a changed one
            // stays as it was until it is left alone.
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
        // Sorted through an index, so that the stamps follow their paths.
        order.resize(paths.size());
        std::iota(order.begin(), order.end(), 0);
        std::sort(order.begin(), order.end(), [&paths](int a, int b) {
            return showsBefore(paths.at(a), paths.at(b));
        });
        for (int index : std::as_const(order)) {
            if (listing->paths.size() == maximumImages) {
                listing->truncated = true;
                break;
            }
            listing->paths.append(paths.at(index));
            listing->stamps.append(stamps.at(index));
        }
        if (!options.includeSubfolders) {
            break;
        }
        // Hidden folders are not listed (no QDir::Hidden), nor those of
        // network storage; links to folders are followed.
        names = directory.entryList(QStringList(), QDir::Dirs | QDir::NoDotAndDotDot, QDir::NoSort);
        std::sort(names.begin(), names.end(), [](const QString &a, const QString &b) {
            return compareNames(QStringRef(&a), QStringRef(&b)) < 0;
        });
        // Pushed last first, so that the first is listed next.
        for (auto it = names.crbegin(); it != names.crend(); ++it) {
            if (isStorageFolder(*it)) {
                continue;
            }
            pending.append(directory.filePath(*it));
        }
    }

    listing->stamps.squeeze();

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
    listing->local = isLocalFileSystem(root.path());
    return listing;
}
}
}
