/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The folder as a live thing: listed off the GUI thread, also when it hangs
// like a network share whose server went away (a FUSE folder of the tests'
// own) or holds 100,000 files; followed while the show runs, so that photos
// added, removed or replaced join or leave the show at their turn; and a
// screensaver that is destroyed whatever a listing or a read is doing.

#include "fusefolder.h"
#include "showhost.h"
#include "slidelabel/slidefolder.h"
#include "slidelabeltesthelpers.h"

#include <QBuffer>
#include <QElapsedTimer>
#include <QFile>
#include <QSaveFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QVariantAnimation>

#include <memory>
#include <thread>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::FuseFolder;
using TestUtils::LogRecorder;
using TestUtils::ShowHost;

namespace
{
const int slowTimeout = 30000;

QColor colourOf(int index)
{
    return QColor::fromHsv((index * 71) % 360, 220, 230);
}

// Solid images named after their letters, each in its own colour: a is
// colourOf(0), b colourOf(1) and so on.
QStringList writeLetters(const QString &directory, const QString &letters)
{
    QStringList paths;
    for (const QChar letter : letters) {
        const int index = letter.unicode() - 'a';
        paths.append(TestUtils::writeSolidImage(directory, QString(letter) + QStringLiteral(".png"), QSize(32, 24), colourOf(index)));
    }
    return paths;
}

QString pathOf(const QString &directory, QChar letter)
{
    return QDir(directory).filePath(QString(letter) + QStringLiteral(".png"));
}

// The longest time between two turns of the event loop over a while.
qint64 longestEventLoopGap(int milliseconds)
{
    QElapsedTimer clock;
    clock.start();
    qint64 last = 0;
    qint64 longest = 0;
    QTimer ticks;
    ticks.setTimerType(Qt::PreciseTimer);
    QObject::connect(&ticks, &QTimer::timeout, &ticks, [&] {
        const qint64 now = clock.elapsed();
        longest = qMax(longest, now - last);
        last = now;
    });
    ticks.start(5);
    QTest::qWait(milliseconds);
    return qMax(longest, clock.elapsed() - last);
}

bool uniformlyBlack(const QImage &image)
{
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if ((image.pixel(x, y) & 0xffffff) != 0) {
                return false;
            }
        }
    }
    return true;
}

// Waits until every thread of the slide displays has ended.
bool threadsEnded()
{
    return QTest::qWaitFor(
        [] {
            return runningSlideThreads() == 0;
        },
        slowTimeout);
}

QString leftLine(const QString &path)
{
    return QStringLiteral("SlideLabel: Image left the show: ") + TestUtils::quoted(path);
}

const QString listedPrefix = QStringLiteral("SlideLabel: Directory listed, images: ");
}

class LiveFolderTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        TestUtils::setSlideShowDebugEnabled(true);
    }

    void cleanup()
    {
        // Nothing of one test's shows outlives it.
        QVERIFY(threadsEnded());
    }

    // A folder whose listing hangs (a network share whose server went
    // away): the settings return at once, the event loop keeps turning, and
    // nothing is drawn, neither a slide nor the message, until the listing
    // comes; then the first slide.
    void heldListingHoldsNothingElse()
    {
        FuseFolder fuse;
        if (!fuse.error().isEmpty()) {
            QSKIP(qPrintable(fuse.error()));
        }
        writeLetters(fuse.backing(), QStringLiteral("abc"));
        fuse.holdListings(true);
        ShowHost host;
        QElapsedTimer timer;
        timer.start();
        host.apply(fuse.path());
        const qint64 returned = timer.elapsed();
        QVERIFY2(returned < 100, qPrintable(QStringLiteral("setProperty took %1 ms").arg(returned)));
        QTRY_COMPARE(fuse.waitingListings(), 1);

        const qint64 gap = longestEventLoopGap(500);
        QVERIFY2(gap <= 50, qPrintable(QStringLiteral("the event loop stood still for %1 ms").arg(gap)));
        QVERIFY(inspect(host.label()).awaitingListing());
        QVERIFY(uniformlyBlack(host.frame()));

        fuse.holdListings(false);
        QVERIFY(host.shows(colourOf(0)));
        qInfo("setProperty returned after %lld ms; longest gap of the event loop while the listing hung: %lld ms", returned, gap);
    }

    // A second folder set while the listing of the first still hangs is
    // shown at once; the late listing changes nothing when it comes.
    void laterFolderIsShownWhileTheFirstHangs()
    {
        FuseFolder fuse;
        if (!fuse.error().isEmpty()) {
            QSKIP(qPrintable(fuse.error()));
        }
        writeLetters(fuse.backing(), QStringLiteral("ab"));
        QTemporaryDir good;
        QVERIFY(good.isValid());
        const QStringList goodPaths = writeLetters(good.path(), QStringLiteral("cd"));
        LogRecorder log;
        fuse.holdListings(true);
        ShowHost host;
        host.apply(fuse.path());
        QTRY_COMPARE(fuse.waitingListings(), 1);
        host.apply(good.path());
        QVERIFY(host.listed());
        QCOMPARE(inspect(host.label()).files(), goodPaths);
        QVERIFY(host.shows(colourOf(2)));

        fuse.holdListings(false);
        // The late listing's thread ends; the show's cache thread and the
        // watcher of its local folder stay.
        QTRY_COMPARE_WITH_TIMEOUT(runningSlideThreads(), 2, slowTimeout);
        QCoreApplication::processEvents();
        QCOMPARE(inspect(host.label()).files(), goodPaths);
        QVERIFY(host.shows(colourOf(2)));
        QCOMPARE(log.count(listedPrefix + QStringLiteral("2")), 1);
    }

    // 100,001 files (one image, then empty ones): listed, sorted and looked
    // at off the GUI thread; the show takes the first 100,000 and says so.
    void hundredThousandFilesAreListedOffTheGuiThread()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        writeLetters(dir.path(), QStringLiteral("a"));
        for (int i = 1; i <= 100000; ++i) {
            QFile empty(QDir(dir.path()).filePath(QStringLiteral("x%1.jpg").arg(i, 6, 10, QLatin1Char('0'))));
            QVERIFY(empty.open(QIODevice::WriteOnly));
        }
        LogRecorder log;
        ShowHost host;
        QElapsedTimer timer;
        timer.start();
        host.apply(dir.path());
        const qint64 returned = timer.elapsed();
        QVERIFY2(returned < 100, qPrintable(QStringLiteral("setProperty took %1 ms").arg(returned)));
        QVERIFY(host.listed(slowTimeout));
        QCOMPARE(log.count(listedPrefix + QStringLiteral("100000")), 1);
        QCOMPARE(log.count(QStringLiteral("SlideLabel: More images than the show takes, only the first are shown: 100000")), 1);
        QCOMPARE(inspect(host.label()).files().last(), QDir(dir.path()).filePath(QStringLiteral("x099999.jpg")));
        QVERIFY(host.shows(colourOf(0)));
        qInfo("setProperty returned after %lld ms", returned);
    }

    void changesJoinAtTheirTurn_data()
    {
        QTest::addColumn<bool>("network");
        // A watcher reports the changes of a local folder: they join about
        // two seconds after they were made.
        QTest::newRow("local folder") << false;
        // A network share reports nothing: they join when the round ends.
        QTest::newRow("FUSE folder") << true;
    }

    // An image added, one removed and one replaced during the show: each is
    // seen, or gone, at its turn. A removed image is never drawn again, not
    // even from the cache, and a replaced one is prepared afresh.
    void changesJoinAtTheirTurn()
    {
        QFETCH(bool, network);
        std::unique_ptr<FuseFolder> fuse;
        QTemporaryDir local;
        QString backing = local.path();
        QString shown = local.path();
        if (network) {
            fuse = std::make_unique<FuseFolder>();
            if (!fuse->error().isEmpty()) {
                QSKIP(qPrintable(fuse->error()));
            }
            backing = fuse->backing();
            shown = fuse->path();
        }
        writeLetters(backing, QStringLiteral("aceg"));
        LogRecorder log;
        ShowHost host;
        host.apply(shown);
        QVERIFY(host.shows(colourOf(0)));
        QVERIFY(waitUntilIdle(host.worker()));
        // Every slide of the round is in the cache from here on.
        const auto round = [&host] {
            for (int i = 0; i < inspect(host.label()).files().size(); ++i) {
                host.show->updateSlide();
            }
        };
        round();
        QVERIFY(host.shows(colourOf(0)));
        // The listing that the end of the round asked for has come.
        QTRY_COMPARE(log.count(listedPrefix + QStringLiteral("4")), 2);

        // b joins after a, e leaves, a is replaced by another colour.
        writeLetters(backing, QStringLiteral("b"));
        QVERIFY(QFile::remove(pathOf(backing, QLatin1Char('e'))));
        QSaveFile replacement(pathOf(backing, QLatin1Char('a')));
        QVERIFY(replacement.open(QIODevice::WriteOnly));
        QImage red(32, 24, QImage::Format_RGB32);
        red.fill(colourOf(7));
        QVERIFY(red.save(&replacement, "PNG"));
        QVERIFY(replacement.commit());
        if (network) {
            // Nothing is reported: the show learns it at the end of the
            // round, which a listing starts.
            QCoreApplication::processEvents();
            QCOMPARE(inspect(host.label()).files().size(), 4);
            round();
        }
        const QStringList expected{pathOf(shown, QLatin1Char('a')),
                                   pathOf(shown, QLatin1Char('b')),
                                   pathOf(shown, QLatin1Char('c')),
                                   pathOf(shown, QLatin1Char('g'))};
        QTRY_COMPARE_WITH_TIMEOUT(inspect(host.label()).files(), expected, slowTimeout);
        QCOMPARE(log.count(QStringLiteral("SlideLabel: Image joined the show: ") + TestUtils::quoted(expected.at(1))), 1);
        QCOMPARE(log.count(leftLine(pathOf(shown, QLatin1Char('e')))), 1);

        // At their turns: b after a, then c, then g (e's turn is gone), then
        // the new a.
        const QList<int> turns{1, 2, 6, 7};
        for (int colour : turns) {
            host.show->updateSlide();
            QVERIFY2(host.shows(colourOf(colour)), qPrintable(QStringLiteral("expected colour %1").arg(colour)));
        }
        QCOMPARE(inspect(host.label()).currentImage(), expected.at(0));
    }

    // The slide on screen removed: it stays until the next switch and is
    // never drawn after it, not even fading out.
    void removedCurrentSlideGoesAtTheNextSwitch()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        writeLetters(dir.path(), QStringLiteral("abc"));
        LogRecorder log;
        ShowHost host;
        host.apply(dir.path(), 3600, 1000);
        QVERIFY(host.shows(colourOf(0)));
        QVERIFY(waitUntilIdle(host.worker()));

        QVERIFY(QFile::remove(pathOf(dir.path(), QLatin1Char('a'))));
        QTRY_COMPARE_WITH_TIMEOUT(log.count(leftLine(pathOf(dir.path(), QLatin1Char('a')))), 1, slowTimeout);
        QCOMPARE(inspect(host.label()).files().size(), 2);
        QVERIFY(host.shows(colourOf(0)));

        host.show->updateSlide();
        QVariantAnimation *fade = inspect(host.show).fadeAnimation();
        fade->pause();
        fade->setCurrentTime(fade->duration() * 3 / 10);
        const double opacity = inspect(host.label()).currentOpacity();
        QVERIFY(opacity > 0.2 && opacity < 0.8);
        QVERIFY(waitUntilIdle(host.worker()));
        // Only b over the black background: a is not drawn.
        const QColor expected = QColor::fromRgba(TestUtils::crossFadePixel(Qt::black, Qt::black, colourOf(1), opacity));
        QVERIFY2(TestUtils::fuzzyColor(host.centre(), expected, 2), qPrintable(QColor(host.centre()).name() + QStringLiteral(" against ") + expected.name()));
        fade->setCurrentTime(fade->duration());
        QVERIFY(host.shows(colourOf(1)));
    }

    // A file the worker finds gone (before any listing has noticed) leaves
    // the show as a listing would take it out: without a black slide or a
    // warning, and said once, also when the listing comes.
    void fileGoneWhenOpenedLeavesTheShowOnce()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        writeLetters(dir.path(), QStringLiteral("abcd"));
        LogRecorder log;
        LabelPointer label(new SlideLabel);
        label->resize(240, 180);
        QVERIFY(setDirAndWait(*label, dir.path()));
        QVERIFY(waitUntilIdle(inspect(label).worker()));

        const QString gone = pathOf(dir.path(), QLatin1Char('c'));
        QVERIFY(QFile::remove(gone));
        label->setNext();
        QTRY_COMPARE(log.count(leftLine(gone)), 1);
        QCOMPARE(inspect(label).files(),
                 (QStringList{pathOf(dir.path(), QLatin1Char('a')), pathOf(dir.path(), QLatin1Char('b')), pathOf(dir.path(), QLatin1Char('d'))}));
        // The look-ahead is the image after it.
        QTRY_VERIFY(!inspect(label).slide(pathOf(dir.path(), QLatin1Char('d'))).isNull());

        // The watcher's listing finds it gone too, and says nothing more.
        QTRY_COMPARE_WITH_TIMEOUT(log.count(listedPrefix + QStringLiteral("3")), 1, slowTimeout);
        QCOMPARE(log.count(leftLine(gone)), 1);
        QVERIFY(log.texts(QtWarningMsg).isEmpty());
    }

    // A file that is still being written is left out until it has been left
    // alone for a while: the show never takes half an image.
    void slowlyWrittenFileJoinsOnceComplete()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        writeLetters(dir.path(), QStringLiteral("ac"));
        ShowHost host;
        host.apply(dir.path());
        QVERIFY(host.shows(colourOf(0)));

        QByteArray png;
        {
            QBuffer buffer(&png);
            buffer.open(QIODevice::WriteOnly);
            QImage image(320, 240, QImage::Format_RGB32);
            image.fill(colourOf(1));
            image.save(&buffer, "PNG", 100);
        }
        const QString slow = pathOf(dir.path(), QLatin1Char('b'));
        std::atomic<bool> written{false};
        // Five pieces, 700 ms apart: about three seconds of writing.
        std::thread writer([&png, &slow, &written] {
            QFile file(slow);
            file.open(QIODevice::WriteOnly);
            const int piece = png.size() / 5 + 1;
            for (int offset = 0; offset < png.size(); offset += piece) {
                file.write(png.mid(offset, piece));
                file.flush();
                std::this_thread::sleep_for(std::chrono::milliseconds(700));
            }
            file.close();
            written = true;
        });
        bool takenEarly = false;
        while (!written) {
            takenEarly = takenEarly || inspect(host.label()).files().contains(slow);
            QTest::qWait(50);
        }
        writer.join();
        QVERIFY(!takenEarly);
        QTRY_VERIFY_WITH_TIMEOUT(inspect(host.label()).files().contains(slow), slowTimeout);
        host.show->updateSlide();
        QVERIFY(host.shows(colourOf(1)));
    }

    // A network share not mounted yet when the greeter starts: the message,
    // then the show, once the folder is there, within half a minute.
    void missingFolderStartsTheShowWhenItAppears()
    {
        QTemporaryDir parent;
        QVERIFY(parent.isValid());
        const QString later = QDir(parent.path()).filePath(QStringLiteral("later"));
        LogRecorder log;
        ShowHost host;
        host.apply(later);
        QVERIFY(host.listed());
        QVERIFY(inspect(host.label()).files().isEmpty());
        QVERIFY(QDir().mkpath(later));
        writeLetters(later, QStringLiteral("ab"));
        QElapsedTimer waited;
        waited.start();
        QVERIFY(host.shows(colourOf(0), SlideFolder::missingRetry + slowTimeout));
        // Said once, not at every look.
        QCOMPARE(
            log.count(TestUtils::quoted(QStringLiteral("SlideLabel: The specified directory (%1) does not exist or does not contain image files.").arg(later))),
            1);
        qInfo("shown %lld ms after the folder appeared", waited.elapsed());
    }

    // The end of a round asks for a listing; while one of a hung folder is
    // pending, another is not started.
    void relistingOfAHungFolderIsNotStartedTwice()
    {
        FuseFolder fuse;
        if (!fuse.error().isEmpty()) {
            QSKIP(qPrintable(fuse.error()));
        }
        writeLetters(fuse.backing(), QStringLiteral("ab"));
        ShowHost host;
        host.apply(fuse.path());
        QVERIFY(host.shows(colourOf(0)));
        fuse.holdListings(true);
        // Two rounds of two images: two ends of a round.
        for (int i = 0; i < 4; ++i) {
            host.show->updateSlide();
        }
        QTRY_COMPARE(fuse.waitingListings(), 1);
        QCOMPARE(runningSlideThreads(), 2);
        fuse.holdListings(false);
        QTRY_COMPARE(fuse.waitingListings(), 0);
        QCOMPARE(inspect(host.label()).files().size(), 2);
    }

    void destroyedWhileHeldReturnsAtOnce_data()
    {
        QTest::addColumn<bool>("listing");
        QTest::newRow("a listing held") << true;
        QTest::newRow("a read held") << false;
    }

    // The user has typed the password while the folder hangs: the
    // screensaver goes at once, and its threads end without touching it
    // when the hang ends (the address sanitizer's build checks that, and
    // that nothing leaks).
    void destroyedWhileHeldReturnsAtOnce()
    {
        QFETCH(bool, listing);
        FuseFolder fuse;
        if (!fuse.error().isEmpty()) {
            QSKIP(qPrintable(fuse.error()));
        }
        writeLetters(fuse.backing(), QStringLiteral("abc"));
        auto host = std::make_unique<ShowHost>();
        if (listing) {
            fuse.holdListings(true);
            host->apply(fuse.path());
            QTRY_COMPARE(fuse.waitingListings(), 1);
        } else {
            fuse.holdReads(true);
            host->apply(fuse.path());
            QTRY_VERIFY(fuse.waitingReads() >= 1);
        }
        QElapsedTimer timer;
        timer.start();
        host.reset();
        const qint64 destroying = timer.elapsed();
        QVERIFY2(destroying < 100, qPrintable(QStringLiteral("destroyed in %1 ms").arg(destroying)));
        QVERIFY(runningSlideThreads() > 0);

        fuse.holdListings(false);
        fuse.holdReads(false);
        QVERIFY(threadsEnded());
        qInfo("destroyed in %lld ms", destroying);
    }

    // After a hang over several switches the worker starts with the slide
    // on the screen, not with the look-aheads of the switches it missed.
    void afterAHangTheSlideOnScreenComesFirst()
    {
        FuseFolder fuse;
        if (!fuse.error().isEmpty()) {
            QSKIP(qPrintable(fuse.error()));
        }
        writeLetters(fuse.backing(), QStringLiteral("abcdefgh"));
        LabelPointer label(new SlideLabel);
        label->resize(240, 180);
        QVERIFY(setDirAndWait(*label, fuse.path()));
        QVERIFY(waitUntilIdle(inspect(label).worker()));

        fuse.holdReads(true);
        // b is on screen; the look-ahead c hangs in its read.
        label->setNext();
        QTRY_VERIFY(fuse.waitingReads() >= 1);
        // Four more switches: f on screen, look-aheads d, e, f and g queued.
        for (int i = 0; i < 4; ++i) {
            label->setNext();
        }
        QCOMPARE(inspect(label).currentImage(), pathOf(fuse.path(), QLatin1Char('f')));
        const int started = snapshotOf(inspect(label).worker()).preparationsStarted;
        QStringList reported;
        QObject context;
        connect(inspect(label).worker(), &ImageCacheWorker::imageCached, &context, [&reported](const QString &path, const QPixmap &pixmap) {
            if (!pixmap.isNull()) {
                reported.append(path);
            }
        });

        fuse.holdReads(false);
        QTRY_VERIFY(reported.size() >= 3);
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        // The slide on screen, the next one, the one it fades from; nothing
        // else is decoded.
        QCOMPARE(reported, (QStringList{pathOf(fuse.path(), QLatin1Char('f')), pathOf(fuse.path(), QLatin1Char('g')), pathOf(fuse.path(), QLatin1Char('e'))}));
        QCOMPARE(snapshotOf(inspect(label).worker()).preparationsStarted - started, 3);
    }
};

int main(int argc, char **argv)
{
    return TestUtils::runWidgetTest<LiveFolderTest>(argc, argv);
}

#include "livefoldertest.moc"
