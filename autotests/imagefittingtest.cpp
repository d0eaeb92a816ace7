/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "imagecache/imagecacheworker.h"
#include "imagemetrics.h"
#include "testutils.h"

#include <QImageReader>
#include <QImageWriter>
#include <QPainter>
#include <QTemporaryDir>
#include <QTransform>
#include <QtEndian>

using namespace Dm::ScreenSaver;

// The "Position" setting stores these numbers: a change breaks every stored
// setting, and the build.
static_assert(int(Stretch) == 0 && int(Crop) == 1 && int(Tile) == 2 && int(Center) == 3 && int(Fit) == 4, "the fitting modes' stored values");
using TestUtils::loadWarning;
using TestUtils::LogEntry;
using TestUtils::LogRecorder;
using TestUtils::writeFile;

namespace
{
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

// The modes of the first design, by name.
const QList<QPair<const char *, int>> firstModes = {{"stretch", Stretch}, {"crop", Crop}, {"tile", Tile}, {"center", Center}};

// A canvas of the colour with the rectangles painted on it.
QImage canvas(const QSize &size, const QColor &background, const QList<QPair<QRect, QColor>> &areas = {})
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(background);
    QPainter painter(&image);
    for (const auto &area : areas) {
        painter.fillRect(area.first, area.second);
    }
    return image;
}

QImage toRgb(const QPixmap &pixmap)
{
    return pixmap.toImage().convertToFormat(QImage::Format_RGB32);
}
}

class ImageFittingTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    ImageCacheWorker m_worker;

    // The mode function of that position that takes a path.
    QPixmap byPath(int position, const QString &path, const QSize &target, double ratio)
    {
        return position == Crop  ? m_worker.crop(path, target, ratio)
            : position == Tile   ? m_worker.tile(path, target, ratio)
            : position == Center ? m_worker.center(path, target, ratio)
                                 : m_worker.stretch(path, target);
    }

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

    void modesPaintTheExpectedCanvas_data()
    {
        QTest::addColumn<QImage>("source");
        QTest::addColumn<int>("position");
        QTest::addColumn<double>("ratio");
        QTest::addColumn<QImage>("expected");
        QTest::addColumn<double>("pixelRatio");
        const QImage white = canvas(QSize(1000, 500), Qt::white);
        const QSize fullHd(1920, 1080);
        QTest::newRow("crop, ratio 2") << canvas(QSize(400, 300), Qt::white) << int(Crop) << 2.0 << canvas(QSize(640, 360), Qt::white) << 2.0;
        QTest::newRow("center, ratio 1") << white << int(Center) << 1.0 << canvas(fullHd, Qt::black, {{QRect(460, 290, 1000, 500), Qt::white}}) << 1.0;
        // At ratio 2 the image is drawn at (230, 145) logical, that is the
        // same device pixel, but at its own logical size, twice as large.
        QTest::newRow("center, ratio 2") << white << int(Center) << 2.0 << canvas(fullHd, Qt::black, {{QRect(460, 290, 1460, 790), Qt::white}}) << 2.0;
        // Cut on all sides: x = (1920 - 3000) / 2 = -540, y = (1080 - 2000) / 2 = -460.
        const QImage large = patternImage(QSize(3000, 2000));
        QTest::newRow("center, large") << large << int(Center) << 1.0 << large.copy(540, 460, 1920, 1080) << 1.0;
        // Stretch fills the canvas, whatever the shape of the file, at ratio 1.
        const QColor green(10, 200, 30);
        QTest::newRow("stretch") << canvas(QSize(300, 100), green) << int(Stretch) << 2.0 << canvas(QSize(400, 400), green) << 1.0;
        // 1 x 1 pixel at ratio 2: a step of int(0.5) = 0 would never advance.
        QTest::newRow("tile, zero step") << canvas(QSize(1, 1), Qt::white) << int(Tile) << 2.0 << canvas(QSize(300, 200), Qt::black) << 2.0;
        // A tile starts every 100 x 60 device pixels, its blue corner pixel
        // drawn ratio device pixels wide. At ratio 2, steps of 50 logical
        // pixels, tiles of 100: each tile is overwritten by the next one from
        // its middle on.
        const QImage tile = canvas(QSize(100, 60), Qt::red, {{QRect(0, 0, 1, 1), Qt::blue}});
        for (int ratio : {1, 2}) {
            const QSize target = ratio == 1 ? QSize(250, 130) : QSize(400, 240);
            QList<QPair<QRect, QColor>> corners;
            for (int x = 0; x < target.width(); x += 100) {
                for (int y = 0; y < target.height(); y += 60) {
                    corners.append({QRect(x, y, ratio, ratio), Qt::blue});
                }
            }
            QTest::addRow("tile, ratio %d", ratio) << tile << int(Tile) << double(ratio) << canvas(target, Qt::red, corners) << double(ratio);
        }
    }

    // Each mode paints the file on a black canvas of the target's size.
    void modesPaintTheExpectedCanvas()
    {
        QFETCH(QImage, source);
        QFETCH(int, position);
        QFETCH(double, ratio);
        QFETCH(QImage, expected);
        QFETCH(double, pixelRatio);
        const QString path = TestUtils::writeImage(m_dir.path(), QStringLiteral("canvas.png"), source);
        LogRecorder recorder;
        const QPixmap result = m_worker.cachedImage(path, QRect(QPoint(), expected.size()), ratio, Position(position));
        QVERIFY(recorder.entries().isEmpty());
        QCOMPARE(result.devicePixelRatio(), pixelRatio);
        QString why;
        QVERIFY2(TestUtils::fuzzyEqual(toRgb(result), expected, 0, &why), qPrintable(why));
    }

    void unloadableFileGivesABlackCanvas_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("position");
        // No file at all, in every mode.
        for (const auto &mode : firstModes) {
            QTest::addRow("missing, %s", mode.first) << QByteArray() << mode.second;
        }
        QTest::newRow("empty") << QByteArray("") << int(Crop);
        QTest::newRow("text") << QByteArray("this is not an image\n") << int(Crop);
        QTest::newRow("truncated png") << TestUtils::encoded(patternImage(QSize(64, 64)), "PNG").left(40) << int(Crop);
    }

    void unloadableFileGivesABlackCanvas()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, position);
        const QString path =
            m_dir.filePath(QStringLiteral("bad-%1.jpg").arg(QString::fromLatin1(QTest::currentDataTag())).replace(QLatin1Char(' '), QLatin1Char('-')));
        if (!content.isNull()) {
            QVERIFY(!writeFile(path, content).isEmpty());
        }

        LogRecorder recorder;
        const QPixmap result = m_worker.cachedImage(path, QRect(10, 20, 300, 200), 1.5, Position(position));
        COMPARE_LOG(recorder, {TestUtils::warningEntry(loadWarning(path))});
        QCOMPARE(result.devicePixelRatio(), 1.5);
        QVERIFY(TestUtils::fuzzyEqual(result.toImage(), canvas(QSize(300, 200), Qt::black), 0));
        if (content.isNull()) {
            // Nor does Qt say anything of a file that is not there.
            QCOMPARE(recorder.entries().size(), 1);
            // Of the mode functions that load the file themselves, Stretch
            // gives nothing, the others the black canvas.
            const QPixmap direct = byPath(position, path, QSize(200, 100), 1.0);
            QCOMPARE(direct.isNull(), position == Stretch);
            QVERIFY(direct.isNull() || TestUtils::fuzzyEqual(direct.toImage(), canvas(QSize(200, 100), Qt::black), 0));
        }
    }

    void preparedLikeByTheModeFunctions_data()
    {
        QTest::addColumn<QByteArray>("format");
        QTest::addColumn<int>("position");
        QTest::addColumn<double>("ratio");
        QTest::addColumn<QSize>("imageSize");
        // An unknown mode stretches.
        for (const auto &mode : firstModes + QList<QPair<const char *, int>>{{"unknown mode", 7}}) {
            for (double ratio : {1.0, 1.5, 2.0}) {
                // Not larger than what the mode shows of them on 480 x 270:
                // as large, smaller, wider but not as tall.
                for (const QSize &size : {QSize(480, 270), QSize(90, 130), QSize(700, 200)}) {
                    QTest::addRow("%s ratio %.1f %dx%d", mode.first, ratio, size.width(), size.height()) << QByteArray("png") << mode.second << ratio << size;
                }
                // Larger than 640 x 360, where Stretch and Crop show them whole
                // or nearly.
                for (const QByteArray &format : {QByteArray("jpg"), QByteArray("png")}) {
                    for (const QSize &size : {QSize(2400, 1500), QSize(1500, 2400)}) {
                        if (mode.second != Tile && mode.second != Center) {
                            QTest::addRow("%s %s ratio %.1f %dx%d", format.constData(), mode.first, ratio, size.width(), size.height())
                                << format << mode.second << ratio << size;
                        }
                    }
                }
            }
        }
    }

    // cachedImage hands the pixmap it loaded to the mode; the mode functions
    // that take a path load the whole file again, as every mode once did. An
    // image no larger than what is shown of it is read as it is, to the same
    // pixels; a larger one is read already reduced by the decoder instead of
    // decoded in full and scaled smoothly afterwards, and must look the same.
    void preparedLikeByTheModeFunctions()
    {
        QFETCH(QByteArray, format);
        QFETCH(int, position);
        QFETCH(double, ratio);
        QFETCH(QSize, imageSize);
        const bool reduced = imageSize.width() > 1000 || imageSize.height() > 1000;
        QImage source = ImageMetrics::photoLike(imageSize.width(), imageSize.height(), 11);
        if (!reduced) {
            source = patternImage(imageSize).convertToFormat(QImage::Format_ARGB32);
            source.setPixel(3, 3, qRgba(10, 20, 30, 40));
        }
        const QString name = QStringLiteral("prepared-%1x%2.%3").arg(imageSize.width()).arg(imageSize.height()).arg(QString::fromLatin1(format));
        const QString path = TestUtils::writeImage(m_dir.path(), name, source);
        const QSize target = reduced ? QSize(640, 360) : QSize(480, 270);

        LogRecorder recorder;
        const QPixmap once = m_worker.cachedImage(path, QRect(QPoint(5, 7), target), ratio, Position(position));
        // Only the unknown mode says something.
        COMPARE_LOG(recorder, position == 7 ? QList<LogEntry>{TestUtils::warningEntry(TestUtils::logText(LogText::unknownPosition, path))} : QList<LogEntry>());
        const QPixmap full = byPath(position, path, target, ratio);
        QCOMPARE(once.size(), full.size());
        QCOMPARE(once.devicePixelRatio(), full.devicePixelRatio());
        if (!reduced) {
            QCOMPARE(once.toImage(), full.toImage());
            return;
        }
        const double psnr = ImageMetrics::psnr(once.toImage(), full.toImage());
        QVERIFY2(psnr >= 38, qPrintable(QString::number(psnr)));
        qInfo("PSNR %.1f dB", psnr);
    }

    void largeFilesAreShownFromWhatIsDecoded_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("mode");
        QTest::addColumn<QSize>("screen");
        // Where set, the part of the file that is shown exactly.
        QTest::addColumn<QRect>("region");
        // Each would take over 250 MB decoded in full; the preparation holds
        // little more than the screen of them (robustnesstest measures it,
        // and that the files over the decoding limit are refused).
        const QString dir = m_dir.path();
        const QSize screen(640, 480);
        // A baseline JPEG is decoded through the library's scaling into little
        // more than the screen, however large; centred or tiled, only the part
        // shown is decoded (whole, it would take 2.4 GB).
        const QString panorama = TestUtils::writeFlatJpeg(dir, QStringLiteral("panorama.jpg"), 30000, 20000, false);
        for (const auto &mode : firstModes) {
            QTest::addRow("baseline jpeg panorama of 30000x20000, %s", mode.first) << panorama << mode.second << screen << QRect();
        }
        // An SVG document under a PNG name: read by content, rendered at the
        // size shown (centred it would be rendered at its own 537 MB).
        if (QImageReader::supportedImageFormats().contains("svg")) {
            const QString svg = writeFile(m_dir.filePath(QStringLiteral("vector.png")), TestUtils::whiteSvg(QSize(11585, 11585)));
            QTest::newRow("svg of 11585x11585 named png, cropped") << svg << int(Crop) << screen << QRect();
        }
        const QString tall = TestUtils::writeImage(dir, QStringLiteral("tall.png"), TestUtils::tallScreenshot());
        QTest::newRow("tall png in crop on a 4k screen") << tall << int(Crop) << QSize(3840, 2160) << QRect();
        // Tile and Center of a JPEG much larger than the screen decode only
        // the part they show: exactly the matching region of the image.
        // Center: half the difference of the sizes, (1920 - 16000) / 2 and
        // (1080 - 5000) / 2; Tile: the first tile from the top left.
        const QString widePath = m_dir.filePath(QStringLiteral("panorama-16000x5000.jpg"));
        QVERIFY(patternImage(QSize(16000, 5000)).save(widePath, "JPEG", 90));
        const QSize fullHd(1920, 1080);
        QTest::newRow("jpeg of 16000x5000, centred") << widePath << int(Center) << fullHd << QRect(QPoint(7040, 1960), fullHd);
        QTest::newRow("jpeg of 16000x5000, tiled") << widePath << int(Tile) << fullHd << QRect(QPoint(0, 0), fullHd);
    }

    void largeFilesAreShownFromWhatIsDecoded()
    {
        QFETCH(QString, path);
        QFETCH(int, mode);
        QFETCH(QSize, screen);
        QFETCH(QRect, region);
        QVERIFY(!path.isEmpty());

        // A picture, no warning.
        LogRecorder recorder;
        const QImage result = toRgb(m_worker.cachedImage(path, QRect(QPoint(), screen), 1.0, Position(mode)));
        QCOMPARE(recorder.texts(QtWarningMsg), QStringList());
        QCOMPARE(result.size(), screen);
        QVERIFY(result.pixel(screen.width() / 2, screen.height() / 2) != qRgb(0, 0, 0));
        if (region.isValid()) {
            QVERIFY(result == QImage(path).copy(region).convertToFormat(QImage::Format_RGB32));
        }
    }

    void topDownBmpShowsItsPixels_data()
    {
        QTest::addColumn<int>("position");
        for (const auto &mode : firstModes) {
            QTest::newRow(mode.first) << mode.second;
        }
    }

    void topDownBmpShowsItsPixels()
    {
        // Some tools write BMP rows from the top, which the header says with
        // a negative height.
        QFETCH(int, position);
        const QImage source = patternImage(QSize(120, 90));
        const QByteArray bottomUp = TestUtils::encoded(source, "BMP");
        const QString bottomUpPath = writeFile(m_dir.filePath(QStringLiteral("bottom-up.bmp")), bottomUp);
        // The same picture with its rows from the top: negate the height,
        // reverse the rows.
        const int dataOffset = qFromLittleEndian<qint32>(bottomUp.constData() + 10);
        const int height = qFromLittleEndian<qint32>(bottomUp.constData() + 22);
        const int rowBytes = (bottomUp.size() - dataOffset) / height;
        QByteArray topDown = bottomUp.left(dataOffset);
        const qint32 negated = qToLittleEndian<qint32>(-height);
        topDown.replace(22, 4, reinterpret_cast<const char *>(&negated), 4);
        for (int row = height - 1; row >= 0; --row) {
            topDown.append(bottomUp.mid(dataOffset + row * rowBytes, rowBytes));
        }
        const QString topDownPath = writeFile(m_dir.filePath(QStringLiteral("top-down.bmp")), topDown);
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
        const int w = uprightSize.width();
        const int h = uprightSize.height();
        const QImage upright =
            canvas(uprightSize,
                   Qt::yellow,
                   {{QRect(0, 0, w / 2, h / 2), Qt::red}, {QRect(w / 2, 0, w - w / 2, h / 2), Qt::green}, {QRect(0, h / 2, w / 2, h - h / 2), Qt::blue}});
        // What the camera stored: the inverse of what the orientation does.
        // Turned by these degrees, and mirrored left to right for 2, 4, 5
        // and 7.
        const int turns[] = {0, 0, 180, 180, 90, -90, -90, 90};
        const bool mirrored = orientation == 2 || orientation == 4 || orientation == 5 || orientation == 7;
        const QImage stored = upright.transformed(QTransform().rotate(turns[orientation - 1])).mirrored(mirrored, false);
        const QString path = writeFile(m_dir.filePath(QStringLiteral("orientation-%1.jpg").arg(orientation)),
                                       TestUtils::withExifOrientation(TestUtils::encoded(stored, "JPG", 95), orientation));
        QVERIFY(!path.isEmpty());

        const QSize target(320, 240);
        const QImage shown = toRgb(m_worker.cachedImage(path, QRect(QPoint(0, 0), target), 1.0, Position(mode)));
        QCOMPARE(shown.size(), target);
        // The quadrants' centres, where the picture is shown: the whole
        // target, or the image's own size in the middle.
        const QRect area = mode == Center ? QRect(QPoint((target.width() - w) / 2, (target.height() - h) / 2), uprightSize) : QRect(QPoint(0, 0), target);
        const QColor colours[] = {Qt::red, Qt::green, Qt::blue, Qt::yellow};
        for (int i = 0; i < 4; ++i) {
            const QPoint point = area.topLeft() + QPoint((1 + 2 * (i % 2)) * area.width() / 4, (1 + 2 * (i / 2)) * area.height() / 4);
            QVERIFY2(TestUtils::fuzzyColor(shown.pixel(point), colours[i], 24),
                     qPrintable(QStringLiteral("%1,%2: %3").arg(point.x()).arg(point.y()).arg(QColor(shown.pixel(point)).name())));
        }
    }

    void fitShowsTheWholeImageOverItsDarkenedFill_data()
    {
        QTest::addColumn<QSize>("image");
        QTest::addColumn<QRect>("fitted");
        // A red and a blue pixel of the fill (of the image itself where it
        // fills the screen); where the fill's red meets its blue, if shown.
        QTest::addColumn<QPoint>("red");
        QTest::addColumn<QPoint>("blue");
        QTest::addColumn<QPoint>("mix");
        // On a 400 x 300 screen.
        QTest::newRow("portrait") << QSize(100, 200) << QRect(125, 0, 150, 300) << QPoint(5, 150) << QPoint(394, 150) << QPoint();
        QTest::newRow("landscape") << QSize(400, 100) << QRect(0, 100, 400, 100) << QPoint(60, 50) << QPoint(340, 250) << QPoint(200, 50);
        QTest::newRow("the screen's shape") << QSize(800, 600) << QRect(0, 0, 400, 300) << QPoint(0, 0) << QPoint(399, 299) << QPoint();
        // Fitted, 400 x 299: within a pixel of the screen, so it fills it,
        // with no sliver of fill.
        QTest::newRow("within a pixel") << QSize(401, 300) << QRect(0, 0, 400, 300) << QPoint(0, 0) << QPoint(399, 299) << QPoint();
    }

    // Fit: the whole image, its aspect kept, as large as fits and centred;
    // around it the same image covering the screen, blurred strongly and
    // darkened to 40 %.
    void fitShowsTheWholeImageOverItsDarkenedFill()
    {
        QFETCH(QSize, image);
        QFETCH(QRect, fitted);
        QFETCH(QPoint, red);
        QFETCH(QPoint, blue);
        QFETCH(QPoint, mix);
        // Red on the left half, blue on the right one.
        const QImage halves = canvas(image, Qt::blue, {{QRect(0, 0, image.width() / 2, image.height()), Qt::red}});
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
        // Darkened to 40 % unless filled by the image itself.
        const int level = fitted.size() == screen ? 255 : 102;
        QVERIFY(TestUtils::fuzzyColor(shown.pixel(red), QColor(level, 0, 0), 2));
        QVERIFY(TestUtils::fuzzyColor(shown.pixel(blue), QColor(0, 0, level), 2));
        // Blurred: a mix of both.
        const QRgb mixed = shown.pixel(mix);
        QVERIFY2(mix.isNull() || (qRed(mixed) > 20 && qBlue(mixed) > 20), qPrintable(QColor(mixed).name()));
    }

    void everyFormatIsReadWithItsSize_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("exactColour");
        const QSize size(36, 20);
        QImage white(size, QImage::Format_RGB32);
        white.fill(Qt::white);
        for (const char *format : {"png", "jpg", "bmp", "pbm", "pgm", "ppm", "xbm", "xpm"}) {
            QTest::newRow(format) << TestUtils::writeImage(m_dir.path(), QStringLiteral("format.%1").arg(QLatin1String(format)), white) << size
                                  << (qstrcmp(format, "jpg") != 0);
        }
        // Qt reads GIF but does not write it: a 36 x 20 white GIF by hand, a
        // palette of white and black and the LZW codes of 720 times index 0.
        const QByteArray gif = QByteArray::fromHex(
            "474946383961 2400 1400 800000 ffffff 000000 2c 00000000 2400 1400 00 02 19 848fa9cbed0fa39cb4da8bb3debcfb0f86e24896e689a65501 00 3b");
        QTest::newRow("gif") << writeFile(m_dir.filePath(QStringLiteral("format.gif")), gif) << size << true;
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
            QTest::newRow("svg") << writeFile(m_dir.filePath(QStringLiteral("format.svg")), TestUtils::whiteSvg(size)) << size << true;
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

int main(int argc, char **argv)
{
    return TestUtils::runWidgetTest<ImageFittingTest>(argc, argv);
}

#include "imagefittingtest.moc"
