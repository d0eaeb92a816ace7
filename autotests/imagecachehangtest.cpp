/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Preparations that do not finish: a read that hangs inside the kernel (a
// named pipe with a writer but no data), a file delivered slowly, and a
// JPEG that would take a decoder minutes. The caller never waits for them:
// a clearing returns while the worker is still held, the old preparation is
// neither stored nor reported, and the reading of an unwanted or too slow
// image ends early. The tests hold the worker in a read that they release
// only after their assertions (or on their own after a while, so that a
// worker that does wait makes the test fail instead of hang).

#include "imagecache/imagecacheworker.h"
#include "imagecache/imagecacheworker_p.h"
#include "imagecachetesthelpers.h"
#include "pipetesthelpers.h"
#include "testutils.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Dm::ScreenSaver;
using TestUtils::LogEntry;
using TestUtils::LogRecorder;

using namespace ImageCacheTest;
using namespace PipeTest;

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

QString droppedLine(const QString &path)
{
    return QStringLiteral("ImageCacheWorker: the image was prepared for a cache that has been cleaned since, it is dropped: ") + quoted(path);
}

}

class ImageCacheHangTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_first;
    QString m_second;

    QString makePipe(const QString &name)
    {
        const QString pipe = m_dir.filePath(name);
        if (::mkfifo(QFile::encodeName(pipe).constData(), 0600) != 0) {
            return QString();
        }
        return pipe;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // A feeder whose reader went away gets EPIPE instead of a signal.
        std::signal(SIGPIPE, SIG_IGN);
        m_first = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("first.png"), QSize(64, 48), Qt::red);
        m_second = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("second.png"), QSize(64, 48), Qt::green);
        QVERIFY(!m_second.isEmpty());
        TestUtils::setSlideShowDebugEnabled(true);
    }

    void cleanupTestCase()
    {
        TestUtils::setSlideShowDebugEnabled(false);
    }

    void clearingReturnsWhileAPreparationHangs()
    {
        const QString pipe = makePipe(QStringLiteral("hanging.png"));
        if (pipe.isEmpty()) {
            QSKIP("named pipes are not available here");
        }
        const QByteArray pipeName = QFile::encodeName(pipe);

        WorkerFixture fixture;
        ImageCacheWorker *worker = fixture.worker;
        QVERIFY(fixture.request(m_first, screen));
        QVERIFY(fixture.waitForReports(1));
        auto recording = std::make_unique<LogRecorder>();
        LogRecorder &recorder = *recording;

        QVERIFY(worker->requestProcessImage(pipe, screen, 1.0, Crop));
        const int writer = holdReaderInRead(pipeName, asyncTimeout);
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
        QVERIFY(fixture.request(m_second, screen));
        QVERIFY(worker->getCachedImage(m_second, screen, 1.0, Crop).isNull());
        QVERIFY2(timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed())));
        QVERIFY(!hold.released());
        QCOMPARE(snapshotOf(worker).pendingRequests, QSet<QString>{m_second + QStringLiteral("|300x200")});
        QCOMPARE(fixture.receiver.reports.size(), 1);

        hold.release();
        QVERIFY(fixture.waitForReports(2));
        QVERIFY(fixture.flush());
        // Only the new request was reported and stored; the old preparation
        // ended without a word but the line that drops it.
        QCOMPARE(fixture.receiver.reports.size(), 2);
        QCOMPARE(fixture.receiver.reports.at(1).path, m_second);
        snapshot = snapshotOf(worker);
        QCOMPARE(snapshot.cachedPaths, QStringList{m_second});
        QVERIFY(snapshot.pendingRequests.isEmpty());
        COMPARE_LOG(recorder,
                    (QList<LogEntry>{debug(settingLine(pipe)),
                                     debug(internalLine(pipe)),
                                     debug(initiatedLine),
                                     debug(cleanedLine),
                                     debug(settingLine(m_second)),
                                     debug(droppedLine(pipe)),
                                     debug(internalLine(m_second)),
                                     debug(QStringLiteral("ImageCacheWorker: The current size of the cache: 1 . Cache order size: 1"))}));
        recording.reset();
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
        ImageCacheWorker *worker = fixture.worker;
        auto recording = std::make_unique<LogRecorder>();
        LogRecorder &recorder = *recording;
        QVERIFY(worker->requestProcessImage(pipe, screen, 1.0, Crop));
        SlowFeeder feeder(QFile::encodeName(pipe), png, 100, 100);
        // Once the worker is reading, a clearing makes its work outdated.
        QVERIFY(QTest::qWaitFor(
            [&feeder] {
                return feeder.started();
            },
            asyncTimeout));
        QTest::qWait(300);
        const qint64 clearedAt = millisecondsSince(feeder.startTime());
        worker->clearAllCacheData();

        QVERIFY(QTest::qWaitFor(
            [&feeder] {
                return feeder.readerLeft();
            },
            asyncTimeout));
        const qint64 afterClearing = feeder.readerLeftAt() - clearedAt;
        // The file would have taken 10 s; the reader left within a second or
        // so of the clearing (a wide margin for loaded machines).
        QVERIFY2(afterClearing < 5000, qPrintable(QString::number(afterClearing)));
        QVERIFY(fixture.flush());
        QVERIFY(fixture.receiver.reports.isEmpty());
        QVERIFY(snapshotOf(worker).cachedPaths.isEmpty());
        QCOMPARE(recorder.count(droppedLine(pipe)), 1);
        QVERIFY(recorder.texts(QtWarningMsg).isEmpty());
        recording.reset();
        qInfo("the reader left %lld ms after the clearing, %lld ms into a delivery of 10000 ms", afterClearing, feeder.readerLeftAt());
    }

    void slowJpegEndsByTheTimeBudget()
    {
        // 100,000 scans over a 4096 x 4096 picture: minutes for a decoder.
        const QString path = TestUtils::writeManyScanJpeg(m_dir.path(), QStringLiteral("many-scans.jpg"), 4096, 100000);
        QVERIFY(!path.isEmpty());

        WorkerFixture fixture;
        auto recording = std::make_unique<LogRecorder>();
        LogRecorder &recorder = *recording;
        QElapsedTimer timer;
        timer.start();
        QVERIFY(fixture.request(path, screen));
        QVERIFY(QTest::qWaitFor(
            [&fixture] {
                return fixture.receiver.reports.size() >= 1;
            },
            120000));
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
        QCOMPARE(
            recorder.texts(QtWarningMsg),
            (QStringList{
                QStringLiteral("ImageCacheWorker: Reading and decoding took more than 10000 ms of processor time or 60000 ms in all, the image is given up: ")
                    + quoted(path),
                TestUtils::loadWarning(path)}));
        recording.reset();
        qInfo("the preparation ended after %lld ms", elapsed);
    }
};

QTEST_MAIN(ImageCacheHangTest)

#include "imagecachehangtest.moc"
