/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "slidelabel/slidelabel.h"

#include "imagecache/imagecacheworker.h"
#include "plugin/slideshowconstants.h"
#include "slidelabel/folderlisting.h"
#include "slidelabel/slidefolder.h"

#include <KLocalizedString>

#include <QColor>
#include <QFont>
#include <QPainter>
#include <QRectF>
#include <QResizeEvent>
#include <QThread>

#include <algorithm>
#include <utility>

namespace Dm
{
namespace ScreenSaver
{
SlideLabel::SlideLabel(QWidget *parent)
    : QLabel(parent)
    , cacheThread(new QThread)
{
    folder = new SlideFolder(
        [this](const QSharedPointer<const FolderListing> &listing, bool first) {
            takeListing(listing, first);
        },
        this);
    // No parent: an object with a parent cannot move to another thread.
    cacheWorker = new ImageCacheWorker(nullptr);
    cacheWorker->moveToThread(cacheThread);
    connect(cacheThread, &QThread::finished, cacheWorker, &QObject::deleteLater);
    // Kept on purpose, though the destructor has asked the thread to quit
    // already by the time the label emits destroyed.
    connect(this, &QObject::destroyed, cacheThread, &QThread::quit);
    connect(cacheWorker, &ImageCacheWorker::imageCached, this, &SlideLabel::handleImageCached);
    connect(cacheWorker, &ImageCacheWorker::imageGone, this, &SlideLabel::handleImageGone);
    // The thread object goes when the thread has finished, after the worker:
    // nothing waits for it.
    connect(cacheThread, &QThread::finished, cacheThread, &QObject::deleteLater);
    countSlideThread(cacheThread);
    // Below every other thread of the host: the worker's decoding must not
    // take the processor from the GUI thread while a fade is painted. Safe
    // because nothing on the GUI thread ever waits for the worker.
    cacheThread->start(QThread::IdlePriority);
    qCDebug(slideShowLog) << "SlideLabel: Cache thread started.";
}

SlideLabel::~SlideLabel()
{
    // A listing that comes after this is dropped.
    delete folder;
    folder = nullptr;
    shutdownCacheThread();
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
    // The image in preparation ends its reading at once and whatever is
    // queued is skipped, so that the thread ends soon; only a read blocked
    // in the kernel keeps it until the read returns. The worker is deleted
    // in its thread, and the thread object after it, when it finishes;
    // from here on neither touches the label.
    cacheWorker->stopPreparing();
    cacheThread->quit();
}

void SlideLabel::clearCache()
{
    clearedGeneration = cacheWorker->clearAllCacheData();
    slides.clear();
}

void SlideLabel::setDir(const QString &dir)
{
    qCDebug(slideShowLog) << "SlideLabel: Setting directory to:" << dir;
    imageFiles.clear();
    clearCache();
    updateWantedImages();
    folderPath = dir;
    awaitingListing = true;
    goneSinceListing.clear();
    folder->setFolder(dir);
}

void SlideLabel::takeListing(const QSharedPointer<const FolderListing> &listing, bool first)
{
    qCDebug(slideShowLog) << "SlideLabel: Directory listed, images:" << listing->paths.size();
    if (awaitingListing || imageFiles.isEmpty()) {
        const bool wasAwaited = awaitingListing;
        awaitingListing = false;
        goneSinceListing.clear();
        if (listing->paths.isEmpty()) {
            // Said once for the setting; a folder that stays missing is
            // listed again quietly, every half minute.
            if (wasAwaited || first) {
                emptyShow(listing->folder);
            }
            return;
        }
        startShow(listing->paths);
        return;
    }
    followChanges(*listing);
}

void SlideLabel::emptyShow(const QString &folder)
{
    qCCritical(slideShowLog) << QStringLiteral("SlideLabel: The specified directory (%0) does not exist or does not contain image files.").arg(folder);
    imageFiles.clear();
    updateWantedImages();
    update();
}

void SlideLabel::startShow(const QStringList &paths)
{
    imageFiles = paths;
    updateCacheCapacity();
    // The "previous" image of a fresh sequence is the one before the first
    // in wrap-around order; it is not requested here.
    previousKey = imageFiles.last();
    currentKey = imageFiles.first();
    currentIndex = 0;
    currentInShow = true;
    // The first image shows without a fade, once the worker reports it.
    opacity = 1.0;
    updateWantedImages();
    requestImageCache(currentKey);
    if (imageFiles.size() > 1) {
        requestImageCache(nextKey());
    }
}

void SlideLabel::followChanges(const FolderListing &listing)
{
    for (const QString &path : listing.left) {
        if (!goneSinceListing.contains(path)) {
            qCDebug(slideShowLog) << "SlideLabel: Image left the show:" << path;
        }
    }
    for (const QString &path : listing.joined) {
        qCDebug(slideShowLog) << "SlideLabel: Image joined the show:" << path;
    }
    goneSinceListing.clear();
    if (listing.paths.isEmpty()) {
        emptyShow(listing.folder);
        return;
    }

    const QString formerNext = nextKey();
    imageFiles = listing.paths;
    placeCurrent();
    // Removed and replaced files leave the cache at once: a replaced one is
    // prepared afresh before it is shown again. The current slide stays on
    // the screen until the next switch, whatever became of its file.
    QStringList outdated = listing.left + listing.replaced;
    cacheWorker->forgetImages(outdated);
    for (const QString &path : std::as_const(outdated)) {
        if (path != currentKey) {
            slides.remove(path);
        }
    }
    if (!previousKey.isEmpty() && listing.left.contains(previousKey)) {
        previousKey.clear();
    }
    updateCacheCapacity();
    updateWantedImages();
    const QString next = nextKey();
    if (next != currentKey && (next != formerNext || listing.replaced.contains(next))) {
        requestImageCache(next);
    }
    update();
}

void SlideLabel::placeCurrent()
{
    // The order is the show's order, so the current slide's place is found
    // without a pass over a list of perhaps many thousand images.
    const auto place = std::lower_bound(imageFiles.cbegin(), imageFiles.cend(), currentKey, showsBefore);
    const int index = int(place - imageFiles.cbegin());
    currentInShow = place != imageFiles.cend() && *place == currentKey;
    // Gone: the next switch goes to the image that followed it.
    currentIndex = currentInShow ? index : (index + imageFiles.size() - 1) % imageFiles.size();
}

void SlideLabel::handleImageGone(const QString &path)
{
    const auto place = std::lower_bound(imageFiles.cbegin(), imageFiles.cend(), path, showsBefore);
    if (place == imageFiles.cend() || *place != path) {
        return;
    }
    qCDebug(slideShowLog) << "SlideLabel: Image left the show:" << path;
    goneSinceListing.insert(path);
    const QString formerNext = nextKey();
    imageFiles.removeAt(int(place - imageFiles.cbegin()));
    if (imageFiles.isEmpty()) {
        emptyShow(folderPath);
        return;
    }
    placeCurrent();
    if (path != currentKey) {
        slides.remove(path);
    }
    if (path == previousKey) {
        previousKey.clear();
    }
    updateCacheCapacity();
    updateWantedImages();
    const QString next = nextKey();
    if (next != currentKey && next != formerNext) {
        requestImageCache(next);
    }
    update();
}

QString SlideLabel::nextKey() const
{
    if (imageFiles.isEmpty()) {
        return QString();
    }
    return imageFiles.at((currentIndex + 1) % imageFiles.size());
}

void SlideLabel::setNext()
{
    if (imageFiles.size() < 2) {
        return;
    }
    opacity = 0.0;
    currentIndex = (currentIndex + 1) % imageFiles.size();
    // A slide that left the show is not drawn again, not even fading out.
    previousKey = currentInShow ? currentKey : QString();
    currentKey = imageFiles.at(currentIndex);
    currentInShow = true;
    updateWantedImages();
    update();
    // The new current image was asked for one step earlier; only look ahead.
    requestImageCache(nextKey());
    if (currentIndex == 0) {
        // A round is over: what changed in the folder meanwhile joins now.
        folder->relist();
    }
}

void SlideLabel::setPosition(Position position)
{
    if (position == this->position) {
        return;
    }
    this->position = position;
    qCDebug(slideShowLog) << "SlideLabel: Setting position to:" << int(position);
    // Every prepared pixmap was made for the old fitting mode.
    clearCache();
    if (imageFiles.isEmpty()) {
        return;
    }
    refillCache();
}

void SlideLabel::refillCache()
{
    if (currentInShow) {
        requestImageCache(currentKey);
    }
    if (imageFiles.size() >= 2) {
        requestImageCache(nextKey());
        if (!previousKey.isEmpty() && previousKey != currentKey) {
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
        if (currentInShow) {
            wanted.append(currentKey);
        }
        const QString next = nextKey();
        if (!wanted.contains(next)) {
            wanted.append(next);
        }
        // Once a fade has ended, the previous slide is no longer drawn.
        if (opacity < 1.0 && !previousKey.isEmpty() && !wanted.contains(previousKey)) {
            wanted.append(previousKey);
        }
    }
    // The label keeps what it draws or will draw: the current slide even
    // when it has left the show, until the next switch.
    for (auto it = slides.begin(); it != slides.end();) {
        if (it.key() == currentKey || wanted.contains(it.key())) {
            ++it;
        } else {
            it = slides.erase(it);
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

    const QSize deviceSize = deviceGeometry().size();
    const QRectF target(0, 0, width(), height());
    // The label's own copies, made for the size of the last clearing: no
    // lock, no lookup in the worker.
    const auto slide = [this, &deviceSize](const QString &path) {
        const QPixmap pixmap = path.isEmpty() ? QPixmap() : slides.value(path);
        return pixmap.size() == deviceSize ? pixmap : QPixmap();
    };

    if (imageFiles.size() > 1) {
        // Each slide goes straight onto the widget with its weight as the
        // painter's opacity: source-over with a constant opacity gives the
        // same pixels as a transparent layer drawn at that opacity and then
        // composited, without filling two widget-sized layers per frame, and
        // at a ratio above 1 it keeps the slides at full device resolution.
        const QPixmap previous = slide(previousKey);
        if (previous.isNull()) {
            qCDebug(slideShowLog) << "SlideLabel: Previous image is not available from worker for drawing:" << previousKey;
        } else if (1.0 - opacity > 0.0) {
            // A weight of 0 or less changes no pixel: the painter bounds it
            // to 0, and source-over at opacity 0 leaves the widget as it is.
            painter.setOpacity(1.0 - opacity);
            painter.drawPixmap(target, previous, QRectF());
        }
        const QPixmap current = slide(currentKey);
        if (current.isNull()) {
            qCDebug(slideShowLog) << "SlideLabel: Current image is not available from worker for drawing:" << currentKey;
        } else if (opacity > 0.0) {
            painter.setOpacity(opacity);
            painter.drawPixmap(target, current, QRectF());
        }
    } else if (imageFiles.size() == 1) {
        // A single image is shown at full weight whatever the fade says.
        const QPixmap only = slide(currentKey);
        if (only.isNull()) {
            qCDebug(slideShowLog) << "SlideLabel: The only image is not available from worker for drawing:" << currentKey;
        } else {
            painter.drawPixmap(target, only, QRectF());
        }
    } else if (!awaitingListing) {
        // While the folder is being listed there is nothing to say yet.
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
    clearCache();
    updateCacheCapacity();
    refillCache();
}

void SlideLabel::handleImageCached(const QString &path, const QPixmap &pixmap, quint64 generation)
{
    // A report made before the last clearing is of another directory, mode
    // or size, though its path and size may be the same.
    if (generation < clearedGeneration) {
        return;
    }
    if (!pixmap.isNull() && (wantedImages.contains(path) || path == currentKey)) {
        slides.insert(path, pixmap);
    }
    if (path == currentKey || path == previousKey) {
        qCDebug(slideShowLog) << "SlideLabel: Image cached for current/previous key, triggering update:" << path;
        update();
        return;
    }
    qCDebug(slideShowLog) << "SlideLabel: Image cached, but not current/previous, update not required:" << path;
}
}
}
