/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// SlideLabel's sequence: what a scan lists in which order, how setNext steps,
// which images the worker is asked for (seen in its debug lines); and its cache
// thread, never waited for on destruction (the GUI thread takes the password).

#include "fusefolder.h"
#include "slidelabeltesthelpers.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImageReader>
#include <QMetaMethod>
#include <QScopeGuard>
#include <QSet>
#include <QTemporaryDir>

#include <optional>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::debugEntry;
using TestUtils::LogRecorder;
using TestUtils::logText;

namespace
{
const QSize labelSize(320, 240);

QStringList list(const char *names)
{
    return QString::fromLatin1(names).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

QStringList sorted(QStringList list)
{
    std::sort(list.begin(), list.end());
    return list;
}

QStringList joined(const QString &directory, const QStringList &names)
{
    QStringList paths;
    for (const QString &name : names) {
        paths.append(QDir(directory).filePath(name));
    }
    return paths;
}

// Writes a small PNG under each name, whatever its suffix says: the scan
// only looks at names, and the worker recognises the content.
QStringList writeFiles(const QString &directory, const QStringList &names)
{
    QImage image(8, 8, QImage::Format_RGB32);
    image.fill(Qt::white);
    const QStringList paths = joined(directory, names);
    for (const QString &path : paths) {
        if (!image.save(path, "PNG")) {
            qWarning("could not write %s", qPrintable(path));
        }
    }
    return paths;
}

LabelPointer makeLabel()
{
    LabelPointer label(new SlideLabel);
    // Hidden: no resize event refills the cache behind the test's back.
    label->resize(labelSize);
    return label;
}

// The worker's lines for the clearing a new folder, mode or size begins with.
const QString cleaningStarted = logText(LogText::cleaningStarted);
const QString cleaningDone = logText(LogText::cleaningDone);

QString queuedLine(const QString &path)
{
    return logText(LogText::queued, requestKey(path, labelSize));
}

// Records the thread a watched object is destroyed in. Connected by name: a slot
// object ordered only by the toolkit's locks would look like a race to the sanitizer.
class DestructionWitness : public QObject
{
    Q_OBJECT
public:
    void watch(QObject *object)
    {
        connect(object, SIGNAL(destroyed()), this, SLOT(record()), Qt::DirectConnection);
    }

    std::atomic<QThread *> thread{nullptr};
    std::atomic<bool> done{false};
private Q_SLOTS:
    void record()
    {
        thread = QThread::currentThread();
        done = true;
    }
};

// Tags messages with the thread that logged them. Declare it before the labels it
// watches, so their threads have ended when it goes; a std::mutex the sanitizer sees.
struct ThreadTagger {
    ThreadTagger()
    {
        std::lock_guard<std::mutex> locker(s_mutex);
        s_items.clear();
        s_previous = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context, const QString &message) {
            std::unique_lock<std::mutex> locker(s_mutex);
            s_items.append(qMakePair(message, QThread::currentThread()));
            const QtMessageHandler previous = s_previous;
            locker.unlock();
            if (previous) {
                previous(type, context, message);
            }
        });
    }
    ~ThreadTagger()
    {
        std::lock_guard<std::mutex> locker(s_mutex);
        qInstallMessageHandler(s_previous);
    }
    QList<QThread *> threadsOf(std::initializer_list<const char *> leading) const
    {
        std::lock_guard<std::mutex> locker(s_mutex);
        QList<QThread *> result;
        for (const auto &item : qAsConst(s_items)) {
            for (const char *text : leading) {
                if (item.first.startsWith(QLatin1String(text))) {
                    result.append(item.second);
                }
            }
        }
        return result;
    }
    static inline std::mutex s_mutex;
    static inline QList<QPair<QString, QThread *>> s_items;
    static inline QtMessageHandler s_previous = nullptr;
};
}

class SlideLabelSequenceTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;

private Q_SLOTS:
    void initTestCase()
    {
        TestUtils::setSlideShowDebugEnabled(true);
    }

    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
    }

    void setDirListsImagesInCaseInsensitiveNameOrder_data()
    {
        QTest::addColumn<QStringList>("names");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("mixed case") << list("b.png A.jpg c.JPEG") << list("A.jpg b.png c.JPEG");
        // In lower case '_' sorts before 'a' and 'z'; case-sensitive, 'Z' would come first.
        QTest::newRow("capitals after punctuation") << list("Z.png _.png a.png") << list("_.png a.png Z.png");
        QTest::newRow("character by character, not numerically") << list("img10.png img2.png Img1.png") << list("Img1.png img10.png img2.png");
        QTest::newRow("each of the nine patterns") << list("i.png h.xpm g.xbm f.ppm e.pgm d.pbm c.bmp b.jpeg a.jpg")
                                                   << list("a.jpg b.jpeg c.bmp d.pbm e.pgm f.ppm g.xbm h.xpm i.png");
        QTest::newRow("suffixes in any case") << list("Scan.BMP IMG.JPG x.JpEg photo.PNG") << list("IMG.JPG photo.PNG Scan.BMP x.JpEg");
        // GIF and TIFF are shown where an image plug-in reads them.
        const QList<QByteArray> formats = QImageReader::supportedImageFormats();
        QTest::newRow("other files and hidden files") << list("a.png notes.txt .hidden.png README a.png.txt b.gif c.tiff")
                                                      << list("a.png") + (formats.contains("gif") ? list("b.gif") : QStringList())
                + (formats.contains("tiff") ? list("c.tiff") : QStringList());
    }

    void setDirListsImagesInCaseInsensitiveNameOrder()
    {
        QFETCH(QStringList, names);
        QFETCH(QStringList, expected);
        writeFiles(m_dir->path(), names);
        // A directory named like an image is no file.
        QVERIFY(QDir(m_dir->path()).mkdir(QStringLiteral("d.png")));
        auto label = makeLabel();
        QVERIFY(setDirAndWait(*label, m_dir->path()));
        QCOMPARE(inspect(label).files(), joined(m_dir->path(), expected));
        QCOMPARE(inspect(label).currentImage(), joined(m_dir->path(), expected).first());
    }

    // A folder's own images first, then each subfolder in name order, depth first;
    // hidden folders and network storage's own ones are left out, and a folder
    // reached again through links is listed once, so a loop of links ends.
    void subfoldersAreListedDepthFirst()
    {
        const QDir root(m_dir->path());
        for (const char *folder : {"Sub1/deep", "sub2", ".hidden", "@eaDir", "#recycle"}) {
            QVERIFY(root.mkpath(QLatin1String(folder)));
        }
        writeFiles(m_dir->path(), list("b.png A.jpg Sub1/d.png Sub1/deep/e.png sub2/c.png .hidden/f.png @eaDir/f.png #recycle/f.png"));
        // A loop back to the top, and a way into Sub1 named like an image:
        // links to a directory or to nothing are no files, one to a file is.
        QVERIFY(QFile::link(m_dir->path(), root.filePath(QStringLiteral("Sub1/loop"))));
        QVERIFY(QFile::link(root.filePath(QStringLiteral("Sub1")), root.filePath(QStringLiteral("zlink.jpg"))));
        QVERIFY(QFile::link(root.filePath(QStringLiteral("gone.png")), root.filePath(QStringLiteral("broken.png"))));
        QVERIFY(QFile::link(root.filePath(QStringLiteral(".hidden/f.png")), root.filePath(QStringLiteral("link.png"))));
        auto label = makeLabel();
        label->setDir(m_dir->path(), true, ByName);
        QVERIFY(waitForListing(*label));
        QCOMPARE(inspect(label).files(), joined(m_dir->path(), list("A.jpg b.png link.png Sub1/d.png Sub1/deep/e.png sub2/c.png")));
        // Without them, the folder alone, as always.
        label->setDir(m_dir->path(), false, ByName);
        QVERIFY(waitForListing(*label));
        QCOMPARE(inspect(label).files(), joined(m_dir->path(), list("A.jpg b.png link.png")));
    }

    // Shuffled: each image once a round, a fresh order every round, and a
    // round never begins with the image the one before ended on.
    void shuffleShowsEachImageOnceARoundAndTakesInChanges()
    {
        const QStringList paths = writeFiles(m_dir->path(), list("a.png b.png c.png d.png e.png f.png"));
        auto label = makeLabel();
        SlideLabelAccess::seedShuffle(label.get(), 20261124);
        label->setDir(m_dir->path(), false, Shuffle);
        QVERIFY(waitForListing(*label));
        QList<QStringList> rounds{{inspect(label).currentImage()}};
        while (rounds.size() < 3 || rounds.last().size() < 2) {
            label->setNext();
            if (rounds.last().size() == paths.size()) {
                rounds.append(QStringList());
            }
            rounds.last().append(inspect(label).currentImage());
        }
        const QStringList first = rounds.at(0);
        const QStringList second = rounds.at(1);
        QCOMPARE(sorted(first), paths);
        QCOMPARE(sorted(second), paths);
        QVERIFY(first != second);
        QVERIFY(first != paths);
        QVERIFY(second != paths);
        QVERIFY(second.first() != first.last());
        QVERIFY(rounds.at(2).first() != second.last());
        // Added images take random places in the rest of the round, removed ones leave
        // it, nothing shown repeats: one not yet shown in the third round leaves, two come.
        QStringList shown = rounds.at(2);
        const QString leaving = *std::find_if(paths.cbegin(), paths.cend(), [&shown](const QString &path) {
            return !shown.contains(path);
        });
        QVERIFY(QFile::remove(leaving));
        const QStringList joining = writeFiles(m_dir->path(), list("g.png h.png"));
        // The folder's watcher asks for a listing once the changes settle.
        QTRY_VERIFY_WITH_TIMEOUT(inspect(label).files().contains(joining.last()) && !inspect(label).files().contains(leaving), 20000);
        while (shown.size() < 7) {
            label->setNext();
            shown.append(inspect(label).currentImage());
        }
        QStringList expected = paths + joining;
        expected.removeOne(leaving);
        QCOMPARE(sorted(shown), sorted(expected));
    }

    void setDirJoinsTheDirectoryAndTheNames_data()
    {
        QTest::addColumn<QString>("argument");
        QTest::addColumn<QString>("expectedPrefix");
        QTest::newRow("absolute") << QStringLiteral("%1/pictures") << QStringLiteral("%1/pictures/");
        QTest::newRow("trailing slash") << QStringLiteral("%1/pictures/") << QStringLiteral("%1/pictures/");
        QTest::newRow("relative") << QStringLiteral("pictures") << QStringLiteral("pictures/");
    }

    void setDirJoinsTheDirectoryAndTheNames()
    {
        QFETCH(QString, argument);
        QFETCH(QString, expectedPrefix);
        QVERIFY(QDir(m_dir->path()).mkdir(QStringLiteral("pictures")));
        writeFiles(QDir(m_dir->path()).filePath(QStringLiteral("pictures")), list("b.png a.png"));
        const QString previousCurrent = QDir::currentPath();
        QVERIFY(QDir::setCurrent(m_dir->path()));
        auto label = makeLabel();
        LogRecorder log;
        const QString directory = argument.contains(QLatin1String("%1")) ? argument.arg(m_dir->path()) : argument;
        QVERIFY(setDirAndWait(*label, directory));
        QVERIFY(QDir::setCurrent(previousCurrent));
        const QString prefix = expectedPrefix.contains(QLatin1String("%1")) ? expectedPrefix.arg(m_dir->path()) : expectedPrefix;
        QCOMPARE(inspect(label).files(), QStringList({prefix + QStringLiteral("a.png"), prefix + QStringLiteral("b.png")}));
        QCOMPARE(requestLines(log, true).first(), logText(LogText::settingDirectory, directory));
        QCOMPARE(requestedPaths(log), inspect(label).files());
    }

    void setDirStartsAtTheFirstAndSetNextWrapsAround()
    {
        const QStringList paths = writeFiles(m_dir->path(), list("a.png b.png c.png"));
        auto label = makeLabel();
        // Whatever the fade was doing, a new directory starts without one.
        label->setOpacity(0.25);
        LogRecorder log;
        QVERIFY(setDirAndWait(*label, m_dir->path()));
        QCOMPARE(inspect(label).files(), paths);
        QCOMPARE(inspect(label).currentFileIndex(), 0);
        QCOMPARE(inspect(label).currentImage(), paths.at(0));
        // The one before the first in wrap-around order, not requested.
        QCOMPARE(inspect(label).previousImage(), paths.at(2));
        QCOMPARE(inspect(label).currentOpacity(), 1.0);
        // Listed off the GUI thread: the requests follow the listing.
        QCOMPARE(requestLines(log, true),
                 QStringList({logText(LogText::settingDirectory, m_dir->path()),
                              cleaningStarted,
                              cleaningDone,
                              logText(LogText::listed, 3),
                              queuedLine(paths.at(0)),
                              queuedLine(paths.at(1))}));
        QCOMPARE(log.slideShowEntries().first(), debugEntry(logText(LogText::settingDirectory, m_dir->path())));
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        // setNext wraps around and asks for one image ahead.
        for (int index : {1, 2, 0}) {
            // As the fade leaves it: the new slide fully shown.
            label->setOpacity(1.0);
            log.clear();
            label->setNext();
            QCOMPARE(inspect(label).currentFileIndex(), index);
            QCOMPARE(inspect(label).currentImage(), paths.at(index));
            QCOMPARE(inspect(label).previousImage(), paths.at((index + 2) % 3));
            QCOMPARE(inspect(label).currentOpacity(), 0.0);
            QCOMPARE(requestedPaths(log), QStringList{paths.at((index + 1) % 3)});
            if (index == 1) {
                // b was requested by setDir; only c is new work.
                QCOMPARE(requestLines(log, true), QStringList{queuedLine(paths.at(2))});
            }
            QVERIFY(waitUntilIdle(inspect(label).worker()));
        }
    }

    void cacheKeepsWhatTheShowUsesAgain_data()
    {
        QTest::addColumn<int>("images");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<int>("capacity");
        // A small folder fits whole, so each image is decoded once.
        QTest::newRow("5 images") << 5 << labelSize << 10;
        QTest::newRow("10 images") << 10 << labelSize << 10;
        // Too many: each would go before its turn came again, so only the
        // previous, current and next stay.
        QTest::newRow("11 images") << 11 << labelSize << 3;
        // Five slides of 3840 x 2160 take 158 MiB, more than the 96 allowed.
        QTest::newRow("5 images at 3840x2160") << 5 << QSize(3840, 2160) << 3;
        QTest::newRow("3 images at 3840x2160") << 3 << QSize(3840, 2160) << 10;
    }

    void cacheKeepsWhatTheShowUsesAgain()
    {
        QFETCH(int, images);
        QFETCH(QSize, size);
        QFETCH(int, capacity);
        QStringList names;
        for (int i = 0; i < images; ++i) {
            names.append(QStringLiteral("image-%1.png").arg(i, 2, 10, QLatin1Char('0')));
        }
        const QStringList paths = writeFiles(m_dir->path(), names);
        auto label = makeLabel();
        label->resize(size);
        QVERIFY(setDirAndWait(*label, m_dir->path()));
        QCOMPARE(snapshotOf(inspect(label).worker()).capacity, capacity);
        for (int i = 0; i < images; ++i) {
            QVERIFY(waitUntilIdle(inspect(label).worker()));
            label->setNext();
        }
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        QCOMPARE(inspect(label).currentImage(), paths.at(0));
        QCOMPARE(snapshotOf(inspect(label).worker()).cachedPaths, capacity >= images ? paths : QStringList({paths.at(0), paths.at(1), paths.last()}));
    }

    // A slide not drawn is neither prepared nor kept: the start and a resize at rest
    // ask for the current and next, a resize while fading for the previous too,
    // which leaves before the next preparation once the fade is over.
    void onlyWhatIsDrawnIsPrepared()
    {
        TestUtils::FuseFolder fuse;
        if (!fuse.error().isEmpty()) {
            QSKIP(qPrintable(fuse.error()));
        }
        const QStringList names = list("a.png b.png c.png d.png e.png f.png g.png h.png i.png j.png k.png");
        writeFiles(fuse.backing(), names);
        const QStringList paths = joined(fuse.path(), names);
        LogRecorder log;
        auto label = shownLabel(labelSize);
        QVERIFY(label);
        const auto decodes = [&label] {
            return snapshotOf(inspect(label).worker()).preparationsStarted;
        };
        QVERIFY(setDirAndWait(*label, fuse.path()));
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        QCOMPARE(requestedPaths(log), paths.mid(0, 2));
        QCOMPARE(decodes(), 2);
        log.clear();
        label->resize(330, 250);
        QTRY_COMPARE(requestedPaths(log), paths.mid(0, 2));
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        QCOMPARE(decodes(), 4);
        // b fading in over a; c asked for as the next.
        label->setNext();
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        QCOMPARE(decodes(), 5);
        log.clear();
        label->resize(labelSize);
        QTRY_COMPARE(requestedPaths(log), (QStringList{paths.at(1), paths.at(2), paths.at(0)}));
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        QCOMPARE(decodes(), 8);
        QCOMPARE(snapshotOf(inspect(label).worker()).capacity, 3);
        // The fade over, a is drawn no more: with d's reading held, b and c alone stay.
        label->setOpacity(1.0);
        fuse.holdReads(true);
        label->setNext();
        QTRY_VERIFY(fuse.waitingReads() >= 1);
        QCOMPARE(sorted(snapshotOf(inspect(label).worker()).cachedPaths), (QStringList{paths.at(1), paths.at(2)}));
        fuse.holdReads(false);
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        QCOMPARE(sorted(snapshotOf(inspect(label).worker()).cachedPaths), (QStringList{paths.at(1), paths.at(2), paths.at(3)}));
    }

    void resizeSetsTheCapacityForTheNewSize()
    {
        writeFiles(m_dir->path(), list("a.png b.png c.png d.png"));
        auto label = shownLabel(labelSize);
        QVERIFY(label);
        QVERIFY(setDirAndWait(*label, m_dir->path()));
        QCOMPARE(snapshotOf(inspect(label).worker()).capacity, 10);
        label->resize(3840, 2160);
        QTRY_COMPARE(snapshotOf(inspect(label).worker()).capacity, 3);
        label->resize(labelSize);
        QTRY_COMPARE(snapshotOf(inspect(label).worker()).capacity, 10);
        QVERIFY(waitUntilIdle(inspect(label).worker()));
    }

    void setNextRepaintsButSetDirDoesNot_data()
    {
        QTest::addColumn<int>("images");
        QTest::newRow("two images") << 2;
        // One image is asked for once, and setNext does nothing at all.
        QTest::newRow("one image") << 1;
    }

    void setNextRepaintsButSetDirDoesNot()
    {
        QFETCH(int, images);
        const QStringList paths = writeFiles(m_dir->path(), list("a.png b.png").mid(0, images));
        auto label = shownLabel(labelSize);
        QVERIFY(label);
        PaintCounter paints(label.get());
        // Nothing gets cached meanwhile, so no report repaints either.
        TestUtils::ThreadBlocker blocker(inspect(label).worker());
        QVERIFY(blocker.waitUntilHolding());
        LogRecorder log;
        QVERIFY(setDirAndWait(*label, m_dir->path()));
        flushEvents();
        QCOMPARE(paints.count, 0);
        QCOMPARE(inspect(label).files(), paths);
        QCOMPARE(inspect(label).currentImage(), paths.first());
        QCOMPARE(inspect(label).previousImage(), paths.last());
        QStringList requests;
        for (const QString &path : paths) {
            requests.append(queuedLine(path));
        }
        QCOMPARE(requestLines(log), requests);
        log.clear();
        label->setNext();
        flushEvents();
        QCOMPARE(paints.count, images - 1);
        if (images == 1) {
            QCOMPARE(inspect(label).currentFileIndex(), 0);
            QCOMPARE(inspect(label).currentImage(), paths.first());
            QCOMPARE(inspect(label).previousImage(), paths.first());
            QCOMPARE(inspect(label).currentOpacity(), 1.0);
            QCOMPARE(log.slideShowEntries().size(), 0);
        }
    }

    void setDirWithoutImagesLogsCriticalAndKeepsTheSequenceState_data()
    {
        QTest::addColumn<QString>("subdirectory");
        QTest::addColumn<QStringList>("names");
        QTest::newRow("missing directory") << QStringLiteral("missing") << QStringList();
        QTest::newRow("empty directory") << QStringLiteral("empty") << QStringList();
        QTest::newRow("no matching file") << QStringLiteral("other") << list("notes.txt .hidden.png");
    }

    void setDirWithoutImagesLogsCriticalAndKeepsTheSequenceState()
    {
        QFETCH(QString, subdirectory);
        QFETCH(QStringList, names);
        const QStringList paths = writeFiles(m_dir->path(), list("a.png b.png c.png"));
        const QString bad = QDir(m_dir->path()).filePath(subdirectory);
        if (subdirectory != QLatin1String("missing")) {
            QVERIFY(QDir(m_dir->path()).mkdir(subdirectory));
            writeFiles(bad, names);
        }
        auto label = shownLabel(labelSize);
        QVERIFY(label);
        QVERIFY(setDirAndWait(*label, m_dir->path()));
        label->setNext();
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        PaintCounter paints(label.get());
        LogRecorder log;
        QVERIFY(setDirAndWait(*label, bad));
        flushEvents();
        QVERIFY(inspect(label).files().isEmpty());
        QCOMPARE(inspect(label).currentFileIndex(), 1);
        QCOMPARE(inspect(label).currentImage(), paths.at(1));
        QCOMPARE(inspect(label).previousImage(), paths.at(0));
        QCOMPARE(inspect(label).currentOpacity(), 0.0);
        const QString critical = TestUtils::noImagesError(bad);
        QCOMPARE(log.texts(QtCriticalMsg), QStringList{critical});
        QCOMPARE(log.slideShowEntries().last(), TestUtils::entry(QtCriticalMsg, critical));
        QCOMPARE(requestLines(log, true),
                 QStringList({logText(LogText::settingDirectory, bad), cleaningStarted, cleaningDone, logText(LogText::listed, 0), critical}));
        // Until the listing came, the label drew nothing; now the message.
        QCOMPARE(paints.count, 1);
        // The cache was emptied before the scan.
        QVERIFY(snapshotOf(inspect(label).worker()).cachedPaths.isEmpty());
        // Nothing to step through or to ask for until a scan finds images.
        log.clear();
        label->setNext();
        label->setPosition(Crop);
        QCOMPARE(inspect(label).currentImage(), paths.at(1));
        QCOMPARE(requestLines(log, true), QStringList({logText(LogText::settingPosition, int(Crop)), cleaningStarted, cleaningDone}));
    }

    void refillRequestsCurrentNextAndPrevious_data()
    {
        QTest::addColumn<bool>("resize");
        QTest::addColumn<int>("images");
        QTest::addColumn<int>("steps");
        QTest::addColumn<double>("opacity");
        QTest::addColumn<QList<int>>("order");
        // A new mode or size refills the cache; the previous slide only while a fade
        // runs (opacity below 1): at rest it is not drawn (the first design asked anyway).
        for (bool resize : {false, true}) {
            const QString trigger = QLatin1String(resize ? "resized " : "new mode ");
            QTest::newRow(qPrintable(trigger + QStringLiteral("after setDir"))) << resize << 3 << 0 << 1.0 << QList<int>{0, 1};
            QTest::newRow(qPrintable(trigger + QStringLiteral("after one step, fading"))) << resize << 3 << 1 << 0.0 << QList<int>{1, 2, 0};
            QTest::newRow(qPrintable(trigger + QStringLiteral("one image"))) << resize << 1 << 0 << 1.0 << QList<int>{0};
            QTest::newRow(qPrintable(trigger + QStringLiteral("two images"))) << resize << 2 << 0 << 1.0 << QList<int>{0, 1};
            // Without a folder a new mode only clears the cache; a resize is only logged.
            QTest::newRow(qPrintable(trigger + QStringLiteral("no folder"))) << resize << 0 << 0 << 1.0 << QList<int>();
        }
        QTest::newRow("new mode after one step, the fade over") << false << 3 << 1 << 1.0 << QList<int>{1, 2};
        QTest::newRow("new mode at the last image, fading") << false << 3 << 2 << 0.0 << QList<int>{2, 0, 1};
        // Fading, the previous image is the next: asked for twice, taken once.
        QTest::newRow("new mode, two images, fading") << false << 2 << 0 << 0.5 << QList<int>{0, 1, 1};
    }

    void refillRequestsCurrentNextAndPrevious()
    {
        QFETCH(bool, resize);
        QFETCH(int, images);
        QFETCH(int, steps);
        QFETCH(double, opacity);
        QFETCH(QList<int>, order);
        const QStringList paths = writeFiles(m_dir->path(), list("a.png b.png c.png").mid(0, images));
        LogRecorder log;
        // Only a shown label gets resize events.
        auto label = shownLabel(labelSize);
        QVERIFY(label);
        if (images > 0) {
            QVERIFY(setDirAndWait(*label, m_dir->path()));
        }
        for (int i = 0; i < steps; ++i) {
            label->setNext();
        }
        label->setOpacity(opacity);
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        log.clear();
        const QSize size = resize ? QSize(300, 200) : labelSize;
        QStringList expected;
        if (resize) {
            label->resize(size);
            QCOMPARE(label->size(), size);
            expected.append(logText(LogText::resized, size));
        } else {
            // The mode in force (the default) again does nothing.
            QCOMPARE(inspect(label).fittingMode(), Stretch);
            label->setPosition(Stretch);
            label->setPosition(Crop);
            QCOMPARE(inspect(label).fittingMode(), Crop);
            expected.append(logText(LogText::settingPosition, int(Crop)));
        }
        if (!resize || images > 0) {
            expected << cleaningStarted << cleaningDone;
        }
        QStringList expectedPaths;
        for (int index : order) {
            if (!expectedPaths.contains(paths.at(index))) {
                expected.append(logText(LogText::queued, requestKey(paths.at(index), size)));
            }
            expectedPaths.append(paths.at(index));
        }
        QTRY_VERIFY(requestLines(log, true).size() >= expected.size());
        const QStringList flow = requestLines(log, true);
        QCOMPARE(flow.mid(0, expected.size()), expected);
        QCOMPARE(log.slideShowEntries().first(), debugEntry(expected.first()));
        QCOMPARE(requestedPaths(log), expectedPaths);
        if (order.isEmpty()) {
            flushEvents();
            QCOMPARE(log.slideShowEntries().size(), expected.size());
        }
        // Without a repeated request, nothing else (a resize's reports may interleave).
        if (!resize && QSet<int>(order.cbegin(), order.cend()).size() == order.size()) {
            QCOMPARE(flow, expected);
        }
        // Everything asked for is at the new size once the worker is through.
        for (const QString &path : expectedPaths) {
            QTRY_VERIFY(!inspect(label).worker()->getCachedImage(path, TestUtils::deviceGeometry(*label), 1.0, inspect(label).fittingMode()).isNull());
        }
        if (!resize) {
            QVERIFY(waitUntilIdle(inspect(label).worker()));
            log.clear();
            label->setPosition(Crop);
            QCOMPARE(log.slideShowEntries().size(), 0);
        }
    }

    void requestsCarryTheFittingMode()
    {
        // A white square on a 320 x 240 label: centred, black borders; stretched, all white.
        QStringList paths;
        for (const QString &name : list("a.png b.png c.png")) {
            paths.append(TestUtils::writeSolidImage(m_dir->path(), name, QSize(100, 100), Qt::white));
        }
        auto label = makeLabel();
        label->setPosition(Center);
        QVERIFY(setDirAndWait(*label, m_dir->path()));
        label->setNext();
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        const QRect geometry = TestUtils::deviceGeometry(*label);
        // The current (b) was asked for by setDir, the look-ahead (c) by setNext.
        for (const QString &path : {paths.at(1), paths.at(2)}) {
            const QImage image = inspect(label).worker()->getCachedImage(path, geometry, 1.0, Center).toImage();
            QVERIFY2(!image.isNull(), qPrintable(path));
            QVERIFY(TestUtils::fuzzyColor(image.pixel(0, 0), Qt::black, 0));
            QVERIFY(TestUtils::fuzzyColor(image.pixel(160, 120), Qt::white, 0));
        }
        label->setPosition(Stretch);
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        const QImage stretched = inspect(label).worker()->getCachedImage(paths.at(1), geometry, 1.0, Stretch).toImage();
        QVERIFY(!stretched.isNull());
        QVERIFY(TestUtils::fuzzyColor(stretched.pixel(0, 0), Qt::white, 0));
    }

    void constructionStartsTheCacheThreadAndConnectsTheWorker()
    {
        LogRecorder log;
        LabelPointer label(new SlideLabel);
        COMPARE_LOG(log, {debugEntry(logText(LogText::threadStarted))});
        ImageCacheWorker *worker = inspect(label).worker();
        QVERIFY(worker);
        QVERIFY(!worker->parent());
        QThread *thread = worker->thread();
        QVERIFY(thread);
        QVERIFY(thread != QThread::currentThread());
        QVERIFY(thread->isRunning());
        // A plain event loop at idle priority: decoding must not starve the GUI thread.
        QCOMPARE(thread->metaObject()->className(), "QThread");
        QCOMPARE(thread->priority(), QThread::IdlePriority);
        QVERIFY(!thread->parent());
        QCOMPARE(label->thread(), QThread::currentThread());
        // Running before any directory is set.
        QVERIFY(inspect(label).files().isEmpty());
        // The signal awaited before a fade and the worker's two answers (a report, whose
        // generation tells one from before a clearing, and a file gone); qobject_cast works.
        const QMetaObject *meta = label->metaObject();
        QCOMPARE(meta->className(), "Dm::ScreenSaver::SlideLabel");
        QCOMPARE(meta->superClass(), &QLabel::staticMetaObject);
        QCOMPARE(meta->methodCount() - meta->methodOffset(), 3);
        QCOMPARE(meta->propertyCount(), meta->propertyOffset());
        const QList<QPair<QByteArray, QMetaMethod::Access>> methods{{"currentSlideReady()", QMetaMethod::Public},
                                                                    {"handleImageCached(QString,QPixmap,qulonglong)", QMetaMethod::Private},
                                                                    {"handleImageGone(QString)", QMetaMethod::Private}};
        for (int i = 0; i < methods.size(); ++i) {
            const QMetaMethod method = meta->method(meta->methodOffset() + i);
            QCOMPARE(method.methodSignature(), methods.at(i).first);
            QCOMPARE(method.methodType(), i == 0 ? QMetaMethod::Signal : QMetaMethod::Slot);
            QCOMPARE(method.access(), methods.at(i).second);
        }
        QCOMPARE(meta->method(meta->methodOffset() + 1).parameterNames(), QList<QByteArray>({"path", "pixmap", "generation"}));
    }

    void destroyedQuitsTheThreadWithoutWaiting_data()
    {
        QTest::addColumn<bool>("held");
        QTest::addColumn<int>("steps");
        // -1: before any folder.
        QTest::newRow("at once") << false << -1;
        // As by a read of a network share that went away.
        QTest::newRow("while the worker is held") << true << 0;
        // With requests in flight.
        QTest::newRow("right after setDir") << false << 0;
        QTest::newRow("after two steps") << false << 2;
    }

    // Destruction returns at once, also with the worker held; the thread
    // ends once the worker is free, deleting it and then itself.
    void destroyedQuitsTheThreadWithoutWaiting()
    {
        QFETCH(bool, held);
        QFETCH(int, steps);
        for (int i = 0; i < 6; ++i) {
            TestUtils::writeSolidImage(m_dir->path(), QStringLiteral("%1.png").arg(i), QSize(200, 150), QColor(i * 40, 0, 0));
        }
        // In flight, several rounds: where the thread stands when told to quit varies.
        // No recorder or debug lines: its lock, taken by both threads, would order them.
        const bool inFlight = !held && steps >= 0;
        TestUtils::setSlideShowDebugEnabled(!inFlight);
        const auto debugAgain = qScopeGuard([] {
            TestUtils::setSlideShowDebugEnabled(true);
        });
        for (int round = 0; round < (inFlight ? 8 : 1); ++round) {
            std::optional<LogRecorder> log;
            if (!inFlight) {
                log.emplace();
            }
            // Made before the label's thread exists.
            DestructionWitness witness;
            auto *label = new SlideLabel;
            label->resize(240, 180);
            QPointer<ImageCacheWorker> worker = inspect(label).worker();
            QThread *const workerThread = worker->thread();
            QPointer<QThread> thread = workerThread;
            witness.watch(worker.data());
            std::unique_ptr<TestUtils::ThreadBlocker> blocker;
            if (held) {
                blocker = std::make_unique<TestUtils::ThreadBlocker>(worker.data());
                QVERIFY(blocker->waitUntilHolding());
            }
            // When held, a request waits behind the held worker.
            if (steps >= 0) {
                QVERIFY(setDirAndWait(*label, m_dir->path()));
            }
            for (int i = 0; i < steps; ++i) {
                label->setNext();
            }
            QElapsedTimer timer;
            timer.start();
            delete label;
            const qint64 elapsed = timer.elapsed();
            // The old design waited up to 5000 ms; this bound catches waiting.
            QVERIFY2(elapsed < 1000, qPrintable(QStringLiteral("returned after %1 ms").arg(elapsed)));
            if (held) {
                QVERIFY(!thread.isNull());
                QVERIFY(thread->isRunning());
                QVERIFY(!witness.done.load());
                blocker->release();
            } else if (log) {
                COMPARE_LOG(*log, {debugEntry(logText(LogText::threadStarted))});
            }
            QTRY_VERIFY_WITH_TIMEOUT(witness.done.load(), 10000);
            QTRY_VERIFY(worker.isNull());
            // Deleted by its own thread (not the GUI's) as it finished.
            QCOMPARE(witness.thread.load(), workerThread);
            QTRY_VERIFY_WITH_TIMEOUT(thread.isNull(), 10000);
            QVERIFY(!log || log->texts(QtWarningMsg).isEmpty());
            // Reports that were still queued for the label go with it.
            flushEvents();
        }
    }

    void cacheReportsAreHandledInTheGuiThread()
    {
        const QStringList paths = writeFiles(m_dir->path(), list("a.png b.png c.png"));
        LogRecorder log;
        ThreadTagger tagger;
        auto label = makeLabel();
        QThread *const workerThread = inspect(label).worker()->thread();
        QVERIFY(setDirAndWait(*label, m_dir->path()));
        // The current image and the look-ahead both reported.
        QTRY_COMPARE(tagger.threadsOf({LogText::cachedShown, LogText::cachedNotShown}).size(), 2);
        // Prepared in the worker's thread ...
        QCOMPARE(tagger.threadsOf({LogText::internalProcessing}), QList<QThread *>({workerThread, workerThread}));
        // ... and handled by the label in its own.
        for (QThread *thread : tagger.threadsOf({"SlideLabel: "})) {
            QCOMPARE(thread, QThread::currentThread());
        }
        // A prepared image is reported at once, within the request, in the GUI thread.
        label->setNext();
        label->setNext();
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        log.clear();
        const int before = tagger.threadsOf({LogText::cachedShown, LogText::cachedNotShown}).size();
        label->setNext();
        // a is current again: the look-ahead b is asked for, cached.
        QCOMPARE(tagger.threadsOf({LogText::cachedShown, LogText::cachedNotShown}).size(), before + 1);
        QCOMPARE(requestLines(log, true), QStringList({logText(LogText::alreadyCached, paths.at(1)), logText(LogText::cachedNotShown, paths.at(1))}));
    }
};

int main(int argc, char **argv)
{
    return TestUtils::runWidgetTest<SlideLabelSequenceTest>(argc, argv);
}

#include "slidelabelsequencetest.moc"
