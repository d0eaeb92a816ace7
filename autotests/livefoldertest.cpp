/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The folder as a live thing: listed off the GUI thread, also when it hangs like a network share
// whose server went away (the tests' own FUSE folder) or holds 100,000 files; followed while the
// show runs; and the screensaver destroyed at once whatever a listing or a read is doing.

#include "fusefolder.h"
#include "showhost.h"
#include "slidelabel/slidefolder.h"
#include "slidelabeltesthelpers.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSaveFile>
#include <QScopedValueRollback>
#include <QTemporaryDir>
#include <QTimer>
#include <QVariantAnimation>

#include <thread>

#include <unistd.h>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::FuseFolder;
using TestUtils::LogRecorder;
using TestUtils::logText;
using TestUtils::ShowHost;

namespace
{
const int slowTimeout = 30000;

QColor colourOf(int index)
{
    return QColor::fromHsv((index * 71) % 360, 220, 230);
}

// The images named after the letters: a.png, b.png and so on.
QStringList pathsOf(const QString &directory, const QByteArray &letters)
{
    QStringList paths;
    for (const char letter : letters) {
        paths.append(QDir(directory).filePath(QLatin1Char(letter) + QStringLiteral(".png")));
    }
    return paths;
}

QString pathOf(const QString &directory, char letter)
{
    return pathsOf(directory, QByteArray(1, letter)).first();
}

// Writes them solid: a in colourOf(0), b in colourOf(1) and so on.
QStringList writeLetters(const QString &directory, const QByteArray &letters)
{
    for (const char letter : letters) {
        TestUtils::writeSolidImage(directory, QLatin1Char(letter) + QStringLiteral(".png"), QSize(32, 24), colourOf(letter - 'a'));
    }
    return pathsOf(directory, letters);
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
}

// Runs the statement, failing unless it returns within 100 ms; the variable holds the time taken.
#define RETURNS_AT_ONCE(variable, statement)                                                                                                                   \
    QElapsedTimer variable##Clock;                                                                                                                             \
    variable##Clock.start();                                                                                                                                   \
    statement;                                                                                                                                                 \
    const qint64 variable = variable##Clock.elapsed();                                                                                                         \
    QVERIFY2(variable < 100, qPrintable(QStringLiteral(#statement " took %1 ms").arg(variable)))

// Skips the test where the FUSE folder cannot be mounted; else writes the letters' images into it.
#define USE_FUSE(fuse, letters)                                                                                                                                \
    do {                                                                                                                                                       \
        if (!(fuse).error().isEmpty()) {                                                                                                                       \
            QSKIP(qPrintable((fuse).error()));                                                                                                                 \
        }                                                                                                                                                      \
        writeLetters((fuse).backing(), letters);                                                                                                               \
    } while (false)

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
        QTRY_COMPARE_WITH_TIMEOUT(runningSlideThreads(), 0, slowTimeout);
    }

    // A folder whose listing hangs (a share whose server went away): the settings return at once,
    // the event loop turns, and nothing (no slide, no message) is drawn until the listing comes; then the first slide.
    void heldListingHoldsNothingElse()
    {
        FuseFolder fuse;
        USE_FUSE(fuse, "abc");
        fuse.holdListings(true);
        ShowHost host;
        RETURNS_AT_ONCE(returned, host.apply(fuse.path()));
        QTRY_COMPARE(fuse.waitingListings(), 1);

        const qint64 gap = longestEventLoopGap(500);
        QVERIFY2(gap <= 50, qPrintable(QStringLiteral("the event loop stood still for %1 ms").arg(gap)));
        QVERIFY(inspect(host.label()).awaitingListing());
        QImage black(host.frame().size(), QImage::Format_RGB32);
        black.fill(Qt::black);
        QCOMPARE(host.frame().convertToFormat(QImage::Format_RGB32), black);

        fuse.holdListings(false);
        QVERIFY(host.shows(colourOf(0)));
        qInfo("setProperty returned after %lld ms; longest gap of the event loop while the listing hung: %lld ms", returned, gap);
    }

    // A second folder set while the first's listing hangs is shown at once; the late listing changes nothing.
    void laterFolderIsShownWhileTheFirstHangs()
    {
        FuseFolder fuse;
        USE_FUSE(fuse, "ab");
        QTemporaryDir good;
        QVERIFY(good.isValid());
        const QStringList goodPaths = writeLetters(good.path(), "cd");
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
        // The late listing's thread ends; the cache thread and the local folder's watcher stay.
        QTRY_COMPARE_WITH_TIMEOUT(runningSlideThreads(), 2, slowTimeout);
        QCoreApplication::processEvents();
        QCOMPARE(inspect(host.label()).files(), goodPaths);
        QVERIFY(host.shows(colourOf(2)));
        QCOMPARE(log.count(logText(LogText::listed, 2)), 1);
    }

    // 100,001 files (one image, then empty ones): listed, sorted and looked
    // at off the GUI thread; the show takes the first 100,000 and says so.
    void hundredThousandFilesAreListedOffTheGuiThread()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        writeLetters(dir.path(), "a");
        // Hard links of a few empty files (ext4 allows 65,000 links to one):
        // a hundred thousand files made in a moment.
        const QByteArray stem = QFile::encodeName(QDir(dir.path()).filePath(QStringLiteral("x")));
        QByteArray base;
        for (int i = 1; i <= 100000; ++i) {
            const QByteArray name = stem + QByteArray::number(i).rightJustified(6, '0') + ".jpg";
            if (i % 50000 == 1) {
                base = name;
                QVERIFY(QFile(QFile::decodeName(base)).open(QIODevice::WriteOnly));
            } else {
                QCOMPARE(::link(base.constData(), name.constData()), 0);
            }
        }
        LogRecorder log;
        ShowHost host;
        RETURNS_AT_ONCE(returned, host.apply(dir.path()));
        QVERIFY(host.listed(slowTimeout));
        QCOMPARE(log.count(logText(LogText::listed, 100000)), 1);
        QCOMPARE(log.count(logText(LogText::truncated, 100000)), 1);
        QCOMPARE(inspect(host.label()).files().last(), QDir(dir.path()).filePath(QStringLiteral("x099999.jpg")));
        QVERIFY(host.shows(colourOf(0)));
        qInfo("setProperty returned after %lld ms", returned);
    }

    void changesJoinAtTheirTurn_data()
    {
        QTest::addColumn<bool>("network");
        // A watcher reports a local folder's changes: they join about two seconds later.
        QTest::newRow("local folder") << false;
        // A network share reports nothing: they join when the round ends.
        QTest::newRow("FUSE folder") << true;
    }

    // Images added, removed and replaced during the show are seen, or gone, at their turn: a removed
    // one is never drawn again, not even from the cache; a replaced one is prepared afresh.
    void changesJoinAtTheirTurn()
    {
        QFETCH(bool, network);
        std::unique_ptr<FuseFolder> fuse;
        QTemporaryDir local;
        QString backing = local.path();
        QString shown = local.path();
        if (network) {
            fuse = std::make_unique<FuseFolder>();
            USE_FUSE(*fuse, "");
            backing = fuse->backing();
            shown = fuse->path();
        }
        writeLetters(backing, "aceg");
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
        QTRY_COMPARE(log.count(logText(LogText::listed, 4)), 2);

        // b joins after a, e leaves, a is replaced by another colour.
        writeLetters(backing, "b");
        QVERIFY(QFile::remove(pathOf(backing, 'e')));
        QSaveFile replacement(pathOf(backing, 'a'));
        QVERIFY(replacement.open(QIODevice::WriteOnly));
        QImage red(32, 24, QImage::Format_RGB32);
        red.fill(colourOf(7));
        QVERIFY(red.save(&replacement, "PNG"));
        QVERIFY(replacement.commit());
        if (network) {
            // Nothing is reported: the show learns it from the listing that ends the round.
            QCoreApplication::processEvents();
            QCOMPARE(inspect(host.label()).files().size(), 4);
            round();
        }
        const QStringList expected = pathsOf(shown, "abcg");
        QTRY_COMPARE_WITH_TIMEOUT(inspect(host.label()).files(), expected, slowTimeout);
        QCOMPARE(log.count(logText(LogText::joined, expected.at(1))), 1);
        QCOMPARE(log.count(logText(LogText::left, pathOf(shown, 'e'))), 1);

        // At their turns: b after a, then c, then g (e's turn is gone), then the new a.
        const QList<int> turns{1, 2, 6, 7};
        for (int colour : turns) {
            host.show->updateSlide();
            QVERIFY2(host.shows(colourOf(colour)), qPrintable(QStringLiteral("expected colour %1").arg(colour)));
        }
        QCOMPARE(inspect(host.label()).currentImage(), expected.at(0));
    }

    // The slide on screen removed stays until the next switch, then is never drawn, not even fading out.
    void removedCurrentSlideGoesAtTheNextSwitch()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        writeLetters(dir.path(), "abc");
        LogRecorder log;
        ShowHost host;
        host.apply(dir.path(), 3600, 1000);
        QVERIFY(host.shows(colourOf(0)));
        QVERIFY(waitUntilIdle(host.worker()));

        QVERIFY(QFile::remove(pathOf(dir.path(), 'a')));
        QTRY_COMPARE_WITH_TIMEOUT(log.count(logText(LogText::left, pathOf(dir.path(), 'a'))), 1, slowTimeout);
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

    // A file the worker finds gone (before any listing noticed) leaves the show as by a listing:
    // without a black slide or a warning, and said once, also when the listing comes.
    void fileGoneWhenOpenedLeavesTheShowOnce()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        writeLetters(dir.path(), "abcd");
        LogRecorder log;
        LabelPointer label(new SlideLabel);
        label->resize(240, 180);
        QVERIFY(setDirAndWait(*label, dir.path()));
        QVERIFY(waitUntilIdle(inspect(label).worker()));

        const QString gone = pathOf(dir.path(), 'c');
        QVERIFY(QFile::remove(gone));
        label->setNext();
        QTRY_COMPARE(log.count(logText(LogText::left, gone)), 1);
        QCOMPARE(inspect(label).files(), pathsOf(dir.path(), "abd"));
        // The look-ahead is the image after it.
        QTRY_VERIFY(!inspect(label).slide(pathOf(dir.path(), 'd')).isNull());

        // The watcher's listing finds it gone too, and says nothing more.
        QTRY_COMPARE_WITH_TIMEOUT(log.count(logText(LogText::listed, 3)), 1, slowTimeout);
        QCOMPARE(log.count(logText(LogText::left, gone)), 1);
        QVERIFY(log.texts(QtWarningMsg).isEmpty());
    }

    // A file still being written is left out until left alone a while: never half an image.
    void slowlyWrittenFileJoinsOnceComplete()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        writeLetters(dir.path(), "ac");
        ShowHost host;
        host.apply(dir.path());
        QVERIFY(host.shows(colourOf(0)));

        QTemporaryDir elsewhere;
        QFile image(TestUtils::writeSolidImage(elsewhere.path(), QStringLiteral("b.png"), QSize(320, 240), colourOf(1)));
        QVERIFY(image.open(QIODevice::ReadOnly));
        const QByteArray png = image.readAll();
        const QString slow = pathOf(dir.path(), 'b');
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

    // A share not mounted yet when the greeter starts: the message, then the show within half a minute.
    void missingFolderStartsTheShowWhenItAppears()
    {
        QCOMPARE(SlideFolder::missingRetry, 30000);
        // The same look, sooner: the test need not wait half a minute.
        const QScopedValueRollback<int> sooner(SlideFolder::missingRetry, 2000);
        QTemporaryDir parent;
        QVERIFY(parent.isValid());
        const QString later = QDir(parent.path()).filePath(QStringLiteral("later"));
        LogRecorder log;
        ShowHost host;
        host.apply(later);
        QVERIFY(host.listed());
        QVERIFY(inspect(host.label()).files().isEmpty());
        QVERIFY(QDir().mkpath(later));
        writeLetters(later, "ab");
        QElapsedTimer waited;
        waited.start();
        QVERIFY(host.shows(colourOf(0), SlideFolder::missingRetry + slowTimeout));
        // Said once, not at every look.
        QCOMPARE(log.count(TestUtils::noImagesError(later)), 1);
        qInfo("shown %lld ms after the folder appeared", waited.elapsed());
    }

    // The end of a round asks for a listing; while a hung folder's is pending, no other starts.
    void relistingOfAHungFolderIsNotStartedTwice()
    {
        FuseFolder fuse;
        USE_FUSE(fuse, "ab");
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

    // The password typed while the folder hangs: the screensaver goes at once, its threads end
    // without touching it when the hang ends (the address sanitizer build checks, and for leaks).
    void destroyedWhileHeldReturnsAtOnce()
    {
        QFETCH(bool, listing);
        FuseFolder fuse;
        USE_FUSE(fuse, "abc");
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
        RETURNS_AT_ONCE(destroying, host.reset());
        QVERIFY(runningSlideThreads() > 0);

        fuse.holdListings(false);
        fuse.holdReads(false);
        QTRY_COMPARE_WITH_TIMEOUT(runningSlideThreads(), 0, slowTimeout);
        qInfo("destroyed in %lld ms", destroying);
    }

    // After a hang over several switches the worker starts with the slide on screen, not missed look-aheads.
    void afterAHangTheSlideOnScreenComesFirst()
    {
        FuseFolder fuse;
        USE_FUSE(fuse, "abcdefgh");
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
        QCOMPARE(inspect(label).currentImage(), pathOf(fuse.path(), 'f'));
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
        // The slide on screen, the next one, the one it fades from; nothing else is decoded.
        QCOMPARE(reported, pathsOf(fuse.path(), "fge"));
        QCOMPARE(snapshotOf(inspect(label).worker()).preparationsStarted - started, 3);
    }
};

int main(int argc, char **argv)
{
    return TestUtils::runWidgetTest<LiveFolderTest>(argc, argv);
}

#include "livefoldertest.moc"
