/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_SLIDESHOW_H
#define ZAV_SLIDESHOW_H

#include "host/screensaverinterface.h"

#include <QVariantMap>

#include <memory>

namespace Dm
{
namespace ScreenSaver
{
class SlideLabel;

// The screensaver widget a host receives: one SlideLabel filling it, a
// single-shot timer that switches to the next slide and an animation that
// cross-fades to it. The interval runs from the end of one fade to the start
// of the next.
class SlideShow : public AbstractScreenSaver
{
    Q_OBJECT

public:
    explicit SlideShow(QWidget *parent = nullptr);
    ~SlideShow() override;

    void start() override;
    void stop() override;
    QString name() override;
    AbstractSettingDialog *settingWidget() override;
    const QString &settingGroupName() override;
    // Merges the map over the defaults (unknown keys are dropped, missing
    // ones take their default) and applies it.
    void setProperty(QVariantMap property) override;
    const QVariantMap &property() const override;
    const QVariantMap &defaultProperty() const override;

    // Advances the label and starts the fade as soon as the new slide is
    // ready, at most one interval later; the timer's timeout.
    void updateSlide();
    // Logs, stores and applies a complete settings map, key by key in map
    // order: interval, fade, directory (with its subfolders and order, in
    // one listing), fitting mode.
    void updateProperty(QVariantMap property);

    using AbstractScreenSaver::property;
    using AbstractScreenSaver::setProperty;

private:
    void startFade();

    // Tests and tools reach the parts through SlideShowAccess (slideshow_p.h).
    friend class SlideShowAccess;
    class Private;
    // Destroyed after the destructor's body (which deletes the dialog) and
    // before the QWidget base deletes the children.
    const std::unique_ptr<Private> d;
};
}
}

#endif // ZAV_SLIDESHOW_H
