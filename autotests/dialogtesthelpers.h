/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Driving the settings dialog as a user does: its controls found through
// its widget tree by their visible texts, a choice made with the keyboard,
// a text typed anew. Shared by the tests of the dialog, of its link to the
// screensaver and of its translation.

#ifndef ZAV_DIALOGTESTHELPERS_H
#define ZAV_DIALOGTESTHELPERS_H

#include "testutils.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QStringList>
#include <QTest>
#include <QVBoxLayout>

namespace DialogTest
{
using TestUtils::translated;

inline QStringList itemTexts(const QComboBox *box)
{
    QStringList texts;
    for (int i = 0; i < box->count(); ++i) {
        texts.append(box->itemText(i));
    }
    return texts;
}

// The dialog's controls, found through its widget tree.
struct Controls {
    QVBoxLayout *mainLayout = nullptr;
    QGroupBox *directoryGroup = nullptr;
    QGroupBox *animationGroup = nullptr;
    QGroupBox *positionGroup = nullptr;
    QLineEdit *directory = nullptr;
    QPushButton *open = nullptr;
    QCheckBox *includeSubfolders = nullptr;
    QLabel *autoSwitchLabel = nullptr;
    QSpinBox *autoSwitch = nullptr;
    QLabel *effectLabel = nullptr;
    QComboBox *effect = nullptr;
    QLabel *orderLabel = nullptr;
    QComboBox *order = nullptr;
    QComboBox *position = nullptr;
    QDialogButtonBox *buttonBox = nullptr;
    QPushButton *ok = nullptr;
    QPushButton *cancel = nullptr;

    bool complete() const
    {
        return mainLayout && directoryGroup && animationGroup && positionGroup && directory && open && includeSubfolders && autoSwitchLabel && autoSwitch
            && effectLabel && effect && orderLabel && order && position && buttonBox && ok && cancel;
    }
};

inline Controls controlsOf(QDialog *dialog)
{
    Controls c;
    c.mainLayout = qobject_cast<QVBoxLayout *>(dialog->layout());
    const QList<QGroupBox *> groups = dialog->findChildren<QGroupBox *>(QString(), Qt::FindDirectChildrenOnly);
    for (QGroupBox *group : groups) {
        if (group->title() == translated("Image Directory")) {
            c.directoryGroup = group;
        } else if (group->title() == translated("Animation")) {
            c.animationGroup = group;
        } else if (group->title() == translated("Position")) {
            c.positionGroup = group;
        }
    }
    if (c.directoryGroup) {
        c.directory = c.directoryGroup->findChild<QLineEdit *>(QString(), Qt::FindDirectChildrenOnly);
        c.open = c.directoryGroup->findChild<QPushButton *>(QString(), Qt::FindDirectChildrenOnly);
        c.includeSubfolders = c.directoryGroup->findChild<QCheckBox *>(QString(), Qt::FindDirectChildrenOnly);
    }
    if (c.animationGroup) {
        const QList<QLabel *> labels = c.animationGroup->findChildren<QLabel *>(QString(), Qt::FindDirectChildrenOnly);
        for (QLabel *label : labels) {
            if (label->text() == translated("Auto-Switch Images")) {
                c.autoSwitchLabel = label;
            } else if (label->text() == translated("Effect")) {
                c.effectLabel = label;
            } else if (label->text() == translated("Order")) {
                c.orderLabel = label;
            }
        }
        c.autoSwitch = c.animationGroup->findChild<QSpinBox *>(QString(), Qt::FindDirectChildrenOnly);
        // Two combo boxes share this group; each is known by its first item.
        const QList<QComboBox *> boxes = c.animationGroup->findChildren<QComboBox *>(QString(), Qt::FindDirectChildrenOnly);
        for (QComboBox *box : boxes) {
            if (box->itemText(0) == translated("Fast")) {
                c.effect = box;
            } else if (box->itemText(0) == translated("By name")) {
                c.order = box;
            }
        }
    }
    if (c.positionGroup) {
        c.position = c.positionGroup->findChild<QComboBox *>(QString(), Qt::FindDirectChildrenOnly);
    }
    c.buttonBox = dialog->findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"), Qt::FindDirectChildrenOnly);
    if (c.buttonBox) {
        c.ok = c.buttonBox->button(QDialogButtonBox::Ok);
        c.cancel = c.buttonBox->button(QDialogButtonBox::Cancel);
    }
    return c;
}

// Moves a combo box to an item the way a user does with the keyboard: Home,
// then Down as often as needed.
inline void chooseWithKeyboard(QComboBox *box, int index)
{
    box->setFocus();
    QTest::keyClick(box, Qt::Key_Home);
    for (int i = 0; i < index; ++i) {
        QTest::keyClick(box, Qt::Key_Down);
    }
}

// Toggles a check box the way a user does with the keyboard.
inline void toggleWithKeyboard(QAbstractButton *button)
{
    button->setFocus();
    QTest::keyClick(button, Qt::Key_Space);
}

// Replaces the text of a line edit (or of a spin box's editor) by typing.
inline void retype(QWidget *editor, const QString &text)
{
    editor->setFocus();
    QTest::keyClick(editor, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClick(editor, Qt::Key_Backspace);
    if (!text.isEmpty()) {
        QTest::keyClicks(editor, text);
    }
}
}

#endif // ZAV_DIALOGTESTHELPERS_H
