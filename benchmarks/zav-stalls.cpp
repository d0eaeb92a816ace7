/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// How long the GUI thread, the one that takes the user's password, stands
// still because of the slide show, where the file system is slow: the
// longest lateness of a 1 ms timer on it, from just before a call until what
// the call started is over. Written against the screensaver's interface and
// the label's read-only view only, so that the same program builds against
// an older tree for a side-by-side comparison.
//
//   zav-stalls [--runs N]

#include "fusefolder.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "slideshow/slideshow.h"
#include "slideshow/slideshow_p.h"
#include "testutils.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

using Dm::ScreenSaver::SlideLabel;
using Dm::ScreenSaver::SlideShow;

namespace
{
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

struct Row {
    const char *what;
    std::vector<double> stalls;
};

void print(const Row &row)
{
    std::vector<double> values = row.stalls;
    if (values.empty()) {
        std::printf("%-58s %9s\n", row.what, "n/a");
        return;
    }
    std::sort(values.begin(), values.end());
    const double median = values.size() % 2 ? values[values.size() / 2] : (values[values.size() / 2 - 1] + values[values.size() / 2]) / 2;
    std::printf("%-58s %9.1f %9.1f %9.1f\n", row.what, median, values.front(), values.back());
    std::fflush(stdout);
}

QString loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()).section(QLatin1Char(' '), 0, 2) : QStringLiteral("unknown");
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
        show->setProperty(TestUtils::settingsMap(folder, 3600, 500, 1));
    }
};

bool waitFor(const std::function<bool()> &done, int timeout = 120000)
{
    return QTest::qWaitFor(done, timeout);
}
}

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    const QCommandLineOption runsOption(QStringLiteral("runs"),
                                        QStringLiteral("Runs of each measurement (default 5)."),
                                        QStringLiteral("N"),
                                        QStringLiteral("5"));
    parser.addOption(runsOption);
    parser.process(app);
    const int runs = qMax(1, parser.value(runsOption).toInt());

    std::printf("Longest stall of the GUI thread (ms): median, min, max of %d runs; SlideShow at 1920x1080\n", runs);
    std::printf("load average at start: %s\n", qPrintable(loadAverage()));
    std::printf("%-58s %9s %9s %9s\n", "", "median", "min", "max");

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
    StallMonitor monitor;

    // The call and the second after it, until the folder's first image is
    // the current slide.
    Row hundredThousand{"setDir on 100,000 files", {}};
    for (int run = 0; run < runs; ++run) {
        Show show;
        QTest::qWait(200);
        monitor.start();
        show.setFolder(many.path());
        if (!waitFor([&show] {
                return !inspect(show.label()).files().isEmpty();
            })) {
            qFatal("zav-stalls: the folder of 100,000 files was not listed");
        }
        QTest::qWait(100);
        hundredThousand.stalls.push_back(monitor.stop());
    }
    print(hundredThousand);

    // The listing of the folder hangs for 3 s (a share whose server went
    // away for a while): the call and the 500 ms after it.
    Row hung{"setDir on a folder whose listing hangs 3 s", {}};
    for (int run = 0; run < runs; ++run) {
        Show show;
        QTest::qWait(200);
        fuse.holdListings(true, 3000);
        monitor.start();
        show.setFolder(fuse.path());
        QTest::qWait(500);
        hung.stalls.push_back(monitor.stop());
        fuse.holdListings(false);
        waitFor([&show] {
            return !inspect(show.label()).files().isEmpty();
        });
    }
    print(hung);

    // A file added to the folder of 100,000 while the show runs: from the
    // change until the new listing has been taken (a tree that does not
    // follow its folder shows nothing here).
    Row relisting{"taking a re-listing of 100,000 files", {}};
    {
        Show show;
        show.setFolder(many.path());
        waitFor([&show] {
            return !inspect(show.label()).files().isEmpty();
        });
        QTest::qWait(500);
        for (int run = 0; run < runs; ++run) {
            const int before = inspect(show.label()).files().size();
            monitor.start();
            QFile added(QDir(many.path()).filePath(QStringLiteral("y%1.jpg").arg(run)));
            added.open(QIODevice::WriteOnly);
            added.close();
            // Settled after two seconds, listed at most two seconds later.
            if (waitFor(
                    [&show, before] {
                        return inspect(show.label()).files().size() > before;
                    },
                    15000)) {
                relisting.stalls.push_back(monitor.stop());
            } else {
                monitor.stop();
                break;
            }
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
        if (!waitFor([&fuse] {
                return fuse.waitingReads() > 0;
            })) {
            qFatal("zav-stalls: the worker did not read from the folder");
        }
        QTest::qWait(100);
        monitor.start();
        show.reset();
        QTest::qWait(100);
        destroying.stalls.push_back(monitor.stop());
        fuse.holdReads(false);
        QTest::qWait(500);
    }
    print(destroying);
    std::printf("load average at end: %s\n", qPrintable(loadAverage()));
    return 0;
}
