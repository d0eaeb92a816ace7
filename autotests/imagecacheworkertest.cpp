/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The tests of ImageCacheWorker, on its own thread as the slide label runs it.

#include "imagecache/imagecacheworker.h"
#include "imagecache/imagecacheworker_p.h"
#include "pipetesthelpers.h"
#include "testutils.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QPixmap>
#include <QPointer>
#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <memory>
#include <optional>

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
QStringList sorted(QStringList list)
{
    std::sort(list.begin(), list.end());
    return list;
}

const QRect screen(0, 0, 300, 200);

// The warning of a preparation given up over its time budget, streamed with
// the budget and the limit on the clock. It belongs in LogText with the others.
constexpr char givenUp[] = "ImageCacheWorker: Reading and decoding took more than";
constexpr char givenUpBudget[] = "ms of processor time or";
constexpr char givenUpLimit[] = "ms in all, the image is given up:";

// What imageCached delivered to a receiver in the GUI thread, connected with
// the automatic type as the slide label connects it.
struct Report {
    QString path;
    QPixmap pixmap;
    QThread *thread = nullptr;
    bool duringRequest = false;
};

// Only the GUI thread touches these: queued reports arrive there, and direct
// ones are made there.
struct Receiver : QObject {
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
        : worker(new ImageCacheWorker(nullptr))
    {
        worker->moveToThread(&thread);
        QObject::connect(&thread, &QThread::finished, worker, &QObject::deleteLater);
        QObject::connect(worker, &ImageCacheWorker::imageCached, &receiver, [this](const QString &path, const QPixmap &pixmap) {
            receiver.reports.append(Report{path, pixmap, QThread::currentThread(), receiver.requestRunning});
        });
        QObject::connect(worker, &ImageCacheWorker::imageGone, &receiver, [this](const QString &path) {
            receiver.gone.append(path);
        });
        // Without a context object: called directly, in the emitting thread.
        // Connected before the thread starts, so that the thread sees these
        // connections complete.
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
        // QThread::wait() may return through Qt's own locks, which
        // ThreadSanitizer does not see; reading what the worker's thread
        // stored last, as the worker was destroyed, shows it that the thread
        // is done with this object.
        destroyedIn.load();
    }

    // requestProcessImage, with the receiver told that a request is running.
    bool request(const QString &path, const QRect &geometry, double ratio = 1.0, int position = Crop)
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
            TestUtils::asyncTimeout);
    }

    // Returns once everything queued to the worker so far has run and its
    // queued reports have reached this thread: the marker that the worker's
    // thread posts last is delivered after them.
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
    Receiver receiver;
    // The thread of the last imageCached emission, and the thread in which
    // the worker was destroyed.
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

    // A request is keyed by the path and the size, without the position. An
    // invalid geometry is refused everywhere: a lookup finds nothing and
    // warns; a synchronous preparation warns and gives a canvas that is not
    // a prepared one (the ratio is not applied) and is stored nowhere; a
    // request is not queued.
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
                                     debugEntry(logText(LogText::invalidRequest, geometry))}));
        QVERIFY(fixture.receiver.reports.isEmpty());
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QVERIFY(snapshot.cachedPaths.isEmpty());
    }

    void requestIsPreparedInTheWorkerThread()
    {
        WorkerFixture fixture;
        // Fresh, the worker is idle, has no parent and keeps ten entries.
        WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.cacheOrder.isEmpty());
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QCOMPARE(snapshot.generation, 0u);
        QCOMPARE(snapshot.capacity, 10);
        QCOMPARE(snapshot.preparationsStarted, 0);
        QVERIFY(!fixture.worker->parent());

        LogRecorder recorder;
        const QString path = m_images.at(0);
        QVERIFY(fixture.request(path, screen, 1.0, Crop));
        // Queued: nothing can have reached this thread before it runs its event loop.
        QVERIFY(fixture.receiver.reports.isEmpty());
        QVERIFY(fixture.waitForReports(1));

        QCOMPARE(fixture.emittingThread.load(), &fixture.thread);
        const Report report = fixture.receiver.reports.at(0);
        QCOMPARE(report.path, path);
        QCOMPARE(report.thread, QThread::currentThread());
        QVERIFY(!report.duringRequest);
        QCOMPARE(report.pixmap.size(), screen.size());
        // Crop covers the whole canvas with the image's colour.
        QCOMPARE(report.pixmap.toImage().pixel(150, 100), QColor::fromHsv(0, 200, 220).rgb());

        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::queued, key(path))),
                                     debugEntry(logText(LogText::internalProcessing, path)),
                                     debugEntry(logText(LogText::cacheSize, 1, LogText::cacheOrderSize, 1))}));
        snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cachedPaths, QStringList{path});
        QCOMPARE(snapshot.cacheOrder, QList<QString>{path});
        QVERIFY(snapshot.pendingRequests.isEmpty());
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

    // A request is keyed by path and size: the same key is queued once,
    // wherever it is asked for, while another size is another piece of work.
    void requestIsQueuedOncePerKey()
    {
        WorkerFixture fixture;
        ThreadBlocker blocker(fixture.worker);
        QVERIFY(blocker.waitUntilHolding());

        LogRecorder recorder;
        const QString path = m_images.at(2);
        const QRect large(0, 0, 1920, 1080);
        QVERIFY(fixture.request(path, screen, 1.0, Stretch));
        QVERIFY(!fixture.request(path, QRect(40, 30, 300, 200), 1.0, Stretch));
        QVERIFY(fixture.request(path, large, 1.0, Stretch));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::queued, key(path))),
                                     debugEntry(logText(LogText::alreadyWaiting, key(path))),
                                     debugEntry(logText(LogText::queued, key(path, large)))}));
        QCOMPARE(snapshotOf(fixture.worker).pendingRequests, (QSet<QString>{key(path), key(path, large)}));

        recorder.clear();
        blocker.release();
        QVERIFY(fixture.waitForReports(2));
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.reports.size(), 2);
        QCOMPARE(fixture.receiver.reports.at(0).path, path);
        QCOMPARE(fixture.receiver.reports.at(0).pixmap.size(), screen.size());
        QCOMPARE(fixture.receiver.reports.at(1).pixmap.size(), large.size());
        const LogEntry internal = debugEntry(logText(LogText::internalProcessing, path));
        const LogEntry size = debugEntry(logText(LogText::cacheSize, 1, LogText::cacheOrderSize, 1));
        COMPARE_LOG(recorder, (QList<LogEntry>{internal, size, internal, size}));

        // The cache is keyed by path: the second size replaced the first.
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cachedPaths, QStringList{path});
        QCOMPARE(snapshot.cacheOrder, QList<QString>{path});
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QVERIFY(fixture.worker->getCachedImage(path, screen, 1.0, Stretch).isNull());
        QCOMPARE(fixture.worker->getCachedImage(path, large, 1.0, Stretch).cacheKey(), fixture.receiver.reports.at(1).pixmap.cacheKey());
    }

    // An entry is found by its path and size alone: a Center one serves a
    // Crop lookup at another place and ratio. A lookup of another size or of
    // an unknown path finds nothing without a word, and no lookup changes the
    // entry's age. A request or a synchronous preparation of a cached image
    // is answered from the cache at once and makes the entry the youngest.
    void cachedImageIsFoundByPathAndSize()
    {
        WorkerFixture fixture;
        const QString first = m_images.at(4);
        const QString second = m_images.at(5);
        QVERIFY(fixture.request(first, screen, 1.0, Center));
        QVERIFY(fixture.request(second, screen, 1.0, Center));
        QVERIFY(fixture.waitForReports(2));
        const QPixmap firstPixmap = fixture.receiver.reports.at(0).pixmap;

        LogRecorder recorder;
        QVERIFY(fixture.worker->getCachedImage(first, QRect(0, 0, 1280, 720), 1.0, Center).isNull());
        QVERIFY(fixture.worker->getCachedImage(m_images.at(0), screen, 1.0, Center).isNull());
        QVERIFY(recorder.slideShowEntries().isEmpty());
        QCOMPARE(snapshotOf(fixture.worker).cachedPaths, sorted({first, second}));

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
        QCOMPARE(fixture.receiver.reports.size(), 3);
        const Report report = fixture.receiver.reports.at(2);
        QVERIFY(report.duringRequest);
        QCOMPARE(report.thread, QThread::currentThread());
        QCOMPARE(fixture.emittingThread.load(), QThread::currentThread());
        QCOMPARE(report.path, first);
        QCOMPARE(report.pixmap.cacheKey(), firstPixmap.cacheKey());
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{second, first}));

        // Returned, not reported.
        const QPixmap pixmap = fixture.worker->processImageSynchronously(second, QRect(50, 50, 300, 200), 1.0, Crop);
        QCOMPARE(pixmap.cacheKey(), fixture.receiver.reports.at(1).pixmap.cacheKey());
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{first, second}));

        // Nothing was queued.
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.reports.size(), 3);
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::lookup, first, elsewhere, 1.5, int(Crop))),
                                     debugEntry(logText(LogText::alreadyCached, first)),
                                     debugEntry(logText(LogText::synchronousLookup, second))}));
        QVERIFY(snapshotOf(fixture.worker).pendingRequests.isEmpty());
    }

    // Ten entries at most: the worker makes room before it prepares a new
    // image. A synchronous preparation stores beyond the bound, and the next
    // image the worker stores restores it.
    void eleventhStoredPathEvictsTheFirst()
    {
        WorkerFixture fixture;
        for (int i = 0; i < 10; ++i) {
            QVERIFY(fixture.request(m_images.at(i), screen));
        }
        QVERIFY(fixture.waitForReports(10));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, m_images.mid(0, 10));

        LogRecorder recorder;
        const QString eleventh = m_images.at(10);
        QVERIFY(fixture.request(eleventh, screen));
        QVERIFY(fixture.waitForReports(11));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::queued, key(eleventh))),
                                     debugEntry(logText(LogText::internalProcessing, eleventh)),
                                     // Before the preparation, not after: nine are left then.
                                     debugEntry(logText(LogText::eviction, m_images.at(0), LogText::evictionNewSize, 9)),
                                     debugEntry(logText(LogText::cacheSize, 10, LogText::cacheOrderSize, 10))}));
        QList<QString> order = m_images.mid(1, 10);
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cacheOrder, order);
        QCOMPARE(snapshot.cachedPaths, sorted(order));
        QVERIFY(fixture.worker->getCachedImage(m_images.at(0), screen, 1.0, Crop).isNull());
        QVERIFY(!fixture.worker->getCachedImage(m_images.at(1), screen, 1.0, Crop).isNull());

        // Stored again (at another size, so that it is prepared anew rather
        // than answered from the cache): moved to the end, nothing evicted.
        const QString again = m_images.at(3);
        const QRect other(0, 0, 256, 192);
        recorder.clear();
        QVERIFY(fixture.request(again, other));
        QVERIFY(fixture.waitForReports(12));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::queued, key(again, other))),
                                     debugEntry(logText(LogText::internalProcessing, again)),
                                     debugEntry(logText(LogText::cacheSize, 10, LogText::cacheOrderSize, 10))}));
        order.removeOne(again);
        order.append(again);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, order);
        QCOMPARE(fixture.worker->getCachedImage(again, other, 1.0, Crop).size(), other.size());

        recorder.clear();
        const QString evicted = m_images.at(0);
        const QPixmap pixmap = fixture.worker->processImageSynchronously(evicted, screen, 1.0, Crop);
        QCOMPARE(pixmap.size(), screen.size());
        QCOMPARE(pixmap.toImage().pixel(150, 100), QColor::fromHsv(0, 200, 220).rgb());
        COMPARE_LOG(recorder, {debugEntry(logText(LogText::synchronous, evicted))});
        order.append(evicted);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, order);
        QCOMPARE(fixture.worker->getCachedImage(evicted, screen, 1.0, Crop).cacheKey(), pixmap.cacheKey());
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.reports.size(), 12);

        recorder.clear();
        const QString twelfth = m_images.at(11);
        QVERIFY(fixture.request(twelfth, screen));
        QVERIFY(fixture.waitForReports(13));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::queued, key(twelfth))),
                                     debugEntry(logText(LogText::internalProcessing, twelfth)),
                                     // Eleven entries, and room made for one
                                     // more before the preparation: nine.
                                     debugEntry(logText(LogText::eviction, order.at(0), LogText::evictionNewSize, 10)),
                                     debugEntry(logText(LogText::eviction, order.at(1), LogText::evictionNewSize, 9)),
                                     debugEntry(logText(LogText::cacheSize, 10, LogText::cacheOrderSize, 10))}));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, order.mid(2) << twelfth);
    }

    // A lower capacity evicts the oldest entries at once, and a new image
    // makes room before its preparation. The slides the show needs stay,
    // though older than an entry it no longer wants: a new look-ahead
    // displaces the stale entry, not the slide a fade is leaving.
    void evictionSparesTheWantedSlides()
    {
        WorkerFixture fixture;
        for (int i = 0; i < 5; ++i) {
            QVERIFY(fixture.request(m_images.at(i), screen));
        }
        QVERIFY(fixture.waitForReports(5));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, m_images.mid(0, 5));

        LogRecorder recorder;
        fixture.worker->setCacheCapacity(3);
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::eviction, m_images.at(0), LogText::evictionNewSize, 4)),
                                     debugEntry(logText(LogText::eviction, m_images.at(1), LogText::evictionNewSize, 3))}));
        QCOMPARE(snapshotOf(fixture.worker).capacity, 3);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, m_images.mid(2, 3));

        // Without wishes the next image evicts the oldest of the three.
        recorder.clear();
        QVERIFY(fixture.request(m_images.at(5), screen));
        QVERIFY(fixture.waitForReports(6));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::queued, key(m_images.at(5)))),
                                     debugEntry(logText(LogText::internalProcessing, m_images.at(5))),
                                     // Room is made before the preparation
                                     // starts: two are left then.
                                     debugEntry(logText(LogText::eviction, m_images.at(2), LogText::evictionNewSize, 2)),
                                     debugEntry(logText(LogText::cacheSize, 3, LogText::cacheOrderSize, 3))}));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, m_images.mid(3, 3));

        const QString previous = m_images.at(3);
        const QString current = m_images.at(4);
        const QString stale = m_images.at(5);
        const QString next = m_images.at(6);
        fixture.worker->setWantedImages({current, next, previous});
        recorder.clear();
        QVERIFY(fixture.request(next, screen));
        QVERIFY(fixture.waitForReports(7));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::queued, key(next))),
                                     debugEntry(logText(LogText::internalProcessing, next)),
                                     debugEntry(logText(LogText::eviction, stale, LogText::evictionNewSize, 2)),
                                     debugEntry(logText(LogText::cacheSize, 3, LogText::cacheOrderSize, 3))}));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{previous, current, next}));

        // A request for a slide the show has passed is skipped unprepared.
        recorder.clear();
        QVERIFY(fixture.request(stale, screen));
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.reports.size(), 7);
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::queued, key(stale))),
                                     debugEntry(logText(LogText::internalProcessing, stale)),
                                     debugEntry(logText(LogText::skippedPassed, key(stale)))}));

        // An image nobody wants, while every entry is wanted, does not take
        // a wanted slide's place.
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

    // Like setProperty: a new directory (a clearing and a request), then a
    // new mode (a clearing and the same request again), all while requests
    // wait behind a call that holds the worker's thread. The clearings
    // return at once; the outdated requests are skipped without a decode or
    // a report, and only the one made in the new mode is prepared.
    void clearingSkipsQueuedRequestsWithoutDecodingThem()
    {
        WorkerFixture fixture;
        QVERIFY(fixture.request(m_images.at(0), screen));
        QVERIFY(fixture.waitForReports(1));
        QCOMPARE(snapshotOf(fixture.worker).preparationsStarted, 1);

        ThreadBlocker blocker(fixture.worker);
        QVERIFY(blocker.waitUntilHolding());
        QVERIFY(fixture.request(m_images.at(1), screen));
        QVERIFY(fixture.request(m_images.at(2), screen));

        LogRecorder recorder;
        const LogEntry cleaningStarted = debugEntry(QLatin1String(LogText::cleaningStarted));
        const LogEntry cleaningDone = debugEntry(QLatin1String(LogText::cleaningDone));
        fixture.worker->clearAllCacheData();
        COMPARE_LOG(recorder, (QList<LogEntry>{cleaningStarted, cleaningDone}));
        WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.cacheOrder.isEmpty());
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QCOMPARE(snapshot.generation, 1u);
        QVERIFY(fixture.worker->getCachedImage(m_images.at(0), screen, 1.0, Crop).isNull());

        // The same key asked again after the clearing is a new request.
        const QString path = m_images.at(2);
        recorder.clear();
        QVERIFY(fixture.request(path, screen, 1.0, Stretch));
        QCOMPARE(snapshotOf(fixture.worker).pendingRequests, QSet<QString>{key(path)});
        fixture.worker->clearAllCacheData();
        QVERIFY(fixture.request(path, screen, 1.0, Center));
        const LogEntry queued = debugEntry(logText(LogText::queued, key(path)));
        COMPARE_LOG(recorder, (QList<LogEntry>{queued, cleaningStarted, cleaningDone, queued}));

        recorder.clear();
        blocker.release();
        QVERIFY(fixture.waitForReports(2));
        QVERIFY(fixture.flush());
        const LogEntry otherInternal = debugEntry(logText(LogText::internalProcessing, m_images.at(1)));
        const LogEntry otherSkipped = debugEntry(logText(LogText::skippedCleaned, key(m_images.at(1))));
        const LogEntry internal = debugEntry(logText(LogText::internalProcessing, path));
        const LogEntry skipped = debugEntry(logText(LogText::skippedCleaned, key(path)));
        const LogEntry size = debugEntry(logText(LogText::cacheSize, 1, LogText::cacheOrderSize, 1));
        COMPARE_LOG(recorder, (QList<LogEntry>{otherInternal, otherSkipped, internal, skipped, internal, skipped, internal, size}));
        snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.preparationsStarted, 2);
        QCOMPARE(snapshot.generation, 2u);
        QCOMPARE(snapshot.cachedPaths, QStringList{path});
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QCOMPARE(fixture.receiver.reports.size(), 2);
        QCOMPARE(fixture.receiver.reports.at(1).path, path);
        // Centred on black, not stretched over the whole screen.
        const QImage shown = fixture.worker->getCachedImage(path, screen, 1.0, Center).toImage();
        QCOMPARE(shown.pixel(150, 100), QColor::fromHsv(2 * 30, 200, 220).rgb());
        QCOMPARE(shown.pixel(10, 10), qRgb(0, 0, 0));
    }

    void processingSkipsAnImageCachedMeanwhile()
    {
        WorkerFixture fixture;
        ThreadBlocker blocker(fixture.worker);
        QVERIFY(blocker.waitUntilHolding());

        const QString path = m_images.at(7);
        const QString other = m_images.at(8);
        QVERIFY(fixture.request(path, screen));
        const QPixmap prepared = fixture.worker->processImageSynchronously(path, screen, 1.0, Crop);
        QVERIFY(!prepared.isNull());
        QVERIFY(!fixture.worker->processImageSynchronously(other, screen, 1.0, Crop).isNull());
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{path, other}));

        LogRecorder recorder;
        blocker.release();
        QVERIFY(fixture.waitForReports(1));
        const Report report = fixture.receiver.reports.at(0);
        QCOMPARE(report.path, path);
        QCOMPARE(report.pixmap.cacheKey(), prepared.cacheKey());
        COMPARE_LOG(recorder, (QList<LogEntry>{debugEntry(logText(LogText::internalProcessing, path)), debugEntry(logText(LogText::fromOtherPath, path))}));
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cacheOrder, (QList<QString>{other, path}));
        QVERIFY(snapshot.pendingRequests.isEmpty());
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

    // An unreadable file is stored and reported black, with a warning. One
    // deleted since the folder was listed is no unreadable image: the worker
    // says it is gone, without a black slide or a warning.
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
        const QList<LogEntry> prepared{debugEntry(logText(LogText::queued, key(path))), debugEntry(logText(LogText::internalProcessing, path))};
        if (content.isNull()) {
            QCOMPARE(fixture.receiver.gone, QStringList{path});
            QVERIFY(fixture.receiver.reports.isEmpty());
            COMPARE_LOG(recorder, prepared);
            QVERIFY(snapshotOf(fixture.worker).cachedPaths.isEmpty());
            QVERIFY(snapshotOf(fixture.worker).pendingRequests.isEmpty());
            // Asked directly, it is still an unreadable file.
            recorder.clear();
            QCOMPARE(fixture.worker->cachedImage(path, screen, 1.0, Crop).toImage().pixel(10, 10), qRgb(0, 0, 0));
            COMPARE_LOG(recorder, {warningEntry(TestUtils::loadWarning(path))});
            return;
        }
        QCOMPARE(fixture.receiver.reports.size(), 1);
        QVERIFY(fixture.receiver.gone.isEmpty());
        const QPixmap pixmap = fixture.receiver.reports.at(0).pixmap;
        QCOMPARE(pixmap.size(), screen.size());
        QCOMPARE(pixmap.devicePixelRatio(), 1.5);
        QCOMPARE(pixmap.toImage().pixel(150, 100), qRgb(0, 0, 0));
        QCOMPARE(pixmap.toImage().pixel(0, 0), qRgb(0, 0, 0));
        COMPARE_LOG(recorder,
                    prepared
                        + QList<LogEntry>{warningEntry(TestUtils::loadWarning(path)), debugEntry(logText(LogText::cacheSize, 1, LogText::cacheOrderSize, 1))});
        QCOMPARE(snapshotOf(fixture.worker).cachedPaths, QStringList{path});
        QCOMPARE(fixture.worker->getCachedImage(path, screen, 1.5, Crop).cacheKey(), pixmap.cacheKey());
    }

    void nullResultIsReportedButNotStored()
    {
        // The file reads fine, but stretching it to a geometry so wide that
        // Qt 5 refuses the image (more than INT_MAX bits per line) gives a
        // null pixmap. (Stretching allocates its scaling tables first, about
        // half a gigabyte for this width, for a moment.)
        const QRect absurd(0, 0, 70000000, 200);
        const QString path = m_images.at(9);
        WorkerFixture fixture;
        LogRecorder recorder;
        QVERIFY(fixture.request(path, absurd, 1.0, Stretch));
        QVERIFY(fixture.waitForReports(1));
        const Report report = fixture.receiver.reports.at(0);
        QCOMPARE(report.path, path);
        QVERIFY(report.pixmap.isNull());
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::queued, key(path, absurd))),
                                     debugEntry(logText(LogText::internalProcessing, path)),
                                     warningEntry(logText(LogText::nullImage, path))}));
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.cacheOrder.isEmpty());
        // The key is gone, so the same request would be queued again.
        QVERIFY(snapshot.pendingRequests.isEmpty());
    }

    // Preparations that do not finish: a read that hangs inside the kernel (a
    // named pipe with a writer but no data), a file delivered slowly, and a
    // JPEG that would take a decoder minutes. The caller never waits for them:
    // a clearing returns while the worker is still held, the old preparation is
    // neither stored nor reported, and the reading of an unwanted or too slow
    // image ends early. The tests hold the worker in a read that they release
    // only after their assertions (or on their own after a while, so that a
    // worker that does wait makes the test fail instead of hang).
    void clearingReturnsWhileAPreparationHangs()
    {
        const QString pipe = makePipe(QStringLiteral("hanging.png"));
        if (pipe.isEmpty()) {
            QSKIP("named pipes are not available here");
        }
        const QByteArray pipeName = QFile::encodeName(pipe);

        WorkerFixture fixture;
        ImageCacheWorker *worker = fixture.worker;
        QVERIFY(fixture.request(m_images.at(0), screen));
        QVERIFY(fixture.waitForReports(1));
        // Ended before the closing qInfo, which it would record unseen.
        std::optional<LogRecorder> recorder(std::in_place);

        QVERIFY(worker->requestProcessImage(pipe, screen, 1.0, Crop));
        const int writer = holdReaderInRead(pipeName, TestUtils::asyncTimeout);
        QVERIFY(writer >= 0);
        // Released by the test below, or after 20 s by itself.
        PipeReleaser hold(pipeName, 20000, writer, &fixture.thread);

        QElapsedTimer timer;
        timer.start();
        worker->clearAllCacheData();
        const qint64 clearing = timer.elapsed();
        // Returned while the worker is still in its read.
        QVERIFY(!hold.released());
        // The state above is the proof; the bound, far below the hold's 20 s,
        // only keeps a slow return from passing unseen.
        QVERIFY2(clearing < 5000, qPrintable(QString::number(clearing)));
        WorkerSnapshot snapshot = snapshotOf(worker);
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.cacheOrder.isEmpty());
        QVERIFY(snapshot.pendingRequests.isEmpty());

        // A new request is recorded at once, and served once the worker is
        // free; a lookup does not wait either.
        timer.restart();
        QVERIFY(fixture.request(m_images.at(1), screen));
        QVERIFY(worker->getCachedImage(m_images.at(1), screen, 1.0, Crop).isNull());
        QVERIFY2(timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed())));
        QVERIFY(!hold.released());
        QCOMPARE(snapshotOf(worker).pendingRequests, QSet<QString>{key(m_images.at(1))});
        QCOMPARE(fixture.receiver.reports.size(), 1);

        hold.release();
        QVERIFY(fixture.waitForReports(2));
        QVERIFY(fixture.flush());
        // Only the new request was reported and stored; the old preparation
        // ended without a word but the line that drops it.
        QCOMPARE(fixture.receiver.reports.size(), 2);
        QCOMPARE(fixture.receiver.reports.at(1).path, m_images.at(1));
        snapshot = snapshotOf(worker);
        QCOMPARE(snapshot.cachedPaths, QStringList{m_images.at(1)});
        QVERIFY(snapshot.pendingRequests.isEmpty());
        COMPARE_LOG(*recorder,
                    (QList<LogEntry>{debugEntry(logText(LogText::queued, key(pipe))),
                                     debugEntry(logText(LogText::internalProcessing, pipe)),
                                     debugEntry(QLatin1String(LogText::cleaningStarted)),
                                     debugEntry(QLatin1String(LogText::cleaningDone)),
                                     debugEntry(logText(LogText::queued, key(m_images.at(1)))),
                                     debugEntry(logText(LogText::droppedCleaned, pipe)),
                                     debugEntry(logText(LogText::internalProcessing, m_images.at(1))),
                                     debugEntry(logText(LogText::cacheSize, 1, LogText::cacheOrderSize, 1))}));
        recorder.reset();
        qInfo("the clearing returned after %lld ms while the worker hung", clearing);
    }

    void outdatedPreparationStopsReadingSoon()
    {
        const QString pipe = makePipe(QStringLiteral("slow.png"));
        if (pipe.isEmpty()) {
            QSKIP("named pipes are not available here");
        }
        // A noisy picture whose file would take 10 s to arrive: 100 pieces,
        // one every 100 ms.
        const QByteArray png = noisyPng(QSize(400, 300));
        QVERIFY(png.size() > 100000);

        WorkerFixture fixture;
        std::optional<LogRecorder> recorder(std::in_place);
        QVERIFY(fixture.worker->requestProcessImage(pipe, screen, 1.0, Crop));
        SlowFeeder feeder(QFile::encodeName(pipe), png, 100, 100);
        // Once the worker is reading, a clearing makes its work outdated.
        QTRY_VERIFY_WITH_TIMEOUT(feeder.started(), TestUtils::asyncTimeout);
        QTest::qWait(300);
        const qint64 clearedAt = millisecondsSince(feeder.startTime());
        fixture.worker->clearAllCacheData();

        QTRY_VERIFY_WITH_TIMEOUT(feeder.readerLeft(), TestUtils::asyncTimeout);
        const qint64 afterClearing = feeder.readerLeftAt() - clearedAt;
        // The file would have taken 10 s; the reader left within a second or
        // so of the clearing (a wide margin for loaded machines).
        QVERIFY2(afterClearing < 5000, qPrintable(QString::number(afterClearing)));
        QVERIFY(fixture.flush());
        QVERIFY(fixture.receiver.reports.isEmpty());
        QVERIFY(snapshotOf(fixture.worker).cachedPaths.isEmpty());
        QCOMPARE(recorder->count(logText(LogText::droppedCleaned, pipe)), 1);
        QVERIFY(recorder->texts(QtWarningMsg).isEmpty());
        recorder.reset();
        qInfo("the reader left %lld ms after the clearing, %lld ms into a delivery of 10000 ms", afterClearing, feeder.readerLeftAt());
    }

    void slowJpegEndsByTheTimeBudget()
    {
        // 100,000 scans over a 4096 x 4096 picture: minutes for a decoder.
        const QString path = TestUtils::writeManyScanJpeg(m_dir.path(), QStringLiteral("many-scans.jpg"), 4096, 100000);
        QVERIFY(!path.isEmpty());

        WorkerFixture fixture;
        std::optional<LogRecorder> recorder(std::in_place);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(fixture.request(path, screen));
        QTRY_VERIFY_WITH_TIMEOUT(!fixture.receiver.reports.isEmpty(), 120000);
        const qint64 elapsed = timer.elapsed();
        // The budget is 10 s of the worker's processor time, so at least as
        // long on the clock; what follows it (the decoder finishing on the
        // truncated input) is short. The bound leaves room for a loaded
        // machine; a full decode takes over two minutes.
        QVERIFY2(elapsed >= ImageCacheWorker::preparationBudget - 100, qPrintable(QString::number(elapsed)));
        QVERIFY2(elapsed < 60000, qPrintable(QString::number(elapsed)));

        // An unreadable file: a black slide with the load warning, never the
        // half-decoded picture.
        const Report &report = fixture.receiver.reports.at(0);
        QCOMPARE(report.path, path);
        QCOMPARE(report.pixmap.size(), screen.size());
        const QImage shown = report.pixmap.toImage();
        QCOMPARE(shown.pixel(10, 10), qRgb(0, 0, 0));
        QCOMPARE(shown.pixel(150, 100), qRgb(0, 0, 0));
        QCOMPARE(recorder->texts(QtWarningMsg),
                 (QStringList{logText(givenUp, ImageCacheWorker::preparationBudget, givenUpBudget, ImageCacheWorker::preparationTimeLimit, givenUpLimit, path),
                              TestUtils::loadWarning(path)}));
        recorder.reset();
        qInfo("the preparation ended after %lld ms", elapsed);
    }

    void concurrentUseKeepsTheCacheConsistent()
    {
        // Scaled for the sanitizer builds: a few seconds there.
        const int pathCount = 30;
        const int operations = 8000;
        const int clearEvery = 400;
        const int eventsEvery = 40;
        // Like a slide show: the requests and lookups go to a few paths
        // around a position that moves on, mostly at the current size.
        const int window = 8;
        const int stepEvery = 60;
        const QList<QRect> geometries = {QRect(0, 0, 200, 150), QRect(10, 10, 160, 140), QRect(0, 0, 240, 135)};

        QStringList paths;
        for (int i = 0; i < pathCount; ++i) {
            const QString name = QStringLiteral("stress-%1.png").arg(i, 2, 10, QLatin1Char('0'));
            paths.append(TestUtils::writeSolidImage(m_dir.path(), name, QSize(40, 30), QColor::fromHsv((i * 12) % 360, 255, 255)));
        }
        const QSet<QString> pathSet(paths.cbegin(), paths.cend());
        const QList<QSize> sizes = {geometries.at(0).size(), geometries.at(1).size(), geometries.at(2).size()};

        // Debug off: thousands of lines would only slow the run. Warnings
        // are still recorded, and none is expected.
        TestUtils::setSlideShowDebugEnabled(false);
        auto recorder = std::make_unique<LogRecorder>();
        WorkerFixture fixture;
        ImageCacheWorker *worker = fixture.worker;

        auto checkInvariants = [worker](const char *when) {
            const WorkerSnapshot snapshot = snapshotOf(worker);
            const QSet<QString> ordered(snapshot.cacheOrder.cbegin(), snapshot.cacheOrder.cend());
            const QSet<QString> cached(snapshot.cachedPaths.cbegin(), snapshot.cachedPaths.cend());
            QVERIFY2(snapshot.cachedPaths.size() <= ImageCacheWorker::maxCacheSize, when);
            QVERIFY2(ordered.size() == snapshot.cacheOrder.size(), when);
            QVERIFY2(ordered == cached, when);
        };

        QRandomGenerator random(20260101);
        int accepted = 0;
        int acceptedSinceClearing = 0;
        int clearings = 0;
        int hits = 0;
        int position = 0;
        int currentGeometry = 0;
        QElapsedTimer timer;
        timer.start();
        for (int i = 1; i <= operations; ++i) {
            if (i % stepEvery == 0) {
                position = (position + 1) % pathCount;
                // Every other step the worker catches up first, so that
                // lookups and requests also find finished images. Only then
                // are the containers inspected: a snapshot shares its data
                // with them, and reading it while the worker changes them
                // would be a data race.
                if ((i / stepEvery) % 2 == 0) {
                    QVERIFY(fixture.flush());
                    QVERIFY(snapshotOf(worker).pendingRequests.isEmpty());
                    checkInvariants("with the worker idle");
                    if (QTest::currentTestFailed()) {
                        return;
                    }
                }
            }
            const QString &path = paths.at((position + random.bounded(window)) % pathCount);
            const QRect &geometry = geometries.at(random.bounded(10) == 0 ? random.bounded(geometries.size()) : currentGeometry);
            const int choice = random.bounded(100);
            if (choice < 65) {
                if (fixture.request(path, geometry, 1.0, random.bounded(4))) {
                    ++accepted;
                    ++acceptedSinceClearing;
                }
            } else {
                const QPixmap found = worker->getCachedImage(path, geometry, 1.0, Crop);
                if (!found.isNull()) {
                    ++hits;
                    QCOMPARE(found.size(), geometry.size());
                }
            }
            if (i % clearEvery == 0) {
                currentGeometry = (currentGeometry + 1) % geometries.size();
                worker->clearAllCacheData();
                ++clearings;
                acceptedSinceClearing = 0;
                const WorkerSnapshot snapshot = snapshotOf(worker);
                QVERIFY(snapshot.cachedPaths.isEmpty());
                QVERIFY(snapshot.cacheOrder.isEmpty());
                QVERIFY(snapshot.pendingRequests.isEmpty());
                QCOMPARE(snapshot.generation, quint64(clearings));
            }
            if (i % eventsEvery == 0) {
                QCoreApplication::processEvents();
            }
        }

        // Everything queued has run once the marker posted last has.
        QVERIFY(fixture.flush());
        QVERIFY(snapshotOf(worker).pendingRequests.isEmpty());
        checkInvariants("after the run");
        if (QTest::currentTestFailed()) {
            return;
        }
        const WorkerSnapshot last = snapshotOf(worker);
        for (const QString &path : last.cachedPaths) {
            int matching = 0;
            for (const QRect &geometry : geometries) {
                if (!worker->getCachedImage(path, geometry, 1.0, Crop).isNull()) {
                    ++matching;
                }
            }
            QVERIFY2(matching == 1, qPrintable(path));
        }

        // Every queued request was reported at most once, from the worker's
        // thread, and those made since the last clearing all were; requests
        // outdated by a clearing may have been dropped. The others were
        // answered during the call.
        int queuedReports = 0;
        for (const Report &report : qAsConst(fixture.receiver.reports)) {
            QVERIFY(pathSet.contains(report.path));
            QVERIFY(!report.pixmap.isNull());
            QVERIFY(sizes.contains(report.pixmap.size()));
            if (!report.duringRequest) {
                ++queuedReports;
            }
        }
        QVERIFY2(queuedReports <= accepted && queuedReports >= acceptedSinceClearing,
                 qPrintable(QStringLiteral("%1 reports, %2 requests, %3 since the last clearing").arg(queuedReports).arg(accepted).arg(acceptedSinceClearing)));
        QVERIFY(accepted > 0);
        QVERIFY2(recorder->texts(QtWarningMsg).isEmpty(), qPrintable(recorder->texts(QtWarningMsg).join(QLatin1Char('\n'))));

        recorder.reset();
        qInfo("%d operations in %lld ms: %d queued, %d reports, %d hits", operations, timer.elapsed(), accepted, int(fixture.receiver.reports.size()), hits);
    }
};

QTEST_MAIN(ImageCacheWorkerTest)

#include "imagecacheworkertest.moc"
