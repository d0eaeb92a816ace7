/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "previewoptions.h"

#include <QCommandLineParser>
#include <QRegularExpression>

#include <cmath>

namespace
{
bool parseNumber(const QString &text, double minimum, double *value)
{
    bool ok = false;
    const double number = text.toDouble(&ok);
    if (!ok || !std::isfinite(number) || number < minimum) {
        return false;
    }
    *value = number;
    return true;
}

bool parseInt(const QString &text, int minimum, int *value)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok || number < minimum) {
        return false;
    }
    *value = number;
    return true;
}
}

bool parsePosition(const QString &text, int *position)
{
    static const QStringList names = {QStringLiteral("stretch"),
                                      QStringLiteral("crop"),
                                      QStringLiteral("tile"),
                                      QStringLiteral("center"),
                                      QStringLiteral("fit")};
    const int index = names.indexOf(text.toLower());
    if (index >= 0) {
        *position = index;
        return true;
    }
    return parseInt(text, 0, position) && *position <= 4;
}

bool parsePreviewOptions(const QStringList &arguments, PreviewOptions *options, QString *error)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Shows a screensaver plug-in the way a lock screen does, in a window or full screen, "
                       "or captures its frames without a screen."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption pluginDir(QStringLiteral("plugin-dir"), QStringLiteral("Look for plug-ins in <dir> (repeatable)."), QStringLiteral("dir"));
    const QCommandLineOption list(QStringLiteral("list"), QStringLiteral("List the plug-ins found, with their metadata, and exit."));
    const QCommandLineOption plugin(QStringLiteral("plugin"), QStringLiteral("The plug-in to show (default: slideshow)."), QStringLiteral("name"));
    const QCommandLineOption window(QStringLiteral("window"),
                                    QStringLiteral("Show in a window of <W>x<H> pixels instead of full screen."),
                                    QStringLiteral("WxH"));
    const QCommandLineOption settings(QStringLiteral("settings"),
                                      QStringLiteral("Keep the settings in this INI file instead of the user's settings."),
                                      QStringLiteral("file"));
    const QCommandLineOption dir(QStringLiteral("dir"), QStringLiteral("Image directory (ImageDirectory)."), QStringLiteral("dir"));
    const QCommandLineOption interval(QStringLiteral("interval"), QStringLiteral("Seconds per slide (AutoSwitch)."), QStringLiteral("seconds"));
    const QCommandLineOption effect(QStringLiteral("effect"), QStringLiteral("Fade duration in milliseconds (Effect)."), QStringLiteral("ms"));
    const QCommandLineOption position(QStringLiteral("position"),
                                      QStringLiteral("Fitting mode (Position): Stretch, Crop, Tile, Center, Fit or 0 to 4."),
                                      QStringLiteral("mode"));
    const QCommandLineOption set(QStringLiteral("set"), QStringLiteral("Set any setting KEY to VALUE (repeatable)."), QStringLiteral("KEY=VALUE"));
    const QCommandLineOption configure(QStringLiteral("configure"), QStringLiteral("Open the screensaver's settings dialog and store what it commits."));
    const QCommandLineOption snapshot(QStringLiteral("snapshot"), QStringLiteral("Save one frame to <file> and exit (with --at)."), QStringLiteral("file"));
    const QCommandLineOption at(QStringLiteral("at"),
                                QStringLiteral("When to take the snapshot, in seconds after start (default 0)."),
                                QStringLiteral("seconds"));
    const QCommandLineOption record(QStringLiteral("record"), QStringLiteral("Save numbered PNG frames into <dir> and exit."), QStringLiteral("dir"));
    const QCommandLineOption duration(QStringLiteral("duration"), QStringLiteral("How long to record, in seconds."), QStringLiteral("seconds"));
    const QCommandLineOption fps(QStringLiteral("fps"), QStringLiteral("Frames per second to record (default 10)."), QStringLiteral("n"));
    parser.addOptions({pluginDir, list, plugin, window, settings, dir, interval, effect, position, set, configure, snapshot, at, record, duration, fps});

    if (!parser.parse(arguments)) {
        *error = parser.errorText();
        return false;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        parser.showHelp(0);
    }
    if (parser.isSet(QStringLiteral("version"))) {
        parser.showVersion();
    }
    if (!parser.positionalArguments().isEmpty()) {
        *error = QStringLiteral("unexpected argument: %1").arg(parser.positionalArguments().constFirst());
        return false;
    }

    options->pluginDirs = parser.values(pluginDir);
    options->list = parser.isSet(list);
    if (parser.isSet(plugin)) {
        options->plugin = parser.value(plugin);
    }
    if (parser.isSet(window)) {
        const QRegularExpressionMatch match = QRegularExpression(QStringLiteral("^(\\d{1,5})x(\\d{1,5})$")).match(parser.value(window));
        const QSize size = match.hasMatch() ? QSize(match.captured(1).toInt(), match.captured(2).toInt()) : QSize();
        if (size.isEmpty()) {
            *error = QStringLiteral("--window takes a size like 960x540, not \"%1\"").arg(parser.value(window));
            return false;
        }
        options->window = size;
    }
    options->settingsFile = parser.value(settings);

    if (parser.isSet(dir)) {
        options->overrides.insert(QStringLiteral("ImageDirectory"), parser.value(dir));
    }
    if (parser.isSet(interval)) {
        int seconds = 0;
        if (!parseInt(parser.value(interval), 0, &seconds)) {
            *error = QStringLiteral("--interval takes whole seconds, not \"%1\"").arg(parser.value(interval));
            return false;
        }
        options->overrides.insert(QStringLiteral("AutoSwitch"), seconds);
    }
    if (parser.isSet(effect)) {
        int milliseconds = 0;
        if (!parseInt(parser.value(effect), 0, &milliseconds)) {
            *error = QStringLiteral("--effect takes milliseconds, not \"%1\"").arg(parser.value(effect));
            return false;
        }
        options->overrides.insert(QStringLiteral("Effect"), milliseconds);
    }
    if (parser.isSet(position)) {
        int mode = 0;
        if (!parsePosition(parser.value(position), &mode)) {
            *error = QStringLiteral("--position takes Stretch, Crop, Tile, Center, Fit or 0 to 4, not \"%1\"").arg(parser.value(position));
            return false;
        }
        options->overrides.insert(QStringLiteral("Position"), mode);
    }
    const QStringList assignments = parser.values(set);
    for (const QString &assignment : assignments) {
        const int equals = assignment.indexOf(QLatin1Char('='));
        if (equals <= 0) {
            *error = QStringLiteral("--set takes KEY=VALUE, not \"%1\"").arg(assignment);
            return false;
        }
        options->overrides.insert(assignment.left(equals), assignment.mid(equals + 1));
    }

    options->configure = parser.isSet(configure);
    options->snapshot = parser.value(snapshot);
    if (parser.isSet(at) && !parseNumber(parser.value(at), 0.0, &options->at)) {
        *error = QStringLiteral("--at takes seconds, not \"%1\"").arg(parser.value(at));
        return false;
    }
    options->record = parser.value(record);
    if (parser.isSet(duration) && !parseNumber(parser.value(duration), 0.0, &options->duration)) {
        *error = QStringLiteral("--duration takes seconds, not \"%1\"").arg(parser.value(duration));
        return false;
    }
    options->fps = 10;
    if (parser.isSet(fps) && (!parseInt(parser.value(fps), 1, &options->fps) || options->fps > 1000)) {
        *error = QStringLiteral("--fps takes a whole number from 1 to 1000, not \"%1\"").arg(parser.value(fps));
        return false;
    }
    if (!options->record.isEmpty() && !parser.isSet(duration)) {
        *error = QStringLiteral("--record needs --duration");
        return false;
    }
    if (!options->snapshot.isEmpty() && !options->record.isEmpty()) {
        *error = QStringLiteral("--snapshot and --record cannot be combined");
        return false;
    }
    return true;
}
