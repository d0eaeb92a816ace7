/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Measures what the slide show costs on this machine and prints it as tables,
// each figure beside a floor measured in the same run:
//
// 1. preparation of one slide (ImageCacheWorker::cachedImage) per fitting
//    mode, for generated photos of four sizes at two screen sizes, beside
//    one decode of the file plus one smooth scale to the screen size, with
//    the PSNR of each result against the mode applied to the whole file;
// 2. one cross-fade frame of the slide widget (two slides, weight 0.37)
//    beside one memory copy of a 32-bit frame of that size;
// 3. the GUI thread's longest stall, seen by a 1 ms timer, while a folder of
//    large photos is set, during a fade, during a resize and while the
//    fitting mode changes, beside the same timer with nothing to do;
// 4. the time from SlideShow::setProperty with a new folder to the end of the
//    first paint that shows a slide.
//
// Each figure is the median of several runs, with the minimum and maximum.
// The photos are generated (gradients plus noise, which compress like a
// photo) into a temporary folder once per run of the program.
//
// With --photos DIR it also measures the preparation of the photos in DIR
// (the default mode at 1920x1080), in the order in which the slide show takes
// them.
//
//   zav-benchmark [--quick] [--runs N] [--sections 1234] [--photos DIR [--only-photos]]

#include "imagecache/imagecacheworker.h"
#include "imagecache/imagecacheworker_p.h"
#include "imagemetrics.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "slideshow/slideshow.h"
#include "slideshow/slideshow_p.h"

#include <QAbstractAnimation>
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QEvent>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QPixmap>
#include <QPixmapCache>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QVariantAnimation>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Dm::ScreenSaver::ImageCacheWorker;
using Dm::ScreenSaver::Position;
using Dm::ScreenSaver::SlideLabel;
using Dm::ScreenSaver::SlideShow;

namespace
{
// How long any one wait for the worker may take before the run is declared
// stuck: a 24-megapixel photo takes about a second on a slow machine.
constexpr int patienceMs = 120000;

struct Stats {
    double median = 0;
    double min = 0;
    double max = 0;
};

Stats statsOf(std::vector<double> values)
{
    Stats stats;
    if (values.empty()) {
        return stats;
    }
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    stats.median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    stats.min = values.front();
    stats.max = values.back();
    return stats;
}

double elapsedMs(const QElapsedTimer &clock)
{
    return double(clock.nsecsElapsed()) / 1e6;
}

QString sizeText(const QSize &size)
{
    return QStringLiteral("%1x%2").arg(size.width()).arg(size.height());
}

QString loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    if (!file.open(QIODevice::ReadOnly)) {
        return QStringLiteral("unknown");
    }
    return QString::fromLatin1(file.readAll()).section(QLatin1Char(' '), 0, 2);
}

[[noreturn]] void fail(const QString &message)
{
    std::fprintf(stderr, "zav-benchmark: %s\n", qUtf8Printable(message));
    std::exit(1);
}

void progress(const QString &message)
{
    std::fprintf(stderr, "zav-benchmark: %s\n", qUtf8Printable(message));
}

struct TestImage {
    QString name;
    QString path;
    QSize size;
};

TestImage writePhoto(const QString &dir, const QString &fileName, const QSize &size, const char *format, quint32 seed)
{
    const QString path = QDir(dir).filePath(fileName);
    // Quality 90 for JPEG, as cameras write; the default compression for PNG.
    const int quality = qstrcmp(format, "JPG") == 0 ? 90 : -1;
    if (!ImageMetrics::photoLike(size.width(), size.height(), seed).save(path, format, quality)) {
        fail(QStringLiteral("cannot write %1").arg(path));
    }
    const QString kind = QString::fromLatin1(format) == QLatin1String("JPG") ? QStringLiteral("JPEG") : QStringLiteral("PNG");
    return TestImage{QStringLiteral("%1 %2").arg(sizeText(size), kind), path, size};
}

// A folder of count copies of one file, under distinct names: the worker
// caches by path, so each is prepared anew.
QString folderOfCopies(const QString &parent, const QString &name, const TestImage &image, int count)
{
    const QString dir = QDir(parent).filePath(name);
    QDir().mkpath(dir);
    const QString suffix = QFileInfo(image.path).suffix();
    for (int i = 0; i < count; ++i) {
        const QString copy = QDir(dir).filePath(QStringLiteral("photo-%1.%2").arg(i + 1, 2, 10, QLatin1Char('0')).arg(suffix));
        if (!QFile::copy(image.path, copy)) {
            fail(QStringLiteral("cannot copy to %1").arg(copy));
        }
    }
    return dir;
}

// Runs the event loop until done() holds; false if timeoutMs passes first.
bool waitUntil(const std::function<bool()> &done, int timeoutMs = patienceMs)
{
    if (done()) {
        return true;
    }
    QEventLoop loop;
    QTimer poll;
    poll.setInterval(1);
    QElapsedTimer clock;
    clock.start();
    bool met = false;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&]() {
        if (done()) {
            met = true;
            loop.quit();
        } else if (clock.elapsed() > timeoutMs) {
            loop.quit();
        }
    });
    poll.start();
    loop.exec();
    return met;
}

void runEventLoopFor(int ms)
{
    QElapsedTimer clock;
    clock.start();
    waitUntil([&]() {
        return clock.elapsed() >= ms;
    });
}

// The rectangle by which the label asks for and looks up its slides.
QRect deviceRect(const SlideLabel *label)
{
    const int ratio = label->devicePixelRatio();
    return QRect(label->x(), label->y(), qRound(double(label->width()) * ratio), qRound(double(label->height()) * ratio));
}

bool isCached(const SlideLabel *label, const QString &path)
{
    return !inspect(label).worker()->getCachedImage(path, deviceRect(label), label->devicePixelRatioF(), inspect(label).fittingMode()).isNull();
}

bool workerIdle(const SlideLabel *label)
{
    return snapshotOf(inspect(label).worker()).pendingRequests.isEmpty();
}

QString nextImage(const SlideLabel *label)
{
    const QStringList &files = inspect(label).files();
    return files.at((inspect(label).currentFileIndex() + 1) % files.size());
}

// Current, next and, when it was asked for, previous slide ready at the
// label's size, and nothing left to do.
bool slidesReady(const SlideLabel *label, bool withPrevious)
{
    if (inspect(label).files().isEmpty()) {
        return false;
    }
    return workerIdle(label) && isCached(label, inspect(label).currentImage()) && isCached(label, nextImage(label))
        && (!withPrevious || isCached(label, inspect(label).previousImage()));
}

void waitForSlides(const SlideLabel *label, bool withPrevious, const char *what)
{
    if (!waitUntil([&]() {
            return slidesReady(label, withPrevious);
        })) {
        fail(QStringLiteral("the slides were not ready in time after %1").arg(QLatin1String(what)));
    }
}

// A 1 ms timer on the GUI thread: the lateness of each tick is how long the
// thread could not run its event loop.
class StallMonitor : public QObject
{
public:
    StallMonitor()
    {
        timer.setTimerType(Qt::PreciseTimer);
        timer.setInterval(1);
        connect(&timer, &QTimer::timeout, this, &StallMonitor::tick);
    }

    void start()
    {
        worstNs = 0;
        clock.start();
        lastNs = 0;
        timer.start();
    }

    // The longest stall in milliseconds since start(), the time up to this
    // call included.
    double stop()
    {
        tick();
        timer.stop();
        return double(worstNs) / 1e6;
    }

private:
    void tick()
    {
        const qint64 now = clock.nsecsElapsed();
        worstNs = std::max(worstNs, now - lastNs - intervalNs);
        lastNs = now;
    }

    static constexpr qint64 intervalNs = 1000000;
    QTimer timer;
    QElapsedTimer clock;
    qint64 lastNs = 0;
    qint64 worstNs = 0;
};

// Notes the end of the first paint of the label that shows the current slide
// after arm().
class FirstSlidePaint : public QObject
{
public:
    explicit FirstSlidePaint(SlideLabel *label)
        : label(label)
    {
        label->installEventFilter(this);
    }

    void arm()
    {
        resultMs = -1;
        armed = true;
        clock.start();
    }

    double resultMs = -1;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (!armed || watched != label || event->type() != QEvent::Paint || inspect(label).files().isEmpty()
            || !isCached(label, inspect(label).currentImage())) {
            return false;
        }
        armed = false;
        // Painted here, so that the time includes the paint itself.
        watched->event(event);
        resultMs = elapsedMs(clock);
        return true;
    }

private:
    SlideLabel *label;
    bool armed = false;
    QElapsedTimer clock;
};

void printRule(int width)
{
    std::printf("%s\n", QByteArray(width, '-').constData());
}

// --- 1. Preparation --------------------------------------------------------

// CPU time of the whole process: Qt's smooth scaling and format conversion
// also run on its thread pool, which the wall-clock time does not show.
double processCpuMs()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

const char *modeName(Position mode)
{
    switch (mode) {
    case Dm::ScreenSaver::Stretch:
        return "Stretch";
    case Dm::ScreenSaver::Crop:
        return "Crop";
    case Dm::ScreenSaver::Tile:
        return "Tile";
    case Dm::ScreenSaver::Center:
        return "Center";
    case Dm::ScreenSaver::Fit:
        return "Fit";
    }
    return "?";
}

void printPreparationHeader(const char *title)
{
    std::printf("\n%s\n", title);
    std::printf("   floor = QPixmap(file) + scaled(target, Qt::SmoothTransformation); ratio = median / floor median;\n");
    std::printf("   cpu = CPU time of the process (all threads) per preparation, median; psnr = the prepared slide against the\n");
    std::printf("   mode applied to the whole decoded file (dB, 100 = the same pixels; reduced decoding must stay >= 38)\n");
    printRule(112);
    std::printf("%-22s %-10s %-8s %9s %9s %9s %11s %7s %8s %7s\n", "image", "target", "mode", "median", "min", "max", "floor med.", "ratio", "cpu", "psnr");
    printRule(112);
}

struct PreparationResult {
    Stats floor;
    double floorCpu = 0;
    std::vector<Stats> modes;
    std::vector<double> modeCpu;
    std::vector<double> modePsnr;
};

// What the mode makes of the whole decoded file: the preparation as it was
// before the decoding was reduced.
QPixmap fullDecodeResult(const ImageCacheWorker &worker, const QString &path, const QSize &target, Position mode)
{
    switch (mode) {
    case Dm::ScreenSaver::Stretch:
        return worker.stretch(path, target);
    case Dm::ScreenSaver::Crop:
        return worker.crop(path, target, 1.0);
    case Dm::ScreenSaver::Tile:
        return worker.tile(path, target, 1.0);
    case Dm::ScreenSaver::Center:
        return worker.center(path, target, 1.0);
    case Dm::ScreenSaver::Fit:
        return worker.fit(path, target, 1.0);
    }
    return QPixmap();
}

PreparationResult measurePreparation(const QString &path, const QSize &target, const std::vector<Position> &modes, int runs)
{
    // Only its preparation functions are used, in this thread as the cache
    // thread would; no request, no cache.
    ImageCacheWorker worker;
    std::vector<double> floorMs;
    std::vector<double> floorCpuMs;
    std::vector<std::vector<double>> modeMs(modes.size());
    std::vector<std::vector<double>> modeCpuMs(modes.size());
    // Interleaved, so that a change in the machine's load touches the floor
    // and the modes alike.
    for (int run = 0; run < runs; ++run) {
        QPixmap scaled;
        QElapsedTimer clock;
        double cpu = processCpuMs();
        clock.start();
        {
            const QPixmap decoded(path);
            scaled = decoded.scaled(target, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        }
        floorMs.push_back(elapsedMs(clock));
        floorCpuMs.push_back(processCpuMs() - cpu);
        if (scaled.size() != target) {
            fail(QStringLiteral("cannot decode %1").arg(path));
        }
        for (size_t m = 0; m < modes.size(); ++m) {
            cpu = processCpuMs();
            clock.start();
            const QPixmap prepared = worker.cachedImage(path, QRect(QPoint(0, 0), target), 1.0, modes[m]);
            modeMs[m].push_back(elapsedMs(clock));
            modeCpuMs[m].push_back(processCpuMs() - cpu);
            if (prepared.size() != target) {
                fail(QStringLiteral("%1 gave %2 for %3").arg(QLatin1String(modeName(modes[m])), sizeText(prepared.size()), sizeText(target)));
            }
        }
    }
    PreparationResult result;
    result.floor = statsOf(floorMs);
    result.floorCpu = statsOf(floorCpuMs).median;
    for (size_t m = 0; m < modes.size(); ++m) {
        result.modes.push_back(statsOf(modeMs[m]));
        result.modeCpu.push_back(statsOf(modeCpuMs[m]).median);
        const QPixmap prepared = worker.cachedImage(path, QRect(QPoint(0, 0), target), 1.0, modes[m]);
        result.modePsnr.push_back(ImageMetrics::psnr(prepared.toImage(), fullDecodeResult(worker, path, target, modes[m]).toImage()));
    }
    return result;
}

void printPreparation(const QString &name, const QSize &target, const std::vector<Position> &modes, const PreparationResult &result)
{
    std::printf("%-22s %-10s %-8s %9.1f %9.1f %9.1f %11s %7s %8.1f\n",
                qPrintable(name),
                qPrintable(sizeText(target)),
                "floor",
                result.floor.median,
                result.floor.min,
                result.floor.max,
                "",
                "1.00",
                result.floorCpu);
    for (size_t m = 0; m < modes.size(); ++m) {
        const Stats &stats = result.modes[m];
        std::printf("%-22s %-10s %-8s %9.1f %9.1f %9.1f %11.1f %7.2f %8.1f %7.1f\n",
                    "",
                    "",
                    modeName(modes[m]),
                    stats.median,
                    stats.min,
                    stats.max,
                    result.floor.median,
                    stats.median / result.floor.median,
                    result.modeCpu[m],
                    result.modePsnr[m]);
    }
    std::fflush(stdout);
}

void benchmarkPreparation(const QList<TestImage> &images, const QList<QSize> &targets, int runs)
{
    const std::vector<Position> modes = {Dm::ScreenSaver::Stretch, Dm::ScreenSaver::Crop, Dm::ScreenSaver::Tile, Dm::ScreenSaver::Center};
    printPreparationHeader("1. Preparation of one slide: ImageCacheWorker::cachedImage (ms)");
    for (const TestImage &image : images) {
        for (const QSize &target : targets) {
            progress(QStringLiteral("preparation: %1 at %2").arg(image.name, sizeText(target)));
            printPreparation(image.name, target, modes, measurePreparation(image.path, target, modes, runs));
        }
    }
    printRule(112);
}

// The photos of a folder, in the order the slide show takes them, in the
// default mode at the most common screen size.
void benchmarkPhotos(const QString &dir, int runs)
{
    const QDir folder(dir);
    const QStringList names =
        folder.entryList({QStringLiteral("*.jpg"), QStringLiteral("*.jpeg"), QStringLiteral("*.png")}, QDir::Files, QDir::Name | QDir::IgnoreCase);
    if (names.isEmpty()) {
        fail(QStringLiteral("no JPEG or PNG files in %1").arg(dir));
    }
    const QSize target(1920, 1080);
    const std::vector<Position> modes = {Dm::ScreenSaver::Crop};
    printPreparationHeader("5. Preparation of the photos of the given folder, in their order, Crop at 1920x1080 (ms)");
    std::vector<double> cropMs;
    std::vector<double> cropCpu;
    std::vector<double> floorMs;
    double lowestPsnr = 100;
    for (const QString &name : names) {
        progress(QStringLiteral("photo: %1").arg(name));
        const PreparationResult result = measurePreparation(folder.filePath(name), target, modes, runs);
        printPreparation(name.left(22), target, modes, result);
        cropMs.push_back(result.modes[0].median);
        cropCpu.push_back(result.modeCpu[0]);
        floorMs.push_back(result.floor.median);
        lowestPsnr = std::min(lowestPsnr, result.modePsnr[0]);
    }
    printRule(112);
    std::printf("lowest PSNR against the full decode: %.1f dB\n", lowestPsnr);
    const auto mean = [](const std::vector<double> &values) {
        double sum = 0;
        for (const double value : values) {
            sum += value;
        }
        return sum / double(values.size());
    };
    std::printf("mean of %d photos: Crop %.1f ms (cpu %.1f ms), floor %.1f ms\n", int(names.size()), mean(cropMs), mean(cropCpu), mean(floorMs));
    // The ones a minute of the default settings shows: the first one, ten
    // switches, and the look-ahead of the last.
    const size_t minute = std::min<size_t>(names.size(), 12);
    std::printf("mean of the first %d (one minute of default settings): Crop %.1f ms (cpu %.1f ms), floor %.1f ms\n",
                int(minute),
                mean(std::vector<double>(cropMs.begin(), cropMs.begin() + minute)),
                mean(std::vector<double>(cropCpu.begin(), cropCpu.begin() + minute)),
                mean(std::vector<double>(floorMs.begin(), floorMs.begin() + minute)));
    std::fflush(stdout);
}

// --- 2. Paint ----------------------------------------------------------------

void benchmarkPaint(const QString &twoImagesDir, const QList<QSize> &targets, int runs)
{
    constexpr int framesPerRun = 10;
    std::printf("\n2. One cross-fade frame of SlideLabel (two slides cached, setOpacity(0.37), Crop) (ms)\n");
    std::printf("   frame = QWidget::render into a QImage (RGB32) of the label's size, window background included;\n");
    std::printf("   paint only = the same without the background (the label's paintEvent alone);\n");
    std::printf("   floor = one memcpy of a 32-bit frame of that size; ratio = median / floor median\n");
    printRule(104);
    std::printf("%-10s %-11s %10s %10s %10s %12s %8s\n", "target", "what", "median", "min", "max", "floor med.", "ratio");
    printRule(104);
    for (const QSize &target : targets) {
        progress(QStringLiteral("paint at %1").arg(sizeText(target)));
        SlideLabel label;
        label.resize(target);
        label.setPosition(Dm::ScreenSaver::Crop);
        // Shown first: a hidden widget gets its resize event only when shown
        // or rendered, and that event empties the cache.
        label.show();
        waitUntil([&]() {
            return label.isVisible();
        });
        if (label.size() != target) {
            fail(QStringLiteral("the label is %1, not %2").arg(sizeText(label.size()), sizeText(target)));
        }
        label.setDir(twoImagesDir);
        label.setNext();
        if (!waitUntil([&]() {
                return workerIdle(&label) && isCached(&label, inspect(label).currentImage()) && isCached(&label, inspect(label).previousImage());
            })) {
            fail(QStringLiteral("the two slides were not ready in time"));
        }
        label.setOpacity(0.37);
        runEventLoopFor(50);

        QImage frame(target, QImage::Format_RGB32);
        frame.fill(Qt::black);
        const size_t bytes = size_t(target.width()) * size_t(target.height()) * 4;
        std::vector<unsigned char> source(bytes, 1);
        std::vector<unsigned char> destination(bytes, 0);
        // Warm-up: page faults and first-use costs out of the figures.
        label.render(&frame);
        std::memcpy(destination.data(), source.data(), bytes);

        std::vector<double> frameMs;
        std::vector<double> paintOnlyMs;
        std::vector<double> copyMs;
        for (int run = 0; run < runs; ++run) {
            for (int i = 0; i < framesPerRun; ++i) {
                QElapsedTimer clock;
                clock.start();
                label.render(&frame);
                frameMs.push_back(elapsedMs(clock));
                clock.start();
                label.render(&frame, QPoint(), QRegion(), QWidget::RenderFlags());
                paintOnlyMs.push_back(elapsedMs(clock));
                clock.start();
                std::memcpy(destination.data(), source.data(), bytes);
                copyMs.push_back(elapsedMs(clock));
                source[size_t(i)] = destination[bytes - 1 - size_t(i)] + 1;
            }
        }
        volatile unsigned char sink = destination[bytes / 2];
        Q_UNUSED(sink)
        const Stats copy = statsOf(copyMs);
        const Stats frameStats = statsOf(frameMs);
        const Stats paintStats = statsOf(paintOnlyMs);
        std::printf("%-10s %-11s %10.2f %10.2f %10.2f %12s %8s\n", qPrintable(sizeText(target)), "memcpy", copy.median, copy.min, copy.max, "", "1.00");
        std::printf("%-10s %-11s %10.2f %10.2f %10.2f %12.2f %8.2f\n",
                    "",
                    "frame",
                    frameStats.median,
                    frameStats.min,
                    frameStats.max,
                    copy.median,
                    frameStats.median / copy.median);
        std::printf("%-10s %-11s %10.2f %10.2f %10.2f %12.2f %8.2f\n",
                    "",
                    "paint only",
                    paintStats.median,
                    paintStats.min,
                    paintStats.max,
                    copy.median,
                    paintStats.median / copy.median);
        std::fflush(stdout);
    }
    printRule(104);
}

// --- 3. Stalls ---------------------------------------------------------------

struct StallRow {
    const char *what;
    std::vector<double> stallMs;
    std::vector<double> callMs;
    std::vector<double> extra;
};

void printStallRow(const StallRow &row, const char *extraFormat)
{
    const Stats stall = statsOf(row.stallMs);
    const Stats call = statsOf(row.callMs);
    std::printf("%-40s %9.1f %9.1f %9.1f %10s",
                row.what,
                stall.median,
                stall.min,
                stall.max,
                row.callMs.empty() ? "" : qPrintable(QString::number(call.median, 'f', 1)));
    if (extraFormat && !row.extra.empty()) {
        std::printf("   ");
        std::printf(extraFormat, statsOf(row.extra).median);
    }
    std::printf("\n");
    std::fflush(stdout);
}

// Counts the paint events of one widget.
class PaintCounter : public QObject
{
public:
    int count = 0;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        Q_UNUSED(watched)
        if (event->type() == QEvent::Paint) {
            ++count;
        }
        return false;
    }
};

void benchmarkStalls(const QString &largePhotos, int runs)
{
    std::printf("\n3. Longest stall of the GUI thread (ms), SlideShow at 1920x1080, Crop, folder of 8 generated 6000x4000 JPEGs\n");
    std::printf("   stall = largest lateness of a 1 ms timer on the GUI thread, from just before the call until the slides\n");
    std::printf("   are ready (the fade: until it ends); call = duration of the call itself. \"idle\": the worker has\n");
    std::printf("   nothing to do before the call; \"busy\": the same call was made 30 ms earlier and is being worked on\n");
    printRule(104);
    std::printf("%-40s %9s %9s %9s %10s\n", "while", "median", "min", "max", "call med.");
    printRule(104);

    SlideShow show;
    QVariantMap settings = show.defaultProperty();
    settings.insert(QStringLiteral("ImageDirectory"), QString(QDir::tempPath() + QStringLiteral("/zav-benchmark-no-such-folder")));
    settings.insert(QStringLiteral("Position"), int(Dm::ScreenSaver::Crop));
    // The show is not started: the benchmark switches the slides itself.
    show.setProperty(settings);
    show.resize(1920, 1080);
    show.show();
    SlideLabel *label = inspect(show).slideLabel();
    waitUntil([&]() {
        return label->size() == QSize(1920, 1080);
    });
    runEventLoopFor(100);

    StallMonitor monitor;

    StallRow idle{"nothing (1 s of idle event loop)", {}, {}, {}};
    for (int run = 0; run < runs; ++run) {
        monitor.start();
        runEventLoopFor(1000);
        idle.stallMs.push_back(monitor.stop());
    }
    printStallRow(idle, nullptr);

    // The size the label must have before its slides count as ready: a
    // top-level window may learn of its new size only after resize() returns.
    QSize expectedSize(1920, 1080);
    const auto ready = [&](bool withPrevious, const char *what) {
        if (!waitUntil([&]() {
                return label->size() == expectedSize && (inspect(label).files().isEmpty() ? workerIdle(label) : slidesReady(label, withPrevious));
            })) {
            fail(QStringLiteral("the slides were not ready in time after %1").arg(QLatin1String(what)));
        }
    };

    // Starts the stall monitor, lets the event loop run 20 ms and times the
    // call itself.
    const auto timedCall = [&](StallRow &row, const std::function<void()> &action) {
        monitor.start();
        runEventLoopFor(20);
        QElapsedTimer callClock;
        callClock.start();
        action();
        row.callMs.push_back(elapsedMs(callClock));
    };

    // One call measured per run: before it, the slides of the last one are
    // ready; with busy, the same kind of call was made 30 ms before, so the
    // worker is in the middle of its first image and has more queued.
    const auto measure = [&](const char *what, bool busy, bool withPrevious, const std::function<void()> &action) {
        StallRow row{what, {}, {}, {}};
        for (int run = 0; run < runs; ++run) {
            progress(QStringLiteral("stall: %1 %2/%3").arg(QLatin1String(what)).arg(run + 1).arg(runs));
            ready(withPrevious, what);
            runEventLoopFor(20);
            if (busy) {
                action();
                runEventLoopFor(30);
            }
            timedCall(row, action);
            ready(withPrevious, what);
            row.stallMs.push_back(monitor.stop());
        }
        printStallRow(row, nullptr);
    };

    const auto setDir = [&]() {
        label->setDir(largePhotos);
    };
    measure("setDir, worker idle", false, false, setDir);
    measure("setDir, worker busy", true, false, setDir);

    // The real fade of the screensaver (its animation, default 500 ms). At
    // first each switch asks for a look-ahead image that the worker then
    // prepares during the fade, as in a real show; once the show has gone
    // round the folder all of it is cached, and the fade only paints.
    QVariantAnimation *animation = inspect(show).fadeAnimation();
    PaintCounter paints;
    label->installEventFilter(&paints);
    const auto measureFades = [&](const char *what) {
        StallRow fade{what, {}, {}, {}};
        for (int run = 0; run < runs; ++run) {
            progress(QStringLiteral("stall: %1 %2/%3").arg(QLatin1String(what)).arg(run + 1).arg(runs));
            waitForSlides(label, false, "a fade");
            runEventLoopFor(20);
            paints.count = 0;
            monitor.start();
            runEventLoopFor(20);
            QElapsedTimer callClock;
            callClock.start();
            show.updateSlide();
            fade.callMs.push_back(elapsedMs(callClock));
            if (!waitUntil([&]() {
                    return animation->state() == QAbstractAnimation::Stopped;
                })) {
                fail(QStringLiteral("the fade did not end"));
            }
            fade.stallMs.push_back(monitor.stop());
            fade.extra.push_back(paints.count);
            // The end of the fade armed the switch timer: the benchmark
            // switches itself.
            show.stop();
        }
        printStallRow(fade, "%.0f frames painted");
    };
    measureFades("fade (500 ms), worker preparing next");
    // Round the folder once more, so that every image is cached (the folder
    // has fewer images than the cache holds).
    for (int i = 0; i < inspect(label).files().size(); ++i) {
        waitForSlides(label, false, "a switch");
        label->setNext();
    }
    waitForSlides(label, false, "the last switch");
    for (const QString &file : inspect(label).files()) {
        if (!isCached(label, file)) {
            fail(QStringLiteral("%1 is not cached after a round").arg(file));
        }
    }
    measureFades("fade (500 ms), next already cached");
    label->removeEventFilter(&paints);

    // Each call toggles, so that each one is a change.
    const auto resize = [&]() {
        expectedSize = expectedSize == QSize(1920, 1080) ? QSize(1600, 900) : QSize(1920, 1080);
        show.resize(expectedSize);
    };
    measure("resize (1920x1080 <-> 1600x900), idle", false, true, resize);
    measure("resize, worker busy", true, true, resize);
    const auto setMode = [&]() {
        label->setPosition(inspect(label).fittingMode() == Dm::ScreenSaver::Crop ? Dm::ScreenSaver::Stretch : Dm::ScreenSaver::Crop);
    };
    measure("fitting mode (Crop <-> Stretch), idle", false, true, setMode);
    measure("fitting mode, worker busy", true, true, setMode);

    // The worker hangs: a named pipe named like an image, asked for directly,
    // keeps its thread in open() until someone opens the pipe for writing,
    // as a file on a network folder that went away would. Nothing gets
    // ready meanwhile, so the stall is taken over the call and 200 ms after.
    QTemporaryDir pipeFolder;
    const QString pipe = pipeFolder.filePath(QStringLiteral("hanging.png"));
    const QByteArray pipeName = QFile::encodeName(pipe);
    if (!pipeFolder.isValid() || ::mkfifo(pipeName.constData(), 0600) != 0) {
        fail(QStringLiteral("cannot make a named pipe"));
    }
    const auto releasePipe = [&pipeName]() {
        // Opens without blocking only while the worker waits in its open.
        return waitUntil([&pipeName]() {
            const int writer = ::open(pipeName.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (writer < 0) {
                return false;
            }
            ::close(writer);
            return true;
        });
    };
    const auto measureHanging = [&](const char *what, bool withPrevious, const std::function<void()> &action) {
        StallRow row{what, {}, {}, {}};
        for (int run = 0; run < runs; ++run) {
            progress(QStringLiteral("stall: %1 %2/%3").arg(QLatin1String(what)).arg(run + 1).arg(runs));
            ready(withPrevious, what);
            const int started = snapshotOf(inspect(label).worker()).preparationsStarted;
            inspect(label).worker()->requestProcessImage(pipe, QRect(QPoint(0, 0), expectedSize), 1.0, int(inspect(label).fittingMode()));
            if (!waitUntil([&]() {
                    return snapshotOf(inspect(label).worker()).preparationsStarted > started;
                })) {
                fail(QStringLiteral("the worker did not start on the pipe"));
            }
            runEventLoopFor(50);
            timedCall(row, action);
            runEventLoopFor(200);
            row.stallMs.push_back(monitor.stop());
            if (!releasePipe()) {
                fail(QStringLiteral("the worker never opened the pipe"));
            }
        }
        printStallRow(row, nullptr);
    };
    // After a setDir the previous slide is not asked for, so none of these
    // waits for it.
    measureHanging("setDir, worker hangs on a pipe", false, setDir);
    measureHanging("resize, worker hangs on a pipe", false, resize);
    measureHanging("fitting mode, worker hangs on a pipe", false, setMode);
    printRule(104);
}

// --- 4. First slide --------------------------------------------------------

void benchmarkFirstSlide(const QList<QPair<QString, QString>> &folders, int runs)
{
    std::printf("\n4. SlideShow::setProperty with a new folder -> end of the first paint showing a slide (ms)\n");
    std::printf("   SlideShow at 1920x1080, default settings (Crop); files already in the page cache\n");
    printRule(104);
    std::printf("%-40s %9s %9s %9s %10s\n", "folder of", "median", "min", "max", "call med.");
    printRule(104);

    SlideShow show;
    show.resize(1920, 1080);
    show.show();
    SlideLabel *label = inspect(show).slideLabel();
    waitUntil([&]() {
        return label->size() == QSize(1920, 1080);
    });
    runEventLoopFor(100);
    FirstSlidePaint watcher(label);

    for (const auto &folder : folders) {
        std::vector<double> firstMs;
        std::vector<double> callMs;
        for (int run = 0; run < runs; ++run) {
            progress(QStringLiteral("first slide: %1 %2/%3").arg(folder.first).arg(run + 1).arg(runs));
            if (!waitUntil([&]() {
                    return workerIdle(label);
                })) {
                fail(QStringLiteral("the worker did not become idle"));
            }
            runEventLoopFor(20);
            QVariantMap settings = show.defaultProperty();
            settings.insert(QStringLiteral("ImageDirectory"), folder.second);
            watcher.arm();
            QElapsedTimer callClock;
            callClock.start();
            show.setProperty(settings);
            callMs.push_back(elapsedMs(callClock));
            if (!waitUntil([&]() {
                    return watcher.resultMs >= 0;
                })) {
                fail(QStringLiteral("no slide was painted"));
            }
            firstMs.push_back(watcher.resultMs);
        }
        const Stats first = statsOf(firstMs);
        std::printf("%-40s %9.1f %9.1f %9.1f %10.1f\n", qPrintable(folder.first), first.median, first.min, first.max, statsOf(callMs).median);
        std::fflush(stdout);
    }
    printRule(104);
}
}

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("zav-benchmark"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Measures the slide show's preparation, painting, stalls and start-up on this machine."));
    parser.addHelpOption();
    const QCommandLineOption quick(QStringLiteral("quick"), QStringLiteral("A fast smoke run: one run of each figure."));
    const QCommandLineOption runsOption(QStringLiteral("runs"), QStringLiteral("Runs per figure (default 5)."), QStringLiteral("N"), QStringLiteral("5"));
    const QCommandLineOption photosOption(QStringLiteral("photos"),
                                          QStringLiteral("Also measure the preparation of the JPEG and PNG files in <dir> (Crop, 1920x1080)."),
                                          QStringLiteral("dir"));
    const QCommandLineOption onlyPhotos(QStringLiteral("only-photos"), QStringLiteral("With --photos: measure nothing else."));
    parser.addOption(quick);
    parser.addOption(runsOption);
    parser.addOption(photosOption);
    parser.addOption(onlyPhotos);
    const QCommandLineOption sectionsOption(QStringLiteral("sections"),
                                            QStringLiteral("Which of the sections 1 to 4 to run (default 1234)."),
                                            QStringLiteral("digits"),
                                            QStringLiteral("1234"));
    parser.addOption(sectionsOption);
    parser.process(app);
    bool ok = false;
    int runs = parser.value(runsOption).toInt(&ok);
    if (!ok || runs < 1) {
        fail(QStringLiteral("--runs takes a positive number"));
    }
    if (parser.isSet(quick)) {
        runs = 1;
    }

    // QPixmap(file) in the GUI thread goes through the global pixmap cache,
    // the cache thread's loads never do; the photos here are larger than its
    // default limit anyway, and with the limit at 0 no figure can come from it.
    QPixmapCache::setCacheLimit(0);

    std::printf("zav-benchmark: %d cores (QThread::idealThreadCount), Qt %s (qVersion), platform %s, %d run%s per figure\n",
                QThread::idealThreadCount(),
                qVersion(),
                qPrintable(QGuiApplication::platformName()),
                runs,
                runs == 1 ? "" : "s");
    std::printf("load average at start: %s\n", qPrintable(loadAverage()));
    std::fflush(stdout);
    QElapsedTimer total;
    total.start();

    if (parser.isSet(onlyPhotos)) {
        if (!parser.isSet(photosOption)) {
            fail(QStringLiteral("--only-photos needs --photos"));
        }
        benchmarkPhotos(parser.value(photosOption), runs);
        std::printf("\nload average at end: %s; total %.0f s\n", qPrintable(loadAverage()), elapsedMs(total) / 1000);
        return 0;
    }

    QTemporaryDir temporary;
    if (!temporary.isValid()) {
        fail(QStringLiteral("cannot create a temporary folder"));
    }
    const QString originals = temporary.filePath(QStringLiteral("originals"));
    QDir().mkpath(originals);
    progress(QStringLiteral("generating the photos in %1").arg(temporary.path()));
    const TestImage large = writePhoto(originals, QStringLiteral("large.jpg"), QSize(6000, 4000), "JPG", 1);
    const TestImage uhd = writePhoto(originals, QStringLiteral("uhd.png"), QSize(3840, 2160), "PNG", 2);
    const TestImage wide = writePhoto(originals, QStringLiteral("wide.jpg"), QSize(2560, 1600), "JPG", 3);
    const TestImage fiveK = writePhoto(originals, QStringLiteral("5k.jpg"), QSize(5120, 2880), "JPG", 4);
    const QString largeFolder = folderOfCopies(temporary.path(), QStringLiteral("large"), large, 8);
    const QString uhdFolder = folderOfCopies(temporary.path(), QStringLiteral("uhd"), uhd, 3);
    const QString wideFolder = folderOfCopies(temporary.path(), QStringLiteral("wide"), wide, 3);
    // Two different photos for the cross-fade.
    const QString fadeFolder = temporary.filePath(QStringLiteral("fade"));
    QDir().mkpath(fadeFolder);
    QFile::copy(large.path, QDir(fadeFolder).filePath(QStringLiteral("a.jpg")));
    QFile::copy(wide.path, QDir(fadeFolder).filePath(QStringLiteral("b.jpg")));

    std::printf("photos: %s %lld KiB, %s %lld KiB, %s %lld KiB\n",
                qPrintable(large.name),
                QFileInfo(large.path).size() / 1024,
                qPrintable(uhd.name),
                QFileInfo(uhd.path).size() / 1024,
                qPrintable(wide.name),
                QFileInfo(wide.path).size() / 1024);

    const QList<QSize> targets = {QSize(1920, 1080), QSize(3840, 2160)};
    const QString sections = parser.value(sectionsOption);
    if (sections.contains(QLatin1Char('1'))) {
        benchmarkPreparation({large, uhd, wide, fiveK}, targets, runs);
    }
    if (sections.contains(QLatin1Char('2'))) {
        benchmarkPaint(fadeFolder, targets, runs);
    }
    if (sections.contains(QLatin1Char('3'))) {
        benchmarkStalls(largeFolder, runs);
    }
    if (sections.contains(QLatin1Char('4'))) {
        benchmarkFirstSlide({{QStringLiteral("8 x ") + large.name, largeFolder},
                             {QStringLiteral("3 x ") + uhd.name, uhdFolder},
                             {QStringLiteral("3 x ") + wide.name, wideFolder}},
                            runs);
    }
    if (parser.isSet(photosOption)) {
        benchmarkPhotos(parser.value(photosOption), runs);
    }

    std::printf("\nload average at end: %s; total %.0f s\n", qPrintable(loadAverage()), elapsedMs(total) / 1000);
    return 0;
}
