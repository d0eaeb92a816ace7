/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_IMAGECACHEWORKER_H
#define ZAV_IMAGECACHEWORKER_H

#include "imagecache/position.h"

#include <QList>
#include <QMap>
#include <QObject>
#include <QPixmap>
#include <QRect>
#include <QSet>
#include <QSize>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <mutex>

namespace Dm
{
namespace ScreenSaver
{
// Prepares the slides of one SlideLabel on the label's cache thread and keeps
// the last ten of them. The GUI thread asks with requestProcessImage, looks up
// finished pixmaps with getCachedImage and empties everything with
// clearAllCacheData; the worker answers only through imageCached (and
// imageGone for a file that has disappeared).
//
// The GUI thread is the one that takes the user's password, so none of these
// calls ever waits for an image being prepared:
// - One lock, mutex, guards the bookkeeping: cache, cacheOrder,
//   pendingRequests, wantedImages, preparingPath and generation. It is held
//   only for a few container operations at a time, never while a file is
//   opened, read, decoded or scaled, never while logging, never while
//   imageCached is emitted and never while a pixmap is freed.
// - generation counts the clearings. Every queued request carries the
//   generation in which it was made; a request of an older generation is
//   skipped when the worker's thread reaches it, and a preparation that was
//   running when a clearing came is neither stored nor reported. Every
//   report carries the generation of its request, so that the owner can
//   tell a report made before its last clearing.
// - The owner says which slides the show needs (setWantedImages). A queued
//   request for a slide the show has passed meanwhile is skipped; of the
//   requests waiting, the current slide is prepared first, then the next,
//   then the previous one, so that after a long hang the worker starts with
//   the slide on the screen rather than with the look-aheads of every
//   switch it missed.
// - A preparation reads its file through a device of the worker's own that
//   ends the input as soon as the preparation is no longer wanted (its
//   generation is outdated, stopPreparing was called, the show has passed
//   the slide or the file was forgotten) or has used up its time
//   (preparationBudget, preparationTimeLimit), so that the decoder finishes
//   at once.
//   Only a read blocked inside the kernel (a pipe without a writer, a dead
//   network share) cannot be cut short; it holds the worker's thread, never
//   the caller: the owner's teardown does not wait for the thread, which
//   ends, and deletes the worker, once the read returns.
class ImageCacheWorker : public QObject
{
    Q_OBJECT

public:
    explicit ImageCacheWorker(QObject *parent = nullptr);
    ~ImageCacheWorker() override;

    // The bound counts entries, not bytes: ten screen-sized pixmaps. An
    // owner that knows better lowers it with setCacheCapacity.
    static constexpr int maxCacheSize = 10;
    // How long one image may be read and decoded before it counts as
    // unreadable: a file that would take minutes (a crafted progressive JPEG)
    // costs at most this much of the worker's processor time. Processor
    // time, not time on the clock: the worker runs at idle priority, and a
    // busy machine must not turn a large photo into a black slide. A file
    // that arrives so slowly that it uses no processor time is given up after
    // preparationTimeLimit on the clock.
    static constexpr int preparationBudget = 10000;
    static constexpr int preparationTimeLimit = 60000;

    // Records a request and hands it to the worker's thread; true only when a
    // new request was queued. An image already cached at the geometry's size
    // is announced at once, in the calling thread. Never waits for the image
    // being prepared.
    bool requestProcessImage(const QString &path, const QRect &geometry, double devicePixelRatio, int position);
    // Empties the cache and forgets the pending requests at once; the work
    // already queued or running is dropped when the worker's thread gets to
    // it. Never waits. Returns the new generation: reports of requests made
    // before the clearing carry an older one.
    quint64 clearAllCacheData();
    // Drops what is cached of these files and the requests waiting for them:
    // they have left the show or were replaced. A preparation of one of them
    // that is running is neither stored nor reported.
    void forgetImages(const QStringList &paths);
    // Ends the reading of the image in preparation and skips whatever is
    // queued, without emptying anything: for an owner that goes away and
    // wants the worker's thread to end soon. From any thread.
    void stopPreparing();
    // How many entries are worth keeping, from 1 to maxCacheSize: a show
    // that walks round more images than the cache holds never finds an
    // evicted one again, so it keeps only the previous, current and next
    // slide. Entries beyond the new bound are evicted at once, the oldest of
    // those the show does not want first.
    void setCacheCapacity(int entries);
    // The slides the show draws or is about to draw (the previous one while
    // a fade runs, the current and the next one). Their entries are never
    // evicted: when the cache is full, the entry that goes is the oldest of
    // the others, and an image prepared for none of these slides is not
    // stored while only wanted ones are held. An empty list wants nothing in
    // particular, and the oldest entry goes. Changes nothing else: the
    // requests are made as before.
    // Requests for other slides that are still queued, or being prepared,
    // when the show has moved on are skipped.
    void setWantedImages(const QStringList &paths);
    // Prepares the image in the calling thread. Kept on purpose as part of
    // the worker's interface, though nothing in the plug-in calls it.
    QPixmap processImageSynchronously(const QString &path, const QRect &geometry, double devicePixelRatio, int position);
    // The cached pixmap for path if its pixel size is the geometry's size,
    // else a null pixmap. Never waits for an image being prepared.
    QPixmap getCachedImage(const QString &path, const QRect &geometry, double devicePixelRatio, Position position);

    bool isValidGeometry(const QRect &geometry);
    QString getRequestKey(const QString &path, const QRect &geometry);

    // No image whose decoding would allocate more than this (64 Mi pixels of
    // 32 bits), counted from its header after the reader's own reduction and
    // with what the decoder keeps besides the result, or whose header does
    // not tell its size, is decoded: a lock screen must not be taken down by
    // one huge or broken file.
    static constexpr qint64 maxDecodedBytes = 268435456;

    // Loads the file and fits it to the geometry's size in the given mode.
    // An unreadable (or too large, or too slow) file gives a black pixmap of
    // that size.
    QPixmap cachedImage(const QString &path, const QRect &geometry, double devicePixelRatio, Position position) const;

    // The fitting modes, for callers that have only a path: each loads the
    // file itself.
    QPixmap stretch(const QString &path, const QSize &size) const;
    QPixmap crop(const QString &path, const QSize &size, double devicePixelRatio) const;
    QPixmap tile(const QString &path, const QSize &size, double devicePixelRatio) const;
    QPixmap center(const QString &path, const QSize &size, double devicePixelRatio) const;
    QPixmap fit(const QString &path, const QSize &size, double devicePixelRatio) const;

    // The same on an image already loaded, so that cachedImage decodes each
    // file once.
    QPixmap stretch(const QPixmap &loaded, const QSize &size) const;
    QPixmap crop(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const;
    QPixmap tile(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const;
    QPixmap center(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const;
    QPixmap fit(const QPixmap &loaded, const QSize &size, double devicePixelRatio) const;

Q_SIGNALS:
    // generation is that of the request (see clearAllCacheData).
    void imageCached(const QString &path, const QPixmap &pixmap, quint64 generation);
    // The file was not there when the worker came to open it: it has left
    // the folder since it was listed. Nothing is reported for it.
    void imageGone(const QString &path);

private Q_SLOTS:
    // generation is the one in force when the request was queued: the key
    // (path and size) cannot tell a request made before a clearing from the
    // same one made after it, for a mode change keeps both.
    void processImageInternal(const QString &path, const QRect &screenGeom, qreal devicePixelRatio, int position, quint64 generation);

private:
    // Tests and tools read the containers through ImageCacheWorkerAccess
    // (imagecacheworker_p.h).
    friend class ImageCacheWorkerAccess;

    // cachedImage, ended early (a null pixmap, no warning) once unwanted
    // returns true; unwanted is asked between small reads of the file. With
    // gone given, a file that does not exist is no unreadable file: a null
    // pixmap without a warning, and gone set. workingBytes, given, is set to
    // what the preparation held besides its result (the decoded image and
    // what was made of it on the way), all freed by the time it returns.
    QPixmap prepareImage(const QString &path,
                         const QRect &geometry,
                         double devicePixelRatio,
                         Position position,
                         const std::function<bool()> &unwanted,
                         bool *gone = nullptr,
                         qint64 *workingBytes = nullptr) const;
    // Under mutex: the cached pixmap for path at size, made the youngest
    // entry; null if there is none.
    QPixmap takeCachedAtSizeLocked(const QString &path, const QSize &size);
    // Under mutex: path moves to the end of cacheOrder (it is evicted last).
    void makeYoungestLocked(const QString &path);
    // Under mutex: stores (or replaces) the entry and makes it the youngest;
    // the bound is left to evictLocked. Returns the replaced pixmap, to be
    // freed after the lock.
    QPixmap storeLocked(const QString &path, const QPixmap &pixmap);
    // Under mutex: drops the entries beyond cacheCapacity less room, the
    // oldest of those not wanted first and never a wanted one, noting each
    // dropped path and the size left after it, for the log. The dropped
    // pixmaps are handed out, to be freed after the lock.
    void evictLocked(QStringList *evicted, QList<int> *sizesAfterEviction, QList<QPixmap> *pixmaps, int room = 0);
    // Under mutex: whether a new entry for path would only displace one the
    // show wants: the cache is full of wanted slides and path is none of
    // them.
    bool unwantedAndNoRoomLocked(const QString &path) const;
    // Under mutex: the show has said what it wants, and path is none of it.
    bool passedLocked(const QString &path) const;
    // Under mutex: whether a request waits for a slide the show needs more
    // urgently than path (the current one before the next, the next before
    // the previous).
    bool moreUrgentPendingLocked(const QString &path) const;
    static void logEvictions(const QStringList &evicted, const QList<int> &sizesAfterEviction);

    // Guarded by mutex. Read by the GUI thread (lookups, requests, clearing)
    // and written by both threads.
    QMap<QString, QPixmap> cache;
    QList<QString> cacheOrder;
    QSet<QString> pendingRequests;
    // Advanced by every clearing (and by stopPreparing), under mutex. Atomic
    // so that a preparation can ask, between two reads of its file, whether
    // it is still wanted without taking the lock.
    std::atomic<quint64> generation{0};
    int preparationsStarted = 0;
    int cacheCapacity = maxCacheSize;
    // The show's current, next and (while it fades) previous slide.
    QStringList wantedImages;
    // The file being prepared in the worker's thread, if any. Set when the
    // show passes it or it is forgotten meanwhile, under mutex; read by the
    // preparation between two reads of its file without the lock.
    QString preparingPath;
    std::atomic<bool> preparationUnwanted{false};

    // The one short lock described above; no other lock is ever taken under
    // it. A std::mutex rather than a QMutex so that the thread sanitizer
    // sees it even when contended.
    mutable std::mutex mutex;
};
}
}

#endif // ZAV_IMAGECACHEWORKER_H
