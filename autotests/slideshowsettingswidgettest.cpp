/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "settings/slideshowsettingswidget.h"
#include "dialogtesthelpers.h"
#include "settings/slideshowsettingswidget_p.h"
#include "testutils.h"

#include <KLocalizedString>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDebug>
#include <QDialogButtonBox>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileDialog>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QVBoxLayout>

#include <functional>
#include <memory>

using namespace Dm::ScreenSaver;
using TestUtils::LogEntry;
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

// A map with all six keys: the four of settingsMap, then whether subfolders
// are included and the order of the slides.
QVariantMap fullSettingsMap(const QString &directory, int autoSwitch, int effect, int position, bool includeSubfolders, int order)
{
    QVariantMap map = settingsMap(directory, autoSwitch, effect, position);
    map.insert(includeSubfoldersKey, includeSubfolders);
    map.insert(orderKey, order);
    return map;
}

// The choice tables and their boxes by the names that data rows use.
QMap<QString, Data> choiceTable(const QString &name)
{
    if (name == QLatin1String("effects")) {
        return effectsData();
    }
    if (name == QLatin1String("positions")) {
        return positionsData();
    }
    return ordersData();
}

QComboBox *choiceBox(const Controls &c, const QString &name)
{
    if (name == QLatin1String("effects")) {
        return c.effect;
    }
    if (name == QLatin1String("positions")) {
        return c.position;
    }
    return c.order;
}

// Sets one setting through its control as a user does: the check box with
// the space bar, a combo box with the keyboard, moved to the item that
// carries the value. False when the control does not end up showing it.
bool editAsUser(const Controls &c, const QString &key, const QVariant &value)
{
    if (key == includeSubfoldersKey) {
        if (c.includeSubfolders->isChecked() != value.toBool()) {
            toggleWithKeyboard(c.includeSubfolders);
        }
        return c.includeSubfolders->isChecked() == value.toBool();
    }
    QComboBox *box = key == effectKey ? c.effect : key == orderKey ? c.order : key == positionKey ? c.position : nullptr;
    const int index = box ? box->findData(value) : -1;
    if (index < 0) {
        return false;
    }
    chooseWithKeyboard(box, index);
    return box->currentIndex() == index;
}

// What the dialog writes into the log for a loaded map.
QString loadedLogText(const QVariantMap &map)
{
    return TestUtils::mapLogText("SlideShow Widget set property:", map);
}

QStringList translatedKeys(const QMap<QString, Data> &table)
{
    QStringList texts;
    const QStringList keys = table.keys();
    for (const QString &key : keys) {
        texts.append(translated(key.toLatin1().constData()));
    }
    return texts;
}

// A message box or file dialog runs its own event loop, so the code that
// answers it must run from inside that loop: this polls for the active modal
// widget, hands it to the handler once, and closes it afterwards if the
// handler did not, so that a failing test cannot hang in the modal loop. The
// handler records what it sees; the test asserts once the loop has returned.
class ModalWatcher : public QObject
{
public:
    explicit ModalWatcher(std::function<void(QWidget *)> handler)
        : m_handler(std::move(handler))
    {
        m_timer.setInterval(10);
        connect(&m_timer, &QTimer::timeout, this, &ModalWatcher::poll);
        m_timer.start();
        m_clock.start();
    }

    bool handled() const
    {
        return m_handled;
    }
    // True when the handler left the modal widget open and the watcher had
    // to close it.
    bool leftOpen() const
    {
        return m_leftOpen;
    }

private:
    void poll()
    {
        QPointer<QWidget> modal = QApplication::activeModalWidget();
        if (!modal) {
            if (m_clock.hasExpired(5000)) {
                m_timer.stop();
            }
            return;
        }
        m_timer.stop();
        m_handled = true;
        m_handler(modal);
        if (modal && modal->isVisible()) {
            m_leftOpen = true;
            if (auto *dialog = qobject_cast<QDialog *>(modal.data())) {
                dialog->reject();
            } else {
                modal->close();
            }
        }
    }

    std::function<void(QWidget *)> m_handler;
    QTimer m_timer;
    QElapsedTimer m_clock;
    bool m_handled = false;
    bool m_leftOpen = false;
};

// Closes any modal box that stays open longer than a test's own watcher
// would let it, and remembers it: a box that no test expects then fails the
// test instead of hanging it.
class UnexpectedModalGuard : public QObject
{
public:
    UnexpectedModalGuard()
    {
        m_timer.setInterval(50);
        connect(&m_timer, &QTimer::timeout, this, &UnexpectedModalGuard::poll);
        m_timer.start();
    }

    // The class names and titles of the boxes it had to close.
    QStringList closed() const
    {
        return m_closed;
    }

private:
    void poll()
    {
        QWidget *modal = QApplication::activeModalWidget();
        if (modal != m_seen) {
            m_seen = modal;
            m_clock.start();
            return;
        }
        // A test's watcher answers its box within a few polls.
        if (!modal || !m_clock.hasExpired(2000)) {
            return;
        }
        m_closed.append(QStringLiteral("%1 \"%2\"").arg(QLatin1String(modal->metaObject()->className()), modal->windowTitle()));
        if (auto *dialog = qobject_cast<QDialog *>(modal)) {
            dialog->reject();
        } else {
            modal->close();
        }
        m_seen = nullptr;
    }

    QTimer m_timer;
    QElapsedTimer m_clock;
    QPointer<QWidget> m_seen;
    QStringList m_closed;
};

// What the file dialog of the Open button showed.
struct FileDialogVisit {
    bool seen = false;
    QString startDirectory;
    QString title;
    bool showDirsOnly = false;
    bool dontResolveSymlinks = false;
};

// Answers the file dialog: records what it shows, then picks the directory,
// or cancels when none is given.
std::function<void(QWidget *)> answerFileDialog(FileDialogVisit *visit, const QString &pick)
{
    return [visit, pick](QWidget *widget) {
        auto *dialog = qobject_cast<QFileDialog *>(widget);
        if (!dialog) {
            return;
        }
        visit->seen = true;
        visit->startDirectory = dialog->directory().absolutePath();
        visit->title = dialog->windowTitle();
        visit->showDirsOnly = dialog->testOption(QFileDialog::ShowDirsOnly);
        visit->dontResolveSymlinks = dialog->testOption(QFileDialog::DontResolveSymlinks);
        if (pick.isEmpty()) {
            dialog->reject();
        } else {
            // With nothing typed and nothing selected, the dialog returns the
            // folder it shows. (selectFile would depend on the folder's
            // asynchronous listing, since a visible dialog selects the file
            // in its view rather than typing its name.)
            dialog->setDirectory(pick);
            // QFileDialog::accept is protected; QDialog's is public and
            // virtual, so this runs the file dialog's own accept.
            static_cast<QDialog *>(dialog)->accept();
        }
    };
}

// What the error box on OK showed.
struct MessageBoxVisit {
    bool seen = false;
    QString title;
    QString text;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    QMessageBox::StandardButtons buttons;
};

std::function<void(QWidget *)> answerMessageBox(MessageBoxVisit *visit)
{
    return [visit](QWidget *widget) {
        auto *box = qobject_cast<QMessageBox *>(widget);
        if (!box) {
            return;
        }
        visit->seen = true;
        visit->title = box->windowTitle();
        visit->text = box->text();
        visit->icon = box->icon();
        visit->buttons = box->standardButtons();
        if (QAbstractButton *ok = box->button(QMessageBox::Ok)) {
            QTest::mouseClick(ok, Qt::LeftButton);
        }
    };
}
}

class SlideShowSettingsWidgetTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_first;
    QString m_second;
    std::unique_ptr<UnexpectedModalGuard> m_modalGuard;

    // Shows the dialog, so that clicks and layouts behave as on screen.
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
    void secondInitOfAComboBoxWarnsAndAddsNothing_data()
    {
        QTest::addColumn<QString>("table");
        QTest::addColumn<int>("count");
        QTest::newRow("effects") << QStringLiteral("effects") << 4;
        // Five positions since the dialog also offers Fit.
        QTest::newRow("positions") << QStringLiteral("positions") << 5;
        // The order box, added later, is filled and guarded the same way.
        QTest::newRow("orders") << QStringLiteral("orders") << 2;
    }

    void secondInitOfAComboBoxWarnsAndAddsNothing()
    {
        // All three functions warn with the same text, the effect one included.
        QFETCH(QString, table);
        QFETCH(int, count);
        Dm::ScreenSaver::SlideShowSettingsWidget dialog;
        Dm::ScreenSaver::SlideShowSettingsWidget::Private *d = dialog.d.get();
        const bool effects = table == QLatin1String("effects");
        const bool positions = table == QLatin1String("positions");
        QComboBox *existing = effects ? d->effectComboBox : positions ? d->alignmentComboBox : d->orderComboBox;
        QVERIFY(existing);
        QCOMPARE(existing->count(), count);

        TestUtils::LogRecorder recorder;
        QComboBox *again = effects ? d->initEffectsCheckBox() : positions ? d->initPositionsCheckBox() : d->initOrdersCheckBox();
        QCOMPARE(again, existing);
        QCOMPARE(existing->count(), count);
        const QList<TestUtils::LogEntry> expected = {{QStringLiteral("default"), QtWarningMsg, QStringLiteral("alignmentComboBox is already")}};
        QCOMPARE(recorder.entries(), expected);
    }

    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(QDir(m_dir.path()).mkdir(QStringLiteral("first")));
        QVERIFY(QDir(m_dir.path()).mkdir(QStringLiteral("second")));
        m_first = QDir(m_dir.path()).absoluteFilePath(QStringLiteral("first"));
        m_second = QDir(m_dir.path()).absoluteFilePath(QStringLiteral("second"));
    }

    void init()
    {
        m_modalGuard.reset(new UnexpectedModalGuard);
    }

    void cleanup()
    {
        TestUtils::setSlideShowDebugEnabled(false);
        const QStringList unexpected = m_modalGuard->closed();
        m_modalGuard.reset();
        QVERIFY2(unexpected.isEmpty(), qPrintable(QStringLiteral("unexpected modal boxes: ") + unexpected.join(QStringLiteral(", "))));
    }

    // Construction

    void windowTitleAndMinimumSize()
    {
        SlideShowSettingsWidget dialog;
        QCOMPARE(dialog.windowTitle(), translated("Settings Slide show"));
        QCOMPARE(dialog.minimumSize(), QSize(460, 210));
        QCOMPARE(dialog.parentWidget(), nullptr);
        QCOMPARE(dialog.metaObject()->className(), "Dm::ScreenSaver::SlideShowSettingsWidget");
    }

    void mainLayoutStacksTheGroupsAndTheButtonBox()
    {
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.mainLayout->count(), 4);
        QCOMPARE(c.mainLayout->itemAt(0)->widget(), c.directoryGroup);
        QCOMPARE(c.mainLayout->itemAt(1)->widget(), c.animationGroup);
        QCOMPARE(c.mainLayout->itemAt(2)->widget(), c.positionGroup);
        QCOMPARE(c.mainLayout->itemAt(3)->widget(), c.buttonBox);
        for (QGroupBox *group : {c.directoryGroup, c.animationGroup, c.positionGroup}) {
            QCOMPARE(group->parentWidget(), &dialog);
        }
        QCOMPARE(dialog.findChildren<QGroupBox *>().size(), 3);
    }

    void directoryRowHoldsLineEditAndOpenButton()
    {
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.directory->parentWidget(), c.directoryGroup);
        QCOMPARE(c.open->parentWidget(), c.directoryGroup);
        // Real text, not a placeholder.
        QCOMPARE(c.directory->text(), translated("Select image directory..."));
        QVERIFY(c.directory->placeholderText().isEmpty());
        QCOMPARE(c.open->text(), translated("Open"));
        QVERIFY(c.open->toolTip().isEmpty());

        auto *groupLayout = qobject_cast<QVBoxLayout *>(c.directoryGroup->layout());
        QVERIFY(groupLayout);
        // The row, and under it the check box for subfolders (tested below).
        QCOMPARE(groupLayout->count(), 2);
        auto *row = qobject_cast<QHBoxLayout *>(groupLayout->itemAt(0)->layout());
        QVERIFY(row);
        QCOMPARE(row->count(), 2);
        QCOMPARE(row->itemAt(0)->widget(), c.directory);
        QCOMPARE(row->itemAt(1)->widget(), c.open);
        QCOMPARE(row->stretch(0), 6);
        QCOMPARE(row->stretch(1), 1);
    }

    void includeSubfoldersCheckBoxSitsUnderTheDirectoryRow()
    {
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(dialog.d->includeSubfoldersCheckBox, c.includeSubfolders);
        QCOMPARE(c.includeSubfolders->parentWidget(), c.directoryGroup);
        QCOMPARE(c.includeSubfolders->text(), translated("Include subfolders"));
        QVERIFY(!c.includeSubfolders->isTristate());
        auto *groupLayout = qobject_cast<QVBoxLayout *>(c.directoryGroup->layout());
        QVERIFY(groupLayout);
        QCOMPARE(groupLayout->count(), 2);
        QVERIFY(qobject_cast<QHBoxLayout *>(groupLayout->itemAt(0)->layout()));
        QCOMPARE(groupLayout->itemAt(1)->widget(), c.includeSubfolders);
    }

    void animationGridPlacesLabelsAndControls()
    {
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        auto *grid = qobject_cast<QGridLayout *>(c.animationGroup->layout());
        QVERIFY(grid);
        // Six cells: the order of the slides has a third row, under the
        // effect.
        QCOMPARE(grid->count(), 6);
        QCOMPARE(dialog.d->orderLabel, c.orderLabel);
        QCOMPARE(dialog.d->orderComboBox, c.order);

        struct Cell {
            QWidget *widget;
            int row;
            int column;
        };
        const Cell cells[] = {
            {c.autoSwitchLabel, 0, 0},
            {c.autoSwitch, 0, 1},
            {c.effectLabel, 1, 0},
            {c.effect, 1, 1},
            {c.orderLabel, 2, 0},
            {c.order, 2, 1},
        };
        for (const Cell &cell : cells) {
            const int index = grid->indexOf(cell.widget);
            QVERIFY2(index >= 0, cell.widget->metaObject()->className());
            int row = -1;
            int column = -1;
            int rowSpan = -1;
            int columnSpan = -1;
            grid->getItemPosition(index, &row, &column, &rowSpan, &columnSpan);
            QCOMPARE(row, cell.row);
            QCOMPARE(column, cell.column);
            QCOMPARE(rowSpan, 1);
            QCOMPARE(columnSpan, 1);
            QCOMPARE(grid->itemAt(index)->alignment(), Qt::Alignment());
        }
        QCOMPARE(c.autoSwitchLabel->parentWidget(), c.animationGroup);
        QCOMPARE(c.autoSwitch->parentWidget(), c.animationGroup);
        QCOMPARE(c.effectLabel->parentWidget(), c.animationGroup);
        QCOMPARE(c.orderLabel->parentWidget(), c.animationGroup);
        QCOMPARE(c.effectLabel->text(), translated("Effect"));
        QCOMPARE(c.orderLabel->text(), translated("Order"));
        QCOMPARE(c.autoSwitchLabel->text(), translated("Auto-Switch Images"));
        // Only two columns hold widgets, but the stretch given to column 6
        // extends the grid to seven columns.
        QCOMPARE(grid->columnCount(), 7);
        QCOMPARE(grid->columnStretch(6), 0);
    }

    void spinBoxHasSecondsSuffixAndRange()
    {
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.autoSwitch->suffix(), translated(" sec"));
        QCOMPARE(c.autoSwitch->minimum(), 1);
        QCOMPARE(c.autoSwitch->maximum(), 120);
        QVERIFY(c.autoSwitch->prefix().isEmpty());
    }

    void positionGroupHoldsOnlyItsComboBox()
    {
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        auto *layout = qobject_cast<QVBoxLayout *>(c.positionGroup->layout());
        QVERIFY(layout);
        QCOMPARE(layout->count(), 1);
        QCOMPARE(layout->itemAt(0)->widget(), c.position);
        QVERIFY(c.positionGroup->findChildren<QLabel *>().isEmpty());
        // The combo boxes were created without a parent; their layouts adopted
        // them.
        QCOMPARE(c.position->parentWidget(), c.positionGroup);
        QCOMPARE(c.effect->parentWidget(), c.animationGroup);
        QCOMPARE(c.order->parentWidget(), c.animationGroup);
    }

    void buttonBoxHasOkAndCancel()
    {
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.buttonBox->objectName(), QStringLiteral("buttonBox"));
        QCOMPARE(c.buttonBox->parentWidget(), &dialog);
        QCOMPARE(c.buttonBox->orientation(), Qt::Horizontal);
        QCOMPARE(c.buttonBox->standardButtons(), QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
        QCOMPARE(c.buttonBox->buttons().size(), 2);
    }

    void choiceTablesHoldKeysAndValues_data()
    {
        QTest::addColumn<QString>("table");
        QTest::addColumn<QStringList>("keys");
        QTest::addColumn<QList<int>>("values");
        QTest::newRow("effects") << QStringLiteral("effects")
                                 << QStringList{QStringLiteral("Fast"), QStringLiteral("None"), QStringLiteral("Normal"), QStringLiteral("Slow")}
                                 << QList<int>{500, 50, 2500, 5000};
        // The dialog now also offers Fit, in its alphabetical place.
        QTest::newRow("positions")
            << QStringLiteral("positions")
            << QStringList{QStringLiteral("Center"), QStringLiteral("Crop"), QStringLiteral("Fit"), QStringLiteral("Stretch"), QStringLiteral("Tile")}
            << QList<int>{3, 1, 4, 0, 2};
        QTest::newRow("orders") << QStringLiteral("orders") << QStringList{QStringLiteral("By name"), QStringLiteral("Shuffle")} << QList<int>{0, 1};
    }

    void choiceTablesHoldKeysAndValues()
    {
        QFETCH(QString, table);
        QFETCH(QStringList, keys);
        QFETCH(QList<int>, values);
        const QMap<QString, Data> data = choiceTable(table);
        QCOMPARE(data.keys(), keys);
        const QList<Data> items = data.values();
        QCOMPARE(items.size(), values.size());
        for (int i = 0; i < items.size(); ++i) {
            QCOMPARE(items.at(i).value, values.at(i));
            QCOMPARE(items.at(i).text, translated(keys.at(i).toLatin1().constData()));
        }
    }

    void comboBoxItemsCarryTheTableValues_data()
    {
        QTest::addColumn<QString>("table");
        QTest::newRow("effects") << QStringLiteral("effects");
        QTest::newRow("positions") << QStringLiteral("positions");
        QTest::newRow("orders") << QStringLiteral("orders");
    }

    void comboBoxItemsCarryTheTableValues()
    {
        QFETCH(QString, table);
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QComboBox *box = choiceBox(c, table);
        const QList<Data> items = choiceTable(table).values();
        QCOMPARE(box->count(), items.size());
        QVERIFY(!box->isEditable());
        for (int i = 0; i < items.size(); ++i) {
            QCOMPARE(box->itemText(i), items.at(i).text);
            const QVariant data = box->itemData(i, Qt::UserRole);
            QCOMPARE(data.userType(), int(QMetaType::Int));
            QCOMPARE(data.toInt(), items.at(i).value);
            QVERIFY(box->itemIcon(i).isNull());
        }
    }

    void setSilentPropertyWritesDebugLine_data()
    {
        QTest::addColumn<bool>("debug");
        QTest::newRow("debug on") << true;
        QTest::newRow("debug off") << false;
    }

    void setSilentPropertyWritesDebugLine()
    {
        QFETCH(bool, debug);
        TestUtils::setSlideShowDebugEnabled(debug);
        SlideShowSettingsWidget dialog;
        QVariantMap map = settingsMap(m_first, 5, 500, 1);
        map.insert(QStringLiteral("Extra"), QStringLiteral("kept"));

        LogRecorder recorder;
        dialog.setSilentProperty(map);
        const QList<LogEntry> expected =
            debug ? QList<LogEntry>{LogEntry{QStringLiteral("zav-tev.screensaver.slideshow"), QtDebugMsg, loadedLogText(map)}} : QList<LogEntry>{};
        QCOMPARE(recorder.entries(), expected);
    }

    void cancelWritesDebugLineOfRestoredMap()
    {
        TestUtils::setSlideShowDebugEnabled(true);
        SlideShowSettingsWidget dialog;
        const QVariantMap loaded = settingsMap(m_first, 7, 2500, 2);
        dialog.setSilentProperty(loaded);
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        chooseWithKeyboard(c.effect, 3);

        LogRecorder recorder;
        QTest::mouseClick(c.cancel, Qt::LeftButton);
        QCOMPARE(recorder.texts(QtDebugMsg), QStringList{loadedLogText(loaded)});
    }

    // After construction

    void constructionShowsInitialTextsBeforeLoading()
    {
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.directory->text(), translated("Select image directory..."));
        QCOMPARE(c.autoSwitch->value(), 1);
        QCOMPARE(c.autoSwitch->text(), QStringLiteral("1") + translated(" sec"));
        QCOMPARE(c.effect->currentText(), translated("Fast"));
        QCOMPARE(c.effect->currentIndex(), 0);
        QCOMPARE(c.position->currentText(), translated("Center"));
        QCOMPARE(c.position->currentIndex(), 0);
        QVERIFY(!c.includeSubfolders->isChecked());
        QCOMPARE(c.order->currentText(), translated("By name"));
        QCOMPARE(c.order->currentIndex(), 0);
        QVERIFY(dialog.property().isEmpty());
    }

    void choiceOrderFollowsEnglishKeys_data()
    {
        QTest::addColumn<QString>("table");
        QTest::addColumn<QStringList>("order");
        QTest::newRow("effects") << QStringLiteral("effects")
                                 << QStringList{QStringLiteral("Fast"), QStringLiteral("None"), QStringLiteral("Normal"), QStringLiteral("Slow")};
        // Fit comes in its alphabetical place, after Crop.
        QTest::newRow("positions")
            << QStringLiteral("positions")
            << QStringList{QStringLiteral("Center"), QStringLiteral("Crop"), QStringLiteral("Fit"), QStringLiteral("Stretch"), QStringLiteral("Tile")};
        QTest::newRow("orders") << QStringLiteral("orders") << QStringList{QStringLiteral("By name"), QStringLiteral("Shuffle")};
    }

    // The boxes list their items in the order of the tables' English keys;
    // the texts shown are those keys translated, so no translation can
    // reorder the items.
    void choiceOrderFollowsEnglishKeys()
    {
        QFETCH(QString, table);
        QFETCH(QStringList, order);
        SlideShowSettingsWidget dialog;
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        const QMap<QString, Data> data = choiceTable(table);
        QCOMPARE(data.keys(), order);
        QCOMPARE(itemTexts(choiceBox(c, table)), translatedKeys(data));
    }

    void selectingNoneStoresFiftyNotZero()
    {
        SlideShowSettingsWidget dialog;
        dialog.setSilentProperty(settingsMap(m_first, 5, 500, 1));
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        chooseWithKeyboard(c.effect, 1);
        QCOMPARE(c.effect->currentText(), translated("None"));
        const QVariant effect = dialog.property().value(effectKey);
        QCOMPARE(effect.userType(), int(QMetaType::Int));
        QCOMPARE(effect.toInt(), 50);
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
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.autoSwitch->value(), loaded);

        if (!typed.isNull()) {
            retype(c.autoSwitch, typed);
        } else {
            c.autoSwitch->setFocus();
        }
        QTest::keyClick(c.autoSwitch, Qt::Key(key));
        QCOMPARE(c.autoSwitch->value(), expected);
        QCOMPARE(dialog.property().value(autoSwitchKey).toInt(), expected);
    }

    void directoryRowSharesWidthSixToOne_data()
    {
        QTest::addColumn<int>("width");
        QTest::newRow("900") << 900;
        QTest::newRow("1400") << 1400;
        QTest::newRow("minimum width") << 460;
    }

    // The row gives the line edit six parts and the Open button one, unless
    // the button's share is below what it needs: a push button never shrinks
    // below its size hint, and then the line edit gets the rest.
    void directoryRowSharesWidthSixToOne()
    {
        QFETCH(int, width);
        SlideShowSettingsWidget dialog;
        QVERIFY(showDialog(&dialog));
        dialog.resize(width, dialog.height());
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QTRY_COMPARE(dialog.width(), width);
        auto *row = qobject_cast<QHBoxLayout *>(c.directoryGroup->layout()->itemAt(0)->layout());
        QVERIFY(row);
        // Run the layouts now rather than waiting for their posted request.
        dialog.layout()->activate();
        c.directoryGroup->layout()->activate();

        const int lineEditWidth = c.directory->width();
        const int buttonWidth = c.open->width();
        const int spacing = row->spacing() >= 0 ? row->spacing() : 0;
        // Both share the row's whole width between them.
        QCOMPARE(lineEditWidth + spacing + buttonWidth, row->geometry().width());

        const int available = row->geometry().width() - spacing;
        const int buttonLimit = c.open->sizeHint().width();
        const QString widths = QStringLiteral("line edit %1, button %2, available %3").arg(lineEditWidth).arg(buttonWidth).arg(available);
        if (available / 7.0 >= buttonLimit) {
            // The layout divides in fixed point and rounds each width to
            // whole pixels, so each may be up to a pixel off its exact share.
            QVERIFY2(qAbs(lineEditWidth - available * 6.0 / 7.0) <= 1.0, qPrintable(widths));
            QVERIFY2(qAbs(buttonWidth - available / 7.0) <= 1.0, qPrintable(widths));
        } else {
            // The button keeps its size hint, the line edit gets the rest.
            QVERIFY2(buttonWidth == buttonLimit, qPrintable(widths));
            QVERIFY2(lineEditWidth == available - buttonLimit, qPrintable(widths));
        }
        if (width >= 900) {
            // Wide enough for the plain ratio with any usual style.
            QVERIFY2(available / 7.0 >= buttonLimit, qPrintable(widths));
        }
    }

    // Loading and editing

    void setSilentPropertyLoadsControlsWithoutChanged_data()
    {
        QTest::addColumn<QVariantMap>("map");
        QTest::addColumn<bool>("includeSubfolders");
        QTest::addColumn<QString>("orderText");
        // A map of the four older keys: one folder, in the order of the names.
        QTest::newRow("four keys") << settingsMap(m_first, 5, 500, 1) << false << translated("By name");
        QTest::newRow("subfolders, shuffled") << fullSettingsMap(m_first, 5, 500, 1, true, 1) << true << translated("Shuffle");
        // Values read back from a settings file arrive as text.
        QVariantMap stored = settingsMap(m_first, 5, 500, 1);
        stored.insert(includeSubfoldersKey, QStringLiteral("true"));
        stored.insert(orderKey, QStringLiteral("1"));
        QTest::newRow("subfolders, shuffled, as text") << stored << true << translated("Shuffle");
    }

    void setSilentPropertyLoadsControlsWithoutChanged()
    {
        QFETCH(QVariantMap, map);
        QFETCH(bool, includeSubfolders);
        QFETCH(QString, orderText);
        SlideShowSettingsWidget dialog;
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);
        dialog.setSilentProperty(map);
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.directory->text(), m_first);
        QCOMPARE(c.autoSwitch->value(), 5);
        QCOMPARE(c.autoSwitch->text(), QStringLiteral("5") + translated(" sec"));
        QCOMPARE(c.effect->currentText(), translated("Fast"));
        QCOMPARE(c.position->currentText(), translated("Crop"));
        QCOMPARE(c.includeSubfolders->isChecked(), includeSubfolders);
        QCOMPARE(c.order->currentText(), orderText);
        QCOMPARE(dialog.property(), map);
        QCOMPARE(changed.count(), 0);
    }

    void setPropertyEmitsChangedOnceEvenWhenUnchanged()
    {
        SlideShowSettingsWidget dialog;
        const QVariantMap map = settingsMap(m_first, 5, 500, 1);
        dialog.setSilentProperty(map);
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);
        dialog.setProperty(map);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(dialog.property(), map);

        const QVariantMap other = settingsMap(m_second, 9, 5000, 2);
        dialog.setProperty(other);
        QCOMPARE(changed.count(), 2);
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.directory->text(), m_second);
        QCOMPARE(c.autoSwitch->value(), 9);
        QCOMPARE(c.effect->currentText(), translated("Slow"));
        QCOMPARE(c.position->currentText(), translated("Tile"));
        QCOMPARE(dialog.property(), other);
    }

    void unmatchedChoiceKeepsPreviousItem_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<int>("known");
        QTest::addColumn<QString>("knownText");
        QTest::addColumn<int>("unknown");
        QTest::addColumn<int>("chosen");
        QTest::addColumn<QString>("chosenText");
        QTest::newRow("effect") << effectKey << 2500 << translated("Normal") << 1000 << 5000 << translated("Slow");
        QTest::newRow("order") << orderKey << 1 << translated("Shuffle") << 7 << 0 << translated("By name");
    }

    void unmatchedChoiceKeepsPreviousItem()
    {
        QFETCH(QString, key);
        QFETCH(int, known);
        QFETCH(QString, knownText);
        QFETCH(int, unknown);
        QFETCH(int, chosen);
        QFETCH(QString, chosenText);
        SlideShowSettingsWidget dialog;
        QVariantMap map = settingsMap(m_first, 5, 500, 1);
        map.insert(key, known);
        dialog.setSilentProperty(map);
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QComboBox *box = key == effectKey ? c.effect : c.order;
        QCOMPARE(box->currentText(), knownText);

        map.insert(key, unknown);
        dialog.setSilentProperty(map);
        QCOMPARE(box->currentText(), knownText);
        QCOMPARE(dialog.property(), map);

        QVERIFY(showDialog(&dialog));
        QVERIFY(editAsUser(c, key, chosen));
        QCOMPARE(box->currentText(), chosenText);
        QCOMPARE(dialog.property().value(key), QVariant(chosen));
    }

    void autoSwitchZeroOrMissingShowsOne_data()
    {
        QTest::addColumn<bool>("missing");
        QTest::newRow("zero") << false;
        QTest::newRow("missing") << true;
    }

    void autoSwitchZeroOrMissingShowsOne()
    {
        QFETCH(bool, missing);
        SlideShowSettingsWidget dialog;
        // Something else first, so that loading 1 is a visible change.
        dialog.setSilentProperty(settingsMap(m_first, 5, 500, 1));
        QVariantMap map = settingsMap(m_first, 0, 500, 1);
        if (missing) {
            map.remove(autoSwitchKey);
        }
        dialog.setSilentProperty(map);
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QCOMPARE(c.autoSwitch->value(), 1);
        QCOMPARE(dialog.property(), map);
        QCOMPARE(dialog.property().contains(autoSwitchKey), !missing);

        QVERIFY(showDialog(&dialog));
        c.autoSwitch->setFocus();
        QTest::keyClick(c.autoSwitch, Qt::Key_Up);
        QCOMPARE(c.autoSwitch->value(), 2);
        QCOMPARE(dialog.property().value(autoSwitchKey), QVariant(2));
    }

    // OK and Cancel

    void okAfterOneEditClosesAndEmitsChanged_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("value");
        QTest::newRow("effect") << effectKey << QVariant(2500);
        // The check box and the order box edit their keys as the other
        // controls do, with a bool and an int.
        QTest::newRow("include subfolders") << includeSubfoldersKey << QVariant(true);
        QTest::newRow("order") << orderKey << QVariant(1);
    }

    void okAfterOneEditClosesAndEmitsChanged()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, value);
        SlideShowSettingsWidget dialog;
        // All six keys loaded, so that an edit of any of them is a change.
        const QVariantMap loaded = fullSettingsMap(m_first, 5, 500, 1, false, 0);
        dialog.setSilentProperty(loaded);
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);

        QVERIFY(editAsUser(c, key, value));
        QCOMPARE(changed.count(), 0);
        QTest::mouseClick(c.ok, Qt::LeftButton);

        QVERIFY(!dialog.isVisible());
        QCOMPARE(dialog.result(), int(QDialog::Accepted));
        QCOMPARE(changed.count(), 1);
        QVariantMap expected = loaded;
        expected.insert(key, value);
        QCOMPARE(dialog.property(), expected);
        QCOMPARE(dialog.property().value(key).userType(), value.userType());
    }

    void okWithoutEditsClosesWithoutChanged()
    {
        SlideShowSettingsWidget dialog;
        const QVariantMap loaded = settingsMap(m_first, 5, 500, 1);
        dialog.setSilentProperty(loaded);
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);

        QTest::mouseClick(c.ok, Qt::LeftButton);
        QVERIFY(!dialog.isVisible());
        QCOMPARE(dialog.result(), int(QDialog::Accepted));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(dialog.property(), loaded);
    }

    void cancelRestoresLoadedValuesWithoutChanged()
    {
        SlideShowSettingsWidget dialog;
        // With the check box and the order box edited as well.
        const QVariantMap loaded = fullSettingsMap(m_first, 5, 500, 1, false, 0);
        dialog.setSilentProperty(loaded);
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);

        retype(c.directory, m_second);
        c.autoSwitch->setFocus();
        QTest::keyClick(c.autoSwitch, Qt::Key_Up);
        QTest::keyClick(c.autoSwitch, Qt::Key_Up);
        chooseWithKeyboard(c.effect, 3);
        // Tile, the fifth item now that Fit comes before it.
        chooseWithKeyboard(c.position, 4);
        toggleWithKeyboard(c.includeSubfolders);
        chooseWithKeyboard(c.order, 1);
        QCOMPARE(dialog.property(), fullSettingsMap(m_second, 7, 5000, 2, true, 1));

        QTest::mouseClick(c.cancel, Qt::LeftButton);
        QVERIFY(!dialog.isVisible());
        QCOMPARE(dialog.result(), int(QDialog::Rejected));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(c.directory->text(), m_first);
        QCOMPARE(c.autoSwitch->value(), 5);
        QCOMPARE(c.effect->currentText(), translated("Fast"));
        QCOMPARE(c.position->currentText(), translated("Crop"));
        QVERIFY(!c.includeSubfolders->isChecked());
        QCOMPARE(c.order->currentText(), translated("By name"));
        QCOMPARE(dialog.property(), loaded);
    }

    void pickedDirectoryIsNoChangeOnOkAndSurvivesCancel_data()
    {
        QTest::addColumn<bool>("ok");
        QTest::newRow("ok") << true;
        QTest::newRow("cancel") << false;
    }

    void pickedDirectoryIsNoChangeOnOkAndSurvivesCancel()
    {
        QFETCH(bool, ok);
        SlideShowSettingsWidget dialog;
        dialog.setSilentProperty(settingsMap(m_first, 5, 500, 1));
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);

        FileDialogVisit visit;
        {
            ModalWatcher watcher(answerFileDialog(&visit, m_second));
            QTest::mouseClick(c.open, Qt::LeftButton);
            QVERIFY(watcher.handled());
            QVERIFY(!watcher.leftOpen());
        }
        QVERIFY(visit.seen);
        QCOMPARE(visit.startDirectory, m_first);
        QCOMPARE(c.directory->text(), m_second);
        QCOMPARE(c.directory->toolTip(), m_second);
        QCOMPARE(dialog.property().value(directoryKey), QVariant(m_second));

        QTest::mouseClick(ok ? c.ok : c.cancel, Qt::LeftButton);
        QVERIFY(!dialog.isVisible());
        QCOMPARE(dialog.result(), int(ok ? QDialog::Accepted : QDialog::Rejected));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(c.directory->text(), m_second);
        QCOMPARE(dialog.property(), settingsMap(m_second, 5, 500, 1));
    }

    void okWithoutSavedDirectoryShowsErrorUntilOpenPicksOne_data()
    {
        QTest::addColumn<bool>("load");
        QTest::newRow("empty directory loaded") << true;
        QTest::newRow("nothing loaded") << false;
    }

    void okWithoutSavedDirectoryShowsErrorUntilOpenPicksOne()
    {
        QFETCH(bool, load);
        SlideShowSettingsWidget dialog;
        if (load) {
            dialog.setSilentProperty(settingsMap(QString(), 5, 500, 1));
        }
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);

        // A typed path is not enough: only a loaded or picked directory is.
        retype(c.directory, m_first);
        QCOMPARE(dialog.property().value(directoryKey), QVariant(m_first));
        MessageBoxVisit error;
        {
            ModalWatcher watcher(answerMessageBox(&error));
            QTest::mouseClick(c.ok, Qt::LeftButton);
            QVERIFY(watcher.handled());
            QVERIFY(!watcher.leftOpen());
        }
        QVERIFY(error.seen);
        QCOMPARE(error.title, translated("Error"));
        QCOMPARE(error.text, translated("The path to the directory with images is not specified"));
        QCOMPARE(error.icon, QMessageBox::Critical);
        QCOMPARE(error.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
        QVERIFY(dialog.isVisible());
        QCOMPARE(changed.count(), 0);

        FileDialogVisit visit;
        {
            ModalWatcher watcher(answerFileDialog(&visit, m_second));
            QTest::mouseClick(c.open, Qt::LeftButton);
            QVERIFY(watcher.handled());
            QVERIFY(!watcher.leftOpen());
        }
        QVERIFY(visit.seen);
        QCOMPARE(c.directory->text(), m_second);

        // Nothing else was edited, and the picked directory is saved as
        // well, so OK closes without a change.
        QTest::mouseClick(c.ok, Qt::LeftButton);
        QVERIFY(!dialog.isVisible());
        QCOMPARE(dialog.result(), int(QDialog::Accepted));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(dialog.property().value(directoryKey), QVariant(m_second));
        QVERIFY(!QApplication::activeModalWidget());
    }

    void clearedDirectoryAndOkEmitsChangedWithEmptyPath()
    {
        SlideShowSettingsWidget dialog;
        dialog.setSilentProperty(settingsMap(m_first, 5, 500, 1));
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);

        retype(c.directory, QString());
        QVERIFY(c.directory->text().isEmpty());
        QTest::mouseClick(c.ok, Qt::LeftButton);
        QVERIFY(!QApplication::activeModalWidget());
        QVERIFY(!dialog.isVisible());
        QCOMPARE(dialog.result(), int(QDialog::Accepted));
        QCOMPARE(changed.count(), 1);
        const QVariant directory = dialog.property().value(directoryKey);
        QCOMPARE(directory.userType(), int(QMetaType::QString));
        QVERIFY(directory.toString().isEmpty());
    }

    void editWithoutLoadedKeyIsNoChangeOnOk_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("value");
        QTest::newRow("effect") << effectKey << QVariant(5000);
        // A map of the four older keys lacks these two: the check box and the
        // order box add them when touched.
        QTest::newRow("include subfolders") << includeSubfoldersKey << QVariant(true);
        QTest::newRow("order") << orderKey << QVariant(1);
    }

    void editWithoutLoadedKeyIsNoChangeOnOk()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, value);
        SlideShowSettingsWidget dialog;
        QVariantMap loaded = settingsMap(m_first, 5, 500, 1);
        loaded.remove(key);
        dialog.setSilentProperty(loaded);
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        QSignalSpy changed(&dialog, &AbstractSettingDialog::changed);

        QVERIFY(editAsUser(c, key, value));
        QCOMPARE(dialog.property().value(key), value);
        QCOMPARE(dialog.property().value(key).userType(), value.userType());
        QTest::mouseClick(c.ok, Qt::LeftButton);
        QVERIFY(!dialog.isVisible());
        QCOMPARE(dialog.result(), int(QDialog::Accepted));
        QCOMPARE(changed.count(), 0);
        QVariantMap expected = loaded;
        expected.insert(key, value);
        QCOMPARE(dialog.property(), expected);
    }

    void openStartsAtSavedDirectoryOrHome_data()
    {
        QTest::addColumn<QString>("saved");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("start");
        // The start comes from the loaded map, not from the line edit.
        // (Picking a directory starts at a loaded one as well.)
        QTest::newRow("existing, other path typed") << m_first << m_second << m_first;
        // Without a /home, Qt's file dialog opens the missing folder's
        // parent instead.
        const QString home = QDir(QStringLiteral("/home")).exists() ? QStringLiteral("/home") : QStringLiteral("/");
        QTest::newRow("missing") << QDir(m_dir.path()).absoluteFilePath(QStringLiteral("missing")) << QString() << home;
    }

    void openStartsAtSavedDirectoryOrHome()
    {
        QFETCH(QString, saved);
        QFETCH(QString, typed);
        QFETCH(QString, start);
        SlideShowSettingsWidget dialog;
        const QVariantMap loaded = settingsMap(saved, 5, 500, 1);
        dialog.setSilentProperty(loaded);
        QVERIFY(showDialog(&dialog));
        const Controls c = controlsOf(&dialog);
        QVERIFY(c.complete());
        if (!typed.isEmpty()) {
            retype(c.directory, typed);
        }
        const QString shown = c.directory->text();
        const QVariantMap edited = dialog.property();

        // Cancelling the file dialog changes nothing.
        FileDialogVisit visit;
        {
            ModalWatcher watcher(answerFileDialog(&visit, QString()));
            QTest::mouseClick(c.open, Qt::LeftButton);
            QVERIFY(watcher.handled());
            QVERIFY(!watcher.leftOpen());
        }
        QVERIFY(visit.seen);
        QCOMPARE(visit.startDirectory, start);
        QCOMPARE(visit.title, translated("Open Directory"));
        QVERIFY(visit.showDirsOnly);
        QVERIFY(visit.dontResolveSymlinks);
        QCOMPARE(c.directory->text(), shown);
        QVERIFY(c.directory->toolTip().isEmpty());
        QCOMPARE(dialog.property(), edited);
        QVERIFY(dialog.isVisible());
    }
};

int main(int argc, char **argv)
{
    // Qt's own file dialog stores its state and last folder in the user's
    // configuration when it closes; keep that out of the real one.
    QTemporaryDir configHome;
    if (configHome.isValid()) {
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(configHome.path()));
    }
    QApplication app(argc, argv);
    SlideShowSettingsWidgetTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "slideshowsettingswidgettest.moc"
