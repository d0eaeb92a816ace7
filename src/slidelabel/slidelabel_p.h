/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Read-only views of a SlideLabel's state for tests and tools (the
// benchmark, the soak); not part of what a host or the screensaver uses.

#ifndef ZAV_SLIDELABEL_P_H
#define ZAV_SLIDELABEL_P_H

#include "slidelabel/slidelabel.h"

#include <memory>

namespace Dm
{
namespace ScreenSaver
{
class SlideLabelAccess
{
public:
    explicit SlideLabelAccess(const SlideLabel *label)
        : m_label(label)
    {
    }

    const QStringList &files() const
    {
        return m_label->imageFiles;
    }
    int currentFileIndex() const
    {
        return m_label->currentIndex;
    }
    const QString &currentImage() const
    {
        return m_label->currentKey;
    }
    const QString &previousImage() const
    {
        return m_label->previousKey;
    }
    double currentOpacity() const
    {
        return m_label->opacity;
    }
    Position fittingMode() const
    {
        return m_label->position;
    }
    ImageCacheWorker *worker() const
    {
        return m_label->cacheWorker;
    }
    QThread *workerThread() const
    {
        return m_label->cacheThread;
    }
    bool includesSubfolders() const
    {
        return m_label->includeSubfolders;
    }
    ShowOrder showOrder() const
    {
        return m_label->order;
    }
    // Whether the first listing of the folder set is still awaited.
    bool awaitingListing() const
    {
        return m_label->awaitingListing;
    }
    // The pixmap the label draws for a slide, null if it has none.
    QPixmap slide(const QString &path) const
    {
        return m_label->slides.value(path);
    }

    // The shuffle's generator, seeded anew: a test's rounds are the same
    // every time.
    static void seedShuffle(SlideLabel *label, quint32 seed)
    {
        label->random.seed(seed);
    }

private:
    const SlideLabel *m_label;
};

inline SlideLabelAccess inspect(const SlideLabel *label)
{
    return SlideLabelAccess(label);
}

inline SlideLabelAccess inspect(const SlideLabel &label)
{
    return SlideLabelAccess(&label);
}

template<typename Deleter>
SlideLabelAccess inspect(const std::unique_ptr<SlideLabel, Deleter> &label)
{
    return SlideLabelAccess(label.get());
}
}
}

#endif // ZAV_SLIDELABEL_P_H
