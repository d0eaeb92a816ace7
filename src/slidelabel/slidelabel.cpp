/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "slidelabel/slidelabel.h"

#include "imagecache/imagecacheworker.h"
#include "plugin/slideshowconstants.h"

#include <KLocalizedString>

#include <QColor>
#include <QDir>
#include <QFileInfo>
#include <QFont>
#include <QPainter>
#include <QRectF>
#include <QResizeEvent>
#include <QThread>

#include <algorithm>

namespace Dm
{
namespace ScreenSaver
{
SlideLabel::SlideLabel(QWidget *parent)
    : QLabel(parent)
    , cacheThread(new QThread)
{
    // No parent: an object with a parent cannot move to another thread.
    cacheWorker = new ImageCacheWorker(nullptr);
    cacheWorker->moveToThread(cacheThread);
    connect(cacheThread, &QThread::finished, cacheWorker, &QObject::deleteLater);
    // Kept on purpose, though it never fires in time: the destructor stops
    // the thread itself before the label emits destroyed.
    connect(this, &QObject::destroyed, cacheThread, &QThread::quit);
    connect(cacheWorker, &ImageCacheWorker::imageCached, this, &SlideLabel::handleImageCached);
    // Only takes effect for a thread abandoned by the destructor: a thread
    // that ends in time is deleted there, which drops the posted deletion.
    // Made here rather than at the time-out, where the thread could end
    // between the check and the connection and never be deleted.
    connect(cacheThread, &QThread::finished, cacheThread, &QObject::deleteLater);
    // Below every other thread of the host: the worker's decoding must not
    // take the processor from the GUI thread while a fade is painted. Safe
    // because nothing on the GUI thread ever waits for the worker.
    cacheThread->start(QThread::IdlePriority);
    qCDebug(slideShowLog) << "SlideLabel: Cache thread started.";
}

SlideLabel::~SlideLabel()
{
    // The image in preparation ends its reading at once, so that the thread
    // can end well within the wait below.
    cacheWorker->stopPreparing();
    shutdownCacheThread();
    if (cacheThread->isRunning()) {
        // The worker is still busy after the time-out. Destroying a running
        // thread would abort the host, so let it end on its own: the worker
        // is deleted when it finishes, and the thread object after it.
        disconnect(this, &QObject::destroyed, cacheThread, &QThread::quit);
    } else {
        delete cacheThread;
    }
}

QRect SlideLabel::deviceGeometry() const
{
    const int ratio = devicePixelRatio();
    return QRect(x(), y(), qRound(double(width()) * ratio), qRound(double(height()) * ratio));
}

void SlideLabel::requestImageCache(const QString &path)
{
    cacheWorker->requestProcessImage(path, deviceGeometry(), devicePixelRatioF(), int(position));
}

void SlideLabel::shutdownCacheThread()
{
    if (!cacheThread->isRunning()) {
        return;
    }
    qCDebug(slideShowLog) << "SlideLabel: Waiting for cache thread to finish before closing...";
    cacheThread->quit();
    if (cacheThread->wait(5000)) {
        return;
    }
    qCWarning(slideShowLog) << "SlideLabel: Cache thread did not finish correctly within the timeout.";
}

void SlideLabel::setDir(const QString &dir)
{
    qCDebug(slideShowLog) << "SlideLabel: Setting directory to:" << dir;
    imageFiles.clear();
    cacheWorker->clearAllCacheData();

    const QDir directory(dir);
    static const QStringList nameFilters = {
        QStringLiteral("*.jpg"),
        QStringLiteral("*.jpeg"),
        QStringLiteral("*.bmp"),
        QStringLiteral("*.pbm"),
        QStringLiteral("*.pgm"),
        QStringLiteral("*.ppm"),
        QStringLiteral("*.xbm"),
        QStringLiteral("*.xpm"),
        QStringLiteral("*.png"),
    };
    // Files only (links to files included, hidden files not), the patterns
    // matched regardless of case; NoSort stands for the QDir's own sorting,
    // which by default is by name ignoring case.
    QStringList names = directory.entryList(nameFilters, QDir::Files, QDir::NoSort);
    // QDir takes any link for a file; keep only what is, or leads to, a
    // regular file. A link to a named pipe or a device would block the
    // worker in open() for as long as nobody writes to it.
    names.erase(std::remove_if(names.begin(),
                               names.end(),
                               [&directory](const QString &name) {
                                   return !QFileInfo(directory.filePath(name)).isFile();
                               }),
                names.end());
    if (names.isEmpty()) {
        qCCritical(slideShowLog) << QStringLiteral("SlideLabel: The specified directory (%0) does not exist or does not contain image files.").arg(dir);
        imageFiles.clear();
        updateWantedImages();
        return;
    }
    for (const QString &name : names) {
        imageFiles.append(directory.filePath(name));
    }
    updateCacheCapacity();

    // The "previous" image of a fresh sequence is the one before the first
    // in wrap-around order; it is not requested here.
    previousKey = imageFiles.last();
    currentKey = imageFiles.first();
    currentIndex = 0;
    // The first image shows without a fade, once the worker reports it.
    opacity = 1.0;
    updateWantedImages();
    requestImageCache(currentKey);
    if (imageFiles.size() > 1) {
        requestImageCache(imageFiles.at((currentIndex + 1) % imageFiles.size()));
    }
}

void SlideLabel::setNext()
{
    if (imageFiles.size() < 2) {
        return;
    }
    opacity = 0.0;
    currentIndex = (currentIndex + 1) % imageFiles.size();
    previousKey = currentKey;
    currentKey = imageFiles.at(currentIndex);
    updateWantedImages();
    update();
    // The new current image was asked for one step earlier; only look ahead.
    requestImageCache(imageFiles.at((currentIndex + 1) % imageFiles.size()));
}

void SlideLabel::setPosition(Position position)
{
    if (position == this->position) {
        return;
    }
    this->position = position;
    qCDebug(slideShowLog) << "SlideLabel: Setting position to:" << int(position);
    // Every prepared pixmap was made for the old fitting mode.
    cacheWorker->clearAllCacheData();
    if (imageFiles.isEmpty()) {
        return;
    }
    refillCache();
}

void SlideLabel::refillCache()
{
    requestImageCache(currentKey);
    if (imageFiles.size() >= 2) {
        requestImageCache(imageFiles.at((currentIndex + 1) % imageFiles.size()));
        if (previousKey != currentKey) {
            requestImageCache(previousKey);
        }
    }
}

void SlideLabel::updateCacheCapacity()
{
    // The show walks round its images in a circle. When they do not all fit
    // in the cache, every image is evicted before its turn comes again, and
    // only the previous, current and next slide are ever found there: keeping
    // more would only hold memory. When they all fit (at most ten, and ten
    // slides of this size in 96 MiB), each image is decoded once a night.
    const qint64 budget = 96 * 1024 * 1024;
    const QRect geometry = deviceGeometry();
    const qint64 slideBytes = qint64(qMax(0, geometry.width())) * qMax(0, geometry.height()) * 4;
    const qint64 count = imageFiles.size();
    const bool allFit = count <= ImageCacheWorker::maxCacheSize && slideBytes * count <= budget;
    cacheWorker->setCacheCapacity(allFit ? ImageCacheWorker::maxCacheSize : 3);
}

void SlideLabel::updateWantedImages()
{
    QStringList wanted;
    if (!imageFiles.isEmpty()) {
        wanted.append(currentKey);
        const QString &next = imageFiles.at((currentIndex + 1) % imageFiles.size());
        if (next != currentKey) {
            wanted.append(next);
        }
        // Once a fade has ended, the previous slide is no longer drawn.
        if (opacity < 1.0 && !wanted.contains(previousKey)) {
            wanted.append(previousKey);
        }
    }
    if (wanted != wantedImages) {
        wantedImages = wanted;
        cacheWorker->setWantedImages(wantedImages);
    }
}

void SlideLabel::setOpacity(double value)
{
    if (qFuzzyCompare(value, opacity)) {
        return;
    }
    // Not clamped: the painter bounds the weights when drawing.
    opacity = value;
    updateWantedImages();
    update();
}

void SlideLabel::paintEvent(QPaintEvent *event)
{
    Q_UNUSED(event)
    QPainter painter(this);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    painter.fillRect(rect(), Qt::transparent);

    const QRect geometry = deviceGeometry();
    const double ratio = devicePixelRatioF();
    const QRectF target(0, 0, width(), height());

    if (imageFiles.size() > 1) {
        // Each slide goes straight onto the widget with its weight as the
        // painter's opacity: source-over with a constant opacity gives the
        // same pixels as a transparent layer drawn at that opacity and then
        // composited, without filling two widget-sized layers per frame, and
        // at a ratio above 1 it keeps the slides at full device resolution.
        const QPixmap previous = cacheWorker->getCachedImage(previousKey, geometry, ratio, position);
        if (previous.isNull()) {
            qCDebug(slideShowLog) << "SlideLabel: Previous image is not available from worker for drawing:" << previousKey;
        } else if (1.0 - opacity > 0.0) {
            // A weight of 0 or less changes no pixel: the painter bounds it
            // to 0, and source-over at opacity 0 leaves the widget as it is.
            painter.setOpacity(1.0 - opacity);
            painter.drawPixmap(target, previous, QRectF());
        }
        const QPixmap current = cacheWorker->getCachedImage(currentKey, geometry, ratio, position);
        if (current.isNull()) {
            qCDebug(slideShowLog) << "SlideLabel: Current image is not available from worker for drawing:" << currentKey;
        } else if (opacity > 0.0) {
            painter.setOpacity(opacity);
            painter.drawPixmap(target, current, QRectF());
        }
    } else if (imageFiles.size() == 1) {
        // A single image is shown at full weight whatever the fade says.
        const QPixmap only = cacheWorker->getCachedImage(currentKey, geometry, ratio, position);
        if (only.isNull()) {
            qCDebug(slideShowLog) << "SlideLabel: The only image is not available from worker for drawing:" << currentKey;
        } else {
            painter.drawPixmap(target, only, QRectF());
        }
    } else {
        QFont font = painter.font();
        // Below 50 pixels of width the size would be 0, which QFont refuses
        // (with a warning on every paint); the painter's own size stays then.
        const int pixelSize = width() / 50;
        if (pixelSize > 0) {
            font.setPixelSize(pixelSize);
        }
        painter.setFont(font);
        painter.setPen(QColor(Qt::white));
        painter.drawText(
            rect(),
            Qt::AlignCenter,
            ki18nd(ZAV_SLIDESHOW_TRANSLATION_DOMAIN, "The image is not found in the catalog or the catalog is not indicated in the settings ...").toString());
    }
}

void SlideLabel::resizeEvent(QResizeEvent *event)
{
    qCDebug(slideShowLog) << "SlideLabel: resizeEvent called with size:" << event->size();
    QLabel::resizeEvent(event);
    if (imageFiles.isEmpty()) {
        return;
    }
    // Every prepared pixmap has the old size. No update() of our own: the
    // toolkit repaints, and the worker's reports repaint again.
    cacheWorker->clearAllCacheData();
    updateCacheCapacity();
    refillCache();
}

void SlideLabel::handleImageCached(const QString &path, const QPixmap &pixmap)
{
    // The pixmap is not used: painting always takes the worker's cached copy.
    Q_UNUSED(pixmap)
    if (path == currentKey || path == previousKey) {
        qCDebug(slideShowLog) << "SlideLabel: Image cached for current/previous key, triggering update:" << path;
        update();
        return;
    }
    qCDebug(slideShowLog) << "SlideLabel: Image cached, but not current/previous, update not required:" << path;
}
}
}
