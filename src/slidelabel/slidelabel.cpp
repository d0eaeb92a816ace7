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
#include <QSet>
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
    frameTimer.setSingleShot(true);
    connect(&frameTimer, &QTimer::timeout, this, qOverload<>(&QWidget::update));
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
    // The screen's real pixels, also at a fractional scale factor: a slide
    // prepared at this size is drawn without being resampled.
    const double ratio = devicePixelRatioF();
    return QRect(x(), y(), qRound(width() * ratio), qRound(height() * ratio));
}

void SlideLabel::requestImageCache(const QString &path)
{
    requestedGeometry = deviceGeometry();
    requestedRatio = devicePixelRatioF();
    cacheWorker->requestProcessImage(path, requestedGeometry, requestedRatio, int(position));
}

bool SlideLabel::isCurrentSlideReady() const
{
    return imageFiles.size() < 2 || !slideFor(currentKey, deviceGeometry().size()).isNull();
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
    updateOpaquePainting();
}

void SlideLabel::setDir(const QString &dir)
{
    setDir(dir, includeSubfolders, order);
}

void SlideLabel::setDir(const QString &dir, bool includeSubfolders, ShowOrder order)
{
    qCDebug(slideShowLog) << "SlideLabel: Setting directory to:" << dir;
    this->includeSubfolders = includeSubfolders;
    this->order = order == Shuffle ? Shuffle : ByName;
    imageFiles.clear();
    upcomingRound.clear();
    clearCache();
    updateWantedImages();
    folderPath = dir;
    awaitingListing = true;
    goneSinceListing.clear();
    folder->setFolder(dir, ListingOptions{includeSubfolders, imageNameFilters()});
}

void SlideLabel::takeListing(const QSharedPointer<const FolderListing> &listing, bool first)
{
    qCDebug(slideShowLog) << "SlideLabel: Directory listed, images:" << listing->paths.size();
    if (listing->truncated && (first || !truncated)) {
        qCWarning(slideShowLog) << "SlideLabel: More images than the show takes, only the first are shown:" << maximumImages;
    }
    truncated = listing->truncated;
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
    imageFiles = order == Shuffle ? shuffled(paths, QString()) : paths;
    upcomingRound.clear();
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
    if (order == Shuffle) {
        mergeIntoRound(listing);
    } else {
        imageFiles = listing.paths;
        placeCurrent();
    }
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
    // Only a previous slide that left changes the picture: the current one
    // stays on the screen until the next switch.
    const bool previousLeft = !previousKey.isEmpty() && listing.left.contains(previousKey);
    if (previousLeft) {
        previousKey.clear();
    }
    updateCacheCapacity();
    updateWantedImages();
    const QString next = nextKey();
    if (next != currentKey && (next != formerNext || listing.replaced.contains(next))) {
        requestImageCache(next);
    }
    if (previousLeft) {
        update();
    }
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

void SlideLabel::mergeIntoRound(const FolderListing &listing)
{
    // The round goes on: what has been shown of it stays behind, what is
    // left keeps its order, the images that left leave it, and the new ones
    // take random places in what is left.
    const QSet<QString> left(listing.left.cbegin(), listing.left.cend());
    QStringList played;
    QStringList rest;
    for (int i = 0; i < imageFiles.size(); ++i) {
        const QString &path = imageFiles.at(i);
        if (!left.contains(path)) {
            (i <= currentIndex ? played : rest).append(path);
        }
    }
    for (const QString &path : listing.joined) {
        rest.append(path);
        std::swap(rest.last(), rest[int(random.bounded(rest.size()))]);
    }
    currentInShow = !left.contains(currentKey) && played.contains(currentKey);
    imageFiles = played + rest;
    // Gone: the next switch goes to the image that followed it.
    currentIndex = played.isEmpty() ? imageFiles.size() - 1 : played.size() - 1;
    upcomingRound.clear();
    prepareNextRound();
}

QStringList SlideLabel::shuffled(QStringList paths, const QString &notFirst)
{
    // Fisher and Yates, drawn with the generator's own bounded(): the
    // standard library's distributions over it would be template code
    // instantiated for a Qt class, which the module would export.
    for (int i = paths.size() - 1; i > 0; --i) {
        std::swap(paths[i], paths[int(random.bounded(i + 1))]);
    }
    // A round never begins with the slide the one before ended on.
    if (paths.size() > 1 && paths.first() == notFirst) {
        std::swap(paths.first(), paths[1 + int(random.bounded(paths.size() - 1))]);
    }
    return paths;
}

void SlideLabel::prepareNextRound()
{
    // At the last slide of a shuffled round the next slide is the first of
    // a fresh order, decided now, so that it is asked for one step ahead.
    if (order == Shuffle && imageFiles.size() > 1 && currentIndex == imageFiles.size() - 1 && upcomingRound.isEmpty()) {
        upcomingRound = shuffled(imageFiles, currentKey);
    }
}

void SlideLabel::handleImageGone(const QString &path)
{
    const int index = indexInShow(path);
    if (index < 0) {
        return;
    }
    qCDebug(slideShowLog) << "SlideLabel: Image left the show:" << path;
    goneSinceListing.insert(path);
    const QString formerNext = nextKey();
    imageFiles.removeAt(index);
    upcomingRound.removeOne(path);
    if (imageFiles.isEmpty()) {
        emptyShow(folderPath);
        return;
    }
    if (order == Shuffle) {
        if (path == currentKey) {
            currentInShow = false;
        }
        if (index <= currentIndex) {
            currentIndex = (currentIndex + imageFiles.size() - 1) % imageFiles.size();
        }
        upcomingRound.clear();
        prepareNextRound();
    } else {
        placeCurrent();
    }
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

int SlideLabel::indexInShow(const QString &path) const
{
    if (order == Shuffle) {
        return imageFiles.indexOf(path);
    }
    // In name order the place is found without a pass over a list of
    // perhaps many thousand images.
    const auto place = std::lower_bound(imageFiles.cbegin(), imageFiles.cend(), path, showsBefore);
    return place != imageFiles.cend() && *place == path ? int(place - imageFiles.cbegin()) : -1;
}

QString SlideLabel::nextKey() const
{
    if (imageFiles.isEmpty()) {
        return QString();
    }
    if (!upcomingRound.isEmpty()) {
        return upcomingRound.first();
    }
    return imageFiles.at((currentIndex + 1) % imageFiles.size());
}

void SlideLabel::setNext()
{
    if (imageFiles.size() < 2) {
        return;
    }
    opacity = 0.0;
    if (!upcomingRound.isEmpty()) {
        imageFiles = upcomingRound;
        upcomingRound.clear();
        currentIndex = 0;
    } else {
        currentIndex = (currentIndex + 1) % imageFiles.size();
    }
    // A slide that left the show is not drawn again, not even fading out.
    previousKey = currentInShow ? currentKey : QString();
    currentKey = imageFiles.at(currentIndex);
    currentInShow = true;
    prepareNextRound();
    updateWantedImages();
    // At the fade's start the picture is the previous slide alone, as the
    // screen shows it already when that slide covered it: at 4K a frame
    // saved.
    if (!testAttribute(Qt::WA_OpaquePaintEvent)) {
        update();
    }
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
        // A slide that will not be drawn is not prepared: the previous one
        // only while a fade runs.
        if (opacity < 1.0 && !previousKey.isEmpty() && previousKey != currentKey) {
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
    updateOpaquePainting();
}

void SlideLabel::setOpacity(double value)
{
    if (qFuzzyCompare(value, opacity)) {
        return;
    }
    // Not clamped: the painter bounds the weights when drawing.
    opacity = value;
    updateWantedImages();
    // Where a frame is costly (a 4K screen, a slow machine), the fade is
    // shown at half the animation's rate, every other step, evenly spaced;
    // its last frame is never skipped.
    if (frameCostMs > costlyFrameMs && opacity < 1.0 && frameClock.isValid()) {
        if (!frameTimer.isActive()) {
            frameTimer.start(int(qMax<qint64>(0, slowFrameInterval - frameClock.elapsed())));
        }
        return;
    }
    frameTimer.stop();
    update();
}

void SlideLabel::updateOpaquePainting()
{
    // The bottom layer of the next frame: the previous slide while a fade
    // runs, else the current one (always the current one when it is the
    // only image). Where it covers the label without transparency nothing
    // beneath it is painted, neither the label's fill nor the host's
    // background; otherwise the background shows where a slide is
    // transparent or missing, as it should.
    const QSize deviceSize = deviceGeometry().size();
    QPixmap bottom;
    if (imageFiles.size() == 1 || (imageFiles.size() > 1 && opacity >= 1.0)) {
        bottom = slideFor(currentKey, deviceSize);
    } else if (imageFiles.size() > 1) {
        bottom = slideFor(previousKey, deviceSize);
    }
    setAttribute(Qt::WA_OpaquePaintEvent, !bottom.isNull() && !bottom.hasAlphaChannel());
}

QPixmap SlideLabel::slideFor(const QString &path, const QSize &deviceSize) const
{
    // The label's own copies, made for the size and ratio of the last
    // clearing: no lock, no lookup in the worker.
    const QPixmap pixmap = path.isEmpty() ? QPixmap() : slides.value(path);
    return pixmap.size() == deviceSize ? pixmap : QPixmap();
}

void SlideLabel::paintEvent(QPaintEvent *event)
{
    Q_UNUSED(event)
    frameClock.start();
    QPainter painter(this);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    const QSize deviceSize = deviceGeometry().size();
    const QRectF target(0, 0, width(), height());
    const bool opaque = testAttribute(Qt::WA_OpaquePaintEvent);
    if (!opaque) {
        painter.fillRect(rect(), Qt::transparent);
    }
    // The first slide drawn of an opaque frame is copied, not blended:
    // each frame is at most one copy and one blend.
    bool bottomDrawn = false;
    const auto drawBottom = [&](const QPixmap &pixmap) {
        if (opaque) {
            painter.setCompositionMode(QPainter::CompositionMode_Source);
        }
        painter.drawPixmap(target, pixmap, QRectF());
        painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
        bottomDrawn = true;
    };

    if (imageFiles.size() > 1) {
        // While a fade runs the previous slide is drawn at full weight and
        // the current one over it with the fade's weight, so that where
        // both are opaque the picture is a true mix of the two, the
        // background never showing through; once it has ended only the
        // current slide is drawn.
        if (opacity < 1.0) {
            const QPixmap previous = slideFor(previousKey, deviceSize);
            if (previous.isNull()) {
                qCDebug(slideShowLog) << "SlideLabel: Previous image is not available from worker for drawing:" << previousKey;
            } else {
                drawBottom(previous);
            }
        }
        const QPixmap current = slideFor(currentKey, deviceSize);
        if (current.isNull()) {
            qCDebug(slideShowLog) << "SlideLabel: Current image is not available from worker for drawing:" << currentKey;
        } else if (opacity >= 1.0 && !bottomDrawn) {
            drawBottom(current);
        } else if (opacity > 0.0) {
            // A weight of 0 or less changes no pixel.
            painter.setOpacity(opacity);
            painter.drawPixmap(target, current, QRectF());
        }
    } else if (imageFiles.size() == 1) {
        // A single image is shown at full weight whatever the fade says.
        const QPixmap only = slideFor(currentKey, deviceSize);
        if (only.isNull()) {
            qCDebug(slideShowLog) << "SlideLabel: The only image is not available from worker for drawing:" << currentKey;
        } else {
            drawBottom(only);
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
    if (opaque && !bottomDrawn) {
        // Only if the slides changed without the frame's kind being worked
        // out again: nothing beneath was painted, so cover the old frame.
        painter.fillRect(rect(), Qt::black);
    }
    painter.end();
    // A moving average of what drawing a frame costs.
    const double cost = frameClock.nsecsElapsed() / 1e6;
    frameCostMs = frameCostMs < 0 ? cost : 0.8 * frameCostMs + 0.2 * cost;
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

bool SlideLabel::event(QEvent *event)
{
    const bool handled = QLabel::event(event);
    // Moved to a screen of another scale factor: the same size is other
    // pixels now.
    if (event->type() == QEvent::ScreenChangeInternal) {
        followDeviceGeometry();
    }
    return handled;
}

void SlideLabel::followDeviceGeometry()
{
    if (imageFiles.isEmpty() || requestedGeometry.isNull()) {
        return;
    }
    if (deviceGeometry().size() == requestedGeometry.size() && qFuzzyCompare(devicePixelRatioF(), requestedRatio)) {
        return;
    }
    clearCache();
    updateCacheCapacity();
    refillCache();
    update();
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
        updateOpaquePainting();
        if (path == currentKey) {
            Q_EMIT currentSlideReady();
        }
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
