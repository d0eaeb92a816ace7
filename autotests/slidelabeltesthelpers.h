/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Helpers shared by the tests of SlideLabel: reading the requests it makes
// out of the worker's debug lines, holding the worker's thread, counting
// repaints and computing the rectangle by which the label asks for images.

#ifndef ZAV_SLIDELABELTESTHELPERS_H
#define ZAV_SLIDELABELTESTHELPERS_H

#include "imagecache/imagecacheworker.h"
#include "imagecache/imagecacheworker_p.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "testutils.h"

#include <QCoreApplication>
#include <QEvent>
#include <QImage>
#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QRect>
#include <QString>
#include <QStringList>
#include <QTest>
#include <QThread>
#include <QWidget>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace SlideLabelTest
{
inline QString categoryName()
{
    return QString::fromLatin1(LogText::category);
}

using TestUtils::entry;
using TestUtils::quoted;

using TestUtils::deviceGeometry;

// Every call of ImageCacheWorker::requestProcessImage logs exactly one of
// these lines, in the calling (GUI) thread. Returns one item per call, in
// order: "queued <key>", "waiting <key>", "cached <path>" or
// "invalid <rectangle>", where a key is "<path>|<w>x<h>".
inline QStringList workerRequests(const TestUtils::LogRecorder &log)
{
    static const struct {
        const char *prefix;
        const char *kind;
        bool quotedValue;
    } kinds[] = {
        {"ImageCacheWorker: setting a request for image processing in the queue for: ", "queued", true},
        {"ImageCacheWorker: the request is already waiting for the way: ", "waiting", true},
        {"ImageCacheWorker: the image is already caching with the correct size, the request for the request: ", "cached", true},
        {"ImageCacheWorker: requestProcessimage is called with invalid geometry, pass: ", "invalid", false},
    };
    QStringList result;
    const QList<TestUtils::LogEntry> entries = log.slideShowEntries();
    for (const TestUtils::LogEntry &logEntry : entries) {
        for (const auto &kind : kinds) {
            const QString prefix = QLatin1String(kind.prefix);
            if (!logEntry.text.startsWith(prefix)) {
                continue;
            }
            QString value = logEntry.text.mid(prefix.size());
            if (kind.quotedValue && value.size() >= 2 && value.startsWith(QLatin1Char('"')) && value.endsWith(QLatin1Char('"'))) {
                value = value.mid(1, value.size() - 2);
            }
            result.append(QLatin1String(kind.kind) + QLatin1Char(' ') + value);
        }
    }
    return result;
}

// The path of each request, whatever the worker made of it.
inline QStringList requestedPaths(const TestUtils::LogRecorder &log)
{
    QStringList result;
    const QStringList requests = workerRequests(log);
    for (const QString &request : requests) {
        QString value = request.section(QLatin1Char(' '), 1);
        const int bar = value.lastIndexOf(QLatin1Char('|'));
        if (!request.startsWith(QLatin1String("cached ")) && bar >= 0) {
            value.truncate(bar);
        }
        result.append(value);
    }
    return result;
}

inline QString queued(const QString &path, const QSize &size)
{
    return QStringLiteral("queued %1|%2x%3").arg(path).arg(size.width()).arg(size.height());
}

// The lines that the label and the worker log in the GUI thread while the
// label scans, steps, changes mode or is resized: everything of the label,
// and the worker's clearing and request lines (not its processing, which
// runs in its own thread and interleaves at random).
inline QStringList guiFlow(const TestUtils::LogRecorder &log)
{
    static const char *const workerPrefixes[] = {
        "ImageCacheWorker: the cleaning of all cache data is initiated.",
        "ImageCacheWorker: All cache data are cleaned.",
        "ImageCacheWorker: setting a request for image processing in the queue for: ",
        "ImageCacheWorker: the request is already waiting for the way: ",
        "ImageCacheWorker: the image is already caching with the correct size",
        "ImageCacheWorker: requestProcessimage is called with invalid geometry",
    };
    QStringList result;
    const QList<TestUtils::LogEntry> entries = log.slideShowEntries();
    for (const TestUtils::LogEntry &logEntry : entries) {
        // A message built as one QString is printed quoted as a whole.
        bool take = logEntry.text.startsWith(QLatin1String("SlideLabel: ")) || logEntry.text.startsWith(QLatin1String("\"SlideLabel: "));
        for (const char *prefix : workerPrefixes) {
            take = take || logEntry.text.startsWith(QLatin1String(prefix));
        }
        if (take) {
            result.append(logEntry.text);
        }
    }
    return result;
}

// Work handed to the worker's thread below is a lambda without captures that
// finds its data through atomics and locks of this file: the toolkit's own
// locks, which order a queued call with its caller, are invisible to the
// thread sanitizer, so data captured here and read there would look unordered.

// Holds the worker's thread inside one queued call until released, so that
// requests queue up behind it and nothing gets cached meanwhile. The
// constructor returns once the thread is really held. One blocker at a time.
class WorkerBlocker
{
public:
    explicit WorkerBlocker(QObject *worker)
    {
        State &s = state();
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            m_id = ++s.posted;
        }
        QMetaObject::invokeMethod(
            worker,
            [] {
                State &s = state();
                std::unique_lock<std::mutex> lock(s.mutex);
                // Later blockers are posted only after this one held.
                const int id = s.posted;
                s.holding = id;
                s.changed.notify_all();
                s.changed.wait(lock, [&s, id] {
                    return s.released >= id;
                });
            },
            Qt::QueuedConnection);
        std::unique_lock<std::mutex> lock(s.mutex);
        s.changed.wait_for(lock, std::chrono::seconds(30), [this, &s] {
            return s.holding == m_id;
        });
    }
    ~WorkerBlocker()
    {
        release();
    }
    WorkerBlocker(const WorkerBlocker &) = delete;
    WorkerBlocker &operator=(const WorkerBlocker &) = delete;

    bool isHolding() const
    {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        return s.holding == m_id && s.released < m_id;
    }
    void release()
    {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.released = std::max(s.released, m_id);
        s.changed.notify_all();
    }

private:
    // Shared with the queued calls, which may still be on their way out when
    // a blocker goes; never destroyed before the process ends.
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        int posted = 0;
        int holding = 0;
        int released = 0;
    };
    static State &state()
    {
        static State s;
        return s;
    }
    int m_id = 0;
};

// Counts the events of one type that reach an object.
class EventCounter : public QObject
{
public:
    EventCounter(QObject *target, QEvent::Type type)
        : m_type(type)
    {
        target->installEventFilter(this);
    }
    int count() const
    {
        return m_count;
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        Q_UNUSED(watched)
        if (event->type() == m_type) {
            ++m_count;
        }
        return false;
    }

private:
    QEvent::Type m_type;
    int m_count = 0;
};

// Waits until the worker has gone through everything queued to it so far,
// and the reports of what it did have reached the label: a marker queued
// behind the requests runs once they are done. (Reading the worker's pending
// set instead would race with it: the set is written in place.) The marker
// also takes a look at the worker's containers in its thread, under their
// lock, which orders everything the GUI thread did to them before it with
// whatever the worker's thread does after, its destruction included.
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
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    return idle;
}

// Waits until the label has taken the first listing of the folder it was
// given: it lists folders off the GUI thread.
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

// Deletes a label once its worker has gone through its queue, then waits
// until its thread has ended and the thread object is gone (the label never
// waits for it), so that nothing of it outlives the test and the thread
// sanitizer sees the worker's destruction in an order it can follow: it
// cannot see the toolkit's own locks.
struct IdleDeleter {
    void operator()(Dm::ScreenSaver::SlideLabel *label) const
    {
        if (label) {
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
    }
};
using LabelPointer = std::unique_ptr<Dm::ScreenSaver::SlideLabel, IdleDeleter>;

// The first pixel where two images of one size differ, or an empty string.
inline QString firstDifference(const QImage &actual, const QImage &expected)
{
    if (actual.size() != expected.size()) {
        return QStringLiteral("sizes differ: %1x%2 against %3x%4").arg(actual.width()).arg(actual.height()).arg(expected.width()).arg(expected.height());
    }
    const QImage a = actual.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    const QImage e = expected.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    for (int y = 0; y < a.height(); ++y) {
        const QRgb *lineA = reinterpret_cast<const QRgb *>(a.constScanLine(y));
        const QRgb *lineE = reinterpret_cast<const QRgb *>(e.constScanLine(y));
        for (int x = 0; x < a.width(); ++x) {
            if (lineA[x] != lineE[x]) {
                return QStringLiteral("pixel (%1, %2) is %3, expected %4 (premultiplied)")
                    .arg(x)
                    .arg(y)
                    .arg(lineA[x], 8, 16, QLatin1Char('0'))
                    .arg(lineE[x], 8, 16, QLatin1Char('0'));
            }
        }
    }
    return QString();
}
}

#endif // ZAV_SLIDELABELTESTHELPERS_H
