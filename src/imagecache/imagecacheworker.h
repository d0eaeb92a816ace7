/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_IMAGECACHEWORKER_H
#define ZAV_IMAGECACHEWORKER_H

#include "imagecache/position.h"

#include <QList>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QPixmap>
#include <QRect>
#include <QSet>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QWaitCondition>

#include <atomic>
#include <mutex>

namespace Dm
{
namespace ScreenSaver
{
// Prepares the slides of one SlideLabel on the label's cache thread and keeps
// the last ten of them. The GUI thread asks with requestProcessImage, looks up
// finished pixmaps with getCachedImage and empties everything with
// clearAllCacheData; the worker answers only through imageCached.
class ImageCacheWorker : public QObject
{
    Q_OBJECT

public:
    explicit ImageCacheWorker(QObject *parent = nullptr);
    ~ImageCacheWorker() override;

    // The bound counts entries, not bytes: ten screen-sized pixmaps.
    static constexpr int maxCacheSize = 10;
    // How long clearAllCacheData waits, once, for the requests in flight.
    static constexpr unsigned long cleaningTimeout = 30000;

    // What the containers hold at one moment, for diagnostics and tests.
    struct Snapshot {
        QStringList cachedPaths;
        QList<QString> cacheOrder;
        QSet<QString> pendingRequests;
        bool cleaning = false;
    };

    // Records a request and hands it to the worker's thread; true only when a
    // new request was queued. An image already cached at the geometry's size
    // is announced at once, in the calling thread.
    bool requestProcessImage(const QString &path, const QRect &geometry, double devicePixelRatio, int position);
    // Waits (at most cleaningTimeout) for the requests in flight, then
    // empties the cache. Blocks the caller.
    void clearAllCacheData();
    // Prepares the image in the calling thread.
    QPixmap processImageSynchronously(const QString &path, const QRect &geometry, double devicePixelRatio, int position);
    // The cached pixmap for path if its pixel size is the geometry's size,
    // else a null pixmap. Never waits for an image being prepared.
    QPixmap getCachedImage(const QString &path, const QRect &geometry, double devicePixelRatio, Position position);

    bool isValidGeometry(const QRect &geometry);
    QString getRequestKey(const QString &path, const QRect &geometry);

    Snapshot snapshot() const;

    // Images declaring more pixels than this (512 MiB as 32-bit pixels), or
    // whose header does not tell their size, are never decoded: a lock
    // screen must not be taken down by one huge or broken file.
    static constexpr qint64 maxImagePixels = 134217728;

    // Loads the file and fits it to the geometry's size in the given mode.
    // An unreadable (or too large) file gives a black pixmap of that size.
    QPixmap cachedImage(const QString &path, const QRect &geometry, double devicePixelRatio, Position position) const;

    // The fitting modes, for callers that have only a path: each loads the
    // file itself.
    QPixmap stretch(const QString &path, const QSize &size) const;
    QPixmap crop(const QString &path, const QSize &size, double devicePixelRatio) const;
    QPixmap tile(const QString &path, const QSize &size, double devicePixelRatio) const;
    QPixmap center(const QString &path, const QSize &size, double devicePixelRatio) const;

    // The same on an image already loaded, so that cachedImage decodes each
    // file once.
    QPixmap stretch(const QPixmap &loaded, const QSize &size) const;
    QPixmap crop(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const;
    QPixmap tile(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const;
    QPixmap center(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const;

Q_SIGNALS:
    void imageCached(const QString &path, const QPixmap &pixmap);

private Q_SLOTS:
    void processImageInternal(const QString &path, const QRect &screenGeom, qreal devicePixelRatio, int position);

private:
    // These take containerLock themselves.
    QPixmap takeCachedAtSize(const QString &path, const QSize &size);
    void storeImage(const QString &path, const QPixmap &pixmap);

    // The three containers are written by the worker's thread (processing)
    // and by the GUI thread (clearing, refreshing the order, synchronous
    // processing), and read by both; every access holds containerLock.
    QMap<QString, QPixmap> cache;
    QList<QString> cacheOrder;
    QSet<QString> pendingRequests;

    // Held by the worker for the whole of processImageInternal, loading and
    // scaling included, by requestProcessImage while it queues a new request
    // and by clearAllCacheData throughout (but while it waits). So a request
    // that must queue, and a clearing, wait for the image in progress.
    QMutex mutex;
    QWaitCondition requestsDone;
    // Written under mutex by clearAllCacheData, read without it by
    // requestProcessImage: atomic.
    std::atomic<bool> cleaning{false};

    // Innermost lock: held only for the few container operations themselves,
    // never while decoding, scaling, logging or emitting, and no other lock is
    // taken under it, so it cannot deadlock and the GUI thread never waits
    // here for an image being prepared. A std::mutex rather than a QMutex so
    // that the thread sanitizer sees it even when contended.
    mutable std::mutex containerLock;
};
}
}

#endif // ZAV_IMAGECACHEWORKER_H
