/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The settings dialog, on its own and as the screensaver's.

#include "settings/slideshowsettingswidget.h"
#include "dialogtesthelpers.h"
#include "settings/slideshowsettingswidget_p.h"
#include "slideshow/slideshow.h"
#include "slideshow/slideshow_p.h"

#include <QDir>
#include <QFile>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QVariantAnimation>

using namespace Dm::ScreenSaver;
using namespace DialogTest;
using TestUtils::debugEntry;
using TestUtils::LogEntry;
using TestUtils::LogRecorder;
using TestUtils::mapLogText;
using TestUtils::settingsMap;

class SlideShowSettingsWidgetTest : public QObject
{
    Q_OBJECT

    // Two folders to choose from, each with two images for the screensaver.
    QTemporaryDir m_dir;
    const QString m_first = m_dir.filePath(QStringLiteral("first"));
    const QString m_second = m_dir.filePath(QStringLiteral("second"));

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // Small images keep Qt's scaling on the calling thread (see the build's sanitizer notes).
        for (const QString &directory : {m_first, m_second}) {
            QVERIFY(QDir().mkpath(directory));
            QVERIFY(!TestUtils::writeSolidImage(directory, QStringLiteral("a.png"), QSize(64, 48), Qt::red).isEmpty());
            QVERIFY(!TestUtils::writeSolidImage(directory, QStringLiteral("b.png"), QSize(64, 48), Qt::blue).isEmpty());
        }
    }

    void cleanup()
    {
        TestUtils::setSlideShowDebugEnabled(false);
    }

    // The window, its groups and controls in place with their texts (controlsOf finds
    // groups and labels by exact text), and what they show before anything is loaded.
    void constructionLaysOutEveryControl()
    {
        SlideShowSettingsWidget dialog;
        QCOMPARE(dialog.windowTitle(), translated("Settings Slide show"));
        QCOMPARE(dialog.minimumSize(), QSize(460, 210));
        QCOMPARE(dialog.parentWidget(), nullptr);
        QCOMPARE(dialog.metaObject()->className(), "Dm::ScreenSaver::SlideShowSettingsWidget");
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(dialog.findChildren<QGroupBox *>().size(), 3);
        QCOMPARE(widgetsOf(qobject_cast<QVBoxLayout *>(dialog.layout())), (QList<QWidget *>{c.directoryGroup, c.animationGroup, c.positionGroup, c.buttonBox}));

        // The directory row, and under it the check box for subfolders.
        QVERIFY(c.directory->placeholderText().isEmpty());
        QCOMPARE(c.open->text(), translated("Open"));
        QVERIFY(c.open->toolTip().isEmpty());
        QCOMPARE(c.includeSubfolders->text(), translated("Include subfolders"));
        QVERIFY(!c.includeSubfolders->isTristate());
        auto *directoryLayout = qobject_cast<QVBoxLayout *>(c.directoryGroup->layout());
        QCOMPARE(widgetsOf(directoryLayout), (QList<QWidget *>{nullptr, c.includeSubfolders}));
        auto *directoryRow = qobject_cast<QHBoxLayout *>(directoryLayout->itemAt(0)->layout());
        QCOMPARE(widgetsOf(directoryRow), (QList<QWidget *>{c.directory, c.open}));
        QCOMPARE(directoryRow->stretch(0), 6);
        QCOMPARE(directoryRow->stretch(1), 1);

        // Three rows of label and control: interval, fade, order.
        auto *grid = qobject_cast<QGridLayout *>(c.animationGroup->layout());
        QCOMPARE(widgetsOf(grid).size(), 6);
        QWidget *const cells[3][2] = {{c.autoSwitchLabel, c.autoSwitch}, {c.effectLabel, c.effect}, {c.orderLabel, c.order}};
        for (int i = 0; i < 6; ++i) {
            int row = -1, column = -1, rowSpan = -1, columnSpan = -1;
            const int index = grid->indexOf(cells[i / 2][i % 2]);
            QVERIFY(index >= 0);
            grid->getItemPosition(index, &row, &column, &rowSpan, &columnSpan);
            QCOMPARE(QList<int>({row, column, rowSpan, columnSpan}), QList<int>({i / 2, i % 2, 1, 1}));
            QCOMPARE(grid->itemAt(index)->alignment(), Qt::Alignment());
        }
        // Only two columns hold widgets, but the stretch of column 6 makes seven.
        QCOMPARE(grid->columnCount(), 7);
        QCOMPARE(grid->columnStretch(6), 0);
        QCOMPARE(c.autoSwitch->suffix(), translated(" sec"));
        QVERIFY(c.autoSwitch->prefix().isEmpty());
        QCOMPARE(c.autoSwitch->minimum(), 1);
        QCOMPARE(c.autoSwitch->maximum(), 120);

        QCOMPARE(widgetsOf(qobject_cast<QVBoxLayout *>(c.positionGroup->layout())), QList<QWidget *>{c.position});
        QVERIFY(c.positionGroup->findChildren<QLabel *>().isEmpty());

        QCOMPARE(c.buttonBox->orientation(), Qt::Horizontal);
        QCOMPARE(c.buttonBox->standardButtons(), QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
        QCOMPARE(c.buttonBox->buttons().size(), 2);

        QCOMPARE(c.autoSwitch->text(), QStringLiteral("1") + translated(" sec"));
        QCOMPARE(shownSettings(c), fullSettingsMap(translated("Select image directory..."), 1, 500, 3, false, 0));
        QVERIFY(dialog.property().isEmpty());
    }

    // The line edit gets six parts, the Open button one, unless that is below the button's
    // size hint (a push button never shrinks below it): then the line edit gets the rest.
    void directoryRowSharesWidthSixToOne()
    {
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete() && showDialog(&dialog));
        const QLayout *row = c.directoryGroup->layout()->itemAt(0)->layout();
        for (int width : {1400, 900, 460}) {
            dialog.resize(width, dialog.height());
            QTRY_COMPARE(dialog.width(), width);
            // Run the layouts now rather than waiting for their posted request.
            dialog.layout()->activate();
            c.directoryGroup->layout()->activate();
            const int lineEdit = c.directory->width();
            const int button = c.open->width();
            const int spacing = qMax(row->spacing(), 0);
            // Both share the row's whole width between them.
            QCOMPARE(lineEdit + spacing + button, row->geometry().width());
            const int available = row->geometry().width() - spacing;
            const int buttonLimit = c.open->sizeHint().width();
            const QByteArray widths = QStringLiteral("width %1: line edit %2, button %3").arg(width).arg(lineEdit).arg(button).toLatin1();
            // Wide enough for the plain ratio with any usual style.
            QVERIFY2(width < 900 || available / 7.0 >= buttonLimit, widths);
            if (available / 7.0 >= buttonLimit) {
                // Fixed-point division rounded to whole pixels: up to a pixel off each share.
                QVERIFY2(qAbs(lineEdit - available * 6.0 / 7.0) <= 1.0, widths);
                QVERIFY2(qAbs(button - available / 7.0) <= 1.0, widths);
            } else {
                QVERIFY2(button == buttonLimit && lineEdit == available - buttonLimit, widths);
            }
        }
    }

    void choiceBoxesListTheirTables_data()
    {
        QTest::addColumn<QString>("key");
        // The English keys, separated by commas.
        QTest::addColumn<QString>("englishKeys");
        QTest::addColumn<QList<int>>("values");
        QTest::newRow("effects") << Key::effect << QStringLiteral("Fast,None,Normal,Slow") << QList<int>{500, 50, 2500, 5000};
        // Fit comes in its alphabetical place, after Crop.
        QTest::newRow("positions") << Key::position << QStringLiteral("Center,Crop,Fit,Stretch,Tile") << QList<int>{3, 1, 4, 0, 2};
        QTest::newRow("orders") << Key::order << QStringLiteral("By name,Shuffle") << QList<int>{0, 1};
    }

    // The boxes list their items in the order of the tables' English keys;
    // the texts shown are those keys translated, so no translation can
    // reorder the items. A second fill of a box warns and adds nothing.
    void choiceBoxesListTheirTables()
    {
        QFETCH(QString, key);
        QFETCH(QString, englishKeys);
        QFETCH(QList<int>, values);
        const QMap<QString, Data> table = key == Key::effect ? effectsData() : key == Key::position ? positionsData() : ordersData();
        QCOMPARE(table.keys(), englishKeys.split(QLatin1Char(',')));
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QComboBox *box = c.choiceBox(key);
        QCOMPARE(box->count(), values.size());
        QVERIFY(!box->isEditable());
        const QList<Data> items = table.values();
        for (int i = 0; i < values.size(); ++i) {
            QCOMPARE(items.at(i).text, translated(table.keys().at(i).toLatin1().constData()));
            QCOMPARE(items.at(i).value, values.at(i));
            QCOMPARE(box->itemText(i), items.at(i).text);
            const QVariant data = box->itemData(i, Qt::UserRole);
            QCOMPARE(data.userType(), int(QMetaType::Int));
            QCOMPARE(data.toInt(), values.at(i));
            QVERIFY(box->itemIcon(i).isNull());
        }

        SlideShowSettingsWidget::Private *d = dialog.d.get();
        LogRecorder recorder;
        QComboBox *again = key == Key::effect ? d->initEffectsCheckBox() : key == Key::position ? d->initPositionsCheckBox() : d->initOrdersCheckBox();
        QCOMPARE(again, box);
        QCOMPARE(box->count(), values.size());
        // All three warn with the same text, in the default category.
        const QList<LogEntry> expected = {{QStringLiteral("default"), QtWarningMsg, QString::fromLatin1(LogText::comboBoxAgain)}};
        QCOMPARE(recorder.entries(), expected);
    }

    void loadingShowsTheMap_data()
    {
        QTest::addColumn<QVariantMap>("map");
        QTest::addColumn<QVariantMap>("shown");
        QTest::addColumn<bool>("loud");
        QTest::addColumn<bool>("debug");
        const auto settings = [this](int autoSwitch, int effect, int position, bool includeSubfolders, int order) {
            return fullSettingsMap(m_first, autoSwitch, effect, position, includeSubfolders, order);
        };
        // The four older keys mean one folder, by name; a key without a control is kept too.
        QVariantMap older = settingsMap(m_first, 5, 500, 1);
        older.insert(QStringLiteral("Extra"), QStringLiteral("kept"));
        QTest::newRow("four keys") << older << settings(5, 500, 1, false, 0) << false << true;
        QTest::newRow("four keys, debug off") << older << settings(5, 500, 1, false, 0) << false << false;
        QTest::newRow("subfolders, shuffled") << settings(5, 500, 1, true, 1) << settings(5, 500, 1, true, 1) << false << true;
        // Values read back from a settings file arrive as text.
        QVariantMap stored = settingsMap(m_first, 5, 500, 1);
        stored.insert(Key::includeSubfolders, QStringLiteral("true"));
        stored.insert(Key::order, QStringLiteral("1"));
        QTest::newRow("subfolders, shuffled, as text") << stored << settings(5, 500, 1, true, 1) << false << true;
        // A value without its choice leaves the previous choice; a zero or missing interval shows the minimum.
        QTest::newRow("effect without choice") << settings(5, 1000, 1, false, 0) << settings(5, 2500, 1, false, 0) << false << true;
        QTest::newRow("order without choice") << settings(5, 500, 1, false, 7) << settings(5, 500, 1, false, 1) << false << true;
        QTest::newRow("position without choice") << settings(5, 500, 9, false, 0) << settings(5, 500, 2, false, 0) << false << true;
        QTest::newRow("interval zero") << settings(0, 500, 1, false, 0) << settings(1, 500, 1, false, 0) << false << true;
        QVariantMap noInterval = settings(5, 500, 1, false, 0);
        noInterval.remove(Key::autoSwitch);
        QTest::newRow("interval missing") << noInterval << settings(1, 500, 1, false, 0) << false << true;
        // setProperty reports a change even when the map is the one loaded.
        const QVariantMap before = fullSettingsMap(m_second, 9, 2500, 2, true, 1);
        QTest::newRow("setProperty, same map") << before << before << true << true;
        QTest::newRow("setProperty, other map") << older << settings(5, 500, 1, false, 0) << true << true;
    }

    // setSilentProperty loads without reporting a change, setProperty reports one; both log the
    // map. The map loaded before shows the second item of every choice.
    void loadingShowsTheMap()
    {
        QFETCH(QVariantMap, map);
        QFETCH(QVariantMap, shown);
        QFETCH(bool, loud);
        QFETCH(bool, debug);
        SlideShowSettingsWidget dialog;
        dialog.setSilentProperty(fullSettingsMap(m_second, 9, 2500, 2, true, 1));
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);
        TestUtils::setSlideShowDebugEnabled(debug);
        LogRecorder recorder;
        if (loud) {
            dialog.setProperty(map);
        } else {
            dialog.setSilentProperty(map);
        }
        QCOMPARE(recorder.entries(), debug ? QList<LogEntry>{debugEntry(mapLogText(LogText::widgetProperty, map))} : QList<LogEntry>{});
        QCOMPARE(changed.count(), loud ? 1 : 0);
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(shownSettings(c), shown);
        QCOMPARE(c.autoSwitch->text(), shown.value(Key::autoSwitch).toString() + translated(" sec"));
        QCOMPARE(dialog.property(), map);

        // Each choice still edits from what the load left.
        QVERIFY(showDialog(&dialog));
        for (const QString &key : {Key::effect, Key::order, Key::position}) {
            QComboBox *box = c.choiceBox(key);
            const QVariant other = box->itemData(box->currentIndex() == 0 ? 1 : 0);
            QVERIFY(editAsUser(c, key, other));
            QCOMPARE(dialog.property().value(key), other);
        }
    }

    void spinBoxRefusesValuesOutsideOneTo120_data()
    {
        QTest::addColumn<int>("loaded");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<int>("key");
        QTest::addColumn<int>("expected");
        // Arrow keys stop at the limits.
        QTest::newRow("Down at 1") << 1 << QString() << int(Qt::Key_Down) << 1;
        QTest::newRow("Up at 120") << 120 << QString() << int(Qt::Key_Up) << 120;
        // A loaded 0 shows as 1, from which Up goes on.
        QTest::newRow("Up from a loaded 0") << 0 << QString() << int(Qt::Key_Up) << 2;
        QTest::newRow("PageDown from 5") << 5 << QString() << int(Qt::Key_PageDown) << 1;
        QTest::newRow("PageUp from 115") << 115 << QString() << int(Qt::Key_PageUp) << 120;
        // A typed 0 is not accepted; Return goes back to the previous value.
        QTest::newRow("typed 0") << 5 << QStringLiteral("0") << int(Qt::Key_Return) << 5;
        // The third digit of 121 is refused as it is typed.
        QTest::newRow("typed 121") << 5 << QStringLiteral("121") << int(Qt::Key_Return) << 12;
        QTest::newRow("typed 120") << 5 << QStringLiteral("120") << int(Qt::Key_Return) << 120;
    }

    void spinBoxRefusesValuesOutsideOneTo120()
    {
        QFETCH(int, loaded);
        QFETCH(QString, typed);
        QFETCH(int, key);
        QFETCH(int, expected);
        SlideShowSettingsWidget dialog;
        dialog.setSilentProperty(settingsMap(m_first, loaded, 500, 1));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete() && showDialog(&dialog));
        QCOMPARE(c.autoSwitch->value(), qMax(loaded, 1));
        if (!typed.isNull()) {
            retype(c.autoSwitch, typed);
        } else {
            c.autoSwitch->setFocus();
        }
        QTest::keyClick(c.autoSwitch, Qt::Key(key));
        QCOMPARE(c.autoSwitch->value(), expected);
        QCOMPARE(dialog.property().value(Key::autoSwitch), QVariant(expected));
    }

    void editThroughOkOrCancel_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<bool>("keyLoaded");
        const QList<QPair<QString, QVariant>> edits = {
            {Key::directory, m_second},
            {Key::includeSubfolders, true},
            {Key::autoSwitch, 7},
            // None stores 50 ms, not 0.
            {Key::effect, 50},
            {Key::order, 1},
            // Tile, the fifth item now that Fit comes before it.
            {Key::position, 2},
        };
        for (const auto &edit : edits) {
            QTest::addRow("%s, OK", qPrintable(edit.first)) << edit.first << edit.second << true << true;
            QTest::addRow("%s, Cancel", qPrintable(edit.first)) << edit.first << edit.second << false << true;
            // A map of the older keys lacks the newer ones: a control adds its key when
            // touched. (Without a directory OK refuses; tested below.)
            if (edit.first != Key::directory) {
                QTest::addRow("%s not loaded, OK", qPrintable(edit.first)) << edit.first << edit.second << true << false;
            }
        }
        // The saved directory satisfies OK; the cleared one is the change.
        QTest::newRow("directory cleared, OK") << Key::directory << QVariant(QString()) << true << true;
        QTest::newRow("nothing edited, OK") << QString() << QVariant() << true << true;
    }

    // Each control edited as a user does, then OK or Cancel. The edit shows at once in property();
    // OK reports a change only for an edited key that was loaded, Cancel reloads the loaded map.
    void editThroughOkOrCancel()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, value);
        QFETCH(bool, ok);
        QFETCH(bool, keyLoaded);
        SlideShowSettingsWidget dialog;
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);
        QVariantMap loaded = fullSettingsMap(m_first, 5, 500, 1, false, 0);
        if (!keyLoaded) {
            loaded.remove(key);
        }
        dialog.setSilentProperty(loaded);
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete() && showDialog(&dialog));
        const QVariantMap shownBefore = shownSettings(c);
        QVERIFY(!keyLoaded || shownBefore == loaded);

        QVariantMap edited = loaded;
        QVariantMap shownEdited = shownBefore;
        if (!key.isEmpty()) {
            QVERIFY(editAsUser(c, key, value));
            edited.insert(key, value);
            shownEdited.insert(key, value);
        }
        QCOMPARE(dialog.property(), edited);
        QCOMPARE(dialog.property().value(key).userType(), value.userType());
        QCOMPARE(changed.count(), 0);

        TestUtils::setSlideShowDebugEnabled(true);
        LogRecorder recorder;
        QVERIFY(!clickAndAnswer(ok ? c.ok : c.cancel).shown);
        QVERIFY(!dialog.isVisible());
        QCOMPARE(dialog.result(), int(ok ? QDialog::Accepted : QDialog::Rejected));
        QCOMPARE(changed.count(), ok && keyLoaded && !key.isEmpty() ? 1 : 0);
        QCOMPARE(dialog.property(), ok ? edited : loaded);
        QCOMPARE(shownSettings(c), ok ? shownEdited : shownBefore);
        QCOMPARE(recorder.texts(QtDebugMsg), ok ? QStringList() : QStringList{mapLogText(LogText::widgetProperty, loaded)});
    }

    void openButtonPicksADirectory_data()
    {
        QTest::addColumn<QString>("saved");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("start");
        QTest::addColumn<QString>("pick");
        QTest::addColumn<bool>("ok");
        // The start comes from the loaded map, not from the line edit.
        QTest::newRow("existing, other path typed, cancelled") << m_first << m_second << m_first << QString() << false;
        // Without a /home, Qt's file dialog opens the missing folder's parent instead.
        const QString home = QDir(QStringLiteral("/home")).exists() ? QStringLiteral("/home") : QStringLiteral("/");
        QTest::newRow("missing, cancelled") << QDir(m_dir.path()).absoluteFilePath(QStringLiteral("missing")) << QString() << home << QString() << false;
        // A picked directory is saved too: no change on OK, kept by Cancel.
        QTest::newRow("picked, then OK") << m_first << QString() << m_first << m_second << true;
        QTest::newRow("picked, then Cancel") << m_first << QString() << m_first << m_second << false;
        // Without a saved directory OK shows an error, whatever was typed, until one is
        // picked. (Where the file dialog starts then is Qt's choice.)
        QTest::newRow("empty directory loaded") << QStringLiteral("") << m_first << QString() << m_second << true;
        QTest::newRow("nothing loaded") << QString() << m_first << QString() << m_second << true;
    }

    void openButtonPicksADirectory()
    {
        QFETCH(QString, saved);
        QFETCH(QString, typed);
        QFETCH(QString, start);
        QFETCH(QString, pick);
        QFETCH(bool, ok);
        SlideShowSettingsWidget dialog;
        QVariantMap loaded;
        if (!saved.isNull()) {
            loaded = settingsMap(saved, 5, 500, 1);
            dialog.setSilentProperty(loaded);
        }
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete() && showDialog(&dialog));
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);
        if (!typed.isEmpty()) {
            retype(c.directory, typed);
            QCOMPARE(dialog.property().value(Key::directory), QVariant(typed));
        }
        if (saved.isEmpty()) {
            const ModalAnswer error = clickAndAnswer(c.ok);
            QVERIFY(error.closed);
            QCOMPARE(error.title, translated("Error"));
            QCOMPARE(error.text, translated("The path to the directory with images is not specified"));
            QCOMPARE(error.icon, QMessageBox::Critical);
            QCOMPARE(error.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
            QVERIFY(dialog.isVisible());
            QCOMPARE(changed.count(), 0);
        }
        const QString shown = c.directory->text();
        const QVariantMap edited = dialog.property();

        const ModalAnswer fileDialog = clickAndAnswer(c.open, pick);
        QVERIFY(fileDialog.closed);
        QVERIFY(start.isEmpty() || fileDialog.startDirectory == start);
        QCOMPARE(fileDialog.title, translated("Open Directory"));
        QVERIFY(fileDialog.options.testFlag(QFileDialog::ShowDirsOnly));
        QVERIFY(fileDialog.options.testFlag(QFileDialog::DontResolveSymlinks));
        if (pick.isEmpty()) {
            // Cancelling the file dialog changes nothing.
            QCOMPARE(c.directory->text(), shown);
            QVERIFY(c.directory->toolTip().isEmpty());
            QCOMPARE(dialog.property(), edited);
            QVERIFY(dialog.isVisible());
            return;
        }
        QCOMPARE(c.directory->text(), pick);
        QCOMPARE(c.directory->toolTip(), pick);
        QCOMPARE(dialog.property().value(Key::directory), QVariant(pick));

        // Nothing else was edited and the pick is saved too, so OK closes without a change.
        QVERIFY(!clickAndAnswer(ok ? c.ok : c.cancel).shown);
        QVERIFY(!dialog.isVisible());
        QCOMPARE(dialog.result(), int(ok ? QDialog::Accepted : QDialog::Rejected));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(c.directory->text(), pick);
        loaded.insert(Key::directory, pick);
        QCOMPARE(dialog.property(), loaded);
    }

    // The dialog has no parent and goes with the screensaver, whether that has a parent or not.
    void settingWidgetIsDeletedWithScreensaver()
    {
        auto host = std::make_unique<QWidget>();
        auto screensaver = std::make_unique<SlideShow>();
        const QPointer<AbstractSettingDialog> hosted = (new SlideShow(host.get()))->settingWidget();
        const QPointer<AbstractSettingDialog> dialog = screensaver->settingWidget();
        QVERIFY(hosted && dialog);
        QCOMPARE(hosted->parent(), nullptr);
        QCOMPARE(dialog->parent(), nullptr);
        host.reset();
        QVERIFY(hosted.isNull());
        QVERIFY(dialog);
        screensaver.reset();
        QVERIFY(dialog.isNull());
    }

    void settingsReachScreensaverAndDialog_data()
    {
        QTest::addColumn<QVariantMap>("hostMap");
        QTest::addColumn<bool>("partial");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QVariantMap>("expected");
        // What the host gives is merged with the defaults, IncludeSubfolders and Order included.
        const QString defaultDirectory = QStringLiteral("/usr/share/wallpapers/slideshow/");
        QTest::newRow("host, full map") << settingsMap(m_second, 7, 50, 3) << false << QString() << QVariant() << fullSettingsMap(m_second, 7, 50, 3, false, 0);
        QTest::newRow("host, effect only") << QVariantMap{{Key::effect, 5000}} << false << QString() << QVariant()
                                           << fullSettingsMap(defaultDirectory, 5, 5000, 1, false, 0);
        // A commit in the dialog, edited as a user does.
        const QVariantMap none;
        QTest::newRow("fade committed") << none << false << Key::effect << QVariant(5000) << fullSettingsMap(m_first, 9, 5000, 2, true, 1);
        // The dialog holds some keys and an unknown one: the commit is merged with the defaults.
        QTest::newRow("fade committed from a partial map") << none << true << Key::effect << QVariant(5000) << fullSettingsMap(m_second, 5, 5000, 1, false, 0);
        QTest::newRow("subfolders committed") << none << false << Key::includeSubfolders << QVariant(false) << fullSettingsMap(m_first, 9, 2500, 2, false, 1);
        QTest::newRow("order committed") << none << false << Key::order << QVariant(0) << fullSettingsMap(m_first, 9, 2500, 2, true, 0);
    }

    // The dialog is made with the settings in force; the host's later ones reach it without a change
    // reported; a commit reaches the screensaver, is applied once and pushed back into the dialog.
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
        auto *dialog = qobject_cast<SlideShowSettingsWidget *>(screensaver.settingWidget());
        QVERIFY(dialog);
        // Made and connected once however often asked for: a commit is applied once.
        QCOMPARE(screensaver.settingWidget(), dialog);
        QCOMPARE(dialog->property(), inForce);
        const Controls c = controlsOf(dialog);
        QVERIFY(c.complete());
        QCOMPARE(shownSettings(c), inForce);
        if (partial) {
            dialog->setSilentProperty({{Key::directory, m_second}, {Key::effect, 2500}, {QStringLiteral("Unknown"), QStringLiteral("dropped")}});
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
        QCOMPARE(screensaver.property().value(Key::includeSubfolders).userType(), int(QMetaType::Bool));
        QCOMPARE(screensaver.property().value(Key::order).userType(), int(QMetaType::Int));
        QCOMPARE(inspect(screensaver).fadeAnimation()->duration(), expected.value(Key::effect).toInt());
        QCOMPARE(inspect(screensaver).switchTimer().interval(), expected.value(Key::autoSwitch).toInt() * 1000);
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

int main(int argc, char **argv)
{
    // Qt's file dialog stores its state in the user's configuration on closing: keep it out of the real one.
    QTemporaryDir configHome;
    if (configHome.isValid()) {
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(configHome.path()));
    }
    return TestUtils::runWidgetTest<SlideShowSettingsWidgetTest>(argc, argv);
}

#include "slideshowsettingswidgettest.moc"
