/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "slideshow/slideshow.h"
#include "imagecache/imagecacheworker.h"
#include "plugin/slideshowconstants.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "slidelabeltesthelpers.h"
#include "slideshow/slideshow_p.h"
#include "testutils.h"

#include <KLocalizedString>

#include <QApplication>
#include <QDebug>
#include <QDir>
#include <QEasingCurve>
#include <QElapsedTimer>
#include <QGraphicsDropShadowEffect>
#include <QHBoxLayout>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QVariantAnimation>

#include <limits>
#include <memory>

using namespace Dm::ScreenSaver;
using TestUtils::LogEntry;
using TestUtils::LogRecorder;

namespace
{
const QString imageDirectoryKey = QStringLiteral("ImageDirectory");
const QString effectKey = QStringLiteral("Effect");
const QString autoSwitchKey = QStringLiteral("AutoSwitch");
const QString positionKey = QStringLiteral("Position");
const QString subfoldersKey = QStringLiteral("IncludeSubfolders");
const QString orderKey = QStringLiteral("Order");
const QString defaultDirectory = QStringLiteral("/usr/share/wallpapers/slideshow/");

// The defaults, written out here rather than taken from the code under test:
// the first four settings, and the two that came later (one folder, in the
// order of the names), which default to the show the first four give.
QVariantMap expectedDefaults()
{
    return QVariantMap{
        {imageDirectoryKey, defaultDirectory},
        {effectKey, 500},
        {autoSwitchKey, 5},
        {positionKey, 1},
        {subfoldersKey, false},
        {orderKey, 0},
    };
}

// What the debug stream makes of the leading text and the map.
QString debugText(const QVariantMap &map)
{
    return TestUtils::mapLogText("SlideShow set property:", map);
}

QStringList propertyDebugLines(const LogRecorder &recorder)
{
    QStringList lines;
    const QStringList debug = recorder.texts(QtDebugMsg);
    for (const QString &text : debug) {
        if (text.startsWith(QLatin1String("SlideShow set property:"))) {
            lines.append(text);
        }
    }
    return lines;
}

// The label lists the folder off the GUI thread: waits for its listing.
bool listed(SlideShow &show)
{
    return SlideLabelTest::waitForListing(*inspect(show).slideLabel());
}

// Shown at a size its slides are prepared for, with the folder listed and
// the current and the next slide ready: a switch then starts its fade at
// once (the fade waits for a slide that is not ready yet).
bool ready(SlideShow &show)
{
    show.resize(240, 180);
    show.show();
    if (!QTest::qWaitForWindowExposed(&show) || !listed(show)) {
        return false;
    }
    SlideLabel *label = inspect(show).slideLabel();
    return QTest::qWaitFor(
        [label] {
            const QStringList &files = inspect(label).files();
            return label->isCurrentSlideReady() && !inspect(label).slide(files.at((inspect(label).currentFileIndex() + 1) % files.size())).isNull();
        },
        10000);
}

// One sample of the fade, taken right after the screensaver has handed the
// value to the label.
struct FadeSample {
    double value;
    int time;
    double labelOpacity;
};
}

class SlideShowTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_images;
    QStringList m_files;
    // Catches the critical line that every construction writes for the
    // default directory, which does not exist on a test machine.
    std::unique_ptr<LogRecorder> m_recorder;

    // A directory of three small images and settings that switch quickly.
    QVariantMap fastSettings(int effect) const
    {
        return QVariantMap{{imageDirectoryKey, m_images.path()}, {autoSwitchKey, 1}, {effectKey, effect}};
    }
    // Where the wait itself is not under test: the first switch comes as
    // soon as the event loop runs.
    QVariantMap immediateSettings(int effect) const
    {
        return QVariantMap{{imageDirectoryKey, m_images.path()}, {autoSwitchKey, 0}, {effectKey, effect}};
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_images.isValid());
        // Small images: the fitting stays off Qt's internal thread pool.
        m_files.append(TestUtils::writeSolidImage(m_images.path(), QStringLiteral("a.png"), QSize(48, 36), Qt::red));
        m_files.append(TestUtils::writeSolidImage(m_images.path(), QStringLiteral("b.png"), QSize(48, 36), Qt::green));
        m_files.append(TestUtils::writeSolidImage(m_images.path(), QStringLiteral("c.png"), QSize(48, 36), Qt::blue));
    }

    void init()
    {
        TestUtils::setSlideShowDebugEnabled(false);
        m_recorder.reset(new LogRecorder);
    }

    void cleanup()
    {
        m_recorder.reset();
        TestUtils::setSlideShowDebugEnabled(false);
    }

    void metaObject()
    {
        QCOMPARE(SlideShow::staticMetaObject.className(), "Dm::ScreenSaver::SlideShow");
        QCOMPARE(SlideShow::staticMetaObject.superClass(), &AbstractScreenSaver::staticMetaObject);
        QCOMPARE(SlideShow::staticMetaObject.methodCount(), SlideShow::staticMetaObject.methodOffset());
        QCOMPARE(SlideShow::staticMetaObject.propertyCount(), SlideShow::staticMetaObject.propertyOffset());
        SlideShow show;
        QCOMPARE(show.qt_metacast("Dm::ScreenSaver::SlideShow"), static_cast<void *>(&show));
        QCOMPARE(show.qt_metacast("AbstractScreenSaver"), static_cast<void *>(static_cast<AbstractScreenSaver *>(&show)));
    }

    void newSlideShowHasTheDefaults()
    {
        SlideShow show;
        QCOMPARE(show.property(), expectedDefaults());
        QCOMPARE(show.property(), show.defaultProperty());

        const QTimer &timer = inspect(show).switchTimer();
        QVERIFY(timer.isSingleShot());
        QCOMPARE(timer.interval(), 5000);
        QVERIFY(!timer.isActive());
        QCOMPARE(timer.parent(), nullptr);

        QVariantAnimation *animation = inspect(show).fadeAnimation();
        QVERIFY(animation);
        QCOMPARE(animation->duration(), 500);
        QCOMPARE(animation->startValue(), QVariant(0.0));
        QCOMPARE(animation->startValue().userType(), int(QMetaType::Double));
        QCOMPARE(animation->endValue(), QVariant(1.0));
        QCOMPARE(animation->endValue().userType(), int(QMetaType::Double));
        QCOMPARE(animation->easingCurve().type(), QEasingCurve::OutQuad);
        QCOMPARE(animation->currentTime(), 0);
        QCOMPARE(animation->state(), QAbstractAnimation::Stopped);
        QCOMPARE(animation->parent(), &show);

        // The defaults reached the label: the directory and fitting mode 1.
        QCOMPARE(inspect(inspect(show).slideLabel()).fittingMode(), Crop);
        QCOMPARE(inspect(inspect(show).slideLabel()).currentOpacity(), 1.0);
    }

    void timerIsInactiveUntilStart()
    {
        SlideShow show;
        show.setProperty(fastSettings(200));
        QVERIFY(!inspect(show).switchTimer().isActive());
        QCOMPARE(inspect(show).fadeAnimation()->state(), QAbstractAnimation::Stopped);
        show.start();
        QVERIFY(inspect(show).switchTimer().isActive());
        QCOMPARE(inspect(show).fadeAnimation()->state(), QAbstractAnimation::Stopped);
        // Just armed: the whole interval lies ahead (a coarse timer may be
        // rounded by a few per cent).
        QVERIFY2(inspect(show).switchTimer().remainingTime() >= 900, qPrintable(QString::number(inspect(show).switchTimer().remainingTime())));
        show.stop();
        QVERIFY(!inspect(show).switchTimer().isActive());
    }

    void nameIsSlideShow()
    {
        SlideShow show;
        QCOMPARE(show.name(), QStringLiteral("Slide show"));
    }

    void settingGroupNameIsSlideShow()
    {
        SlideShow show;
        // A reference to something that outlives the call and the
        // screensaver's changes (a dangling one would show in the sanitizer
        // build).
        const QString &name = show.settingGroupName();
        show.setProperty(fastSettings(200));
        QCOMPARE(name, QStringLiteral("SlideShow"));
    }

    void defaultPropertyHoldsSixTypedEntries()
    {
        SlideShow show;
        const QVariantMap &defaults = show.defaultProperty();
        QCOMPARE(defaults, expectedDefaults());
        QCOMPARE(defaults.size(), 6);
        QCOMPARE(defaults.value(imageDirectoryKey).userType(), int(QMetaType::QString));
        QCOMPARE(defaults.value(effectKey).userType(), int(QMetaType::Int));
        QCOMPARE(defaults.value(autoSwitchKey).userType(), int(QMetaType::Int));
        QCOMPARE(defaults.value(positionKey).userType(), int(QMetaType::Int));
        QCOMPARE(defaults.value(subfoldersKey).userType(), int(QMetaType::Bool));
        QCOMPARE(defaults.value(orderKey).userType(), int(QMetaType::Int));
        // Changing the settings leaves the defaults alone.
        show.setProperty(fastSettings(200));
        QCOMPARE(show.defaultProperty(), expectedDefaults());
    }

    void propertyReferenceStaysValid()
    {
        SlideShow show;
        const QVariantMap *before = &show.property();
        show.setProperty(fastSettings(200));
        QCOMPARE(&show.property(), before);
        QCOMPARE(before->value(effectKey), QVariant(200));
    }

    void setPropertyRestoresMissingKeysToTheirDefaults()
    {
        SlideShow show;
        show.setProperty(QVariantMap{{imageDirectoryKey, m_images.path()}, {autoSwitchKey, 9}, {effectKey, 700}, {positionKey, 3}});
        QVERIFY(listed(show));
        QCOMPARE(inspect(show).switchTimer().interval(), 9000);
        QCOMPARE(inspect(inspect(show).slideLabel()).fittingMode(), Center);
        QCOMPARE(inspect(inspect(show).slideLabel()).files(), m_files);

        show.setProperty(QVariantMap{{effectKey, 300}});
        QVERIFY(listed(show));
        QVariantMap expected = expectedDefaults();
        expected.insert(effectKey, 300);
        QCOMPARE(show.property(), expected);
        QCOMPARE(inspect(show).fadeAnimation()->duration(), 300);
        QCOMPARE(inspect(show).switchTimer().interval(), 5000);
        QCOMPARE(inspect(inspect(show).slideLabel()).fittingMode(), Crop);
        // Back to the default directory, which holds no image here.
        QVERIFY(inspect(inspect(show).slideLabel()).files().isEmpty());
    }

    void setPropertyDropsUnknownKeys()
    {
        SlideShow show;
        show.setProperty(fastSettings(200));
        show.setProperty(QVariantMap{{QStringLiteral("Unknown"), 42}});
        QCOMPARE(show.property(), expectedDefaults());
        QVERIFY(!show.property().contains(QStringLiteral("Unknown")));

        // Unknown keys beside known ones are dropped too.
        show.setProperty(QVariantMap{{effectKey, 250}, {QStringLiteral("ShowLock"), QStringLiteral("datetime")}, {QStringLiteral("effect"), 1}});
        QCOMPARE(show.property().size(), 6);
        QCOMPARE(show.property().keys(), expectedDefaults().keys());
        QCOMPARE(show.property().value(effectKey), QVariant(250));
        QCOMPARE(inspect(show).fadeAnimation()->duration(), 250);
    }

    void setPropertyKeepsTheGivenTypes_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<int>("interval");
        QTest::addColumn<int>("duration");

        QTest::newRow("AutoSwitch as a string") << autoSwitchKey << QVariant(QStringLiteral("7")) << 7000 << 500;
        QTest::newRow("Effect as a string") << effectKey << QVariant(QStringLiteral("300")) << 5000 << 300;
        QTest::newRow("AutoSwitch as a double") << autoSwitchKey << QVariant(2.0) << 2000 << 500;
        QTest::newRow("Effect as a long long") << effectKey << QVariant(qlonglong(250)) << 5000 << 250;
    }

    void setPropertyKeepsTheGivenTypes()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, value);
        QFETCH(int, interval);
        QFETCH(int, duration);

        SlideShow show;
        show.setProperty(QVariantMap{{key, value}});
        QCOMPARE(show.property().size(), 6);
        QCOMPARE(show.property().value(key), value);
        QCOMPARE(show.property().value(key).userType(), value.userType());
        QCOMPARE(inspect(show).switchTimer().interval(), interval);
        QCOMPARE(inspect(show).fadeAnimation()->duration(), duration);
    }

    void effectIsConvertedWithToInt_data()
    {
        QTest::addColumn<QVariant>("value");

        QTest::newRow("zero") << QVariant(0);
        QTest::newRow("negative") << QVariant(-40);
        QTest::newRow("non-numeric string") << QVariant(QStringLiteral("slow"));
        QTest::newRow("numeric string") << QVariant(QStringLiteral("120"));
        QTest::newRow("fractional double") << QVariant(250.7);
        QTest::newRow("empty string") << QVariant(QString());
        QTest::newRow("invalid variant") << QVariant();
    }

    void effectIsConvertedWithToInt()
    {
        QFETCH(QVariant, value);

        SlideShow show;
        show.setProperty(QVariantMap{{effectKey, 300}});

        // What Qt itself makes of the converted value: it refuses a negative
        // duration and keeps the one it had.
        QVariantAnimation reference;
        reference.setDuration(300);
        reference.setDuration(value.toInt());

        show.setProperty(QVariantMap{{effectKey, value}});
        QCOMPARE(show.property().value(effectKey), value);
        QCOMPARE(inspect(show).fadeAnimation()->duration(), reference.duration());
        if (value.toInt() >= 0) {
            QCOMPARE(inspect(show).fadeAnimation()->duration(), value.toInt());
        } else {
            QCOMPARE(inspect(show).fadeAnimation()->duration(), 300);
        }
    }

    void autoSwitchIsConvertedWithoutOverflow_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<int>("interval");

        const int intMax = std::numeric_limits<int>::max();
        QTest::newRow("zero") << QVariant(0) << 0;
        QTest::newRow("non-numeric string") << QVariant(QStringLiteral("often")) << 0;
        QTest::newRow("largest that fits") << QVariant(2147483) << 2147483000;
        QTest::newRow("smallest that overflows") << QVariant(2147484) << intMax;
        QTest::newRow("int maximum") << QVariant(intMax) << intMax;
        QTest::newRow("int maximum as a string") << QVariant(QString::number(intMax)) << intMax;
    }

    void autoSwitchIsConvertedWithoutOverflow()
    {
        QFETCH(QVariant, value);
        QFETCH(int, interval);

        SlideShow show;
        show.setProperty(QVariantMap{{autoSwitchKey, value}});
        QCOMPARE(show.property().value(autoSwitchKey), value);
        QCOMPARE(inspect(show).switchTimer().interval(), interval);
        // The timer takes the clamped interval like any other.
        show.start();
        QVERIFY(inspect(show).switchTimer().isActive());
        show.stop();
        QVERIFY(!inspect(show).switchTimer().isActive());
    }

    void negativeAutoSwitchIsPassedToTheTimer_data()
    {
        QTest::addColumn<int>("seconds");
        QTest::addColumn<qint64>("milliseconds");

        QTest::newRow("minus three") << -3 << qint64(-3000);
        QTest::newRow("int minimum") << std::numeric_limits<int>::min() << qint64(std::numeric_limits<int>::min());
        QTest::newRow("smallest that underflows") << -2147484 << qint64(std::numeric_limits<int>::min());
    }

    void negativeAutoSwitchIsPassedToTheTimer()
    {
        QFETCH(int, seconds);
        QFETCH(qint64, milliseconds);

        // Whatever a QTimer makes of that many milliseconds.
        QTimer reference;
        reference.setInterval(int(milliseconds));

        SlideShow show;
        show.setProperty(QVariantMap{{autoSwitchKey, seconds}});
        QCOMPARE(show.property().value(autoSwitchKey), QVariant(seconds));
        QCOMPARE(inspect(show).switchTimer().interval(), reference.interval());
    }

    void positionIsConvertedWithToInt_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<int>("position");

        QTest::newRow("stretch") << QVariant(0) << 0;
        QTest::newRow("tile as a string") << QVariant(QStringLiteral("2")) << 2;
        QTest::newRow("center") << QVariant(3) << 3;
        QTest::newRow("non-numeric string") << QVariant(QStringLiteral("middle")) << 0;
        QTest::newRow("out of range") << QVariant(7) << 7;
    }

    void positionIsConvertedWithToInt()
    {
        QFETCH(QVariant, value);
        QFETCH(int, position);

        SlideShow show;
        show.setProperty(QVariantMap{{positionKey, value}});
        QCOMPARE(show.property().value(positionKey), value);
        QCOMPARE(int(inspect(inspect(show).slideLabel()).fittingMode()), position);
    }

    void imageDirectoryGoesToTheLabel()
    {
        SlideShow show;
        show.setProperty(QVariantMap{{imageDirectoryKey, m_images.path()}});
        QVERIFY(listed(show));
        QCOMPARE(inspect(inspect(show).slideLabel()).files(), m_files);
        QCOMPARE(inspect(inspect(show).slideLabel()).currentImage(), m_files.first());

        // An empty directory setting is the label's to report. It names
        // the working directory, made an empty one here: the test's own
        // folder may hold images that other tests write.
        QTemporaryDir empty;
        QVERIFY(empty.isValid());
        const QString workingDirectory = QDir::currentPath();
        QVERIFY(QDir::setCurrent(empty.path()));
        m_recorder->clear();
        show.setProperty(QVariantMap{{imageDirectoryKey, QString()}});
        const bool emptyListed = listed(show);
        QVERIFY(QDir::setCurrent(workingDirectory));
        QVERIFY(emptyListed);
        QCOMPARE(show.property().value(imageDirectoryKey), QVariant(QString()));
        QVERIFY(inspect(inspect(show).slideLabel()).files().isEmpty());
        // One QString streamed whole: quoted as a whole.
        QCOMPARE(m_recorder->texts(QtCriticalMsg),
                 QStringList{QStringLiteral("\"SlideLabel: The specified directory () does not exist or does not contain image files.\"")});
    }

    void folderSubfoldersAndOrderApplyTogether_data()
    {
        QTest::addColumn<QVariant>("subfolders");
        QTest::addColumn<QVariant>("order");
        QTest::addColumn<bool>("expectedSubfolders");
        QTest::addColumn<int>("expectedOrder");
        QTest::newRow("the defaults") << QVariant() << QVariant() << false << int(ByName);
        QTest::newRow("subfolders, shuffled") << QVariant(true) << QVariant(1) << true << int(Shuffle);
        // Converted as a settings file gives them, text; an unknown order is
        // by name.
        QTest::newRow("as text") << QVariant(QStringLiteral("true")) << QVariant(QStringLiteral("1")) << true << int(Shuffle);
        QTest::newRow("an unknown order") << QVariant(false) << QVariant(7) << false << int(ByName);
    }

    // The folder, its subfolders and the order take effect together, with
    // one listing for each setProperty.
    void folderSubfoldersAndOrderApplyTogether()
    {
        QFETCH(QVariant, subfolders);
        QFETCH(QVariant, order);
        QFETCH(bool, expectedSubfolders);
        QFETCH(int, expectedOrder);
        SlideShow show;
        QVERIFY(listed(show));
        TestUtils::setSlideShowDebugEnabled(true);
        m_recorder->clear();
        QVariantMap settings{{imageDirectoryKey, m_images.path()}};
        if (subfolders.isValid()) {
            settings.insert(subfoldersKey, subfolders);
        }
        if (order.isValid()) {
            settings.insert(orderKey, order);
        }
        show.setProperty(settings);
        QVERIFY(listed(show));
        SlideLabel *label = inspect(show).slideLabel();
        QCOMPARE(inspect(label).includesSubfolders(), expectedSubfolders);
        QCOMPARE(int(inspect(label).showOrder()), expectedOrder);
        QCOMPARE(m_recorder->count(QStringLiteral("SlideLabel: Directory listed, images: 3")), 1);
        QCOMPARE(show.property().value(subfoldersKey), subfolders.isValid() ? subfolders : QVariant(false));
    }

    void updatePropertyDebugLineShowsTheMap()
    {
        TestUtils::setSlideShowDebugEnabled(true);
        SlideShow show;
        m_recorder->clear();

        const QVariantMap settings = fastSettings(200);
        show.setProperty(settings);
        QVariantMap merged = settings;
        merged.insert(positionKey, 1);
        // The two later keys at their defaults, in the line like the others.
        merged.insert(subfoldersKey, false);
        merged.insert(orderKey, 0);

        const QStringList lines = propertyDebugLines(*m_recorder);
        QCOMPARE(lines, QStringList{debugText(merged)});
        const QList<LogEntry> entries = m_recorder->slideShowEntries();
        const LogEntry expected{QStringLiteral("zav-tev.screensaver.slideshow"), QtDebugMsg, debugText(merged)};
        QVERIFY(entries.contains(expected));
    }

    void constructionLogsTheDefaultMap()
    {
        TestUtils::setSlideShowDebugEnabled(true);
        SlideShow show;
        // Six keys now: the subfolders and the order came later.
        const QString literal = QStringLiteral(
            "SlideShow set property: QMap((\"AutoSwitch\", QVariant(int, 5))(\"Effect\", QVariant(int, 500))"
            "(\"ImageDirectory\", QVariant(QString, \"/usr/share/wallpapers/slideshow/\"))(\"IncludeSubfolders\", QVariant(bool, false))"
            "(\"Order\", QVariant(int, 0))(\"Position\", QVariant(int, 1)))");
        QCOMPARE(propertyDebugLines(*m_recorder), QStringList{literal});
        QCOMPARE(debugText(expectedDefaults()), literal);
    }

    void updatePropertyLogsBeforeApplying()
    {
        TestUtils::setSlideShowDebugEnabled(true);
        SlideShow show;
        m_recorder->clear();
        show.setProperty(QVariantMap{{imageDirectoryKey, m_images.path()}, {positionKey, 2}});

        // The log line first, then the settings in key order: the directory
        // before the fitting mode.
        const QStringList debug = m_recorder->texts(QtDebugMsg);
        const int logLine = debug.indexOf(QRegularExpression(QStringLiteral("SlideShow set property: QMap\\(.*\\)")));
        const int directory = debug.indexOf(QStringLiteral("SlideLabel: Setting directory to: \"%1\"").arg(m_images.path()));
        const int position = debug.indexOf(QStringLiteral("SlideLabel: Setting position to: 2"));
        QVERIFY2(logLine >= 0 && directory >= 0 && position >= 0, qPrintable(debug.join(QLatin1Char('\n'))));
        QVERIFY(logLine < directory);
        QVERIFY(directory < position);
    }

    void noDebugLineWithDefaultRules()
    {
        SlideShow show;
        show.setProperty(fastSettings(200));
        QVERIFY(propertyDebugLines(*m_recorder).isEmpty());
        QVERIFY(m_recorder->texts(QtDebugMsg).isEmpty());
    }

    void defaultDirectoryIsReportedMissing()
    {
        if (!QDir(defaultDirectory).entryList(QDir::Files).isEmpty()) {
            QSKIP("this machine has images in the default directory");
        }
        SlideShow show;
        QVERIFY(listed(show));
        const QString expected =
            QStringLiteral("\"SlideLabel: The specified directory (%1) does not exist or does not contain image files.\"").arg(defaultDirectory);
        QCOMPARE(m_recorder->texts(QtCriticalMsg), QStringList{expected});
    }

    void layoutFillsTheWidgetWithTheLabel()
    {
        SlideShow show;
        auto *layout = qobject_cast<QHBoxLayout *>(show.layout());
        QVERIFY(layout);
        QCOMPARE(layout->contentsMargins(), QMargins(0, 0, 0, 0));
        QCOMPARE(layout->spacing(), 0);
        QCOMPARE(layout->count(), 1);
        QCOMPARE(layout->itemAt(0)->widget(), inspect(show).slideLabel());
        QCOMPARE(layout->stretch(0), 0);
        QCOMPARE(layout->itemAt(0)->alignment(), Qt::Alignment());

        SlideLabel *label = inspect(show).slideLabel();
        QCOMPARE(label->parent(), &show);
        QCOMPARE(label->metaObject()->className(), "Dm::ScreenSaver::SlideLabel");

        show.resize(200, 150);
        show.show();
        QVERIFY(QTest::qWaitForWindowExposed(&show));
        QTRY_COMPARE(label->geometry(), show.rect());
        show.resize(123, 77);
        QTRY_COMPARE(label->geometry(), QRect(0, 0, 123, 77));
    }

    void dropShadowsAreIdleChildren()
    {
        SlideShow show;
        const QList<QGraphicsDropShadowEffect *> shadows = show.findChildren<QGraphicsDropShadowEffect *>(QString(), Qt::FindDirectChildrenOnly);
        QCOMPARE(shadows.size(), 2);
        QVERIFY(shadows.at(0) != shadows.at(1));
        for (QGraphicsDropShadowEffect *shadow : shadows) {
            QCOMPARE(shadow->parent(), &show);
            QCOMPARE(shadow->blurRadius(), 8.0);
            QCOMPARE(shadow->offset(), QPointF(0.0, 8.0));
            QCOMPARE(shadow->color(), QColor(0, 0, 0, 25));
            // An RGB colour: converting it to RGB changes nothing.
            QCOMPARE(shadow->color().convertTo(QColor::Rgb), shadow->color());
            QVERIFY(shadow->color().isValid());
            QCOMPARE(shadow->color().alpha(), 25);
        }
        // Installed on no widget.
        QCOMPARE(show.graphicsEffect(), nullptr);
        const QList<QWidget *> widgets = show.findChildren<QWidget *>();
        for (QWidget *widget : widgets) {
            QCOMPARE(widget->graphicsEffect(), nullptr);
        }
        QCOMPARE(show.findChildren<QGraphicsEffect *>().size(), 2);
    }

    void childrenComeInConstructionOrder()
    {
        SlideShow show;
        const QObjectList children = show.children();
        QCOMPARE(children.size(), 5);
        QVERIFY(qobject_cast<QHBoxLayout *>(children.at(0)));
        QCOMPARE(children.at(1), static_cast<QObject *>(inspect(show).slideLabel()));
        QVERIFY(qobject_cast<QGraphicsDropShadowEffect *>(children.at(2)));
        QVERIFY(qobject_cast<QGraphicsDropShadowEffect *>(children.at(3)));
        QCOMPARE(children.at(4), static_cast<QObject *>(inspect(show).fadeAnimation()));
    }

    void destructionDeletesTheLabelAndStopsItsThread()
    {
        TestUtils::setSlideShowDebugEnabled(true);
        auto *show = new SlideShow;
        show->setProperty(fastSettings(200));
        QPointer<SlideLabel> label = inspect(show).slideLabel();
        QPointer<QVariantAnimation> animation = inspect(show).fadeAnimation();
        QPointer<ImageCacheWorker> worker = inspect(label).worker();
        QPointer<QThread> thread = worker->thread();
        QVERIFY(thread);
        QVERIFY(thread != QThread::currentThread());
        QVERIFY(thread->isRunning());
        m_recorder->clear();

        delete show;
        QVERIFY(label.isNull());
        QVERIFY(animation.isNull());
        // The label's destructor did not wait for its thread, which ends on
        // its own, deletes the worker as it finishes, and is deleted then.
        QTRY_VERIFY(worker.isNull());
        QTRY_VERIFY(thread.isNull());
        QCOMPARE(m_recorder->texts(QtWarningMsg), QStringList());
    }

    void destructionWhileFadingIsSafe()
    {
        auto *show = new SlideShow;
        show->setProperty(immediateSettings(5000));
        QVERIFY(ready(*show));
        QPointer<SlideLabel> label = inspect(show).slideLabel();
        show->start();
        QSignalSpy timeout(&inspect(show).switchTimer(), &QTimer::timeout);
        QVERIFY(timeout.wait(5000));
        QCOMPARE(inspect(show).fadeAnimation()->state(), QAbstractAnimation::Running);
        // Neither the timer nor the fade is stopped before destruction.
        delete show;
        QVERIFY(label.isNull());
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
    }

    void fadeCycleAdvancesFadesAndRearms()
    {
        SlideShow show;
        show.setProperty(fastSettings(200));
        QVERIFY(ready(show));
        SlideLabel *label = inspect(show).slideLabel();
        QVariantAnimation *animation = inspect(show).fadeAnimation();
        QCOMPARE(inspect(label).currentImage(), m_files.at(0));
        QCOMPARE(inspect(label).previousImage(), m_files.at(2));
        QCOMPARE(animation->duration(), 200);

        QList<FadeSample> samples;
        QObject context;
        connect(animation, &QVariantAnimation::valueChanged, &context, [&](const QVariant &value) {
            samples.append(FadeSample{value.toDouble(), animation->currentTime(), inspect(label).currentOpacity()});
        });
        // Connected after the screensaver's own handler, so this sees the
        // state right after the switch.
        double opacityAtSwitch = -1.0;
        QAbstractAnimation::State stateAtSwitch = QAbstractAnimation::Stopped;
        bool timerActiveAtSwitch = true;
        connect(&inspect(show).switchTimer(), &QTimer::timeout, &context, [&]() {
            opacityAtSwitch = inspect(label).currentOpacity();
            stateAtSwitch = animation->state();
            timerActiveAtSwitch = inspect(show).switchTimer().isActive();
        });
        QSignalSpy timeout(&inspect(show).switchTimer(), &QTimer::timeout);
        QSignalSpy finished(animation, &QAbstractAnimation::finished);

        QElapsedTimer elapsed;
        elapsed.start();
        show.start();
        QVERIFY(timeout.wait(5000));
        QVERIFY2(elapsed.elapsed() >= 900, qPrintable(QString::number(elapsed.elapsed())));

        // Fading: the label advanced and starts invisible, the timer waits
        // for the end of the fade.
        QCOMPARE(inspect(label).currentImage(), m_files.at(1));
        QCOMPARE(inspect(label).previousImage(), m_files.at(0));
        QCOMPARE(opacityAtSwitch, 0.0);
        QCOMPARE(stateAtSwitch, QAbstractAnimation::Running);
        QVERIFY(!timerActiveAtSwitch);

        QVERIFY(finished.wait(5000));
        QCOMPARE(finished.count(), 1);
        QCOMPARE(timeout.count(), 1);
        // The end of the fade re-armed the timer for a whole interval.
        QVERIFY(inspect(show).switchTimer().isActive());
        QVERIFY2(inspect(show).switchTimer().remainingTime() >= 900, qPrintable(QString::number(inspect(show).switchTimer().remainingTime())));
        QCOMPARE(animation->state(), QAbstractAnimation::Stopped);
        QCOMPARE(inspect(label).currentOpacity(), 1.0);

        // The animation reports changes only: the start value 0.0, which it
        // already held before this first fade, is not reported again.
        QVERIFY(samples.size() >= 2);
        QVERIFY(samples.first().value >= 0.0);
        QVERIFY(samples.first().value < 1.0);
        QCOMPARE(samples.last().value, 1.0);
        QCOMPARE(samples.last().time, 200);
        const QEasingCurve outQuad(QEasingCurve::OutQuad);
        for (int i = 0; i < samples.size(); ++i) {
            const FadeSample &sample = samples.at(i);
            const QByteArray where = QByteArray::number(i) + " at " + QByteArray::number(sample.time) + " ms: " + QByteArray::number(sample.value);
            if (i > 0) {
                QVERIFY2(sample.value >= samples.at(i - 1).value, where.constData());
            }
            QVERIFY2(qAbs(sample.value - outQuad.valueForProgress(sample.time / 200.0)) < 1e-9, where.constData());
            QVERIFY2(qFuzzyCompare(1.0 + sample.labelOpacity, 1.0 + sample.value), where.constData());
        }
        show.stop();
        QVERIFY(!inspect(show).switchTimer().isActive());
        QCOMPARE(animation->state(), QAbstractAnimation::Stopped);
    }

    void zeroEffectEndsTheFadeAtOnce()
    {
        SlideShow show;
        show.setProperty(immediateSettings(0));
        QVERIFY(ready(show));
        QSignalSpy timeout(&inspect(show).switchTimer(), &QTimer::timeout);
        QSignalSpy finished(inspect(show).fadeAnimation(), &QAbstractAnimation::finished);
        show.start();
        QVERIFY(timeout.wait(5000));
        // The fade finished within the switch and armed the next wait.
        QCOMPARE(finished.count(), 1);
        QCOMPARE(inspect(inspect(show).slideLabel()).currentImage(), m_files.at(1));
        QCOMPARE(inspect(show).fadeAnimation()->state(), QAbstractAnimation::Stopped);
        QCOMPARE(inspect(show).fadeAnimation()->currentValue(), QVariant(1.0));
        // The new slide is shown at full weight at once, not left at the 0.0
        // that setNext gave it.
        QCOMPARE(inspect(inspect(show).slideLabel()).currentOpacity(), 1.0);
        QVERIFY(inspect(show).switchTimer().isActive());
        show.stop();
    }

    void zeroIntervalSwitchesWhenEachFadeEnds()
    {
        SlideShow show;
        show.setProperty(QVariantMap{{imageDirectoryKey, m_images.path()}, {autoSwitchKey, 0}, {effectKey, 20}});
        QVERIFY(ready(show));
        QCOMPARE(inspect(show).switchTimer().interval(), 0);
        QSignalSpy finished(inspect(show).fadeAnimation(), &QAbstractAnimation::finished);
        QSignalSpy timeout(&inspect(show).switchTimer(), &QTimer::timeout);
        show.start();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() >= 3, 10000);
        show.stop();
        // Three fades and three switches: round the circle back to the first.
        QVERIFY(timeout.count() >= 3);
        QCOMPARE(inspect(inspect(show).slideLabel()).currentFileIndex(), timeout.count() % 3);
        QVERIFY(!inspect(show).switchTimer().isActive());
    }

    void stopDuringFadeKeepsThePartialOpacity()
    {
        SlideShow show;
        show.setProperty(fastSettings(1000));
        QVERIFY(ready(show));
        SlideLabel *label = inspect(show).slideLabel();
        QVariantAnimation *animation = inspect(show).fadeAnimation();

        // Stop from inside the fade, at its first value strictly between
        // the ends, so the partial state does not depend on timing.
        double stoppedAt = -1.0;
        QObject context;
        connect(animation, &QVariantAnimation::valueChanged, &context, [&](const QVariant &value) {
            const double v = value.toDouble();
            if (stoppedAt < 0.0 && v > 0.0 && v < 1.0) {
                stoppedAt = v;
                show.stop();
            }
        });
        QSignalSpy finished(animation, &QAbstractAnimation::finished);
        QSignalSpy timeout(&inspect(show).switchTimer(), &QTimer::timeout);
        show.start();
        QVERIFY(timeout.wait(5000));
        QTRY_VERIFY_WITH_TIMEOUT(stoppedAt > 0.0, 5000);

        QCOMPARE(animation->state(), QAbstractAnimation::Stopped);
        QVERIFY(!inspect(show).switchTimer().isActive());
        QVERIFY(finished.isEmpty());
        QCOMPARE(inspect(label).currentImage(), m_files.at(1));
        QVERIFY(inspect(label).currentOpacity() > 0.0);
        QVERIFY(inspect(label).currentOpacity() < 1.0);
        QCOMPARE(inspect(label).currentOpacity(), stoppedAt);

        // Idle: nothing moves on its own.
        QTest::qWait(200);
        QCOMPARE(inspect(label).currentOpacity(), stoppedAt);
        QCOMPARE(timeout.count(), 1);
        QVERIFY(finished.isEmpty());

        // A later start waits a whole interval before the next switch.
        disconnect(animation, nullptr, &context, nullptr);
        QElapsedTimer elapsed;
        elapsed.start();
        show.start();
        QVERIFY(inspect(show).switchTimer().isActive());
        QVERIFY2(inspect(show).switchTimer().remainingTime() >= 900, qPrintable(QString::number(inspect(show).switchTimer().remainingTime())));
        QCOMPARE(animation->state(), QAbstractAnimation::Stopped);
        QCOMPARE(inspect(label).currentOpacity(), stoppedAt);
        QVERIFY(timeout.wait(5000));
        QVERIFY2(elapsed.elapsed() >= 900, qPrintable(QString::number(elapsed.elapsed())));
        QCOMPARE(timeout.count(), 2);
        QCOMPARE(inspect(label).currentImage(), m_files.at(2));
        QCOMPARE(animation->state(), QAbstractAnimation::Running);
        show.stop();
    }

    void startTwiceRestartsTheWait()
    {
        SlideShow show;
        show.setProperty(fastSettings(200));
        const QTimer &timer = inspect(show).switchTimer();
        QSignalSpy timeout(&timer, &QTimer::timeout);

        show.start();
        QTRY_VERIFY_WITH_TIMEOUT(timer.isActive() && timer.remainingTime() <= 500, 5000);
        QVERIFY(timeout.isEmpty());

        QElapsedTimer sinceSecond;
        sinceSecond.start();
        show.start();
        QVERIFY(timer.isActive());
        QVERIFY2(timer.remainingTime() >= 900, qPrintable(QString::number(timer.remainingTime())));
        QVERIFY(timeout.wait(5000));
        QCOMPARE(timeout.count(), 1);
        // A coarse timer may fire up to 5 % early.
        QVERIFY2(sinceSecond.elapsed() >= 900, qPrintable(QString::number(sinceSecond.elapsed())));
        show.stop();
    }

    void startDuringFadeArmsTheTimerAgain()
    {
        SlideShow show;
        show.setProperty(immediateSettings(3000));
        QVERIFY(ready(show));
        QSignalSpy timeout(&inspect(show).switchTimer(), &QTimer::timeout);
        show.start();
        QVERIFY(timeout.wait(5000));
        QCOMPARE(inspect(show).fadeAnimation()->state(), QAbstractAnimation::Running);
        QVERIFY(!inspect(show).switchTimer().isActive());

        // Waiting and fading at once; the fade goes on.
        show.start();
        QVERIFY(inspect(show).switchTimer().isActive());
        QCOMPARE(inspect(show).fadeAnimation()->state(), QAbstractAnimation::Running);
        show.stop();
        QVERIFY(!inspect(show).switchTimer().isActive());
        QCOMPARE(inspect(show).fadeAnimation()->state(), QAbstractAnimation::Stopped);
    }

    void setPropertyRestartsNothing()
    {
        SlideShow show;
        show.setProperty(immediateSettings(3000));
        QVERIFY(ready(show));
        QSignalSpy timeout(&inspect(show).switchTimer(), &QTimer::timeout);
        show.start();
        QVERIFY(timeout.wait(5000));
        QCOMPARE(inspect(show).fadeAnimation()->state(), QAbstractAnimation::Running);

        // A running fade goes on with its new duration.
        QVariantMap settings = fastSettings(4000);
        settings.insert(autoSwitchKey, 3);
        show.setProperty(settings);
        QCOMPARE(inspect(show).fadeAnimation()->state(), QAbstractAnimation::Running);
        QCOMPARE(inspect(show).fadeAnimation()->duration(), 4000);
        QVERIFY(!inspect(show).switchTimer().isActive());
        show.stop();

        // A waiting timer keeps waiting, now with the new interval.
        show.start();
        settings.insert(autoSwitchKey, 2);
        show.setProperty(settings);
        QVERIFY(inspect(show).switchTimer().isActive());
        QCOMPARE(inspect(show).switchTimer().interval(), 2000);
        QVERIFY2(inspect(show).switchTimer().remainingTime() > 1000, qPrintable(QString::number(inspect(show).switchTimer().remainingTime())));
        show.stop();
    }
};

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    // Texts are compared in the source language, whatever the machine's.
    KLocalizedString::setLanguages({QStringLiteral("en_US")});
    SlideShowTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "slideshowtest.moc"
