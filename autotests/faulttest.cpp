/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Faults while a show runs: images deleted, replaced and made unreadable
// under it, its directory removed and made again, new settings while the
// worker hangs on a named pipe, and the screensaver destroyed while its
// worker is busy with a large image, a file that arrives slowly or a JPEG
// that would take minutes, or hangs on a named pipe. Nothing may crash, the
// GUI thread never waits for the worker, a file that cannot be read is a
// black slide with the worker's warning, a file that has gone leaves the
// show, a replaced one is prepared afresh, and the label's destruction
// returns at once whatever its worker does.

#include "imagecache/imagecacheworker.h"
#include "pipetesthelpers.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "slideshow/slideshow.h"
#include "slideshow/slideshow_p.h"
#include "testutils.h"

#include <QAbstractAnimation>
#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImageWriter>
#include <QPointer>
#include <QTemporaryDir>
#include <QTest>
#include <QVBoxLayout>
#include <QVariantAnimation>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Dm::ScreenSaver;
using PipeTest::PipeReleaser;
using PipeTest::SlowFeeder;
using TestUtils::LogRecorder;

namespace
{
// Generous: the sanitizer builds decode and scale many times slower.
const int slowTimeout = 30000;

// The one the label logged before it stopped waiting for its thread.
const QString shutdownWarning = QStringLiteral("SlideLabel: Cache thread did not finish correctly within the timeout.");

using TestUtils::loadWarning;
using TestUtils::quoted;

// A host window with the screensaver filling it. The show does not switch on
// its own (an hour's interval) unless a test starts it with a short one.
struct Host {
    QWidget window;
    QPointer<SlideShow> show;
    int switches = 0;

    explicit Host(const QString &dir, int autoSwitch = 3600, int effect = 0)
    {
        auto *layout = new QVBoxLayout(&window);
        layout->setContentsMargins(0, 0, 0, 0);
        show = new SlideShow(&window);
        layout->addWidget(show);
        window.resize(320, 240);
        QObject::connect(inspect(show).fadeAnimation(), &QAbstractAnimation::stateChanged, &window, [this](QAbstractAnimation::State state) {
            if (state == QAbstractAnimation::Running) {
                ++switches;
            }
        });
        window.show();
        show->setProperty({{QStringLiteral("ImageDirectory"), dir},
                           {QStringLiteral("AutoSwitch"), autoSwitch},
                           {QStringLiteral("Effect"), effect},
                           {QStringLiteral("Position"), int(Crop)}});
        listed();
    }

    // The folder is listed off the GUI thread.
    bool listed() const
    {
        return QTest::qWaitFor(
            [this] {
                return !inspect(label()).awaitingListing();
            },
            slowTimeout);
    }

    SlideLabel *label() const
    {
        return inspect(show).slideLabel();
    }

    QRgb centre()
    {
        const QImage image = show->grab().toImage().convertToFormat(QImage::Format_ARGB32);
        return image.pixel(image.width() / 2, image.height() / 2);
    }

    // Steps the sequence by hand to the slide with this path and ends its
    // fade, so that only that slide is visible.
    bool showSlide(const QString &path)
    {
        for (int i = 0; i <= inspect(label()).files().size() && inspect(label()).currentImage() != path; ++i) {
            label()->setNext();
        }
        label()->setOpacity(1.0);
        return inspect(label()).currentImage() == path;
    }

    // A resize empties the worker's cache and asks again for the visible
    // slides.
    void refill()
    {
        window.resize(window.width() == 320 ? QSize(330, 250) : QSize(320, 240));
    }
};

const QColor red(220, 30, 30);
const QColor green(30, 200, 60);
const QColor blue(30, 40, 210);
const QColor yellow(230, 220, 40);
const QColor black(0, 0, 0);
}

class FaultTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_large;
    QString m_largeImage;

    // Three solid images a, b, c in dir (red, green, blue).
    static QStringList writeThree(const QString &dir)
    {
        return {TestUtils::writeSolidImage(dir, QStringLiteral("a.png"), QSize(64, 48), red),
                TestUtils::writeSolidImage(dir, QStringLiteral("b.png"), QSize(64, 48), green),
                TestUtils::writeSolidImage(dir, QStringLiteral("c.png"), QSize(64, 48), blue)};
    }

    // A show of the three images (a, b, c) with its first slide on screen,
    // whose c.png has become a named pipe after the scan listed it as a
    // file: the next step asks the worker for it as the look-ahead image.
    struct ShowWithPipe {
        QTemporaryDir dir;
        QStringList paths;
        std::unique_ptr<LogRecorder> recording = std::make_unique<LogRecorder>();
        std::unique_ptr<Host> host;

        QByteArray pipe() const
        {
            return QFile::encodeName(paths.at(2));
        }
    };

    static bool startShowWithPipe(ShowWithPipe &show)
    {
        if (!show.dir.isValid()) {
            return false;
        }
        show.paths = writeThree(show.dir.path());
        show.host = std::make_unique<Host>(show.dir.path());
        // The first slide is shown: the worker has prepared it.
        if (!QTest::qWaitFor(
                [&show] {
                    return TestUtils::fuzzyColor(show.host->centre(), red, 1);
                },
                slowTimeout)) {
            return false;
        }
        return QFile::remove(show.paths.at(2)) && ::mkfifo(show.pipe().constData(), 0644) == 0;
    }

    // Destroys the show and says what went wrong, if anything: the label
    // returns at once (the old design waited up to 5000 ms for its thread)
    // and leaves no worker behind once its thread has ended.
    static QString destroyedQuickly(std::unique_ptr<Host> &host, const LogRecorder &recorder, const QPointer<ImageCacheWorker> &worker, qint64 *destroying)
    {
        QElapsedTimer timer;
        timer.start();
        host.reset();
        *destroying = timer.elapsed();
        if (*destroying >= 1000) {
            return QStringLiteral("destroyed in %1 ms").arg(*destroying);
        }
        if (recorder.count(shutdownWarning) != 0) {
            return QStringLiteral("the shutdown timed out");
        }
        const bool workerEnded = QTest::qWaitFor(
            [&worker] {
                return worker.isNull();
            },
            slowTimeout);
        return workerEnded ? QString() : QStringLiteral("the worker outlived the label");
    }

private Q_SLOTS:
    void initTestCase()
    {
        // A feeder whose reader went away gets EPIPE instead of a signal.
        std::signal(SIGPIPE, SIG_IGN);
        TestUtils::setSlideShowDebugEnabled(true);
    }

    void cleanupTestCase()
    {
        TestUtils::setSlideShowDebugEnabled(false);
    }

    // A photo deleted from the folder leaves the show: no black slide, no
    // warning, not even a picture from the cache once the round is over.
    void deletedImagesLeaveTheShowAndItGoesOn()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QStringList paths = writeThree(dir.path());
        LogRecorder recorder;
        Host host(dir.path(), 0, 10);
        host.show->start();
        QTRY_VERIFY_WITH_TIMEOUT(host.switches >= 5, slowTimeout);

        QVERIFY(QFile::remove(paths.at(1)));
        QVERIFY(QFile::remove(paths.at(2)));
        QTRY_COMPARE_WITH_TIMEOUT(inspect(host.label()).files(), QStringList{paths.at(0)}, slowTimeout);
        host.show->stop();
        QTRY_VERIFY_WITH_TIMEOUT(TestUtils::fuzzyColor(host.centre(), red, 1), slowTimeout);
        host.refill();
        QTRY_VERIFY_WITH_TIMEOUT(TestUtils::fuzzyColor(host.centre(), red, 1), slowTimeout);
        QCOMPARE(recorder.count(loadWarning(paths.at(1))), 0);
        QCOMPARE(recorder.count(loadWarning(paths.at(2))), 0);
        QCOMPARE(recorder.count(QStringLiteral("SlideLabel: Image left the show: ") + quoted(paths.at(1))), 1);
        QCOMPARE(recorder.count(QStringLiteral("SlideLabel: Image left the show: ") + quoted(paths.at(2))), 1);
    }

    // A photo saved over another is prepared afresh before it is shown
    // again; a text saved over one is an unreadable file.
    void replacedImagesShowTheNewContent()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QStringList paths = writeThree(dir.path());
        LogRecorder recorder;
        Host host(dir.path(), 0, 10);
        host.show->start();
        QTRY_VERIFY_WITH_TIMEOUT(host.switches >= 5, slowTimeout);

        // Replaced while shown: a yellow image in place of a, text in
        // place of b.
        QVERIFY(QFile::remove(paths.at(0)));
        TestUtils::writeSolidImage(dir.path(), QStringLiteral("a.png"), QSize(64, 48), yellow);
        QFile text(paths.at(1));
        QVERIFY(text.open(QIODevice::WriteOnly | QIODevice::Truncate));
        text.write("not an image any more\n");
        text.close();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(loadWarning(paths.at(1))) >= 1, slowTimeout);
        const int before = host.switches;
        QTRY_VERIFY_WITH_TIMEOUT(host.switches >= before + 4, slowTimeout);
        host.show->stop();

        QVERIFY(host.showSlide(paths.at(0)));
        QTRY_VERIFY_WITH_TIMEOUT(TestUtils::fuzzyColor(host.centre(), yellow, 1), slowTimeout);
        QVERIFY(host.showSlide(paths.at(1)));
        QTRY_VERIFY_WITH_TIMEOUT(TestUtils::fuzzyColor(host.centre(), black, 0), slowTimeout);
        QCOMPARE(recorder.count(loadWarning(paths.at(0))), 0);
    }

    void unreadableImagesBecomeBlackSlides()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QStringList paths = writeThree(dir.path());
        LogRecorder recorder;
        Host host(dir.path(), 0, 10);
        host.show->start();
        QTRY_VERIFY_WITH_TIMEOUT(host.switches >= 5, slowTimeout);

        QVERIFY(QFile::setPermissions(paths.at(2), QFileDevice::Permissions()));
        QFile probe(paths.at(2));
        const bool stillReadable = probe.open(QIODevice::ReadOnly);
        probe.close();
        const int before = host.switches;
        QTRY_VERIFY_WITH_TIMEOUT(host.switches >= before + 5, slowTimeout);
        host.show->stop();

        host.refill();
        QVERIFY(host.showSlide(paths.at(2)));
        if (stillReadable) {
            // As root the mode stops no read: the slide is shown as it is.
            QTRY_VERIFY_WITH_TIMEOUT(TestUtils::fuzzyColor(host.centre(), blue, 1), slowTimeout);
            QCOMPARE(recorder.count(loadWarning(paths.at(2))), 0);
            QSKIP("Running as root: mode 000 does not stop reads, so an unreadable file cannot be made here; the file was shown as a readable one.");
        }
        QTRY_VERIFY_WITH_TIMEOUT(TestUtils::fuzzyColor(host.centre(), black, 0), slowTimeout);
        QVERIFY(recorder.count(loadWarning(paths.at(2))) >= 1);
    }

    // The folder removed during the show: its images leave it, and the
    // message is shown; made again, it is shown again once listed.
    void removedAndRecreatedDirectoryRecovers()
    {
        QTemporaryDir parent;
        QVERIFY(parent.isValid());
        const QString dirPath = QDir(parent.path()).filePath(QStringLiteral("slides"));
        QVERIFY(QDir().mkpath(dirPath));
        writeThree(dirPath);
        LogRecorder recorder;
        Host host(dirPath, 0, 10);
        host.show->start();
        QTRY_VERIFY_WITH_TIMEOUT(host.switches >= 5, slowTimeout);

        QVERIFY(QDir(dirPath).removeRecursively());
        QTRY_VERIFY_WITH_TIMEOUT(inspect(host.label()).files().isEmpty(), slowTimeout);
        const QString missing = quoted(QStringLiteral("SlideLabel: The specified directory (%0) does not exist or does not contain image files.").arg(dirPath));
        QTRY_COMPARE_WITH_TIMEOUT(recorder.count(missing), 1, slowTimeout);
        QCOMPARE(recorder.texts(QtWarningMsg), QStringList());

        // Settings applied again once it is back (the show would find it
        // by itself within half a minute): the slides.
        QVERIFY(QDir().mkpath(dirPath));
        TestUtils::writeSolidImage(dirPath, QStringLiteral("z.png"), QSize(64, 48), green);
        host.show->setProperty(host.show->property());
        QVERIFY(host.listed());
        QCOMPARE(inspect(host.label()).files(), QStringList{QDir(dirPath).filePath(QStringLiteral("z.png"))});
        QTRY_VERIFY_WITH_TIMEOUT(TestUtils::fuzzyColor(host.centre(), green, 1), slowTimeout);
    }

    void destroyedWhileTheWorkerPreparesALargeImage()
    {
#ifdef ZAV_THREAD_SANITIZER
        QSKIP("Qt scales a large image on its own uninstrumented thread pool, which ThreadSanitizer cannot follow.");
#endif
        if (m_largeImage.isEmpty()) {
            // Created once: a busy 8000 x 6000 picture that takes a while to
            // decode and to scale.
            QVERIFY(m_large.isValid());
            QImage image(8000, 6000, QImage::Format_RGB32);
            for (int y = 0; y < image.height(); ++y) {
                auto *line = reinterpret_cast<QRgb *>(image.scanLine(y));
                for (int x = 0; x < image.width(); ++x) {
                    line[x] = qRgb((x * 7 + y) & 0xff, (x ^ y) & 0xff, (x * y) & 0xff);
                }
            }
            QImageWriter writer(QDir(m_large.path()).filePath(QStringLiteral("large.png")), "png");
            writer.setCompression(1);
            QVERIFY2(writer.write(image), qPrintable(writer.errorString()));
            m_largeImage = writer.fileName();
        }

        auto recording = std::make_unique<LogRecorder>();
        LogRecorder &recorder = *recording;
        auto host = std::make_unique<Host>(m_large.path());
        QPointer<ImageCacheWorker> worker = inspect(host->label()).worker();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(QStringLiteral("ImageCacheWorker: internal image processing: ") + quoted(m_largeImage)) >= 1, slowTimeout);

        // The decoding ends at the next read of the file: the label's
        // shutdown does not reach its time-out.
        qint64 elapsed = 0;
        const QString problem = destroyedQuickly(host, recorder, worker, &elapsed);
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
        // Either way the worker is deleted in its thread in the end.
        QTRY_VERIFY_WITH_TIMEOUT(worker.isNull(), 120000);
        // Said after the recorder, which would keep it.
        recording.reset();
        qInfo("destroyed in %lld ms", elapsed);
    }

    void destroyedWhileTheWorkerHangsOnANamedPipe()
    {
        ShowWithPipe show;
        QVERIFY(startShowWithPipe(show));
        const QStringList &paths = show.paths;
        auto &recording = show.recording;
        LogRecorder &recorder = *recording;
        auto &host = show.host;
        // The worker waits in open() for a writer.
        PipeReleaser releaser(show.pipe());
        QPointer<ImageCacheWorker> worker = inspect(host->label()).worker();
        host->label()->setNext();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(QStringLiteral("ImageCacheWorker: internal image processing: ") + quoted(paths.at(2))) >= 1, slowTimeout);

        // Blocked in open() inside the kernel, where nothing can end the
        // read early: the label returns at once all the same, and leaves the
        // thread to end when the read does.
        QElapsedTimer timer;
        timer.start();
        host.reset();
        const qint64 elapsed = timer.elapsed();
        QVERIFY2(elapsed < 1000, qPrintable(QString::number(elapsed)));
        QCOMPARE(recorder.count(shutdownWarning), 0);
        QVERIFY(!worker.isNull());

        // Released, the worker's read ends, and with it the preparation
        // nobody wants any more; its thread ends and deletes it.
        releaser.release();
        QTRY_VERIFY_WITH_TIMEOUT(worker.isNull(), slowTimeout);
        QCOMPARE(recorder.count(loadWarning(paths.at(2))), 0);
        // Said after the recorder, which would keep it.
        recording.reset();
        qInfo("destroyed in %lld ms", elapsed);
    }

    void newSettingsReturnWhileTheWorkerHangsAndTheShowResumes()
    {
        QTemporaryDir other;
        QVERIFY(other.isValid());
        TestUtils::writeSolidImage(other.path(), QStringLiteral("y1.png"), QSize(64, 48), yellow);
        TestUtils::writeSolidImage(other.path(), QStringLiteral("y2.png"), QSize(64, 48), green);
        ShowWithPipe show;
        QVERIFY(startShowWithPipe(show));
        const QStringList &paths = show.paths;
        auto &recording = show.recording;
        LogRecorder &recorder = *recording;
        auto &host = show.host;
        // The worker hangs in open() when the next step asks for the pipe.
        // The pipe is released by the test below, or after 15 s on its own:
        // a GUI thread that waited for the worker would find it released.
        PipeReleaser releaser(show.pipe(), 15000);
        QPointer<ImageCacheWorker> worker = inspect(host->label()).worker();
        host->label()->setNext();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(QStringLiteral("ImageCacheWorker: internal image processing: ") + quoted(paths.at(2))) >= 1, slowTimeout);

        // A new directory and a new mode (two clearings), then a resize (a
        // third): each returns at once while the worker still hangs.
        QElapsedTimer timer;
        timer.start();
        host->show->setProperty(TestUtils::settingsMap(other.path(), 3600, 0, int(Center)));
        const qint64 settings = timer.elapsed();
        QVERIFY(host->listed());
        QVERIFY(!releaser.released());
        timer.restart();
        host->refill();
        const qint64 resize = timer.elapsed();
        QVERIFY(!releaser.released());
        // Within seconds, where waiting for the worker would take until the
        // release: a wide margin for loaded machines and sanitizer builds.
        QVERIFY2(settings < 5000, qPrintable(QString::number(settings)));
        QVERIFY2(resize < 5000, qPrintable(QString::number(resize)));
        QCOMPARE(inspect(host->label()).files().size(), 2);

        // Once the hang ends, the show goes on with the new directory in
        // the new mode: the small yellow slide centred on black.
        releaser.release();
        QTRY_VERIFY_WITH_TIMEOUT(TestUtils::fuzzyColor(host->centre(), yellow, 1), slowTimeout);
        const QImage shown = host->show->grab().toImage().convertToFormat(QImage::Format_ARGB32);
        QVERIFY(TestUtils::fuzzyColor(shown.pixel(5, 5), black, 1));
        // The pipe's preparation was dropped, never shown or warned about.
        QCOMPARE(recorder.count(loadWarning(paths.at(2))), 0);

        timer.restart();
        host.reset();
        const qint64 destroying = timer.elapsed();
        QVERIFY2(destroying < 1000, qPrintable(QString::number(destroying)));
        QCOMPARE(recorder.count(shutdownWarning), 0);
        QTRY_VERIFY_WITH_TIMEOUT(worker.isNull(), slowTimeout);
        recording.reset();
        qInfo("while the worker hung: new settings took %lld ms, a resize %lld ms; destroyed in %lld ms", settings, resize, destroying);
    }

    void destroyedWhileTheWorkerReadsASlowFile()
    {
        ShowWithPipe show;
        QVERIFY(startShowWithPipe(show));
        auto &recording = show.recording;
        LogRecorder &recorder = *recording;
        auto &host = show.host;
        // The pipe delivers a picture over 10 s.
        SlowFeeder feeder(show.pipe(), PipeTest::noisyPng(QSize(400, 300)), 100, 100);
        QPointer<ImageCacheWorker> worker = inspect(host->label()).worker();
        host->label()->setNext();
        QTRY_VERIFY_WITH_TIMEOUT(feeder.started(), slowTimeout);

        // The read ends at the next piece.
        qint64 destroying = 0;
        const QString problem = destroyedQuickly(host, recorder, worker, &destroying);
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
        QTRY_VERIFY_WITH_TIMEOUT(feeder.readerLeft(), slowTimeout);
        recording.reset();
        qInfo("destroyed in %lld ms while a file of 10 s was being read", destroying);
    }

    void destroyedWhileTheWorkerDecodesASlowJpeg()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        // Over two minutes to decode in full.
        const QString path = TestUtils::writeManyScanJpeg(dir.path(), QStringLiteral("many-scans.jpg"), 4096, 100000);
        QVERIFY(!path.isEmpty());
        auto recording = std::make_unique<LogRecorder>();
        LogRecorder &recorder = *recording;
        auto host = std::make_unique<Host>(dir.path());
        QPointer<ImageCacheWorker> worker = inspect(host->label()).worker();
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(QStringLiteral("ImageCacheWorker: internal image processing: ") + quoted(path)) >= 1, slowTimeout);
        // Well into the decoding.
        QTest::qWait(500);

        qint64 destroying = 0;
        const QString problem = destroyedQuickly(host, recorder, worker, &destroying);
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
        // Stopped, not given up: no warning about the file.
        QCOMPARE(recorder.count(loadWarning(path)), 0);
        recording.reset();
        qInfo("destroyed in %lld ms during a decode of minutes", destroying);
    }
};

QTEST_MAIN(FaultTest)

#include "faulttest.moc"
