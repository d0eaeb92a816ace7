/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// What a person sees in the middle of a fade: the screensaver in a host's
// window, in folders of more images than the cache keeps, after the host's
// first resize and after a change of the fitting mode; transparency showing
// what lies beneath, a fade that waits for a slow slide, and a paint that
// never takes the worker's lock. (The weights of the mix over any background
// are checked on the label alone, in slidelabelpainttest.)

#include "fusefolder.h"
#include "imagecache/imagecacheworker_p.h"
#include "showhost.h"
#include "slidelabeltesthelpers.h"

#include <QElapsedTimer>
#include <QMap>
#include <QTemporaryDir>
#include <QTest>
#include <QVariantAnimation>

#include <atomic>
#include <memory>
#include <thread>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::ShowHost;

namespace
{
// Neighbours in the folder differ in hue by far more than the fuzz below.
QColor colourOf(int index)
{
    return QColor::fromHsv((index * 47) % 360, 220, 230);
}
}

class CrossFadeTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    // Folders of 11, 12 and 30 images, each image a colour of its own.
    QMap<int, QString> m_folders;
    std::unique_ptr<TestUtils::LogRecorder> m_log;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // Catches the line about the default folder, missing here.
        m_log.reset(new TestUtils::LogRecorder);
        for (int count : {11, 12, 30}) {
            const QString folder = m_dir.filePath(QString::number(count));
            QVERIFY(QDir().mkpath(folder));
            for (int i = 0; i < count; ++i) {
                // Small: Crop and Stretch scale them up to any screen.
                QVERIFY(!TestUtils::writeSolidImage(folder, QStringLiteral("%1.png").arg(i, 2, 10, QLatin1Char('0')), QSize(32, 18), colourOf(i)).isEmpty());
            }
            m_folders.insert(count, folder);
        }
    }

    void middleOfAFadeShowsBothSlides_data()
    {
        QTest::addColumn<int>("images");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("modeChange");
        for (int images : {11, 12, 30}) {
            for (const QSize &size : {QSize(320, 180), QSize(3840, 2160)}) {
                for (bool modeChange : {false, true}) {
                    const QString name = QStringLiteral("%1 images at %2x%3%4")
                                             .arg(images)
                                             .arg(size.width())
                                             .arg(size.height())
                                             .arg(modeChange ? QStringLiteral(", after a mode change") : QString());
                    QTest::newRow(qPrintable(name)) << images << size << modeChange;
                }
            }
        }
    }

    // More images than ten (or than fit at 4K) leave three slides in the
    // cache: the previous, the current and the next. The fade needs the
    // previous one until its end, whatever the order in which the cache was
    // filled.
    void middleOfAFadeShowsBothSlides()
    {
        QFETCH(int, images);
        QFETCH(QSize, size);
        QFETCH(bool, modeChange);

        // The switches are made by the test, never by the timer.
        ShowHost host(size);
        host.apply(m_folders.value(images), 3600, 1000, Crop);
        QVERIFY(host.shows(colourOf(0)));
        if (modeChange) {
            host.apply(m_folders.value(images), 3600, 1000, Stretch);
            QVERIFY(waitUntilIdle(host.worker()));
            QVERIFY(host.shows(colourOf(0)));
        }
        QCOMPARE(snapshotOf(host.worker()).capacity, 3);

        QVariantAnimation *fade = inspect(host.show).fadeAnimation();
        for (int slide = 1; slide <= 2; ++slide) {
            // As in a show, the slide to come is ready before its switch.
            QVERIFY(waitUntilIdle(host.worker()));
            host.show->updateSlide();
            fade->pause();
            // Where the eased fade gives both slides about half the weight.
            fade->setCurrentTime(fade->duration() * 3 / 10);
            const double opacity = inspect(host.label()).currentOpacity();
            QVERIFY(opacity > 0.4 && opacity < 0.6);
            // The next look-ahead is stored meanwhile.
            QVERIFY(waitUntilIdle(host.worker()));

            const QRgb centre = host.centre();
            const QColor expected = QColor::fromRgba(TestUtils::crossFadePixel(Qt::black, colourOf(slide - 1), colourOf(slide), opacity));
            // Two 8-bit draws, each rounding once.
            QVERIFY2(TestUtils::fuzzyColor(centre, expected, 2),
                     qPrintable(QStringLiteral("fade %1 at %2: centre %3, expected %4").arg(slide).arg(opacity).arg(QColor(centre).name(), expected.name())));
            fade->setCurrentTime(fade->duration());
            QCOMPARE(fade->state(), QAbstractAnimation::Stopped);
            QVERIFY(TestUtils::fuzzyColor(host.centre(), colourOf(slide), 1));
        }
    }

    // A transparent slide shows the previous one through its transparency
    // while it fades in, and the host's background once the fade is over.
    void transparentSlideShowsWhatLiesBeneath()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        TestUtils::writeSolidImage(dir.path(), QStringLiteral("a.png"), QSize(32, 18), colourOf(0));
        // Transparent on its left half, opaque on its right one.
        QImage half(32, 18, QImage::Format_ARGB32);
        half.fill(Qt::transparent);
        for (int y = 0; y < 18; ++y) {
            for (int x = 16; x < 32; ++x) {
                half.setPixelColor(x, y, colourOf(1));
            }
        }
        TestUtils::writeImage(dir.path(), QStringLiteral("b.png"), half);
        ShowHost host(QSize(320, 180), Qt::white);
        // Stretched, so that the halves stay halves.
        host.apply(dir.path(), 3600, 1000, Stretch);
        QVERIFY(host.shows(colourOf(0)));
        QVERIFY(waitUntilIdle(host.worker()));
        host.show->updateSlide();
        QVariantAnimation *fade = inspect(host.show).fadeAnimation();
        fade->pause();
        fade->setCurrentTime(fade->duration() * 3 / 10);
        const double o = inspect(host.label()).currentOpacity();
        const QPoint left(40, 90);
        const QPoint right(280, 90);
        QVERIFY(TestUtils::fuzzyColor(host.at(left), colourOf(0), 2));
        const QColor mix = QColor::fromRgba(TestUtils::crossFadePixel(Qt::white, colourOf(0), colourOf(1), o));
        QVERIFY(TestUtils::fuzzyColor(host.at(right), mix, 2));
        fade->setCurrentTime(fade->duration());
        QVERIFY(TestUtils::fuzzyColor(host.at(left), Qt::white, 0));
        QVERIFY(TestUtils::fuzzyColor(host.at(right), colourOf(1), 2));
    }

    void fadeWaitsForItsSlide_data()
    {
        QTest::addColumn<bool>("longerThanAnInterval");
        QTest::newRow("ready within the interval") << false;
        QTest::newRow("held longer than an interval") << true;
    }

    // The switch to a slide that is not ready (a slow file): the fade starts
    // when the slide comes, at most one interval after the switch; until
    // then, and until the slide comes, the previous one stays at full
    // weight (the first design faded towards nothing).
    void fadeWaitsForItsSlide()
    {
        QFETCH(bool, longerThanAnInterval);
        TestUtils::FuseFolder fuse;
        if (!fuse.error().isEmpty()) {
            QSKIP(qPrintable(fuse.error()));
        }
        for (int i = 0; i < 3; ++i) {
            TestUtils::writeSolidImage(fuse.backing(), QStringLiteral("%1.png").arg(i), QSize(32, 18), colourOf(i));
        }
        ShowHost host;
        host.apply(fuse.path(), 2, 400);
        QVERIFY(host.shows(colourOf(0)));
        QVERIFY(waitUntilIdle(host.worker()));
        QVariantAnimation *fade = inspect(host.show).fadeAnimation();
        // The look-ahead of this switch hangs in its read.
        fuse.holdReads(true);
        host.show->updateSlide();
        QCOMPARE(fade->state(), QAbstractAnimation::Running);
        QTRY_VERIFY(fuse.waitingReads() >= 1);
        QTRY_COMPARE(fade->state(), QAbstractAnimation::Stopped);
        host.show->stop();

        QElapsedTimer clock;
        clock.start();
        host.show->updateSlide();
        QCOMPARE(fade->state(), QAbstractAnimation::Stopped);
        QCOMPARE(inspect(host.label()).currentOpacity(), 0.0);
        QVERIFY(host.shows(colourOf(1)));
        if (!longerThanAnInterval) {
            fuse.holdReads(false);
            QTRY_VERIFY(fade->state() == QAbstractAnimation::Running || inspect(host.label()).currentOpacity() == 1.0);
            QVERIFY(clock.elapsed() < 2000);
        } else {
            // Still held: after the interval the fade runs all the same,
            // with nothing to fade in yet.
            QTRY_COMPARE_WITH_TIMEOUT(fade->state(), QAbstractAnimation::Running, 5000);
            QVERIFY(clock.elapsed() >= 1900);
            QVERIFY(fuse.waitingReads() >= 1);
            QVERIFY(host.shows(colourOf(1)));
            fuse.holdReads(false);
        }
        QVERIFY(host.shows(colourOf(2)));
        host.show->stop();
    }

    // Painting never waits for the worker: it draws the label's own copies
    // of the slides, also while another thread holds the worker's lock.
    void paintTakesNoLock()
    {
        ShowHost host;
        host.apply(m_folders.value(11), 3600, 1000);
        QVERIFY(host.shows(colourOf(0)));
        QVERIFY(waitUntilIdle(host.worker()));
        std::atomic<bool> holding{false};
        std::atomic<bool> release{false};
        ImageCacheWorker *worker = host.worker();
        std::thread holder([&] {
            const auto lock = ImageCacheWorkerAccess::lock(worker);
            holding = true;
            // Released by the test, or after a while if the paint waited.
            QElapsedTimer held;
            held.start();
            while (!release && held.elapsed() < 10000) {
                std::this_thread::yield();
            }
        });
        QTRY_VERIFY(holding.load());
        QElapsedTimer clock;
        clock.start();
        const QRgb centre = host.centre();
        const qint64 painting = clock.elapsed();
        release = true;
        holder.join();
        QVERIFY2(painting < 1000, qPrintable(QStringLiteral("the paint took %1 ms").arg(painting)));
        QVERIFY(TestUtils::fuzzyColor(centre, colourOf(0), 2));
    }
};

int main(int argc, char **argv)
{
    return TestUtils::runWidgetTest<CrossFadeTest>(argc, argv);
}

#include "crossfadetest.moc"
