/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "slideshow/slideshow.h"
#include "slideshow/slideshow_p.h"

#include "plugin/slideshowconstants.h"
#include "settings/slideshowsettingswidget.h"
#include "slidelabel/slidelabel.h"

#include <KLocalizedString>

#include <QColor>
#include <QEasingCurve>
#include <QGraphicsDropShadowEffect>
#include <QHBoxLayout>
#include <QPointF>
#include <QTimer>
#include <QVariantAnimation>

#include <limits>

namespace Dm
{
namespace ScreenSaver
{
class SlideShow::Private
{
public:
    // No Qt parent: it belongs to this record and goes with it.
    QTimer timer;
    // Running from a switch whose slide is not ready yet: the fade waits for
    // the slide at most one interval, then starts anyway.
    QTimer slideWait;
    QVariantAnimation *animation = nullptr;
    SlideLabel *label = nullptr;
    QVariantMap property;
    // Created on first use; no Qt parent, deleted by the screensaver.
    SlideShowSettingsWidget *settingWidget = nullptr;
};

namespace
{
// Seconds from the settings to the timer's milliseconds, without overflowing
// int for absurd values (QTimer refuses negative ones itself).
int intervalMilliseconds(int seconds)
{
    const qint64 milliseconds = qint64(seconds) * 1000;
    return int(qBound<qint64>(std::numeric_limits<int>::min(), milliseconds, std::numeric_limits<int>::max()));
}
}

SlideShow::SlideShow(QWidget *parent)
    : AbstractScreenSaver(parent)
    , d(new Private)
{
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);

    d->label = new SlideLabel(this);
    layout->addWidget(d->label, 0);

    // Kept on purpose, without a visible effect: two drop shadows made and
    // configured but installed nowhere, idle children of the screensaver.
    for (int i = 0; i < 2; ++i) {
        auto *shadow = new QGraphicsDropShadowEffect(this);
        shadow->setBlurRadius(8.0);
        shadow->setOffset(QPointF(0.0, 8.0));
        shadow->setColor(QColor(0, 0, 0, 25));
    }

    d->animation = new QVariantAnimation(this);
    d->animation->setCurrentTime(0);
    d->animation->setStartValue(QVariant(0.0));
    d->animation->setEndValue(QVariant(1.0));
    d->animation->setEasingCurve(QEasingCurve::OutQuad);

    d->timer.setSingleShot(true);
    d->slideWait.setSingleShot(true);

    // Not through the virtual table: a subclass is not constructed yet.
    SlideShow::setProperty(slideShowDefaultProperty);

    // At the end of each fade the wait for the next switch begins.
    connect(
        d->animation,
        &QAbstractAnimation::finished,
        d->animation,
        [this]() {
            d->timer.start();
        },
        Qt::DirectConnection);
    connect(d->animation, &QVariantAnimation::valueChanged, this, [this](const QVariant &value) {
        d->label->setOpacity(value.toDouble());
    });
    connect(&d->timer, &QTimer::timeout, this, &SlideShow::updateSlide);
    connect(d->label, &SlideLabel::currentSlideReady, this, [this]() {
        if (d->slideWait.isActive()) {
            startFade();
        }
    });
    connect(&d->slideWait, &QTimer::timeout, this, &SlideShow::startFade);
}

SlideShow::~SlideShow()
{
    // The dialog first; then the record, a member; the children (label,
    // effects, animation) go with the QWidget base afterwards.
    delete d->settingWidget;
    d->settingWidget = nullptr;
}

void SlideShow::start()
{
    d->timer.start();
}

void SlideShow::stop()
{
    // The label keeps the opacity the fade had reached.
    d->animation->stop();
    d->timer.stop();
    d->slideWait.stop();
}

QString SlideShow::name()
{
    return ki18nd(ZAV_SLIDESHOW_TRANSLATION_DOMAIN, "Slide show").toString();
}

const QString &SlideShow::settingGroupName()
{
    return slideShowName;
}

const QVariantMap &SlideShow::property() const
{
    return d->property;
}

const QVariantMap &SlideShow::defaultProperty() const
{
    return slideShowDefaultProperty;
}

void SlideShow::setProperty(QVariantMap property)
{
    QVariantMap working = slideShowDefaultProperty;
    for (auto it = working.begin(); it != working.end(); ++it) {
        it.value() = property.value(it.key(), it.value());
    }
    updateProperty(working);
    if (d->settingWidget) {
        d->settingWidget->setSilentProperty(working);
    }
}

void SlideShow::updateProperty(QVariantMap property)
{
    qCDebug(slideShowLog) << "SlideShow set property:" << property;
    d->property = property;
    // Nothing is restarted: a running timer restarts itself with a new
    // interval, a running fade goes on with its new duration.
    for (auto it = property.cbegin(); it != property.cend(); ++it) {
        const QString &key = it.key();
        const QVariant &value = it.value();
        if (key == QLatin1String("ImageDirectory")) {
            // The folder, its subfolders and the order go together: one
            // listing for the three.
            d->label->setDir(value.toString(),
                             property.value(QStringLiteral("IncludeSubfolders")).toBool(),
                             property.value(QStringLiteral("Order")).toInt() == Shuffle ? Shuffle : ByName);
        } else if (key == QLatin1String("Effect")) {
            d->animation->setDuration(value.toInt());
        } else if (key == QLatin1String("Position")) {
            d->label->setPosition(Position(value.toInt()));
        } else if (key == QLatin1String("AutoSwitch")) {
            d->timer.setInterval(intervalMilliseconds(value.toInt()));
        }
    }
}

void SlideShow::updateSlide()
{
    d->label->setNext();
    if (d->label->isCurrentSlideReady()) {
        startFade();
        return;
    }
    // A slow file, or the first switches at 4K: the fade would run towards
    // nothing and the slide pop in later. Until it comes the previous slide
    // stays at full weight.
    d->slideWait.start(qMax(0, d->timer.interval()));
}

void SlideShow::startFade()
{
    d->slideWait.stop();
    d->animation->start(QAbstractAnimation::KeepWhenStopped);
    // The animation reports only values that differ from its last one. With a
    // fade of 0 ms it ends at once on 1.0, the value the previous fade ended
    // on, and reports nothing: the new slide would stay at the opacity 0 that
    // setNext gave it. Hand the label the value the fade stands at now (for a
    // running fade that is its start, 0.0, which changes nothing).
    d->label->setOpacity(d->animation->currentValue().toDouble());
}

AbstractSettingDialog *SlideShow::settingWidget()
{
    if (d->settingWidget) {
        return d->settingWidget;
    }
    d->settingWidget = new SlideShowSettingsWidget(nullptr);
    d->settingWidget->setSilentProperty(d->property);
    connect(d->settingWidget, &AbstractSettingDialog::changed, this, [this]() {
        setProperty(d->settingWidget->property());
    });
    return d->settingWidget;
}

SlideLabel *SlideShowAccess::slideLabel() const
{
    return m_show->d->label;
}

QVariantAnimation *SlideShowAccess::fadeAnimation() const
{
    return m_show->d->animation;
}

const QTimer &SlideShowAccess::switchTimer() const
{
    return m_show->d->timer;
}
}
}
