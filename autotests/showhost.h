/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_SHOWHOST_H
#define ZAV_SHOWHOST_H

#include "imagecache/position.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "slideshow/slideshow.h"
#include "slideshow/slideshow_p.h"
#include "testutils.h"

#include <QHBoxLayout>
#include <QPalette>

namespace TestUtils
{
// The screensaver as a greeter shows it: filling a black window (or one of
// another colour). The switches are the test's to make (an interval of an
// hour) unless it applies settings of its own.
struct ShowHost {
    QWidget window;
    Dm::ScreenSaver::SlideShow *show = nullptr;
    bool exposed = false;

    explicit ShowHost(const QSize &size = QSize(320, 240), const QColor &background = Qt::black)
    {
        QPalette palette = window.palette();
        palette.setColor(QPalette::Window, background);
        window.setPalette(palette);
        window.setAutoFillBackground(true);
        auto *layout = new QHBoxLayout(&window);
        layout->setContentsMargins(0, 0, 0, 0);
        show = new Dm::ScreenSaver::SlideShow(&window);
        layout->addWidget(show);
        window.resize(size);
        window.show();
        exposed = QTest::qWaitForWindowExposed(&window);
    }

    Dm::ScreenSaver::SlideLabel *label() const
    {
        return inspect(show).slideLabel();
    }
    Dm::ScreenSaver::ImageCacheWorker *worker() const
    {
        return inspect(label()).worker();
    }
    void apply(const QString &directory, int autoSwitch = 3600, int effect = 0, Dm::ScreenSaver::Position position = Dm::ScreenSaver::Crop)
    {
        show->setProperty(settingsMap(directory, autoSwitch, effect, int(position)));
    }
    // Waits until the label has taken the folder's first listing.
    bool listed(int timeout = 20000) const
    {
        return QTest::qWaitFor(
            [this] {
                return !inspect(label()).awaitingListing();
            },
            timeout);
    }
    QImage frame()
    {
        return window.grab().toImage().convertToFormat(QImage::Format_RGB32);
    }
    QRgb centre()
    {
        return at(window.rect().center());
    }
    QRgb at(const QPoint &point)
    {
        return window.grab(QRect(point, QSize(1, 1))).toImage().pixel(0, 0);
    }
    // Waits until the centre shows the colour, within the drawing's rounding.
    bool shows(const QColor &colour, int timeout = 20000)
    {
        return QTest::qWaitFor(
            [this, &colour] {
                return fuzzyColor(centre(), colour, 2);
            },
            timeout);
    }
};
}

#endif // ZAV_SHOWHOST_H
