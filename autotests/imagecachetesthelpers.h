/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Shared by the tests of ImageCacheWorker: the worker on its own thread as
// the slide label runs it, a receiver of its reports, a way to hold its
// thread, and the log lines it writes.

#ifndef ZAV_IMAGECACHETESTHELPERS_H
#define ZAV_IMAGECACHETESTHELPERS_H

#include "imagecache/imagecacheworker.h"
#include "testutils.h"

#include <QCoreApplication>
#include <QList>
#include <QMetaObject>
#include <QObject>
#include <QPixmap>
#include <QString>
#include <QTest>
#include <QThread>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace ImageCacheTest
{
using TestUtils::asyncTimeout;
using TestUtils::debugEntry;
using TestUtils::warningEntry;
inline TestUtils::LogEntry debug(const QString &text)
{
    return TestUtils::debugEntry(text);
}
inline TestUtils::LogEntry warning(const QString &text)
{
    return TestUtils::warningEntry(text);
}
using TestUtils::quoted;

using TestUtils::postTo;
using TestUtils::ThreadBlocker;

// What imageCached delivered to a receiver in the GUI thread, connected with
// the automatic type as the slide label connects it.
struct Report {
    QString path;
    QPixmap pixmap;
    QThread *thread = nullptr;
    bool duringRequest = false;
};

class Receiver : public QObject
{
public:
    void handleImageCached(const QString &path, const QPixmap &pixmap)
    {
        reports.append(Report{path, pixmap, QThread::currentThread(), requestRunning});
    }

    void handleImageGone(const QString &path)
    {
        gone.append(path);
    }

    // Only the GUI thread touches these: queued reports arrive there, and
    // direct ones are made there.
    QList<Report> reports;
    QStringList gone;
    bool requestRunning = false;
};

// The worker as the slide label runs it: no parent, moved to its own thread,
// deleted there by deleteLater when the thread finishes.
class WorkerFixture
{
public:
    WorkerFixture()
        : worker(new Dm::ScreenSaver::ImageCacheWorker(nullptr))
    {
        worker->moveToThread(&thread);
        QObject::connect(&thread, &QThread::finished, worker, &QObject::deleteLater);
        QObject::connect(worker, &Dm::ScreenSaver::ImageCacheWorker::imageCached, &receiver, &Receiver::handleImageCached);
        QObject::connect(worker, &Dm::ScreenSaver::ImageCacheWorker::imageGone, &receiver, &Receiver::handleImageGone);
        // Connected before the thread starts, so that the thread sees these
        // connections complete.
        QObject::connect(
            worker,
            &Dm::ScreenSaver::ImageCacheWorker::imageCached,
            &receiver,
            [this] {
                emittingThread.store(QThread::currentThread());
            },
            Qt::DirectConnection);
        QObject::connect(
            worker,
            &QObject::destroyed,
            &receiver,
            [this] {
                destroyedIn.store(QThread::currentThread());
            },
            Qt::DirectConnection);
        thread.start();
    }

    ~WorkerFixture()
    {
        thread.quit();
        thread.wait();
        // QThread::wait() may return through Qt's own locks, which
        // ThreadSanitizer does not see; reading what the worker's thread
        // stored last, as the worker was destroyed, shows it that the thread
        // is done with this object.
        destroyedIn.load();
    }

    WorkerFixture(const WorkerFixture &) = delete;
    WorkerFixture &operator=(const WorkerFixture &) = delete;

    // requestProcessImage, with the receiver told that a request is running.
    bool request(const QString &path, const QRect &geometry, double ratio = 1.0, int position = Dm::ScreenSaver::Crop)
    {
        receiver.requestRunning = true;
        const bool queued = worker->requestProcessImage(path, geometry, ratio, position);
        receiver.requestRunning = false;
        return queued;
    }

    bool waitForReports(int count)
    {
        return QTest::qWaitFor(
            [this, count] {
                return receiver.reports.size() >= count;
            },
            asyncTimeout);
    }

    // Returns once everything queued to the worker so far has run and its
    // queued reports have reached this thread: the marker that the worker's
    // thread posts last is delivered after them.
    bool flush()
    {
        auto reached = std::make_shared<std::atomic<bool>>(false);
        postTo(worker, [reached] {
            postTo(QCoreApplication::instance(), [reached] {
                reached->store(true);
            });
        });
        return QTest::qWaitFor(
            [reached] {
                return reached->load();
            },
            asyncTimeout);
    }

    QThread thread;
    Dm::ScreenSaver::ImageCacheWorker *worker;
    Receiver receiver;
    // The thread of the last imageCached emission, and the thread in which
    // the worker was destroyed.
    std::atomic<QThread *> emittingThread{nullptr};
    std::atomic<QThread *> destroyedIn{nullptr};
};
}

#endif // ZAV_IMAGECACHETESTHELPERS_H
