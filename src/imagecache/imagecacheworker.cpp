/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The worker's protocol with the GUI thread: requests, the generation that
// clearings advance, the store and its bound. How one image is read and
// fitted to the screen is in imagepreparation.cpp.

#include "imagecache/imagecacheworker.h"
#include "imagecache/imagecacheworker_p.h"

#include "plugin/slideshowconstants.h"

#include <QCoreApplication>
#include <QMetaObject>

#include <algorithm>
#include <chrono>
#include <condition_variable>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace Dm
{
namespace ScreenSaver
{
namespace
{
// A preparation allocates and frees tens of megabytes (the decoded file, the
// scaled result); glibc keeps such freed memory inside the heap for reuse,
// so a process that prepared one large photo stays that large all night.
// Handing the free pages back keeps the resident memory to what the cache
// really holds; it costs a walk over the heap, so it is done only after a
// preparation or an eviction that freed a large block. Blocks of less than
// this are mostly reused by the next slide of the same size anyway.
constexpr qint64 trimThreshold = 8 * 1024 * 1024;

void returnFreeMemory(qint64 freedBytes)
{
#ifdef __GLIBC__
    if (freedBytes >= trimThreshold) {
        malloc_trim(0);
    }
#else
    Q_UNUSED(freedBytes)
#endif
}

qint64 bytesOf(const QPixmap &pixmap)
{
    return qint64(pixmap.width()) * pixmap.height() * (pixmap.depth() / 8);
}

qint64 bytesOf(const QList<QPixmap> &pixmaps)
{
    qint64 bytes = 0;
    for (const QPixmap &pixmap : pixmaps) {
        bytes += bytesOf(pixmap);
    }
    return bytes;
}

// Frees pixmaps that left the cache, outside the worker's lock, and hands
// the memory back where that was a large block.
void release(QList<QPixmap> *pixmaps)
{
    const qint64 freed = bytesOf(*pixmaps);
    pixmaps->clear();
    returnFreeMemory(freed);
}

// Qt ends the process when a pixmap is made, even a null one or a copy,
// once the application object is gone; a worker still preparing as the
// application goes would do that. So the preparations pass a gate that the
// application closes as it goes: none starts after that, the ones under way
// end at their next look at the reading's cancellation, and the application
// gives them a few seconds to do so (a read held by a dead share is left to
// the process's end: it makes no pixmap while it is held).
struct PreparationGate {
    std::mutex mutex;
    std::condition_variable finished;
    int working = 0;
    bool closed = false;
};

PreparationGate &preparationGate()
{
    // Never destroyed: a worker may still pass it while the process ends.
    static auto *gate = new PreparationGate;
    return *gate;
}

bool preparationGateClosed()
{
    PreparationGate &gate = preparationGate();
    std::lock_guard<std::mutex> locker(gate.mutex);
    return gate.closed;
}

void closePreparationGate()
{
    PreparationGate &gate = preparationGate();
    std::unique_lock<std::mutex> locker(gate.mutex);
    gate.closed = true;
    gate.finished.wait_for(locker, std::chrono::seconds(3), [&gate] {
        return gate.working == 0;
    });
}

// Holds the gate open for one preparation, if it still is.
class PreparationPass
{
public:
    PreparationPass()
    {
        PreparationGate &gate = preparationGate();
        std::lock_guard<std::mutex> locker(gate.mutex);
        m_passed = !gate.closed;
        gate.working += m_passed ? 1 : 0;
    }
    ~PreparationPass()
    {
        if (m_passed) {
            PreparationGate &gate = preparationGate();
            std::lock_guard<std::mutex> locker(gate.mutex);
            --gate.working;
            gate.finished.notify_all();
        }
    }
    PreparationPass(const PreparationPass &) = delete;
    PreparationPass &operator=(const PreparationPass &) = delete;

    explicit operator bool() const
    {
        return m_passed;
    }

private:
    bool m_passed = false;
};

// The path of a request key: everything before the size.
QString pathOfKey(const QString &key)
{
    return key.left(key.lastIndexOf(QLatin1Char('|')));
}
}

ImageCacheWorker::ImageCacheWorker(QObject *parent)
    : QObject(parent)
{
    // Made on the GUI thread, as the post routines want.
    static bool gateRoutineAdded = false;
    if (!gateRoutineAdded && QCoreApplication::instance()) {
        qAddPostRoutine(closePreparationGate);
        gateRoutineAdded = true;
    }
}

// Runs in the worker's thread once its event loop has ended; nothing is
// pending any more and nobody else uses the worker. The containers are
// emptied under their lock all the same: the GUI thread's last use of them is
// ordered before this only through Qt's own locks, which the thread
// sanitizer cannot see, and the lock makes that order visible to it.
ImageCacheWorker::~ImageCacheWorker()
{
    std::lock_guard<std::mutex> locker(mutex);
    cache.clear();
    cacheOrder.clear();
    pendingRequests.clear();
}

bool ImageCacheWorker::isValidGeometry(const QRect &geometry)
{
    // On the raw coordinates, widened so that no rectangle overflows.
    return qint64(geometry.right()) - geometry.left() > 127 && qint64(geometry.bottom()) - geometry.top() > 127;
}

QString ImageCacheWorker::getRequestKey(const QString &path, const QRect &geometry)
{
    return path + QLatin1Char('|') + QString::number(geometry.width(), 10) + QLatin1Char('x') + QString::number(geometry.height(), 10);
}

QPixmap ImageCacheWorker::takeCachedAtSizeLocked(const QString &path, const QSize &size)
{
    const auto it = cache.constFind(path);
    if (it == cache.constEnd() || it->size() != size) {
        return QPixmap();
    }
    // A path that is used again becomes the youngest entry.
    makeYoungestLocked(path);
    return *it;
}

void ImageCacheWorker::makeYoungestLocked(const QString &path)
{
    cacheOrder.removeOne(path);
    cacheOrder.append(path);
}

QPixmap ImageCacheWorker::storeLocked(const QString &path, const QPixmap &pixmap)
{
    // The replaced pixmap is handed out, to be freed once the lock is
    // released.
    QPixmap replaced = cache.take(path);
    cache.insert(path, pixmap);
    makeYoungestLocked(path);
    return replaced;
}

QPixmap ImageCacheWorker::getCachedImage(const QString &path, const QRect &geometry, double devicePixelRatio, Position position)
{
    if (!isValidGeometry(geometry)) {
        qCWarning(slideShowLog) << "ImageCacheWorker: getCachedImage is called with invalid geometry, pass:" << geometry;
        return QPixmap();
    }
    QPixmap pixmap;
    {
        // A lookup does not refresh the entry's age.
        std::lock_guard<std::mutex> locker(mutex);
        const auto it = cache.constFind(path);
        if (it == cache.constEnd() || it->size() != geometry.size()) {
            return QPixmap();
        }
        pixmap = *it;
    }
    qCDebug(slideShowLog) << "ImageCacheWorker: return of a caching image for:" << path << geometry << devicePixelRatio << int(position);
    return pixmap;
}

bool ImageCacheWorker::requestProcessImage(const QString &path, const QRect &geometry, double devicePixelRatio, int position)
{
    const QString key = getRequestKey(path, geometry);
    if (!isValidGeometry(geometry)) {
        qCDebug(slideShowLog) << "ImageCacheWorker: requestProcessimage is called with invalid geometry, pass:" << geometry;
        return false;
    }

    QPixmap cached;
    bool alreadyPending = false;
    quint64 requestGeneration = 0;
    {
        std::lock_guard<std::mutex> locker(mutex);
        cached = takeCachedAtSizeLocked(path, geometry.size());
        if (cached.isNull()) {
            alreadyPending = pendingRequests.contains(key);
            if (!alreadyPending) {
                pendingRequests.insert(key);
            }
        }
        requestGeneration = generation.load();
    }

    // Already prepared: announce it here, in the caller's thread, so that the
    // caller hears of it before this function returns.
    if (!cached.isNull()) {
        qCDebug(slideShowLog) << "ImageCacheWorker: the image is already caching with the correct size, the request for the request:" << path;
        Q_EMIT imageCached(path, cached, requestGeneration);
        return false;
    }
    if (alreadyPending) {
        qCDebug(slideShowLog) << "ImageCacheWorker: the request is already waiting for the way:" << key;
        return false;
    }
    qCDebug(slideShowLog) << "ImageCacheWorker: setting a request for image processing in the queue for:" << key;
    QMetaObject::invokeMethod(this,
                              "processImageInternal",
                              Qt::QueuedConnection,
                              Q_ARG(QString, path),
                              Q_ARG(QRect, geometry),
                              Q_ARG(qreal, devicePixelRatio),
                              Q_ARG(int, position),
                              Q_ARG(quint64, requestGeneration));
    return true;
}

void ImageCacheWorker::processImageInternal(const QString &path, const QRect &screenGeom, qreal devicePixelRatio, int position, quint64 requestGeneration)
{
    qCDebug(slideShowLog) << "ImageCacheWorker: internal image processing:" << path;
    const QString key = getRequestKey(path, screenGeom);
    const PreparationPass pass;
    if (!pass) {
        return;
    }

    enum class Start { Outdated, Served, Passed, Deferred, AlreadyCached, Prepare };
    Start start = Start::Prepare;
    QPixmap pixmap;
    // Entries that make room for this one before it is prepared.
    QList<QPixmap> roomPixmaps;
    QStringList roomEvicted;
    QList<int> roomSizes;
    {
        std::lock_guard<std::mutex> locker(mutex);
        if (requestGeneration != generation.load()) {
            // Queued before a clearing, which has already forgotten its key;
            // the same key may be pending again for a newer request, so it is
            // left alone.
            start = Start::Outdated;
        } else if (!pendingRequests.contains(key)) {
            // Prepared ahead of its turn, or forgotten since.
            start = Start::Served;
        } else if (passedLocked(path)) {
            pendingRequests.remove(key);
            start = Start::Passed;
        } else if (moreUrgentPendingLocked(path)) {
            start = Start::Deferred;
        } else {
            pixmap = takeCachedAtSizeLocked(path, screenGeom.size());
            if (!pixmap.isNull()) {
                pendingRequests.remove(key);
                start = Start::AlreadyCached;
            } else {
                ++preparationsStarted;
                preparingPath = path;
                preparationUnwanted.store(false);
                // A slide the show no longer wants (the previous one once its
                // fade has ended) leaves before the decoding starts, not
                // after: the decoding and the cache's full set are never in
                // memory at once.
                if (!cache.contains(path)) {
                    evictLocked(&roomEvicted, &roomSizes, &roomPixmaps, 1);
                }
            }
        }
    }
    release(&roomPixmaps);
    logEvictions(roomEvicted, roomSizes);
    switch (start) {
    case Start::Outdated:
        qCDebug(slideShowLog) << "ImageCacheWorker: the request was made before the cache was cleaned, skipped without processing:" << key;
        return;
    case Start::Served:
        return;
    case Start::Passed:
        qCDebug(slideShowLog) << "ImageCacheWorker: the show has passed this slide, skipped without processing:" << key;
        return;
    case Start::Deferred:
        // Its turn comes again after the request that is more urgent, which
        // is queued ahead of this new call and is served when it comes.
        QMetaObject::invokeMethod(this,
                                  "processImageInternal",
                                  Qt::QueuedConnection,
                                  Q_ARG(QString, path),
                                  Q_ARG(QRect, screenGeom),
                                  Q_ARG(qreal, devicePixelRatio),
                                  Q_ARG(int, position),
                                  Q_ARG(quint64, requestGeneration));
        return;
    case Start::AlreadyCached:
        qCDebug(slideShowLog)
            << "ImageCacheWorker: The image has already been caching (from the other path) with the correct size, the passage of internal re -processing:"
            << path;
        Q_EMIT imageCached(path, pixmap, requestGeneration);
        return;
    case Start::Prepare:
        break;
    }

    // No lock while the file is read, decoded and scaled. The reading ends
    // early once a clearing has made this request outdated, or once the show
    // no longer wants the slide.
    bool gone = false;
    qint64 workingBytes = 0;
    pixmap = prepareImage(
        path,
        screenGeom,
        devicePixelRatio,
        Position(position),
        [this, requestGeneration] {
            return generation.load() != requestGeneration || preparationUnwanted.load() || preparationGateClosed();
        },
        &gone,
        &workingBytes);

    enum class End { Dropped, Passed, Gone, Stored, NotStored };
    End end = End::NotStored;
    // What leaves the cache is freed after the lock is released.
    QList<QPixmap> evictedPixmaps;
    QStringList evicted;
    QList<int> sizesAfterEviction;
    int cacheSize = 0;
    int orderSize = 0;
    {
        std::lock_guard<std::mutex> locker(mutex);
        const bool unwanted = preparationUnwanted.load();
        preparingPath.clear();
        if (requestGeneration != generation.load()) {
            end = End::Dropped;
        } else {
            // A request forgotten meanwhile is no longer pending either.
            const bool forgotten = !pendingRequests.remove(key);
            if (forgotten) {
                end = End::Dropped;
            } else if (gone) {
                end = End::Gone;
            } else if (unwanted && pixmap.isNull()) {
                // Cut short: the show passed the slide while it was read.
                end = End::Passed;
            } else if (!pixmap.isNull() && !unwantedAndNoRoomLocked(path)) {
                // The show may have passed this slide just after it was
                // read; it is still reported, but does not take a wanted
                // slide's place.
                evictedPixmaps.append(storeLocked(path, pixmap));
                evictLocked(&evicted, &sizesAfterEviction, &evictedPixmaps);
                end = End::Stored;
            }
        }
        cacheSize = cache.size();
        orderSize = cacheOrder.size();
    }
    // The preparation's own buffers are gone already; what left the cache
    // goes now.
    const qint64 freed = workingBytes + bytesOf(evictedPixmaps);
    evictedPixmaps.clear();
    switch (end) {
    case End::Dropped:
        // A clearing came while the image was being prepared (it belongs to
        // a directory, mode or size that is no longer shown), or the file
        // was forgotten.
        qCDebug(slideShowLog) << "ImageCacheWorker: the image was prepared for a cache that has been cleaned since, it is dropped:" << path;
        pixmap = QPixmap();
        returnFreeMemory(freed);
        return;
    case End::Passed:
        qCDebug(slideShowLog) << "ImageCacheWorker: the show has passed this slide, skipped without processing:" << key;
        pixmap = QPixmap();
        returnFreeMemory(freed);
        return;
    case End::Gone:
        Q_EMIT imageGone(path);
        return;
    case End::Stored:
        logEvictions(evicted, sizesAfterEviction);
        Q_FALLTHROUGH();
    case End::NotStored:
        break;
    }
    if (pixmap.isNull()) {
        qCWarning(slideShowLog) << "ImageCacheWorker: The processed image is equal to NULL for the way:" << path;
    } else {
        qCDebug(slideShowLog) << "ImageCacheWorker: The current size of the cache:" << cacheSize << ". Cache order size:" << orderSize;
    }
    // Reported for a null pixmap too: the request is over either way.
    Q_EMIT imageCached(path, pixmap, requestGeneration);
    returnFreeMemory(freed);
}

quint64 ImageCacheWorker::clearAllCacheData()
{
    qCDebug(slideShowLog) << "ImageCacheWorker: the cleaning of all cache data is initiated.";
    // Swapped out under the lock and released after it: freeing ten
    // screen-sized pixmaps is no work for the lock.
    QMap<QString, QPixmap> oldCache;
    QList<QString> oldOrder;
    QSet<QString> oldPending;
    quint64 newGeneration = 0;
    {
        std::lock_guard<std::mutex> locker(mutex);
        oldCache.swap(cache);
        oldOrder.swap(cacheOrder);
        oldPending.swap(pendingRequests);
        newGeneration = ++generation;
    }
    qCDebug(slideShowLog) << "ImageCacheWorker: All cache data are cleaned.";
    return newGeneration;
}

void ImageCacheWorker::forgetImages(const QStringList &paths)
{
    if (paths.isEmpty()) {
        return;
    }
    const QSet<QString> forgotten(paths.cbegin(), paths.cend());
    QList<QPixmap> dropped;
    {
        std::lock_guard<std::mutex> locker(mutex);
        for (const QString &path : paths) {
            const auto it = cache.find(path);
            if (it != cache.end()) {
                dropped.append(*it);
                cache.erase(it);
                cacheOrder.removeOne(path);
            }
        }
        for (auto it = pendingRequests.begin(); it != pendingRequests.end();) {
            if (forgotten.contains(pathOfKey(*it))) {
                it = pendingRequests.erase(it);
            } else {
                ++it;
            }
        }
        if (!preparingPath.isEmpty() && forgotten.contains(preparingPath)) {
            preparationUnwanted.store(true);
        }
    }
    release(&dropped);
}

void ImageCacheWorker::evictLocked(QStringList *evicted, QList<int> *sizesAfterEviction, QList<QPixmap> *pixmaps, int room)
{
    // The order is oldest first; wanted slides are passed over, so that the
    // slide a fade is leaving is not dropped for the one after the next.
    auto it = cacheOrder.begin();
    while (cacheOrder.size() > cacheCapacity - room && it != cacheOrder.end()) {
        if (wantedImages.contains(*it)) {
            ++it;
            continue;
        }
        // Handed out, so that the pixmap is freed once the lock is released.
        pixmaps->append(cache.take(*it));
        evicted->append(*it);
        sizesAfterEviction->append(cache.size());
        it = cacheOrder.erase(it);
    }
}

bool ImageCacheWorker::unwantedAndNoRoomLocked(const QString &path) const
{
    if (wantedImages.contains(path) || cache.contains(path) || cache.size() < cacheCapacity) {
        return false;
    }
    return std::all_of(cacheOrder.cbegin(), cacheOrder.cend(), [this](const QString &cached) {
        return wantedImages.contains(cached);
    });
}

bool ImageCacheWorker::passedLocked(const QString &path) const
{
    return !wantedImages.isEmpty() && !wantedImages.contains(path);
}

bool ImageCacheWorker::moreUrgentPendingLocked(const QString &path) const
{
    const int rank = wantedImages.indexOf(path);
    if (rank <= 0) {
        return false;
    }
    for (const QString &pending : pendingRequests) {
        const int pendingRank = wantedImages.indexOf(pathOfKey(pending));
        if (pendingRank >= 0 && pendingRank < rank) {
            return true;
        }
    }
    return false;
}

void ImageCacheWorker::setWantedImages(const QStringList &paths)
{
    std::lock_guard<std::mutex> locker(mutex);
    wantedImages = paths;
    if (!preparingPath.isEmpty() && passedLocked(preparingPath)) {
        preparationUnwanted.store(true);
    }
}

void ImageCacheWorker::logEvictions(const QStringList &evicted, const QList<int> &sizesAfterEviction)
{
    for (int i = 0; i < evicted.size(); ++i) {
        qCDebug(slideShowLog) << "ImageCacheWorker: The size of the cache is exceeded, the removal of the oldest image:" << evicted.at(i)
                              << ". New size of the cache:" << sizesAfterEviction.at(i);
    }
}

void ImageCacheWorker::setCacheCapacity(int entries)
{
    QStringList evicted;
    QList<int> sizesAfterEviction;
    QList<QPixmap> evictedPixmaps;
    {
        std::lock_guard<std::mutex> locker(mutex);
        cacheCapacity = qBound(1, entries, int(maxCacheSize));
        evictLocked(&evicted, &sizesAfterEviction, &evictedPixmaps);
    }
    release(&evictedPixmaps);
    logEvictions(evicted, sizesAfterEviction);
}

void ImageCacheWorker::stopPreparing()
{
    std::lock_guard<std::mutex> locker(mutex);
    ++generation;
}

QPixmap ImageCacheWorker::processImageSynchronously(const QString &path, const QRect &geometry, double devicePixelRatio, int position)
{
    if (!isValidGeometry(geometry)) {
        qCWarning(slideShowLog) << "ImageCacheWorker: processImageSynchronously called with invalid geometry, pass:" << geometry;
        return QPixmap(geometry.width(), geometry.height());
    }
    QPixmap cached;
    quint64 startGeneration = 0;
    {
        std::lock_guard<std::mutex> locker(mutex);
        cached = takeCachedAtSizeLocked(path, geometry.size());
        startGeneration = generation.load();
    }
    if (!cached.isNull()) {
        qCDebug(slideShowLog) << "ImageCacheWorker: return of a synchronously cached image for:" << path;
        return cached;
    }

    qCDebug(slideShowLog) << "ImageCacheWorker: Image synchronous processing:" << path;
    const QPixmap pixmap = cachedImage(path, geometry, devicePixelRatio, Position(position));
    // Freed after the lock, when this function returns.
    QPixmap replaced;
    if (!pixmap.isNull()) {
        // No eviction here: the next insertion by the worker enforces the
        // bound. Nor is an image stored in a cache cleaned meanwhile, nor in
        // the place of a slide the show wants.
        std::lock_guard<std::mutex> locker(mutex);
        if (startGeneration == generation.load() && !unwantedAndNoRoomLocked(path)) {
            replaced = storeLocked(path, pixmap);
        }
    }
    return pixmap;
}

std::unique_lock<std::mutex> ImageCacheWorkerAccess::lock(const ImageCacheWorker *worker)
{
    return std::unique_lock<std::mutex>(worker->mutex);
}

WorkerSnapshot ImageCacheWorkerAccess::snapshot(const ImageCacheWorker *worker)
{
    std::lock_guard<std::mutex> locker(worker->mutex);
    WorkerSnapshot snapshot{worker->cache.keys(),
                            worker->cacheOrder,
                            worker->pendingRequests,
                            worker->generation.load(),
                            worker->cacheCapacity,
                            worker->preparationsStarted};
    // Deep copies, made under the lock: an implicitly shared copy would be
    // read by the caller while the worker changes the original in place.
    snapshot.cacheOrder.detach();
    snapshot.pendingRequests.detach();
    return snapshot;
}
}
}
