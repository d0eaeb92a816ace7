/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// How long the GUI thread, the one that takes the user's password, stands
// still because of the slide show, and what a show costs beyond one slide.
// A stall is the longest lateness of a 1 ms timer on that thread, from just
// before a call until what the call started is over; each figure is the
// median, minimum and maximum of several runs. The measurements, by name:
//
// slow-folder   where the file system is slow (the tests' FUSE folder): a
//               folder of 100,000 files, a listing that hangs, a re-listing,
//               the show destroyed while a read hangs;
// large-photos  on a folder of 8 generated 6000x4000 JPEGs: setDir, the
//               fade, a resize and a change of the fitting mode, with the
//               worker idle, busy or hanging on a named pipe, beside an
//               idle event loop;
// first-slide   from SlideShow::setProperty with a new folder to the end of
//               the first paint that shows a slide, for three photo sizes,
//               and the peak resident memory over a round of the large
//               photos.
//
//   zav-stalls [--runs N] [slow-folder] [large-photos] [first-slide]

#include "fusefolder.h"
#include "imagecache/imagecacheworker_p.h"
#include "imagemetrics.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "slideshow/slideshow.h"
#include "slideshow/slideshow_p.h"
#include "testutils.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QVariantAnimation>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Dm::ScreenSaver;

namespace
{
// A 24-megapixel photo takes about a second on a slow machine.
constexpr int patienceMs = 120000;

// A 1 ms timer on the GUI thread: the lateness of each tick is how long the
// thread could not run its event loop.
class StallMonitor : public QObject
{
public:
    StallMonitor()
    {
        m_timer.setTimerType(Qt::PreciseTimer);
        m_timer.setInterval(1);
        connect(&m_timer, &QTimer::timeout, this, &StallMonitor::tick);
    }
    void start()
    {
        m_worstNs = 0;
        m_lastNs = 0;
        m_clock.start();
        m_timer.start();
    }
    // The longest stall in milliseconds since start(), up to this call.
    double stop()
    {
        tick();
        m_timer.stop();
        return double(m_worstNs) / 1e6;
    }

private:
    void tick()
    {
        const qint64 now = m_clock.nsecsElapsed();
        m_worstNs = std::max(m_worstNs, now - m_lastNs - 1000000);
        m_lastNs = now;
    }
    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_lastNs = 0;
    qint64 m_worstNs = 0;
};

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// A row of the table: the stalls (or times), and the durations of the calls
// themselves and a count of something when they were taken.
struct Row {
    const char *what;
    std::vector<double> ms;
    std::vector<double> calls = {};
    std::vector<double> counts = {};
    const char *countName = nullptr;
};

void print(const Row &row)
{
    if (row.ms.empty()) {
        std::printf("%-58s %9s\n", row.what, "n/a");
        return;
    }
    const auto [min, max] = std::minmax_element(row.ms.begin(), row.ms.end());
    std::printf("%-58s %9.1f %9.1f %9.1f", row.what, median(row.ms), *min, *max);
    if (!row.calls.empty()) {
        std::printf(" %9.1f", median(row.calls));
    }
    if (!row.counts.empty()) {
        std::printf("   %.0f %s", median(row.counts), row.countName);
    }
    std::printf("\n");
    std::fflush(stdout);
}

QString loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()).section(QLatin1Char(' '), 0, 2) : QStringLiteral("unknown");
}

// Runs the event loop until done() holds or timeoutMs pass; whether it
// holds. Not QTest::qWaitFor: that sleeps up to 10 ms between its passes,
// which the 1 ms timer would count as a stall.
bool spinUntil(const std::function<bool()> &done, int timeoutMs = patienceMs)
{
    QEventLoop loop;
    QTimer poll;
    QElapsedTimer clock;
    clock.start();
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done() || clock.elapsed() >= timeoutMs) {
            loop.quit();
        }
    });
    if (!done()) {
        poll.start(1);
        loop.exec();
    }
    return done();
}

void spin(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
}

void await(const std::function<bool()> &done, const char *what)
{
    if (!spinUntil(done)) {
        qFatal("zav-stalls: %s", what);
    }
}

double elapsedMs(const QElapsedTimer &clock)
{
    return double(clock.nsecsElapsed()) / 1e6;
}

// The screensaver in a window of its own, as a greeter shows it.
struct Show {
    std::unique_ptr<QWidget> window = std::make_unique<QWidget>();
    SlideShow *show = new SlideShow(window.get());

    Show()
    {
        show->resize(1920, 1080);
        window->resize(1920, 1080);
        window->show();
        if (!QTest::qWaitForWindowExposed(window.get())) {
            qFatal("zav-stalls: the window was not shown");
        }
    }
    SlideLabel *label() const
    {
        return inspect(show).slideLabel();
    }
    void setFolder(const QString &folder)
    {
        show->setProperty(TestUtils::settingsMap(folder, 3600, 500, Crop));
    }
};

bool workerIdle(const SlideLabel *label)
{
    return snapshotOf(inspect(label).worker()).pendingRequests.isEmpty();
}

// Ready to be painted: the label holds the slide at its size.
bool isReady(const SlideLabel *label, const QString &path)
{
    return inspect(label).slide(path).size() == TestUtils::deviceGeometry(*label).size();
}

QString nextImage(const SlideLabel *label)
{
    const QStringList &files = inspect(label).files();
    return files.isEmpty() ? QString() : files.at((inspect(label).currentFileIndex() + 1) % files.size());
}

// The folder listed, nothing left to do and the current, the next and,
// during a fade, the previous slide ready (the label asks for the previous
// one only then).
bool slidesReady(const SlideLabel *label)
{
    if (inspect(label).awaitingListing() || !workerIdle(label) || inspect(label).files().isEmpty()) {
        return !inspect(label).awaitingListing() && workerIdle(label);
    }
    const QString &previous = inspect(label).previousImage();
    const bool previousShown = inspect(label).currentOpacity() < 1 && !previous.isEmpty() && previous != inspect(label).currentImage();
    return isReady(label, inspect(label).currentImage()) && isReady(label, nextImage(label)) && (!previousShown || isReady(label, previous));
}

// A folder of count copies of a generated photo under distinct names: the
// worker caches by path, so each is prepared anew.
QString photoFolder(const QTemporaryDir &dir, const QString &name, const QSize &size, quint32 seed, int count)
{
    const QString original = dir.filePath(name);
    const QString folder = dir.filePath(QFileInfo(name).baseName());
    if (!QDir().mkpath(folder) || !ImageMetrics::writePhoto(original, size, seed)) {
        qFatal("zav-stalls: cannot write %s", qPrintable(original));
    }
    for (int i = 0; i < count; ++i) {
        QFile::copy(original, QDir(folder).filePath(QStringLiteral("photo-%1.%2").arg(i + 1, 2, 10, QLatin1Char('0')).arg(QFileInfo(name).suffix())));
    }
    return folder;
}

void slowFolder(int runs, StallMonitor &monitor)
{
    // 100,000 files: one image, then empty ones named like images.
    QTemporaryDir many;
    TestUtils::writeSolidImage(many.path(), QStringLiteral("a.png"), QSize(64, 48), Qt::red);
    for (int i = 1; i < 100000; ++i) {
        QFile empty(QDir(many.path()).filePath(QStringLiteral("x%1.jpg").arg(i, 6, 10, QLatin1Char('0'))));
        empty.open(QIODevice::WriteOnly);
    }
    TestUtils::FuseFolder fuse;
    if (!fuse.error().isEmpty()) {
        qFatal("zav-stalls: %s", qPrintable(fuse.error()));
    }
    TestUtils::writeSolidImage(fuse.backing(), QStringLiteral("a.png"), QSize(64, 48), Qt::red);
    TestUtils::writeSolidImage(fuse.backing(), QStringLiteral("b.png"), QSize(64, 48), Qt::green);
    const auto listed = [](const Show &show) {
        return !inspect(show.label()).files().isEmpty();
    };

    // The call and the time after it, until the folder's first image is the
    // current slide.
    Row hundredThousand{"setDir on 100,000 files", {}};
    for (int run = 0; run < runs; ++run) {
        Show show;
        spin(200);
        monitor.start();
        show.setFolder(many.path());
        await(std::bind(listed, std::cref(show)), "the folder of 100,000 files was not listed");
        spin(100);
        hundredThousand.ms.push_back(monitor.stop());
    }
    print(hundredThousand);

    // The listing of the folder hangs for 3 s (a share whose server went
    // away for a while): the call and the 500 ms after it.
    Row hung{"setDir on a folder whose listing hangs 3 s", {}};
    for (int run = 0; run < runs; ++run) {
        Show show;
        spin(200);
        fuse.holdListings(true, 3000);
        monitor.start();
        show.setFolder(fuse.path());
        spin(500);
        hung.ms.push_back(monitor.stop());
        fuse.holdListings(false);
        spinUntil(std::bind(listed, std::cref(show)));
    }
    print(hung);

    // A file removed from the folder of 100,000 while the show runs: from
    // the change until the new listing has been taken (a tree that does not
    // follow its folder shows nothing here). Not one added: the show takes
    // no more than 100,000 images.
    Row relisting{"taking a re-listing of 100,000 files", {}};
    {
        Show show;
        show.setFolder(many.path());
        spinUntil(std::bind(listed, std::cref(show)));
        spin(500);
        for (int run = 0; run < runs; ++run) {
            const int before = inspect(show.label()).files().size();
            monitor.start();
            QFile::remove(QDir(many.path()).filePath(QStringLiteral("x%1.jpg").arg(run + 1, 6, 10, QLatin1Char('0'))));
            // Settled after two seconds, listed at most two seconds later.
            const bool relisted = spinUntil(
                [&show, before] {
                    return inspect(show.label()).files().size() < before;
                },
                15000);
            const double stall = monitor.stop();
            if (!relisted) {
                break;
            }
            relisting.ms.push_back(stall);
        }
    }
    print(relisting);

    // The user has typed the password while the worker hangs in a read of
    // the folder (held up to 6 s): destroying the screensaver.
    Row destroying{"destroying the show during a read held 6 s", {}};
    for (int run = 0; run < runs; ++run) {
        auto show = std::make_unique<Show>();
        fuse.holdReads(true, 6000);
        show->setFolder(fuse.path());
        await(
            [&fuse] {
                return fuse.waitingReads() > 0;
            },
            "the worker did not read from the folder");
        spin(100);
        monitor.start();
        show.reset();
        spin(100);
        destroying.ms.push_back(monitor.stop());
        fuse.holdReads(false);
        spin(500);
    }
    print(destroying);
}

// Counts the paint events of one widget.
class PaintCounter : public QObject
{
public:
    int count = 0;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        count += event->type() == QEvent::Paint;
        return false;
    }
};

void largePhotos(int runs, StallMonitor &monitor, const QString &photos)
{
    Row idle{"nothing (1 s of idle event loop)", {}};
    for (int run = 0; run < runs; ++run) {
        monitor.start();
        spin(1000);
        idle.ms.push_back(monitor.stop());
    }
    print(idle);

    // The show is not started: the runs switch the slides themselves.
    Show show;
    show.setFolder(QDir::temp().filePath(QStringLiteral("zav-stalls-no-such-folder")));
    SlideLabel *label = show.label();
    // The size the label must have before its slides count as ready: the
    // layout gives it a new size only after the show's resize() returns.
    QSize expectedSize(1920, 1080);
    const auto ready = [&] {
        await(
            [&] {
                return label->size() == expectedSize && slidesReady(label);
            },
            "the slides were not ready in time");
    };
    // Starts the monitor, lets the event loop run 20 ms and times the call.
    const auto timedCall = [&](Row &row, const std::function<void()> &action) {
        monitor.start();
        spin(20);
        QElapsedTimer clock;
        clock.start();
        action();
        row.calls.push_back(elapsedMs(clock));
    };
    // One call measured per run, until its slides are ready; before it, the
    // slides of the last one are ready. With busy, the same kind of call was
    // made 30 ms before, so that the worker is in the middle of its first
    // image and has more queued.
    const auto measure = [&](const char *what, bool busy, const std::function<void()> &action) {
        Row row{what, {}};
        for (int run = 0; run < runs; ++run) {
            ready();
            spin(20);
            if (busy) {
                action();
                spin(30);
            }
            timedCall(row, action);
            ready();
            row.ms.push_back(monitor.stop());
        }
        print(row);
    };
    const auto setDir = [&] {
        label->setDir(photos);
    };
    measure("setDir, worker idle", false, setDir);
    measure("setDir, worker busy", true, setDir);

    // The real fade (500 ms). At first each switch asks for a look-ahead
    // image that the worker prepares during the fade, as in a real show;
    // once the show has gone round the folder all of it is cached (the
    // folder has fewer images than the cache holds), and the fade only
    // paints.
    QVariantAnimation *animation = inspect(show.show).fadeAnimation();
    PaintCounter paints;
    label->installEventFilter(&paints);
    const auto measureFades = [&](const char *what) {
        Row fade{what, {}, {}, {}, "frames painted"};
        for (int run = 0; run < runs; ++run) {
            ready();
            spin(20);
            paints.count = 0;
            timedCall(fade, [&] {
                show.show->updateSlide();
            });
            if (animation->state() != QAbstractAnimation::Running) {
                qFatal("zav-stalls: the fade did not start");
            }
            await(
                [&] {
                    return animation->state() == QAbstractAnimation::Stopped;
                },
                "the fade did not end");
            fade.ms.push_back(monitor.stop());
            fade.counts.push_back(paints.count);
        }
        print(fade);
    };
    measureFades("fade (500 ms), worker preparing next");
    for (int i = 0; i < inspect(label).files().size(); ++i) {
        ready();
        label->setNext();
    }
    ready();
    if (snapshotOf(inspect(label).worker()).cachedPaths.size() != inspect(label).files().size()) {
        qFatal("zav-stalls: not every photo is cached after a round");
    }
    measureFades("fade (500 ms), next already cached");
    label->removeEventFilter(&paints);

    // Each call toggles, so that each one is a change.
    const auto resize = [&] {
        expectedSize = expectedSize == QSize(1920, 1080) ? QSize(1600, 900) : QSize(1920, 1080);
        show.show->resize(expectedSize);
    };
    measure("resize (1920x1080 <-> 1600x900), idle", false, resize);
    measure("resize, worker busy", true, resize);
    const auto setMode = [&] {
        label->setPosition(inspect(label).fittingMode() == Crop ? Stretch : Crop);
    };
    measure("fitting mode (Crop <-> Stretch), idle", false, setMode);
    measure("fitting mode, worker busy", true, setMode);

    // The worker hangs: a named pipe named like an image, asked for directly,
    // keeps its thread in open() until someone opens the pipe for writing,
    // as a file on a network folder that went away would. Nothing gets
    // ready meanwhile, so the stall is taken over the call and 200 ms after.
    QTemporaryDir pipeFolder;
    const QString pipe = pipeFolder.filePath(QStringLiteral("hanging.png"));
    const QByteArray pipeName = QFile::encodeName(pipe);
    if (!pipeFolder.isValid() || ::mkfifo(pipeName.constData(), 0600) != 0) {
        qFatal("zav-stalls: cannot make a named pipe");
    }
    const auto measureHanging = [&](const char *what, const std::function<void()> &action) {
        Row row{what, {}};
        for (int run = 0; run < runs; ++run) {
            ready();
            const int started = snapshotOf(inspect(label).worker()).preparationsStarted;
            // The worker passes over what the show does not want; the label
            // tells it again only when its slides change.
            inspect(label).worker()->setWantedImages({inspect(label).currentImage(), nextImage(label), pipe});
            inspect(label).worker()->requestProcessImage(pipe, QRect(QPoint(0, 0), expectedSize), 1.0, int(inspect(label).fittingMode()));
            await(
                [&] {
                    return snapshotOf(inspect(label).worker()).preparationsStarted > started;
                },
                "the worker did not start on the pipe");
            spin(50);
            timedCall(row, action);
            spin(200);
            row.ms.push_back(monitor.stop());
            // Opens without blocking only while the worker waits in its open.
            await(
                [&pipeName] {
                    const int writer = ::open(pipeName.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                    return writer >= 0 && ::close(writer) == 0;
                },
                "the worker never opened the pipe");
        }
        print(row);
    };
    measureHanging("setDir, worker hangs on a pipe", setDir);
    measureHanging("resize, worker hangs on a pipe", resize);
    measureHanging("fitting mode, worker hangs on a pipe", setMode);
}

// Notes the end of the first paint of the label that shows the current slide
// after arm().
class FirstSlidePaint : public QObject
{
public:
    explicit FirstSlidePaint(SlideLabel *label)
        : m_label(label)
    {
        label->installEventFilter(this);
    }
    void arm()
    {
        resultMs = -1;
        m_clock.start();
    }
    double resultMs = -1;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (!m_clock.isValid() || event->type() != QEvent::Paint || inspect(m_label).files().isEmpty() || !isReady(m_label, inspect(m_label).currentImage())) {
            return false;
        }
        // Painted here, so that the time includes the paint itself.
        watched->event(event);
        resultMs = elapsedMs(m_clock);
        m_clock.invalidate();
        return true;
    }

private:
    SlideLabel *m_label;
    QElapsedTimer m_clock;
};

void firstSlide(int runs, const QList<QPair<const char *, QString>> &folders)
{
    Show show;
    FirstSlidePaint watcher(show.label());
    for (const auto &folder : folders) {
        Row row{folder.first, {}};
        for (int run = 0; run < runs; ++run) {
            await(std::bind(workerIdle, show.label()), "the worker did not become idle");
            spin(20);
            QVariantMap settings = show.show->defaultProperty();
            settings.insert(QStringLiteral("ImageDirectory"), folder.second);
            watcher.arm();
            QElapsedTimer clock;
            clock.start();
            show.show->setProperty(settings);
            row.calls.push_back(elapsedMs(clock));
            await(
                [&watcher] {
                    return watcher.resultMs >= 0;
                },
                "no slide was painted");
            row.ms.push_back(watcher.resultMs);
        }
        print(row);
    }
}

// The peak resident memory over a round of the folder with the real fades,
// from a reset of the process's peak (Linux 4.0 and later).
void peakOfShow(const QString &photos)
{
    QFile clearRefs(QStringLiteral("/proc/self/clear_refs"));
    const bool reset = clearRefs.open(QIODevice::WriteOnly) && clearRefs.write("5") == 1;
    clearRefs.close();
    {
        Show show;
        show.setFolder(photos);
        QVariantAnimation *animation = inspect(show.show).fadeAnimation();
        const auto showing = [&] {
            return inspect(show.label()).files().size() == 8 && show.label()->isCurrentSlideReady() && animation->state() == QAbstractAnimation::Stopped;
        };
        for (int i = 0; i < 8; ++i) {
            await(showing, "the show did not go on");
            show.show->updateSlide();
        }
        await(showing, "the last fade did not end");
    }
    std::printf("peak resident memory over a round of 8 photos: %.1f MiB%s; resident afterwards: %.1f MiB\n",
                double(TestUtils::peakResidentKiB()) / 1024,
                reset ? "" : " (since the start: the peak could not be reset)",
                double(TestUtils::processStatusKiB("VmRSS")) / 1024);
}
}

int main(int argc, char **argv)
{
    // Headless unless told otherwise.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Measures the stalls of the GUI thread, the time to the first slide and the peak memory of a show."));
    parser.addHelpOption();
    const QCommandLineOption runsOption(QStringLiteral("runs"),
                                        QStringLiteral("Runs of each measurement (default 5)."),
                                        QStringLiteral("N"),
                                        QStringLiteral("5"));
    parser.addOption(runsOption);
    parser.addPositionalArgument(QStringLiteral("names"),
                                 QStringLiteral("The measurements: any of slow-folder, large-photos, first-slide (default all)."),
                                 QStringLiteral("[slow-folder] [large-photos] [first-slide]"));
    parser.process(app);
    const int runs = qMax(1, parser.value(runsOption).toInt());
    QStringList chosen = parser.positionalArguments();
    const QStringList all = {QStringLiteral("slow-folder"), QStringLiteral("large-photos"), QStringLiteral("first-slide")};
    for (const QString &name : chosen) {
        if (!all.contains(name)) {
            parser.showHelp(1);
        }
    }
    if (chosen.isEmpty()) {
        chosen = all;
    }

    std::printf("Longest stall of the GUI thread (ms): median, min, max of %d runs, and the call's median; SlideShow at 1920x1080, Crop\n", runs);
    std::printf("load average at start: %s\n", qPrintable(loadAverage()));
    std::printf("%-58s %9s %9s %9s %9s\n", "", "median", "min", "max", "call");
    StallMonitor monitor;
    if (chosen.contains(all[0])) {
        slowFolder(runs, monitor);
    }
    QTemporaryDir generated;
    if (chosen.contains(all[1]) || chosen.contains(all[2])) {
        const QString large = photoFolder(generated, QStringLiteral("6000x4000.jpg"), QSize(6000, 4000), 1, 8);
        if (chosen.contains(all[1])) {
            largePhotos(runs, monitor, large);
        }
        if (chosen.contains(all[2])) {
            std::printf("Time from setProperty to the end of the first paint showing a slide (ms), default settings:\n");
            firstSlide(runs,
                       {{"folder of 8 x 6000x4000 JPEG", large},
                        {"folder of 3 x 3840x2160 PNG", photoFolder(generated, QStringLiteral("3840x2160.png"), QSize(3840, 2160), 2, 3)},
                        {"folder of 3 x 2560x1600 JPEG", photoFolder(generated, QStringLiteral("2560x1600.jpg"), QSize(2560, 1600), 3, 3)}});
            peakOfShow(large);
        }
    }
    std::printf("load average at end: %s\n", qPrintable(loadAverage()));
    return 0;
}
