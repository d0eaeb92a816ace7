/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_SLIDEFOLDER_H
#define ZAV_SLIDEFOLDER_H

#include "slidelabel/folderlisting.h"

#include <QHash>
#include <QObject>
#include <QSharedPointer>
#include <QString>
#include <QTimer>

#include <functional>

class QThread;

namespace Dm
{
namespace ScreenSaver
{
class FolderWatcher;

// The threads of every slide display that have not ended yet (a QThread
// until it is deleted): for tests and tools that wait for them, since the
// display itself never does.
int runningSlideThreads();
// Counts a QThread, which its owner has let go of, until it is deleted; one
// that has finished when the application goes is deleted then.
void countSlideThread(QThread *thread);

// The folder of a slide show, as listings made off the GUI thread find it:
// listed when it is set, and followed while the show runs. Lives on the GUI
// thread, which it never lets wait for the file system:
// - Each listing runs on a thread of its own that nothing waits for (not the
//   cache thread, whose decodes it would hold up, nor Qt's thread pool, which
//   waits for its tasks at exit). A listing that hangs, as one of a network
//   share whose server went away does, holds only itself; its result is
//   dropped whenever it comes, unless it is still the one awaited. Never
//   more than one listing of a folder runs at a time.
// - Results come back through a channel that this object closes when it is
//   destroyed: a thread that outlives it drops its result.
// - A local folder is watched from a thread of its own as well; its changes
//   lead to a listing once they have stopped for settleTime.
class SlideFolder : public QObject
{
    Q_OBJECT

public:
    // listed is called with each listing taken, first says whether it is the
    // first of the folder (the ones after it tell what changed).
    using Listed = std::function<void(const QSharedPointer<const FolderListing> &listing, bool first)>;

    SlideFolder(Listed listed, QObject *parent = nullptr);
    // Never waits: the threads end on their own.
    ~SlideFolder() override;

    // Follows another folder, or the same one listed otherwise, and lists it
    // at once (or awaits the listing of it that still runs).
    void setFolder(const QString &folder, const ListingOptions &options);
    // Lists the folder again, unless a listing of it runs.
    void relist();
    // Whether the listing of the folder is awaited.
    bool isListing() const;

    // How often a folder that is missing or holds fewer than two images is
    // listed again: half a minute. Used on the GUI thread only; the tests
    // shorten it so as not to wait that long.
    static int missingRetry;

private:
    // Posts the watcher's call for a listing through the channel.
    friend class FolderWatcher;
    struct Channel;

    void startListing();
    void take(quint64 request, const QString &key, const QSharedPointer<FolderListing> &listing);
    // What tells one listing of the folder from another: the folder and
    // whether its subfolders are in.
    QString listingKey() const;
    void watch(const QString &folder, const QStringList &files);

    const Listed m_listed;
    // Shared with the listing threads, which post their results through it.
    const QSharedPointer<Channel> m_channel;
    QString m_folder;
    ListingOptions m_options;
    // The last listing taken of m_folder: what the next one is told apart
    // from.
    QSharedPointer<const FolderListing> m_base;
    // The listing that runs for each folder (and options), by its request
    // number.
    QHash<QString, quint64> m_running;
    quint64 m_lastRequest = 0;
    // The request whose result is taken, 0 when none is awaited.
    quint64 m_awaited = 0;
    QTimer m_relistTimer;
    // Created for the first local folder; deleted, with the watcher, when the
    // thread has finished.
    QThread *m_watcherThread = nullptr;
    FolderWatcher *m_watcher = nullptr;
    // What the watcher was last told to watch.
    QString m_watchedFolder;
    QStringList m_watchedFiles;
};
}
}

#endif // ZAV_SLIDEFOLDER_H
