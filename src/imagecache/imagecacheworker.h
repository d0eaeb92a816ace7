/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_IMAGECACHEWORKER_H
#define ZAV_IMAGECACHEWORKER_H

#include "imagecache/position.h"

#include <QObject>
#include <QPixmap>
#include <QRect>
#include <QSize>
#include <QString>

namespace Dm
{
namespace ScreenSaver
{
class ImageCacheWorker : public QObject
{
    Q_OBJECT

public:
    explicit ImageCacheWorker(QObject *parent = nullptr);
    ~ImageCacheWorker() override;

    // Images declaring more pixels than this (512 MiB as 32-bit pixels) are
    // never decoded: a lock screen must not be taken down by one huge file.
    static constexpr qint64 maxImagePixels = 134217728;

    // Loads the file and fits it to the geometry's size in the given mode.
    // An unreadable (or too large) file gives a black pixmap of that size.
    QPixmap cachedImage(const QString &path, const QRect &geometry, double devicePixelRatio, Position position) const;

    QPixmap stretch(const QString &path, const QSize &size) const;
    QPixmap crop(const QString &path, const QSize &size, double devicePixelRatio) const;
    QPixmap tile(const QString &path, const QSize &size, double devicePixelRatio) const;
    QPixmap center(const QString &path, const QSize &size, double devicePixelRatio) const;
};
}
}

#endif // ZAV_IMAGECACHEWORKER_H
