/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// How a host finds and loads screensaver plug-ins, knowing only the shared
// interface: used by the preview host and by the robustness harness, so that
// both load the plug-in the way a lock screen does.

#ifndef ZAV_SCREENSAVERPLUGIN_H
#define ZAV_SCREENSAVERPLUGIN_H

#include <QList>
#include <QString>
#include <QStringList>

class AbstractPluginScreenSaverLoader;
class QPluginLoader;

struct ScreenSaverPluginFile {
    // The part of the file name that names the screensaver ("slideshow").
    QString name;
    QString path;
};

// The files of the folders whose names match the plug-in file pattern, in
// the order of the folders and of the names.
QList<ScreenSaverPluginFile> discoverScreenSaverPlugins(const QStringList &dirs);

// Loads the loader's file after checking its metadata and interface, and
// returns its factory; null with a one-line reason in error otherwise.
AbstractPluginScreenSaverLoader *loadScreenSaverFactory(QPluginLoader &loader, QString *error);

#endif // ZAV_SCREENSAVERPLUGIN_H
