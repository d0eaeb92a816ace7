/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "dialogtesthelpers.h"
#include "settings/slideshowsettingswidget.h"
#include "slideshow/slideshow.h"
#include "slideshow/slideshow_p.h"
#include "testutils.h"

#include <QSignalSpy>
#include <QVariantAnimation>

#include <memory>

using namespace Dm::ScreenSaver;
using namespace DialogTest;
using TestUtils::LogRecorder;
using TestUtils::mapLogText;
using TestUtils::settingsMap;

class SlideShowSettingsLinkTest : public FoldersTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(makeFolders());
        // Small images keep Qt's scaling on the calling thread (see the
        // thread sanitizer notes of the build).
        for (const QString &directory : {m_first, m_second}) {
            QVERIFY(!TestUtils::writeSolidImage(directory, QStringLiteral("a.png"), QSize(64, 48), Qt::red).isEmpty());
            QVERIFY(!TestUtils::writeSolidImage(directory, QStringLiteral("b.png"), QSize(64, 48), Qt::blue).isEmpty());
        }
    }

    void cleanup()
    {
        TestUtils::setSlideShowDebugEnabled(false);
    }

    void settingWidgetIsDeletedWithScreensaver_data()
    {
        QTest::addColumn<bool>("hostParent");
        QTest::newRow("screensaver without parent") << false;
        QTest::newRow("screensaver inside a host widget") << true;
    }

    void settingWidgetIsDeletedWithScreensaver()
    {
        QFETCH(bool, hostParent);
        std::unique_ptr<QWidget> host(hostParent ? new QWidget : nullptr);
        std::unique_ptr<SlideShow> ownScreensaver(hostParent ? nullptr : new SlideShow);
        SlideShow *screensaver = hostParent ? new SlideShow(host.get()) : ownScreensaver.get();
        QPointer<AbstractSettingDialog> dialog = screensaver->settingWidget();
        QVERIFY(dialog);
        QCOMPARE(dialog->parent(), nullptr);
        host.reset();
        ownScreensaver.reset();
        QVERIFY(dialog.isNull());
    }

    void settingsReachScreensaverAndDialog_data()
    {
        QTest::addColumn<QVariantMap>("hostMap");
        QTest::addColumn<bool>("partial");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QVariantMap>("expected");
        // What the host gives is merged with the defaults, IncludeSubfolders
        // and Order included.
        const QString defaultDirectory = QStringLiteral("/usr/share/wallpapers/slideshow/");
        QTest::newRow("host, full map") << settingsMap(m_second, 7, 50, 3) << false << QString() << QVariant() << fullSettingsMap(m_second, 7, 50, 3, false, 0);
        QTest::newRow("host, effect only") << QVariantMap{{effectKey, 5000}} << false << QString() << QVariant()
                                           << fullSettingsMap(defaultDirectory, 5, 5000, 1, false, 0);
        // A commit in the dialog, edited as a user does.
        const QVariantMap none;
        QTest::newRow("fade committed") << none << false << effectKey << QVariant(5000) << fullSettingsMap(m_first, 9, 5000, 2, true, 1);
        // The dialog holds only some keys and one the screensaver does not
        // know: the commit is merged with the defaults.
        QTest::newRow("fade committed from a partial map") << none << true << effectKey << QVariant(5000) << fullSettingsMap(m_second, 5, 5000, 1, false, 0);
        QTest::newRow("subfolders committed") << none << false << includeSubfoldersKey << QVariant(false) << fullSettingsMap(m_first, 9, 2500, 2, false, 1);
        QTest::newRow("order committed") << none << false << orderKey << QVariant(0) << fullSettingsMap(m_first, 9, 2500, 2, true, 0);
    }

    // The dialog is made with the settings in force. The host's later
    // settings reach it without a change reported; a commit in it reaches
    // the screensaver, is applied once and pushed back into the dialog.
    void settingsReachScreensaverAndDialog()
    {
        QFETCH(QVariantMap, hostMap);
        QFETCH(bool, partial);
        QFETCH(QString, key);
        QFETCH(QVariant, value);
        QFETCH(QVariantMap, expected);
        SlideShow screensaver;
        const QVariantMap inForce = fullSettingsMap(m_first, 9, 2500, 2, true, 1);
        screensaver.setProperty(inForce);
        QCOMPARE(screensaver.property(), inForce);
        auto *dialog = qobject_cast<SlideShowSettingsWidget *>(screensaver.settingWidget());
        QVERIFY(dialog);
        // Made once, without a parent, and connected once however often it
        // is asked for: a commit is applied once.
        QCOMPARE(screensaver.settingWidget(), dialog);
        QCOMPARE(dialog->parent(), nullptr);
        QCOMPARE(dialog->property(), inForce);
        const Controls c = controlsOf(dialog);
        QVERIFY(c.complete());
        QCOMPARE(shownSettings(c), inForce);
        if (partial) {
            dialog->setSilentProperty({{directoryKey, m_second}, {effectKey, 2500}, {QStringLiteral("Unknown"), QStringLiteral("dropped")}});
        }
        QVERIFY(showDialog(dialog));
        QSignalSpy changed(dialog, &AbstractSettingDialog::changed);

        const bool commit = hostMap.isEmpty();
        TestUtils::setSlideShowDebugEnabled(true);
        LogRecorder recorder;
        if (commit) {
            QVERIFY(editAsUser(c, key, value));
            // Edits reach the screensaver only through a commit.
            QCOMPARE(screensaver.property(), inForce);
            QCOMPARE(inspect(screensaver).fadeAnimation()->duration(), 2500);
            QVERIFY(!clickAndAnswer(c.ok).shown);
        } else {
            screensaver.setProperty(hostMap);
        }
        QCOMPARE(changed.count(), commit ? 1 : 0);
        QCOMPARE(dialog->isVisible(), !commit);
        // The newer keys reach the screensaver as a bool and an int.
        QCOMPARE(screensaver.property(), expected);
        QCOMPARE(screensaver.property().value(includeSubfoldersKey).userType(), int(QMetaType::Bool));
        QCOMPARE(screensaver.property().value(orderKey).userType(), int(QMetaType::Int));
        QCOMPARE(inspect(screensaver).fadeAnimation()->duration(), expected.value(effectKey).toInt());
        QCOMPARE(inspect(screensaver).switchTimer().interval(), expected.value(autoSwitchKey).toInt() * 1000);
        QCOMPARE(dialog->property(), expected);
        QCOMPARE(shownSettings(c), expected);

        // Applied once, then pushed back into the dialog.
        const QStringList debug = recorder.texts(QtDebugMsg);
        const QString applied = mapLogText(LogText::showProperty, expected);
        const QString pushed = mapLogText(LogText::widgetProperty, expected);
        QCOMPARE(debug.count(applied), 1);
        QCOMPARE(debug.count(pushed), 1);
        QVERIFY(debug.indexOf(applied) < debug.indexOf(pushed));
    }
};

QTEST_MAIN(SlideShowSettingsLinkTest)

#include "slideshowsettingslinktest.moc"
