/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The interface that a display manager's greeter and lock screen share with
// every screensaver plug-in. Both sides compile this header, so each has its
// own copy of the meta-object code and of the constants below: a host casts a
// plug-in's root object through the interface identifier and connects to
// AbstractSettingDialog::changed() by its signature.

#ifndef ZAV_SCREENSAVERINTERFACE_H
#define ZAV_SCREENSAVERINTERFACE_H

#include <QDialog>
#include <QObject>
#include <QRegularExpression>
#include <QString>
#include <QVariantMap>
#include <QWidget>

class AbstractSettingDialog;

class AbstractScreenSaver : public QWidget
{
    Q_OBJECT

public:
    using QWidget::QWidget;

    virtual void start() = 0;
    virtual void stop() = 0;
    virtual QString name() = 0;
    // A screensaver without settings keeps this; the host then offers none.
    virtual AbstractSettingDialog *settingWidget()
    {
        return nullptr;
    }
    virtual const QString &settingGroupName() = 0;
    virtual void setProperty(QVariantMap property) = 0;
    virtual const QVariantMap &property() const = 0;
    virtual const QVariantMap &defaultProperty() const = 0;

    // QObject's dynamic-property setter would be hidden by the pure virtual above.
    using QObject::property;
    using QObject::setProperty;
};

class AbstractPluginScreenSaverLoader : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    virtual AbstractScreenSaver *createScreenSaver(QWidget *parent) const = 0;
};

#define AbstractPluginScreenSaverLoader_iid "zav-screensaver/0.0"
Q_DECLARE_INTERFACE(AbstractPluginScreenSaverLoader, AbstractPluginScreenSaverLoader_iid)

class AbstractSettingDialog : public QDialog
{
    Q_OBJECT

public:
    using QDialog::QDialog;

Q_SIGNALS:
    void changed();
};

// Internal linkage on purpose: every translation unit that includes this
// header builds its own copy when the library is loaded.
static const QVariantMap lockDefaultProperty = {
    {QStringLiteral("ShowLock"), QStringLiteral("datetime")},
    {QStringLiteral("LockShowTimeout"), 300},
};
static const QString pluginFileNameTemplate = QStringLiteral("libzav-screensaver_%1.so");
static const QRegularExpression pluginFileNameRegExp(QStringLiteral("libzav-screensaver_(.*)\\.so"));

#endif // ZAV_SCREENSAVERINTERFACE_H
