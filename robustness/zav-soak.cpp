/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// A soak run of the slide show: many slide switches with a very short
// interval and fade on generated images, painting every frame, resizing the
// window and changing the fitting mode now and then, while it samples the
// process's resident memory (VmRSS, the highest value at the switches since
// the last sample), its thread count and its open file descriptors (at a
// moment when the worker reads no file). After the warm-up samples all three
// must stay flat: memory within the tolerance of the first sample after the
// warm-up, threads and descriptors equal to it, not counting the threads of
// Qt's global thread pool (and their one descriptor each), which come and go
// with Qt's own image work and are bounded by the pool's maximum. Prints the samples as a table; exits 0 when flat,
// 1 when not, 3 when the show stalls.
//
//   zav-soak [--switches 10000] [--sample-every N] [--warmup-samples 2] [--tolerance 5]

#include "imagecache/imagecacheworker.h"
#include "imagecache/imagecacheworker_p.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "slideshow/slideshow.h"
#include "slideshow/slideshow_p.h"
#include "testutils.h"

#include <QAbstractAnimation>
#include <QApplication>
#include <QColor>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>
#include <QThreadPool>
#include <QVBoxLayout>
#include <QVariantAnimation>
#include <QWidget>

#include <cstdio>
#include <vector>

using Dm::ScreenSaver::SlideShow;

namespace
{
struct Sample {
    int switches = 0;
    double seconds = 0;
    qint64 rssKiB = 0;
    int threads = 0;
    int pooled = 0;
    int fds = 0;
};

QStringList tasks()
{
    return QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
}

// Threads of Qt's global thread pool, which Qt's image scaling and
// conversion use for larger images: the pool starts at most its maximum of
// them and ends each after 30 s without work, whatever the plug-in does.
int pooledThreads()
{
    int pooled = 0;
    const QStringList all = tasks();
    for (const QString &task : all) {
        QFile comm(QStringLiteral("/proc/self/task/%1/comm").arg(task));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == "Thread (pooled)") {
            ++pooled;
        }
    }
    return pooled;
}

int openDescriptors()
{
    // Listing the folder opens one more descriptor, the same every time.
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size();
}

// Fourteen images, more than the worker keeps, so that it evicts and
// prepares again all the time; three formats and several sizes.
bool writeImages(const QString &dir)
{
    const char *const suffixes[] = {"png", "jpg", "bmp"};
    for (int i = 0; i < 14; ++i) {
        QImage image(QSize(160 + 37 * i, 120 + 23 * i), QImage::Format_RGB32);
        image.fill(QColor::fromHsv((i * 47) % 360, 200, 220));
        QPainter painter(&image);
        painter.setPen(Qt::white);
        painter.drawEllipse(image.rect().adjusted(10, 10, -10, -10));
        painter.end();
        const QString path = QDir(dir).filePath(QStringLiteral("slide-%1.%2").arg(i, 2, 10, QLatin1Char('0')).arg(QLatin1String(suffixes[i % 3])));
        if (!image.save(path)) {
            std::fprintf(stderr, "zav-soak: cannot write %s\n", qUtf8Printable(path));
            return false;
        }
    }
    return true;
}
}

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Switches slides many times and checks that memory, threads and descriptors stay flat."));
    parser.addHelpOption();
    const QCommandLineOption switchesOption(QStringLiteral("switches"), QStringLiteral("Slide switches to run."), QStringLiteral("n"), QStringLiteral("10000"));
    const QCommandLineOption everyOption(QStringLiteral("sample-every"),
                                         QStringLiteral("Switches between samples (default: a twentieth of the run)."),
                                         QStringLiteral("n"));
    const QCommandLineOption warmupOption(QStringLiteral("warmup-samples"),
                                          QStringLiteral("Samples before the reference one."),
                                          QStringLiteral("n"),
                                          QStringLiteral("2"));
    const QCommandLineOption toleranceOption(QStringLiteral("tolerance"),
                                             QStringLiteral("Allowed memory drift in percent."),
                                             QStringLiteral("percent"),
                                             QStringLiteral("5"));
    parser.addOptions({switchesOption, everyOption, warmupOption, toleranceOption});
    parser.process(app);

    const int totalSwitches = qMax(1, parser.value(switchesOption).toInt());
    const int sampleEvery = parser.isSet(everyOption) ? qMax(1, parser.value(everyOption).toInt()) : qMax(1, totalSwitches / 20);
    const int warmupSamples = qMax(0, parser.value(warmupOption).toInt());
    const double tolerance = parser.value(toleranceOption).toDouble();

    QTemporaryDir images;
    if (!images.isValid() || !writeImages(images.path())) {
        return 2;
    }

    QWidget window;
    auto *layout = new QVBoxLayout(&window);
    layout->setContentsMargins(0, 0, 0, 0);
    auto *show = new SlideShow(&window);
    layout->addWidget(show);
    window.resize(400, 300);
    window.show();
    QCoreApplication::processEvents();

    int position = 1;
    auto settings = [&images, &position](int effect) {
        return QVariantMap{
            {QStringLiteral("ImageDirectory"), images.path()},
            {QStringLiteral("AutoSwitch"), 0},
            {QStringLiteral("Effect"), effect},
            {QStringLiteral("Position"), position},
        };
    };
    show->setProperty(settings(5));

    // A fixed seed: two runs make the same fades.
    QRandomGenerator random(20260101);
    int switches = 0;
    QVariantAnimation *fade = inspect(show).fadeAnimation();
    QObject::connect(fade, &QAbstractAnimation::stateChanged, &window, [&switches](QAbstractAnimation::State state) {
        if (state == QAbstractAnimation::Running) {
            ++switches;
        }
    });
    // The next fade lasts 1 to 10 ms.
    QObject::connect(fade, &QAbstractAnimation::finished, &window, [fade, &random]() {
        fade->setDuration(1 + int(random.bounded(10)));
    });

    std::vector<Sample> samples;
    // Resident memory goes up and down by a few hundred KiB from one switch
    // to the next as the allocator returns freed pixmaps to the system, so a
    // sample reports the highest value seen at the switches since the last
    // one: a leak raises that envelope, the allocator's trimming does not.
    qint64 intervalRss = 0;
    QElapsedTimer clock;
    clock.start();
    auto takeSample = [&]() {
        // At a quiet moment: while the worker decodes, the image file it
        // reads is one more open descriptor. The queue drains without the
        // GUI thread, which makes no new request while it waits here.
        Dm::ScreenSaver::ImageCacheWorker *worker = inspect(inspect(show).slideLabel()).worker();
        QElapsedTimer quiet;
        quiet.start();
        while (!snapshotOf(worker).pendingRequests.isEmpty() && quiet.elapsed() < 10000) {
            QThread::msleep(1);
        }
        samples.push_back(Sample{switches,
                                 clock.elapsed() / 1000.0,
                                 qMax(intervalRss, TestUtils::processStatusKiB("VmRSS")),
                                 int(tasks().size()),
                                 pooledThreads(),
                                 openDescriptors()});
        intervalRss = 0;
    };

    show->start();
    int lastHandled = 0;
    QElapsedTimer sinceSwitch;
    sinceSwitch.start();
    int exitCode = 0;
    while (switches < totalSwitches) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        if (switches == lastHandled) {
            if (sinceSwitch.elapsed() > 30000) {
                std::fprintf(stderr, "zav-soak: no slide switch for 30 s after %d switches\n", switches);
                exitCode = 3;
                break;
            }
            continue;
        }
        sinceSwitch.restart();
        // Every frame painted, as a screen would.
        window.grab();
        intervalRss = qMax(intervalRss, TestUtils::processStatusKiB("VmRSS"));
        for (int n = lastHandled + 1; n <= switches; ++n) {
            // Sampled before this switch's changes below, so that every
            // sample sees the same window size and a cache refilled long ago.
            if (n % sampleEvery == 0) {
                takeSample();
            }
            if (n % 250 == 0) {
                // A resize empties the worker's cache and refills it; the
                // window goes back to its size ten switches later.
                window.resize(424, 318);
            } else if (n % 250 == 10) {
                window.resize(400, 300);
            }
            if (n % 1000 == 500) {
                // A new fitting mode through the settings: a rescan too.
                position = (position + 1) % 5;
                show->setProperty(settings(1 + int(random.bounded(10))));
            }
        }
        lastHandled = switches;
    }
    show->stop();

    const size_t reference = size_t(warmupSamples);
    std::printf("%8s %9s %10s %8s %8s %7s %5s\n", "switches", "seconds", "rss-kib", "rss-%", "threads", "pooled", "fds");
    for (size_t i = 0; i < samples.size(); ++i) {
        const Sample &s = samples[i];
        QString drift = QStringLiteral("-");
        if (i >= reference && reference < samples.size()) {
            drift = QString::number(100.0 * double(s.rssKiB - samples[reference].rssKiB) / double(samples[reference].rssKiB), 'f', 2);
        }
        std::printf("%8d %9.1f %10lld %8s %8d %7d %5d%s\n",
                    s.switches,
                    s.seconds,
                    s.rssKiB,
                    qPrintable(drift),
                    s.threads,
                    s.pooled,
                    s.fds,
                    i < reference ? "  (warm-up)" : (i == reference ? "  (reference)" : ""));
    }
    std::fflush(stdout);

    if (exitCode != 0) {
        return exitCode;
    }
    if (samples.size() < reference + 2) {
        std::fprintf(stderr, "zav-soak: %zu samples are too few for %d warm-up samples\n", samples.size(), warmupSamples);
        return 1;
    }
    const Sample &ref = samples[reference];
    const int maxPooled = QThreadPool::globalInstance()->maxThreadCount();
    bool flat = true;
    for (size_t i = reference + 1; i < samples.size(); ++i) {
        const Sample &s = samples[i];
        const double drift = 100.0 * double(s.rssKiB - ref.rssKiB) / double(ref.rssKiB);
        if (qAbs(drift) > tolerance) {
            std::fprintf(stderr, "zav-soak: after %d switches the resident memory is %lld KiB, %.2f %% off the reference\n", s.switches, s.rssKiB, drift);
            flat = false;
        }
        // Qt's pool threads come and go with the work Qt gives them (each
        // holds its event dispatcher's descriptor); all other threads and
        // descriptors must be exactly those of the reference.
        const auto besidesThePool = [&](int sampled, int atReference, const char *what) {
            if (sampled - s.pooled != atReference - ref.pooled) {
                std::fprintf(stderr,
                             "zav-soak: after %d switches %d %s besides Qt's pool, %d at the reference\n",
                             s.switches,
                             sampled - s.pooled,
                             what,
                             atReference - ref.pooled);
                flat = false;
            }
        };
        besidesThePool(s.threads, ref.threads, "threads run");
        besidesThePool(s.fds, ref.fds, "descriptors are open");
        if (s.pooled > maxPooled) {
            std::fprintf(stderr, "zav-soak: after %d switches Qt's pool has %d threads, more than its maximum %d\n", s.switches, s.pooled, maxPooled);
            flat = false;
        }
    }
    std::printf("%s: %d switches in %.1f s\n", flat ? "flat" : "NOT FLAT", switches, clock.elapsed() / 1000.0);
    return flat ? 0 : 1;
}
