/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_SLIDELABEL_H
#define ZAV_SLIDELABEL_H

#include "imagecache/position.h"

#include <QLabel>
#include <QPixmap>
#include <QRect>
#include <QString>
#include <QStringList>

class QThread;

namespace Dm
{
namespace ScreenSaver
{
class ImageCacheWorker;

// Shows the slides of one directory: lists the images, steps through them,
// asks its cache worker for fitted pixmaps and paints the previous and the
// current slide with the cross-fade weight. It never decodes or scales an
// image itself; painting only looks up what the worker has finished.
class SlideLabel : public QLabel
{
    Q_OBJECT

public:
    explicit SlideLabel(QWidget *parent = nullptr);
    ~SlideLabel() override;

    // Scans the directory and starts the sequence at its first image.
    void setDir(const QString &dir);
    // Advances to the next image, wrapping to the first after the last.
    void setNext();
    // Changes the fitting mode and asks again for the visible images.
    void setPosition(Position position);
    // The weight of the current slide; the previous one gets 1 minus it.
    void setOpacity(double value);

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private Q_SLOTS:
    void handleImageCached(const QString &path, const QPixmap &pixmap);

private:
    // Tests and tools read the state through SlideLabelAccess (slidelabel_p.h).
    friend class SlideLabelAccess;

    void requestImageCache(const QString &path);
    void shutdownCacheThread();
    // The rectangle by which images are requested and looked up: the label's
    // position, its size times the integer device-pixel ratio. Requests and
    // lookups must agree on it, since the worker only returns a pixmap of
    // exactly its size.
    QRect deviceGeometry() const;
    // Asks for the visible images after the cache was emptied: current, then
    // next and previous.
    void refillCache();
    // Tells the worker how many prepared slides are worth keeping for the
    // images listed and the label's size.
    void updateCacheCapacity();
    // Tells the worker which slides the show needs, when that changed: the
    // previous one while a fade runs, the current and the next one.
    void updateWantedImages();

    QStringList imageFiles;
    int currentIndex = 0;
    double opacity = 1.0;
    QString previousKey;
    QString currentKey;
    Position position = Stretch;
    // What the worker was last told is wanted.
    QStringList wantedImages;
    // Held through a pointer rather than by value: Qt aborts the process when
    // a QThread object is destroyed while its thread still runs, so a thread
    // that does not finish in time is abandoned to end on its own and
    // deletes itself then.
    QThread *cacheThread = nullptr;
    // Lives in cacheThread; deleted there by deleteLater when it finishes.
    ImageCacheWorker *cacheWorker = nullptr;
};
}
}

#endif // ZAV_SLIDELABEL_H
