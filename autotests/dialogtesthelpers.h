/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Driving the settings dialog as a user does: its controls found through
// its widget tree by their visible texts, a choice made with the keyboard,
// a text typed anew, a modal box answered from inside its own event loop.
// Shared by the tests of the dialog and of its translation.

#ifndef ZAV_DIALOGTESTHELPERS_H
#define ZAV_DIALOGTESTHELPERS_H

#include "testutils.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QSpinBox>
#include <QTest>
#include <QTimer>
#include <QVBoxLayout>

namespace DialogTest
{
using TestUtils::translated;

namespace Key = TestUtils::Key;

// A map with all six keys: the four of settingsMap, then whether subfolders
// are included and the order of the slides.
inline QVariantMap fullSettingsMap(const QString &directory, int autoSwitch, int effect, int position, bool includeSubfolders, int order)
{
    QVariantMap map = TestUtils::settingsMap(directory, autoSwitch, effect, position);
    map.insert(Key::includeSubfolders, includeSubfolders);
    map.insert(Key::order, order);
    return map;
}

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
        return directoryGroup && animationGroup && positionGroup && directory && open && includeSubfolders && autoSwitchLabel && autoSwitch && effectLabel
            && effect && orderLabel && order && position && buttonBox && ok && cancel;
    }

    // The combo box of the fade, the position or the order.
    QComboBox *choiceBox(const QString &key) const
    {
        return key == Key::effect ? effect : key == Key::position ? position : key == Key::order ? order : nullptr;
    }
};

// The direct child of the parent that is a T and passes the test.
template<typename T, typename Test>
T *childOf(const QWidget *parent, Test test)
{
    const QList<T *> children = parent ? parent->findChildren<T *>(QString(), Qt::FindDirectChildrenOnly) : QList<T *>();
    for (T *child : children) {
        if (test(child)) {
            return child;
        }
    }
    return nullptr;
}

// Each control is a direct child of its group, and each group and the button
// box are direct children of the dialog; groups and labels are known by
// their exact texts, the two combo boxes of the animation by their first
// items.
inline Controls controlsOf(QDialog *dialog)
{
    const auto any = [](QObject *) {
        return true;
    };
    const auto group = [dialog](const char *title) {
        return childOf<QGroupBox>(dialog, [title](QGroupBox *box) {
            return box->title() == translated(title);
        });
    };
    Controls c;
    c.directoryGroup = group("Image Directory");
    c.animationGroup = group("Animation");
    c.positionGroup = group("Position");
    c.directory = childOf<QLineEdit>(c.directoryGroup, any);
    c.open = childOf<QPushButton>(c.directoryGroup, any);
    c.includeSubfolders = childOf<QCheckBox>(c.directoryGroup, any);
    const auto label = [&c](const char *text) {
        return childOf<QLabel>(c.animationGroup, [text](QLabel *label) {
            return label->text() == translated(text);
        });
    };
    const auto box = [&c](const char *firstItem) {
        return childOf<QComboBox>(c.animationGroup, [firstItem](QComboBox *box) {
            return box->itemText(0) == translated(firstItem);
        });
    };
    c.autoSwitchLabel = label("Auto-Switch Images");
    c.autoSwitch = childOf<QSpinBox>(c.animationGroup, any);
    c.effectLabel = label("Effect");
    c.effect = box("Fast");
    c.orderLabel = label("Order");
    c.order = box("By name");
    c.position = childOf<QComboBox>(c.positionGroup, any);
    c.buttonBox = dialog->findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"), Qt::FindDirectChildrenOnly);
    if (c.buttonBox) {
        c.ok = c.buttonBox->button(QDialogButtonBox::Ok);
        c.cancel = c.buttonBox->button(QDialogButtonBox::Cancel);
    }
    return c;
}

// The six settings as the controls show them, the choices by their values.
inline QVariantMap shownSettings(const Controls &c)
{
    return {
        {Key::directory, c.directory->text()},
        {Key::autoSwitch, c.autoSwitch->value()},
        {Key::effect, c.effect->currentData()},
        {Key::position, c.position->currentData()},
        {Key::includeSubfolders, c.includeSubfolders->isChecked()},
        {Key::order, c.order->currentData()},
    };
}

// The widgets of a layout's items in order, null for a nested layout.
inline QList<QWidget *> widgetsOf(const QLayout *layout)
{
    QList<QWidget *> widgets;
    for (int i = 0; layout && i < layout->count(); ++i) {
        widgets.append(layout->itemAt(i)->widget());
    }
    return widgets;
}

// Shows the dialog, so that clicks, keys and layouts behave as on screen.
inline bool showDialog(QDialog *dialog)
{
    dialog->show();
    if (!QTest::qWaitForWindowExposed(dialog)) {
        return false;
    }
    dialog->activateWindow();
    return QTest::qWaitForWindowActive(dialog);
}

// Replaces the text of a line edit (or of a spin box's editor) by typing.
inline void retype(QWidget *editor, const QString &text)
{
    editor->setFocus();
    QTest::keyClick(editor, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClick(editor, Qt::Key_Backspace);
    QTest::keyClicks(editor, text);
}

// Sets one setting through its control as a user does: the directory and
// the interval typed, the check box toggled with the space bar, a combo box
// moved to the item that carries the value with Home, then Down as often as
// needed. False when the control does not end up showing the value.
inline bool editAsUser(const Controls &c, const QString &key, const QVariant &value)
{
    if (key == Key::directory) {
        retype(c.directory, value.toString());
    } else if (key == Key::autoSwitch) {
        retype(c.autoSwitch, value.toString());
    } else if (key == Key::includeSubfolders && c.includeSubfolders->isChecked() != value.toBool()) {
        c.includeSubfolders->setFocus();
        QTest::keyClick(c.includeSubfolders, Qt::Key_Space);
    } else if (QComboBox *box = c.choiceBox(key)) {
        box->setFocus();
        QTest::keyClick(box, Qt::Key_Home);
        for (int i = 0; i < box->findData(value); ++i) {
            QTest::keyClick(box, Qt::Key_Down);
        }
    }
    return shownSettings(c).value(key) == value;
}

// What a modal box showed: a message box, answered with its OK button, or
// the file dialog, answered with a pick or cancelled without one.
struct ModalAnswer {
    // A modal box came up, and the answer closed it.
    bool shown = false;
    bool closed = false;
    QString title;
    QString text;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    QMessageBox::StandardButtons buttons;
    QString startDirectory;
    QFileDialog::Options options;
};

// A modal box runs its own event loop, so it is answered from inside that
// loop: this clicks the button, answers the box that comes up and closes it
// if the answer did not, so that a failing test cannot hang there; a click
// that must not bring up a box goes through here too. Assert on what was
// seen once the loop has returned.
inline ModalAnswer clickAndAnswer(QAbstractButton *button, const QString &pick = QString())
{
    ModalAnswer seen;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        QPointer<QWidget> modal = QApplication::activeModalWidget();
        if (!modal) {
            return;
        }
        poll.stop();
        seen.shown = true;
        seen.title = modal->windowTitle();
        if (auto *box = qobject_cast<QMessageBox *>(modal)) {
            seen.text = box->text();
            seen.icon = box->icon();
            seen.buttons = box->standardButtons();
            if (QAbstractButton *ok = box->button(QMessageBox::Ok)) {
                QTest::mouseClick(ok, Qt::LeftButton);
            }
        } else if (auto *dialog = qobject_cast<QFileDialog *>(modal)) {
            seen.startDirectory = dialog->directory().absolutePath();
            seen.options = dialog->options();
            if (pick.isEmpty()) {
                dialog->reject();
            } else {
                // With nothing typed and nothing selected, the dialog returns
                // the folder it shows. (selectFile would depend on the
                // folder's asynchronous listing, since a visible dialog
                // selects the file in its view rather than typing its name.)
                dialog->setDirectory(pick);
                // QFileDialog::accept is protected; QDialog's is public and
                // virtual, so this runs the file dialog's own accept.
                static_cast<QDialog *>(dialog)->accept();
            }
        }
        seen.closed = !modal || !modal->isVisible();
        if (auto *dialog = qobject_cast<QDialog *>(modal.data()); dialog && !seen.closed) {
            dialog->reject();
        }
    });
    poll.start(10);
    QTest::mouseClick(button, Qt::LeftButton);
    return seen;
}
}

#endif // ZAV_DIALOGTESTHELPERS_H
