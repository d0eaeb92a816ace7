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

namespace
{
// Appends bits to a JPEG entropy-coded segment, stuffing a zero byte after
// every 0xFF as the format demands.
class BitWriter
{
public:
    explicit BitWriter(QByteArray &out)
        : m_out(out)
    {
    }

    void put(quint32 bits, int count)
    {
        for (int i = count - 1; i >= 0; --i) {
            m_byte = (m_byte << 1) | ((bits >> i) & 1);
            if (++m_used == 8) {
                emit();
            }
        }
    }

    // Pads the last byte with one bits.
    void flush()
    {
        while (m_used != 0) {
            put(1, 1);
        }
    }

private:
    void emit()
    {
        m_out.append(char(m_byte));
        if (m_byte == 0xff) {
            m_out.append(char(0));
        }
        m_byte = 0;
        m_used = 0;
    }

    QByteArray &m_out;
    quint32 m_byte = 0;
    int m_used = 0;
};

void appendSegment(QByteArray &out, quint8 marker, const QByteArray &payload)
{
    out.append(char(0xff)).append(char(marker));
    const int length = payload.size() + 2;
    out.append(char(length >> 8)).append(char(length & 0xff));
    out.append(payload);
}
}

QString writeManyScanJpeg(const QString &directory, const QString &fileName, int size, int acScans)
{
    if (size <= 0 || size % 8 != 0 || size > 65535) {
        return QString();
    }
    QByteArray out;
    out.append(char(0xff)).append(char(0xd8));
    // One quantisation table of ones.
    appendSegment(out, 0xdb, QByteArray(1, char(0)) + QByteArray(64, char(1)));
    // Progressive frame, one 8-bit component.
    QByteArray frame;
    frame.append(char(8)).append(char(size >> 8)).append(char(size & 0xff)).append(char(size >> 8)).append(char(size & 0xff));
    frame.append(char(1)).append(char(1)).append(char(0x11)).append(char(0));
    appendSegment(out, 0xc2, frame);
    // DC table: one code "0" for "no difference".
    QByteArray dcTable(1, char(0x00));
    QByteArray counts(16, char(0));
    counts[0] = 1;
    dcTable.append(counts).append(char(0x00));
    appendSegment(out, 0xc4, dcTable);
    // AC table: "0" for an end-of-band run of 2^14 + 14 bits, "10" for a
    // run of 8 + 3 bits.
    QByteArray acTable(1, char(0x10));
    counts[1] = 1;
    acTable.append(counts).append(char(0xe0)).append(char(0x30));
    appendSegment(out, 0xc4, acTable);

    const qint64 blocks = qint64(size / 8) * (size / 8);
    // The DC scan: no difference in any block, so a flat grey picture.
    QByteArray dcScan;
    dcScan.append(char(1)).append(char(1)).append(char(0x00)).append(char(0)).append(char(0)).append(char(0));
    appendSegment(out, 0xda, dcScan);
    {
        BitWriter writer(out);
        for (qint64 i = 0; i < blocks; ++i) {
            writer.put(0, 1);
        }
        writer.flush();
    }
    // Each AC scan says "every block stays zero" with a few end-of-band runs.
    QByteArray acData;
    {
        BitWriter writer(acData);
        qint64 left = blocks;
        while (left > 0) {
            if (left >= 16384) {
                const qint64 run = qMin<qint64>(left, 32767);
                writer.put(0, 1);
                writer.put(quint32(run - 16384), 14);
                left -= run;
            } else {
                // Runs of 8 to 15 blocks, the last one at least 8 long.
                const qint64 run = left <= 15 ? left : qMin<qint64>(15, left - 8);
                if (run < 8) {
                    return QString();
                }
                writer.put(0x2, 2);
                writer.put(quint32(run - 8), 3);
                left -= run;
            }
        }
        writer.flush();
    }
    QByteArray acScan;
    acScan.append(char(1)).append(char(1)).append(char(0x00)).append(char(1)).append(char(63)).append(char(0));
    for (int scan = 0; scan < acScans; ++scan) {
        appendSegment(out, 0xda, acScan);
        out.append(acData);
    }
    out.append(char(0xff)).append(char(0xd9));

    const QString path = QDir(directory).filePath(fileName);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(out) != out.size()) {
        return QString();
    }
    return path;
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
