/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The device geometry by which SlideLabel asks for and looks up its images:
// its position, its size times the integer device-pixel ratio, and beside it
// the fractional ratio. CTest runs this program at the ratios 1, 2 and 1.5
// (QT_SCALE_FACTOR); ZAV_EXPECTED_DEVICE_PIXEL_RATIO names the one in force.

#include "imagecache/imagecacheworker.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "slidelabeltesthelpers.h"
#include "testutils.h"

#include <QApplication>
#include <QDir>
#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <memory>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::LogRecorder;

namespace
{
double expectedRatio()
{
    bool ok = false;
    const double ratio = qEnvironmentVariable("ZAV_EXPECTED_DEVICE_PIXEL_RATIO").toDouble(&ok);
    return ok ? ratio : 1.0;
}

QImage patternImage(const QSize &size)
{
    QImage image(size, QImage::Format_RGB32);
    for (int y = 0; y < size.height(); ++y) {
        for (int x = 0; x < size.width(); ++x) {
            image.setPixel(x, y, qRgb(x * 255 / size.width(), y * 255 / size.height(), (x * y) % 256));
        }
    }
    return image;
}
}

class SlideLabelGeometryTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_image;

    // The ratio of this run, checked against the one that the platform gives.
    bool checkRatio()
    {
        QWidget probe;
        const double actual = probe.devicePixelRatioF();
        if (qFuzzyCompare(actual, expectedRatio())) {
            return true;
        }
        if (expectedRatio() != std::floor(expectedRatio())) {
            QTest::qSkip(qPrintable(QStringLiteral("the platform gives the ratio %1 instead of the fractional %2").arg(actual).arg(expectedRatio())),
                         __FILE__,
                         __LINE__);
            return false;
        }
        QTest::qFail(qPrintable(QStringLiteral("the ratio is %1, expected %2").arg(actual).arg(expectedRatio())), __FILE__, __LINE__);
        return false;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        TestUtils::setSlideShowDebugEnabled(true);
        m_image = TestUtils::writeImage(m_dir.path(), QStringLiteral("slide.png"), patternImage(QSize(64, 36)));
    }

    void requestsAndLookupsUseTheDeviceGeometry_data()
    {
        QTest::addColumn<QPoint>("position");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<QRect>("geometry");
        QTest::addColumn<double>("ratio");

        const double ratio = expectedRatio();
        if (qFuzzyCompare(ratio, 2.0)) {
            QTest::newRow("960x540 at the origin") << QPoint(0, 0) << QSize(960, 540) << QRect(0, 0, 1920, 1080) << 2.0;
            // The position is not scaled, only the size.
            QTest::newRow("320x240 at (10, 20)") << QPoint(10, 20) << QSize(320, 240) << QRect(10, 20, 640, 480) << 2.0;
        } else if (qFuzzyCompare(ratio, 1.5)) {
            // The integer ratio of 1.5 is 1: the size stays, the fractional
            // ratio goes along.
            QTest::newRow("960x540 at the origin") << QPoint(0, 0) << QSize(960, 540) << QRect(0, 0, 960, 540) << 1.5;
            QTest::newRow("320x240 at (10, 20)") << QPoint(10, 20) << QSize(320, 240) << QRect(10, 20, 320, 240) << 1.5;
        } else {
            QTest::newRow("960x540 at the origin") << QPoint(0, 0) << QSize(960, 540) << QRect(0, 0, 960, 540) << 1.0;
            QTest::newRow("320x240 at (10, 20)") << QPoint(10, 20) << QSize(320, 240) << QRect(10, 20, 320, 240) << 1.0;
        }
    }

    void requestsAndLookupsUseTheDeviceGeometry()
    {
        QFETCH(QPoint, position);
        QFETCH(QSize, size);
        QFETCH(QRect, geometry);
        QFETCH(double, ratio);
        if (!checkRatio()) {
            return;
        }

        LogRecorder log;
        QWidget parent;
        parent.resize(1000, 600);
        auto *label = new SlideLabel(&parent);
        label->move(position);
        label->resize(size);
        parent.show();
        QVERIFY(QTest::qWaitForWindowExposed(&parent));
        QCOMPARE(label->devicePixelRatioF(), ratio);
        // Cropped slides carry the ratio they were requested with.
        label->setPosition(Crop);

        log.clear();
        QVERIFY(setDirAndWait(*label, m_dir.path()));
        QCOMPARE(workerRequests(log), QStringList{queued(m_image, geometry.size())});

        QTRY_VERIFY(!inspect(label).worker()->getCachedImage(m_image, geometry, ratio, Crop).isNull());
        const QPixmap cached = inspect(label).worker()->getCachedImage(m_image, geometry, ratio, Crop);
        QCOMPARE(cached.size(), geometry.size());
        QCOMPARE(cached.devicePixelRatioF(), ratio);
        QVERIFY(waitUntilIdle(inspect(label).worker()));

        // The paint draws the label's own copy of that report, without
        // asking the worker.
        QCOMPARE(inspect(label).slide(m_image).cacheKey(), cached.cacheKey());
        log.clear();
        label->grab();
        QVERIFY(log.texts(QtDebugMsg).isEmpty());
        QVERIFY(waitUntilIdle(inspect(label).worker()));
    }

    void paintedSlideFillsTheWidgetAtTheDeviceRatio_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("stretched") << int(Stretch);
        QTest::newRow("cropped") << int(Crop);
    }

    void paintedSlideFillsTheWidgetAtTheDeviceRatio()
    {
        QFETCH(int, mode);
        if (!checkRatio()) {
            return;
        }

        const QSize size(320, 180);
        LabelPointer label(new SlideLabel);
        label->resize(size);
        label->show();
        QVERIFY(QTest::qWaitForWindowExposed(label.get()));
        label->setPosition(Position(mode));
        QVERIFY(setDirAndWait(*label, m_dir.path()));
        const double ratio = expectedRatio();
        const QRect geometry = deviceGeometry(*label);
        QCOMPARE(geometry.size(), size * std::floor(ratio));
        QTRY_VERIFY(!inspect(label).worker()->getCachedImage(m_image, geometry, ratio, Position(mode)).isNull());
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        const QPixmap slide = inspect(label).worker()->getCachedImage(m_image, geometry, ratio, Position(mode));

        QImage canvas(size * ratio, QImage::Format_ARGB32_Premultiplied);
        canvas.setDevicePixelRatio(ratio);
        canvas.fill(Qt::transparent);
        QImage painted = canvas;
        label->render(&painted, QPoint(), QRegion(), QWidget::DrawChildren);

        // The slide drawn once into the widget's logical rectangle.
        QImage expected = canvas;
        QPainter painter(&expected);
        painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
        painter.drawPixmap(QRectF(0, 0, size.width(), size.height()), slide, QRectF());
        painter.end();
        QString difference = firstDifference(painted, expected);
        QVERIFY2(difference.isEmpty(), qPrintable(difference));

        if (ratio == std::floor(ratio)) {
            // At an integer ratio the slide is prepared at the device size
            // and lands pixel for pixel, unscaled.
            difference = firstDifference(painted, slide.toImage());
            QVERIFY2(difference.isEmpty(), qPrintable(difference));
        } else {
            // At a fractional one it is prepared at the integer ratio's size
            // and scaled up to cover the widget.
            QCOMPARE(slide.size(), size);
            for (const QPoint &corner : {QPoint(0, 0), QPoint(painted.width() - 1, painted.height() - 1)}) {
                QCOMPARE(qAlpha(painted.pixel(corner)), 255);
            }
        }
    }
};

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    SlideLabelGeometryTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "slidelabelgeometrytest.moc"
