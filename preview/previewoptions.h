/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_PREVIEWOPTIONS_H
#define ZAV_PREVIEWOPTIONS_H

#include <QSize>
#include <QString>
#include <QStringList>
#include <QVariantMap>

// What the command line asks of the preview host.
struct PreviewOptions {
    QStringList pluginDirs;
    bool list = false;
    QString plugin = QStringLiteral("slideshow");
    QSize window; // invalid: full screen
    QString settingsFile; // empty: the user's settings
    QVariantMap overrides; // applied over the stored settings
    bool configure = false;
    QString snapshot;
    double at = 0.0;
    QString record;
    double duration = 0.0;
    int fps = 0;
};

// Parses the arguments (the program name first). On an error, returns false
// with a one-line message in error; --help and --version exit on their own.
bool parsePreviewOptions(const QStringList &arguments, PreviewOptions *options, QString *error);

// "Stretch", "Crop", "Tile", "Center" (any case) or their numbers 0 to 3.
bool parsePosition(const QString &text, int *position);

#endif // ZAV_PREVIEWOPTIONS_H
