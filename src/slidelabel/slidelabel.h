/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_SLIDELABEL_H
#define ZAV_SLIDELABEL_H

#include "imagecache/position.h"
#include "slidelabel/folderlisting.h"

#include <QElapsedTimer>
#include <QHash>
#include <QLabel>
#include <QPixmap>
#include <QRandomGenerator>
#include <QRect>
#include <QSet>
#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <QTimer>

class QThread;

namespace Dm
{
namespace ScreenSaver
{
class ImageCacheWorker;
class SlideFolder;
struct FolderListing;

// Shows the slides of one directory: has it listed, steps through its
// images, asks its cache worker for fitted pixmaps and paints the previous
// and the current slide with the cross-fade weight. It never lists a folder,
// opens a file, decodes or scales an image itself, and never waits for a
// thread that does: the GUI thread it runs on takes the user's password.
class SlideLabel : public QLabel
{
    Q_OBJECT

public:
    explicit SlideLabel(QWidget *parent = nullptr);
    // Returns at once, whatever the worker or a listing is doing: their
    // threads end on their own.
    ~SlideLabel() override;

    // Empties the show and has the directory listed; the show starts at its
    // first image when the listing comes. Returns at once.
    void setDir(const QString &dir);
    // The same, with or without the images of its subfolders (depth first),
    // in name order or shuffled afresh each round: one listing for the three.
    void setDir(const QString &dir, bool includeSubfolders, ShowOrder order);
    // Advances to the next image, wrapping to the first after the last.
    void setNext();
    // Changes the fitting mode and asks again for the visible images.
    void setPosition(Position position);
    // The weight of the current slide, drawn over the previous one.
    void setOpacity(double value);
    // Whether the current slide is ready to be shown (or there is nothing
    // to wait for: one image or none).
    bool isCurrentSlideReady() const;

Q_SIGNALS:
    // The current slide's pixmap has come from the worker.
    void currentSlideReady();

protected:
    bool event(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private Q_SLOTS:
    void handleImageCached(const QString &path, const QPixmap &pixmap, quint64 generation);
    void handleImageGone(const QString &path);

private:
    // Tests and tools read the state through SlideLabelAccess (slidelabel_p.h).
    friend class SlideLabelAccess;

    void requestImageCache(const QString &path);
    // Asks the worker to stop and its thread to end, and returns.
    void shutdownCacheThread();
    // The rectangle by which images are requested and looked up: the label's
    // position, its size times the integer device-pixel ratio. Requests and
    // lookups must agree on it, since the worker only returns a pixmap of
    // exactly its size.
    QRect deviceGeometry() const;
    // Empties the worker's cache and the label's own pixmaps.
    void clearCache();
    // Asks for the slides the show needs after the cache was emptied: the
    // current one, then the next one, and the previous one while a fade
    // runs.
    void refillCache();
    // Tells the worker how many prepared slides are worth keeping for the
    // images listed and the label's size.
    void updateCacheCapacity();
    // Tells the worker which slides the show needs, when that changed: the
    // previous one while a fade runs, the current and the next one; and
    // drops the label's own pixmaps of the others.
    void updateWantedImages();
    // The image after the current one.
    QString nextKey() const;
    // The label's pixmap of the slide, if it has one of this size.
    QPixmap slideFor(const QString &path, const QSize &deviceSize) const;
    // Paints without the host's background beneath when the bottom layer of
    // the next frame is an opaque slide that covers the label.
    void updateOpaquePainting();
    // Refills the cache when the size or the ratio of the screen's pixels
    // changed since the last request.
    void followDeviceGeometry();
    // Takes a listing of the folder: starts the show with the first one,
    // follows the folder's changes with the later ones.
    void takeListing(const QSharedPointer<const FolderListing> &listing, bool first);
    void startShow(const QStringList &paths);
    void followChanges(const FolderListing &listing);
    // Puts the current slide where it belongs in the order after the list
    // changed; a current slide that left the show stays on the screen until
    // the next switch, which goes to the image that followed it.
    void placeCurrent();
    // The show has no images (left): the message is shown.
    void emptyShow(const QString &folder);
    // A later listing in a shuffled round.
    void mergeIntoRound(const FolderListing &listing);
    // A fresh order of the paths, not beginning with notFirst.
    QStringList shuffled(QStringList paths, const QString &notFirst);
    // At the last slide of a shuffled round: the next round's order.
    void prepareNextRound();
    // Where an image is in the show's order, -1 if not.
    int indexInShow(const QString &path) const;

    QStringList imageFiles;
    int currentIndex = 0;
    double opacity = 1.0;
    QString previousKey;
    QString currentKey;
    Position position = Stretch;
    // The folder shown, how, and whether its first listing is still awaited:
    // until it comes the label draws neither a slide nor the message.
    QString folderPath;
    bool includeSubfolders = false;
    ShowOrder order = ByName;
    // The last listing held more images than the show takes.
    bool truncated = false;
    // In a shuffled show imageFiles is the round's order; at its last slide
    // this is the next round's, already decided.
    QStringList upcomingRound;
    QRandomGenerator random{QRandomGenerator::global()->generate()};
    bool awaitingListing = false;
    // False once the current slide has left the show (its file was removed):
    // it is still drawn until the next switch, and never after it.
    bool currentInShow = true;
    // Images the worker found gone since the last listing, which will leave
    // with it again.
    QSet<QString> goneSinceListing;
    // What the worker was last told is wanted.
    QStringList wantedImages;
    // The pixmaps of the slides the show needs, as the worker reported them
    // since the last clearing: painting draws these and takes no lock.
    QHash<QString, QPixmap> slides;
    // The device geometry and ratio the slides are requested for.
    QRect requestedGeometry;
    double requestedRatio = 1.0;
    // Frame pacing: what drawing a frame costs (a moving average, -1 before
    // the first), when the last frame was drawn, and the timer that spaces
    // the frames of a costly fade.
    double frameCostMs = -1;
    QElapsedTimer frameClock;
    QTimer frameTimer;
    static constexpr double costlyFrameMs = 10;
    static constexpr int slowFrameInterval = 33;
    // The worker's generation after the label's last clearing: a report of
    // an older one was made for a directory, mode or size no longer shown.
    quint64 clearedGeneration = 0;
    // Lists the folder off the GUI thread; destroyed first.
    SlideFolder *folder = nullptr;
    // Deletes itself once its thread has finished: the label never waits
    // for it, so a thread held in a read of a dead network share is left to
    // end whenever the read returns.
    QThread *cacheThread = nullptr;
    // Lives in cacheThread; deleted there by deleteLater when it finishes.
    ImageCacheWorker *cacheWorker = nullptr;
};
}
}

#endif // ZAV_SLIDELABEL_H
