/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "plugin/slideshowconstants.h"
#include "testutils.h"

#include <QTest>

using TestUtils::LogEntry;
using TestUtils::LogRecorder;

class SlideShowConstantsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup()
    {
        TestUtils::setSlideShowDebugEnabled(false);
    }

    void name()
    {
        QCOMPARE(slideShowName, QStringLiteral("SlideShow"));
    }

    void translationDomain()
    {
        QCOMPARE(QByteArray(ZAV_SLIDESHOW_TRANSLATION_DOMAIN), QByteArray("zav-screensaver_slideshow"));
    }

    void keysInOrder()
    {
        // The two newer keys, whether subfolders are shown and in which
        // order, come after the four older ones.
        const QList<QLatin1String> expected = {QLatin1String("ImageDirectory"),
                                               QLatin1String("Effect"),
                                               QLatin1String("AutoSwitch"),
                                               QLatin1String("Position"),
                                               QLatin1String("IncludeSubfolders"),
                                               QLatin1String("Order")};
        QCOMPARE(slideShowKeys, expected);
    }

    void defaultPropertyHoldsSixTypedEntries()
    {
        // Six entries since the show can include subfolders and shuffle.
        QCOMPARE(slideShowDefaultProperty.size(), 6);
        QCOMPARE(slideShowDefaultProperty.keys(),
                 QStringList({QStringLiteral("AutoSwitch"),
                              QStringLiteral("Effect"),
                              QStringLiteral("ImageDirectory"),
                              QStringLiteral("IncludeSubfolders"),
                              QStringLiteral("Order"),
                              QStringLiteral("Position")}));

        const QVariant directory = slideShowDefaultProperty.value(QStringLiteral("ImageDirectory"));
        QCOMPARE(directory.userType(), int(QMetaType::QString));
        QCOMPARE(directory.toString(), QStringLiteral("/usr/share/wallpapers/slideshow/"));

        const QVariant effect = slideShowDefaultProperty.value(QStringLiteral("Effect"));
        QCOMPARE(effect.userType(), int(QMetaType::Int));
        QCOMPARE(effect.toInt(), 500);

        const QVariant autoSwitch = slideShowDefaultProperty.value(QStringLiteral("AutoSwitch"));
        QCOMPARE(autoSwitch.userType(), int(QMetaType::Int));
        QCOMPARE(autoSwitch.toInt(), 5);

        const QVariant position = slideShowDefaultProperty.value(QStringLiteral("Position"));
        QCOMPARE(position.userType(), int(QMetaType::Int));
        QCOMPARE(position.toInt(), 1);

        // A host that knows only the four older keys gets one folder, in the
        // order of the names.
        const QVariant includeSubfolders = slideShowDefaultProperty.value(QStringLiteral("IncludeSubfolders"));
        QCOMPARE(includeSubfolders.userType(), int(QMetaType::Bool));
        QCOMPARE(includeSubfolders.toBool(), false);

        const QVariant order = slideShowDefaultProperty.value(QStringLiteral("Order"));
        QCOMPARE(order.userType(), int(QMetaType::Int));
        QCOMPARE(order.toInt(), 0);

        for (const QLatin1String &key : slideShowKeys) {
            QVERIFY2(slideShowDefaultProperty.contains(key), key.data());
        }
    }

    void loggingCategoryName()
    {
        QCOMPARE(QByteArray(slideShowLog().categoryName()), QByteArray("zav-tev.screensaver.slideshow"));
    }

    void debugIsOffByDefaultWarningsAndCriticalsAreOn()
    {
        TestUtils::setSlideShowDebugEnabled(false);
        QVERIFY(!slideShowLog().isDebugEnabled());
        QVERIFY(slideShowLog().isInfoEnabled());
        QVERIFY(slideShowLog().isWarningEnabled());
        QVERIFY(slideShowLog().isCriticalEnabled());

        LogRecorder recorder;
        qCDebug(slideShowLog) << "SlideShowConstantsTest: debug";
        qCWarning(slideShowLog) << "SlideShowConstantsTest: warning";
        qCCritical(slideShowLog) << "SlideShowConstantsTest: critical";

        const QList<LogEntry> expected = {
            {QStringLiteral("zav-tev.screensaver.slideshow"), QtWarningMsg, QStringLiteral("SlideShowConstantsTest: warning")},
            {QStringLiteral("zav-tev.screensaver.slideshow"), QtCriticalMsg, QStringLiteral("SlideShowConstantsTest: critical")},
        };
        QCOMPARE(recorder.entries(), expected);
    }

    void loggingRulesTurnDebugOn()
    {
        TestUtils::setSlideShowDebugEnabled(true);
        QVERIFY(slideShowLog().isDebugEnabled());

        LogRecorder recorder;
        qCDebug(slideShowLog) << "SlideShowConstantsTest: debug";
        const QList<LogEntry> expected = {{QStringLiteral("zav-tev.screensaver.slideshow"), QtDebugMsg, QStringLiteral("SlideShowConstantsTest: debug")}};
        QCOMPARE(recorder.entries(), expected);
    }
};

QTEST_GUILESS_MAIN(SlideShowConstantsTest)

#include "slideshowconstantstest.moc"
