/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The parts a SlideShow drives, for tests and tools (the benchmark, the
// soak); not part of what a host uses.

#ifndef ZAV_SLIDESHOW_P_H
#define ZAV_SLIDESHOW_P_H

#include "slideshow/slideshow.h"

class QTimer;
class QVariantAnimation;

namespace Dm
{
namespace ScreenSaver
{
class SlideLabel;

class SlideShowAccess
{
public:
    explicit SlideShowAccess(const SlideShow *show)
        : m_show(show)
    {
    }

    SlideLabel *slideLabel() const;
    QVariantAnimation *fadeAnimation() const;
    const QTimer &switchTimer() const;

private:
    const SlideShow *m_show;
};

inline SlideShowAccess inspect(const SlideShow *show)
{
    return SlideShowAccess(show);
}

inline SlideShowAccess inspect(const SlideShow &show)
{
    return SlideShowAccess(&show);
}
}
}

#endif // ZAV_SLIDESHOW_P_H
