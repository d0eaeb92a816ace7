/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "imagecache/imagecacheworker.h"

#include "plugin/slideshowconstants.h"

#include <QColor>
#include <QImage>
#include <QImageReader>
#include <QPainter>
#include <QPointF>
#include <QRectF>

#include <cmath>
#include <limits>

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

// Reads only the header. A size the reader cannot tell is left to the decoder.
bool declaresTooManyPixels(const QString &path)
{
    const QSize declared = QImageReader(path).size();
    return declared.isValid() && qint64(declared.width()) * qint64(declared.height()) > ImageCacheWorker::maxImagePixels;
}
}

ImageCacheWorker::ImageCacheWorker(QObject *parent)
    : QObject(parent)
{
}

ImageCacheWorker::~ImageCacheWorker() = default;

QPixmap ImageCacheWorker::cachedImage(const QString &path, const QRect &geometry, double devicePixelRatio, Position position) const
{
    // Built first whether it is needed or not: it is also the answer for a
    // file that cannot be read.
    const QPixmap canvas = blackCanvas(QSize(geometry.width(), geometry.height()), devicePixelRatio);

    QPixmap loaded;
    if (!declaresTooManyPixels(path)) {
        loaded = QPixmap(path);
    }
    if (loaded.isNull()) {
        qCWarning(slideShowLog) << QStringLiteral("ImageCacheWorker: It was not possible to load the original image: %0 ").arg(path);
        return canvas;
    }

    const QSize size = canvas.size();
    switch (position) {
    case Stretch:
        return stretch(path, size);
    case Crop:
        return crop(path, size, devicePixelRatio);
    case Tile:
        return tile(path, size, devicePixelRatio);
    case Center:
        return center(path, size, devicePixelRatio);
    }
    qCWarning(slideShowLog) << "ImageCacheWorker: Unknown positioning mode, return to stretching for the path:" << path;
    return stretch(path, size);
}

QPixmap ImageCacheWorker::stretch(const QString &path, const QSize &size) const
{
    // Unlike the other modes no canvas and no ratio: the result keeps the
    // ratio of the loaded file.
    return QPixmap(path).scaled(size, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
}

QPixmap ImageCacheWorker::crop(const QString &path, const QSize &size, double devicePixelRatio) const
{
    const QPixmap loaded(path);
    QPixmap canvas = blackCanvas(size, devicePixelRatio);
    if (loaded.isNull() || canvas.isNull()) {
        return canvas;
    }

    const QImage image = loaded.scaled(size, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation).toImage();
    const int iw = image.width();
    const int ih = image.height();
    const int w = size.width();
    const int h = size.height();

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

    painter.drawImage(QRectF(0, 0, truncated(w / devicePixelRatio), truncated(h / devicePixelRatio)), image, QRectF(dx, dy, sourceWidth, sourceHeight));
    painter.end();
    return canvas;
}

QPixmap ImageCacheWorker::tile(const QString &path, const QSize &size, double devicePixelRatio) const
{
    const QPixmap loaded(path);
    QPixmap canvas = blackCanvas(size, devicePixelRatio);

    // Positions are logical coordinates while the bounds are the canvas's
    // pixel size: above ratio 1 the loops run past the visible area (the
    // painter clips) and tiles drawn at their own logical size overlap.
    const int stepX = truncated(loaded.width() / devicePixelRatio);
    const int stepY = truncated(loaded.height() / devicePixelRatio);
    // A step of zero (an image smaller in pixels than the ratio, or a file
    // that vanished since the probe) would never advance: draw nothing.
    if (loaded.isNull() || canvas.isNull() || stepX <= 0 || stepY <= 0) {
        return canvas;
    }

    QPainter painter(&canvas);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    for (int x = 0; x < size.width(); x += stepX) {
        for (int y = 0; y < size.height(); y += stepY) {
            painter.drawImage(QPointF(x, y), loaded.toImage());
        }
    }
    painter.end();
    return canvas;
}

QPixmap ImageCacheWorker::center(const QString &path, const QSize &size, double devicePixelRatio) const
{
    const QPixmap loaded(path);
    QPixmap canvas = blackCanvas(size, devicePixelRatio);
    if (loaded.isNull() || canvas.isNull()) {
        return canvas;
    }

    QPainter painter(&canvas);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    const QImage image = loaded.toImage();
    // Negative when the image is larger than the target, so it is cut evenly
    // on all sides.
    const int x = truncated((double(size.width()) - image.width()) / devicePixelRatio / 2);
    const int y = truncated((double(size.height()) - image.height()) / devicePixelRatio / 2);
    painter.drawImage(QPointF(x, y), image);
    painter.end();
    return canvas;
}
}
}
