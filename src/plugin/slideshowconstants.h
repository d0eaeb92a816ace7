/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The slide show's own vocabulary: its name, logging category, translation
// domain, setting keys and defaults. Like the host constants beside which it
// is included, each translation unit builds its own copy at load time.

#ifndef ZAV_SLIDESHOWCONSTANTS_H
#define ZAV_SLIDESHOWCONSTANTS_H

#include "host/screensaverinterface.h"

#include <QLatin1String>
#include <QList>
#include <QLoggingCategory>
#include <QString>
#include <QVariantMap>

#define ZAV_SLIDESHOW_TRANSLATION_DOMAIN "zav-screensaver_slideshow"

static const QString slideShowName = QStringLiteral("SlideShow");

// Not const: the logging registry switches its levels on and off when the
// filter rules change. Debug messages stay off unless the rules enable them.
static QLoggingCategory slideShowLog("zav-tev.screensaver.slideshow", QtInfoMsg);

static const QList<QLatin1String> slideShowKeys = {
    QLatin1String("ImageDirectory"),
    QLatin1String("Effect"),
    QLatin1String("AutoSwitch"),
    QLatin1String("Position"),
};

static const QVariantMap slideShowDefaultProperty = {
    {QStringLiteral("ImageDirectory"), QStringLiteral("/usr/share/wallpapers/slideshow/")},
    {QStringLiteral("Effect"), 500},
    {QStringLiteral("AutoSwitch"), 5},
    {QStringLiteral("Position"), 1},
};

#endif // ZAV_SLIDESHOWCONSTANTS_H
