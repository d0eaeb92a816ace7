/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_PLUGINSLIDESHOWLOADER_H
#define ZAV_PLUGINSLIDESHOWLOADER_H

#include "host/screensaverinterface.h"

namespace Dm
{
namespace ScreenSaver
{
// The plug-in's root object: the factory a host reaches through Qt's plug-in
// mechanism.
class PluginSlideShowLoader : public AbstractPluginScreenSaverLoader
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "zav-screensaver/0.0")
    Q_INTERFACES(AbstractPluginScreenSaverLoader)

public:
    // The parent is ignored on purpose: the loader is never owned through the
    // object tree, the host's plug-in loader deletes it.
    explicit PluginSlideShowLoader(QObject *parent = nullptr);
    ~PluginSlideShowLoader() override;

    // A new, independent SlideShow owned by parent.
    AbstractScreenSaver *createScreenSaver(QWidget *parent) const override;
};
}
}

#endif // ZAV_PLUGINSLIDESHOWLOADER_H
