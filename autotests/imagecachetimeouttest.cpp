/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Requests that do not finish: the bounded wait of clearAllCacheData, the
// cleaning state it leaves behind, and a decoder that hangs on a file. A
// program of its own because the time-out takes half a minute.

#include "imagecache/imagecacheworker.h"
#include "imagecachetesthelpers.h"
#include "testutils.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Dm::ScreenSaver;
using TestUtils::LogEntry;
using TestUtils::LogRecorder;

using namespace ImageCacheTest;

namespace
{
const QRect screen(0, 0, 300, 200);

const QString initiatedLine = QStringLiteral("ImageCacheWorker: the cleaning of all cache data is initiated.");
const QString cleanedLine = QStringLiteral("ImageCacheWorker: All cache data are cleaned.");

QString settingLine(const QString &path)
{
    return QStringLiteral("ImageCacheWorker: setting a request for image processing in the queue for: ") + quoted(path + QStringLiteral("|300x200"));
}

QString internalLine(const QString &path)
{
    return QStringLiteral("ImageCacheWorker: internal image processing: ") + quoted(path);
}

QString rejectedLine(const QString &path)
{
    return QStringLiteral("ImageCacheWorker: the processing request has been rejected, as the cache cleaning is initiated: ") + quoted(path);
}

// Opens the pipe for writing and closes it again, without data, whenever a
// reader waits in its open: each open of the worker then reads an empty
// file. Until its condition holds it only keeps the write end it was given
// open, which holds the worker in its read. On destruction it keeps releasing
// until the worker's thread has ended, so that a failed test cannot leave the
// worker hanging.
class PipeReleaser
{
public:
    PipeReleaser(const QByteArray &pipe, QThread *workerThread, int heldWriter, std::function<bool()> condition)
        : m_workerThread(workerThread)
        , m_heldWriter(heldWriter)
        , m_condition(std::move(condition))
        , m_thread([this, pipe] {
            run(pipe);
        })
    {
    }

    ~PipeReleaser()
    {
        m_force.store(true);
        m_workerThread->quit();
        m_workerThread->wait();
        stop();
    }

    void stop()
    {
        m_stop.store(true);
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    bool released() const
    {
        return m_released.load();
    }

private:
    void run(const QByteArray &pipe)
    {
        while (!m_stop.load()) {
            if (!m_released.load()) {
                if (!m_force.load() && !m_condition()) {
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                    continue;
                }
                if (m_heldWriter >= 0) {
                    ::close(m_heldWriter);
                }
                m_released.store(true);
            }
            // Succeeds only while a reader has the pipe open.
            const int writer = ::open(pipe.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (writer >= 0) {
                ::close(writer);
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        if (!m_released.load() && m_heldWriter >= 0) {
            ::close(m_heldWriter);
        }
    }

    QThread *const m_workerThread;
    const int m_heldWriter;
    const std::function<bool()> m_condition;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_force{false};
    std::atomic<bool> m_released{false};
    std::thread m_thread;
};
}

class ImageCacheTimeoutTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_first;
    QString m_second;
    QString m_third;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_first = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("first.png"), QSize(64, 48), Qt::red);
        m_second = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("second.png"), QSize(64, 48), Qt::green);
        m_third = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("third.png"), QSize(64, 48), Qt::blue);
        QVERIFY(!m_third.isEmpty());
        TestUtils::setSlideShowDebugEnabled(true);
    }

    void cleanupTestCase()
    {
        TestUtils::setSlideShowDebugEnabled(false);
    }

    void clearingTimesOutAndStaysInTheCleaningState()
    {
        WorkerFixture fixture;
        ImageCacheWorker *worker = fixture.worker;
        QVERIFY(worker->requestProcessImage(m_first, screen, 1.0, Crop));
        QVERIFY(fixture.waitForReports(1));

        // The worker's thread hangs in something else, so a request queued
        // now stays pending. (A request that hangs while it is being prepared
        // holds the worker's mutex, and a clearing would wait on that lock
        // instead: see clearingWaitsForAnImageThatHangsInTheDecoder.)
        ThreadBlocker blocker(worker);
        QVERIFY(blocker.waitUntilHolding());

        QVERIFY(worker->requestProcessImage(m_second, screen, 1.0, Crop));
        const QString pendingKey = m_second + QStringLiteral("|300x200");
        QCOMPARE(worker->snapshot().pendingRequests, QSet<QString>{pendingKey});

        auto recording = std::make_unique<LogRecorder>();
        LogRecorder &recorder = *recording;
        QElapsedTimer timer;
        timer.start();
        worker->clearAllCacheData();
        const qint64 elapsed = timer.elapsed();

        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(initiatedLine),
                                     debug(QStringLiteral("ImageCacheWorker: waiting for completion  1  awaiting requests ...")),
                                     warning(QStringLiteral("ImageCacheWorker: Timesout to wait for the completion of requests. Perhaps some requests were hanging.")),
                                     debug(cleanedLine)}));
        QVERIFY2(elapsed >= 29000, qPrintable(QString::number(elapsed)));
        // Only a sanity bound: the wait is 30000 ms.
        QVERIFY2(elapsed < 90000, qPrintable(QString::number(elapsed)));

        // Nothing was emptied, and the worker stays in its cleaning state.
        ImageCacheWorker::Snapshot snapshot = worker->snapshot();
        QCOMPARE(snapshot.cachedPaths, QStringList{m_first});
        QCOMPARE(snapshot.cacheOrder, QList<QString>{m_first});
        QCOMPARE(snapshot.pendingRequests, QSet<QString>{pendingKey});
        QVERIFY(snapshot.cleaning);
        QVERIFY(!worker->getCachedImage(m_first, screen, 1.0, Crop).isNull());

        // Every new request is refused, even one the cache could answer.
        recorder.clear();
        QVERIFY(!worker->requestProcessImage(m_third, screen, 1.0, Crop));
        QVERIFY(!worker->requestProcessImage(m_first, screen, 1.0, Crop));
        COMPARE_LOG(recorder, (QList<LogEntry>{debug(rejectedLine(m_third)), debug(rejectedLine(m_first))}));
        QCOMPARE(fixture.receiver.reports.size(), 1);

        // The request that was pending still runs and still fills the cache;
        // the state stays sticky.
        recorder.clear();
        blocker.release();
        QVERIFY(fixture.waitForReports(2));
        QCOMPARE(fixture.receiver.reports.at(1).path, m_second);
        snapshot = worker->snapshot();
        QCOMPARE(snapshot.cacheOrder, (QList<QString>{m_first, m_second}));
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QVERIFY(snapshot.cleaning);
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(internalLine(m_second)), debug(QStringLiteral("ImageCacheWorker: The current size of the cache: 2 . Cache order size: 2"))}));
        recorder.clear();
        QVERIFY(!worker->requestProcessImage(m_third, screen, 1.0, Crop));
        COMPARE_LOG(recorder, {debug(rejectedLine(m_third))});

        // A later clearing that finds nothing pending ends the state.
        recorder.clear();
        worker->clearAllCacheData();
        COMPARE_LOG(recorder, (QList<LogEntry>{debug(initiatedLine), debug(cleanedLine)}));
        snapshot = worker->snapshot();
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.cacheOrder.isEmpty());
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QVERIFY(!snapshot.cleaning);

        recorder.clear();
        QVERIFY(worker->requestProcessImage(m_third, screen, 1.0, Crop));
        QVERIFY(fixture.waitForReports(3));
        QCOMPARE(fixture.receiver.reports.at(2).path, m_third);
        QCOMPARE(recorder.slideShowEntries().at(0), debug(settingLine(m_third)));

        recording.reset();
        qInfo("the clearing that timed out returned after %lld ms", elapsed);
    }

    void clearingWaitsForAnImageThatHangsInTheDecoder()
    {
        // A named pipe named like an image: opening it for reading blocks
        // until a writer comes, and with a writer but no data, reading does.
        const QString pipe = m_dir.filePath(QStringLiteral("pipe.png"));
        const QByteArray pipeName = QFile::encodeName(pipe);
        if (::mkfifo(pipeName.constData(), 0600) != 0) {
            QSKIP("named pipes are not available here");
        }

        WorkerFixture fixture;
        ImageCacheWorker *worker = fixture.worker;
        LogRecorder recorder;
        QVERIFY(worker->requestProcessImage(pipe, screen, 1.0, Crop));

        // A writer opens without blocking only while a reader has the pipe
        // open: then the worker is inside the decoder, holding its mutex.
        // The write end stays open, so the worker now waits for data.
        int writer = -1;
        const bool inDecoder = QTest::qWaitFor(
            [&writer, &pipeName] {
                writer = ::open(pipeName.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                return writer >= 0;
            },
            asyncTimeout);

        // Released only once the clearing has begun; the clearing cannot
        // take the mutex before the image is finished.
        const LogRecorder *log = &recorder;
        PipeReleaser releaser(pipeName, &fixture.thread, writer, [log, inDecoder] {
            return !inDecoder || log->count(initiatedLine) > 0;
        });
        QVERIFY(inDecoder);

        worker->clearAllCacheData();
        QVERIFY(releaser.released());
        releaser.stop();

        // The image was finished (an empty file reads as unreadable: a black
        // canvas) before the clearing went on, so there was nothing to wait
        // for and no time-out.
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(settingLine(pipe)),
                                     debug(internalLine(pipe)),
                                     debug(initiatedLine),
                                     warning(quoted(QStringLiteral("ImageCacheWorker: It was not possible to load the original image: %1 ").arg(pipe))),
                                     debug(QStringLiteral("ImageCacheWorker: The current size of the cache: 1 . Cache order size: 1")),
                                     debug(cleanedLine)}));
        const ImageCacheWorker::Snapshot snapshot = worker->snapshot();
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.cacheOrder.isEmpty());
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QVERIFY(!snapshot.cleaning);

        // Its report reaches this thread only after the clearing returned.
        QVERIFY(fixture.receiver.reports.isEmpty());
        QVERIFY(fixture.waitForReports(1));
        QCOMPARE(fixture.receiver.reports.at(0).path, pipe);
        QCOMPARE(fixture.receiver.reports.at(0).pixmap.size(), screen.size());
        QCOMPARE(fixture.receiver.reports.at(0).pixmap.toImage().pixel(150, 100), qRgb(0, 0, 0));
    }
};

QTEST_MAIN(ImageCacheTimeoutTest)

#include "imagecachetimeouttest.moc"
