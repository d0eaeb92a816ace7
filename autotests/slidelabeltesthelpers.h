/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Helpers shared by the tests of SlideLabel: reading the requests it makes
// out of the worker's debug lines, counting repaints, waiting for the worker
// and for a folder's listing, and comparing pictures.

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
#include <QSize>
#include <QString>
#include <QStringList>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <memory>

namespace SlideLabelTest
{
// Every call of ImageCacheWorker::requestProcessImage logs exactly one line
// beginning with one of these, in the calling (GUI) thread.
const char *const requestTexts[] = {LogText::queued, LogText::alreadyWaiting, LogText::alreadyCached, LogText::invalidRequest};

inline bool isRequestLine(const QString &text)
{
    return std::any_of(std::begin(requestTexts), std::end(requestTexts), [&text](const char *leading) {
        return text.startsWith(QLatin1String(leading));
    });
}

// The key of a request in the worker's lines: "<path>|<w>x<h>".
inline QString requestKey(const QString &path, const QSize &size)
{
    return path + QStringLiteral("|%1x%2").arg(size.width()).arg(size.height());
}

// The worker's line for each request, in order.
inline QStringList requestLines(const TestUtils::LogRecorder &log)
{
    QStringList result;
    for (const TestUtils::LogEntry &logEntry : log.slideShowEntries()) {
        if (isRequestLine(logEntry.text)) {
            result.append(logEntry.text);
        }
    }
    return result;
}

// The path of each request, whatever the worker made of it.
inline QStringList requestedPaths(const TestUtils::LogRecorder &log)
{
    QStringList result;
    for (const QString &line : requestLines(log)) {
        // The quoted key, or the path alone when the image is cached.
        QString value = line.section(QLatin1Char('"'), 1, 1);
        if (!line.startsWith(QLatin1String(LogText::alreadyCached)) && value.contains(QLatin1Char('|'))) {
            value.truncate(value.lastIndexOf(QLatin1Char('|')));
        }
        result.append(value);
    }
    return result;
}

// The lines that the label and the worker log in the GUI thread while the
// label scans, steps, changes mode or is resized: everything of the label,
// and the worker's clearing and request lines (not its processing, which
// runs in its own thread and interleaves at random).
inline QStringList guiFlow(const TestUtils::LogRecorder &log)
{
    QStringList result;
    for (const TestUtils::LogEntry &logEntry : log.slideShowEntries()) {
        const QString &text = logEntry.text;
        // A message built as one QString is printed quoted as a whole.
        if (text.startsWith(QLatin1String("SlideLabel: ")) || text.startsWith(QLatin1String("\"SlideLabel: "))
            || text == QLatin1String(LogText::cleaningStarted) || text == QLatin1String(LogText::cleaningDone) || isRequestLine(text)) {
            result.append(text);
        }
    }
    return result;
}

// Delivers the events posted so far, repaints among them.
inline void flushEvents()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

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
    bool eventFilter(QObject *, QEvent *event) override
    {
        m_count += event->type() == m_type ? 1 : 0;
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
// whatever the worker's thread does after, its destruction included. It is a
// lambda without captures that finds its data through atomics: the toolkit's
// own locks, which order a queued call with its caller, are invisible to the
// thread sanitizer.
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

// The first pixel where two images differ by more than the fuzz in a
// premultiplied channel, or an empty string.
inline QString pictureDifference(const QImage &actual, const QImage &expected, int fuzz = 0)
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
            if (lineA[x] != lineE[x] && !TestUtils::fuzzyColor(lineA[x], QColor::fromRgba(lineE[x]), fuzz)) {
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
