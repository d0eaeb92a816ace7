/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "imagecache/imagecacheworker.h"
#include "imagemetrics.h"
#include "testutils.h"

#include <QApplication>
#include <QBuffer>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImageReader>
#include <QImageWriter>
#include <QPainter>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QTransform>

#include <cstdio>

using namespace Dm::ScreenSaver;

// The "Position" setting stores these numbers: a change breaks every stored
// setting, and the build.
static_assert(int(Stretch) == 0 && int(Crop) == 1 && int(Tile) == 2 && int(Center) == 3 && int(Fit) == 4, "the fitting modes' stored values");
using TestUtils::LogEntry;
using TestUtils::LogRecorder;

namespace
{
const char childEnvironment[] = "ZAV_FITTING_CHILD_PATH";
const char childModeEnvironment[] = "ZAV_FITTING_CHILD_MODE";
// The target, 640x480 unless given, and a file to save the result in.
const char childSizeEnvironment[] = "ZAV_FITTING_CHILD_SIZE";
const char childResultEnvironment[] = "ZAV_FITTING_CHILD_RESULT";

// Fits a file in a child process, so that the peak memory is the
// preparation's own; returns the child's lines (warnings, then the result)
// and sets the peak in KiB.
QStringList fitInChild(const QString &path, int mode, const QSize &size, const QString &resultFile, qint64 *peakKiB)
{
    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QString::fromLatin1(childEnvironment), path);
    environment.insert(QString::fromLatin1(childModeEnvironment), QString::number(mode));
    environment.insert(QString::fromLatin1(childSizeEnvironment), QStringLiteral("%1x%2").arg(size.width()).arg(size.height()));
    environment.insert(QString::fromLatin1(childResultEnvironment), resultFile);
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(), QStringList());
    if (!child.waitForFinished(300000) || child.exitStatus() != QProcess::NormalExit || child.exitCode() != 0) {
        qWarning("the child failed: %s", child.readAllStandardError().constData());
        return {};
    }
    QStringList lines = QString::fromLatin1(child.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    *peakKiB = lines.isEmpty() ? -1 : lines.takeLast().section(QLatin1Char(' '), 1).toLongLong();
    return lines;
}

// Every pixel different from its neighbours, so that any shift of a copied
// region shows.
QImage patternImage(const QSize &size)
{
    QImage image(size, QImage::Format_RGB32);
    for (int y = 0; y < size.height(); ++y) {
        QRgb *line = reinterpret_cast<QRgb *>(image.scanLine(y));
        for (int x = 0; x < size.width(); ++x) {
            line[x] = qRgb(x % 256, y % 256, (x / 256 * 16 + y / 256) % 256);
        }
    }
    return image;
}

// LZW data of a GIF frame of pixels pixels, all of colour index 0, with a
// minimum code size of 2: a clear code before every code 0, so that the
// decoder's table never grows and every code stays three bits wide.
QByteArray gifWhiteData(int pixels)
{
    QByteArray codes;
    quint32 bits = 0;
    int used = 0;
    const auto put = [&](int code, int width) {
        bits |= quint32(code) << used;
        used += width;
        while (used >= 8) {
            codes.append(char(bits & 0xff));
            bits >>= 8;
            used -= 8;
        }
    };
    // Code size 2: clear is 4, end 5.
    for (int i = 0; i < pixels; ++i) {
        put(4, 3);
        put(0, 3);
    }
    put(5, 3);
    if (used > 0) {
        codes.append(char(bits & 0xff));
    }
    QByteArray data(1, char(2));
    for (int i = 0; i < codes.size(); i += 255) {
        const QByteArray block = codes.mid(i, 255);
        data.append(char(block.size())).append(block);
    }
    data.append(char(0));
    return data;
}

// One data row per fitting mode, in the column "position".
void addModeRows()
{
    QTest::addColumn<int>("position");
    QTest::newRow("stretch") << int(Stretch);
    QTest::newRow("crop") << int(Crop);
    QTest::newRow("tile") << int(Tile);
    QTest::newRow("center") << int(Center);
}

QImage toRgb(const QPixmap &pixmap)
{
    return pixmap.toImage().convertToFormat(QImage::Format_RGB32);
}

LogEntry warning(const QString &text)
{
    return LogEntry{QStringLiteral("zav-tev.screensaver.slideshow"), QtWarningMsg, text};
}
}

class ImageFittingTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    ImageCacheWorker m_worker;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
    }

    void cropScalesByExpandingAndTakesTheCentre_data()
    {
        QTest::addColumn<QSize>("image");
        QTest::addColumn<bool>("reduced");
        // Not larger than the screen: scaled whole to 2160 x 1080 and its
        // middle taken, x 120, y 0, 1920 x 1080, exactly as always.
        QTest::newRow("1000x500, scaled up") << QSize(1000, 500) << false;
        // Larger than the screen: the part shown (3556 x 2000 at x 222, the
        // screen's shape) is cut out first and only it is scaled, which
        // holds no intermediate larger than the screen; its border pixels
        // may differ from those of a whole scaled image by the smoothing.
        QTest::newRow("4000x2000, scaled down") << QSize(4000, 2000) << true;
    }

    void cropScalesByExpandingAndTakesTheCentre()
    {
        QFETCH(QSize, image);
        QFETCH(bool, reduced);
        const QImage source = patternImage(image);
        const QString path = TestUtils::writeImage(m_dir.path(), QStringLiteral("crop.png"), source);

        QImage expected;
        if (!reduced) {
            const QPixmap scaled = QPixmap(path).scaled(QSize(1920, 1080), Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
            QCOMPARE(scaled.size(), QSize(2160, 1080));
            expected = scaled.toImage().convertToFormat(QImage::Format_RGB32).copy(120, 0, 1920, 1080);
        } else {
            const QImage part = QImage(path).convertToFormat(QImage::Format_RGB32).copy(222, 0, 3556, 2000);
            expected = part.scaled(QSize(1920, 1080), Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
            QCOMPARE(expected.size(), QSize(1920, 1080));
        }

        // The mode on the whole decoded file gives exactly that region.
        LogRecorder recorder;
        const QPixmap result = m_worker.crop(path, QSize(1920, 1080), 1.0);
        QCOMPARE(result.size(), QSize(1920, 1080));
        QCOMPARE(result.devicePixelRatio(), 1.0);
        QCOMPARE(toRgb(result), expected);
        QVERIFY(recorder.entries().isEmpty());

        // The preparation reads a file larger than what Crop shows already
        // reduced: the same picture to the eye, if not to the bit.
        const QPixmap prepared = m_worker.cachedImage(path, QRect(0, 0, 1920, 1080), 1.0, Crop);
        QCOMPARE(prepared.size(), QSize(1920, 1080));
        QCOMPARE(prepared.devicePixelRatio(), 1.0);
        const double psnr = ImageMetrics::psnr(prepared.toImage(), expected);
        QVERIFY2(psnr >= 38, qPrintable(QString::number(psnr)));
        QVERIFY(recorder.entries().isEmpty());
    }

    void cropAtRatioTwoFillsTheWholeCanvas()
    {
        const QString path = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("crop-white.png"), QSize(400, 300), Qt::white);
        const QPixmap result = m_worker.crop(path, QSize(640, 360), 2.0);
        QCOMPARE(result.size(), QSize(640, 360));
        QCOMPARE(result.devicePixelRatio(), 2.0);
        const QImage image = toRgb(result);
        QCOMPARE(image.pixel(0, 0), qRgb(255, 255, 255));
        QCOMPARE(image.pixel(639, 359), qRgb(255, 255, 255));
        QCOMPARE(image.pixel(320, 180), qRgb(255, 255, 255));
    }

    void centerDrawsAtTheMiddle_data()
    {
        QTest::addColumn<double>("ratio");
        QTest::addColumn<QPoint>("lastImagePixel");
        QTest::newRow("ratio 1") << 1.0 << QPoint(1459, 789);
        // At ratio 2 the image is drawn at (230, 145) logical, that is the
        // same device pixel, but at its own logical size, twice as large.
        QTest::newRow("ratio 2") << 2.0 << QPoint(1919, 1079);
    }

    void centerDrawsAtTheMiddle()
    {
        QFETCH(double, ratio);
        QFETCH(QPoint, lastImagePixel);

        const QString path = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("center.png"), QSize(1000, 500), Qt::white);
        const QPixmap result = m_worker.cachedImage(path, QRect(0, 0, 1920, 1080), ratio, Center);
        QCOMPARE(result.size(), QSize(1920, 1080));
        QCOMPARE(result.devicePixelRatio(), ratio);

        const QImage image = toRgb(result);
        const QRgb white = qRgb(255, 255, 255);
        const QRgb black = qRgb(0, 0, 0);
        QCOMPARE(image.pixel(460, 290), white);
        QCOMPARE(image.pixel(459, 290), black);
        QCOMPARE(image.pixel(460, 289), black);
        QCOMPARE(image.pixel(lastImagePixel), white);
        if (lastImagePixel.x() < 1919) {
            QCOMPARE(image.pixel(lastImagePixel.x() + 1, lastImagePixel.y()), black);
            QCOMPARE(image.pixel(lastImagePixel.x(), lastImagePixel.y() + 1), black);
        }
        QCOMPARE(image.pixel(0, 0), black);
    }

    void centerCutsALargeImageOnAllSides()
    {
        const QImage source = patternImage(QSize(3000, 2000));
        const QString path = TestUtils::writeImage(m_dir.path(), QStringLiteral("large.png"), source);
        const QPixmap result = m_worker.cachedImage(path, QRect(0, 0, 1920, 1080), 1.0, Center);
        // x = (1920 - 3000) / 2 = -540, y = (1080 - 2000) / 2 = -460.
        QCOMPARE(toRgb(result), source.copy(540, 460, 1920, 1080));
    }

    void unknownPositionWarnsAndStretches()
    {
        const QImage source = patternImage(QSize(300, 200));
        const QString path = TestUtils::writeImage(m_dir.path(), QStringLiteral("seven.png"), source);

        LogRecorder recorder;
        const QPixmap result = m_worker.cachedImage(path, QRect(0, 0, 640, 480), 2.0, Position(7));
        const QList<LogEntry> expected = {
            warning(QStringLiteral("ImageCacheWorker: Unknown positioning mode, return to stretching for the path: \"%1\"").arg(path))};
        QCOMPARE(recorder.entries(), expected);
        QCOMPARE(toRgb(result), toRgb(m_worker.stretch(path, QSize(640, 480))));
        QCOMPARE(result.devicePixelRatio(), 1.0);
    }

    void missingFileGivesABlackCanvas_data()
    {
        addModeRows();
    }

    void missingFileGivesABlackCanvas()
    {
        QFETCH(int, position);
        const QString path = m_dir.filePath(QStringLiteral("does-not-exist.jpg"));

        LogRecorder recorder;
        const QPixmap result = m_worker.cachedImage(path, QRect(10, 20, 300, 200), 1.5, Position(position));
        const QList<LogEntry> expected = {warning(QStringLiteral("\"ImageCacheWorker: It was not possible to load the original image: %1 \"").arg(path))};
        QCOMPARE(recorder.entries(), expected);
        QCOMPARE(result.size(), QSize(300, 200));
        QCOMPARE(result.devicePixelRatio(), 1.5);
        const QImage image = toRgb(result);
        for (const QPoint &point : {QPoint(0, 0), QPoint(299, 199), QPoint(150, 100)}) {
            QCOMPARE(image.pixel(point), qRgb(0, 0, 0));
        }
    }

    void unreadableContentGivesABlackCanvas_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("text") << QByteArray("this is not an image\n");
        QByteArray png;
        {
            QBuffer buffer(&png);
            buffer.open(QIODevice::WriteOnly);
            patternImage(QSize(64, 64)).save(&buffer, "PNG");
        }
        QTest::newRow("truncated png") << png.left(40);
    }

    void unreadableContentGivesABlackCanvas()
    {
        QFETCH(QByteArray, content);
        const QString path =
            m_dir.filePath(QStringLiteral("bad-%1.jpg").arg(QString::fromLatin1(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('-'))));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();

        LogRecorder recorder;
        const QPixmap result = m_worker.cachedImage(path, QRect(0, 0, 200, 150), 1.0, Crop);
        QCOMPARE(recorder.texts(QtWarningMsg),
                 QStringList(QStringLiteral("\"ImageCacheWorker: It was not possible to load the original image: %1 \"").arg(path)));
        QCOMPARE(result.size(), QSize(200, 150));
        QCOMPARE(toRgb(result).pixel(100, 75), qRgb(0, 0, 0));
    }

    void stretchKeepsTheRatioOfTheFile()
    {
        const QString path = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("stretch.png"), QSize(300, 100), QColor(10, 200, 30));
        const QPixmap result = m_worker.cachedImage(path, QRect(0, 0, 400, 400), 2.0, Stretch);
        QCOMPARE(result.size(), QSize(400, 400));
        QCOMPARE(result.devicePixelRatio(), 1.0);
        QCOMPARE(toRgb(result).pixel(0, 0), qRgb(10, 200, 30));
        QCOMPARE(toRgb(result).pixel(399, 399), qRgb(10, 200, 30));
    }

    void stretchOfAVanishedFileIsNull()
    {
        QVERIFY(m_worker.stretch(m_dir.filePath(QStringLiteral("vanished.png")), QSize(200, 200)).isNull());
    }

    void tileRepeatsFromTheTopLeft()
    {
        QImage source(100, 60, QImage::Format_RGB32);
        source.fill(Qt::red);
        source.setPixel(0, 0, qRgb(0, 0, 255));
        const QString path = TestUtils::writeImage(m_dir.path(), QStringLiteral("tile.png"), source);

        const QPixmap result = m_worker.cachedImage(path, QRect(0, 0, 250, 130), 1.0, Tile);
        QCOMPARE(result.size(), QSize(250, 130));
        const QImage image = toRgb(result);
        for (int x = 0; x < 250; x += 100) {
            for (int y = 0; y < 130; y += 60) {
                QCOMPARE(image.pixel(x, y), qRgb(0, 0, 255));
                QCOMPARE(image.pixel(x + 1, y), qRgb(255, 0, 0));
            }
        }
        QCOMPARE(image.pixel(249, 129), qRgb(255, 0, 0));
    }

    void tileAtRatioTwoOverlaps()
    {
        // Steps of 50 logical pixels, tiles of 100 logical pixels: each tile
        // is overwritten by the next one from its middle on.
        QImage source(100, 60, QImage::Format_RGB32);
        source.fill(Qt::red);
        source.setPixel(0, 0, qRgb(0, 0, 255));
        const QString path = TestUtils::writeImage(m_dir.path(), QStringLiteral("tile2.png"), source);

        const QPixmap result = m_worker.tile(path, QSize(400, 240), 2.0);
        QCOMPARE(result.devicePixelRatio(), 2.0);
        const QImage image = toRgb(result);
        // Logical (50, 30) starts a tile: device (100, 60), two device pixels wide.
        QCOMPARE(image.pixel(100, 60), qRgb(0, 0, 255));
        QCOMPARE(image.pixel(101, 61), qRgb(0, 0, 255));
        QCOMPARE(image.pixel(102, 60), qRgb(255, 0, 0));
        QCOMPARE(image.pixel(0, 0), qRgb(0, 0, 255));
    }

    void tileWithAZeroStepDrawsNothing()
    {
        // 1 x 1 pixel at ratio 2: a step of int(0.5) = 0 would never advance.
        const QString path = TestUtils::writeSolidImage(m_dir.path(), QStringLiteral("dot.png"), QSize(1, 1), Qt::white);
        LogRecorder recorder;
        const QPixmap result = m_worker.cachedImage(path, QRect(0, 0, 300, 200), 2.0, Tile);
        QCOMPARE(result.size(), QSize(300, 200));
        QCOMPARE(result.devicePixelRatio(), 2.0);
        QCOMPARE(toRgb(result).pixel(0, 0), qRgb(0, 0, 0));
        QCOMPARE(toRgb(result).pixel(150, 100), qRgb(0, 0, 0));
        QVERIFY(recorder.entries().isEmpty());
    }

    void tileOfAMissingFileDrawsNothing()
    {
        const QPixmap result = m_worker.tile(m_dir.filePath(QStringLiteral("gone.png")), QSize(300, 200), 1.0);
        QCOMPARE(result.size(), QSize(300, 200));
        QCOMPARE(toRgb(result).pixel(150, 100), qRgb(0, 0, 0));
    }

    void modesOfAVanishedFileGiveTheBlackCanvas()
    {
        const QString path = m_dir.filePath(QStringLiteral("vanished.png"));
        for (const QPixmap &result : {m_worker.crop(path, QSize(200, 100), 1.0), m_worker.center(path, QSize(200, 100), 1.0)}) {
            QCOMPARE(result.size(), QSize(200, 100));
            QCOMPARE(toRgb(result).pixel(100, 50), qRgb(0, 0, 0));
        }
    }

    void decodingOnceGivesTheSamePixels_data()
    {
        QTest::addColumn<int>("position");
        QTest::addColumn<double>("ratio");
        QTest::addColumn<QSize>("imageSize");
        const QList<QPair<const char *, int>> modes = {{"stretch", Stretch}, {"crop", Crop}, {"tile", Tile}, {"center", Center}};
        for (const auto &mode : modes) {
            for (double ratio : {1.0, 1.5, 2.0}) {
                // Not larger than what the mode shows of them on 480 x 270:
                // as large, smaller, wider but not as tall.
                for (const QSize &size : {QSize(480, 270), QSize(90, 130), QSize(700, 200)}) {
                    QTest::addRow("%s ratio %.1f %dx%d", mode.first, ratio, size.width(), size.height()) << mode.second << ratio << size;
                }
            }
        }
    }

    void decodingOnceGivesTheSamePixels()
    {
        // cachedImage hands the pixmap it loaded to the mode; the path-taking
        // mode functions load the whole file again, as every mode once did.
        // An image no larger than what is shown of it is read as it is, so
        // the pixels are exactly the same.
        QFETCH(int, position);
        QFETCH(double, ratio);
        QFETCH(QSize, imageSize);
        QImage source = patternImage(imageSize).convertToFormat(QImage::Format_ARGB32);
        source.setPixel(3, 3, qRgba(10, 20, 30, 40));
        const QString path = TestUtils::writeImage(m_dir.path(), QStringLiteral("once-%1x%2.png").arg(imageSize.width()).arg(imageSize.height()), source);
        const QSize target(480, 270);

        const QPixmap once = m_worker.cachedImage(path, QRect(QPoint(5, 7), target), ratio, Position(position));
        QPixmap twice;
        switch (position) {
        case Stretch:
            twice = m_worker.stretch(path, target);
            break;
        case Crop:
            twice = m_worker.crop(path, target, ratio);
            break;
        case Tile:
            twice = m_worker.tile(path, target, ratio);
            break;
        default:
            twice = m_worker.center(path, target, ratio);
            break;
        }
        QCOMPARE(once.size(), twice.size());
        QCOMPARE(once.devicePixelRatio(), twice.devicePixelRatio());
        QCOMPARE(once.toImage(), twice.toImage());
    }

    void reducedDecodingLooksLikeTheFullDecode_data()
    {
        QTest::addColumn<QByteArray>("format");
        QTest::addColumn<int>("position");
        QTest::addColumn<double>("ratio");
        QTest::addColumn<QSize>("imageSize");
        for (const QByteArray &format : {QByteArray("jpg"), QByteArray("png")}) {
            const QList<QPair<const char *, int>> modes = {{"stretch", Stretch}, {"crop", Crop}, {"unknown mode", 7}};
            for (const auto &mode : modes) {
                for (double ratio : {1.0, 1.5, 2.0}) {
                    for (const QSize &size : {QSize(2400, 1500), QSize(1500, 2400)}) {
                        QTest::addRow("%s %s ratio %.1f %dx%d", format.constData(), mode.first, ratio, size.width(), size.height())
                            << format << mode.second << ratio << size;
                    }
                }
            }
        }
    }

    void reducedDecodingLooksLikeTheFullDecode()
    {
        // Larger than the target: read already reduced by the decoder
        // instead of decoded in full and scaled smoothly afterwards. The
        // result must look the same.
        QFETCH(QByteArray, format);
        QFETCH(int, position);
        QFETCH(double, ratio);
        QFETCH(QSize, imageSize);
        const QImage source = ImageMetrics::photoLike(imageSize.width(), imageSize.height(), 11);
        const QString path =
            TestUtils::writeImage(m_dir.path(),
                                  QStringLiteral("reduced-%1x%2.%3").arg(imageSize.width()).arg(imageSize.height()).arg(QString::fromLatin1(format)),
                                  source);
        const QSize target(640, 360);

        QPixmap reduced;
        {
            LogRecorder recorder;
            reduced = m_worker.cachedImage(path, QRect(QPoint(0, 0), target), ratio, Position(position));
            // Only the unknown mode says something.
            QCOMPARE(recorder.texts(QtWarningMsg).size(), position == 7 ? 1 : 0);
        }
        const QPixmap full = position == Crop ? m_worker.crop(path, target, ratio) : m_worker.stretch(path, target);
        QCOMPARE(reduced.size(), full.size());
        QCOMPARE(reduced.devicePixelRatio(), full.devicePixelRatio());
        const double psnr = ImageMetrics::psnr(reduced.toImage(), full.toImage());
        QVERIFY2(psnr >= 38, qPrintable(QString::number(psnr)));
        qInfo("PSNR %.1f dB", psnr);
    }

    void decodingLimitCountsWhatIsDecoded_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("shown");
        const QString dir = m_dir.path();
        // A 1-bit PNG of 12000 x 12000: a few kilobytes on disk, 576 MB as a
        // 32-bit pixmap.
        QImage mono(12000, 12000, QImage::Format_Mono);
        mono.fill(0);
        QTest::newRow("1-bit png of 12000x12000") << TestUtils::writeImage(m_dir.path(), QStringLiteral("huge.png"), mono) << int(Crop) << false;

        // 23 bytes of GIF named like a JPEG: a logical screen of 16000 x 16000
        // pixels (1 GB as 32-bit pixels), one 1 x 1 frame, cut short. The
        // reader reports the frame's size; the decoder would allocate and
        // clear the screen.
        QByteArray gif("GIF87a");
        gif.append(char(16000 & 0xff)).append(char(16000 >> 8)).append(char(16000 & 0xff)).append(char(16000 >> 8));
        gif.append(char(0)).append(char(0)).append(char(0));
        gif.append(char(0x2c)).append(QByteArray(4, char(0)));
        gif.append(char(1)).append(char(0)).append(char(1)).append(char(0)).append(char(0)).append(char(2));
        const QString gifPath = m_dir.filePath(QStringLiteral("screen.jpg"));
        QFile file(gifPath);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(gif);
        file.close();
        QTest::newRow("gif screen of 16000x16000") << gifPath << int(Crop) << false;
        // Sixteen bits a channel: 8 bytes a pixel, 538 MB for 67 million
        // pixels, which a count of pixels alone took for half of its limit.
        QTest::newRow("16-bit rgba png of 8200x8200") << TestUtils::writeZeroPng(dir, QStringLiteral("deep.png"), 8200, 8200, 16, 6) << int(Crop) << false;
        // Decoded at full size whatever is shown of it: 324 MB.
        QTest::newRow("rgba png of 9000x9000") << TestUtils::writeZeroPng(dir, QStringLiteral("wide.png"), 9000, 9000, 8, 6) << int(Crop) << false;
        // A progressive JPEG keeps two bytes a pixel and component for the
        // whole image, however small its output: 268 MB here.
        QTest::newRow("progressive jpeg of 11584x11584")
            << TestUtils::writeFlatJpeg(dir, QStringLiteral("progressive.jpg"), 11584, 11584, true) << int(Crop) << false;
        // A baseline JPEG is decoded through the library's scaling into
        // little more than the screen: shown, however large.
        QTest::newRow("baseline jpeg panorama of 30000x20000")
            << TestUtils::writeFlatJpeg(dir, QStringLiteral("panorama.jpg"), 30000, 20000, false) << int(Crop) << true;
        QTest::newRow("baseline jpeg panorama, stretched")
            << TestUtils::writeFlatJpeg(dir, QStringLiteral("panorama-stretch.jpg"), 30000, 20000, false) << int(Stretch) << true;
        // Centred or tiled, only the part shown is decoded (whole, it would
        // take 2.4 GB).
        QTest::newRow("baseline jpeg panorama, centred")
            << TestUtils::writeFlatJpeg(dir, QStringLiteral("panorama-center.jpg"), 30000, 20000, false) << int(Center) << true;
        QTest::newRow("baseline jpeg panorama, tiled")
            << TestUtils::writeFlatJpeg(dir, QStringLiteral("panorama-tile.jpg"), 30000, 20000, false) << int(Tile) << true;
        // Eight bits a pixel, run-length encoded: a few hundred bytes that
        // decode into 537 MB.
        QTest::newRow("rle bmp of 11585x11585") << TestUtils::writeRleBmp(dir, QStringLiteral("rle.bmp"), 11585, 11585) << int(Crop) << false;
        // An SVG document under a PNG name: read by content, rendered at the
        // size shown; centred it would be rendered at its own 537 MB.
        if (QImageReader::supportedImageFormats().contains("svg")) {
            QFile svg(m_dir.filePath(QStringLiteral("vector.png")));
            QVERIFY(svg.open(QIODevice::WriteOnly));
            svg.write(
                "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"11585\" height=\"11585\">"
                "<rect width=\"11585\" height=\"11585\" fill=\"#808080\"/></svg>");
            svg.close();
            QTest::newRow("svg of 11585x11585 named png, cropped") << svg.fileName() << int(Crop) << true;
            QTest::newRow("svg of 11585x11585 named png, centred") << svg.fileName() << int(Center) << false;
        }
    }

    void decodingLimitCountsWhatIsDecoded()
    {
        // Fitted in a child so that its peak memory is its own.
        QFETCH(QString, path);
        QFETCH(int, mode);
        QFETCH(bool, shown);
        QVERIFY(!path.isEmpty());
        QVERIFY(QFileInfo(path).size() < 4 * 1024 * 1024);

        qint64 peakKiB = -1;
        const QStringList lines = fitInChild(path, mode, QSize(640, 480), QString(), &peakKiB);
        if (shown) {
            // A mid-grey picture, no warning.
            QCOMPARE(lines, QStringList{QStringLiteral("result 640x480 not black")});
        } else {
            QCOMPARE(lines,
                     (QStringList{QStringLiteral("warning \"ImageCacheWorker: It was not possible to load the original image: %1 \"").arg(path),
                                  QStringLiteral("result 640x480 black")}));
        }
        qInfo("peak resident memory of the child: %lld KiB", peakKiB);
        // A refused file allocates nothing; a shown one little more than the
        // screen. Every one of them would take over 250 MB decoded in full.
        QVERIFY2(peakKiB > 0 && peakKiB < 200 * 1024, qPrintable(QString::number(peakKiB)));
    }

    // No preparation holds more than the limit, intermediates included: a
    // tall screenshot in Crop on a 4K screen (scaled whole first, it made a
    // 3840 x 30720 intermediate and took 582 MB) is shown well within it.
    void tallImageInCropStaysWithinTheLimit()
    {
        QImage tall(1000, 8000, QImage::Format_RGB32);
        for (int y = 0; y < tall.height(); ++y) {
            std::fill_n(reinterpret_cast<QRgb *>(tall.scanLine(y)), tall.width(), qRgb(y % 256, 100, 200));
        }
        const QString path = TestUtils::writeImage(m_dir.path(), QStringLiteral("tall.png"), tall);
        qint64 peakKiB = -1;
        const QStringList lines = fitInChild(path, Crop, QSize(3840, 2160), QString(), &peakKiB);
        QCOMPARE(lines, QStringList{QStringLiteral("result 3840x2160 not black")});
        qInfo("peak resident memory of the child: %lld KiB", peakKiB);
        // The decoded image, the screen-sized result and its canvas, and
        // the child's own start: about half the limit.
        QVERIFY2(peakKiB > 0 && peakKiB < 200 * 1024, qPrintable(QString::number(peakKiB)));
    }

    void panoramaAtItsOwnSizeIsShownFromThePartRead_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QPoint>("region");
        // Center: half the difference of the sizes, (1920 - 16000) / 2 and
        // (1080 - 5000) / 2; Tile: the first tile from the top left.
        QTest::newRow("Center") << int(Center) << QPoint(7040, 1960);
        QTest::newRow("Tile") << int(Tile) << QPoint(0, 0);
    }

    // Tile and Center of a JPEG much larger than the screen decode only the
    // part they show: shown, exactly the matching region of the image.
    void panoramaAtItsOwnSizeIsShownFromThePartRead()
    {
        QFETCH(int, mode);
        QFETCH(QPoint, region);
        const QString path = m_dir.filePath(QStringLiteral("panorama-16000x5000.jpg"));
        if (!QFile::exists(path)) {
            QImage panorama(16000, 5000, QImage::Format_RGB32);
            for (int y = 0; y < panorama.height(); ++y) {
                QRgb *line = reinterpret_cast<QRgb *>(panorama.scanLine(y));
                for (int x = 0; x < panorama.width(); ++x) {
                    line[x] = qRgb((x * 3) % 256, (x / 64 + y / 64) % 256, (y * 5) % 256);
                }
            }
            QVERIFY(panorama.save(path, "JPEG", 90));
        }
        const QString resultFile = m_dir.filePath(QStringLiteral("panorama-result-%1.png").arg(mode));
        qint64 peakKiB = -1;
        const QStringList lines = fitInChild(path, mode, QSize(1920, 1080), resultFile, &peakKiB);
        QCOMPARE(lines, QStringList{QStringLiteral("result 1920x1080 not black")});
        qInfo("peak resident memory of the child: %lld KiB", peakKiB);
        QVERIFY2(peakKiB > 0 && peakKiB < 200 * 1024, qPrintable(QString::number(peakKiB)));
        const QImage expected = QImage(path).copy(QRect(region, QSize(1920, 1080))).convertToFormat(QImage::Format_RGB32);
        const QImage shown = QImage(resultFile).convertToFormat(QImage::Format_RGB32);
        QCOMPARE(shown.size(), expected.size());
        QVERIFY(shown == expected);
    }

    void topDownBmpShowsItsPixels_data()
    {
        addModeRows();
    }

    void topDownBmpShowsItsPixels()
    {
        // Some tools write BMP rows from the top, which the header says with
        // a negative height.
        QFETCH(int, position);
        const QImage source = patternImage(QSize(120, 90));
        QByteArray bottomUp;
        {
            QBuffer buffer(&bottomUp);
            buffer.open(QIODevice::WriteOnly);
            QVERIFY(source.save(&buffer, "BMP"));
        }
        const QString bottomUpPath = m_dir.filePath(QStringLiteral("bottom-up.bmp"));
        QFile file(bottomUpPath);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(bottomUp);
        file.close();
        // The same picture with its rows from the top: negate the height,
        // reverse the rows.
        const auto readInt = [&bottomUp](int offset) {
            return qint32(quint32(uchar(bottomUp.at(offset))) | quint32(uchar(bottomUp.at(offset + 1))) << 8 | quint32(uchar(bottomUp.at(offset + 2))) << 16
                          | quint32(uchar(bottomUp.at(offset + 3))) << 24);
        };
        const int dataOffset = readInt(10);
        const int height = readInt(22);
        const int rowBytes = (bottomUp.size() - dataOffset) / height;
        QByteArray topDown = bottomUp.left(dataOffset);
        const qint32 negative = -height;
        for (int i = 0; i < 4; ++i) {
            topDown[22 + i] = char(quint32(negative) >> (8 * i));
        }
        for (int row = height - 1; row >= 0; --row) {
            topDown.append(bottomUp.mid(dataOffset + row * rowBytes, rowBytes));
        }
        const QString topDownPath = m_dir.filePath(QStringLiteral("top-down.bmp"));
        QFile topDownFile(topDownPath);
        QVERIFY(topDownFile.open(QIODevice::WriteOnly));
        topDownFile.write(topDown);
        topDownFile.close();
        QCOMPARE(QImage(topDownPath).convertToFormat(QImage::Format_RGB32), source);

        LogRecorder recorder;
        const QRect target(0, 0, 200, 150);
        const QPixmap shown = m_worker.cachedImage(topDownPath, target, 1.0, Position(position));
        QVERIFY(recorder.entries().isEmpty());
        QCOMPARE(toRgb(shown), toRgb(m_worker.cachedImage(bottomUpPath, target, 1.0, Position(position))));
    }

    void exifOrientationIsApplied_data()
    {
        QTest::addColumn<int>("orientation");
        QTest::addColumn<int>("mode");
        QTest::addColumn<QSize>("uprightSize");
        for (int orientation = 1; orientation <= 8; ++orientation) {
            // Large enough to be read reduced, and small enough to be shown
            // whole in the centre.
            QTest::addRow("orientation %d stretch", orientation) << orientation << int(Stretch) << QSize(640, 480);
            QTest::addRow("orientation %d crop", orientation) << orientation << int(Crop) << QSize(640, 480);
            QTest::addRow("orientation %d center", orientation) << orientation << int(Center) << QSize(160, 120);
        }
    }

    void exifOrientationIsApplied()
    {
        // A photo as it was taken: red, green / blue, yellow quadrants when
        // upright. The file holds it turned or mirrored, with the EXIF
        // orientation that turns it upright again.
        QFETCH(int, orientation);
        QFETCH(int, mode);
        QFETCH(QSize, uprightSize);
        QImage upright(uprightSize, QImage::Format_RGB32);
        const int w = uprightSize.width();
        const int h = uprightSize.height();
        QPainter painter(&upright);
        painter.fillRect(0, 0, w / 2, h / 2, Qt::red);
        painter.fillRect(w / 2, 0, w - w / 2, h / 2, Qt::green);
        painter.fillRect(0, h / 2, w / 2, h - h / 2, Qt::blue);
        painter.fillRect(w / 2, h / 2, w - w / 2, h - h / 2, Qt::yellow);
        painter.end();
        // What the camera stored: the inverse of what the orientation does.
        QImage stored;
        switch (orientation) {
        case 1:
            stored = upright;
            break;
        case 2:
            stored = upright.mirrored(true, false);
            break;
        case 3:
            stored = upright.transformed(QTransform().rotate(180));
            break;
        case 4:
            stored = upright.mirrored(false, true);
            break;
        case 5:
            stored = upright.transformed(QTransform().rotate(90)).mirrored(true, false);
            break;
        case 6:
            stored = upright.transformed(QTransform().rotate(-90));
            break;
        case 7:
            stored = upright.transformed(QTransform().rotate(-90)).mirrored(true, false);
            break;
        default:
            stored = upright.transformed(QTransform().rotate(90));
            break;
        }
        QByteArray jpeg;
        {
            QBuffer buffer(&jpeg);
            buffer.open(QIODevice::WriteOnly);
            QVERIFY(stored.save(&buffer, "JPG", 95));
        }
        const QString path = m_dir.filePath(QStringLiteral("orientation-%1.jpg").arg(orientation));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(TestUtils::withExifOrientation(jpeg, orientation));
        file.close();

        const QSize target(320, 240);
        const QImage shown = toRgb(m_worker.cachedImage(path, QRect(QPoint(0, 0), target), 1.0, Position(mode)));
        QCOMPARE(shown.size(), target);
        // The quadrants' centres, where the picture is shown: the whole
        // target, or the image's own size in the middle.
        const QRect area = mode == Center ? QRect(QPoint((target.width() - w) / 2, (target.height() - h) / 2), uprightSize) : QRect(QPoint(0, 0), target);
        const int qx = area.width() / 4;
        const int qy = area.height() / 4;
        const QList<QPair<QPoint, QColor>> expected = {{area.topLeft() + QPoint(qx, qy), Qt::red},
                                                       {area.topLeft() + QPoint(3 * qx, qy), Qt::green},
                                                       {area.topLeft() + QPoint(qx, 3 * qy), Qt::blue},
                                                       {area.topLeft() + QPoint(3 * qx, 3 * qy), Qt::yellow}};
        for (const auto &point : expected) {
            QVERIFY2(TestUtils::fuzzyColor(shown.pixel(point.first), point.second, 24),
                     qPrintable(QStringLiteral("%1,%2: %3").arg(point.first.x()).arg(point.first.y()).arg(QColor(shown.pixel(point.first)).name())));
        }
    }

    void fitShowsTheWholeImageOverItsDarkenedFill_data()
    {
        QTest::addColumn<QSize>("image");
        QTest::addColumn<QRect>("fitted");
        // On a 400 x 300 screen.
        QTest::newRow("portrait") << QSize(100, 200) << QRect(125, 0, 150, 300);
        QTest::newRow("landscape") << QSize(400, 100) << QRect(0, 100, 400, 100);
        QTest::newRow("the screen's shape") << QSize(800, 600) << QRect(0, 0, 400, 300);
        // Fitted, 400 x 299: within a pixel of the screen, so it fills it,
        // with no sliver of fill.
        QTest::newRow("within a pixel") << QSize(401, 300) << QRect(0, 0, 400, 300);
    }

    // Fit: the whole image, its aspect kept, as large as fits and centred;
    // around it the same image covering the screen, blurred strongly and
    // darkened to 40 %.
    void fitShowsTheWholeImageOverItsDarkenedFill()
    {
        QFETCH(QSize, image);
        QFETCH(QRect, fitted);
        // Red on the left half, blue on the right one.
        QImage halves(image, QImage::Format_RGB32);
        halves.fill(Qt::blue);
        for (int y = 0; y < image.height(); ++y) {
            std::fill_n(reinterpret_cast<QRgb *>(halves.scanLine(y)), image.width() / 2, qRgb(255, 0, 0));
        }
        const QString path = TestUtils::writeImage(m_dir.path(), QStringLiteral("fit.png"), halves);
        const QSize screen(400, 300);
        LogRecorder recorder;
        const QImage shown = toRgb(m_worker.cachedImage(path, QRect(QPoint(), screen), 1.0, Fit));
        QVERIFY(recorder.entries().isEmpty());
        QCOMPARE(shown.size(), screen);
        const int middle = fitted.center().y();
        // The image, whole: red and blue inside its place, at its edges too.
        QVERIFY(TestUtils::fuzzyColor(shown.pixel(fitted.left() + 2, middle), Qt::red, 2));
        QVERIFY(TestUtils::fuzzyColor(shown.pixel(fitted.right() - 2, middle), Qt::blue, 2));
        QVERIFY(TestUtils::fuzzyColor(shown.pixel(fitted.center().x(), fitted.top()), Qt::red, 128));
        const QColor darkRed(102, 0, 0);
        const QColor darkBlue(0, 0, 102);
        if (fitted.width() < screen.width()) {
            QVERIFY(TestUtils::fuzzyColor(shown.pixel(5, 150), darkRed, 2));
            QVERIFY(TestUtils::fuzzyColor(shown.pixel(394, 150), darkBlue, 2));
        } else if (fitted.height() < screen.height()) {
            QVERIFY(TestUtils::fuzzyColor(shown.pixel(60, 50), darkRed, 2));
            QVERIFY(TestUtils::fuzzyColor(shown.pixel(340, 250), darkBlue, 2));
            // Blurred: where red meets blue in the fill, a mix of both.
            const QRgb mix = shown.pixel(200, 50);
            QVERIFY2(qRed(mix) > 20 && qBlue(mix) > 20, qPrintable(QColor(mix).name()));
        } else {
            // Filled by the image itself: no darkened pixel anywhere.
            QVERIFY(TestUtils::fuzzyColor(shown.pixel(0, 0), Qt::red, 2));
            QVERIFY(TestUtils::fuzzyColor(shown.pixel(399, 299), Qt::blue, 2));
        }
    }

    void everyFormatIsReadWithItsSize_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("exactColour");
        const QSize size(36, 20);
        const QImage white = [size] {
            QImage image(size, QImage::Format_RGB32);
            image.fill(Qt::white);
            return image;
        }();
        for (const char *format : {"png", "jpg", "bmp", "pbm", "pgm", "ppm", "xbm", "xpm"}) {
            QTest::newRow(format) << TestUtils::writeImage(m_dir.path(), QStringLiteral("format.%1").arg(QLatin1String(format)), white) << size
                                  << (qstrcmp(format, "jpg") != 0);
        }
        // Qt reads GIF but does not write it: a 36 x 20 white GIF by hand
        // (a one-colour palette and one LZW code stream of clear, 720 times
        // index 0 through repeated codes, end).
        QByteArray gif("GIF89a");
        gif.append(char(36)).append(char(0)).append(char(20)).append(char(0));
        gif.append(char(0x80)).append(char(0)).append(char(0));
        gif.append(char(0xff)).append(char(0xff)).append(char(0xff)).append(char(0)).append(char(0)).append(char(0));
        gif.append(char(0x2c)).append(QByteArray(4, char(0)));
        gif.append(char(36)).append(char(0)).append(char(20)).append(char(0)).append(char(0));
        gif.append(gifWhiteData(36 * 20));
        gif.append(char(0x3b));
        const QString gifPath = m_dir.filePath(QStringLiteral("format.gif"));
        QFile gifFile(gifPath);
        QVERIFY(gifFile.open(QIODevice::WriteOnly));
        gifFile.write(gif);
        gifFile.close();
        QTest::newRow("gif") << gifPath << size << true;
        // Today's formats, written by the installed image plug-ins; the
        // lossy ones at their best quality.
        for (const char *format : {"webp", "tif", "tiff", "heic", "avif", "jxl"}) {
            if (!QImageWriter::supportedImageFormats().contains(format)) {
                continue;
            }
            const QString path = m_dir.filePath(QStringLiteral("format.%1").arg(QLatin1String(format)));
            QImageWriter writer(path, format);
            writer.setQuality(100);
            QVERIFY2(writer.write(white), qPrintable(writer.errorString()));
            QTest::newRow(format) << path << size << (qstrcmp(format, "tif") == 0 || qstrcmp(format, "tiff") == 0);
        }
        if (QImageReader::supportedImageFormats().contains("svg")) {
            const QString svgPath = m_dir.filePath(QStringLiteral("format.svg"));
            QFile svg(svgPath);
            QVERIFY(svg.open(QIODevice::WriteOnly));
            svg.write("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"36\" height=\"20\"><rect width=\"36\" height=\"20\" fill=\"#ffffff\"/></svg>");
            svg.close();
            QTest::newRow("svg") << svgPath << size << true;
        }
    }

    void everyFormatIsReadWithItsSize()
    {
        // Centred on black: the white image shows exactly where its header
        // says its size is.
        QFETCH(QString, path);
        QFETCH(QSize, size);
        QFETCH(bool, exactColour);
        QVERIFY(!path.isEmpty());
        LogRecorder recorder;
        const QSize target(200, 150);
        const QImage shown = toRgb(m_worker.cachedImage(path, QRect(QPoint(0, 0), target), 1.0, Center));
        QVERIFY(recorder.entries().isEmpty());
        const QRect area(QPoint((target.width() - size.width()) / 2, (target.height() - size.height()) / 2), size);
        const int fuzz = exactColour ? 0 : 8;
        QVERIFY(TestUtils::fuzzyColor(shown.pixel(area.topLeft()), Qt::white, fuzz));
        QVERIFY(TestUtils::fuzzyColor(shown.pixel(area.bottomRight()), Qt::white, fuzz));
        QCOMPARE(shown.pixel(area.topLeft() - QPoint(1, 1)), qRgb(0, 0, 0));
        QCOMPARE(shown.pixel(area.bottomRight() + QPoint(1, 1)), qRgb(0, 0, 0));
    }
};

// The child of decodingLimitCountsWhatIsDecoded: fit the file, report the
// warnings, the result and the peak memory on standard output.
static int runFittingChild(int argc, char **argv, const QString &path, Position mode)
{
    QGuiApplication app(argc, argv);
    const QStringList sides = qEnvironmentVariable(childSizeEnvironment, QStringLiteral("640x480")).split(QLatin1Char('x'));
    const QSize size(sides.value(0).toInt(), sides.value(1).toInt());
    QStringList warnings;
    {
        LogRecorder recorder;
        const QPixmap result = ImageCacheWorker().cachedImage(path, QRect(QPoint(), size), 1.0, mode);
        warnings = recorder.texts(QtWarningMsg);
        for (const QString &text : warnings) {
            std::printf("warning %s\n", qPrintable(text));
        }
        const bool black = !result.isNull() && result.toImage().pixel(size.width() / 2, size.height() / 2) == qRgb(0, 0, 0);
        std::printf("result %dx%d %s\n", result.width(), result.height(), black ? "black" : "not black");
        const QString resultFile = qEnvironmentVariable(childResultEnvironment);
        if (!resultFile.isEmpty()) {
            result.save(resultFile, "PNG");
        }
    }
    std::printf("peak %lld\n", TestUtils::peakResidentKiB());
    return 0;
}

int main(int argc, char **argv)
{
    const QString childPath = qEnvironmentVariable(childEnvironment);
    if (!childPath.isEmpty()) {
        return runFittingChild(argc, argv, childPath, Position(qEnvironmentVariableIntValue(childModeEnvironment)));
    }
    return TestUtils::runWidgetTest<ImageFittingTest>(argc, argv);
}

#include "imagefittingtest.moc"
