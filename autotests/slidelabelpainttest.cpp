/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// How SlideLabel paints: the cross-fade of the previous and the current
// slide, a single slide, the text shown without images; when it repaints
// (setOpacity, the worker's reports) and what a resize asks the worker for.

#include "imagecache/imagecacheworker.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"
#include "slidelabeltesthelpers.h"
#include "testutils.h"

#include <QApplication>
#include <QDir>
#include <QFont>
#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QTemporaryDir>
#include <QTest>

#include <map>
#include <memory>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::LogRecorder;

namespace
{
// Small enough for the worker to prepare the slides without Qt's threaded
// scaling, large enough for a valid device geometry.
const QSize labelSize(240, 180);

const QRectF labelRect(0, 0, labelSize.width(), labelSize.height());
const QPainter::RenderHints labelHints = QPainter::Antialiasing | QPainter::SmoothPixmapTransform;

const QString fallbackText = QStringLiteral("The image is not found in the catalog or the catalog is not indicated in the settings ...");

LabelPointer makeShownLabel(const QSize &size = labelSize)
{
    LabelPointer label(new SlideLabel);
    label->resize(size);
    label->show();
    if (!QTest::qWaitForWindowExposed(label.get())) {
        return nullptr;
    }
    QCoreApplication::processEvents();
    return label;
}

// What the label paints by itself, over a known background: no window
// background of the toolkit's own.
QImage renderLabel(SlideLabel &label, const QColor &background)
{
    QImage image(label.size(), QImage::Format_ARGB32_Premultiplied);
    image.fill(background);
    label.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    return image;
}

QPixmap cachedSlide(SlideLabel &label, const QString &path)
{
    return inspect(label).worker()->getCachedImage(path, deviceGeometry(label), label.devicePixelRatioF(), inspect(label).fittingMode());
}

// Every pixel different from its neighbours; with alpha, every alpha value
// from fully transparent to opaque occurs.
QImage patternImage(const QSize &size, bool withAlpha, int seed)
{
    QImage image(size, withAlpha ? QImage::Format_ARGB32 : QImage::Format_RGB32);
    for (int y = 0; y < size.height(); ++y) {
        QRgb *line = reinterpret_cast<QRgb *>(image.scanLine(y));
        for (int x = 0; x < size.width(); ++x) {
            const int alpha = withAlpha ? (x * 7 + y * 3 + seed) % 256 : 255;
            line[x] = qRgba((x * 5 + seed) % 256, (y * 11 + seed * 3) % 256, (x * 3 + y * 2 + seed * 7) % 256, alpha);
        }
    }
    return image;
}

// The two ways of drawing one slide with its weight onto the target.
enum class Layer { None, Pixmap, Image };

void drawSlide(QPainter &painter, const QPixmap &slide, double weight, const QSize &widgetSize, Layer layer)
{
    const QRectF target(0, 0, widgetSize.width(), widgetSize.height());
    switch (layer) {
    case Layer::None:
        painter.setOpacity(weight);
        painter.drawPixmap(target, slide, QRectF());
        painter.setOpacity(1.0);
        return;
    case Layer::Pixmap: {
        QPixmap pixmap(widgetSize);
        pixmap.fill(Qt::transparent);
        QPainter layerPainter(&pixmap);
        layerPainter.setOpacity(weight);
        layerPainter.drawPixmap(target, slide, QRectF());
        layerPainter.end();
        painter.drawPixmap(target, pixmap, QRectF());
        return;
    }
    case Layer::Image: {
        QImage image(widgetSize, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter layerPainter(&image);
        layerPainter.setOpacity(weight);
        layerPainter.drawPixmap(target, slide, QRectF());
        layerPainter.end();
        painter.drawImage(target, image, QRectF());
        return;
    }
    }
}

// The cross-fade as the label composes it: while the fade runs (opacity
// below 1) the previous slide at full weight, then the current one with the
// weight opacity; a null slide is left out. (The first design drew the
// previous slide with the weight 1 - opacity, so that the background showed
// through the middle of every fade.)
QImage compose(const QImage &background, const QPixmap &previous, const QPixmap &current, double opacity, Layer layer)
{
    QImage image = background.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&image);
    painter.setRenderHints(labelHints);
    painter.fillRect(QRect(QPoint(), image.size()), Qt::transparent);
    if (!previous.isNull() && opacity < 1.0) {
        drawSlide(painter, previous, 1.0, image.size(), layer);
    }
    if (!current.isNull()) {
        drawSlide(painter, current, opacity, image.size(), layer);
    }
    painter.end();
    return image;
}

QImage solidImage(const QSize &size, const QColor &color)
{
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.fill(color);
    return image;
}

// Every pixel within the fuzz of one premultiplied value.
QString uniformWithin(const QImage &image, QRgb expected, int fuzz)
{
    const QImage converted = image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    for (int y = 0; y < converted.height(); ++y) {
        const QRgb *line = reinterpret_cast<const QRgb *>(converted.constScanLine(y));
        for (int x = 0; x < converted.width(); ++x) {
            const QRgb p = line[x];
            if (qAbs(qRed(p) - qRed(expected)) > fuzz || qAbs(qGreen(p) - qGreen(expected)) > fuzz || qAbs(qBlue(p) - qBlue(expected)) > fuzz
                || qAbs(qAlpha(p) - qAlpha(expected)) > fuzz) {
                return QStringLiteral("pixel (%1, %2) is %3, expected %4 (premultiplied)")
                    .arg(x)
                    .arg(y)
                    .arg(p, 8, 16, QLatin1Char('0'))
                    .arg(expected, 8, 16, QLatin1Char('0'));
            }
        }
    }
    return QString();
}

// On a mismatch the actual picture is kept beside the test for a look.
QString keep(const QImage &image, const QString &name)
{
    const QString path = QDir(QCoreApplication::applicationDirPath()).filePath(name + QStringLiteral(".png"));
    image.save(path);
    return path;
}

#define COMPARE_IMAGES(actual, expected, name)                                                                                                                 \
    do {                                                                                                                                                       \
        const QString difference = firstDifference((actual), (expected));                                                                                      \
        if (!difference.isEmpty()) {                                                                                                                           \
            const QString kept = keep((actual), (name));                                                                                                       \
            QFAIL(qPrintable(difference + QStringLiteral(", actual image kept as ") + kept));                                                                  \
        }                                                                                                                                                      \
    } while (false)

// The fallback text as the label should draw it, with the label's own font
// at the given pixel size (0 keeps the font as it is, and then its size in
// pixels depends on the resolution of the label's screen).
QImage expectedText(const QWidget &label, int pixelSize)
{
    const QSize size = label.size();
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.setDotsPerMeterX(qRound(label.logicalDpiX() / 0.0254));
    image.setDotsPerMeterY(qRound(label.logicalDpiY() / 0.0254));
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHints(labelHints);
    QFont font = label.font();
    if (pixelSize > 0) {
        font.setPixelSize(pixelSize);
    }
    painter.setFont(font);
    painter.setPen(QColor(Qt::white));
    painter.drawText(QRect(QPoint(), size), Qt::AlignCenter, fallbackText);
    painter.end();
    return image;
}
}

class SlideLabelPaintTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_red;
    QString m_blue;
    QString m_twoSolid;
    QString m_threeSolid;
    QString m_oneSolid;
    QString m_patterns;
    QString m_empty;

    // A label on a directory, shown, with the given slides ready.
    LabelPointer labelWithCached(const QString &directory, const QStringList &cached)
    {
        auto label = makeShownLabel();
        if (!label) {
            return nullptr;
        }
        if (!setDirAndWait(*label, directory)) {
            return nullptr;
        }
        for (const QString &path : cached) {
            if (!QTest::qWaitFor(
                    [&] {
                        return !cachedSlide(*label, path).isNull();
                    },
                    10000)) {
                return nullptr;
            }
        }
        waitUntilIdle(inspect(label).worker());
        return label;
    }

    // One label per directory for the data-driven paint checks, which only
    // change the opacity: made once, kept to the end.
    std::map<QString, LabelPointer> m_sharedLabels;

    SlideLabel *sharedLabel(const QString &directory, const QStringList &cached)
    {
        LabelPointer &label = m_sharedLabels[directory];
        if (!label) {
            label = labelWithCached(directory, cached);
        }
        return label.get();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        TestUtils::setSlideShowDebugEnabled(true);
        const QDir root(m_dir.path());
        for (const char *name : {"two", "three", "one", "patterns", "empty"}) {
            QVERIFY(root.mkdir(QLatin1String(name)));
        }
        m_twoSolid = root.filePath(QStringLiteral("two"));
        m_threeSolid = root.filePath(QStringLiteral("three"));
        m_oneSolid = root.filePath(QStringLiteral("one"));
        m_patterns = root.filePath(QStringLiteral("patterns"));
        m_empty = root.filePath(QStringLiteral("empty"));

        // After setDir the current slide is the first file (red) and the
        // previous one the last (blue).
        m_red = TestUtils::writeSolidImage(m_twoSolid, QStringLiteral("a.png"), QSize(16, 16), Qt::red);
        m_blue = TestUtils::writeSolidImage(m_twoSolid, QStringLiteral("b.png"), QSize(16, 16), Qt::blue);
        TestUtils::writeSolidImage(m_threeSolid, QStringLiteral("a.png"), QSize(16, 16), Qt::red);
        TestUtils::writeSolidImage(m_threeSolid, QStringLiteral("b.png"), QSize(16, 16), Qt::blue);
        TestUtils::writeSolidImage(m_threeSolid, QStringLiteral("c.png"), QSize(16, 16), Qt::green);
        TestUtils::writeSolidImage(m_oneSolid, QStringLiteral("only.png"), QSize(16, 16), Qt::red);
        // Already at the label's size: stretched without any scaling.
        TestUtils::writeImage(m_patterns, QStringLiteral("a.png"), patternImage(labelSize, true, 1));
        TestUtils::writeImage(m_patterns, QStringLiteral("b.png"), patternImage(labelSize, false, 2));
    }

    void cleanupTestCase()
    {
        m_sharedLabels.clear();
    }

    void crossFadeIsTheSameWithOrWithoutLayers_data()
    {
        QTest::addColumn<bool>("previousAlpha");
        QTest::addColumn<bool>("currentAlpha");
        QTest::addColumn<QString>("background");
        QTest::addColumn<int>("layer");

        for (const auto &slides : {std::make_pair(false, false), std::make_pair(true, true), std::make_pair(false, true), std::make_pair(true, false)}) {
            for (const char *background : {"opaque", "transparent", "semi-transparent"}) {
                for (const auto &layer : {std::make_pair(int(Layer::Pixmap), "pixmap layers"), std::make_pair(int(Layer::Image), "image layers")}) {
                    const QString name = QStringLiteral("%1 over %2, %3, %4")
                                             .arg(QLatin1String(slides.second ? "semi-transparent" : "opaque"),
                                                  QLatin1String(slides.first ? "semi-transparent" : "opaque"),
                                                  QLatin1String(background),
                                                  QLatin1String(layer.second));
                    QTest::newRow(qPrintable(name)) << slides.first << slides.second << QString::fromLatin1(background) << layer.first;
                }
            }
        }
    }

    // Drawing a slide straight onto the target with the painter's opacity
    // gives the very bytes of the former way, a transparent layer painted at
    // that opacity and then drawn at full opacity: source-over with a
    // constant weight is the same whether the weight is applied first.
    void crossFadeIsTheSameWithOrWithoutLayers()
    {
        QFETCH(bool, previousAlpha);
        QFETCH(bool, currentAlpha);
        QFETCH(QString, background);
        QFETCH(int, layer);

        const QSize size(64, 48);
        const QPixmap previous = QPixmap::fromImage(patternImage(size, previousAlpha, 11));
        const QPixmap current = QPixmap::fromImage(patternImage(size, currentAlpha, 5));
        QCOMPARE(previous.hasAlphaChannel(), previousAlpha);
        QCOMPARE(current.hasAlphaChannel(), currentAlpha);
        QImage base;
        if (background == QLatin1String("opaque")) {
            base = solidImage(size, QColor(30, 60, 90));
        } else if (background == QLatin1String("transparent")) {
            base = solidImage(size, Qt::transparent);
        } else {
            base = patternImage(size, true, 23);
        }

        QList<double> opacities{-0.3, 0.0, 1e-9, 0.001, 0.999, 1.0 - 1e-9, 1.0, 1.7, 1.0 / 3.0, 0.501};
        for (int i = 1; i < 16; ++i) {
            opacities.append(i / 16.0);
        }
        // The weights matter: a half-way fade is neither end of it.
        const QImage half = compose(base, previous, current, 0.5, Layer::None);
        QVERIFY(half != compose(base, previous, current, 0.0, Layer::None));
        QVERIFY(half != compose(base, previous, current, 1.0, Layer::None));

        for (double opacity : opacities) {
            const QImage layered = compose(base, previous, current, opacity, Layer(layer));
            const QImage straight = compose(base, previous, current, opacity, Layer::None);
            QCOMPARE(straight.format(), QImage::Format_ARGB32_Premultiplied);
            QCOMPARE(straight.devicePixelRatioF(), 1.0);
            const QString difference = firstDifference(straight, layered);
            QVERIFY2(difference.isEmpty(), qPrintable(QStringLiteral("opacity %1: ").arg(opacity) + difference));
            QVERIFY(straight == layered);

            // One slide alone, as when the other one is not ready.
            for (const QPixmap &slide : {previous, current}) {
                const QImage layeredAlone = compose(base, QPixmap(), slide, opacity, Layer(layer));
                const QImage straightAlone = compose(base, QPixmap(), slide, opacity, Layer::None);
                const QString aloneDifference = firstDifference(straightAlone, layeredAlone);
                QVERIFY2(aloneDifference.isEmpty(), qPrintable(QStringLiteral("single slide, opacity %1: ").arg(opacity) + aloneDifference));
            }
        }
    }

    void paintIsTheStraightComposition_data()
    {
        QTest::addColumn<QColor>("background");
        QTest::addColumn<double>("opacity");

        for (const QColor &background : {QColor(30, 60, 90), QColor(Qt::transparent)}) {
            for (double opacity : {0.0, 0.2, 0.5, 0.8, 1.0, 1.7, -0.3}) {
                QTest::newRow(qPrintable(QStringLiteral("%1 background, opacity %2")
                                             .arg(background.alpha() ? QStringLiteral("opaque") : QStringLiteral("transparent"))
                                             .arg(opacity)))
                    << background << opacity;
            }
        }
    }

    void paintIsTheStraightComposition()
    {
        QFETCH(QColor, background);
        QFETCH(double, opacity);

        const QString first = QDir(m_patterns).filePath(QStringLiteral("a.png"));
        const QString second = QDir(m_patterns).filePath(QStringLiteral("b.png"));
        SlideLabel *label = sharedLabel(m_patterns, {first, second});
        QVERIFY(label);
        // With two slides the previous one is the second file.
        label->setOpacity(opacity);
        const QPixmap previous = cachedSlide(*label, second);
        const QPixmap current = cachedSlide(*label, first);
        QVERIFY(!previous.isNull() && !current.isNull());
        QVERIFY(current.hasAlphaChannel());

        const QImage painted = renderLabel(*label, background);
        const QImage base = solidImage(labelSize, background);
        COMPARE_IMAGES(painted, compose(base, previous, current, opacity, Layer::None), QStringLiteral("slidelabelpainttest-straight"));
        COMPARE_IMAGES(painted, compose(base, previous, current, opacity, Layer::Pixmap), QStringLiteral("slidelabelpainttest-layers"));
    }

    void crossFadeDrawsBothSlidesWithTheirWeights_data()
    {
        QTest::addColumn<double>("opacity");
        QTest::addColumn<QColor>("background");

        for (const QColor &background : {QColor(Qt::black), QColor(Qt::transparent)}) {
            const QString name = background.alpha() ? QStringLiteral("black") : QStringLiteral("transparent");
            for (double opacity : {0.0, 0.25, 0.5, 0.75, 1.0}) {
                QTest::newRow(qPrintable(QStringLiteral("opacity %1 over %2").arg(opacity).arg(name))) << opacity << background;
            }
        }
    }

    void crossFadeDrawsBothSlidesWithTheirWeights()
    {
        QFETCH(double, opacity);
        QFETCH(QColor, background);

        // Current red, previous blue.
        LogRecorder log;
        SlideLabel *label = sharedLabel(m_twoSolid, {m_red, m_blue});
        QVERIFY(label);
        QCOMPARE(inspect(label).currentImage(), m_red);
        QCOMPARE(inspect(label).previousImage(), m_blue);
        label->setOpacity(opacity);

        log.clear();
        const QImage painted = renderLabel(*label, background);
        // The painter turns each weight into an 8-bit alpha and rounds every
        // multiplication: at most one unit per draw, two draws.
        const QString difference = uniformWithin(painted, TestUtils::crossFadePixel(background, Qt::blue, Qt::red, opacity), 2);
        if (!difference.isEmpty()) {
            QFAIL(qPrintable(difference + QStringLiteral(", actual image kept as ") + keep(painted, QStringLiteral("slidelabelpainttest-crossfade"))));
        }
        // Both drawn from the label's own copies: no lookup in the worker,
        // neither missing.
        QVERIFY(log.texts(QtDebugMsg).isEmpty());
    }

    void crossFadeAtHalfIsAnEvenMix()
    {
        auto label = labelWithCached(m_twoSolid, {m_red, m_blue});
        QVERIFY(label);
        label->setOpacity(0.5);
        const QImage painted = renderLabel(*label, Qt::black).convertToFormat(QImage::Format_RGB32);
        // Blue at full weight, then red at half weight over it: an even mix,
        // red 128 and blue 127, within the rounding of an 8-bit draw; the
        // black background does not show through (the first design gave red
        // 128 and blue 64 here).
        QVERIFY(TestUtils::fuzzyColor(painted.pixel(120, 90), QColor(128, 0, 127), 2));
        QVERIFY(TestUtils::fuzzyColor(painted.pixel(0, 0), QColor(128, 0, 127), 2));
        QVERIFY(TestUtils::fuzzyColor(painted.pixel(239, 179), QColor(128, 0, 127), 2));
    }

    void crossFadeWithoutThePreviousSlideDrawsTheCurrent()
    {
        // Three files: setDir asks for the first and the second, not for the
        // previous one (the third).
        const QString red = QDir(m_threeSolid).filePath(QStringLiteral("a.png"));
        const QString green = QDir(m_threeSolid).filePath(QStringLiteral("c.png"));
        LogRecorder log;
        auto label = labelWithCached(m_threeSolid, {red});
        QVERIFY(label);
        QCOMPARE(inspect(label).previousImage(), green);
        QVERIFY(cachedSlide(*label, green).isNull());
        label->setOpacity(0.5);

        log.clear();
        const QImage painted = renderLabel(*label, Qt::black);
        QVERIFY(log.slideShowEntries().contains(
            entry(QtDebugMsg, QStringLiteral("SlideLabel: Previous image is not available from worker for drawing: ") + quoted(green))));
        COMPARE_IMAGES(painted,
                       compose(solidImage(labelSize, Qt::black), QPixmap(), cachedSlide(*label, red), 0.5, Layer::None),
                       QStringLiteral("slidelabelpainttest-noprevious"));
        const QString difference = uniformWithin(painted, qRgb(128, 0, 0), 1);
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
    }

    void crossFadeWithoutTheCurrentSlideDrawsThePrevious()
    {
        const QString red = QDir(m_threeSolid).filePath(QStringLiteral("a.png"));
        const QString blue = QDir(m_threeSolid).filePath(QStringLiteral("b.png"));
        const QString green = QDir(m_threeSolid).filePath(QStringLiteral("c.png"));
        LogRecorder log;
        auto label = labelWithCached(m_threeSolid, {red, blue});
        QVERIFY(label);
        WorkerBlocker blocker(inspect(label).worker());
        QVERIFY(blocker.isHolding());
        // Current blue, then current green: green is asked for but stays
        // queued behind the held worker.
        label->setNext();
        label->setNext();
        QCOMPARE(inspect(label).currentImage(), green);
        QCOMPARE(inspect(label).previousImage(), blue);
        label->setOpacity(0.5);

        log.clear();
        const QImage painted = renderLabel(*label, Qt::black);
        QVERIFY(log.slideShowEntries().contains(
            entry(QtDebugMsg, QStringLiteral("SlideLabel: Current image is not available from worker for drawing: ") + quoted(green))));
        COMPARE_IMAGES(painted,
                       compose(solidImage(labelSize, Qt::black), cachedSlide(*label, blue), QPixmap(), 0.5, Layer::None),
                       QStringLiteral("slidelabelpainttest-nocurrent"));
        // The previous slide at full weight until the current one comes.
        const QString difference = uniformWithin(painted, qRgb(0, 0, 255), 0);
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
    }

    void oneImageIsDrawnAtFullWeightWhateverTheOpacity_data()
    {
        QTest::addColumn<double>("opacity");
        for (double opacity : {0.0, 0.3, 0.5, 1.0, 1.7, -0.3}) {
            QTest::newRow(qPrintable(QString::number(opacity))) << opacity;
        }
    }

    void oneImageIsDrawnAtFullWeightWhateverTheOpacity()
    {
        QFETCH(double, opacity);

        const QString only = QDir(m_oneSolid).filePath(QStringLiteral("only.png"));
        SlideLabel *label = sharedLabel(m_oneSolid, {only});
        QVERIFY(label);
        label->setOpacity(opacity);
        QCOMPARE(inspect(label).currentOpacity(), opacity);

        const QImage painted = renderLabel(*label, Qt::black);
        COMPARE_IMAGES(painted,
                       compose(solidImage(labelSize, Qt::black), QPixmap(), cachedSlide(*label, only), 1.0, Layer::None),
                       QStringLiteral("slidelabelpainttest-one"));
        const QString difference = uniformWithin(painted, qRgb(255, 0, 0), 0);
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
    }

    void oneImageNotYetCachedPaintsOnlyTheTransparentFill()
    {
        const QString only = QDir(m_oneSolid).filePath(QStringLiteral("only.png"));
        LogRecorder log;
        auto label = makeShownLabel();
        QVERIFY(label);
        {
            WorkerBlocker blocker(inspect(label).worker());
            QVERIFY(blocker.isHolding());
            QVERIFY(setDirAndWait(*label, m_oneSolid));
            QVERIFY(cachedSlide(*label, only).isNull());

            log.clear();
            const QImage onTransparent = renderLabel(*label, Qt::transparent);
            const QImage onColour = renderLabel(*label, QColor(10, 200, 30));
            QCOMPARE(log.slideShowEntries(),
                     QList<TestUtils::LogEntry>(
                         {entry(QtDebugMsg, QStringLiteral("SlideLabel: The only image is not available from worker for drawing: ") + quoted(only)),
                          entry(QtDebugMsg, QStringLiteral("SlideLabel: The only image is not available from worker for drawing: ") + quoted(only))}));
            // Filling with transparent over source-over leaves the target
            // as it was.
            COMPARE_IMAGES(onTransparent, solidImage(labelSize, Qt::transparent), QStringLiteral("slidelabelpainttest-notcached"));
            COMPARE_IMAGES(onColour, solidImage(labelSize, QColor(10, 200, 30)), QStringLiteral("slidelabelpainttest-notcached-colour"));
        }
        // Once the worker runs again, the report brings the image.
        EventCounter paints(label.get(), QEvent::Paint);
        QTRY_VERIFY(paints.count() > 0 && !cachedSlide(*label, only).isNull());
        const QString difference = uniformWithin(renderLabel(*label, Qt::transparent), qRgb(255, 0, 0), 0);
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
    }

    void withoutImagesPaintsTheCentredWhiteText_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("pixelSize");
        QTest::addColumn<bool>("emptyDirectory");

        QTest::newRow("1000 wide, no directory") << 1000 << 20 << false;
        QTest::newRow("1000 wide, empty directory") << 1000 << 20 << true;
        QTest::newRow("1920 wide") << 1920 << 38 << false;
        QTest::newRow("1249 wide, truncated") << 1249 << 24 << false;
    }

    void withoutImagesPaintsTheCentredWhiteText()
    {
        QFETCH(int, width);
        QFETCH(int, pixelSize);
        QFETCH(bool, emptyDirectory);

        const QSize size(width, 120);
        LabelPointer label(new SlideLabel);
        label->resize(size);
        if (emptyDirectory) {
            QVERIFY(setDirAndWait(*label, m_empty));
            QVERIFY(inspect(label).files().isEmpty());
        }
        const QImage painted = renderLabel(*label, Qt::transparent);

        // White and nothing else: every pixel is transparent or white with
        // some coverage.
        QCOMPARE(painted.format(), QImage::Format_ARGB32_Premultiplied);
        QRect ink;
        for (int y = 0; y < painted.height(); ++y) {
            const QRgb *line = reinterpret_cast<const QRgb *>(painted.constScanLine(y));
            for (int x = 0; x < painted.width(); ++x) {
                // Premultiplied: white with coverage a is (a, a, a, a).
                const QRgb p = line[x];
                if (qRed(p) != qAlpha(p) || qGreen(p) != qAlpha(p) || qBlue(p) != qAlpha(p)) {
                    QFAIL(qPrintable(QStringLiteral("pixel (%1, %2) is %3, not white").arg(x).arg(y).arg(p, 8, 16, QLatin1Char('0'))));
                }
                if (qAlpha(p) != 0) {
                    ink |= QRect(x, y, 1, 1);
                }
            }
        }
        QVERIFY(!ink.isEmpty());
        // Centred: the ink box differs from the text's logical box only by
        // the side bearings (horizontally) and by the gap between ascent and
        // cap height against the descent (vertically).
        const int left = ink.left();
        const int right = size.width() - 1 - ink.right();
        const int top = ink.top();
        const int bottom = size.height() - 1 - ink.bottom();
        QVERIFY2(qAbs(left - right) <= pixelSize / 4 + 1, qPrintable(QStringLiteral("left margin %1, right margin %2").arg(left).arg(right)));
        QVERIFY2(qAbs(top - bottom) <= pixelSize / 4 + 1, qPrintable(QStringLiteral("top margin %1, bottom margin %2").arg(top).arg(bottom)));
        QVERIFY(left > 0 && top > 0);

        // The exact text at one fiftieth of the width in pixels, and not at
        // a neighbouring size.
        COMPARE_IMAGES(painted, expectedText(*label, pixelSize), QStringLiteral("slidelabelpainttest-text"));
        QVERIFY(painted != expectedText(*label, pixelSize - 1));
        QVERIFY(painted != expectedText(*label, pixelSize + 1));
        QCOMPARE(width / 50, pixelSize);
    }

    void narrowLabelPaintsTheTextWithThePainterFont()
    {
        const QSize size(40, 120);
        LogRecorder log;
        LabelPointer label(new SlideLabel);
        label->resize(size);
        log.clear();
        const QImage painted = renderLabel(*label, Qt::transparent);
        // 40 / 50 is 0, which is no pixel size: the label's font stays.
        COMPARE_IMAGES(painted, expectedText(*label, 0), QStringLiteral("slidelabelpainttest-narrow"));
        QVERIFY(painted != solidImage(size, Qt::transparent));
        QVERIFY(painted != expectedText(*label, 1));
        QVERIFY(log.texts(QtWarningMsg).isEmpty());
    }

    void setOpacityTwiceNeitherStoresNorRepaintsAgain()
    {
        auto label = labelWithCached(m_twoSolid, {m_red, m_blue});
        QVERIFY(label);
        EventCounter paints(label.get(), QEvent::Paint);

        label->setOpacity(0.5);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QCOMPARE(paints.count(), 1);
        QCOMPARE(inspect(label).currentOpacity(), 0.5);

        label->setOpacity(0.5);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QCOMPARE(paints.count(), 1);

        // Nearly equal by the fuzzy comparison: not stored either.
        label->setOpacity(0.5 + 1e-14);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QCOMPARE(paints.count(), 1);
        QCOMPARE(inspect(label).currentOpacity(), 0.5);

        label->setOpacity(0.6);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QCOMPARE(paints.count(), 2);
        QCOMPARE(inspect(label).currentOpacity(), 0.6);
    }

    void setOpacityFromZeroAlwaysRepaints()
    {
        auto label = labelWithCached(m_twoSolid, {m_red, m_blue});
        QVERIFY(label);
        label->setOpacity(0.0);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        EventCounter paints(label.get(), QEvent::Paint);

        label->setOpacity(0.0);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QCOMPARE(paints.count(), 0);

        label->setOpacity(1e-9);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QCOMPARE(paints.count(), 1);
        QCOMPARE(inspect(label).currentOpacity(), 1e-9);
    }

    void setOpacityOutsideTheRangeIsStoredUnclamped_data()
    {
        QTest::addColumn<double>("opacity");
        QTest::addColumn<double>("lookAlike");

        // The painter bounds each weight to 0..1 when drawing.
        QTest::newRow("1.7") << 1.7 << 1.0;
        QTest::newRow("-0.3") << -0.3 << 0.0;
    }

    void setOpacityOutsideTheRangeIsStoredUnclamped()
    {
        QFETCH(double, opacity);
        QFETCH(double, lookAlike);

        auto label = labelWithCached(m_twoSolid, {m_red, m_blue});
        QVERIFY(label);
        EventCounter paints(label.get(), QEvent::Paint);
        label->setOpacity(opacity);
        QCOMPARE(inspect(label).currentOpacity(), opacity);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QCOMPARE(paints.count(), 1);

        const QImage painted = renderLabel(*label, Qt::black);
        label->setOpacity(lookAlike);
        COMPARE_IMAGES(painted, renderLabel(*label, Qt::black), QStringLiteral("slidelabelpainttest-unclamped"));
        const QString difference = uniformWithin(painted, lookAlike > 0.5 ? qRgb(255, 0, 0) : qRgb(0, 0, 255), 0);
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
    }

    void reportForTheLookAheadImageDoesNotRepaint()
    {
        const QString lookAhead = QDir(m_threeSolid).filePath(QStringLiteral("b.png"));
        LogRecorder log;
        auto label = labelWithCached(m_threeSolid, {QDir(m_threeSolid).filePath(QStringLiteral("a.png")), lookAhead});
        QVERIFY(label);
        EventCounter paints(label.get(), QEvent::Paint);
        const QPixmap pixmap = cachedSlide(*label, lookAhead);
        QVERIFY(!pixmap.isNull());
        log.clear();
        Q_EMIT inspect(label).worker()->imageCached(lookAhead, pixmap, snapshotOf(inspect(label).worker()).generation);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QCOMPARE(paints.count(), 0);
        QCOMPARE(log.slideShowEntries(),
                 QList<TestUtils::LogEntry>{
                     entry(QtDebugMsg, QStringLiteral("SlideLabel: Image cached, but not current/previous, update not required: ") + quoted(lookAhead))});
    }

    void reportForTheCurrentOrPreviousImageRepaints_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("debug");

        QTest::newRow("current") << QStringLiteral("a.png") << true;
        QTest::newRow("previous") << QStringLiteral("c.png") << true;
        QTest::newRow("previous, debug output off") << QStringLiteral("c.png") << false;
    }

    void reportForTheCurrentOrPreviousImageRepaints()
    {
        QFETCH(QString, name);
        QFETCH(bool, debug);

        const QString path = QDir(m_threeSolid).filePath(name);
        LogRecorder log;
        auto label = labelWithCached(m_threeSolid, {QDir(m_threeSolid).filePath(QStringLiteral("a.png"))});
        QVERIFY(label);
        EventCounter paints(label.get(), QEvent::Paint);
        log.clear();
        TestUtils::setSlideShowDebugEnabled(debug);
        Q_EMIT inspect(label).worker()->imageCached(path, QPixmap(), snapshotOf(inspect(label).worker()).generation);
        TestUtils::setSlideShowDebugEnabled(true);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QCOMPARE(paints.count(), 1);
        const QString line = QStringLiteral("SlideLabel: Image cached for current/previous key, triggering update: ") + quoted(path);
        if (debug) {
            QCOMPARE(log.slideShowEntries().first(), entry(QtDebugMsg, line));
        } else {
            QCOMPARE(log.count(line), 0);
        }
    }

    // The label draws the pixmaps that the worker reports, not what the
    // worker's cache holds when it paints; a report made before its last
    // clearing is of another mode or size and is dropped.
    void reportedPixmapIsDrawnUnlessMadeBeforeTheLastClearing()
    {
        auto label = labelWithCached(m_oneSolid, {QDir(m_oneSolid).filePath(QStringLiteral("only.png"))});
        QVERIFY(label);
        const quint64 generation = snapshotOf(inspect(label).worker()).generation;
        QVERIFY(generation > 0);
        QPixmap green(labelSize);
        green.fill(Qt::green);
        Q_EMIT inspect(label).worker()->imageCached(inspect(label).currentImage(), green, generation - 1);
        QString difference = uniformWithin(renderLabel(*label, Qt::black), qRgb(255, 0, 0), 0);
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
        Q_EMIT inspect(label).worker()->imageCached(inspect(label).currentImage(), green, generation);
        difference = uniformWithin(renderLabel(*label, Qt::black), qRgb(0, 255, 0), 0);
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
    }

    void resizeWithAnEmptyListOnlyLogs()
    {
        LogRecorder log;
        auto label = makeShownLabel();
        QVERIFY(label);
        log.clear();
        label->resize(300, 200);
        QCOMPARE(label->size(), QSize(300, 200));
        QTRY_VERIFY(!log.slideShowEntries().isEmpty());
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
        QCOMPARE(log.slideShowEntries(),
                 QList<TestUtils::LogEntry>{entry(QtDebugMsg, QStringLiteral("SlideLabel: resizeEvent called with size: QSize(300, 200)"))});
    }

    void resizeRefillsCurrentNextAndPrevious_data()
    {
        QTest::addColumn<QString>("directory");
        QTest::addColumn<int>("steps");
        QTest::addColumn<QStringList>("order");

        // One step leaves the fade at its start, and the previous slide is
        // asked for; at rest it is not, since it is not drawn (the first
        // design asked for it all the same).
        QTest::newRow("three images, one step") << QStringLiteral("three") << 1
                                                << QStringList{QStringLiteral("b.png"), QStringLiteral("c.png"), QStringLiteral("a.png")};
        QTest::newRow("three images, fresh") << QStringLiteral("three") << 0 << QStringList{QStringLiteral("a.png"), QStringLiteral("b.png")};
        QTest::newRow("two images") << QStringLiteral("two") << 0 << QStringList{QStringLiteral("a.png"), QStringLiteral("b.png")};
        QTest::newRow("one image") << QStringLiteral("one") << 0 << QStringList{QStringLiteral("only.png")};
    }

    void resizeRefillsCurrentNextAndPrevious()
    {
        QFETCH(QString, directory);
        QFETCH(int, steps);
        QFETCH(QStringList, order);

        const QString path = QDir(m_dir.path()).filePath(directory);
        LogRecorder log;
        auto label = labelWithCached(path, {});
        QVERIFY(label);
        for (int i = 0; i < steps; ++i) {
            label->setNext();
        }
        QVERIFY(waitUntilIdle(inspect(label).worker()));

        log.clear();
        label->resize(300, 200);
        QTRY_VERIFY(!workerRequests(log).isEmpty());
        QStringList expectedPaths;
        for (const QString &name : order) {
            expectedPaths.append(QDir(path).filePath(name));
        }
        const QStringList flow = guiFlow(log);
        QCOMPARE(flow.mid(0, 4),
                 QStringList({QStringLiteral("SlideLabel: resizeEvent called with size: QSize(300, 200)"),
                              QStringLiteral("ImageCacheWorker: the cleaning of all cache data is initiated."),
                              QStringLiteral("ImageCacheWorker: All cache data are cleaned."),
                              QStringLiteral("ImageCacheWorker: setting a request for image processing in the queue for: ")
                                  + quoted(expectedPaths.first() + QStringLiteral("|300x200"))}));
        QCOMPARE(requestedPaths(log), expectedPaths);
        QCOMPARE(workerRequests(log).mid(0, 2).last(), queued(expectedPaths.at(qMin(1, expectedPaths.size() - 1)), QSize(300, 200)));
        // Everything asked for is at the new size once the worker is through.
        for (const QString &requested : expectedPaths) {
            QTRY_VERIFY(!cachedSlide(*label, requested).isNull());
        }
    }
};

int main(int argc, char **argv)
{
    return TestUtils::runWidgetTest<SlideLabelPaintTest>(argc, argv);
}

#include "slidelabelpainttest.moc"
