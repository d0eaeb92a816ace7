/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The settings dialog's private record, in its own header so that the
// dialog's test can reach it.

#ifndef ZAV_SLIDESHOWSETTINGSWIDGET_P_H
#define ZAV_SLIDESHOWSETTINGSWIDGET_P_H

#include "settings/slideshowsettingswidget.h"

#include <QMap>
#include <QString>
#include <QVariant>

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;

namespace Dm
{
namespace ScreenSaver
{
class SlideShowSettingsWidget::Private
{
public:
    QComboBox *initEffectsCheckBox();
    QComboBox *initPositionsCheckBox();
    QComboBox *initOrdersCheckBox();

    QLineEdit *directoryLineEdit = nullptr;
    QPushButton *openButton = nullptr;
    QCheckBox *includeSubfoldersCheckBox = nullptr;
    QLabel *autoSwitchLabel = nullptr;
    QSpinBox *autoSwitchSpinBox = nullptr;
    QLabel *effectLabel = nullptr;
    QComboBox *effectComboBox = nullptr;
    QLabel *orderLabel = nullptr;
    QComboBox *orderComboBox = nullptr;
    QComboBox *alignmentComboBox = nullptr;
    // What was last loaded (plus a directory picked with Open): what Cancel
    // restores and what OK compares against.
    QMap<QString, QVariant> savedProperty;
    // What the controls have written so far; returned by property().
    QMap<QString, QVariant> editedProperty;

private:
    static QComboBox *fillComboBox(QComboBox *&box, const QMap<QString, Data> &table);
};
}
}

#endif // ZAV_SLIDESHOWSETTINGSWIDGET_P_H
