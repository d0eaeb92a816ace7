/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Helpers of the tests of SlideLabel: its requests read from the worker's
// debug lines, repaints counted, waits for the worker and for a listing.

#ifndef ZAV_SLIDELABELTESTHELPERS_H
#define ZAV_SLIDELABELTESTHELPERS_H

#include "imagecache/imagecacheworker.h"
#include "imagecache/imagecacheworker_p.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "testutils.h"

#include <QPointer>
#include <QThread>

#include <atomic>

namespace SlideLabelTest
{
// The key of a request in the worker's lines: "<path>|<w>x<h>".
inline QString requestKey(const QString &path, const QSize &size)
{
    return path + QStringLiteral("|%1x%2").arg(size.width()).arg(size.height());
}

// The worker's line for each request, in order: each call of
// requestProcessImage logs one, in the calling (GUI) thread. With withLabel,
// also the other lines of the GUI thread: the label's and the worker's
// clearing (not its processing, which interleaves at random).
inline QStringList requestLines(const TestUtils::LogRecorder &log, bool withLabel = false)
{
    QStringList result;
    for (const TestUtils::LogEntry &logEntry : log.slideShowEntries()) {
        const QString &text = logEntry.text;
        bool request = false;
        for (const char *leading : {LogText::queued, LogText::alreadyWaiting, LogText::alreadyCached, LogText::invalidRequest}) {
            request = request || text.startsWith(QLatin1String(leading));
        }
        // A message built as one QString is printed quoted as a whole.
        const bool label = text.startsWith(QLatin1String("SlideLabel: ")) || text.startsWith(QLatin1String("\"SlideLabel: "))
            || text == QLatin1String(LogText::cleaningStarted) || text == QLatin1String(LogText::cleaningDone);
        if (request || (withLabel && label)) {
            result.append(text);
        }
    }
    return result;
}

// The path of each request, whatever the worker made of it: the quoted
// key, or the path alone when the image is cached.
inline QStringList requestedPaths(const TestUtils::LogRecorder &log)
{
    QStringList result;
    for (const QString &line : requestLines(log)) {
        const QString value = line.section(QLatin1Char('"'), 1, 1);
        result.append(value.left(line.startsWith(QLatin1String(LogText::alreadyCached)) ? -1 : value.lastIndexOf(QLatin1Char('|'))));
    }
    return result;
}

// Delivers the events posted so far, repaints among them.
inline void flushEvents()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

// Counts the paint events that reach an object.
struct PaintCounter : QObject {
    explicit PaintCounter(QObject *target)
    {
        target->installEventFilter(this);
    }
    bool eventFilter(QObject *, QEvent *event) override
    {
        count += event->type() == QEvent::Paint ? 1 : 0;
        return false;
    }
    int count = 0;
};

// Waits until the worker has gone through what was queued to it so far and
// its reports have reached the label, by a marker queued behind (its pending
// set, written in place, would race). The marker reads the worker's data
// under its lock, showing the sanitizer the order of both threads' work; it
// uses atomics, not captures: the sanitizer cannot see the toolkit's locks.
inline bool waitUntilIdle(Dm::ScreenSaver::ImageCacheWorker *worker)
{
    static std::atomic<Dm::ScreenSaver::ImageCacheWorker *> target{nullptr};
    static std::atomic<int> reached{0};
    const int expected = reached.load() + 1;
    target.store(worker);
    QMetaObject::invokeMethod(
        worker,
        [] {
            snapshotOf(target.load());
            reached.fetch_add(1);
        },
        Qt::QueuedConnection);
    const bool idle = QTest::qWaitFor(
        [expected] {
            return reached.load() >= expected;
        },
        10000);
    flushEvents();
    return idle;
}

// Waits until the label has taken the first listing of its folder (made off
// the GUI thread).
inline bool waitForListing(const Dm::ScreenSaver::SlideLabel &label)
{
    return QTest::qWaitFor(
        [&label] {
            return !inspect(label).awaitingListing();
        },
        10000);
}

inline bool setDirAndWait(Dm::ScreenSaver::SlideLabel &label, const QString &directory)
{
    label.setDir(directory);
    return waitForListing(label);
}

// Deletes a label once its worker is idle, then waits until its thread
// object is gone (the label never waits for it): nothing of it outlives the
// test, and the sanitizer sees the worker's destruction in order.
struct IdleDeleter {
    void operator()(Dm::ScreenSaver::SlideLabel *label) const
    {
        waitUntilIdle(inspect(label).worker());
        const QPointer<QThread> thread = inspect(label).workerThread();
        delete label;
        if (!QTest::qWaitFor(
                [&thread] {
                    return thread.isNull();
                },
                10000)) {
            qWarning("the label's thread did not end");
        }
    }
};
using LabelPointer = std::unique_ptr<Dm::ScreenSaver::SlideLabel, IdleDeleter>;

// A label of that size, shown and exposed, or null.
inline LabelPointer shownLabel(const QSize &size)
{
    LabelPointer label(new Dm::ScreenSaver::SlideLabel);
    label->resize(size);
    label->show();
    if (!QTest::qWaitForWindowExposed(label.get())) {
        return nullptr;
    }
    QCoreApplication::processEvents();
    return label;
}
}

// Compares two images within the fuzz per channel, showing the difference.
#define COMPARE_IMAGES(actual, expected, fuzz)                                                                                                                 \
    do {                                                                                                                                                       \
        QString difference;                                                                                                                                    \
        QVERIFY2(TestUtils::fuzzyEqual((actual), (expected), (fuzz), &difference), qPrintable(difference));                                                    \
    } while (false)

#endif // ZAV_SLIDELABELTESTHELPERS_H
