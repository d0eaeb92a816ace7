/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// How the worker prepares one image: the file read through a device that
// can be cut short, with the decoding limit and the reader's own reduction,
// and fitted to the screen in one of the four modes. Nothing here touches
// the worker's containers or its lock.

#include "imagecache/imagecacheworker.h"

#include "plugin/slideshowconstants.h"

#include <QColor>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QImageReader>
#include <QPainter>
#include <QPointF>
#include <QRectF>

#include <cmath>
#include <ctime>
#include <limits>
#include <utility>

namespace Dm
{
namespace ScreenSaver
{
namespace
{
// Converts toward zero like int(value), but defined for every double: the
// ratios come from outside, and a zero or absurd ratio must not become
// undefined behaviour in the arithmetic below.
int truncated(double value)
{
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= double(std::numeric_limits<int>::max())) {
        return std::numeric_limits<int>::max();
    }
    if (value <= double(std::numeric_limits<int>::min())) {
        return std::numeric_limits<int>::min();
    }
    return int(value);
}

// The canvas of the painting modes: the target's pixel size, the requested
// device-pixel ratio, black.
QPixmap blackCanvas(const QSize &size, double devicePixelRatio)
{
    QPixmap canvas(size);
    canvas.setDevicePixelRatio(devicePixelRatio);
    canvas.fill(QColor(Qt::black));
    return canvas;
}

// Tile and Center draw an image at its logical size: one of its pixels is
// ratio pixels of the screen. At a whole ratio each pixel is repeated, as
// it always was; at a fractional one the worker resamples it smoothly, so
// that the paint need not.
void smoothAtFractionalRatio(QPainter &painter, double devicePixelRatio)
{
    if (devicePixelRatio != std::floor(devicePixelRatio)) {
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
    }
}

// Fit's size of an image: whole, its aspect kept, as large as fits; within
// a pixel of the target it is the target, so that no sliver of fill shows.
QSize fittedSize(const QSize &image, const QSize &target)
{
    if (image.isEmpty() || target.isEmpty()) {
        return target;
    }
    const QSize fitted = image.scaled(target, Qt::KeepAspectRatio).expandedTo(QSize(1, 1));
    if (target.width() - fitted.width() <= 1 && target.height() - fitted.height() <= 1) {
        return target;
    }
    return fitted;
}

// Three passes of a box blur, which come close to a Gaussian one, of about
// this radius, along the rows and then the columns.
QImage blurred(QImage image, int radius)
{
    image = image.convertToFormat(QImage::Format_RGB32);
    if (radius < 1 || image.isNull()) {
        return image;
    }
    const int width = image.width();
    const int height = image.height();
    const int passRadius = qMax(1, radius / 2);
    QVector<QRgb> line(qMax(width, height));
    const auto blurLine = [passRadius, &line](QRgb *pixels, int count, int stride) {
        for (int pass = 0; pass < 3; ++pass) {
            for (int i = 0; i < count; ++i) {
                line[i] = pixels[i * stride];
            }
            int sum[3] = {0, 0, 0};
            const auto add = [&sum, &line, count](int index, int sign) {
                const QRgb pixel = line[qBound(0, index, count - 1)];
                sum[0] += sign * qRed(pixel);
                sum[1] += sign * qGreen(pixel);
                sum[2] += sign * qBlue(pixel);
            };
            for (int i = -passRadius; i <= passRadius; ++i) {
                add(i, 1);
            }
            const int span = 2 * passRadius + 1;
            for (int i = 0; i < count; ++i) {
                pixels[i * stride] = qRgb(sum[0] / span, sum[1] / span, sum[2] / span);
                add(i + passRadius + 1, 1);
                add(i - passRadius, -1);
            }
        }
    };
    for (int y = 0; y < height; ++y) {
        blurLine(reinterpret_cast<QRgb *>(image.scanLine(y)), width, 1);
    }
    auto *bits = reinterpret_cast<QRgb *>(image.bits());
    const int stride = image.bytesPerLine() / 4;
    for (int x = 0; x < width; ++x) {
        blurLine(bits + x, height, stride);
    }
    return image;
}

// Whether Crop scales an image whole and then cuts the middle out, which
// gives the exact pixels it always gave: only an image that is scaled up (in
// the direction that sets the scale it is not larger than the screen) and
// whose whole scaled image stays within the limit. Any other has the part
// that is shown cut out first, and only that part scaled: a tall screenshot
// on a wide screen would otherwise be scaled whole to many times the screen.
bool cropScalesWhole(const QSize &image, const QSize &target)
{
    if (image.isEmpty() || target.isEmpty()) {
        return true;
    }
    const double factor = qMax(double(target.width()) / image.width(), double(target.height()) / image.height());
    const QSize expanded = image.scaled(target, Qt::KeepAspectRatioByExpanding);
    return factor >= 1.0 && qint64(expanded.width()) * expanded.height() * 4 <= ImageCacheWorker::maxDecodedBytes;
}

// The centred part of an image of the given size that has the target's
// aspect ratio: what Crop shows of it. At least one pixel each way.
QRect visiblePart(const QSize &image, const QSize &target)
{
    qint64 width = image.width();
    qint64 height = image.height();
    if (width * target.height() > height * target.width()) {
        width = qMax<qint64>(1, qRound64(double(height) * target.width() / target.height()));
    } else {
        height = qMax<qint64>(1, qRound64(double(width) * target.height() / target.width()));
    }
    return QRect(int((image.width() - width) / 2), int((image.height() - height) / 2), int(width), int(height));
}

// The file as the decoders read it: a QFile (so that the reader still takes
// the file name's suffix as its first guess of the format) that hands out at
// most a small piece per read and, before each piece, asks whether the
// preparation is still wanted and still within its time budget. Once not,
// the input ends as if the file ended there, and every decoder finishes at
// once; what it made of the truncated input is thrown away by the caller.
class PreparationFile : public QFile
{
public:
    PreparationFile(const QString &path, std::function<bool()> unwanted)
        : QFile(path)
        , m_unwanted(std::move(unwanted))
        , m_startCpuMs(threadCpuMs())
    {
        m_timer.start();
    }

    // Why the input was ended, if it was.
    bool cutShort() const
    {
        return m_unwantedSeen || m_overBudget;
    }
    bool overBudget() const
    {
        return m_overBudget;
    }

    bool atEnd() const override
    {
        return cutShort() || QFile::atEnd();
    }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        // In small pieces, so that a decoder that spends long on little input
        // (thousands of tiny progressive scans) asks again often; but the
        // whole of what was asked for, for a short read is taken for the end
        // of the file by some decoders, and for garbage by others.
        qint64 done = 0;
        while (done < maxSize && stillWanted()) {
            const qint64 read = QFile::readData(data + done, qMin<qint64>(maxSize - done, 4096));
            if (read <= 0) {
                return done > 0 ? done : read;
            }
            done += read;
        }
        // Asked again after the reads too, which may have waited long.
        return stillWanted() ? done : 0;
    }

private:
    // The processor time of the calling thread, in milliseconds.
    static qint64 threadCpuMs()
    {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    }

    bool stillWanted()
    {
        if (!cutShort()) {
            if (m_unwanted && m_unwanted()) {
                m_unwantedSeen = true;
            } else if (threadCpuMs() - m_startCpuMs > ImageCacheWorker::preparationBudget || m_timer.hasExpired(ImageCacheWorker::preparationTimeLimit)) {
                m_overBudget = true;
            }
        }
        return !cutShort();
    }

    const std::function<bool()> m_unwanted;
    const qint64 m_startCpuMs;
    QElapsedTimer m_timer;
    bool m_unwantedSeen = false;
    bool m_overBudget = false;
};

// What a JPEG's header says about how the library decodes it: a progressive
// file, or one whose first scan does not hold every component, keeps
// coefficients for the whole declared image until its last scan, however far
// the output is scaled down.
struct JpegLayout {
    bool known = false;
    int components = 0;
    bool buffered = false;
};

// Walks the markers of a JPEG file up to its first scan, reading only the
// segments' headers (and the frame header itself).
JpegLayout jpegLayout(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.isSequential() || file.read(2) != QByteArray("\xff\xd8", 2)) {
        return JpegLayout();
    }
    JpegLayout layout;
    // A real file has a few dozen segments before its first scan.
    for (int segment = 0; segment < 4096; ++segment) {
        char byte = 0;
        do {
            if (!file.getChar(&byte)) {
                return JpegLayout();
            }
        } while (uchar(byte) != 0xff);
        do {
            if (!file.getChar(&byte)) {
                return JpegLayout();
            }
        } while (uchar(byte) == 0xff);
        const uchar marker = uchar(byte);
        if (marker == 0x01 || (marker >= 0xd0 && marker <= 0xd8)) {
            // Markers without a segment.
            continue;
        }
        if (marker == 0xd9) {
            return JpegLayout();
        }
        const QByteArray lengthBytes = file.read(2);
        if (lengthBytes.size() < 2) {
            return JpegLayout();
        }
        const int length = (uchar(lengthBytes.at(0)) << 8) | uchar(lengthBytes.at(1));
        if (length < 2) {
            return JpegLayout();
        }
        const bool frame = marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc;
        if (frame) {
            const QByteArray header = file.read(length - 2);
            if (header.size() < 6) {
                return JpegLayout();
            }
            layout.components = uchar(header.at(5));
            // SOF2, SOF6, SOF10 and SOF14 are the progressive frames.
            layout.buffered = (marker & 0x03) == 0x02;
            continue;
        }
        if (marker == 0xda) {
            const QByteArray scan = file.read(1);
            if (scan.isEmpty() || layout.components <= 0) {
                return JpegLayout();
            }
            layout.buffered = layout.buffered || uchar(scan.at(0)) < layout.components;
            layout.known = true;
            return layout;
        }
        if (!file.seek(file.pos() + length - 2)) {
            return JpegLayout();
        }
    }
    return JpegLayout();
}

qint64 pixelsOf(const QSize &size)
{
    return qint64(qMax(0, size.width())) * qMax(0, size.height());
}

// How the reader is asked to read one file, and what that costs.
struct ReadPlan {
    // The size the file's header gives, as stored (before any orientation is
    // applied), and upright; invalid when the header does not say.
    QSize stored;
    QSize upright;
    // What the reader is asked to deliver, in stored coordinates: a scaled
    // size and for Crop the visible part of the scaled image; invalid when
    // the file is read as it is.
    QSize scaledSize;
    QRect scaledClipRect;
    // For Tile and Center: the part of the image that they show, read
    // without the rest (in stored coordinates, which are the upright ones
    // then); invalid when the image is read whole.
    QRect clipRect;
    // Bytes the decoding allocates at most, or -1 when unknown.
    qint64 bytes = -1;
    // Whether the decoder's pixels must be converted (copied) into a pixmap's
    // format: not for 32-bit ones.
    bool converted = false;
};

// The size the header gives. A top-down BMP states a negative height (its
// rows run from the top), which is a size like any other; a width of zero or
// less means the header did not tell.
QSize headerSize(QImageReader &reader)
{
    const QSize size = reader.size();
    if (size.width() <= 0 || size.height() == 0) {
        return QSize();
    }
    return QSize(size.width(), qAbs(size.height()));
}

// The part of an image that Tile or Center show on a target of this many
// device pixels: one pixel of the image is a logical pixel. Center places it
// as it always has (half the difference of the sizes in pixels, taken as
// logical coordinates), Tile at the top left, where the first tile is all
// that an image larger than the screen shows of itself. A pixel more on each
// side, for the smoothing at a fractional ratio.
QRect partShownAtOwnSize(const QSize &image, const QSize &target, double devicePixelRatio, Position position)
{
    if (devicePixelRatio <= 0 || image.isEmpty()) {
        return QRect();
    }
    const double logicalWidth = target.width() / devicePixelRatio;
    const double logicalHeight = target.height() / devicePixelRatio;
    int left = 0;
    int top = 0;
    if (position == Center) {
        left = -truncated((double(target.width()) - image.width()) / devicePixelRatio / 2);
        top = -truncated((double(target.height()) - image.height()) / devicePixelRatio / 2);
    }
    const int right = int(std::ceil(left + logicalWidth)) + 1;
    const int bottom = int(std::ceil(top + logicalHeight)) + 1;
    return QRect(QPoint(left - 1, top - 1), QPoint(right, bottom)).intersected(QRect(QPoint(), image));
}

// Center of an image of which only a part may have been read: the part,
// where it lies in the whole image, and the whole image's size, which places
// it. Drawn at its logical size, as the whole image would be.
QPixmap centred(const QImage &image, const QPoint &origin, const QSize &whole, const QSize &size, double devicePixelRatio)
{
    QPixmap canvas = blackCanvas(size, devicePixelRatio);
    if (image.isNull() || canvas.isNull()) {
        return canvas;
    }
    QPainter painter(&canvas);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    smoothAtFractionalRatio(painter, devicePixelRatio);
    // Negative when the image is larger than the target, so it is cut evenly
    // on all sides.
    const int x = truncated((double(size.width()) - whole.width()) / devicePixelRatio / 2);
    const int y = truncated((double(size.height()) - whole.height()) / devicePixelRatio / 2);
    painter.drawImage(QPointF(x + origin.x(), y + origin.y()), image);
    painter.end();
    return canvas;
}

// Tile of an image of which only the top-left part may have been read: the
// steps follow the whole image's size.
QPixmap tiled(const QImage &image, const QSize &whole, const QSize &size, double devicePixelRatio)
{
    QPixmap canvas = blackCanvas(size, devicePixelRatio);
    // Positions are logical coordinates while the bounds are the canvas's
    // pixel size: above ratio 1 the loops run past the visible area (the
    // painter clips) and tiles drawn at their own logical size overlap.
    const int stepX = truncated(whole.width() / devicePixelRatio);
    const int stepY = truncated(whole.height() / devicePixelRatio);
    // A step of zero (an image smaller in pixels than the ratio, or a file
    // that vanished since the probe) would never advance: draw nothing.
    if (image.isNull() || canvas.isNull() || stepX <= 0 || stepY <= 0) {
        return canvas;
    }
    QPainter painter(&canvas);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    smoothAtFractionalRatio(painter, devicePixelRatio);
    for (int x = 0; x < size.width(); x += stepX) {
        for (int y = 0; y < size.height(); y += stepY) {
            painter.drawImage(QPointF(x, y), image);
        }
    }
    painter.end();
    return canvas;
}

// Plans the reading: the image is read already reduced to what the mode
// shows when it is larger than that and the format can decode into a smaller
// size by itself (JPEG through the library's DCT scaling, PNG row by row,
// SVG by rendering at that size), instead of being decoded in full and scaled
// afterwards; images not larger than what is shown are read as they are, so
// their pixels do not change. Then what that decoding allocates is counted,
// from the header alone: a decoder may allocate whatever a header claims.
ReadPlan planReading(QImageReader &reader,
                     const QString &path,
                     bool sequential,
                     const QByteArray &head,
                     const QByteArray &contentFormat,
                     const QSize &target,
                     double devicePixelRatio,
                     Position position,
                     qint64 fileSize)
{
    ReadPlan plan;
    plan.stored = headerSize(reader);
    if (!plan.stored.isValid()) {
        return plan;
    }
    // Photos carry their orientation; the reader turns them upright, and the
    // modes work on the upright image.
    const bool turned = reader.transformation() & QImageIOHandler::TransformationRotate90;
    plan.upright = turned ? plan.stored.transposed() : plan.stored;
    const QSize storedTarget = turned ? target.transposed() : target;

    const bool shownAtOwnSize = position == Tile || position == Center;
    if (!target.isEmpty() && !shownAtOwnSize && reader.supportsOption(QImageIOHandler::ScaledSize)) {
        if (position == Crop) {
            // Scaled to cover the target, then its middle: the reader cuts
            // it out itself (or QImageReader does, after the scaling).
            const QSize expanded = plan.upright.scaled(target, Qt::KeepAspectRatioByExpanding);
            if (plan.upright.width() > expanded.width() && plan.upright.height() > expanded.height()) {
                plan.scaledSize = turned ? expanded.transposed() : expanded;
                plan.scaledClipRect =
                    QRect(QPoint((plan.scaledSize.width() - storedTarget.width()) / 2, (plan.scaledSize.height() - storedTarget.height()) / 2), storedTarget);
            }
        } else if (position == Fit) {
            // Read at the size it is shown at, when that is smaller.
            const QSize fitted = fittedSize(plan.upright, target);
            if (plan.upright.width() > fitted.width() && plan.upright.height() > fitted.height()) {
                plan.scaledSize = turned ? fitted.transposed() : fitted;
            }
        } else if (plan.upright.width() > target.width() && plan.upright.height() > target.height()) {
            // Stretch, and any unknown mode, which is stretched.
            plan.scaledSize = storedTarget;
        }
    }

    // What the content is, which decides the decoder: the reader names the
    // format by the file's suffix (an SVG document named .png is "png" to it,
    // though its SVG reader decodes it).
    const QByteArray format = contentFormat.isEmpty() ? reader.format() : contentFormat;
    const bool jpeg = format == "jpeg" || format == "jpg";

    // Tile and Center show a screen's worth of an image larger than the
    // screen: where the reader can read a part (JPEG, by whole rows of which
    // it keeps only the columns shown), only that part is decoded, so that a
    // panorama too large to decode whole is shown all the same. Only for a
    // photo without an orientation to apply, whose stored coordinates are
    // the ones shown.
    if (shownAtOwnSize && jpeg && !target.isEmpty() && reader.transformation() == QImageIOHandler::TransformationNone
        && reader.supportsOption(QImageIOHandler::ClipRect)) {
        const QRect shown = partShownAtOwnSize(plan.stored, target, devicePixelRatio, position);
        if (shown.isValid() && shown != QRect(QPoint(), plan.stored)) {
            plan.clipRect = shown;
        }
    }
    const QImage::Format output = reader.imageFormat();
    plan.converted = output != QImage::Format_RGB32 && output != QImage::Format_ARGB32 && output != QImage::Format_ARGB32_Premultiplied;
    // Bytes a pixel of what the decoder gives; four where it does not say.
    const int outputBytes = output == QImage::Format_Invalid ? 4 : qMax(1, QImage::toPixelFormat(output).bitsPerPixel() / 8);
    const qint64 declared = pixelsOf(plan.stored);
    if (jpeg) {
        // The library decodes at M/8 of the size for M from 1 to 8, no
        // smaller than asked for; the reader scales that to exactly the size
        // asked for, and cuts the visible part out of it. A part read whole
        // is only that part.
        qint64 bytes = (plan.clipRect.isValid() ? pixelsOf(plan.clipRect.size()) : declared) * 4;
        if (plan.scaledSize.isValid()) {
            const double factor = qMin(double(plan.stored.width()) / plan.scaledSize.width(), double(plan.stored.height()) / plan.scaledSize.height());
            const int eighths = qBound(1, int(std::ceil(8 / factor)), 8);
            const QSize dct(int(std::ceil(plan.stored.width() * eighths / 8.0)), int(std::ceil(plan.stored.height() * eighths / 8.0)));
            bytes = (pixelsOf(dct) + pixelsOf(plan.scaledSize) + pixelsOf(plan.scaledClipRect.size())) * 4;
        }
        const JpegLayout layout = sequential ? JpegLayout() : jpegLayout(path);
        if (!layout.known || layout.buffered) {
            // About two bytes a declared pixel and component.
            bytes += declared * (layout.known ? layout.components : 3) * 2;
        }
        plan.bytes = bytes;
    } else if (format == "svg" || format == "svgz") {
        plan.bytes = pixelsOf(plan.scaledSize.isValid() ? plan.scaledSize : plan.stored) * 4;
    } else if (format == "png") {
        // Counted whole: the reader's own scaling of a PNG is no promise of
        // a smaller allocation. Sixteen bits a channel decode to eight bytes
        // a pixel, which are then converted to four, and scaled: the
        // conversion is in the sixteen bytes counted.
        const bool sixteenBits = head.size() > 24 && head.mid(12, 4) == "IHDR" && uchar(head.at(24)) == 16;
        if (sixteenBits) {
            plan.bytes = declared * 16;
        } else {
            // Thirty-two bits a pixel for the whole image, which its scaling
            // or its copy into a pixmap's format takes, and beside them the
            // decoder's own pixels where they are fewer bits.
            plan.bytes = declared * 4 + (plan.converted ? declared * outputBytes : 0);
        }
        plan.converted = false;
    } else if (format == "gif") {
        // A GIF is decoded onto its whole logical screen, whose size the
        // header states apart from the size of the first frame that the
        // reader reports: 29 bytes can claim a screen of 65535 x 32767.
        if (head.size() < 10) {
            return plan;
        }
        const qint64 screenWidth = uchar(head.at(6)) | (uchar(head.at(7)) << 8);
        const qint64 screenHeight = uchar(head.at(8)) | (uchar(head.at(9)) << 8);
        plan.bytes = qMax(declared, screenWidth * screenHeight) * 4;
    } else if (format == "webp") {
        // Decoded straight into the image, beside the whole file, which the
        // library takes in at once (measured: 4.25 bytes a pixel for a
        // 3000 x 3000 photo of 1.7 MB).
        plan.bytes = declared * 4 + fileSize;
        plan.converted = false;
    } else if (format == "tif" || format == "tiff") {
        // The library's own 32-bit buffer of the whole image, then the
        // image (measured: 7.5 bytes a pixel).
        plan.bytes = declared * 8;
        plan.converted = false;
    } else if (format == "heic" || format == "heif" || format == "avif" || format == "jxl") {
        // The decoder's planes, its RGB buffer, the image, and for a photo
        // of more than 8 bits a sample all of it twice as wide and a copy
        // into a pixmap's format (measured at 8 bits: 8.3, 8.1 and 7.5 bytes
        // a pixel); the header does not tell the depth, so the deeper case
        // is counted.
        plan.bytes = declared * 16;
        plan.converted = false;
    } else {
        // What the decoder gives, at the bytes a pixel of its format (an
        // 8-bit BMP one, which its copy into a pixmap's format makes four).
        plan.bytes = declared * outputBytes;
    }
    return plan;
}
}

QPixmap ImageCacheWorker::cachedImage(const QString &path, const QRect &geometry, double devicePixelRatio, Position position) const
{
    return prepareImage(path, geometry, devicePixelRatio, position, std::function<bool()>());
}

QPixmap ImageCacheWorker::prepareImage(const QString &path,
                                       const QRect &geometry,
                                       double devicePixelRatio,
                                       Position position,
                                       const std::function<bool()> &unwanted,
                                       bool *gone,
                                       qint64 *workingBytes) const
{
    // The black canvas of the target's size is the answer for a file that
    // cannot be read; it is only built then (at 4K it costs a full fill).
    // The size the canvas would have: a pixmap of a non-positive size is
    // null, of size 0 x 0.
    const QSize size = geometry.width() > 0 && geometry.height() > 0 ? QSize(geometry.width(), geometry.height()) : QSize(0, 0);

    QImage decoded;
    bool overBudget = false;
    bool visiblePartDelivered = false;
    // Where the decoded part lies in the whole image, and the whole image's
    // size (upright): Tile and Center of a part place it by them.
    QPoint origin;
    QSize whole;
    {
        PreparationFile file(path, unwanted);
        if (file.open(QIODevice::ReadOnly)) {
            // Before the decoder reads anything: the PNG and GIF headers.
            const QByteArray head = file.peek(32);
            const QByteArray contentFormat = QImageReader::imageFormat(&file);
            QImageReader reader(&file);
            reader.setAutoTransform(true);
            const ReadPlan plan = planReading(reader, path, file.isSequential(), head, contentFormat, size, devicePixelRatio, position, file.size());
            // Everything the preparation holds besides its screen-sized
            // result counts against the limit: the decoder's allocation, the
            // copy into a pixmap's format where one is needed, and Crop's
            // whole scaled image where it scales one.
            qint64 bytes = plan.bytes;
            if (bytes >= 0) {
                QSize output = plan.stored;
                if (plan.scaledClipRect.isValid()) {
                    output = plan.scaledClipRect.size();
                } else if (plan.scaledSize.isValid()) {
                    output = plan.scaledSize;
                } else if (plan.clipRect.isValid()) {
                    output = plan.clipRect.size();
                }
                if (plan.converted) {
                    bytes += pixelsOf(output) * 4;
                }
                if (position == Crop && !plan.scaledClipRect.isValid() && cropScalesWhole(plan.upright, size)) {
                    bytes += pixelsOf(plan.upright.scaled(size, Qt::KeepAspectRatioByExpanding)) * 4;
                }
            }
            if (bytes >= 0 && bytes <= maxDecodedBytes) {
                if (workingBytes) {
                    *workingBytes = bytes;
                }
                if (plan.scaledSize.isValid()) {
                    // The reader's smooth downscaler, as Qt::SmoothTransformation.
                    reader.setQuality(100);
                    reader.setScaledSize(plan.scaledSize);
                    if (plan.scaledClipRect.isValid()) {
                        reader.setScaledClipRect(plan.scaledClipRect);
                    }
                } else if (plan.clipRect.isValid()) {
                    reader.setClipRect(plan.clipRect);
                    origin = plan.clipRect.topLeft();
                }
                whole = plan.upright;
                decoded = reader.read();
                visiblePartDelivered = plan.scaledClipRect.isValid() && decoded.size() == size;
            }
        } else if (gone && !QFileInfo::exists(path)) {
            // Deleted (or a link whose file was) since the folder was listed.
            *gone = true;
            return QPixmap();
        }
        if (file.cutShort()) {
            // Whatever the decoder made of the truncated input is not the
            // picture: never show half of it.
            decoded = QImage();
            if (!file.overBudget()) {
                // No longer wanted: nothing to say, nothing to show.
                return QPixmap();
            }
            overBudget = true;
        }
    }
    if (overBudget) {
        qCWarning(slideShowLog) << "ImageCacheWorker: Reading and decoding took more than" << preparationBudget << "ms of processor time or"
                                << preparationTimeLimit << "ms in all, the image is given up:" << path;
    }
    QPixmap loaded = QPixmap::fromImage(std::move(decoded));
    if (loaded.isNull()) {
        qCWarning(slideShowLog) << QStringLiteral("ImageCacheWorker: It was not possible to load the original image: %0 ").arg(path);
        return blackCanvas(QSize(geometry.width(), geometry.height()), devicePixelRatio);
    }

    if (visiblePartDelivered) {
        // The reader delivered Crop's result itself: no canvas and no copy.
        loaded.setDevicePixelRatio(devicePixelRatio);
        return loaded;
    }

    // The mode works on the pixmap loaded here: each file is decoded once.
    switch (position) {
    case Stretch:
        return stretch(loaded, size);
    case Crop:
        return crop(loaded, size, devicePixelRatio);
    case Tile:
        return tiled(loaded.toImage(), whole.isValid() ? whole : loaded.size(), size, devicePixelRatio);
    case Center:
        return centred(loaded.toImage(), origin, whole.isValid() ? whole : loaded.size(), size, devicePixelRatio);
    case Fit:
        return fit(loaded, size, devicePixelRatio);
    }
    qCWarning(slideShowLog) << "ImageCacheWorker: Unknown positioning mode, return to stretching for the path:" << path;
    return stretch(loaded, size);
}

QPixmap ImageCacheWorker::stretch(const QString &path, const QSize &size) const
{
    return stretch(QPixmap(path), size);
}

QPixmap ImageCacheWorker::crop(const QString &path, const QSize &size, double devicePixelRatio) const
{
    return crop(QPixmap(path), size, devicePixelRatio);
}

QPixmap ImageCacheWorker::tile(const QString &path, const QSize &size, double devicePixelRatio) const
{
    return tile(QPixmap(path), size, devicePixelRatio);
}

QPixmap ImageCacheWorker::center(const QString &path, const QSize &size, double devicePixelRatio) const
{
    return center(QPixmap(path), size, devicePixelRatio);
}

QPixmap ImageCacheWorker::fit(const QString &path, const QSize &size, double devicePixelRatio) const
{
    return fit(QPixmap(path), size, devicePixelRatio);
}

QPixmap ImageCacheWorker::stretch(const QPixmap &loaded, const QSize &size) const
{
    // Unlike the other modes no canvas and no ratio: the result keeps the
    // ratio of the loaded file.
    return loaded.scaled(size, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
}

QPixmap ImageCacheWorker::crop(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const
{
    if (loaded.isNull() || size.isEmpty()) {
        return blackCanvas(size, devicePixelRatio);
    }

    QImage image;
    if (cropScalesWhole(loaded.size(), size)) {
        image = loaded.scaled(size, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation).toImage();
    } else {
        // The part shown, seen in place (no copy), is all that is scaled.
        const QImage whole = loaded.toImage();
        const QRect part = visiblePart(whole.size(), size);
        const QImage view(whole.constScanLine(part.top()) + qsizetype(part.left()) * (whole.depth() / 8),
                          part.width(),
                          part.height(),
                          whole.bytesPerLine(),
                          whole.format());
        image = view.scaled(size, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    }
    if (image.size() == size && !image.hasAlphaChannel()) {
        // Scaled to the screen's very shape (a 16:9 photo on a 16:9 screen):
        // it is the result, without a canvas to copy it into.
        QPixmap result = QPixmap::fromImage(std::move(image));
        result.setDevicePixelRatio(devicePixelRatio);
        return result;
    }
    const int iw = image.width();
    const int ih = image.height();
    const int w = size.width();
    const int h = size.height();

    // Drawn in device pixels, and given its ratio at the end: the scaled
    // image fills every pixel of the canvas whatever the ratio (at a
    // fractional one the canvas's logical size is no whole number).
    QPixmap canvas = blackCanvas(size, 1.0);
    QPainter painter(&canvas);
    painter.setCompositionMode(QPainter::CompositionMode_Source);

    // The scaled image covers the target, so the factor is normally 1 and the
    // source is the centred target-sized region; recomputing it absorbs the
    // rounding of scaled().
    double k = double(iw) / w;
    double ch = k * h;
    if (ch > ih) {
        k = double(ih) / h;
        ch = h * k;
    }
    const double cw = w * k;
    const int sourceWidth = truncated(cw);
    const int sourceHeight = truncated(ch);
    const int dx = (iw - sourceWidth) / 2;
    const int dy = (ih - sourceHeight) / 2;

    painter.drawImage(QRectF(0, 0, w, h), image, QRectF(dx, dy, sourceWidth, sourceHeight));
    painter.end();
    canvas.setDevicePixelRatio(devicePixelRatio);
    return canvas;
}

QPixmap ImageCacheWorker::tile(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const
{
    // Converted once for all tiles.
    return tiled(loaded.toImage(), loaded.size(), size, devicePixelRatio);
}

QPixmap ImageCacheWorker::center(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const
{
    return centred(loaded.toImage(), QPoint(), loaded.size(), size, devicePixelRatio);
}

QPixmap ImageCacheWorker::fit(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const
{
    // Drawn in device pixels, given its ratio at the end.
    QPixmap canvas = blackCanvas(size, 1.0);
    if (loaded.isNull() || canvas.isNull()) {
        canvas.setDevicePixelRatio(devicePixelRatio);
        return canvas;
    }
    const QSize fitted = fittedSize(loaded.size(), size);
    QPainter painter(&canvas);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    if (fitted != size) {
        // The rest of the screen: the same image covering it, blurred
        // strongly (about a fortieth of the screen's width) and darkened to
        // 40 %, so that the photo stands out. Made at an eighth of the size,
        // where the blur costs a sixty-fourth, and scaled up, which smooths
        // it further; never larger than the screen.
        const QSize small = (size / 8).expandedTo(QSize(1, 1));
        QImage fill = loaded.toImage().scaled(small, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
        fill = fill.copy(QRect(QPoint((fill.width() - small.width()) / 2, (fill.height() - small.height()) / 2), small));
        fill = blurred(fill, qRound(size.width() / 40.0 / 8.0));
        for (int y = 0; y < fill.height(); ++y) {
            QRgb *line = reinterpret_cast<QRgb *>(fill.scanLine(y));
            for (int x = 0; x < fill.width(); ++x) {
                line[x] = qRgb(qRound(qRed(line[x]) * 0.4), qRound(qGreen(line[x]) * 0.4), qRound(qBlue(line[x]) * 0.4));
            }
        }
        painter.drawImage(QRect(QPoint(), size), fill);
    }
    painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    const QRect place(QPoint((size.width() - fitted.width()) / 2, (size.height() - fitted.height()) / 2), fitted);
    if (loaded.size() == fitted) {
        painter.drawPixmap(place.topLeft(), loaded);
    } else {
        painter.drawImage(place, loaded.toImage().scaled(fitted, Qt::IgnoreAspectRatio, Qt::SmoothTransformation));
    }
    painter.end();
    canvas.setDevicePixelRatio(devicePixelRatio);
    return canvas;
}
}
}
