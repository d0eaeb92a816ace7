/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_TESTUTILS_H
#define ZAV_TESTUTILS_H

#include <QApplication>
#include <QColor>
#include <QImage>
#include <QList>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QTest>
#include <QVariantMap>
#include <QtGlobal>

#include <QDebug>
#include <QMetaObject>
#include <QRect>
#include <QWidget>

#include <condition_variable>
#include <memory>
#include <mutex>

#include "logtexts.h"

namespace TestUtils
{
// Generous: the sanitizer builds decode and scale many times slower.
const int asyncTimeout = 20000;

struct LogEntry {
    QString category;
    QtMsgType type;
    QString text;

    bool operator==(const LogEntry &other) const
    {
        return category == other.category && type == other.type && text == other.text;
    }
};

// Records every message (category, type, text) from any thread while it
// lives, and restores the previous handler when it goes. Set the environment
// variable ZAV_TEST_ECHO_LOG to also print what it records.
class LogRecorder
{
public:
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder &) = delete;
    LogRecorder &operator=(const LogRecorder &) = delete;

    QList<LogEntry> entries() const;
    // Entries of the plug-in's category only.
    QList<LogEntry> slideShowEntries() const;
    // Texts of the entries of the plug-in's category with this type.
    QStringList texts(QtMsgType type) const;
    int count(const QString &text) const;
    void clear();

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message);

    // A std::mutex rather than a QMutex: ThreadSanitizer sees its ordering
    // (Qt's own locks are not instrumented).
    mutable std::mutex m_mutex;
    QList<LogEntry> m_entries;
    QtMessageHandler m_previous = nullptr;
    bool m_echo = false;
    // Read by whichever thread logs; guarded, with the current recorder's
    // lifetime, by one lock in the implementation.
    static LogRecorder *s_current;
};

// An entry of the plug-in's category.
LogEntry entry(QtMsgType type, const QString &text);
inline LogEntry debugEntry(const QString &text)
{
    return entry(QtDebugMsg, text);
}
inline LogEntry warningEntry(const QString &text)
{
    return entry(QtWarningMsg, text);
}
// One entry a line, for a failing comparison's message.
QString describe(const QList<LogEntry> &entries);

// A log line of the plug-in that streams a leading text (from LogText) and
// then values, as the message handler receives it: strings quoted, the
// items separated by blanks.
template<typename... Values>
QString logText(const char *leading, const Values &...values)
{
    QString text;
    {
        QDebug stream(&text);
        stream << leading;
        ((stream << values), ...);
    }
    // A QDebug on a string keeps the blank after its last item; the message
    // handler never sees that blank.
    if (text.endsWith(QLatin1Char(' '))) {
        text.chop(1);
    }
    return text;
}
inline QString mapLogText(const char *leading, const QVariantMap &map)
{
    return logText(leading, map);
}

// A QString value as the debug stream prints it: in double quotes, with
// special characters escaped.
QString quoted(const QString &text);

// The warning the worker logs for an image it cannot load.
QString loadWarning(const QString &path);
// The error the label logs for a folder without images.
QString noImagesError(const QString &folder);

// The settings' keys, as hosts store them: the four of every host, then
// the two that only this show's dialog writes.
namespace Key
{
inline const QString directory = QStringLiteral("ImageDirectory");
inline const QString autoSwitch = QStringLiteral("AutoSwitch");
inline const QString effect = QStringLiteral("Effect");
inline const QString position = QStringLiteral("Position");
inline const QString includeSubfolders = QStringLiteral("IncludeSubfolders");
inline const QString order = QStringLiteral("Order");
}

// A settings map with the four keys.
QVariantMap settingsMap(const QString &directory, int autoSwitch, int effect, int position);

// A text of the plug-in, translated as the plug-in translates it.
QString translated(const char *text);

// Turns the plug-in's debug output on or off through the logging rules.
void setSlideShowDebugEnabled(bool enabled);

// Writes a solid image and returns its path; the format follows the suffix.
QString writeSolidImage(const QString &directory, const QString &fileName, const QSize &size, const QColor &color);
// Writes the image and returns its path; fails the calling test on error.
QString writeImage(const QString &directory, const QString &fileName, const QImage &image);
// Writes the bytes and returns the path, or an empty string on error.
QString writeFile(const QString &path, const QByteArray &bytes);
// The image in that format (a quality of -1 for the writer's default).
QByteArray encoded(const QImage &image, const char *format, int quality = -1);
// An SVG document of that size, all white.
QByteArray whiteSvg(const QSize &size);
// A tall screenshot, 1000 x 8000 pixels: in Crop on a 4K screen, scaled
// whole first, it made a 3840 x 30720 intermediate and took 582 MB.
QImage tallScreenshot();

// Writes a grey progressive JPEG of size x size pixels (a multiple of 8)
// whose first scan is followed by acScans scans that each carry next to no
// data but make the decoder walk over every block of the image again: a
// small file that takes a decoder minutes. Returns its path, or an empty
// string on error.
QString writeManyScanJpeg(const QString &directory, const QString &fileName, int size, int acScans);
// Writes a flat mid-grey JPEG of width x height pixels (multiples of 8, at
// most 65535) in one baseline scan, or progressive with a DC scan only: a
// file of about a bit or two per 64 pixels, however large it claims to be.
QString writeFlatJpeg(const QString &directory, const QString &fileName, int width, int height, bool progressive);
// Writes a valid PNG of width x height pixels, all zero (transparent black,
// or black), with the given bit depth (8 or 16) and colour type (2 RGB, 6
// RGBA), compressed as it is written: a few hundred kilobytes for hundreds
// of megabytes of pixels.
QString writeZeroPng(const QString &directory, const QString &fileName, int width, int height, int bitDepth, int colourType);
// Writes a BMP of width x height pixels, 8 bits a pixel, run-length encoded,
// whose data ends the bitmap at once: a few hundred bytes.
QString writeRleBmp(const QString &directory, const QString &fileName, int width, int height);
// Inserts an EXIF block with the given orientation (1 to 8) after the start
// of a JPEG file.
QByteArray withExifOrientation(const QByteArray &jpeg, int orientation);

// A field of the process's status in KiB ("VmHWM", "VmRSS"), or -1.
qint64 processStatusKiB(const char *field);
// The process's peak resident memory in KiB, or -1.
inline qint64 peakResidentKiB()
{
    return processStatusKiB("VmHWM");
}

// The rectangle by which a label asks for and looks up its images: its
// position, its size in device pixels (rounded at a fractional ratio).
inline QRect deviceGeometry(const QWidget &widget)
{
    const double ratio = widget.devicePixelRatioF();
    return QRect(widget.pos(), QSize(qRound(widget.width() * ratio), qRound(widget.height() * ratio)));
}

// True when every pixel of both images matches within the fuzz per channel.
bool fuzzyEqual(const QImage &actual, const QImage &expected, int fuzz, QString *why = nullptr);
bool fuzzyColor(QRgb actual, const QColor &expected, int fuzz);

// The premultiplied colour that the cross-fade gives a pixel, in floating
// point: while the fade runs (opacity below 1) the previous slide drawn at
// full weight over the background, then the current one with the weight
// opacity over that (source-over, the weight bounded to 0..1 as the painter
// bounds it); at opacity 1 the current slide alone. Where both slides are
// opaque the result is opacity x current + (1 - opacity) x previous; a
// transparent colour stands for a slide that is missing there.
QRgb crossFadePixel(const QColor &background, const QColor &previous, const QColor &current, double opacity);

std::mutex &handoffMutex();

// Runs function in the thread of context, queued. Qt's event queue orders
// the call after everything this thread did before posting it, but through
// locks that ThreadSanitizer cannot see (Qt is not instrumented). Holding
// this mutex while posting, and taking it first in the call, shows that
// order to it.
template<typename Function>
void postTo(QObject *context, Function function)
{
    std::lock_guard<std::mutex> posting(handoffMutex());
    QMetaObject::invokeMethod(
        context,
        [function]() mutable {
            {
                std::lock_guard<std::mutex> received(handoffMutex());
            }
            function();
        },
        Qt::QueuedConnection);
}

// Holds a thread inside one queued call until released, so that the calls
// posted after it (requests of the worker, a listing's handoff) queue up
// behind it. The call touches nothing else. The state is shared with the
// call, so it outlives this object if the thread does.
class ThreadBlocker
{
public:
    explicit ThreadBlocker(QObject *context);
    ~ThreadBlocker();
    ThreadBlocker(const ThreadBlocker &) = delete;
    ThreadBlocker &operator=(const ThreadBlocker &) = delete;

    // True once the thread is held.
    bool waitUntilHolding();
    bool isHolding() const;
    // From any thread.
    void release();

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        bool holding = false;
        bool released = false;
    };
    std::shared_ptr<State> m_state;
};

// Runs a test object the way the tests of widgets run: in a QApplication
// whose fonts are laid out at 96 DPI whatever the screen, so that the sizes
// of texts do not depend on the machine.
template<typename Test>
int runWidgetTest(int argc, char **argv)
{
    QApplication app(argc, argv);
    app.setAttribute(Qt::AA_Use96Dpi, true);
    Test test;
    return QTest::qExec(&test, argc, argv);
}
}

// Compares the plug-in's log lines with the expected ones (a braced list)
// and prints both on a mismatch.
#define COMPARE_LOG(recorder, ...)                                                                                                                             \
    do {                                                                                                                                                       \
        const QList<TestUtils::LogEntry> actualEntries = (recorder).slideShowEntries();                                                                        \
        const QList<TestUtils::LogEntry> expectedEntries = __VA_ARGS__;                                                                                        \
        QVERIFY2(actualEntries == expectedEntries,                                                                                                             \
                 qPrintable(QStringLiteral("actual:%1\nexpected:%2").arg(TestUtils::describe(actualEntries), TestUtils::describe(expectedEntries))));          \
    } while (false)

#endif // ZAV_TESTUTILS_H
