/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// What a person sees in the middle of a fade: the screensaver in a host's
// black window, in folders of more images than the cache keeps, after the
// host's first resize and after a change of the fitting mode.

#include "showhost.h"
#include "slidelabeltesthelpers.h"

#include <QMap>
#include <QTemporaryDir>
#include <QTest>
#include <QVariantAnimation>

#include <memory>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::ShowHost;

namespace
{
// Neighbours in the folder differ in hue by far more than the fuzz below.
QColor colourOf(int index)
{
    return QColor::fromHsv((index * 47) % 360, 220, 230);
}
}

class CrossFadeTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    // Folders of 11, 12 and 30 images, each image a colour of its own.
    QMap<int, QString> m_folders;
    std::unique_ptr<TestUtils::LogRecorder> m_log;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // Catches the line about the default folder, missing here.
        m_log.reset(new TestUtils::LogRecorder);
        for (int count : {11, 12, 30}) {
            const QString folder = m_dir.filePath(QString::number(count));
            QVERIFY(QDir().mkpath(folder));
            for (int i = 0; i < count; ++i) {
                // Small: Crop and Stretch scale them up to any screen.
                QVERIFY(!TestUtils::writeSolidImage(folder, QStringLiteral("%1.png").arg(i, 2, 10, QLatin1Char('0')), QSize(32, 18), colourOf(i)).isEmpty());
            }
            m_folders.insert(count, folder);
        }
    }

    void middleOfAFadeShowsBothSlides_data()
    {
        QTest::addColumn<int>("images");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("modeChange");
        for (int images : {11, 12, 30}) {
            for (const QSize &size : {QSize(320, 180), QSize(3840, 2160)}) {
                for (bool modeChange : {false, true}) {
                    const QString name = QStringLiteral("%1 images at %2x%3%4")
                                             .arg(images)
                                             .arg(size.width())
                                             .arg(size.height())
                                             .arg(modeChange ? QStringLiteral(", after a mode change") : QString());
                    QTest::newRow(qPrintable(name)) << images << size << modeChange;
                }
            }
        }
    }

    // More images than ten (or than fit at 4K) leave three slides in the
    // cache: the previous, the current and the next. The fade needs the
    // previous one until its end, whatever the order in which the cache was
    // filled.
    void middleOfAFadeShowsBothSlides()
    {
        QFETCH(int, images);
        QFETCH(QSize, size);
        QFETCH(bool, modeChange);

        // The switches are made by the test, never by the timer.
        ShowHost host(size);
        host.apply(m_folders.value(images), 3600, 1000, Crop);
        QVERIFY(host.shows(colourOf(0)));
        if (modeChange) {
            host.apply(m_folders.value(images), 3600, 1000, Stretch);
            QVERIFY(waitUntilIdle(host.worker()));
            QVERIFY(host.shows(colourOf(0)));
        }
        QCOMPARE(snapshotOf(host.worker()).capacity, 3);

        QVariantAnimation *fade = inspect(host.show).fadeAnimation();
        for (int slide = 1; slide <= 2; ++slide) {
            // As in a show, the slide to come is ready before its switch.
            QVERIFY(waitUntilIdle(host.worker()));
            host.show->updateSlide();
            fade->pause();
            // Where the eased fade gives both slides about half the weight.
            fade->setCurrentTime(fade->duration() * 3 / 10);
            const double opacity = inspect(host.label()).currentOpacity();
            QVERIFY(opacity > 0.4 && opacity < 0.6);
            // The next look-ahead is stored meanwhile.
            QVERIFY(waitUntilIdle(host.worker()));

            const QRgb centre = host.centre();
            const QColor expected = QColor::fromRgba(TestUtils::crossFadePixel(Qt::black, colourOf(slide - 1), colourOf(slide), opacity));
            // Two 8-bit draws, each rounding once.
            QVERIFY2(TestUtils::fuzzyColor(centre, expected, 2),
                     qPrintable(QStringLiteral("fade %1 at %2: centre %3, expected %4").arg(slide).arg(opacity).arg(QColor(centre).name(), expected.name())));
            fade->setCurrentTime(fade->duration());
            QCOMPARE(fade->state(), QAbstractAnimation::Stopped);
            QVERIFY(TestUtils::fuzzyColor(host.centre(), colourOf(slide), 1));
        }
    }
};

int main(int argc, char **argv)
{
    return TestUtils::runWidgetTest<CrossFadeTest>(argc, argv);
}

#include "crossfadetest.moc"
