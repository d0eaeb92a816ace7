/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The device geometry by which SlideLabel asks for its images: its position
// and its size times the device-pixel ratio, rounded. CTest runs this program
// at the ratios 1, 1.25, 1.5, 1.75 and 2 (QT_SCALE_FACTOR), naming the one in
// force in ZAV_EXPECTED_DEVICE_PIXEL_RATIO.

#include "slidelabeltesthelpers.h"

#include <QPainter>
#include <QTemporaryDir>

#include <cmath>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::LogRecorder;

namespace
{
// Whole numbers of pixels at every ratio tried.
const QSize labelSize(640, 480);

double expectedRatio()
{
    return qEnvironmentVariable("ZAV_EXPECTED_DEVICE_PIXEL_RATIO", QStringLiteral("1")).toDouble();
}
}

class SlideLabelGeometryTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_image;

    // What a label shows of the image alone in the mode (null on a failure),
    // and the size of its slide.
    QImage showAlone(const QImage &image, Position mode, QSize *slideSize = nullptr)
    {
        QTemporaryDir dir;
        const QString path = TestUtils::writeImage(dir.path(), QStringLiteral("image.png"), image);
        auto label = shownLabel(labelSize);
        if (!label) {
            return QImage();
        }
        label->setPosition(mode);
        if (!setDirAndWait(*label, dir.path()) || !QTest::qWaitFor([&] {
                return !inspect(label).slide(path).isNull();
            })) {
            return QImage();
        }
        if (slideSize) {
            *slideSize = inspect(label).slide(path).size();
        }
        return label->grab().toImage();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        TestUtils::setSlideShowDebugEnabled(true);
        m_image = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("slide.png"), QSize(64, 36), Qt::red);
    }

    // The ratio of this run, checked against the one that the platform gives.
    void init()
    {
        const double actual = QWidget().devicePixelRatioF();
        if (qFuzzyCompare(actual, expectedRatio())) {
            return;
        }
        if (expectedRatio() != std::floor(expectedRatio())) {
            QSKIP(qPrintable(QStringLiteral("the platform gives the ratio %1 instead of the fractional %2").arg(actual).arg(expectedRatio())));
        }
        QFAIL(qPrintable(QStringLiteral("the ratio is %1, expected %2").arg(actual).arg(expectedRatio())));
    }

    void requestsUseTheScreensPixels_data()
    {
        QTest::addColumn<QPoint>("position");
        QTest::addColumn<QSize>("size");
        QTest::newRow("960x540 at the origin") << QPoint(0, 0) << QSize(960, 540);
        // The position is not scaled, only the size.
        QTest::newRow("321x241 at (10, 20)") << QPoint(10, 20) << QSize(321, 241);
    }

    void requestsUseTheScreensPixels()
    {
        QFETCH(QPoint, position);
        QFETCH(QSize, size);
        const double ratio = expectedRatio();
        // At 1.5 the first design asked for 960x540 and magnified it.
        const QRect geometry(position, QSize(qRound(size.width() * ratio), qRound(size.height() * ratio)));
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
        LogRecorder log;
        QVERIFY(setDirAndWait(*label, m_dir.path()));
        QCOMPARE(requestLines(log), QStringList{TestUtils::logText(LogText::queued, requestKey(m_image, geometry.size()))});
        QTRY_VERIFY(!inspect(label).worker()->getCachedImage(m_image, geometry, ratio, Crop).isNull());
        const QPixmap cached = inspect(label).worker()->getCachedImage(m_image, geometry, ratio, Crop);
        QCOMPARE(cached.size(), geometry.size());
        QCOMPARE(cached.devicePixelRatioF(), ratio);
        QVERIFY(waitUntilIdle(inspect(label).worker()));
        // The paint draws the label's own copy, without asking the worker.
        QCOMPARE(inspect(label).slide(m_image).cacheKey(), cached.cacheKey());
        log.clear();
        label->grab();
        QVERIFY(log.texts(QtDebugMsg).isEmpty());
        QVERIFY(waitUntilIdle(inspect(label).worker()));
    }

    void eachModeShowsTheImageAtItsSize_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("Stretch") << int(Stretch);
        QTest::newRow("Crop") << int(Crop);
        QTest::newRow("Center") << int(Center);
        QTest::newRow("Tile") << int(Tile);
    }

    // Stretch and Crop show a one-pixel checkerboard of the screen's size
    // pixel for pixel, also at a fractional ratio (the first design magnified
    // a slide of the integer ratio's size). Center and Tile show a pixel of
    // the image as a logical one, resampled at a fractional ratio (the first
    // design magnified it twice there).
    void eachModeShowsTheImageAtItsSize()
    {
        QFETCH(int, mode);
        const double ratio = expectedRatio();
        if (mode == Stretch || mode == Crop) {
            const QSize device(qRound(labelSize.width() * ratio), qRound(labelSize.height() * ratio));
            QImage board(device, QImage::Format_RGB32);
            for (int y = 0; y < device.height(); ++y) {
                for (int x = 0; x < device.width(); ++x) {
                    board.setPixel(x, y, (x + y) % 2 ? qRgb(255, 255, 255) : qRgb(0, 0, 0));
                }
            }
            QSize slide;
            const QImage shown = showAlone(board, Position(mode), &slide);
            QCOMPARE(slide, device);
            QCOMPARE(shown.size(), device);
            COMPARE_IMAGES(shown, board, 0);
            return;
        }
        // Red on its left half, blue on its right one.
        QImage halves(40, 30, QImage::Format_RGB32);
        halves.fill(Qt::blue);
        QPainter(&halves).fillRect(0, 0, 20, 30, Qt::red);
        const QImage shown = showAlone(halves, Position(mode));
        const int deviceWidth = qRound(labelSize.width() * ratio);
        QCOMPARE(shown.width(), deviceWidth);
        // Along a row through the image: where red and where blue begin.
        const int row = mode == Tile ? qRound(5 * ratio) : shown.height() / 2;
        const auto red = [&shown, row](int x) {
            return TestUtils::fuzzyColor(shown.pixel(x, row), Qt::red, 54);
        };
        const auto blue = [&shown, row](int x) {
            return TestUtils::fuzzyColor(shown.pixel(x, row), Qt::blue, 54);
        };
        if (mode == Center) {
            int redStart = 0;
            while (redStart < deviceWidth && !red(redStart)) {
                ++redStart;
            }
            int blueStart = redStart;
            while (blueStart < deviceWidth && !blue(blueStart)) {
                ++blueStart;
            }
            // The red half is 20 logical pixels wide; smoothing blurs its
            // edges by a pixel.
            QVERIFY2(qAbs((blueStart - redStart) - 20 * ratio) <= 1.5,
                     qPrintable(QStringLiteral("red from %1 to %2 at the ratio %3").arg(redStart).arg(blueStart).arg(ratio)));
            // Where the first design put it: half the difference of the
            // sizes in pixels, taken as logical coordinates.
            const int x = int((deviceWidth - 40) / ratio / 2);
            QVERIFY2(qAbs(redStart - x * ratio) <= 1.5, qPrintable(QStringLiteral("the image begins at %1").arg(redStart)));
            return;
        }
        // Tiles step by the image's width over the ratio in logical pixels,
        // as the first design steps, each drawn at its logical size over the
        // one before: its red half, then what the next tile leaves of blue.
        const int step = int(40 / ratio);
        for (int tile = 0; tile < 3; ++tile) {
            const double start = tile * step * ratio;
            const double redEnd = start + qMin(20, step) * ratio;
            QVERIFY2(red(int(start + 1.5)) && red(int(redEnd - 1.5)),
                     qPrintable(QStringLiteral("tile %1 is not red from %2 to %3").arg(tile).arg(start).arg(redEnd)));
            if (step > 20) {
                const double next = start + step * ratio;
                QVERIFY2(blue(int(redEnd + 1.5)) && blue(int(next - 1.5)),
                         qPrintable(QStringLiteral("tile %1 is not blue from %2 to %3").arg(tile).arg(redEnd).arg(next)));
            }
        }
    }
};

int main(int argc, char **argv)
{
    return TestUtils::runWidgetTest<SlideLabelGeometryTest>(argc, argv);
}

#include "slidelabelgeometrytest.moc"
