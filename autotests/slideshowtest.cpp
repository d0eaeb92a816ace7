/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "slideshow/slideshow.h"
#include "plugin/slideshowconstants.h"
#include "slidelabeltesthelpers.h"
#include "slideshow/slideshow_p.h"

#include <KLocalizedString>

#include <QDir>
#include <QEasingCurve>
#include <QElapsedTimer>
#include <QGraphicsDropShadowEffect>
#include <QHBoxLayout>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <QVariantAnimation>

#include <limits>

using namespace Dm::ScreenSaver;
using SlideLabelTest::waitForListing;

// Just armed: the whole second lies ahead (a coarse timer may round it a bit).
#define VERIFY_ARMED(timer) QVERIFY2((timer).isActive() && (timer).remainingTime() >= 900, qPrintable(QString::number((timer).remainingTime())))

namespace
{
namespace Key = TestUtils::Key;
const QString defaultDirectory = QStringLiteral("/usr/share/wallpapers/slideshow/");

// Written out, not taken from the code; the later two keep the show the first four give.
QVariantMap expectedDefaults()
{
    return QVariantMap{{Key::directory, defaultDirectory},
                       {Key::effect, 500},
                       {Key::autoSwitch, 5},
                       {Key::position, 1},
                       {Key::includeSubfolders, false},
                       {Key::order, 0}};
}

// Set, shown, listed, the current and next slides ready: a switch then fades at once.
bool ready(SlideShow &show, const QVariantMap &settings)
{
    show.setProperty(settings);
    show.resize(240, 180);
    show.show();
    if (!QTest::qWaitForWindowExposed(&show) || !waitForListing(*inspect(show).slideLabel())) {
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

// A sample of the fade, right after the show handed the value to the label.
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
    // Catches the critical line each construction writes for the missing default directory.
    std::unique_ptr<TestUtils::LogRecorder> m_recorder;

    // The three images; an interval of 0 switches at once where the wait is not under test.
    QVariantMap settings(int autoSwitch, int effect) const
    {
        return QVariantMap{{Key::directory, m_images.path()}, {Key::autoSwitch, autoSwitch}, {Key::effect, effect}};
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Texts are compared in the source language, whatever the machine's.
        KLocalizedString::setLanguages({QStringLiteral("en_US")});
        QVERIFY(m_images.isValid());
        // Small images: the fitting stays off Qt's internal thread pool.
        m_files.append(TestUtils::writeSolidImage(m_images.path(), QStringLiteral("a.png"), QSize(48, 36), Qt::red));
        m_files.append(TestUtils::writeSolidImage(m_images.path(), QStringLiteral("b.png"), QSize(48, 36), Qt::green));
        m_files.append(TestUtils::writeSolidImage(m_images.path(), QStringLiteral("c.png"), QSize(48, 36), Qt::blue));
    }

    void init()
    {
        TestUtils::setSlideShowDebugEnabled(false);
        m_recorder.reset(new TestUtils::LogRecorder);
    }

    void cleanup()
    {
        m_recorder.reset();
    }

    // First, while no show has a thread that could log.
    void namesAndKeys()
    {
        QCOMPARE(slideShowName, QStringLiteral("SlideShow"));
        QCOMPARE(QByteArray(ZAV_SLIDESHOW_TRANSLATION_DOMAIN), QByteArray("zav-screensaver_slideshow"));
        QCOMPARE(QByteArray(slideShowLog().categoryName()), QByteArray(LogText::category));
        // The two newer keys come after the four older ones.
        QCOMPARE(QStringList(slideShowKeys.cbegin(), slideShowKeys.cend()),
                 (QStringList{Key::directory, Key::effect, Key::autoSwitch, Key::position, Key::includeSubfolders, Key::order}));
    }

    void debugFollowsTheLoggingRules_data()
    {
        QTest::addColumn<bool>("debug");
        // Without rules of its own the category logs warnings and criticals only.
        QTest::newRow("off by default") << false;
        QTest::newRow("turned on") << true;
    }

    void debugFollowsTheLoggingRules()
    {
        QFETCH(bool, debug);
        TestUtils::setSlideShowDebugEnabled(debug);
        QCOMPARE(slideShowLog().isDebugEnabled(), debug);
        QVERIFY(slideShowLog().isInfoEnabled() && slideShowLog().isWarningEnabled() && slideShowLog().isCriticalEnabled());
        qCDebug(slideShowLog) << "SlideShowTest: debug";
        qCWarning(slideShowLog) << "SlideShowTest: warning";
        qCCritical(slideShowLog) << "SlideShowTest: critical";
        QList<TestUtils::LogEntry> expected = {TestUtils::warningEntry(QStringLiteral("SlideShowTest: warning")),
                                               TestUtils::entry(QtCriticalMsg, QStringLiteral("SlideShowTest: critical"))};
        if (debug) {
            expected.prepend(TestUtils::debugEntry(QStringLiteral("SlideShowTest: debug")));
        }
        QCOMPARE(m_recorder->entries(), expected);
    }

    void metaObjectLayoutAndChildren()
    {
        const QMetaObject &meta = SlideShow::staticMetaObject;
        QCOMPARE(meta.className(), "Dm::ScreenSaver::SlideShow");
        QCOMPARE(meta.superClass(), &AbstractScreenSaver::staticMetaObject);
        QCOMPARE(meta.methodCount(), meta.methodOffset());
        QCOMPARE(meta.propertyCount(), meta.propertyOffset());
        SlideShow show;
        QCOMPARE(show.qt_metacast("Dm::ScreenSaver::SlideShow"), static_cast<void *>(&show));
        QCOMPARE(show.qt_metacast("AbstractScreenSaver"), static_cast<void *>(static_cast<AbstractScreenSaver *>(&show)));

        // In construction order: the layout (of the label only), the label, two shadows, the fade.
        SlideLabel *label = inspect(show).slideLabel();
        const QObjectList children = show.children();
        QCOMPARE(children.size(), 5);
        auto *layout = qobject_cast<QHBoxLayout *>(children.at(0));
        QVERIFY(layout);
        QCOMPARE(show.layout(), layout);
        QCOMPARE(layout->contentsMargins(), QMargins(0, 0, 0, 0));
        QCOMPARE(layout->spacing(), 0);
        QCOMPARE(layout->count(), 1);
        QCOMPARE(layout->itemAt(0)->widget(), label);
        QCOMPARE(layout->stretch(0), 0);
        QCOMPARE(layout->itemAt(0)->alignment(), Qt::Alignment());
        QCOMPARE(children.at(1), static_cast<QObject *>(label));
        QCOMPARE(label->metaObject()->className(), "Dm::ScreenSaver::SlideLabel");
        QCOMPARE(children.at(4), static_cast<QObject *>(inspect(show).fadeAnimation()));
        for (QObject *child : {children.at(2), children.at(3)}) {
            auto *shadow = qobject_cast<QGraphicsDropShadowEffect *>(child);
            QVERIFY(shadow);
            QCOMPARE(shadow->blurRadius(), 8.0);
            QCOMPARE(shadow->offset(), QPointF(0.0, 8.0));
            // Equal to an RGB colour, so an RGB one too.
            QCOMPARE(shadow->color(), QColor(0, 0, 0, 25));
        }
        // The shadows are installed nowhere, and there is no other effect.
        const QList<QWidget *> widgets = show.findChildren<QWidget *>() << &show;
        for (QWidget *widget : widgets) {
            QCOMPARE(widget->graphicsEffect(), nullptr);
        }
        QCOMPARE(show.findChildren<QGraphicsEffect *>().size(), 2);

        show.resize(200, 150);
        show.show();
        QVERIFY(QTest::qWaitForWindowExposed(&show));
        QTRY_COMPARE(label->geometry(), show.rect());
        show.resize(123, 77);
        QTRY_COMPARE(label->geometry(), QRect(0, 0, 123, 77));
    }

    void defaultPropertyHoldsSixTypedEntries()
    {
        SlideShow show;
        const QVariantMap expected = expectedDefaults();
        QCOMPARE(show.defaultProperty(), expected);
        QCOMPARE(show.property(), expected);
        // A QVariant compares equal to a convertible one of another type.
        for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
            QVERIFY2(show.defaultProperty().value(it.key()).userType() == it.value().userType(), qPrintable(it.key()));
        }

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

        QCOMPARE(show.name(), QStringLiteral("Slide show"));
        // References outlive the call and the changes (the sanitizer build sees a dangling one).
        const QString &name = show.settingGroupName();
        const QVariantMap *property = &show.property();
        show.setProperty(settings(1, 200));
        QCOMPARE(name, QStringLiteral("SlideShow"));
        QCOMPARE(&show.property(), property);
        QCOMPARE(property->value(Key::effect), QVariant(200));
        QCOMPARE(show.defaultProperty(), expected);
    }

    void setPropertyRestoresMissingKeysAndDropsUnknownOnes()
    {
        SlideShow show;
        show.setProperty(TestUtils::settingsMap(m_images.path(), 9, 700, int(Center)));
        QVERIFY(waitForListing(*inspect(show).slideLabel()));
        QCOMPARE(inspect(show).switchTimer().interval(), 9000);
        QCOMPARE(inspect(inspect(show).slideLabel()).fittingMode(), Center);
        QCOMPARE(inspect(inspect(show).slideLabel()).files(), m_files);
        QCOMPARE(inspect(inspect(show).slideLabel()).currentImage(), m_files.first());

        show.setProperty(QVariantMap{{QStringLiteral("Unknown"), 42}});
        QCOMPARE(show.property(), expectedDefaults());
        // Unknown keys beside known ones are dropped too.
        show.setProperty(QVariantMap{{Key::effect, 300}, {QStringLiteral("ShowLock"), QStringLiteral("datetime")}, {QStringLiteral("effect"), 1}});
        QVERIFY(waitForListing(*inspect(show).slideLabel()));
        QVariantMap expected = expectedDefaults();
        expected.insert(Key::effect, 300);
        QCOMPARE(show.property(), expected);
        QCOMPARE(inspect(show).fadeAnimation()->duration(), 300);
        QCOMPARE(inspect(show).switchTimer().interval(), 5000);
        QCOMPARE(inspect(inspect(show).slideLabel()).fittingMode(), Crop);
        // Back to the default directory, which holds no image here.
        QVERIFY(inspect(inspect(show).slideLabel()).files().isEmpty());
    }

    void settingsAreConverted_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<int>("interval");
        QTest::addColumn<int>("duration");
        QTest::addColumn<int>("position");

        // Stored as given, whatever its type, applied through toInt(); the others stay at their defaults.
        const auto row = [](const QString &key, const char *name, const QVariant &value, int applied) {
            QTest::addRow("%s %s", qPrintable(key), name) << key << value << (key == Key::autoSwitch ? applied : 5000) << (key == Key::effect ? applied : 500)
                                                          << (key == Key::position ? applied : int(Crop));
        };
        const int intMax = std::numeric_limits<int>::max();
        const int intMin = std::numeric_limits<int>::min();
        row(Key::autoSwitch, "as a string", QStringLiteral("7"), 7000);
        row(Key::autoSwitch, "as a double", 2.0, 2000);
        row(Key::autoSwitch, "zero", 0, 0);
        row(Key::autoSwitch, "non-numeric string", QStringLiteral("often"), 0);
        // The milliseconds are bounded to an int rather than overflowing.
        row(Key::autoSwitch, "largest that fits", 2147483, 2147483000);
        row(Key::autoSwitch, "smallest that overflows", 2147484, intMax);
        row(Key::autoSwitch, "int maximum", intMax, intMax);
        row(Key::autoSwitch, "int maximum as a string", QString::number(intMax), intMax);
        row(Key::autoSwitch, "minus three", -3, -3000);
        row(Key::autoSwitch, "int minimum", intMin, intMin);
        row(Key::autoSwitch, "smallest that underflows", -2147484, intMin);
        row(Key::effect, "as a string", QStringLiteral("300"), 300);
        row(Key::effect, "as a long long", qlonglong(250), 250);
        row(Key::effect, "zero", 0, 0);
        // Qt refuses a negative duration and keeps the one it had.
        row(Key::effect, "negative", -40, 500);
        row(Key::effect, "non-numeric string", QStringLiteral("slow"), 0);
        // toInt() rounds a double.
        row(Key::effect, "fractional double", 250.7, 251);
        row(Key::effect, "empty string", QString(), 0);
        row(Key::effect, "invalid variant", QVariant(), 0);
        row(Key::position, "stretch", 0, int(Stretch));
        row(Key::position, "tile as a string", QStringLiteral("2"), int(Tile));
        row(Key::position, "non-numeric string", QStringLiteral("middle"), int(Stretch));
        row(Key::position, "out of range", 7, 7);
    }

    void settingsAreConverted()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, value);
        QFETCH(int, interval);
        QFETCH(int, duration);
        QFETCH(int, position);

        SlideShow show;
        show.setProperty(QVariantMap{{key, value}});
        QCOMPARE(show.property().size(), 6);
        QCOMPARE(show.property().value(key), value);
        QCOMPARE(show.property().value(key).userType(), value.userType());
        // Whatever a QTimer makes of that many milliseconds.
        QTimer reference;
        reference.setInterval(interval);
        QCOMPARE(inspect(show).switchTimer().interval(), reference.interval());
        QCOMPARE(inspect(show).fadeAnimation()->duration(), duration);
        QCOMPARE(int(inspect(inspect(show).slideLabel()).fittingMode()), position);
        if (interval >= 0) {
            // The timer takes a bounded interval like any other.
            show.start();
            QVERIFY(inspect(show).switchTimer().isActive());
            show.stop();
            QVERIFY(!inspect(show).switchTimer().isActive());
        }
    }

    // The label reports a folder without images: the (missing) default, and an empty setting (the working directory).
    void missingImagesAreReported()
    {
        SlideShow show;
        QVERIFY(waitForListing(*inspect(show).slideLabel()));
        const QStringList defaultErrors = m_recorder->texts(QtCriticalMsg);

        // An empty working directory: the test's own may hold other tests' images.
        QTemporaryDir empty;
        QVERIFY(empty.isValid());
        const QString workingDirectory = QDir::currentPath();
        QVERIFY(QDir::setCurrent(empty.path()));
        m_recorder->clear();
        show.setProperty(QVariantMap{{Key::directory, QString()}});
        const bool emptyListed = waitForListing(*inspect(show).slideLabel());
        QVERIFY(QDir::setCurrent(workingDirectory));
        QVERIFY(emptyListed);
        QCOMPARE(show.property().value(Key::directory), QVariant(QString()));
        QVERIFY(inspect(inspect(show).slideLabel()).files().isEmpty());
        QCOMPARE(m_recorder->texts(QtCriticalMsg), QStringList{TestUtils::noImagesError(QString())});

        if (!QDir(defaultDirectory).entryList(QDir::Files).isEmpty()) {
            QSKIP("this machine has images in the default directory");
        }
        QCOMPARE(defaultErrors, QStringList{TestUtils::noImagesError(defaultDirectory)});
    }

    void folderSubfoldersAndOrderApplyTogether_data()
    {
        QTest::addColumn<QVariant>("subfolders");
        QTest::addColumn<QVariant>("order");
        QTest::addColumn<bool>("expectedSubfolders");
        QTest::addColumn<int>("expectedOrder");
        QTest::newRow("the defaults") << QVariant() << QVariant() << false << int(ByName);
        QTest::newRow("subfolders, shuffled") << QVariant(true) << QVariant(1) << true << int(Shuffle);
        // As text, as a settings file gives them; an unknown order is by name.
        QTest::newRow("as text") << QVariant(QStringLiteral("true")) << QVariant(QStringLiteral("1")) << true << int(Shuffle);
        QTest::newRow("an unknown order") << QVariant(false) << QVariant(7) << false << int(ByName);
    }

    // The folder, subfolders and order take effect together: one listing per setProperty.
    void folderSubfoldersAndOrderApplyTogether()
    {
        QFETCH(QVariant, subfolders);
        QFETCH(QVariant, order);
        QFETCH(bool, expectedSubfolders);
        QFETCH(int, expectedOrder);
        SlideShow show;
        QVERIFY(waitForListing(*inspect(show).slideLabel()));
        TestUtils::setSlideShowDebugEnabled(true);
        m_recorder->clear();
        QVariantMap settings{{Key::directory, m_images.path()}};
        for (const auto &[key, value] : {std::pair(Key::includeSubfolders, subfolders), std::pair(Key::order, order)}) {
            if (value.isValid()) {
                settings.insert(key, value);
            }
        }
        show.setProperty(settings);
        QVERIFY(waitForListing(*inspect(show).slideLabel()));
        SlideLabel *label = inspect(show).slideLabel();
        QCOMPARE(inspect(label).includesSubfolders(), expectedSubfolders);
        QCOMPARE(int(inspect(label).showOrder()), expectedOrder);
        QCOMPARE(m_recorder->count(TestUtils::logText(LogText::listed, 3)), 1);
        QCOMPARE(show.property().value(Key::includeSubfolders), subfolders.isValid() ? subfolders : QVariant(false));
    }

    // Logged before being applied, as one map merged with the defaults; not with the default rules.
    void setPropertyLogsTheMergedMap()
    {
        {
            SlideShow quiet;
            quiet.setProperty(settings(1, 200));
            QCOMPARE(m_recorder->texts(QtDebugMsg), QStringList());
        }
        TestUtils::setSlideShowDebugEnabled(true);
        m_recorder->clear();
        SlideShow show;
        const QString propertyLine = QString::fromLatin1(LogText::showProperty);
        QCOMPARE(m_recorder->texts(QtDebugMsg).filter(propertyLine), QStringList{TestUtils::mapLogText(LogText::showProperty, expectedDefaults())});

        // A host that passes some keys: the others, the later two too, at their defaults.
        m_recorder->clear();
        const QVariantMap settings{{Key::directory, m_images.path()}, {Key::effect, 200}, {Key::position, 2}};
        show.setProperty(settings);
        QVariantMap merged = expectedDefaults();
        merged.insert(settings);
        const QString line = TestUtils::mapLogText(LogText::showProperty, merged);
        QCOMPARE(m_recorder->texts(QtDebugMsg).filter(propertyLine), QStringList{line});
        // The line first, then the settings in key order (directory before position).
        const QStringList debug = m_recorder->texts(QtDebugMsg);
        const int directory = debug.indexOf(TestUtils::logText(LogText::settingDirectory, m_images.path()));
        const int position = debug.indexOf(TestUtils::logText(LogText::settingPosition, 2));
        QVERIFY2(debug.indexOf(line) >= 0 && debug.indexOf(line) < directory && directory < position, qPrintable(debug.join(QLatin1Char('\n'))));
    }

    void fadeCycleAdvancesFadesAndRearms()
    {
        SlideShow show;
        QVERIFY(ready(show, settings(1, 200)));
        SlideLabel *label = inspect(show).slideLabel();
        QVariantAnimation *animation = inspect(show).fadeAnimation();
        const QTimer &timer = inspect(show).switchTimer();
        QCOMPARE(inspect(label).currentImage(), m_files.at(0));
        QCOMPARE(inspect(label).previousImage(), m_files.at(2));
        QCOMPARE(animation->duration(), 200);

        QList<FadeSample> samples;
        QObject context;
        connect(animation, &QVariantAnimation::valueChanged, &context, [&](const QVariant &value) {
            samples.append(FadeSample{value.toDouble(), animation->currentTime(), inspect(label).currentOpacity()});
        });
        // Connected after the show's own handler: sees the state right after the switch.
        double opacityAtSwitch = -1.0;
        QAbstractAnimation::State stateAtSwitch = QAbstractAnimation::Stopped;
        bool timerActiveAtSwitch = true;
        connect(&timer, &QTimer::timeout, &context, [&]() {
            opacityAtSwitch = inspect(label).currentOpacity();
            stateAtSwitch = animation->state();
            timerActiveAtSwitch = timer.isActive();
        });
        QSignalSpy timeout(&timer, &QTimer::timeout);
        QSignalSpy finished(animation, &QAbstractAnimation::finished);

        show.start();
        VERIFY_ARMED(timer);
        QCOMPARE(animation->state(), QAbstractAnimation::Stopped);
        // A second start restarts the wait: a whole interval from then.
        QTRY_VERIFY_WITH_TIMEOUT(timer.isActive() && timer.remainingTime() <= 500, 5000);
        QVERIFY(timeout.isEmpty());
        QElapsedTimer elapsed;
        elapsed.start();
        show.start();
        VERIFY_ARMED(timer);
        QVERIFY(timeout.wait(5000));
        QVERIFY2(elapsed.elapsed() >= 900, qPrintable(QString::number(elapsed.elapsed())));

        // Fading: the label advanced and starts invisible; the timer waits for the fade.
        QCOMPARE(inspect(label).currentImage(), m_files.at(1));
        QCOMPARE(inspect(label).previousImage(), m_files.at(0));
        QCOMPARE(opacityAtSwitch, 0.0);
        QCOMPARE(stateAtSwitch, QAbstractAnimation::Running);
        QVERIFY(!timerActiveAtSwitch);

        QVERIFY(finished.wait(5000));
        QCOMPARE(finished.count(), 1);
        QCOMPARE(timeout.count(), 1);
        // The end of the fade re-armed the timer for a whole interval.
        VERIFY_ARMED(timer);
        QCOMPARE(animation->state(), QAbstractAnimation::Stopped);
        QCOMPARE(inspect(label).currentOpacity(), 1.0);

        // Changes only: the start value 0.0, held before this first fade, is not reported.
        QVERIFY(samples.size() >= 2);
        QVERIFY(samples.first().value >= 0.0 && samples.first().value < 1.0);
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
        QVERIFY(!timer.isActive());
        QCOMPARE(animation->state(), QAbstractAnimation::Stopped);
    }

    // A 0 ms fade ends within its switch; an interval of 0 switches again as each fade ends.
    void zeroEffectAndIntervalSwitchOnAndOn()
    {
        SlideShow show;
        QVERIFY(ready(show, settings(0, 0)));
        QSignalSpy timeout(&inspect(show).switchTimer(), &QTimer::timeout);
        QSignalSpy finished(inspect(show).fadeAnimation(), &QAbstractAnimation::finished);
        show.start();
        QVERIFY(timeout.wait(5000));
        // The fade finished within the switch and armed the next wait.
        QCOMPARE(finished.count(), 1);
        QCOMPARE(inspect(inspect(show).slideLabel()).currentImage(), m_files.at(1));
        QCOMPARE(inspect(show).fadeAnimation()->state(), QAbstractAnimation::Stopped);
        QCOMPARE(inspect(show).fadeAnimation()->currentValue(), QVariant(1.0));
        // The new slide at full weight at once, not at the 0.0 that setNext gave it.
        QCOMPARE(inspect(inspect(show).slideLabel()).currentOpacity(), 1.0);
        QVERIFY(inspect(show).switchTimer().isActive());
        // Three fades and three switches: round the circle back to the first.
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() >= 3, 10000);
        show.stop();
        QVERIFY(timeout.count() >= 3);
        QCOMPARE(inspect(inspect(show).slideLabel()).currentFileIndex(), timeout.count() % 3);
        QVERIFY(!inspect(show).switchTimer().isActive());
    }

    void stopDuringFadeKeepsThePartialOpacity()
    {
        SlideShow show;
        QVERIFY(ready(show, settings(1, 1000)));
        SlideLabel *label = inspect(show).slideLabel();
        QVariantAnimation *animation = inspect(show).fadeAnimation();

        // Stopped at the fade's first value strictly inside, whatever the timing.
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
        QCOMPARE(inspect(label).currentOpacity(), stoppedAt);

        // Idle: nothing moves on its own.
        QVERIFY(!timeout.wait(200));
        QCOMPARE(inspect(label).currentOpacity(), stoppedAt);
        QVERIFY(finished.isEmpty());

        // A later start waits a whole interval before the next switch.
        disconnect(animation, nullptr, &context, nullptr);
        QElapsedTimer elapsed;
        elapsed.start();
        show.start();
        VERIFY_ARMED(inspect(show).switchTimer());
        QCOMPARE(animation->state(), QAbstractAnimation::Stopped);
        QCOMPARE(inspect(label).currentOpacity(), stoppedAt);
        QVERIFY(timeout.wait(5000));
        QVERIFY2(elapsed.elapsed() >= 900, qPrintable(QString::number(elapsed.elapsed())));
        QCOMPARE(timeout.count(), 2);
        QCOMPARE(inspect(label).currentImage(), m_files.at(2));
        QCOMPARE(animation->state(), QAbstractAnimation::Running);
        show.stop();
    }

    // A start or new settings during a fade restart nothing; the show may be destroyed mid-fade.
    void duringAFade()
    {
        auto *show = new SlideShow;
        QVERIFY(ready(*show, settings(0, 3000)));
        QPointer<SlideLabel> label = inspect(show).slideLabel();
        QPointer<ImageCacheWorker> worker = inspect(label).worker();
        QPointer<QThread> thread = worker->thread();
        QVERIFY(thread && thread != QThread::currentThread() && thread->isRunning());
        const QTimer &timer = inspect(show).switchTimer();
        QPointer<QVariantAnimation> fade = inspect(show).fadeAnimation();
        QSignalSpy timeout(&timer, &QTimer::timeout);
        show->start();
        QVERIFY(timeout.wait(5000));
        QCOMPARE(fade->state(), QAbstractAnimation::Running);
        QVERIFY(!timer.isActive());

        // The fade goes on, with its new duration.
        show->setProperty(settings(3, 4000));
        QCOMPARE(fade->state(), QAbstractAnimation::Running);
        QCOMPARE(fade->duration(), 4000);
        QVERIFY(!timer.isActive());
        // Waiting and fading at once.
        show->start();
        QVERIFY(timer.isActive());
        QCOMPARE(fade->state(), QAbstractAnimation::Running);
        // A waiting timer keeps waiting, now with the new interval.
        show->setProperty(settings(2, 4000));
        QVERIFY(timer.isActive());
        QCOMPARE(timer.interval(), 2000);
        QVERIFY2(timer.remainingTime() > 1000, qPrintable(QString::number(timer.remainingTime())));
        QCOMPARE(fade->state(), QAbstractAnimation::Running);
        show->stop();
        QVERIFY(!timer.isActive());
        QCOMPARE(fade->state(), QAbstractAnimation::Stopped);

        // Destroyed while it fades and waits, with neither stopped.
        show->setProperty(settings(0, 5000));
        show->start();
        QVERIFY(timeout.wait(5000));
        QTRY_COMPARE(fade->state(), QAbstractAnimation::Running);
        show->start();
        m_recorder->clear();
        delete show;
        QVERIFY(label.isNull());
        QVERIFY(fade.isNull());
        // The label did not wait for its thread: it ends, deletes the worker, and goes.
        QTRY_VERIFY(worker.isNull());
        QTRY_VERIFY(thread.isNull());
        QCOMPARE(m_recorder->texts(QtWarningMsg), QStringList());
    }
};

QTEST_MAIN(SlideShowTest)

#include "slideshowtest.moc"
