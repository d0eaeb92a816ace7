/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_SLIDESHOWSETTINGSWIDGET_H
#define ZAV_SLIDESHOWSETTINGSWIDGET_H

#include "host/screensaverinterface.h"

#include <QMap>
#include <QString>
#include <QVariant>

#include <memory>

class SlideShowSettingsWidgetTest;

namespace Dm
{
namespace ScreenSaver
{
// One choice of a settings combo box: its translated text and the value
// stored under the setting's key.
struct Data {
    QString text;
    int value = 0;
};

// The choice tables, built afresh on every call and keyed by the English
// word, so the boxes list them in the order of the English keys whatever the
// language.
QMap<QString, Data> effectsData();
QMap<QString, Data> positionsData();
QMap<QString, Data> ordersData();

// The settings dialog: edits the directory (with or without its subfolders),
// the interval, the fade, the order of the slides and the fitting mode.
// Edits are recorded as they happen and read back by the owner through
// property() once the dialog reports changed().
class SlideShowSettingsWidget : public AbstractSettingDialog
{
    Q_OBJECT

public:
    explicit SlideShowSettingsWidget(QWidget *parent = nullptr);
    ~SlideShowSettingsWidget() override;

    // Loads the map into the controls without notifying anybody.
    void setSilentProperty(QMap<QString, QVariant> property);
    // Loads the map, then emits changed(), whether or not anything differs.
    void setProperty(QMap<QString, QVariant> property);
    // The map as edited so far.
    const QMap<QString, QVariant> &property() const;

    // The Open button: browses for the image directory.
    void selectImageDirectory();

    // OK: refuses an empty saved directory with an error box, otherwise
    // closes and emits changed() if an edit touched a loaded key.
    void accept() override;
    // Cancel: restores the loaded values and closes.
    void reject() override;

    using AbstractSettingDialog::property;
    using AbstractSettingDialog::setProperty;

private:
    friend class ::SlideShowSettingsWidgetTest;
    class Private;
    const std::unique_ptr<Private> d;
};
}
}

#endif // ZAV_SLIDESHOWSETTINGSWIDGET_H
