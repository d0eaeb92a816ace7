/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "slidelabel/slidefolder.h"

#include <QCoreApplication>
#include <QFileSystemWatcher>
#include <QMetaObject>
#include <QSet>
#include <QThread>

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>

namespace Dm
{
namespace ScreenSaver
{
namespace
{
std::atomic<int> s_runningThreads{0};

// Taken around every post to another thread and first thing in the posted
// call: the event queue orders the call after the post through Qt's own
// locks, which the thread sanitizer cannot see, and this one shows it that
// order (also for the call object itself, which the post writes and the
// call reads).
std::mutex &handoffMutex()
{
    static std::mutex mutex;
    return mutex;
}

// A folder of up to this many images has its files watched one by one, so
// that a photo saved over another is seen too; a larger one only as a
// folder, and its files are checked once a round.
constexpr int watchedFilesLimit = 100;
}

int runningSlideThreads()
{
    return s_runningThreads.load();
}

namespace
{
// The QThreads that the slide displays have let go of, until they are
// deleted (by the GUI thread's event loop, once each has finished). Touched
// on the GUI thread only; never destroyed, so that what is in it at exit is
// still held rather than lost.
QSet<QThread *> &abandonedThreads()
{
    static auto *threads = new QSet<QThread *>;
    return *threads;
}

// Run as the application goes: the threads that have finished by then are
// deleted, their deletion posted to an event loop that no longer runs. One
// still held in a read is left as it is; the process is ending.
void deleteFinishedThreads()
{
    const QSet<QThread *> threads = abandonedThreads();
    for (QThread *thread : threads) {
        if (thread->isFinished()) {
            delete thread;
        }
    }
}
}

void countSlideThread(QThread *thread)
{
    static bool routineAdded = false;
    if (!routineAdded) {
        qAddPostRoutine(deleteFinishedThreads);
        routineAdded = true;
    }
    ++s_runningThreads;
    abandonedThreads().insert(thread);
    QObject::connect(thread, &QObject::destroyed, thread, [thread] {
        --s_runningThreads;
        abandonedThreads().remove(thread);
    });
}

// Read by the listing and watcher threads, written by the SlideFolder on the
// GUI thread when it goes; both under the mutex.
struct SlideFolder::Channel {
    std::mutex mutex;
    SlideFolder *folder = nullptr;

    // Calls call with the folder on its thread, unless it is gone by then.
    static void post(const QSharedPointer<Channel> &channel, std::function<void(SlideFolder *)> call)
    {
        std::lock_guard<std::mutex> handoff(handoffMutex());
        std::lock_guard<std::mutex> locker(channel->mutex);
        if (!channel->folder) {
            return;
        }
        // A call still queued when the folder is destroyed is dropped with
        // the folder's posted events.
        QMetaObject::invokeMethod(
            channel->folder,
            [channel, call = std::move(call)] {
                {
                    std::lock_guard<std::mutex> received(handoffMutex());
                }
                SlideFolder *folder = nullptr;
                {
                    std::lock_guard<std::mutex> locker(channel->mutex);
                    folder = channel->folder;
                }
                if (folder) {
                    call(folder);
                }
            },
            Qt::QueuedConnection);
    }
};

// Watches a local folder (and its files, when there are few) from its own
// thread, and asks for a listing once the changes have stopped for
// settleTime. Everything of it lives and runs on that thread.
class FolderWatcher : public QObject
{
public:
    explicit FolderWatcher(QSharedPointer<SlideFolder::Channel> channel)
        : m_channel(std::move(channel))
    {
    }

    void watch(const QString &folder, const QStringList &files)
    {
        if (!m_watcher) {
            m_watcher = new QFileSystemWatcher(this);
            m_settle = new QTimer(this);
            m_settle->setSingleShot(true);
            m_settle->setInterval(int(settleTime));
            connect(m_watcher, &QFileSystemWatcher::directoryChanged, m_settle, qOverload<>(&QTimer::start));
            connect(m_watcher, &QFileSystemWatcher::fileChanged, m_settle, qOverload<>(&QTimer::start));
            connect(m_settle, &QTimer::timeout, this, [this] {
                SlideFolder::Channel::post(m_channel, [](SlideFolder *folder) {
                    folder->relist();
                });
            });
        }
        const QStringList watched = m_watcher->directories() + m_watcher->files();
        if (!watched.isEmpty()) {
            m_watcher->removePaths(watched);
        }
        if (folder.isEmpty()) {
            m_settle->stop();
        } else {
            m_watcher->addPath(folder);
        }
        if (!files.isEmpty()) {
            m_watcher->addPaths(files);
        }
    }

private:
    const QSharedPointer<SlideFolder::Channel> m_channel;
    QFileSystemWatcher *m_watcher = nullptr;
    QTimer *m_settle = nullptr;
};

int SlideFolder::missingRetry = 30000;

SlideFolder::SlideFolder(Listed listed, QObject *parent)
    : QObject(parent)
    , m_listed(std::move(listed))
    , m_channel(QSharedPointer<Channel>::create())
{
    m_channel->folder = this;
    m_relistTimer.setSingleShot(true);
    connect(&m_relistTimer, &QTimer::timeout, this, &SlideFolder::relist);
}

SlideFolder::~SlideFolder()
{
    {
        std::lock_guard<std::mutex> locker(m_channel->mutex);
        m_channel->folder = nullptr;
    }
    if (m_watcherThread) {
        // The watcher and then the thread are deleted once it has finished.
        m_watcherThread->quit();
    }
}

QString SlideFolder::listingKey() const
{
    return (m_options.includeSubfolders ? QStringLiteral("tree:") : QStringLiteral("folder:")) + m_folder;
}

void SlideFolder::setFolder(const QString &folder, const ListingOptions &options)
{
    m_folder = folder;
    m_options = options;
    m_base.reset();
    m_relistTimer.stop();
    watch(QString(), QStringList());
    const auto running = m_running.constFind(listingKey());
    if (running != m_running.constEnd()) {
        // Its result is this folder's listing as well as any.
        m_awaited = *running;
        return;
    }
    startListing();
}

void SlideFolder::relist()
{
    if (m_folder.isNull() || m_running.contains(listingKey())) {
        return;
    }
    startListing();
}

bool SlideFolder::isListing() const
{
    return m_awaited != 0;
}

void SlideFolder::startListing()
{
    const quint64 request = ++m_lastRequest;
    const QString key = listingKey();
    m_running.insert(key, request);
    m_awaited = request;
    ++s_runningThreads;
    // Detached: whatever the file system does, nobody waits for it.
    std::thread([channel = m_channel, request, key, folder = m_folder, options = m_options, base = m_base]() {
        const QSharedPointer<FolderListing> listing = listImageFolder(folder, options, base);
        Channel::post(channel, [request, key, listing](SlideFolder *target) {
            target->take(request, key, listing);
        });
        --s_runningThreads;
    }).detach();
}

void SlideFolder::take(quint64 request, const QString &key, const QSharedPointer<FolderListing> &listing)
{
    const QString &folder = listing->folder;
    const auto running = m_running.constFind(key);
    if (running != m_running.constEnd() && *running == request) {
        m_running.erase(running);
    }
    if (request != m_awaited) {
        // Of a folder no longer shown, or of a setting made over since.
        return;
    }
    m_awaited = 0;
    const bool first = !m_base;
    m_base = listing;
    if (listing->paths.size() < 2) {
        // Missing, or too few to show: perhaps a share not mounted yet.
        m_relistTimer.start(missingRetry);
    } else if (listing->unsettled) {
        m_relistTimer.start(int(settleTime));
    } else {
        m_relistTimer.stop();
    }
    if (listing->local) {
        watch(folder, listing->paths.size() <= watchedFilesLimit ? listing->paths : QStringList());
    } else {
        watch(QString(), QStringList());
    }
    m_listed(listing, first);
}

void SlideFolder::watch(const QString &folder, const QStringList &files)
{
    if (folder == m_watchedFolder && files == m_watchedFiles) {
        return;
    }
    m_watchedFolder = folder;
    m_watchedFiles = files;
    if (!m_watcherThread) {
        if (folder.isEmpty()) {
            return;
        }
        m_watcherThread = new QThread;
        m_watcher = new FolderWatcher(m_channel);
        m_watcher->moveToThread(m_watcherThread);
        connect(m_watcherThread, &QThread::finished, m_watcher, &QObject::deleteLater);
        connect(m_watcherThread, &QThread::finished, m_watcherThread, &QObject::deleteLater);
        countSlideThread(m_watcherThread);
        m_watcherThread->start();
    }
    // The watcher was made on this thread and is used on its own: the
    // handoff shows the thread sanitizer that order.
    std::lock_guard<std::mutex> handoff(handoffMutex());
    FolderWatcher *watcher = m_watcher;
    QMetaObject::invokeMethod(
        m_watcher,
        [watcher, folder, files] {
            {
                std::lock_guard<std::mutex> received(handoffMutex());
            }
            watcher->watch(folder, files);
        },
        Qt::QueuedConnection);
}
}
}
