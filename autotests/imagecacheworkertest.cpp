/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "imagecache/imagecacheworker.h"
#include "imagecache/imagecacheworker_p.h"
#include "imagecachetesthelpers.h"
#include "testutils.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QPointer>
#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

using namespace Dm::ScreenSaver;
using TestUtils::LogEntry;
using TestUtils::LogRecorder;

using namespace ImageCacheTest;

namespace
{
QStringList sorted(QStringList list)
{
    std::sort(list.begin(), list.end());
    return list;
}

QString settingLine(const QString &key)
{
    return QStringLiteral("ImageCacheWorker: setting a request for image processing in the queue for: ") + quoted(key);
}

QString internalLine(const QString &path)
{
    return QStringLiteral("ImageCacheWorker: internal image processing: ") + quoted(path);
}

QString skippedLine(const QString &key)
{
    return QStringLiteral("ImageCacheWorker: the request was made before the cache was cleaned, skipped without processing: ") + quoted(key);
}

QString sizeLine(int cacheSize, int orderSize)
{
    return QStringLiteral("ImageCacheWorker: The current size of the cache: %1 . Cache order size: %2").arg(cacheSize).arg(orderSize);
}

QString evictionLine(const QString &path, int newSize)
{
    return QStringLiteral("ImageCacheWorker: The size of the cache is exceeded, the removal of the oldest image: ") + quoted(path)
        + QStringLiteral(" . New size of the cache: %1").arg(newSize);
}

QString lookupLine(const QString &path, const QString &rectangle, const QString &ratio, int position)
{
    return QStringLiteral("ImageCacheWorker: return of a caching image for: ") + quoted(path) + QLatin1Char(' ') + rectangle + QLatin1Char(' ') + ratio
        + QLatin1Char(' ') + QString::number(position);
}

const QRect screen(0, 0, 300, 200);
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

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
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

    void cleanupTestCase()
    {
        TestUtils::setSlideShowDebugEnabled(false);
    }

    void freshWorkerIsIdle()
    {
        ImageCacheWorker worker(nullptr);
        const WorkerSnapshot snapshot = snapshotOf(worker);
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.cacheOrder.isEmpty());
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QCOMPARE(snapshot.generation, 0u);
        // On its own the worker keeps ten entries.
        QCOMPARE(snapshot.capacity, 10);
        QCOMPARE(snapshot.preparationsStarted, 0);
        QVERIFY(!worker.parent());
    }

    void geometryNeedsBothSidesAbove128Pixels_data()
    {
        QTest::addColumn<QRect>("geometry");
        QTest::addColumn<bool>("valid");
        QTest::newRow("128 x 1080") << QRect(0, 0, 128, 1080) << false;
        QTest::newRow("129 x 1080") << QRect(0, 0, 129, 1080) << true;
        QTest::newRow("1920 x 128") << QRect(0, 0, 1920, 128) << false;
        QTest::newRow("1920 x 129") << QRect(0, 0, 1920, 129) << true;
        QTest::newRow("129 x 129 away from the origin") << QRect(-500, 40, 129, 129) << true;
        QTest::newRow("1920 x 1080 at 10, 20") << QRect(10, 20, 1920, 1080) << true;
        QTest::newRow("null") << QRect() << false;
        QTest::newRow("empty") << QRect(10, 10, 0, 0) << false;
        QTest::newRow("inverted") << QRect(QPoint(1919, 1079), QPoint(0, 0)) << false;
        QTest::newRow("inverted height") << QRect(QPoint(0, 1079), QPoint(1919, 0)) << false;
    }

    void geometryNeedsBothSidesAbove128Pixels()
    {
        QFETCH(QRect, geometry);
        QFETCH(bool, valid);
        ImageCacheWorker worker(nullptr);
        QCOMPARE(worker.isValidGeometry(geometry), valid);
    }

    void requestKeyIsPathAndSizeWithoutPosition_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QRect>("geometry");
        QTest::addColumn<QString>("key");
        QTest::newRow("at 10, 20") << QStringLiteral("a.png") << QRect(10, 20, 1920, 1080) << QStringLiteral("a.png|1920x1080");
        QTest::newRow("at the origin") << QStringLiteral("a.png") << QRect(0, 0, 1920, 1080) << QStringLiteral("a.png|1920x1080");
        QTest::newRow("other size") << QStringLiteral("a.png") << QRect(0, 0, 1280, 720) << QStringLiteral("a.png|1280x720");
        QTest::newRow("directory and blank") << QStringLiteral("wallpapers/my photo.jpg") << QRect(-1280, 0, 1280, 1024)
                                             << QStringLiteral("wallpapers/my photo.jpg|1280x1024");
    }

    void requestKeyIsPathAndSizeWithoutPosition()
    {
        QFETCH(QString, path);
        QFETCH(QRect, geometry);
        QFETCH(QString, key);
        ImageCacheWorker worker(nullptr);
        QCOMPARE(worker.getRequestKey(path, geometry), key);
    }

    void getCachedImageWarnsAboutInvalidGeometry_data()
    {
        QTest::addColumn<QRect>("geometry");
        QTest::addColumn<QString>("printed");
        QTest::newRow("128 x 1080") << QRect(0, 0, 128, 1080) << QStringLiteral("QRect(0,0 128x1080)");
        QTest::newRow("100 x 100 at 5, 7") << QRect(5, 7, 100, 100) << QStringLiteral("QRect(5,7 100x100)");
        QTest::newRow("inverted") << QRect(QPoint(300, 200), QPoint(0, 0)) << QStringLiteral("QRect(300,200 -299x-199)");
    }

    void getCachedImageWarnsAboutInvalidGeometry()
    {
        QFETCH(QRect, geometry);
        QFETCH(QString, printed);
        ImageCacheWorker worker(nullptr);
        LogRecorder recorder;
        QVERIFY(worker.getCachedImage(m_images.at(0), geometry, 1.0, Crop).isNull());
        COMPARE_LOG(recorder, {warning(QStringLiteral("ImageCacheWorker: getCachedImage is called with invalid geometry, pass: ") + printed)});
    }

    void getCachedImageOfAnUnknownPathIsSilentlyNull()
    {
        ImageCacheWorker worker(nullptr);
        LogRecorder recorder;
        QVERIFY(worker.getCachedImage(m_images.at(0), screen, 1.0, Crop).isNull());
        QVERIFY(recorder.slideShowEntries().isEmpty());
    }

    void requestWithInvalidGeometryIsRefused()
    {
        WorkerFixture fixture;
        LogRecorder recorder;
        QVERIFY(!fixture.request(m_images.at(0), QRect(0, 0, 100, 100)));
        QVERIFY(fixture.flush());
        COMPARE_LOG(recorder, {debug(QStringLiteral("ImageCacheWorker: requestProcessimage is called with invalid geometry, pass: QRect(0,0 100x100)"))});
        QVERIFY(fixture.receiver.reports.isEmpty());
        QVERIFY(snapshotOf(fixture.worker).pendingRequests.isEmpty());
        QVERIFY(snapshotOf(fixture.worker).cachedPaths.isEmpty());
    }

    void requestIsPreparedInTheWorkerThread()
    {
        WorkerFixture fixture;
        LogRecorder recorder;
        const QString path = m_images.at(0);
        QVERIFY(fixture.request(path, screen, 1.0, Crop));
        QVERIFY(fixture.waitForReports(1));

        QCOMPARE(fixture.emittingThread.load(), &fixture.thread);
        const Report report = fixture.receiver.reports.at(0);
        QCOMPARE(report.path, path);
        QCOMPARE(report.thread, QThread::currentThread());
        QVERIFY(!report.duringRequest);
        QCOMPARE(report.pixmap.size(), screen.size());
        // Crop covers the whole canvas with the image's colour.
        QCOMPARE(report.pixmap.toImage().pixel(150, 100), QColor::fromHsv(0, 200, 220).rgb());

        COMPARE_LOG(recorder, (QList<LogEntry>{debug(settingLine(key(path))), debug(internalLine(path)), debug(sizeLine(1, 1))}));
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cachedPaths, QStringList{path});
        QCOMPARE(snapshot.cacheOrder, QList<QString>{path});
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QCOMPARE(fixture.worker->getCachedImage(path, screen, 1.0, Crop).cacheKey(), report.pixmap.cacheKey());
    }

    void duplicateRequestIsQueuedOnce()
    {
        WorkerFixture fixture;
        ThreadBlocker blocker(fixture.worker);
        QVERIFY(blocker.waitUntilHolding());

        LogRecorder recorder;
        const QString path = m_images.at(1);
        QVERIFY(fixture.request(path, screen));
        QVERIFY(!fixture.request(path, QRect(40, 30, 300, 200)));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(settingLine(key(path))),
                                     debug(QStringLiteral("ImageCacheWorker: the request is already waiting for the way: ") + quoted(key(path)))}));
        QCOMPARE(snapshotOf(fixture.worker).pendingRequests, QSet<QString>{key(path)});

        recorder.clear();
        blocker.release();
        QVERIFY(fixture.waitForReports(1));
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.reports.size(), 1);
        QCOMPARE(fixture.receiver.reports.at(0).path, path);
        COMPARE_LOG(recorder, (QList<LogEntry>{debug(internalLine(path)), debug(sizeLine(1, 1))}));
        QVERIFY(snapshotOf(fixture.worker).pendingRequests.isEmpty());
    }

    void sameImageAtTwoSizesIsTwoPiecesOfWork()
    {
        WorkerFixture fixture;
        ThreadBlocker blocker(fixture.worker);
        QVERIFY(blocker.waitUntilHolding());

        const QString path = m_images.at(2);
        const QRect large(0, 0, 1920, 1080);
        const QRect small(0, 0, 1280, 720);
        LogRecorder recorder;
        QVERIFY(fixture.request(path, large, 1.0, Stretch));
        QVERIFY(fixture.request(path, small, 1.0, Stretch));
        QCOMPARE(snapshotOf(fixture.worker).pendingRequests, (QSet<QString>{path + QStringLiteral("|1920x1080"), path + QStringLiteral("|1280x720")}));

        blocker.release();
        QVERIFY(fixture.waitForReports(2));
        QCOMPARE(fixture.receiver.reports.at(0).pixmap.size(), large.size());
        QCOMPARE(fixture.receiver.reports.at(1).pixmap.size(), small.size());

        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(settingLine(key(path, large))),
                                     debug(settingLine(key(path, small))),
                                     debug(internalLine(path)),
                                     debug(sizeLine(1, 1)),
                                     debug(internalLine(path)),
                                     debug(sizeLine(1, 1))}));

        // The cache is keyed by path: the second size replaced the first.
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cachedPaths, QStringList{path});
        QCOMPARE(snapshot.cacheOrder, QList<QString>{path});
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QVERIFY(fixture.worker->getCachedImage(path, large, 1.0, Stretch).isNull());
        QCOMPARE(fixture.worker->getCachedImage(path, small, 1.0, Stretch).cacheKey(), fixture.receiver.reports.at(1).pixmap.cacheKey());
    }

    void requestForACachedImageIsAnsweredAtOnce()
    {
        WorkerFixture fixture;
        const QString first = m_images.at(0);
        const QString second = m_images.at(1);
        QVERIFY(fixture.request(first, screen));
        QVERIFY(fixture.request(second, screen));
        QVERIFY(fixture.waitForReports(2));
        const QPixmap firstPixmap = fixture.receiver.reports.at(0).pixmap;
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{first, second}));

        LogRecorder recorder;
        QVERIFY(!fixture.request(first, QRect(100, 100, 300, 200), 2.0, Tile));
        // Delivered inside requestProcessImage, in this thread, before it returned.
        QCOMPARE(fixture.receiver.reports.size(), 3);
        const Report report = fixture.receiver.reports.at(2);
        QVERIFY(report.duringRequest);
        QCOMPARE(report.thread, QThread::currentThread());
        QCOMPARE(fixture.emittingThread.load(), QThread::currentThread());
        QCOMPARE(report.path, first);
        QCOMPARE(report.pixmap.cacheKey(), firstPixmap.cacheKey());

        COMPARE_LOG(
            recorder,
            {debug(QStringLiteral("ImageCacheWorker: the image is already caching with the correct size, the request for the request: ") + quoted(first))});
        // Refreshed: now the youngest entry.
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{second, first}));

        // Nothing was queued.
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.reports.size(), 3);
        QCOMPARE(recorder.slideShowEntries().size(), 1);
        QVERIFY(snapshotOf(fixture.worker).pendingRequests.isEmpty());
    }

    void workerReportsFromItsThreadAndQueuesToTheGui()
    {
        WorkerFixture fixture;
        QVERIFY(fixture.request(m_images.at(3), screen));
        // Queued: nothing can have reached this thread before it runs its event loop.
        QVERIFY(fixture.receiver.reports.isEmpty());
        QVERIFY(fixture.waitForReports(1));
        QCOMPARE(fixture.emittingThread.load(), &fixture.thread);
        QVERIFY(fixture.emittingThread.load() != QThread::currentThread());
        QCOMPARE(fixture.receiver.reports.at(0).thread, QThread::currentThread());
        QVERIFY(!fixture.receiver.reports.at(0).duringRequest);
    }

    void lookupAtAnotherSizeIsNullAndKeepsTheEntry()
    {
        WorkerFixture fixture;
        const QString path = m_images.at(4);
        const QString other = m_images.at(5);
        const QRect large(0, 0, 1920, 1080);
        QVERIFY(fixture.request(path, large, 1.0, Stretch));
        QVERIFY(fixture.request(other, large, 1.0, Stretch));
        QVERIFY(fixture.waitForReports(2));

        LogRecorder recorder;
        QVERIFY(fixture.worker->getCachedImage(path, QRect(0, 0, 1280, 720), 1.0, Stretch).isNull());
        QVERIFY(recorder.slideShowEntries().isEmpty());
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cachedPaths, sorted({path, other}));
        QCOMPARE(snapshot.cacheOrder, (QList<QString>{path, other}));

        const QPixmap found = fixture.worker->getCachedImage(path, large, 1.0, Stretch);
        QCOMPARE(found.size(), large.size());
        QCOMPARE(found.cacheKey(), fixture.receiver.reports.at(0).pixmap.cacheKey());
        COMPARE_LOG(recorder, {debug(lookupLine(path, QStringLiteral("QRect(0,0 1920x1080)"), QStringLiteral("1"), 0))});
        // A lookup does not refresh the entry's age.
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{path, other}));
    }

    void centerEntryIsReturnedForACropLookup()
    {
        WorkerFixture fixture;
        const QString path = m_images.at(6);
        QVERIFY(fixture.request(path, screen, 1.0, Center));
        QVERIFY(fixture.waitForReports(1));
        const QPixmap centered = fixture.receiver.reports.at(0).pixmap;

        LogRecorder recorder;
        const QPixmap found = fixture.worker->getCachedImage(path, QRect(8, 16, 300, 200), 1.5, Crop);
        QCOMPARE(found.cacheKey(), centered.cacheKey());
        // The Center rendering: the small image in the middle of a black canvas.
        const QImage image = found.toImage();
        QCOMPARE(image.pixel(0, 0), qRgb(0, 0, 0));
        QCOMPARE(image.pixel(150, 100), QColor::fromHsv(6 * 30, 200, 220).rgb());
        COMPARE_LOG(recorder, {debug(lookupLine(path, QStringLiteral("QRect(8,16 300x200)"), QStringLiteral("1.5"), 1))});
    }

    void eleventhStoredPathEvictsTheFirst()
    {
        WorkerFixture fixture;
        for (int i = 0; i < 11; ++i) {
            QVERIFY(fixture.request(m_images.at(i), screen));
            QVERIFY(fixture.waitForReports(i + 1));
        }
        const QList<QString> lastTen = m_images.mid(1, 10);
        WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cacheOrder, lastTen);
        QCOMPARE(snapshot.cachedPaths, sorted(lastTen));
        QVERIFY(fixture.worker->getCachedImage(m_images.at(0), screen, 1.0, Crop).isNull());
        QVERIFY(!fixture.worker->getCachedImage(m_images.at(1), screen, 1.0, Crop).isNull());

        // Stored again (at another size, so that it is prepared anew rather
        // than answered from the cache): moved to the end, nothing evicted.
        const QString again = m_images.at(3);
        const QRect other(0, 0, 256, 192);
        LogRecorder recorder;
        QVERIFY(fixture.request(again, other));
        QVERIFY(fixture.waitForReports(12));
        COMPARE_LOG(recorder, (QList<LogEntry>{debug(settingLine(key(again, other))), debug(internalLine(again)), debug(sizeLine(10, 10))}));

        QList<QString> expectedOrder = lastTen;
        expectedOrder.removeOne(again);
        expectedOrder.append(again);
        snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cacheOrder, expectedOrder);
        QCOMPARE(snapshot.cachedPaths, sorted(lastTen));
        QCOMPARE(fixture.worker->getCachedImage(again, other, 1.0, Crop).size(), other.size());
    }

    void lowerCapacityEvictsTheOldestAtOnce()
    {
        WorkerFixture fixture;
        for (int i = 0; i < 5; ++i) {
            QVERIFY(fixture.request(m_images.at(i), screen));
        }
        QVERIFY(fixture.waitForReports(5));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, m_images.mid(0, 5));

        LogRecorder recorder;
        fixture.worker->setCacheCapacity(3);
        COMPARE_LOG(recorder, (QList<LogEntry>{debug(evictionLine(m_images.at(0), 4)), debug(evictionLine(m_images.at(1), 3))}));
        WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.capacity, 3);
        QCOMPARE(snapshot.cacheOrder, m_images.mid(2, 3));

        // The next image evicts the oldest of the three.
        recorder.clear();
        QVERIFY(fixture.request(m_images.at(5), screen));
        QVERIFY(fixture.waitForReports(6));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(settingLine(key(m_images.at(5)))),
                                     debug(internalLine(m_images.at(5))),
                                     // Room is made before the preparation
                                     // starts: two are left then.
                                     debug(evictionLine(m_images.at(2), 2)),
                                     debug(sizeLine(3, 3))}));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, m_images.mid(3, 3));

        // Back to ten (and never beyond it, nor below one).
        fixture.worker->setCacheCapacity(50);
        QCOMPARE(snapshotOf(fixture.worker).capacity, 10);
        fixture.worker->setCacheCapacity(0);
        QCOMPARE(snapshotOf(fixture.worker).capacity, 1);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, QList<QString>{m_images.at(5)});
    }

    // The slides the show needs stay, though older than an entry it no
    // longer wants: a new look-ahead displaces the stale entry, not the
    // slide a fade is leaving.
    void evictionSparesTheWantedSlides()
    {
        WorkerFixture fixture;
        fixture.worker->setCacheCapacity(3);
        const QString previous = m_images.at(0);
        const QString current = m_images.at(1);
        const QString stale = m_images.at(2);
        const QString next = m_images.at(3);
        for (const QString &path : {previous, current, stale}) {
            QVERIFY(fixture.request(path, screen));
        }
        QVERIFY(fixture.waitForReports(3));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{previous, current, stale}));

        fixture.worker->setWantedImages({current, next, previous});
        LogRecorder recorder;
        QVERIFY(fixture.request(next, screen));
        QVERIFY(fixture.waitForReports(4));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(settingLine(key(next))), debug(internalLine(next)), debug(evictionLine(stale, 2)), debug(sizeLine(3, 3))}));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{previous, current, next}));

        // A request for a slide the show has passed is skipped unprepared.
        recorder.clear();
        QVERIFY(fixture.request(stale, screen));
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.reports.size(), 4);
        COMPARE_LOG(
            recorder,
            (QList<LogEntry>{debug(settingLine(key(stale))),
                             debug(internalLine(stale)),
                             debug(QStringLiteral("ImageCacheWorker: the show has passed this slide, skipped without processing: ") + quoted(key(stale)))}));

        // An image nobody wants, while every entry is wanted, does not take
        // a wanted slide's place.
        QCOMPARE(fixture.worker->processImageSynchronously(stale, screen, 1.0, Crop).size(), screen.size());
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{previous, current, next}));

        // A lower capacity spares them too; without wishes the oldest goes.
        fixture.worker->setCacheCapacity(2);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{previous, current, next}));
        fixture.worker->setWantedImages({});
        fixture.worker->setCacheCapacity(1);
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, QList<QString>{next});
    }

    void eleventhImageLogsTheEvictionAndTheSizes()
    {
        WorkerFixture fixture;
        for (int i = 0; i < 10; ++i) {
            QVERIFY(fixture.request(m_images.at(i), screen));
        }
        QVERIFY(fixture.waitForReports(10));
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder.size(), 10);

        LogRecorder recorder;
        const QString eleventh = m_images.at(10);
        QVERIFY(fixture.request(eleventh, screen));
        QVERIFY(fixture.waitForReports(11));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(settingLine(key(eleventh))),
                                     debug(internalLine(eleventh)),
                                     // The oldest leaves before the new image is
                                     // prepared, not after: nine are left then.
                                     debug(evictionLine(m_images.at(0), 9)),
                                     debug(sizeLine(10, 10))}));
        // Literally, as the log shows it.
        QCOMPARE(recorder.slideShowEntries().at(2).text,
                 QStringLiteral("ImageCacheWorker: The size of the cache is exceeded, the removal of the oldest image: \"%1\" . New size of the cache: 9")
                     .arg(m_images.at(0)));
        QCOMPARE(recorder.slideShowEntries().at(3).text, QStringLiteral("ImageCacheWorker: The current size of the cache: 10 . Cache order size: 10"));
    }

    void clearingWithNothingPendingDoesNotWait()
    {
        WorkerFixture fixture;
        QVERIFY(fixture.request(m_images.at(0), screen));
        QVERIFY(fixture.request(m_images.at(1), screen));
        QVERIFY(fixture.waitForReports(2));
        QCOMPARE(snapshotOf(fixture.worker).cachedPaths.size(), 2);

        LogRecorder recorder;
        fixture.worker->clearAllCacheData();
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(QStringLiteral("ImageCacheWorker: the cleaning of all cache data is initiated.")),
                                     debug(QStringLiteral("ImageCacheWorker: All cache data are cleaned."))}));
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.cacheOrder.isEmpty());
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QCOMPARE(snapshot.generation, 1u);
        QVERIFY(fixture.worker->getCachedImage(m_images.at(0), screen, 1.0, Crop).isNull());

        // Still usable: the next request is queued and prepared again.
        QVERIFY(fixture.request(m_images.at(0), screen));
        QVERIFY(fixture.waitForReports(3));
    }

    void clearingSkipsQueuedRequestsWithoutDecodingThem()
    {
        WorkerFixture fixture;
        QVERIFY(fixture.request(m_images.at(0), screen));
        QVERIFY(fixture.waitForReports(1));
        QCOMPARE(snapshotOf(fixture.worker).preparationsStarted, 1);

        // Two requests queue up behind a call that holds the worker's
        // thread; the clearing returns while they are still queued.
        ThreadBlocker blocker(fixture.worker);
        QVERIFY(blocker.waitUntilHolding());
        QVERIFY(fixture.request(m_images.at(1), screen));
        QVERIFY(fixture.request(m_images.at(2), screen));

        LogRecorder recorder;
        fixture.worker->clearAllCacheData();
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(QStringLiteral("ImageCacheWorker: the cleaning of all cache data is initiated.")),
                                     debug(QStringLiteral("ImageCacheWorker: All cache data are cleaned."))}));
        WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QCOMPARE(snapshot.generation, 1u);

        // The same key asked again after the clearing is a new request.
        recorder.clear();
        QVERIFY(fixture.request(m_images.at(2), screen));
        QCOMPARE(snapshotOf(fixture.worker).pendingRequests, QSet<QString>{key(m_images.at(2))});

        blocker.release();
        QVERIFY(fixture.waitForReports(2));
        QVERIFY(fixture.flush());
        // The two old requests were skipped without a decode and without a
        // report; the new one was prepared once.
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(settingLine(key(m_images.at(2)))),
                                     debug(internalLine(m_images.at(1))),
                                     debug(skippedLine(key(m_images.at(1)))),
                                     debug(internalLine(m_images.at(2))),
                                     debug(skippedLine(key(m_images.at(2)))),
                                     debug(internalLine(m_images.at(2))),
                                     debug(sizeLine(1, 1))}));
        snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.preparationsStarted, 2);
        QCOMPARE(snapshot.cachedPaths, QStringList{m_images.at(2)});
        QVERIFY(snapshot.pendingRequests.isEmpty());
        QCOMPARE(fixture.receiver.reports.size(), 2);
        QCOMPARE(fixture.receiver.reports.at(1).path, m_images.at(2));
    }

    void modeChangeAfterADirectoryChangeShowsTheNewMode()
    {
        // Like setProperty: a new directory (a clearing and a request), then
        // a new mode (a clearing and the same request again), all while the
        // worker's thread is busy. Both requests have the same key; only
        // the one made in the new mode may be prepared and stored.
        const QString path = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("small.png"), QSize(20, 10), Qt::red);
        WorkerFixture fixture;
        ThreadBlocker blocker(fixture.worker);
        QVERIFY(blocker.waitUntilHolding());
        fixture.worker->clearAllCacheData();
        QVERIFY(fixture.request(path, screen, 1.0, Stretch));
        fixture.worker->clearAllCacheData();
        QVERIFY(fixture.request(path, screen, 1.0, Center));
        blocker.release();
        QVERIFY(fixture.waitForReports(1));
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.reports.size(), 1);
        QCOMPARE(snapshotOf(fixture.worker).preparationsStarted, 1);
        // Centred on black, not stretched over the whole screen.
        const QImage shown = fixture.worker->getCachedImage(path, screen, 1.0, Center).toImage();
        QCOMPARE(shown.pixel(150, 100), qRgb(255, 0, 0));
        QCOMPARE(shown.pixel(10, 10), qRgb(0, 0, 0));
    }

    void synchronousProcessingWithInvalidGeometryWarns_data()
    {
        QTest::addColumn<QRect>("geometry");
        QTest::addColumn<QString>("printed");
        QTest::newRow("100 x 100") << QRect(0, 0, 100, 100) << QStringLiteral("QRect(0,0 100x100)");
        QTest::newRow("128 x 1080 at 20, 10") << QRect(20, 10, 128, 1080) << QStringLiteral("QRect(20,10 128x1080)");
    }

    void synchronousProcessingWithInvalidGeometryWarns()
    {
        QFETCH(QRect, geometry);
        QFETCH(QString, printed);
        ImageCacheWorker worker(nullptr);
        LogRecorder recorder;
        const QPixmap pixmap = worker.processImageSynchronously(m_images.at(0), geometry, 2.0, Crop);
        COMPARE_LOG(recorder, {warning(QStringLiteral("ImageCacheWorker: processImageSynchronously called with invalid geometry, pass: ") + printed)});
        QVERIFY(!pixmap.isNull());
        QCOMPARE(pixmap.size(), geometry.size());
        // Not a prepared canvas: the requested ratio is not applied.
        QCOMPARE(pixmap.devicePixelRatio(), 1.0);
        QVERIFY(snapshotOf(worker).cachedPaths.isEmpty());
    }

    void synchronousProcessingReturnsACachedImage()
    {
        WorkerFixture fixture;
        const QString first = m_images.at(0);
        const QString second = m_images.at(1);
        QVERIFY(fixture.request(first, screen));
        QVERIFY(fixture.request(second, screen));
        QVERIFY(fixture.waitForReports(2));

        LogRecorder recorder;
        const QPixmap pixmap = fixture.worker->processImageSynchronously(first, QRect(50, 50, 300, 200), 1.0, Crop);
        QCOMPARE(pixmap.cacheKey(), fixture.receiver.reports.at(0).pixmap.cacheKey());
        COMPARE_LOG(recorder, {debug(QStringLiteral("ImageCacheWorker: return of a synchronously cached image for: ") + quoted(first))});
        QCOMPARE(snapshotOf(fixture.worker).cacheOrder, (QList<QString>{second, first}));
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.reports.size(), 2);
    }

    void synchronousProcessingStoresWithoutEviction()
    {
        WorkerFixture fixture;
        for (int i = 0; i < 10; ++i) {
            QVERIFY(fixture.request(m_images.at(i), screen));
        }
        QVERIFY(fixture.waitForReports(10));

        LogRecorder recorder;
        const QString eleventh = m_images.at(10);
        const QPixmap pixmap = fixture.worker->processImageSynchronously(eleventh, screen, 1.0, Crop);
        QCOMPARE(pixmap.size(), screen.size());
        QCOMPARE(pixmap.toImage().pixel(150, 100), QColor::fromHsv(10 * 30, 200, 220).rgb());
        COMPARE_LOG(recorder, {debug(QStringLiteral("ImageCacheWorker: Image synchronous processing: ") + quoted(eleventh))});

        WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cacheOrder, QList<QString>(m_images.mid(0, 11)));
        QCOMPARE(snapshot.cachedPaths, sorted(m_images.mid(0, 11)));
        QCOMPARE(fixture.worker->getCachedImage(eleventh, screen, 1.0, Crop).cacheKey(), pixmap.cacheKey());
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.reports.size(), 10);

        // The next insertion by the worker restores the bound.
        recorder.clear();
        const QString twelfth = m_images.at(11);
        QVERIFY(fixture.request(twelfth, screen));
        QVERIFY(fixture.waitForReports(11));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(settingLine(key(twelfth))),
                                     debug(internalLine(twelfth)),
                                     // Eleven entries, and room made for one
                                     // more before the preparation: nine.
                                     debug(evictionLine(m_images.at(0), 10)),
                                     debug(evictionLine(m_images.at(1), 9)),
                                     debug(sizeLine(10, 10))}));
        snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cacheOrder, QList<QString>(m_images.mid(2, 10)));
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
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(internalLine(path)),
                                     debug(QStringLiteral("ImageCacheWorker: The image has already been caching (from the other path) with the correct size, "
                                                          "the passage of internal re -processing: ")
                                           + quoted(path))}));
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QCOMPARE(snapshot.cacheOrder, (QList<QString>{other, path}));
        QVERIFY(snapshot.pendingRequests.isEmpty());
    }

    void unreadableFileIsStoredBlackAndReported_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<bool>("create");
        QTest::newRow("text named like an image") << QStringLiteral("broken.png") << true;
        QTest::newRow("empty file") << QStringLiteral("empty.jpg") << false;
    }

    void unreadableFileIsStoredBlackAndReported()
    {
        QFETCH(QString, fileName);
        QFETCH(bool, create);
        const QString path = m_dir.filePath(fileName);
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        if (create) {
            file.write("this is not an image\n");
        }
        file.close();

        WorkerFixture fixture;
        LogRecorder recorder;
        QVERIFY(fixture.request(path, screen, 1.5, Crop));
        QVERIFY(fixture.waitForReports(1));
        const QPixmap pixmap = fixture.receiver.reports.at(0).pixmap;
        QCOMPARE(pixmap.size(), screen.size());
        QCOMPARE(pixmap.devicePixelRatio(), 1.5);
        QCOMPARE(pixmap.toImage().pixel(150, 100), qRgb(0, 0, 0));
        QCOMPARE(pixmap.toImage().pixel(0, 0), qRgb(0, 0, 0));
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(settingLine(key(path))),
                                     debug(internalLine(path)),
                                     warning(quoted(QStringLiteral("ImageCacheWorker: It was not possible to load the original image: %1 ").arg(path))),
                                     debug(sizeLine(1, 1))}));
        QCOMPARE(snapshotOf(fixture.worker).cachedPaths, QStringList{path});
        QCOMPARE(fixture.worker->getCachedImage(path, screen, 1.5, Crop).cacheKey(), pixmap.cacheKey());
    }

    // A file deleted since the folder was listed is no unreadable image: the
    // worker says it is gone, without a black slide or a warning.
    void missingFileIsReportedGone()
    {
        const QString path = m_dir.filePath(QStringLiteral("missing.jpg"));
        WorkerFixture fixture;
        LogRecorder recorder;
        QVERIFY(fixture.request(path, screen, 1.5, Crop));
        QVERIFY(fixture.flush());
        QCOMPARE(fixture.receiver.gone, QStringList{path});
        QVERIFY(fixture.receiver.reports.isEmpty());
        COMPARE_LOG(recorder, (QList<LogEntry>{debug(settingLine(key(path))), debug(internalLine(path))}));
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.pendingRequests.isEmpty());
        // Asked directly, it is still an unreadable file.
        recorder.clear();
        QCOMPARE(fixture.worker->cachedImage(path, screen, 1.0, Crop).toImage().pixel(10, 10), qRgb(0, 0, 0));
        COMPARE_LOG(recorder, {warning(TestUtils::loadWarning(path))});
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
                    (QList<LogEntry>{debug(settingLine(path + QStringLiteral("|70000000x200"))),
                                     debug(internalLine(path)),
                                     warning(QStringLiteral("ImageCacheWorker: The processed image is equal to NULL for the way: ") + quoted(path))}));
        const WorkerSnapshot snapshot = snapshotOf(fixture.worker);
        QVERIFY(snapshot.cachedPaths.isEmpty());
        QVERIFY(snapshot.cacheOrder.isEmpty());
        // The key is gone, so the same request would be queued again.
        QVERIFY(snapshot.pendingRequests.isEmpty());
    }

    void workerIsDeletedInItsOwnThreadWhenTheThreadFinishes()
    {
        LogRecorder recorder;
        WorkerFixture fixture;
        const QPointer<ImageCacheWorker> guard(fixture.worker);
        QVERIFY(fixture.request(m_images.at(0), screen));
        QVERIFY(fixture.waitForReports(1));
        QVERIFY(!guard.isNull());
        QCOMPARE(fixture.destroyedIn.load(), nullptr);
        recorder.clear();

        fixture.thread.quit();
        QVERIFY(fixture.thread.wait(asyncTimeout));
        QVERIFY(guard.isNull());
        QCOMPARE(fixture.destroyedIn.load(), &fixture.thread);
        // The destructor logs nothing.
        QVERIFY(recorder.slideShowEntries().isEmpty());
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
        QList<QSize> sizes;
        for (const QRect &geometry : geometries) {
            sizes.append(geometry.size());
        }

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

        worker->clearAllCacheData();
        const WorkerSnapshot cleared = snapshotOf(worker);
        QVERIFY(cleared.cachedPaths.isEmpty());
        QVERIFY(cleared.cacheOrder.isEmpty());
        QVERIFY(cleared.pendingRequests.isEmpty());
        QCOMPARE(cleared.generation, quint64(clearings + 1));
        recorder.reset();
        qInfo("%d operations in %lld ms: %d requests queued, %d reports, %d lookups found an image",
              operations,
              timer.elapsed(),
              accepted,
              int(fixture.receiver.reports.size()),
              hits);
    }
};

QTEST_MAIN(ImageCacheWorkerTest)

#include "imagecacheworkertest.moc"
