/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// How SlideLabel paints: the cross-fade of the previous and the current
// slide, a single slide, the text shown without images; when it repaints
// (setOpacity, the worker's reports) and what a resize asks the worker for.

#include "slidelabeltesthelpers.h"

#include <QApplication>
#include <QDir>
#include <QFont>
#include <QPainter>
#include <QPixmap>
#include <QTemporaryDir>
#include <QTest>

#include <map>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::debugEntry;
using TestUtils::LogRecorder;
using TestUtils::logText;

namespace
{
// Small enough for the worker to prepare the slides without Qt's threaded
// scaling, large enough for a valid device geometry.
const QSize labelSize(240, 180);

const QPainter::RenderHints labelHints = QPainter::Antialiasing | QPainter::SmoothPixmapTransform;

const QString fallbackText = QStringLiteral("The image is not found in the catalog or the catalog is not indicated in the settings ...");

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
    return inspect(label).worker()->getCachedImage(path, TestUtils::deviceGeometry(label), label.devicePixelRatioF(), inspect(label).fittingMode());
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

// A transparent layer with the slide painted at the weight.
template<typename Device>
Device layer(Device device, const QPixmap &slide, double weight)
{
    device.fill(Qt::transparent);
    QPainter painter(&device);
    painter.setOpacity(weight);
    painter.drawPixmap(QRectF(QPointF(), device.size()), slide, QRectF());
    painter.end();
    return device;
}

void drawSlide(QPainter &painter, const QPixmap &slide, double weight, const QSize &size, Layer how)
{
    const QRectF target(QPointF(), size);
    switch (how) {
    case Layer::None:
        painter.setOpacity(weight);
        painter.drawPixmap(target, slide, QRectF());
        painter.setOpacity(1.0);
        return;
    case Layer::Pixmap:
        painter.drawPixmap(target, layer(QPixmap(size), slide, weight), QRectF());
        return;
    case Layer::Image:
        painter.drawImage(target, layer(QImage(size, QImage::Format_ARGB32_Premultiplied), slide, weight), QRectF());
        return;
    }
}

// The cross-fade as the label composes it: while the fade runs (opacity
// below 1) the previous slide at full weight, then the current one with the
// weight opacity; a null slide is left out. (The first design drew the
// previous slide with the weight 1 - opacity, so that the background showed
// through the middle of every fade.)
QImage compose(const QImage &background, const QPixmap &previous, const QPixmap &current, double opacity, Layer how = Layer::None)
{
    QImage image = background.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&image);
    painter.setRenderHints(labelHints);
    painter.fillRect(QRect(QPoint(), image.size()), Qt::transparent);
    if (!previous.isNull() && opacity < 1.0) {
        drawSlide(painter, previous, 1.0, image.size(), how);
    }
    if (!current.isNull()) {
        drawSlide(painter, current, opacity, image.size(), how);
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

// An image of one premultiplied value.
QImage uniform(const QSize &size, QRgb premultiplied)
{
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.fill(uint(premultiplied));
    return image;
}

// On a mismatch the actual picture is kept beside the test for a look.
QString keep(const QImage &image)
{
    const QString name = QStringLiteral("slidelabelpainttest-%1.png").arg(QLatin1String(QTest::currentTestFunction()));
    const QString path = QDir(QCoreApplication::applicationDirPath()).filePath(name);
    image.save(path);
    return path;
}

#define COMPARE_IMAGES(actual, expected, fuzz)                                                                                                                 \
    do {                                                                                                                                                       \
        const QString difference = pictureDifference((actual), (expected), (fuzz));                                                                            \
        if (!difference.isEmpty()) {                                                                                                                           \
            QFAIL(qPrintable(difference + QStringLiteral(", actual image kept as ") + keep(actual)));                                                          \
        }                                                                                                                                                      \
    } while (false)

// The fallback text as the label should draw it, with the label's own font
// at the given pixel size (0 keeps the font as it is, and then its size in
// pixels depends on the resolution of the label's screen).
QImage expectedText(const QWidget &label, int pixelSize)
{
    QImage image(label.size(), QImage::Format_ARGB32_Premultiplied);
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
    painter.drawText(QRect(QPoint(), label.size()), Qt::AlignCenter, fallbackText);
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

    QString inThree(const char *name) const
    {
        return QDir(m_threeSolid).filePath(QLatin1String(name));
    }

    // A label on a directory, shown, with the given slides ready.
    LabelPointer labelWithCached(const QString &directory, const QStringList &cached)
    {
        auto label = shownLabel(labelSize);
        if (!label || !setDirAndWait(*label, directory)) {
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
                for (const auto &how : {std::make_pair(int(Layer::Pixmap), "pixmap layers"), std::make_pair(int(Layer::Image), "image layers")}) {
                    const QString name = QStringLiteral("%1 over %2, %3, %4")
                                             .arg(QLatin1String(slides.second ? "semi-transparent" : "opaque"),
                                                  QLatin1String(slides.first ? "semi-transparent" : "opaque"),
                                                  QLatin1String(background),
                                                  QLatin1String(how.second));
                    QTest::newRow(qPrintable(name)) << slides.first << slides.second << QString::fromLatin1(background) << how.first;
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
        const QImage half = compose(base, previous, current, 0.5);
        QVERIFY(half != compose(base, previous, current, 0.0));
        QVERIFY(half != compose(base, previous, current, 1.0));

        for (double opacity : opacities) {
            const QImage layered = compose(base, previous, current, opacity, Layer(layer));
            const QImage straight = compose(base, previous, current, opacity);
            QCOMPARE(straight.format(), QImage::Format_ARGB32_Premultiplied);
            QCOMPARE(straight.devicePixelRatioF(), 1.0);
            const QString difference = pictureDifference(straight, layered);
            QVERIFY2(difference.isEmpty(), qPrintable(QStringLiteral("opacity %1: ").arg(opacity) + difference));
            QVERIFY(straight == layered);

            // One slide alone, as when the other one is not ready.
            for (const QPixmap &slide : {previous, current}) {
                const QString aloneDifference =
                    pictureDifference(compose(base, QPixmap(), slide, opacity), compose(base, QPixmap(), slide, opacity, Layer(layer)));
                QVERIFY2(aloneDifference.isEmpty(), qPrintable(QStringLiteral("single slide, opacity %1: ").arg(opacity) + aloneDifference));
            }
        }
    }

    void paintIsTheCrossFade_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::addColumn<QColor>("background");
        QTest::addColumn<double>("opacity");

        for (const char *folder : {"patterns", "two", "one"}) {
            for (const QColor &background : {QColor(Qt::black), QColor(Qt::white), QColor(30, 60, 90), QColor(Qt::transparent)}) {
                for (double opacity : {0.0, 0.2, 0.25, 0.3, 0.5, 0.75, 0.8, 1.0, 1.7, -0.3}) {
                    const QString name = background.alpha() ? background.name() : QStringLiteral("transparent");
                    QTest::newRow(qPrintable(QStringLiteral("%1, %2 background, opacity %3").arg(QLatin1String(folder), name).arg(opacity)))
                        << QString::fromLatin1(folder) << background << opacity;
                }
            }
        }
    }

    // The label paints the straight composition of its slides (see
    // compose()); one image alone is drawn at full weight whatever the
    // opacity, which the label stores unclamped.
    void paintIsTheCrossFade()
    {
        QFETCH(QString, folder);
        QFETCH(QColor, background);
        QFETCH(double, opacity);

        QStringList paths;
        for (const QString &name : QDir(m_dir.filePath(folder)).entryList(QDir::Files, QDir::Name)) {
            paths.append(QDir(m_dir.filePath(folder)).filePath(name));
        }
        SlideLabel *label = sharedLabel(m_dir.filePath(folder), paths);
        QVERIFY(label);
        label->setOpacity(opacity);
        QCOMPARE(inspect(label).currentOpacity(), opacity);
        // The previous slide is the last file.
        QCOMPARE(inspect(label).currentImage(), paths.first());
        QCOMPARE(inspect(label).previousImage(), paths.last());
        const bool two = paths.size() == 2;
        const QPixmap current = cachedSlide(*label, paths.first());
        const QPixmap previous = two ? cachedSlide(*label, paths.last()) : QPixmap();
        QVERIFY(!current.isNull() && previous.isNull() != two);

        LogRecorder log;
        const QImage painted = renderLabel(*label, background);
        // Both drawn from the label's own copies: no lookup in the worker,
        // neither missing.
        QVERIFY(log.texts(QtDebugMsg).isEmpty());
        const QImage base = solidImage(labelSize, background);
        const double weight = two ? opacity : 1.0;
        COMPARE_IMAGES(painted, compose(base, previous, current, weight), 0);
        COMPARE_IMAGES(painted, compose(base, previous, current, weight, Layer::Pixmap), 0);
        if (folder == QLatin1String("patterns")) {
            QVERIFY(current.hasAlphaChannel());
            return;
        }
        // Red, and blue before it. Where both slides are opaque the picture
        // is opacity x current + (1 - opacity) x previous, whatever lies
        // beneath: at 0.5 over black an even mix, red 128 and blue 127 within
        // the rounding, which the first design darkened to red 128 and blue
        // 64. The painter turns each weight into an 8-bit alpha and rounds
        // every multiplication: at most one unit per draw, two draws. One
        // slide at full weight is drawn exactly.
        const int fuzz = two && opacity > 0.0 && opacity < 1.0 ? 2 : 0;
        COMPARE_IMAGES(painted, uniform(labelSize, TestUtils::crossFadePixel(background, Qt::blue, Qt::red, weight)), fuzz);
    }

    // A slide that is not ready is left out: without the previous one the
    // current one fades in over the background; without the current one the
    // previous one stays at full weight until it comes.
    void crossFadeWithAMissingSlideDrawsTheOther()
    {
        // setDir asks for the first and the second file, not for the
        // previous one (the third).
        const QString red = inThree("a.png");
        const QString blue = inThree("b.png");
        const QString green = inThree("c.png");
        LogRecorder log;
        auto label = labelWithCached(m_threeSolid, {red, blue});
        QVERIFY(label);
        QCOMPARE(inspect(label).previousImage(), green);
        QVERIFY(cachedSlide(*label, green).isNull());
        label->setOpacity(0.5);

        log.clear();
        QImage painted = renderLabel(*label, Qt::black);
        QVERIFY(log.slideShowEntries().contains(debugEntry(logText(LogText::previousMissing, green))));
        COMPARE_IMAGES(painted, compose(solidImage(labelSize, Qt::black), QPixmap(), cachedSlide(*label, red), 0.5), 0);
        COMPARE_IMAGES(painted, uniform(labelSize, qRgb(128, 0, 0)), 1);

        TestUtils::ThreadBlocker blocker(inspect(label).worker());
        QVERIFY(blocker.waitUntilHolding());
        // Current blue, then current green: green is asked for but stays
        // queued behind the held worker.
        label->setNext();
        label->setNext();
        QCOMPARE(inspect(label).currentImage(), green);
        QCOMPARE(inspect(label).previousImage(), blue);
        label->setOpacity(0.5);

        log.clear();
        painted = renderLabel(*label, Qt::black);
        QVERIFY(log.slideShowEntries().contains(debugEntry(logText(LogText::currentMissing, green))));
        COMPARE_IMAGES(painted, compose(solidImage(labelSize, Qt::black), cachedSlide(*label, blue), QPixmap(), 0.5), 0);
        COMPARE_IMAGES(painted, uniform(labelSize, qRgb(0, 0, 255)), 0);
    }

    void oneImageNotYetCachedPaintsOnlyTheTransparentFill()
    {
        const QString only = QDir(m_oneSolid).filePath(QStringLiteral("only.png"));
        LogRecorder log;
        auto label = shownLabel(labelSize);
        QVERIFY(label);
        {
            TestUtils::ThreadBlocker blocker(inspect(label).worker());
            QVERIFY(blocker.waitUntilHolding());
            QVERIFY(setDirAndWait(*label, m_oneSolid));
            QVERIFY(cachedSlide(*label, only).isNull());

            log.clear();
            const QImage onTransparent = renderLabel(*label, Qt::transparent);
            const QImage onColour = renderLabel(*label, QColor(10, 200, 30));
            const TestUtils::LogEntry missing = debugEntry(logText(LogText::onlyMissing, only));
            COMPARE_LOG(log, {missing, missing});
            // Filling with transparent over source-over leaves the target
            // as it was.
            COMPARE_IMAGES(onTransparent, solidImage(labelSize, Qt::transparent), 0);
            COMPARE_IMAGES(onColour, solidImage(labelSize, QColor(10, 200, 30)), 0);
        }
        // Once the worker runs again, the report brings the image.
        EventCounter paints(label.get(), QEvent::Paint);
        QTRY_VERIFY(paints.count() > 0 && !cachedSlide(*label, only).isNull());
        COMPARE_IMAGES(renderLabel(*label, Qt::transparent), uniform(labelSize, qRgb(255, 0, 0)), 0);
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
        // 40 / 50 is 0, which is no pixel size: the label's font stays.
        QTest::newRow("40 wide, the painter's font") << 40 << 0 << false;
    }

    // The text, white and centred, at one fiftieth of the width in pixels:
    // exactly as expectedText() draws it, and not at a neighbouring size.
    void withoutImagesPaintsTheCentredWhiteText()
    {
        QFETCH(int, width);
        QFETCH(int, pixelSize);
        QFETCH(bool, emptyDirectory);

        const QSize size(width, 120);
        LogRecorder log;
        LabelPointer label(new SlideLabel);
        label->resize(size);
        if (emptyDirectory) {
            QVERIFY(setDirAndWait(*label, m_empty));
            QVERIFY(inspect(label).files().isEmpty());
        }
        const QImage painted = renderLabel(*label, Qt::transparent);
        QCOMPARE(painted.format(), QImage::Format_ARGB32_Premultiplied);
        QCOMPARE(width / 50, pixelSize);
        COMPARE_IMAGES(painted, expectedText(*label, pixelSize), 0);
        QVERIFY(painted != solidImage(size, Qt::transparent));
        QVERIFY(painted != expectedText(*label, pixelSize + 1));
        if (pixelSize > 1) {
            QVERIFY(painted != expectedText(*label, pixelSize - 1));
        }
        QVERIFY(log.texts(QtWarningMsg).isEmpty());
    }

    void setOpacityStoresAndRepaintsOnlyAChange()
    {
        auto label = labelWithCached(m_twoSolid, {m_red, m_blue});
        QVERIFY(label);
        EventCounter paints(label.get(), QEvent::Paint);
        // Each value set, the value stored and the paints so far. The same
        // value again, or one nearly equal by the fuzzy comparison, is
        // neither stored nor painted; from zero, where the fuzzy comparison
        // fails, any change counts. Values outside 0..1 are stored as they
        // are.
        const struct {
            double value;
            double stored;
            int paints;
        } steps[] =
            {{0.5, 0.5, 1}, {0.5, 0.5, 1}, {0.5 + 1e-14, 0.5, 1}, {0.6, 0.6, 2}, {0.0, 0.0, 3}, {0.0, 0.0, 3}, {1e-9, 1e-9, 4}, {1.7, 1.7, 5}, {-0.3, -0.3, 6}};
        for (const auto &step : steps) {
            label->setOpacity(step.value);
            flushEvents();
            QCOMPARE(paints.count(), step.paints);
            QCOMPARE(inspect(label).currentOpacity(), step.stored);
        }
    }

    void reportRepaintsForTheCurrentOrPreviousImageOnly_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("repaints");
        QTest::addColumn<bool>("debug");

        QTest::newRow("current") << QStringLiteral("a.png") << true << true;
        QTest::newRow("previous") << QStringLiteral("c.png") << true << true;
        QTest::newRow("previous, debug output off") << QStringLiteral("c.png") << true << false;
        QTest::newRow("look-ahead") << QStringLiteral("b.png") << false << true;
    }

    void reportRepaintsForTheCurrentOrPreviousImageOnly()
    {
        QFETCH(QString, name);
        QFETCH(bool, repaints);
        QFETCH(bool, debug);

        const QString path = QDir(m_threeSolid).filePath(name);
        LogRecorder log;
        // The look-ahead is asked for and cached too; the previous is not.
        auto label = labelWithCached(m_threeSolid, {inThree("a.png"), inThree("b.png")});
        QVERIFY(label);
        EventCounter paints(label.get(), QEvent::Paint);
        const QPixmap pixmap = cachedSlide(*label, path);
        log.clear();
        TestUtils::setSlideShowDebugEnabled(debug);
        Q_EMIT inspect(label).worker()->imageCached(path, pixmap, snapshotOf(inspect(label).worker()).generation);
        TestUtils::setSlideShowDebugEnabled(true);
        flushEvents();
        QCOMPARE(paints.count(), repaints ? 1 : 0);
        const TestUtils::LogEntry line = debugEntry(logText(repaints ? LogText::cachedShown : LogText::cachedNotShown, path));
        if (!debug) {
            QCOMPARE(log.count(line.text), 0);
        } else if (repaints) {
            QCOMPARE(log.slideShowEntries().first(), line);
        } else {
            COMPARE_LOG(log, {line});
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
        COMPARE_IMAGES(renderLabel(*label, Qt::black), uniform(labelSize, qRgb(255, 0, 0)), 0);
        Q_EMIT inspect(label).worker()->imageCached(inspect(label).currentImage(), green, generation);
        COMPARE_IMAGES(renderLabel(*label, Qt::black), uniform(labelSize, qRgb(0, 255, 0)), 0);
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
        // Nothing to ask for: the resize is only logged.
        QTest::newRow("no directory") << QString() << 0 << QStringList();
    }

    void resizeRefillsCurrentNextAndPrevious()
    {
        QFETCH(QString, directory);
        QFETCH(int, steps);
        QFETCH(QStringList, order);

        const QString path = m_dir.filePath(directory);
        LogRecorder log;
        auto label = directory.isEmpty() ? shownLabel(labelSize) : labelWithCached(path, {});
        QVERIFY(label);
        for (int i = 0; i < steps; ++i) {
            label->setNext();
        }
        QVERIFY(waitUntilIdle(inspect(label).worker()));

        log.clear();
        const QSize size(300, 200);
        label->resize(size);
        QCOMPARE(label->size(), size);
        if (order.isEmpty()) {
            QTRY_VERIFY(!log.slideShowEntries().isEmpty());
            flushEvents();
            COMPARE_LOG(log, {debugEntry(logText(LogText::resized, size))});
            return;
        }
        QTRY_VERIFY(!requestLines(log).isEmpty());
        QStringList expectedPaths;
        for (const QString &name : order) {
            expectedPaths.append(QDir(path).filePath(name));
        }
        QCOMPARE(guiFlow(log).mid(0, 4),
                 QStringList({logText(LogText::resized, size),
                              logText(LogText::cleaningStarted),
                              logText(LogText::cleaningDone),
                              logText(LogText::queued, requestKey(expectedPaths.first(), size))}));
        QCOMPARE(requestedPaths(log), expectedPaths);
        QCOMPARE(requestLines(log).mid(0, 2).last(), logText(LogText::queued, requestKey(expectedPaths.at(qMin(1, expectedPaths.size() - 1)), size)));
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
