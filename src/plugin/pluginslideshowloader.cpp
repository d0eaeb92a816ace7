/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "plugin/pluginslideshowloader.h"

#include "slideshow/slideshow.h"

namespace Dm
{
namespace ScreenSaver
{
PluginSlideShowLoader::PluginSlideShowLoader(QObject *parent)
    : AbstractPluginScreenSaverLoader(nullptr)
{
    Q_UNUSED(parent)
}

PluginSlideShowLoader::~PluginSlideShowLoader() = default;

AbstractScreenSaver *PluginSlideShowLoader::createScreenSaver(QWidget *parent) const
{
    return new SlideShow(parent);
}
}
}
