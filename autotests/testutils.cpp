/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "testutils.h"

#include <KLocalizedString>

#include <QBuffer>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QImageWriter>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include <zlib.h>

namespace TestUtils
{
namespace
{
// Guards which recorder is current, and so its lifetime: a message logged in
// another thread while a recorder is destroyed either reaches it before the
// destructor takes this lock or finds no recorder at all after it.
std::mutex &currentRecorderMutex()
{
    static std::mutex mutex;
    return mutex;
}
}

LogRecorder *LogRecorder::s_current = nullptr;

LogRecorder::LogRecorder()
    : m_echo(qEnvironmentVariableIsSet("ZAV_TEST_ECHO_LOG"))
{
    std::lock_guard<std::mutex> locker(currentRecorderMutex());
    s_current = this;
    m_previous = qInstallMessageHandler(&LogRecorder::handler);
}

LogRecorder::~LogRecorder()
{
    std::lock_guard<std::mutex> locker(currentRecorderMutex());
    qInstallMessageHandler(m_previous);
    s_current = nullptr;
}

void LogRecorder::handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const QString category = QString::fromLatin1(context.category ? context.category : "default");
    bool echo = false;
    {
        std::lock_guard<std::mutex> current(currentRecorderMutex());
        LogRecorder *recorder = s_current;
        if (!recorder) {
            return;
        }
        std::lock_guard<std::mutex> locker(recorder->m_mutex);
        recorder->m_entries.append(LogEntry{category, type, message});
        echo = recorder->m_echo;
    }
    if (echo) {
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

LogEntry entry(QtMsgType type, const QString &text)
{
    return LogEntry{QString::fromLatin1(LogText::category), type, text};
}

QString describe(const QList<LogEntry> &entries)
{
    QString text;
    for (const LogEntry &entry : entries) {
        text += QStringLiteral("\n  [%1] %2").arg(int(entry.type)).arg(entry.text);
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
    return quoted(QString::fromLatin1(LogText::loadFailed).arg(path));
}

QString noImagesError(const QString &folder)
{
    return quoted(QString::fromLatin1(LogText::noImages).arg(folder));
}

QVariantMap settingsMap(const QString &directory, int autoSwitch, int effect, int position)
{
    return QVariantMap{
        {Key::directory, directory},
        {Key::autoSwitch, autoSwitch},
        {Key::effect, effect},
        {Key::position, position},
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

// A Huffman table (class and number in one byte: 0x00 the first DC table,
// 0x10 the first AC table) that gives the n-th symbol the code of n bits
// made of n - 1 ones and a zero: "0", "10", "110" ...
void appendHuffmanTable(QByteArray &out, char classAndNumber, const QByteArray &symbols)
{
    QByteArray counts(16, char(0));
    for (int i = 0; i < symbols.size() && i < 16; ++i) {
        counts[i] = 1;
    }
    appendSegment(out, 0xc4, QByteArray(1, classAndNumber) + counts + symbols);
}

// The start of a grey JPEG: one quantisation table of ones and the frame
// (a baseline or progressive one, by its marker) of one 8-bit component.
QByteArray greyJpegStart(int width, int height, quint8 frameMarker)
{
    QByteArray out;
    out.append(char(0xff)).append(char(0xd8));
    appendSegment(out, 0xdb, QByteArray(1, char(0)) + QByteArray(64, char(1)));
    QByteArray frame;
    frame.append(char(8)).append(char(height >> 8)).append(char(height & 0xff)).append(char(width >> 8)).append(char(width & 0xff));
    frame.append(char(1)).append(char(1)).append(char(0x11)).append(char(0));
    appendSegment(out, frameMarker, frame);
    return out;
}
}

QString writeManyScanJpeg(const QString &directory, const QString &fileName, int size, int acScans)
{
    if (size <= 0 || size % 8 != 0 || size > 65535) {
        return QString();
    }
    QByteArray out = greyJpegStart(size, size, 0xc2);
    // DC table: "0" for "no difference". AC table: "0" for an end-of-band
    // run of 2^14 + 14 bits, "10" for a run of 8 + 3 bits.
    appendHuffmanTable(out, 0x00, QByteArray(1, char(0x00)));
    appendHuffmanTable(out, 0x10, QByteArray("\xe0\x30", 2));

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
    return writeFile(QDir(directory).filePath(fileName), out);
}

QString writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() ? path : QString();
}

QByteArray encoded(const QImage &image, const char *format, int quality)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, format);
    writer.setQuality(quality);
    if (!writer.write(image)) {
        qWarning() << "cannot encode" << format << writer.errorString();
    }
    return bytes;
}

QByteArray whiteSvg(const QSize &size)
{
    const QByteArray dimensions = QStringLiteral("width=\"%1\" height=\"%2\"").arg(size.width()).arg(size.height()).toLatin1();
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" " + dimensions + "><rect " + dimensions + " fill=\"#ffffff\"/></svg>";
}

QImage tallScreenshot()
{
    QImage image(1000, 8000, QImage::Format_RGB32);
    for (int y = 0; y < image.height(); ++y) {
        std::fill_n(reinterpret_cast<QRgb *>(image.scanLine(y)), image.width(), qRgb(y % 256, 100, 200));
    }
    return image;
}

namespace
{
void appendBigEndian(QByteArray &out, quint32 value)
{
    out.append(char(value >> 24)).append(char(value >> 16)).append(char(value >> 8)).append(char(value));
}

// Each value in that many bytes, the lowest first.
void appendLittleEndian(QByteArray &out, std::initializer_list<quint32> values, int bytes = 4)
{
    for (const quint32 value : values) {
        for (int i = 0; i < bytes; ++i) {
            out.append(char(value >> (8 * i)));
        }
    }
}

void appendPngChunk(QByteArray &out, const char *type, const QByteArray &data)
{
    appendBigEndian(out, quint32(data.size()));
    QByteArray typed(type, 4);
    typed.append(data);
    out.append(typed);
    appendBigEndian(out, quint32(crc32(0, reinterpret_cast<const Bytef *>(typed.constData()), uInt(typed.size()))));
}
}

QString writeFlatJpeg(const QString &directory, const QString &fileName, int width, int height, bool progressive)
{
    if (width <= 0 || height <= 0 || width % 8 != 0 || height % 8 != 0 || width > 65535 || height > 65535) {
        return QString();
    }
    QByteArray out = greyJpegStart(width, height, progressive ? 0xc2 : 0xc0);
    // DC table: "0" for no difference; AC table: "0" for the end of block.
    appendHuffmanTable(out, 0x00, QByteArray(1, char(0x00)));
    appendHuffmanTable(out, 0x10, QByteArray(1, char(0x00)));
    QByteArray scan;
    scan.append(char(1)).append(char(1)).append(char(0x00)).append(char(0)).append(char(progressive ? 0 : 63)).append(char(0));
    appendSegment(out, 0xda, scan);
    // Each block: no DC difference, and (baseline) the end of the block at
    // once. The bits are all zero, so whole bytes of zero.
    const qint64 blocks = qint64(width / 8) * (height / 8);
    const qint64 bits = blocks * (progressive ? 1 : 2);
    out.append(QByteArray(int((bits + 7) / 8), char(0)));
    out.append(char(0xff)).append(char(0xd9));
    return writeFile(QDir(directory).filePath(fileName), out);
}

QString writeZeroPng(const QString &directory, const QString &fileName, int width, int height, int bitDepth, int colourType)
{
    const int channels = colourType == 6 ? 4 : 3;
    if (width <= 0 || height <= 0 || (bitDepth != 8 && bitDepth != 16) || (colourType != 2 && colourType != 6)) {
        return QString();
    }
    QByteArray out("\x89PNG\r\n\x1a\n", 8);
    QByteArray header;
    appendBigEndian(header, quint32(width));
    appendBigEndian(header, quint32(height));
    header.append(char(bitDepth)).append(char(colourType)).append(char(0)).append(char(0)).append(char(0));
    appendPngChunk(out, "IHDR", header);

    // Every row: filter 0 and zero samples, deflated as it goes.
    const QByteArray row(1 + qint64(width) * channels * bitDepth / 8, char(0));
    z_stream stream{};
    if (deflateInit(&stream, Z_BEST_COMPRESSION) != Z_OK) {
        return QString();
    }
    QByteArray compressed;
    QByteArray buffer(1 << 16, char(0));
    for (int y = 0; y <= height; ++y) {
        const bool last = y == height;
        stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(row.constData()));
        stream.avail_in = last ? 0 : uInt(row.size());
        do {
            stream.next_out = reinterpret_cast<Bytef *>(buffer.data());
            stream.avail_out = uInt(buffer.size());
            deflate(&stream, last ? Z_FINISH : Z_NO_FLUSH);
            compressed.append(buffer.constData(), buffer.size() - int(stream.avail_out));
        } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    appendPngChunk(out, "IDAT", compressed);
    appendPngChunk(out, "IEND", QByteArray());
    return writeFile(QDir(directory).filePath(fileName), out);
}

QString writeRleBmp(const QString &directory, const QString &fileName, int width, int height)
{
    QByteArray palette;
    for (int i = 0; i < 256; ++i) {
        palette.append(char(i)).append(char(i)).append(char(i)).append(char(0));
    }
    // One run of width pixels of colour 200 on the first row, then the end
    // of the bitmap.
    QByteArray data;
    data.append(char(qMin(width, 255))).append(char(200));
    data.append(char(0)).append(char(1));
    const int dataOffset = 14 + 40 + palette.size();
    // The file header, then an info header of 40 bytes: width and height,
    // one plane of 8 bits a pixel, BI_RLE8 (1), the data's size, 2835 pixels
    // a metre and a palette of 256 colours.
    QByteArray out("BM");
    appendLittleEndian(out, {quint32(dataOffset + data.size()), 0, quint32(dataOffset), 40, quint32(width), quint32(height)});
    appendLittleEndian(out, {1, 8}, 2);
    appendLittleEndian(out, {1, quint32(data.size()), 2835, 2835, 256, 0});
    out.append(palette).append(data);
    return writeFile(QDir(directory).filePath(fileName), out);
}

QByteArray withExifOrientation(const QByteArray &jpeg, int orientation)
{
    // "Exif" and a little-endian TIFF header with one directory of one
    // entry: tag 0x0112 (orientation), type SHORT, one value.
    QByteArray exif("Exif\0\0", 6);
    exif.append("II*\0", 4);
    appendLittleEndian(exif, {8});
    appendLittleEndian(exif, {1, 0x0112, 3}, 2);
    appendLittleEndian(exif, {1});
    appendLittleEndian(exif, {quint32(orientation), 0}, 2);
    appendLittleEndian(exif, {0});
    QByteArray segment;
    appendSegment(segment, 0xe1, exif);
    return jpeg.left(2) + segment + jpeg.mid(2);
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

qint64 processStatusKiB(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QString text = QString::fromLatin1(status.readAll());
    const QRegularExpressionMatch match = QRegularExpression(QLatin1String(field) + QStringLiteral(":\\s+(\\d+) kB")).match(text);
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

std::mutex &handoffMutex()
{
    static std::mutex mutex;
    return mutex;
}

ThreadBlocker::ThreadBlocker(QObject *context)
    : m_state(std::make_shared<State>())
{
    std::shared_ptr<State> state = m_state;
    postTo(context, [state] {
        std::unique_lock<std::mutex> lock(state->mutex);
        state->holding = true;
        state->changed.notify_all();
        state->changed.wait(lock, [&state] {
            return state->released;
        });
    });
}

ThreadBlocker::~ThreadBlocker()
{
    release();
}

bool ThreadBlocker::waitUntilHolding()
{
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->changed.wait_for(lock, std::chrono::milliseconds(asyncTimeout), [this] {
        return m_state->holding;
    });
}

bool ThreadBlocker::isHolding() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->holding && !m_state->released;
}

void ThreadBlocker::release()
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->released = true;
    m_state->changed.notify_all();
}

QRgb crossFadePixel(const QColor &background, const QColor &previous, const QColor &current, double opacity)
{
    double result[4] = {background.redF() * background.alphaF(),
                        background.greenF() * background.alphaF(),
                        background.blueF() * background.alphaF(),
                        background.alphaF()};
    const auto over = [&result](const QColor &colour, double weight) {
        const double alpha = colour.alphaF() * weight;
        const double source[4] = {colour.redF() * alpha, colour.greenF() * alpha, colour.blueF() * alpha, alpha};
        for (int c = 0; c < 4; ++c) {
            result[c] = source[c] + result[c] * (1.0 - alpha);
        }
    };
    if (opacity < 1.0) {
        over(previous, 1.0);
    }
    over(current, qBound(0.0, opacity, 1.0));
    return qRgba(qRound(result[0] * 255), qRound(result[1] * 255), qRound(result[2] * 255), qRound(result[3] * 255));
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
