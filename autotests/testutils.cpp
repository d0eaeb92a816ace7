/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "testutils.h"

#include <KLocalizedString>

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QTest>

#include <cstdio>
#include <cstdlib>

namespace TestUtils
{
std::atomic<LogRecorder *> LogRecorder::s_current{nullptr};

LogRecorder::LogRecorder()
    : m_echo(qEnvironmentVariableIsSet("ZAV_TEST_ECHO_LOG"))
{
    s_current = this;
    m_previous = qInstallMessageHandler(&LogRecorder::handler);
}

LogRecorder::~LogRecorder()
{
    qInstallMessageHandler(m_previous);
    s_current = nullptr;
    // A thread that was logging as the handler went may still be appending.
    std::lock_guard<std::mutex> locker(m_mutex);
    m_entries.clear();
}

void LogRecorder::handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    LogRecorder *recorder = s_current;
    if (!recorder) {
        return;
    }
    const QString category = QString::fromLatin1(context.category ? context.category : "default");
    {
        std::lock_guard<std::mutex> locker(recorder->m_mutex);
        recorder->m_entries.append(LogEntry{category, type, message});
    }
    if (recorder->m_echo) {
        std::fprintf(stderr, "[log %s %d] %s\n", qPrintable(category), int(type), qPrintable(message));
    }
    if (type == QtFatalMsg) {
        std::fprintf(stderr, "%s\n", qPrintable(message));
        std::abort();
    }
}

QList<LogEntry> LogRecorder::entries() const
{
    std::lock_guard<std::mutex> locker(m_mutex);
    return m_entries;
}

QList<LogEntry> LogRecorder::slideShowEntries() const
{
    QList<LogEntry> result;
    const QList<LogEntry> all = entries();
    for (const LogEntry &entry : all) {
        if (entry.category == QLatin1String("zav-tev.screensaver.slideshow")) {
            result.append(entry);
        }
    }
    return result;
}

QStringList LogRecorder::texts(QtMsgType type) const
{
    QStringList result;
    const QList<LogEntry> all = slideShowEntries();
    for (const LogEntry &entry : all) {
        if (entry.type == type) {
            result.append(entry.text);
        }
    }
    return result;
}

int LogRecorder::count(const QString &text) const
{
    int n = 0;
    const QList<LogEntry> all = entries();
    for (const LogEntry &entry : all) {
        if (entry.text == text) {
            ++n;
        }
    }
    return n;
}

void LogRecorder::clear()
{
    std::lock_guard<std::mutex> locker(m_mutex);
    m_entries.clear();
}

QString mapLogText(const char *leading, const QVariantMap &map)
{
    QString text;
    QDebug(&text) << leading << map;
    // A QDebug on a string keeps the blank after its last item; the message
    // handler never sees that blank.
    if (text.endsWith(QLatin1Char(' '))) {
        text.chop(1);
    }
    return text;
}

QString quoted(const QString &text)
{
    QString result;
    QDebug(&result).nospace() << text;
    return result;
}

QString loadWarning(const QString &path)
{
    return quoted(QStringLiteral("ImageCacheWorker: It was not possible to load the original image: %0 ").arg(path));
}

QVariantMap settingsMap(const QString &directory, int autoSwitch, int effect, int position)
{
    return QVariantMap{
        {QStringLiteral("ImageDirectory"), directory},
        {QStringLiteral("AutoSwitch"), autoSwitch},
        {QStringLiteral("Effect"), effect},
        {QStringLiteral("Position"), position},
    };
}

QString translated(const char *text)
{
    return ki18nd("zav-screensaver_slideshow", text).toString();
}

void setSlideShowDebugEnabled(bool enabled)
{
    QLoggingCategory::setFilterRules(enabled ? QStringLiteral("zav-tev.screensaver.slideshow.debug=true") : QString());
}

QString writeImage(const QString &directory, const QString &fileName, const QImage &image)
{
    const QString path = QDir(directory).filePath(fileName);
    if (!image.save(path)) {
        QTest::qFail(qPrintable(QStringLiteral("could not write the test image %1").arg(path)), __FILE__, __LINE__);
        return QString();
    }
    return path;
}

QString writeSolidImage(const QString &directory, const QString &fileName, const QSize &size, const QColor &color)
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(color);
    return writeImage(directory, fileName, image);
}

qint64 peakResidentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QString text = QString::fromLatin1(status.readAll());
    const QRegularExpressionMatch match = QRegularExpression(QStringLiteral("VmHWM:\\s+(\\d+) kB")).match(text);
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

bool fuzzyColor(QRgb actual, const QColor &expected, int fuzz)
{
    return qAbs(qRed(actual) - expected.red()) <= fuzz && qAbs(qGreen(actual) - expected.green()) <= fuzz && qAbs(qBlue(actual) - expected.blue()) <= fuzz
        && qAbs(qAlpha(actual) - expected.alpha()) <= fuzz;
}

bool fuzzyEqual(const QImage &actual, const QImage &expected, int fuzz, QString *why)
{
    if (actual.size() != expected.size()) {
        if (why) {
            *why = QStringLiteral("sizes differ");
        }
        return false;
    }
    const QImage a = actual.convertToFormat(QImage::Format_ARGB32);
    const QImage e = expected.convertToFormat(QImage::Format_ARGB32);
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            if (!fuzzyColor(a.pixel(x, y), QColor::fromRgba(e.pixel(x, y)), fuzz)) {
                if (why) {
                    *why = QStringLiteral("pixel (%1, %2) is %3, expected %4")
                               .arg(x)
                               .arg(y)
                               .arg(a.pixel(x, y), 8, 16, QLatin1Char('0'))
                               .arg(e.pixel(x, y), 8, 16, QLatin1Char('0'));
                }
                return false;
            }
        }
    }
    return true;
}
}
