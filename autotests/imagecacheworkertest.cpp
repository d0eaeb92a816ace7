/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The tests of ImageCacheWorker, on its own thread as the slide label runs it.

#include "imagecache/imagecacheworker.h"
#include "imagecache/imagecacheworker_p.h"
#include "pipetesthelpers.h"
#include "testutils.h"

#include <QFile>
#include <QPixmap>
#include <QPointer>
#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <csignal>

#include <sys/stat.h>

using namespace Dm::ScreenSaver;
using namespace PipeTest;
using TestUtils::debugEntry;
using TestUtils::LogEntry;
using TestUtils::LogRecorder;
using TestUtils::logText;
using TestUtils::ThreadBlocker;
using TestUtils::warningEntry;

namespace
{
const QRect screen(0, 0, 300, 200);

// A debug line of the plug-in, and the one that tells the cache's size.
template<typename... Values>
LogEntry debugLine(const char *leading, const Values &...values)
{
    return debugEntry(logText(leading, values...));
}
LogEntry sizeLine(int size)
{
    return debugLine(LogText::cacheSize, size, LogText::cacheOrderSize, size);
}
LogEntry evictionLine(const QString &path, int newSize)
{
    return debugLine(LogText::eviction, path, LogText::evictionNewSize, newSize);
}
const QList<LogEntry> cleaning{debugEntry(QLatin1String(LogText::cleaningStarted)), debugEntry(QLatin1String(LogText::cleaningDone))};

// The cache of a worker at rest (nothing pending, each entry once in the order
// and once among the images), oldest first; or notAtRest.
const QList<QString> notAtRest{QStringLiteral("(not at rest)")};
QList<QString> restingCache(const ImageCacheWorker *worker)
{
    const WorkerSnapshot snapshot = snapshotOf(worker);
    QStringList order = snapshot.cacheOrder;
    order.sort();
    return snapshot.pendingRequests.isEmpty() && order == snapshot.cachedPaths ? snapshot.cacheOrder : notAtRest;
}

// What imageCached delivered to a GUI-thread receiver, auto-connected as by the label.
struct Report {
    QString path;
    QPixmap pixmap;
    QThread *thread = nullptr;
    bool duringRequest = false;
};

// The worker as the label runs it: no parent, on its own thread, deleted there when it finishes.
struct WorkerFixture {
    WorkerFixture()
        : worker(new ImageCacheWorker(nullptr))
    {
        worker->moveToThread(&thread);
        QObject::connect(&thread, &QThread::finished, worker, &QObject::deleteLater);
        QObject::connect(worker, &ImageCacheWorker::imageCached, &receiver, [this](const QString &path, const QPixmap &pixmap) {
            reports.append(Report{path, pixmap, QThread::currentThread(), requestRunning});
        });
        QObject::connect(worker, &ImageCacheWorker::imageGone, &receiver, [this](const QString &path) {
            gone.append(path);
        });
        // No context object: called in the emitting thread. Connected before the
        // thread starts, so that it sees these connections complete.
        QObject::connect(worker, &ImageCacheWorker::imageCached, [this] {
            emittingThread.store(QThread::currentThread());
        });
        QObject::connect(worker, &QObject::destroyed, [this] {
            destroyedIn.store(QThread::currentThread());
        });
        thread.start();
    }

    ~WorkerFixture()
    {
        thread.quit();
        thread.wait();
        // wait() may return through Qt's locks, unseen by ThreadSanitizer; reading what
        // the thread stored last, on the worker's destruction, shows it the thread is done.
        destroyedIn.load();
    }

    // requestProcessImage, with the receiver told that a request is running.
    bool request(const QString &path, const QRect &geometry, double ratio = 1.0, int position = Crop)
    {
        requestRunning = true;
        const bool queued = worker->requestProcessImage(path, geometry, ratio, position);
        requestRunning = false;
        return queued;
    }

    // Requests the paths and waits until each is reported.
    bool requestAll(const QStringList &paths, int position = Crop, const QRect &geometry = screen)
    {
        const int count = reports.size() + paths.size();
        for (const QString &path : paths) {
            if (!request(path, geometry, 1.0, position)) {
                return false;
            }
        }
        return QTest::qWaitFor(
            [this, count] {
                return reports.size() >= count;
            },
            TestUtils::asyncTimeout);
    }

    // Returns once everything queued to the worker has run and its reports have
    // arrived: the marker the worker's thread posts last is delivered after them.
    bool flush()
    {
        auto reached = std::make_shared<std::atomic<bool>>(false);
        TestUtils::postTo(worker, [reached] {
            TestUtils::postTo(QCoreApplication::instance(), [reached] {
                reached->store(true);
            });
        });
        return QTest::qWaitFor(
            [reached] {
                return reached->load();
            },
            TestUtils::asyncTimeout);
    }

    QThread thread;
    ImageCacheWorker *worker;
    // Only the GUI thread touches these: reports, queued or direct, arrive there.
    QObject receiver;
    QList<Report> reports;
    QStringList gone;
    bool requestRunning = false;
    // The thread of the last imageCached emission, and that of the worker's destruction.
    std::atomic<QThread *> emittingThread{nullptr};
    std::atomic<QThread *> destroyedIn{nullptr};
};
}

class ImageCacheWorkerTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    // Twelve small distinct images: enough for a full cache and two more.
    QStringList m_images;

    QString key(const QString &path, const QRect &geometry = screen) const
    {
        return path + QStringLiteral("|%1x%2").arg(geometry.width()).arg(geometry.height());
    }

    // The lines of a request queued and then taken up by the worker.
    QList<LogEntry> preparing(const QString &path, const QRect &geometry = screen) const
    {
        return {debugLine(LogText::queued, key(path, geometry)), debugLine(LogText::internalProcessing, path)};
    }

    QString makePipe(const QString &name)
    {
        const QString pipe = m_dir.filePath(name);
        return ::mkfifo(QFile::encodeName(pipe).constData(), 0600) == 0 ? pipe : QString();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // A feeder whose reader went away gets EPIPE instead of a signal.
        std::signal(SIGPIPE, SIG_IGN);
        for (int i = 0; i < 12; ++i) {
            const QString name = QStringLiteral("slide-%1.png").arg(i, 2, 10, QLatin1Char('0'));
            m_images.append(TestUtils::writeSolidImage(m_dir.path(), name, QSize(64, 48), QColor::fromHsv(i * 30, 200, 220)));
            QVERIFY(!m_images.constLast().isEmpty());
        }
    }

    void init()
    {
        TestUtils::setSlideShowDebugEnabled(true);
    }

    void geometryNeedsBothSidesAbove128Pixels_data()
    {
        QTest::addColumn<QRect>("geometry");
        // The request key of a path in a valid geometry; empty if invalid.
        QTest::addColumn<QString>("key");
        QTest::newRow("128 x 1080") << QRect(0, 0, 128, 1080) << QString();
        QTest::newRow("129 x 1080") << QRect(0, 0, 129, 1080) << QStringLiteral("wallpapers/my photo.jpg|129x1080");
        QTest::newRow("1920 x 128") << QRect(0, 0, 1920, 128) << QString();
        QTest::newRow("1920 x 129") << QRect(0, 0, 1920, 129) << QStringLiteral("wallpapers/my photo.jpg|1920x129");
        QTest::newRow("129 x 129 away from the origin") << QRect(-500, 40, 129, 129) << QStringLiteral("wallpapers/my photo.jpg|129x129");
        QTest::newRow("1920 x 1080") << QRect(0, 0, 1920, 1080) << QStringLiteral("wallpapers/my photo.jpg|1920x1080");
        QTest::newRow("1920 x 1080 at 10, 20") << QRect(10, 20, 1920, 1080) << QStringLiteral("wallpapers/my photo.jpg|1920x1080");
        QTest::newRow("1280 x 720") << QRect(0, 0, 1280, 720) << QStringLiteral("wallpapers/my photo.jpg|1280x720");
        QTest::newRow("1280 x 1024 left of the origin") << QRect(-1280, 0, 1280, 1024) << QStringLiteral("wallpapers/my photo.jpg|1280x1024");
        QTest::newRow("null") << QRect() << QString();
        QTest::newRow("empty") << QRect(10, 10, 0, 0) << QString();
        QTest::newRow("inverted") << QRect(QPoint(1919, 1079), QPoint(0, 0)) << QString();
        QTest::newRow("inverted height") << QRect(QPoint(0, 1079), QPoint(1919, 0)) << QString();
        QTest::newRow("100 x 100 at 5, 7") << QRect(5, 7, 100, 100) << QString();
    }

    // A request is keyed by path and size, not position. An invalid geometry is
    // refused everywhere: a lookup finds nothing and warns; a synchronous
    // preparation warns and gives an unprepared canvas (no ratio), stored nowhere;
    // a request is not queued.
    void geometryNeedsBothSidesAbove128Pixels()
    {
        QFETCH(QRect, geometry);
        QFETCH(QString, key);
        WorkerFixture fixture;
        QCOMPARE(fixture.worker->isValidGeometry(geometry), !key.isEmpty());
        if (!key.isEmpty()) {
            QCOMPARE(fixture.worker->getRequestKey(QStringLiteral("wallpapers/my photo.jpg"), geometry), key);
            return;
        }
        LogRecorder recorder;
        const QString path = m_images.at(0);
        QVERIFY(fixture.worker->getCachedImage(path, geometry, 1.0, Crop).isNull());
        const QPixmap pixmap = fixture.worker->processImageSynchronously(path, geometry, 2.0, Crop);
        QCOMPARE(pixmap.devicePixelRatio(), 1.0);
        if (geometry.width() > 0 && geometry.height() > 0) {
            QCOMPARE(pixmap.size(), geometry.size());
        }
        QVERIFY(!fixture.request(path, geometry));
        QVERIFY(fixture.flush());
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{warningEntry(logText(LogText::invalidLookup, geometry)),
                                     warningEntry(logText(LogText::invalidSynchronous, geometry)),
                                     debugLine(LogText::invalidRequest, geometry)}));
        QVERIFY(fixture.reports.isEmpty());
        QVERIFY(restingCache(fixture.worker).isEmpty());
    }

    void requestIsPreparedInTheWorkerThread()
    {
        WorkerFixture fixture;
        // Fresh, the worker is idle, has no parent and keeps ten entries.
        QVERIFY(restingCache(fixture.worker).isEmpty());
        WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.generation, 0u);
        QCOMPARE(snapshot.capacity, 10);
        QCOMPARE(snapshot.preparationsStarted, 0);
        QVERIFY(!fixture.worker->parent());

        LogRecorder recorder;
        const QString path = m_images.at(0);
        QVERIFY(fixture.request(path, screen, 1.0, Crop));
        // Queued: nothing can have reached this thread before it runs its event loop.
        QVERIFY(fixture.reports.isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(fixture.reports.size(), 1, TestUtils::asyncTimeout);

        QCOMPARE(fixture.emittingThread.load(), &fixture.thread);
        const Report report = fixture.reports.at(0);
        QCOMPARE(report.path, path);
        QCOMPARE(report.thread, QThread::currentThread());
        QVERIFY(!report.duringRequest);
        QCOMPARE(report.pixmap.size(), screen.size());
        // Crop covers the whole canvas with the image's colour.
        QCOMPARE(report.pixmap.toImage().pixel(150, 100), QColor::fromHsv(0, 200, 220).rgb());

        COMPARE_LOG(recorder, preparing(path) << sizeLine(1));
        QCOMPARE(restingCache(fixture.worker), QList<QString>{path});
        QCOMPARE(fixture.worker->getCachedImage(path, screen, 1.0, Crop).cacheKey(), report.pixmap.cacheKey());

        // Deleted in its own thread when the thread finishes, without a word.
        const QPointer<ImageCacheWorker> guard(fixture.worker);
        QCOMPARE(fixture.destroyedIn.load(), nullptr);
        recorder.clear();
        fixture.thread.quit();
        QVERIFY(fixture.thread.wait(TestUtils::asyncTimeout));
        QVERIFY(guard.isNull());
        QCOMPARE(fixture.destroyedIn.load(), &fixture.thread);
        QVERIFY(recorder.slideShowEntries().isEmpty());
    }

    // The same key is queued once, wherever asked for; another size is other work.
    // A queued request whose image was prepared synchronously meanwhile is answered
    // with that image, which becomes the youngest entry.
    void requestIsQueuedOncePerKey()
    {
        WorkerFixture fixture;
        ThreadBlocker blocker(fixture.worker);
        QVERIFY(blocker.waitUntilHolding());

        LogRecorder recorder;
        const QString path = m_images.at(2);
        const QString other = m_images.at(7);
        const QRect large(0, 0, 1920, 1080);
        QVERIFY(fixture.request(path, screen, 1.0, Stretch));
        QVERIFY(!fixture.request(path, QRect(40, 30, 300, 200), 1.0, Stretch));
        QVERIFY(fixture.request(path, large, 1.0, Stretch));
        QVERIFY(fixture.request(other, screen));
        const QPixmap prepared = fixture.worker->processImageSynchronously(other, screen, 1.0, Crop);
        QVERIFY(!prepared.isNull());
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugLine(LogText::queued, key(path)),
                                     debugLine(LogText::alreadyWaiting, key(path)),
                                     debugLine(LogText::queued, key(path, large)),
                                     debugLine(LogText::queued, key(other)),
                                     debugLine(LogText::synchronous, other)}));
        QCOMPARE(snapshotOf(fixture.worker).pendingRequests, (QSet<QString>{key(path), key(path, large), key(other)}));

        recorder.clear();
        blocker.release();
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.reports.size(), 3);
        QCOMPARE(fixture.reports.at(0).path, path);
        QCOMPARE(fixture.reports.at(0).pixmap.size(), screen.size());
        QCOMPARE(fixture.reports.at(1).pixmap.size(), large.size());
        QCOMPARE(fixture.reports.at(2).path, other);
        QCOMPARE(fixture.reports.at(2).pixmap.cacheKey(), prepared.cacheKey());
        const QList<LogEntry> stored{debugLine(LogText::internalProcessing, path), sizeLine(2)};
        COMPARE_LOG(recorder, stored + stored << debugLine(LogText::internalProcessing, other) << debugLine(LogText::fromOtherPath, other));

        // The cache is keyed by path: the second size replaced the first.
        QCOMPARE(restingCache(fixture.worker), (QList<QString>{path, other}));
        QVERIFY(fixture.worker->getCachedImage(path, screen, 1.0, Stretch).isNull());
        QCOMPARE(fixture.worker->getCachedImage(path, large, 1.0, Stretch).cacheKey(), fixture.reports.at(1).pixmap.cacheKey());
    }

    // An entry is found by path and size alone: a Center one serves a Crop lookup
    // at another place and ratio. Another size or an unknown path finds nothing,
    // silently; no lookup changes an entry's age. A request or synchronous
    // preparation of a cached image is answered at once and makes it the youngest.
    void cachedImageIsFoundByPathAndSize()
    {
        WorkerFixture fixture;
        const QString first = m_images.at(4);
        const QString second = m_images.at(5);
        QVERIFY(fixture.requestAll({first, second}, Center));
        const QPixmap firstPixmap = fixture.reports.at(0).pixmap;

        LogRecorder recorder;
        QVERIFY(fixture.worker->getCachedImage(first, QRect(0, 0, 1280, 720), 1.0, Center).isNull());
        QVERIFY(fixture.worker->getCachedImage(m_images.at(0), screen, 1.0, Center).isNull());
        QVERIFY(recorder.slideShowEntries().isEmpty());
        QCOMPARE(restingCache(fixture.worker), (QList<QString>{first, second}));

        const QRect elsewhere(8, 16, 300, 200);
        const QPixmap found = fixture.worker->getCachedImage(first, elsewhere, 1.5, Crop);
        QCOMPARE(found.cacheKey(), firstPixmap.cacheKey());
        // The Center rendering: the small image in the middle of a black canvas.
        const QImage image = found.toImage();
        QCOMPARE(image.pixel(0, 0), qRgb(0, 0, 0));
        QCOMPARE(image.pixel(150, 100), QColor::fromHsv(4 * 30, 200, 220).rgb());
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{first, second}));

        QVERIFY(!fixture.request(first, QRect(100, 100, 300, 200), 2.0, Tile));
        // Delivered inside requestProcessImage, in this thread, before it returned.
        QCOMPARE(fixture.reports.size(), 3);
        const Report report = fixture.reports.at(2);
        QVERIFY(report.duringRequest);
        QCOMPARE(report.thread, QThread::currentThread());
        QCOMPARE(fixture.emittingThread.load(), QThread::currentThread());
        QCOMPARE(report.path, first);
        QCOMPARE(report.pixmap.cacheKey(), firstPixmap.cacheKey());
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{second, first}));

        // Returned, not reported.
        const QPixmap pixmap = fixture.worker->processImageSynchronously(second, QRect(50, 50, 300, 200), 1.0, Crop);
        QCOMPARE(pixmap.cacheKey(), fixture.reports.at(1).pixmap.cacheKey());

        // Nothing was queued.
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.reports.size(), 3);
        QCOMPARE(restingCache(fixture.worker), (QList<QString>{first, second}));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugLine(LogText::lookup, first, elsewhere, 1.5, int(Crop)),
                                     debugLine(LogText::alreadyCached, first),
                                     debugLine(LogText::synchronousLookup, second)}));
    }

    // Ten entries at most, room made before a new preparation. A synchronous one
    // stores beyond the bound; the next image the worker stores restores it.
    void eleventhStoredPathEvictsTheFirst()
    {
        WorkerFixture fixture;
        QVERIFY(fixture.requestAll(m_images.mid(0, 10)));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, m_images.mid(0, 10));

        LogRecorder recorder;
        const QString eleventh = m_images.at(10);
        QVERIFY(fixture.requestAll({eleventh}));
        // Before the preparation, not after: nine are left then.
        COMPARE_LOG(recorder, preparing(eleventh) << evictionLine(m_images.at(0), 9) << sizeLine(10));
        QList<QString> order = m_images.mid(1, 10);
        QCOMPARE(restingCache(fixture.worker), order);
        QVERIFY(fixture.worker->getCachedImage(m_images.at(0), screen, 1.0, Crop).isNull());
        QVERIFY(!fixture.worker->getCachedImage(order.at(0), screen, 1.0, Crop).isNull());

        // Stored again (at another size, so prepared anew): moved to the end, nothing evicted.
        const QString again = m_images.at(3);
        const QRect other(0, 0, 256, 192);
        recorder.clear();
        QVERIFY(fixture.requestAll({again}, Crop, other));
        COMPARE_LOG(recorder, preparing(again, other) << sizeLine(10));
        order.move(order.indexOf(again), order.size() - 1);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, order);
        QCOMPARE(fixture.worker->getCachedImage(again, other, 1.0, Crop).size(), other.size());

        recorder.clear();
        const QString evicted = m_images.at(0);
        const QPixmap pixmap = fixture.worker->processImageSynchronously(evicted, screen, 1.0, Crop);
        QCOMPARE(pixmap.size(), screen.size());
        QCOMPARE(pixmap.toImage().pixel(150, 100), QColor::fromHsv(0, 200, 220).rgb());
        COMPARE_LOG(recorder, {debugLine(LogText::synchronous, evicted)});
        order.append(evicted);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, order);
        QCOMPARE(fixture.worker->getCachedImage(evicted, screen, 1.0, Crop).cacheKey(), pixmap.cacheKey());
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.reports.size(), 12);

        recorder.clear();
        const QString twelfth = m_images.at(11);
        QVERIFY(fixture.requestAll({twelfth}));
        // Eleven entries, and room made for one more before the preparation: nine.
        COMPARE_LOG(recorder, preparing(twelfth) << evictionLine(order.at(0), 10) << evictionLine(order.at(1), 9) << sizeLine(10));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, order.mid(2) << twelfth);
    }

    // A lower capacity evicts the oldest at once; a new image makes room before its
    // preparation. The show's slides stay, though older than an unwanted entry: a new
    // look-ahead displaces the stale entry, not the slide a fade is leaving.
    void evictionSparesTheWantedSlides()
    {
        WorkerFixture fixture;
        QVERIFY(fixture.requestAll(m_images.mid(0, 5)));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, m_images.mid(0, 5));

        LogRecorder recorder;
        fixture.worker->setCacheCapacity(3);
        COMPARE_LOG(recorder, (QList<LogEntry>{evictionLine(m_images.at(0), 4), evictionLine(m_images.at(1), 3)}));
        QCOMPARE(snapshotOf(fixture.worker).capacity, 3);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, m_images.mid(2, 3));

        // Without wishes the next image evicts the oldest of the three.
        recorder.clear();
        QVERIFY(fixture.requestAll({m_images.at(5)}));
        // Room is made before the preparation starts: two are left then.
        COMPARE_LOG(recorder, preparing(m_images.at(5)) << evictionLine(m_images.at(2), 2) << sizeLine(3));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, m_images.mid(3, 3));

        const QString previous = m_images.at(3);
        const QString current = m_images.at(4);
        const QString stale = m_images.at(5);
        const QString next = m_images.at(6);
        fixture.worker->setWantedImages({current, next, previous});
        recorder.clear();
        QVERIFY(fixture.requestAll({next}));
        COMPARE_LOG(recorder, preparing(next) << evictionLine(stale, 2) << sizeLine(3));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{previous, current, next}));

        // A request for a slide the show has passed is skipped unprepared.
        recorder.clear();
        QVERIFY(fixture.request(stale, screen));
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.reports.size(), 7);
        COMPARE_LOG(recorder, preparing(stale) << debugLine(LogText::skippedPassed, key(stale)));

        // An unwanted image does not take a wanted slide's place.
        QCOMPARE(fixture.worker->processImageSynchronously(stale, screen, 1.0, Crop).size(), screen.size());
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{previous, current, next}));

        // A lower capacity spares them too; without wishes the oldest go.
        fixture.worker->setCacheCapacity(2);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{previous, current, next}));
        fixture.worker->setWantedImages({});
        // Never more than ten, nor less than one.
        fixture.worker->setCacheCapacity(50);
        QCOMPARE(snapshotOf(fixture.worker).capacity, 10);
        fixture.worker->setCacheCapacity(0);
        QCOMPARE(snapshotOf(fixture.worker).capacity, 1);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, QList<QString>{next});
    }

    // Like setProperty: a new directory (clearing, request), then a new mode
    // (clearing, same request), while requests wait behind a call holding the
    // worker's thread. The clearings return at once; outdated requests are skipped
    // without a decode or report, only the one in the new mode is prepared.
    void clearingSkipsQueuedRequestsWithoutDecodingThem()
    {
        WorkerFixture fixture;
        QVERIFY(fixture.requestAll({m_images.at(0)}));
        QCOMPARE(snapshotOf(fixture.worker).preparationsStarted, 1);

        ThreadBlocker blocker(fixture.worker);
        QVERIFY(blocker.waitUntilHolding());
        QVERIFY(fixture.request(m_images.at(1), screen));
        QVERIFY(fixture.request(m_images.at(2), screen));

        LogRecorder recorder;
        fixture.worker->clearAllCacheData();
        COMPARE_LOG(recorder, cleaning);
        QVERIFY(restingCache(fixture.worker).isEmpty());
        QCOMPARE(snapshotOf(fixture.worker).generation, 1u);
        QVERIFY(fixture.worker->getCachedImage(m_images.at(0), screen, 1.0, Crop).isNull());

        // The same key asked again after the clearing is a new request.
        const QString path = m_images.at(2);
        recorder.clear();
        QVERIFY(fixture.request(path, screen, 1.0, Stretch));
        QCOMPARE(snapshotOf(fixture.worker).pendingRequests, QSet<QString>{key(path)});
        fixture.worker->clearAllCacheData();
        QVERIFY(fixture.request(path, screen, 1.0, Center));
        const LogEntry queued = debugLine(LogText::queued, key(path));
        COMPARE_LOG(recorder, QList<LogEntry>{queued} + cleaning + QList<LogEntry>{queued});

        recorder.clear();
        blocker.release();
        QVERIFY(fixture.flush());
        QList<LogEntry> expected;
        for (const QString &skipped : {m_images.at(1), path, path}) {
            expected << debugLine(LogText::internalProcessing, skipped) << debugLine(LogText::skippedCleaned, key(skipped));
        }
        COMPARE_LOG(recorder, expected << debugLine(LogText::internalProcessing, path) << sizeLine(1));
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.preparationsStarted, 2);
        QCOMPARE(snapshot.generation, 2u);
        QCOMPARE(restingCache(fixture.worker), QList<QString>{path});
        QCOMPARE(fixture.reports.size(), 2);
        QCOMPARE(fixture.reports.at(1).path, path);
        // Centred on black, not stretched over the whole screen.
        const QImage shown = fixture.worker->getCachedImage(path, screen, 1.0, Center).toImage();
        QCOMPARE(shown.pixel(150, 100), QColor::fromHsv(2 * 30, 200, 220).rgb());
        QCOMPARE(shown.pixel(10, 10), qRgb(0, 0, 0));
    }

    void unreadableFileIsStoredBlackAndReported_data()
    {
        QTest::addColumn<QString>("fileName");
        // Null for a file that does not exist.
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("text named like an image") << QStringLiteral("broken.png") << QByteArray("this is not an image\n");
        QTest::newRow("empty file") << QStringLiteral("empty.jpg") << QByteArray("");
        QTest::newRow("missing file") << QStringLiteral("missing.jpg") << QByteArray();
    }

    // An unreadable file is stored and reported black, with a warning. One deleted
    // since the listing is reported gone, without a black slide or a warning.
    void unreadableFileIsStoredBlackAndReported()
    {
        QFETCH(QString, fileName);
        QFETCH(QByteArray, content);
        const QString path = m_dir.filePath(fileName);
        if (!content.isNull()) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
            QCOMPARE(file.write(content), content.size());
        }

        WorkerFixture fixture;
        LogRecorder recorder;
        QVERIFY(fixture.request(path, screen, 1.5, Crop));
        QVERIFY(fixture.flush());
        if (content.isNull()) {
            QCOMPARE(fixture.gone, QStringList{path});
            QVERIFY(fixture.reports.isEmpty());
            COMPARE_LOG(recorder, preparing(path));
            QVERIFY(restingCache(fixture.worker).isEmpty());
            // Asked directly, it is still an unreadable file.
            recorder.clear();
            QCOMPARE(fixture.worker->cachedImage(path, screen, 1.0, Crop).toImage().pixel(10, 10), qRgb(0, 0, 0));
            COMPARE_LOG(recorder, {warningEntry(TestUtils::loadWarning(path))});
            return;
        }
        QCOMPARE(fixture.reports.size(), 1);
        QVERIFY(fixture.gone.isEmpty());
        const QPixmap pixmap = fixture.reports.at(0).pixmap;
        QCOMPARE(pixmap.size(), screen.size());
        QCOMPARE(pixmap.devicePixelRatio(), 1.5);
        QCOMPARE(pixmap.toImage().pixel(150, 100), qRgb(0, 0, 0));
        QCOMPARE(pixmap.toImage().pixel(0, 0), qRgb(0, 0, 0));
        COMPARE_LOG(recorder, preparing(path) + QList<LogEntry>{warningEntry(TestUtils::loadWarning(path)), sizeLine(1)});
        QCOMPARE(restingCache(fixture.worker), QList<QString>{path});
        QCOMPARE(fixture.worker->getCachedImage(path, screen, 1.5, Crop).cacheKey(), pixmap.cacheKey());
    }

    void nullResultIsReportedButNotStored()
    {
        // The file reads fine, but stretched so wide that Qt 5 refuses the image
        // (over INT_MAX bits a line) it gives a null pixmap. (The scaling tables
        // take about half a gigabyte for a moment.)
        const QRect absurd(0, 0, 70000000, 200);
        const QString path = m_images.at(9);
        WorkerFixture fixture;
        LogRecorder recorder;
        QVERIFY(fixture.requestAll({path}, Stretch, absurd));
        QCOMPARE(fixture.reports.at(0).path, path);
        QVERIFY(fixture.reports.at(0).pixmap.isNull());
        COMPARE_LOG(recorder, preparing(path, absurd) << warningEntry(logText(LogText::nullImage, path)));
        // Nor is the key kept, so the same request would be queued again.
        QVERIFY(restingCache(fixture.worker).isEmpty());
    }

    // Preparations that do not finish (a read hanging in the kernel, a file fed
    // slowly, a JPEG taking a decoder minutes) never hold up the caller; an outdated
    // one is neither stored nor reported. A held read is released after the
    // assertions, or by itself later, so a waiting worker fails the test, not hangs it.
    void clearingReturnsWhileAPreparationHangs()
    {
        const QString pipe = makePipe(QStringLiteral("hanging.png"));
        if (pipe.isEmpty()) {
            QSKIP("named pipes are not available here");
        }
        const QByteArray pipeName = QFile::encodeName(pipe);

        WorkerFixture fixture;
        QVERIFY(fixture.requestAll({m_images.at(0)}));
        const QString next = m_images.at(1);
        LogRecorder recorder;
        QVERIFY(fixture.worker->requestProcessImage(pipe, screen, 1.0, Crop));
        const int writer = holdReaderInRead(pipeName, TestUtils::asyncTimeout);
        QVERIFY(writer >= 0);
        // Released by the test below, or after 20 s by itself.
        PipeReleaser hold(pipeName, 20000, writer, &fixture.thread);

        auto start = std::chrono::steady_clock::now();
        fixture.worker->clearAllCacheData();
        const qint64 clearing = millisecondsSince(start);
        // Returned while the worker is still in its read.
        QVERIFY(!hold.released());
        // The state above is the proof; the bound (far below 20 s) catches a slow return.
        QVERIFY2(clearing < 5000, qPrintable(QString::number(clearing)));
        QVERIFY(restingCache(fixture.worker).isEmpty());

        // A new request is recorded at once and served once the worker is free; a
        // lookup does not wait either.
        start = std::chrono::steady_clock::now();
        QVERIFY(fixture.request(next, screen));
        QVERIFY(fixture.worker->getCachedImage(next, screen, 1.0, Crop).isNull());
        QVERIFY2(millisecondsSince(start) < 5000, qPrintable(QString::number(millisecondsSince(start))));
        QVERIFY(!hold.released());
        QCOMPARE(snapshotOf(fixture.worker).pendingRequests, QSet<QString>{key(next)});
        QCOMPARE(fixture.reports.size(), 1);

        hold.release();
        QVERIFY(fixture.flush());
        // Only the new request was reported and stored; the old one just logs its drop.
        QCOMPARE(fixture.reports.size(), 2);
        QCOMPARE(fixture.reports.at(1).path, next);
        QCOMPARE(restingCache(fixture.worker), QList<QString>{next});
        COMPARE_LOG(recorder,
                    preparing(pipe) + cleaning << debugLine(LogText::queued, key(next)) << debugLine(LogText::droppedCleaned, pipe)
                                               << debugLine(LogText::internalProcessing, next) << sizeLine(1));
    }

    void outdatedPreparationStopsReadingSoon()
    {
        const QString pipe = makePipe(QStringLiteral("slow.png"));
        if (pipe.isEmpty()) {
            QSKIP("named pipes are not available here");
        }
        // A noisy picture fed in 100 pieces, one every 100 ms: 10 s in all.
        const QByteArray png = noisyPng(QSize(400, 300));
        QVERIFY(png.size() > 100000);

        WorkerFixture fixture;
        LogRecorder recorder;
        QVERIFY(fixture.worker->requestProcessImage(pipe, screen, 1.0, Crop));
        SlowFeeder feeder(QFile::encodeName(pipe), png, 100, 100);
        // Once the worker reads (the feeder writes only to a pipe a reader holds
        // open), a clearing makes its work outdated.
        QTRY_VERIFY_WITH_TIMEOUT(feeder.started(), TestUtils::asyncTimeout);
        const qint64 clearedAt = millisecondsSince(feeder.startTime());
        fixture.worker->clearAllCacheData();

        QTRY_VERIFY_WITH_TIMEOUT(feeder.readerLeft(), TestUtils::asyncTimeout);
        const qint64 afterClearing = feeder.readerLeftAt() - clearedAt;
        // The reader left within a second or so of the clearing (wide margin for load).
        QVERIFY2(afterClearing < 5000, qPrintable(QString::number(afterClearing)));
        QVERIFY(fixture.flush());
        QVERIFY(fixture.reports.isEmpty());
        QVERIFY(snapshotOf(fixture.worker).cachedPaths.isEmpty());
        QCOMPARE(recorder.count(logText(LogText::droppedCleaned, pipe)), 1);
        QVERIFY(recorder.texts(QtWarningMsg).isEmpty());
    }

    void slowJpegEndsByTheTimeBudget()
    {
        // 100,000 scans over a 4096 x 4096 picture: minutes for a decoder.
        const QString path = TestUtils::writeManyScanJpeg(m_dir.path(), QStringLiteral("many-scans.jpg"), 4096, 100000);
        QVERIFY(!path.isEmpty());

        WorkerFixture fixture;
        LogRecorder recorder;
        const auto start = std::chrono::steady_clock::now();
        QVERIFY(fixture.request(path, screen));
        QTRY_VERIFY_WITH_TIMEOUT(!fixture.reports.isEmpty(), 120000);
        const qint64 elapsed = millisecondsSince(start);
        // The budget is 10 s of the worker's processor time, at least as long on the
        // clock; the decoder then finishes the truncated input quickly. The bound
        // leaves room for load; a full decode takes over two minutes.
        QVERIFY2(elapsed >= ImageCacheWorker::preparationBudget - 100, qPrintable(QString::number(elapsed)));
        QVERIFY2(elapsed < 60000, qPrintable(QString::number(elapsed)));

        // An unreadable file: a black slide with the load warning, not half a picture.
        const Report &report = fixture.reports.at(0);
        QCOMPARE(report.path, path);
        QCOMPARE(report.pixmap.size(), screen.size());
        const QImage shown = report.pixmap.toImage();
        QCOMPARE(shown.pixel(10, 10), qRgb(0, 0, 0));
        QCOMPARE(shown.pixel(150, 100), qRgb(0, 0, 0));
        QCOMPARE(recorder.texts(QtWarningMsg),
                 (QStringList{logText(LogText::givenUp,
                                      ImageCacheWorker::preparationBudget,
                                      LogText::givenUpBudget,
                                      ImageCacheWorker::preparationTimeLimit,
                                      LogText::givenUpLimit,
                                      path),
                              TestUtils::loadWarning(path)}));
    }

    void concurrentUseKeepsTheCacheConsistent()
    {
        // Scaled for the sanitizer builds: a few seconds there.
        const int pathCount = 30;
        const int operations = 8000;
        const int clearEvery = 400;
        const int eventsEvery = 40;
        // Like a show: requests and lookups go to a few paths around a moving
        // position, mostly at the current size.
        const int window = 8;
        const int stepEvery = 60;
        const QList<QRect> geometries = {QRect(0, 0, 200, 150), QRect(10, 10, 160, 140), QRect(0, 0, 240, 135)};
        const QList<QSize> sizes = {geometries.at(0).size(), geometries.at(1).size(), geometries.at(2).size()};

        QStringList paths;
        for (int i = 0; i < pathCount; ++i) {
            const QString name = QStringLiteral("stress-%1.png").arg(i, 2, 10, QLatin1Char('0'));
            paths.append(TestUtils::writeSolidImage(m_dir.path(), name, QSize(40, 30), QColor::fromHsv((i * 12) % 360, 255, 255)));
        }

        // Debug off: thousands of lines would only slow the run. No warning is expected.
        TestUtils::setSlideShowDebugEnabled(false);
        LogRecorder recorder;
        WorkerFixture fixture;
        ImageCacheWorker *worker = fixture.worker;

        // With the worker idle: within the bound, each entry in both containers.
        auto consistent = [worker] {
            const QList<QString> cache = restingCache(worker);
            return cache != notAtRest && cache.size() <= ImageCacheWorker::maxCacheSize;
        };

        QRandomGenerator random(20260101);
        int accepted = 0;
        int acceptedSinceClearing = 0;
        int clearings = 0;
        int position = 0;
        int currentGeometry = 0;
        for (int i = 1; i <= operations; ++i) {
            if (i % stepEvery == 0) {
                position = (position + 1) % pathCount;
                // Every other step the worker catches up first, so lookups and
                // requests find finished images too. Only then are the containers
                // inspected: a snapshot shares their data, a race while they change.
                if ((i / stepEvery) % 2 == 0) {
                    QVERIFY(fixture.flush());
                    QVERIFY(consistent());
                }
            }
            const QString &path = paths.at((position + random.bounded(window)) % pathCount);
            const QRect &geometry = geometries.at(random.bounded(10) == 0 ? random.bounded(geometries.size()) : currentGeometry);
            if (random.bounded(100) < 65) {
                if (fixture.request(path, geometry, 1.0, random.bounded(4))) {
                    ++accepted;
                    ++acceptedSinceClearing;
                }
            } else {
                const QPixmap found = worker->getCachedImage(path, geometry, 1.0, Crop);
                QVERIFY(found.isNull() || found.size() == geometry.size());
            }
            if (i % clearEvery == 0) {
                currentGeometry = (currentGeometry + 1) % geometries.size();
                worker->clearAllCacheData();
                ++clearings;
                acceptedSinceClearing = 0;
                QVERIFY(restingCache(worker).isEmpty());
                QCOMPARE(snapshotOf(worker).generation, quint64(clearings));
            }
            if (i % eventsEvery == 0) {
                QCoreApplication::processEvents();
            }
        }

        // Everything queued has run once the marker posted last has.
        QVERIFY(fixture.flush());
        QVERIFY(consistent());
        for (const QString &path : restingCache(worker)) {
            // Stored at one size only.
            const auto stored = std::count_if(geometries.cbegin(), geometries.cend(), [&](const QRect &geometry) {
                return !worker->getCachedImage(path, geometry, 1.0, Crop).isNull();
            });
            QVERIFY2(stored == 1, qPrintable(path));
        }

        // Each queued request was reported at most once, from the worker's thread;
        // all made since the last clearing were (older ones may be dropped). The
        // others were answered during the call.
        int queuedReports = 0;
        for (const Report &report : qAsConst(fixture.reports)) {
            QVERIFY(paths.contains(report.path));
            QVERIFY(!report.pixmap.isNull());
            QVERIFY(sizes.contains(report.pixmap.size()));
            if (!report.duringRequest) {
                ++queuedReports;
            }
        }
        QVERIFY2(queuedReports <= accepted && queuedReports >= acceptedSinceClearing,
                 qPrintable(QStringLiteral("%1 reports, %2 requests, %3 since the last clearing").arg(queuedReports).arg(accepted).arg(acceptedSinceClearing)));
        QVERIFY(accepted > 0);
        QVERIFY2(recorder.texts(QtWarningMsg).isEmpty(), qPrintable(recorder.texts(QtWarningMsg).join(QLatin1Char('\n'))));
    }
};

QTEST_MAIN(ImageCacheWorkerTest)

#include "imagecacheworkertest.moc"
