/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// A Qt plug-in named like a screensaver but built for another interface, for
// the preview host's refusal of a wrong interface identifier.

#include <QObject>
#include <QtPlugin>

class WrongInterfacePlugin : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "zav-screensaver/9.9")
};

#include "wrongiidplugin.moc"
