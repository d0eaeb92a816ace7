/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "dialogtesthelpers.h"
#include "settings/slideshowsettingswidget.h"
#include "slideshow/slideshow.h"
#include "slideshow/slideshow_p.h"
#include "testutils.h"

#include <KLocalizedString>

#include <QApplication>
#include <QComboBox>
#include <QDebug>
#include <QDialogButtonBox>
#include <QDir>
#include <QGroupBox>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QVariantAnimation>

#include <memory>

using namespace Dm::ScreenSaver;
using TestUtils::LogRecorder;

namespace
{
using TestUtils::settingsMap;
using TestUtils::translated;
using namespace DialogTest;

const QString directoryKey = QStringLiteral("ImageDirectory");
const QString autoSwitchKey = QStringLiteral("AutoSwitch");
const QString effectKey = QStringLiteral("Effect");
const QString positionKey = QStringLiteral("Position");
const QString includeSubfoldersKey = QStringLiteral("IncludeSubfolders");
const QString orderKey = QStringLiteral("Order");

// What the screensaver makes of a map of the four older keys: it adds the
// defaults of the two newer ones, one folder in the order of the names.
QVariantMap withNewerDefaults(QVariantMap map)
{
    map.insert(includeSubfoldersKey, false);
    map.insert(orderKey, 0);
    return map;
}

QString logText(const char *leading, const QVariantMap &map)
{
    return TestUtils::mapLogText(leading, map);
}
}

class SlideShowSettingsLinkTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_first;
    QString m_second;

    // Small images keep Qt's scaling on the calling thread (see the thread
    // sanitizer notes of the build).
    bool writeImages(const QString &directory)
    {
        return !TestUtils::writeSolidImage(directory, QStringLiteral("a.png"), QSize(64, 48), Qt::red).isEmpty()
            && !TestUtils::writeSolidImage(directory, QStringLiteral("b.png"), QSize(64, 48), Qt::blue).isEmpty();
    }

    static bool showDialog(QDialog *dialog)
    {
        dialog->show();
        if (!QTest::qWaitForWindowExposed(dialog)) {
            return false;
        }
        dialog->activateWindow();
        return QTest::qWaitForWindowActive(dialog);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QDir root(m_dir.path());
        QVERIFY(root.mkdir(QStringLiteral("first")));
        QVERIFY(root.mkdir(QStringLiteral("second")));
        m_first = root.absoluteFilePath(QStringLiteral("first"));
        m_second = root.absoluteFilePath(QStringLiteral("second"));
        QVERIFY(writeImages(m_first));
        QVERIFY(writeImages(m_second));
    }

    void cleanup()
    {
        TestUtils::setSlideShowDebugEnabled(false);
    }

    void settingWidgetIsCreatedOnceWithoutParentAndDeletedWithScreensaver_data()
    {
        QTest::addColumn<bool>("hostParent");
        QTest::newRow("screensaver without parent") << false;
        QTest::newRow("screensaver inside a host widget") << true;
    }

    void settingWidgetIsCreatedOnceWithoutParentAndDeletedWithScreensaver()
    {
        QFETCH(bool, hostParent);
        std::unique_ptr<QWidget> host(hostParent ? new QWidget : nullptr);
        std::unique_ptr<SlideShow> ownScreensaver(hostParent ? nullptr : new SlideShow);
        SlideShow *screensaver = hostParent ? new SlideShow(host.get()) : ownScreensaver.get();
        screensaver->setProperty(settingsMap(m_first, 5, 500, 1));

        AbstractSettingDialog *first = screensaver->settingWidget();
        QVERIFY(first);
        AbstractSettingDialog *second = screensaver->settingWidget();
        QCOMPARE(second, first);
        QVERIFY(qobject_cast<SlideShowSettingsWidget *>(first));
        QCOMPARE(first->parent(), nullptr);
        QCOMPARE(first->parentWidget(), nullptr);

        // One connection only, however often it was asked for: a commit is
        // applied once.
        TestUtils::setSlideShowDebugEnabled(true);
        {
            LogRecorder recorder;
            const QVariantMap committed = settingsMap(m_second, 5, 500, 1);
            // The screensaver applies the commit merged with the defaults,
            // which now include IncludeSubfolders and Order.
            const QVariantMap applied = withNewerDefaults(committed);
            // The dialog's setProperty emits changed() unconditionally.
            static_cast<SlideShowSettingsWidget *>(first)->setProperty(committed);
            QCOMPARE(recorder.count(logText("SlideShow set property:", applied)), 1);
            QCOMPARE(screensaver->property(), applied);
        }
        TestUtils::setSlideShowDebugEnabled(false);

        QPointer<AbstractSettingDialog> dialog = first;
        if (hostParent) {
            host.reset();
        } else {
            ownScreensaver.reset();
        }
        QVERIFY(dialog.isNull());
    }

    void settingWidgetIsLoadedWithSettingsInForce()
    {
        SlideShow screensaver;
        QVariantMap settings = settingsMap(m_second, 9, 2500, 2);
        // The check box and the order box show the settings in force too.
        settings.insert(includeSubfoldersKey, true);
        settings.insert(orderKey, 1);
        screensaver.setProperty(settings);
        auto *dialog = qobject_cast<SlideShowSettingsWidget *>(screensaver.settingWidget());
        QVERIFY(dialog);
        QCOMPARE(dialog->property(), screensaver.property());
        const Controls c = controlsOf(dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.directory->text(), m_second);
        QCOMPARE(c.autoSwitch->value(), 9);
        QCOMPARE(c.effect->currentText(), translated("Normal"));
        QCOMPARE(c.position->currentText(), translated("Tile"));
        QVERIFY(c.includeSubfolders->isChecked());
        QCOMPARE(c.order->currentText(), translated("Shuffle"));
    }

    void commitInDialogReachesScreensaver_data()
    {
        QTest::addColumn<bool>("partial");
        QTest::newRow("settings in force") << false;
        // The dialog holds only some keys and one the screensaver does not
        // know: the commit is merged with the defaults.
        QTest::newRow("partial map in the dialog") << true;
    }

    void commitInDialogReachesScreensaver()
    {
        QFETCH(bool, partial);
        SlideShow screensaver;
        screensaver.setProperty(settingsMap(m_first, 9, 2500, 2));
        auto *dialog = qobject_cast<SlideShowSettingsWidget *>(screensaver.settingWidget());
        QVERIFY(dialog);
        if (partial) {
            dialog->setSilentProperty(QVariantMap{
                {directoryKey, m_second},
                {effectKey, 2500},
                {QStringLiteral("Unknown"), QStringLiteral("dropped")},
            });
        }
        QVERIFY(showDialog(dialog));
        const Controls c = controlsOf(dialog);
        QVERIFY(c.complete());
        QSignalSpy changed(dialog, &AbstractSettingDialog::changed);

        chooseWithKeyboard(c.effect, 3);
        QCOMPARE(c.effect->currentText(), translated("Slow"));
        // Edits reach the screensaver only through a commit.
        QCOMPARE(screensaver.property().value(effectKey), QVariant(2500));
        QCOMPARE(inspect(screensaver).fadeAnimation()->duration(), 2500);

        TestUtils::setSlideShowDebugEnabled(true);
        LogRecorder recorder;
        QTest::mouseClick(c.ok, Qt::LeftButton);
        QVERIFY(!dialog->isVisible());
        QCOMPARE(changed.count(), 1);

        // Merged with the defaults, the newer keys' included.
        const QVariantMap expected = withNewerDefaults(partial ? settingsMap(m_second, 5, 5000, 1) : settingsMap(m_first, 9, 5000, 2));
        QCOMPARE(screensaver.property(), expected);
        QCOMPARE(inspect(screensaver).fadeAnimation()->duration(), 5000);
        QCOMPARE(inspect(screensaver).switchTimer().interval(), expected.value(autoSwitchKey).toInt() * 1000);
        QCOMPARE(dialog->property(), expected);
        QCOMPARE(c.autoSwitch->value(), expected.value(autoSwitchKey).toInt());

        // Applied once, then pushed back into the dialog.
        const QStringList debug = recorder.texts(QtDebugMsg);
        const int applied = debug.indexOf(logText("SlideShow set property:", expected));
        const int pushed = debug.indexOf(logText("SlideShow Widget set property:", expected));
        QVERIFY(applied >= 0);
        QVERIFY(pushed > applied);
        QCOMPARE(debug.count(logText("SlideShow set property:", expected)), 1);
        QCOMPARE(debug.count(logText("SlideShow Widget set property:", expected)), 1);
    }

    void subfoldersAndOrderCommittedInDialogReachScreensaver()
    {
        SlideShow screensaver;
        const QVariantMap inForce = withNewerDefaults(settingsMap(m_first, 9, 2500, 2));
        screensaver.setProperty(inForce);
        auto *dialog = qobject_cast<SlideShowSettingsWidget *>(screensaver.settingWidget());
        QVERIFY(dialog);
        QVERIFY(showDialog(dialog));
        const Controls c = controlsOf(dialog);
        QVERIFY(c.complete());
        QSignalSpy changed(dialog, &AbstractSettingDialog::changed);

        toggleWithKeyboard(c.includeSubfolders);
        QVERIFY(c.includeSubfolders->isChecked());
        chooseWithKeyboard(c.order, 1);
        QCOMPARE(c.order->currentText(), translated("Shuffle"));
        QCOMPARE(screensaver.property(), inForce);

        QTest::mouseClick(c.ok, Qt::LeftButton);
        QVERIFY(!dialog->isVisible());
        QCOMPARE(changed.count(), 1);
        QVariantMap expected = inForce;
        expected.insert(includeSubfoldersKey, true);
        expected.insert(orderKey, 1);
        QCOMPARE(screensaver.property(), expected);
        QCOMPARE(screensaver.property().value(includeSubfoldersKey).userType(), int(QMetaType::Bool));
        QCOMPARE(screensaver.property().value(orderKey).userType(), int(QMetaType::Int));
        QCOMPARE(dialog->property(), expected);
        QVERIFY(c.includeSubfolders->isChecked());
        QCOMPARE(c.order->currentText(), translated("Shuffle"));
    }

    void hostSetPropertyUpdatesDialogWithoutChanged_data()
    {
        QTest::addColumn<QVariantMap>("given");
        QTest::addColumn<QVariantMap>("merged");
        QTest::addColumn<QString>("effectText");
        QTest::addColumn<QString>("positionText");
        // The merged maps hold the defaults of IncludeSubfolders and Order too.
        QTest::newRow("full map") << settingsMap(m_second, 9, 2500, 2) << withNewerDefaults(settingsMap(m_second, 9, 2500, 2)) << translated("Normal")
                                  << translated("Tile");
        QTest::newRow("effect only") << QVariantMap{{effectKey, 5000}}
                                     << withNewerDefaults(settingsMap(QStringLiteral("/usr/share/wallpapers/slideshow/"), 5, 5000, 1)) << translated("Slow")
                                     << translated("Crop");
    }

    void hostSetPropertyUpdatesDialogWithoutChanged()
    {
        QFETCH(QVariantMap, given);
        QFETCH(QVariantMap, merged);
        QFETCH(QString, effectText);
        QFETCH(QString, positionText);
        SlideShow screensaver;
        screensaver.setProperty(settingsMap(m_first, 7, 50, 3));
        auto *dialog = qobject_cast<SlideShowSettingsWidget *>(screensaver.settingWidget());
        QVERIFY(dialog);
        QVERIFY(showDialog(dialog));
        const Controls c = controlsOf(dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.effect->currentText(), translated("None"));
        QCOMPARE(c.position->currentText(), translated("Center"));
        QSignalSpy changed(dialog, &AbstractSettingDialog::changed);

        screensaver.setProperty(given);
        QCOMPARE(c.directory->text(), merged.value(directoryKey).toString());
        QCOMPARE(c.autoSwitch->value(), merged.value(autoSwitchKey).toInt());
        QCOMPARE(c.effect->currentText(), effectText);
        QCOMPARE(c.position->currentText(), positionText);
        QCOMPARE(dialog->property(), merged);
        QCOMPARE(screensaver.property(), merged);
        QCOMPARE(changed.count(), 0);
        QVERIFY(dialog->isVisible());
    }
};

QTEST_MAIN(SlideShowSettingsLinkTest)

#include "slideshowsettingslinktest.moc"
