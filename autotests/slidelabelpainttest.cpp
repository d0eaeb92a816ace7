/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// How SlideLabel paints (cross-fade, one slide, the text without images) and when
// it repaints; and what is seen mid-fade in a host's window: with more images than
// the cache keeps, after a mode change, through transparency, awaiting a slow slide.

#include "fusefolder.h"
#include "showhost.h"
#include "slidelabeltesthelpers.h"

#include <QDir>
#include <QElapsedTimer>
#include <QPainter>
#include <QTemporaryDir>
#include <QVariantAnimation>

#include <atomic>
#include <map>
#include <thread>

using namespace Dm::ScreenSaver;
using namespace SlideLabelTest;
using TestUtils::debugEntry;
using TestUtils::LogRecorder;
using TestUtils::logText;
using TestUtils::ShowHost;

namespace
{
// Small enough to skip Qt's threaded scaling, large enough for a device geometry.
const QSize labelSize(240, 180);

const QPainter::RenderHints labelHints = QPainter::Antialiasing | QPainter::SmoothPixmapTransform;

const QString fallbackText = QStringLiteral("The image is not found in the catalog or the catalog is not indicated in the settings ...");

// An image of one premultiplied value.
QImage uniform(const QSize &size, QRgb premultiplied)
{
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.fill(uint(premultiplied));
    return image;
}

// What the label paints by itself over a known background.
QImage renderLabel(SlideLabel &label, const QColor &background)
{
    QImage image = uniform(label.size(), qPremultiply(background.rgba()));
    label.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    return image;
}

QPixmap cachedSlide(SlideLabel &label, const QString &path)
{
    return inspect(label).worker()->getCachedImage(path, TestUtils::deviceGeometry(label), label.devicePixelRatioF(), inspect(label).fittingMode());
}

// Every pixel differs from its neighbours; with alpha, every alpha value occurs.
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

enum class Layer { None, Pixmap, Image };

// A transparent layer with the slide painted at the weight: the former way.
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
    if (how == Layer::Image) {
        painter.drawImage(target, layer(QImage(size, QImage::Format_ARGB32_Premultiplied), slide, weight), QRectF());
        return;
    }
    painter.setOpacity(how == Layer::None ? weight : 1.0);
    painter.drawPixmap(target, how == Layer::None ? slide : layer(QPixmap(size), slide, weight), QRectF());
    painter.setOpacity(1.0);
}

// The label's cross-fade: while fading (opacity below 1) the previous slide at full
// weight, then the current at the opacity; a null slide is left out. (The first
// design drew the previous at 1 - opacity: the background showed through.)
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

// The fallback text as the label should draw it (pixel size 0 keeps the font).
QImage expectedText(const QWidget &label, int pixelSize)
{
    QImage image = uniform(label.size(), 0);
    image.setDotsPerMeterX(qRound(label.logicalDpiX() / 0.0254));
    image.setDotsPerMeterY(qRound(label.logicalDpiY() / 0.0254));
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

// Neighbours in the folder differ in hue by far more than the fuzz below.
QColor colourOf(int index)
{
    return QColor::fromHsv((index * 47) % 360, 220, 230);
}
}

class SlideLabelPaintTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString in(const char *folder, const char *name = "") const
    {
        return QDir(m_dir.filePath(QLatin1String(folder))).filePath(QLatin1String(name));
    }

    // A label on a directory, shown, with the given slides ready.
    LabelPointer labelWithCached(const QString &directory, const QStringList &cached)
    {
        auto label = shownLabel(labelSize);
        if (!label || !setDirAndWait(*label, directory)) {
            return nullptr;
        }
        waitUntilIdle(inspect(label).worker());
        for (const QString &path : cached) {
            if (cachedSlide(*label, path).isNull()) {
                return nullptr;
            }
        }
        return label;
    }

    // One label per folder for the rows that only change the opacity.
    std::map<QString, LabelPointer> m_sharedLabels;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        TestUtils::setSlideShowDebugEnabled(true);
        for (const char *name : {"two", "three", "one", "patterns", "empty"}) {
            QVERIFY(QDir(m_dir.path()).mkdir(QLatin1String(name)));
        }
        // After setDir the current slide is the first file (red), the previous the last.
        TestUtils::writeSolidImage(in("two"), QStringLiteral("a.png"), QSize(16, 16), Qt::red);
        TestUtils::writeSolidImage(in("two"), QStringLiteral("b.png"), QSize(16, 16), Qt::blue);
        TestUtils::writeSolidImage(in("three"), QStringLiteral("a.png"), QSize(16, 16), Qt::red);
        TestUtils::writeSolidImage(in("three"), QStringLiteral("b.png"), QSize(16, 16), Qt::blue);
        TestUtils::writeSolidImage(in("three"), QStringLiteral("c.png"), QSize(16, 16), Qt::green);
        TestUtils::writeSolidImage(in("one"), QStringLiteral("only.png"), QSize(16, 16), Qt::red);
        // Already at the label's size: stretched without any scaling.
        TestUtils::writeImage(in("patterns"), QStringLiteral("a.png"), patternImage(labelSize, true, 1));
        TestUtils::writeImage(in("patterns"), QStringLiteral("b.png"), patternImage(labelSize, false, 2));
        for (int count : {11, 12, 30}) {
            const QString folder = m_dir.filePath(QString::number(count));
            QVERIFY(QDir().mkpath(folder));
            for (int i = 0; i < count; ++i) {
                // Small: Crop and Stretch scale them up to any screen.
                QVERIFY(!TestUtils::writeSolidImage(folder, QStringLiteral("%1.png").arg(i, 2, 10, QLatin1Char('0')), QSize(32, 18), colourOf(i)).isEmpty());
            }
        }
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
        const auto kind = [](bool alpha) {
            return alpha ? "semi-transparent" : "opaque";
        };
        for (const auto &slides : {std::make_pair(false, false), std::make_pair(true, true), std::make_pair(false, true), std::make_pair(true, false)}) {
            for (const char *background : {"opaque", "transparent", "semi-transparent"}) {
                for (const auto &how : {std::make_pair(int(Layer::Pixmap), "pixmap layers"), std::make_pair(int(Layer::Image), "image layers")}) {
                    QTest::addRow("%s over %s, %s, %s", kind(slides.second), kind(slides.first), background, how.second)
                        << slides.first << slides.second << QString::fromLatin1(background) << how.first;
                }
            }
        }
    }

    // Drawing straight at the painter's opacity gives the very bytes of a layer:
    // source-over with a constant weight is the same either way.
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
            base = uniform(size, qRgb(30, 60, 90));
        } else if (background == QLatin1String("transparent")) {
            base = uniform(size, 0);
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
            const QImage straight = compose(base, previous, current, opacity);
            QCOMPARE(straight.format(), QImage::Format_ARGB32_Premultiplied);
            QCOMPARE(straight.devicePixelRatioF(), 1.0);
            QVERIFY2(straight == compose(base, previous, current, opacity, Layer(layer)), qPrintable(QStringLiteral("opacity %1").arg(opacity)));
            // One slide alone, as when the other one is not ready.
            for (const QPixmap &slide : {previous, current}) {
                QVERIFY2(compose(base, QPixmap(), slide, opacity) == compose(base, QPixmap(), slide, opacity, Layer(layer)),
                         qPrintable(QStringLiteral("single slide, opacity %1").arg(opacity)));
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
                    QTest::addRow("%s, %s background, opacity %g", folder, qPrintable(name), opacity) << QString::fromLatin1(folder) << background << opacity;
                }
            }
        }
    }

    // The label paints compose() of its slides; one image alone at full weight
    // whatever the (unclamped) opacity.
    void paintIsTheCrossFade()
    {
        QFETCH(QString, folder);
        QFETCH(QColor, background);
        QFETCH(double, opacity);
        QStringList paths;
        for (const QString &name : QDir(m_dir.filePath(folder)).entryList(QDir::Files, QDir::Name)) {
            paths.append(QDir(m_dir.filePath(folder)).filePath(name));
        }
        LabelPointer &label = m_sharedLabels[folder];
        if (!label) {
            label = labelWithCached(m_dir.filePath(folder), paths);
        }
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
        // From the label's own copies: no lookup in the worker, none missing.
        QVERIFY(log.texts(QtDebugMsg).isEmpty());
        const QImage base = uniform(labelSize, qPremultiply(background.rgba()));
        const double weight = two ? opacity : 1.0;
        COMPARE_IMAGES(painted, compose(base, previous, current, weight), 0);
        COMPARE_IMAGES(painted, compose(base, previous, current, weight, Layer::Pixmap), 0);
        if (folder == QLatin1String("patterns")) {
            QVERIFY(current.hasAlphaChannel());
            return;
        }
        // Red over blue, opaque: opacity x current + (1 - opacity) x previous whatever
        // lies beneath (the first design gave blue 64, not 127, at 0.5 over black).
        // Each draw rounds its 8-bit alpha by one unit at most; full weight is exact.
        const int fuzz = two && opacity > 0.0 && opacity < 1.0 ? 2 : 0;
        COMPARE_IMAGES(painted, uniform(labelSize, TestUtils::crossFadePixel(background, Qt::blue, Qt::red, weight)), fuzz);
    }

    // A slide not ready is left out: the current fades in over the background,
    // or the previous stays at full weight.
    void crossFadeWithAMissingSlideDrawsTheOther()
    {
        // setDir asks for the first two files, not the previous (third).
        const QString red = in("three", "a.png");
        const QString blue = in("three", "b.png");
        const QString green = in("three", "c.png");
        auto label = labelWithCached(in("three"), {red, blue});
        QVERIFY(label);
        QCOMPARE(inspect(label).previousImage(), green);
        QVERIFY(cachedSlide(*label, green).isNull());
        label->setOpacity(0.5);
        LogRecorder log;
        QImage painted = renderLabel(*label, Qt::black);
        QVERIFY(log.slideShowEntries().contains(debugEntry(logText(LogText::previousMissing, green))));
        COMPARE_IMAGES(painted, compose(uniform(labelSize, qRgb(0, 0, 0)), QPixmap(), cachedSlide(*label, red), 0.5), 0);
        COMPARE_IMAGES(painted, uniform(labelSize, qRgb(128, 0, 0)), 1);
        TestUtils::ThreadBlocker blocker(inspect(label).worker());
        QVERIFY(blocker.waitUntilHolding());
        // Green becomes current, its request queued behind the held worker.
        label->setNext();
        label->setNext();
        QCOMPARE(inspect(label).currentImage(), green);
        QCOMPARE(inspect(label).previousImage(), blue);
        label->setOpacity(0.5);
        log.clear();
        painted = renderLabel(*label, Qt::black);
        QVERIFY(log.slideShowEntries().contains(debugEntry(logText(LogText::currentMissing, green))));
        COMPARE_IMAGES(painted, compose(uniform(labelSize, qRgb(0, 0, 0)), cachedSlide(*label, blue), QPixmap(), 0.5), 0);
        COMPARE_IMAGES(painted, uniform(labelSize, qRgb(0, 0, 255)), 0);
    }

    void oneImageNotYetCachedPaintsOnlyTheTransparentFill()
    {
        const QString only = in("one", "only.png");
        auto label = shownLabel(labelSize);
        QVERIFY(label);
        {
            TestUtils::ThreadBlocker blocker(inspect(label).worker());
            QVERIFY(blocker.waitUntilHolding());
            QVERIFY(setDirAndWait(*label, in("one")));
            QVERIFY(cachedSlide(*label, only).isNull());
            LogRecorder log;
            const QImage onTransparent = renderLabel(*label, Qt::transparent);
            const QImage onColour = renderLabel(*label, QColor(10, 200, 30));
            const TestUtils::LogEntry missing = debugEntry(logText(LogText::onlyMissing, only));
            COMPARE_LOG(log, {missing, missing});
            // A transparent fill with source-over leaves the target as it was.
            COMPARE_IMAGES(onTransparent, uniform(labelSize, 0), 0);
            COMPARE_IMAGES(onColour, uniform(labelSize, qRgb(10, 200, 30)), 0);
        }
        // Once the worker runs again, the report brings the image.
        PaintCounter paints(label.get());
        QTRY_VERIFY(paints.count > 0 && !cachedSlide(*label, only).isNull());
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

    // The text, white and centred, at a fiftieth of the width in pixels (not a neighbouring size).
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
            QVERIFY(setDirAndWait(*label, in("empty")));
            QVERIFY(inspect(label).files().isEmpty());
        }
        const QImage painted = renderLabel(*label, Qt::transparent);
        QCOMPARE(painted.format(), QImage::Format_ARGB32_Premultiplied);
        QCOMPARE(width / 50, pixelSize);
        COMPARE_IMAGES(painted, expectedText(*label, pixelSize), 0);
        QVERIFY(painted != uniform(size, 0));
        QVERIFY(painted != expectedText(*label, pixelSize + 1));
        if (pixelSize > 1) {
            QVERIFY(painted != expectedText(*label, pixelSize - 1));
        }
        QVERIFY(log.texts(QtWarningMsg).isEmpty());
    }

    void setOpacityStoresAndRepaintsOnlyAChange()
    {
        auto label = labelWithCached(in("two"), {in("two", "a.png"), in("two", "b.png")});
        QVERIFY(label);
        PaintCounter paints(label.get());
        // Value set, stored, paints so far: a value fuzzily equal to the stored one is
        // ignored (any change from zero counts); none clamped.
        const double steps[][3] =
            {{0.5, 0.5, 1}, {0.5, 0.5, 1}, {0.5 + 1e-14, 0.5, 1}, {0.6, 0.6, 2}, {0.0, 0.0, 3}, {0.0, 0.0, 3}, {1e-9, 1e-9, 4}, {1.7, 1.7, 5}, {-0.3, -0.3, 6}};
        for (const auto &step : steps) {
            label->setOpacity(step[0]);
            flushEvents();
            QCOMPARE(paints.count, int(step[2]));
            QCOMPARE(inspect(label).currentOpacity(), step[1]);
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
        const QString path = QDir(in("three")).filePath(name);
        // The look-ahead is asked for and cached too; the previous is not.
        auto label = labelWithCached(in("three"), {in("three", "a.png"), in("three", "b.png")});
        QVERIFY(label);
        PaintCounter paints(label.get());
        const QPixmap pixmap = cachedSlide(*label, path);
        LogRecorder log;
        TestUtils::setSlideShowDebugEnabled(debug);
        Q_EMIT inspect(label).worker()->imageCached(path, pixmap, snapshotOf(inspect(label).worker()).generation);
        TestUtils::setSlideShowDebugEnabled(true);
        flushEvents();
        QCOMPARE(paints.count, repaints ? 1 : 0);
        const TestUtils::LogEntry line = debugEntry(logText(repaints ? LogText::cachedShown : LogText::cachedNotShown, path));
        if (!debug) {
            QCOMPARE(log.count(line.text), 0);
        } else if (repaints) {
            QCOMPARE(log.slideShowEntries().first(), line);
        } else {
            COMPARE_LOG(log, {line});
        }
    }

    // The label draws the reported pixmaps, not its cache's; a report from before
    // the last clearing is stale and dropped.
    void reportedPixmapIsDrawnUnlessMadeBeforeTheLastClearing()
    {
        auto label = labelWithCached(in("one"), {in("one", "only.png")});
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

    void middleOfAFadeShowsBothSlides_data()
    {
        QTest::addColumn<int>("images");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("modeChange");
        for (int images : {11, 12, 30}) {
            for (const QSize &size : {QSize(320, 180), QSize(3840, 2160)}) {
                for (bool modeChange : {false, true}) {
                    QTest::addRow("%d images at %dx%d%s", images, size.width(), size.height(), modeChange ? ", after a mode change" : "")
                        << images << size << modeChange;
                }
            }
        }
    }

    // With more than ten images (or than fit at 4K) the cache keeps three slides;
    // the fade needs the previous one to its end, whatever the filling order.
    void middleOfAFadeShowsBothSlides()
    {
        QFETCH(int, images);
        QFETCH(QSize, size);
        QFETCH(bool, modeChange);
        // The switches are made by the test, never by the timer.
        ShowHost host(size);
        host.apply(m_dir.filePath(QString::number(images)), 3600, 1000, Crop);
        QVERIFY(host.shows(colourOf(0)));
        if (modeChange) {
            host.apply(m_dir.filePath(QString::number(images)), 3600, 1000, Stretch);
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

    // A transparent slide shows the previous one while fading in, then the background.
    void transparentSlideShowsWhatLiesBeneath()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        TestUtils::writeSolidImage(dir.path(), QStringLiteral("a.png"), QSize(32, 18), colourOf(0));
        // Transparent on its left half, opaque on its right one.
        QImage half(32, 18, QImage::Format_ARGB32);
        half.fill(Qt::transparent);
        QPainter(&half).fillRect(16, 0, 16, 18, colourOf(1));
        TestUtils::writeImage(dir.path(), QStringLiteral("b.png"), half);
        ShowHost host(QSize(320, 180), Qt::white);
        // Stretched, so that the halves stay halves.
        host.apply(dir.path(), 3600, 1000, Stretch);
        QVERIFY(host.shows(colourOf(0)));
        QVERIFY(waitUntilIdle(host.worker()));
        host.show->updateSlide();
        QVariantAnimation *fade = inspect(host.show).fadeAnimation();
        fade->pause();
        fade->setCurrentTime(fade->duration() * 3 / 10);
        const double o = inspect(host.label()).currentOpacity();
        const QPoint left(40, 90);
        const QPoint right(280, 90);
        QVERIFY(TestUtils::fuzzyColor(host.at(left), colourOf(0), 2));
        const QColor mix = QColor::fromRgba(TestUtils::crossFadePixel(Qt::white, colourOf(0), colourOf(1), o));
        QVERIFY(TestUtils::fuzzyColor(host.at(right), mix, 2));
        fade->setCurrentTime(fade->duration());
        QVERIFY(TestUtils::fuzzyColor(host.at(left), Qt::white, 0));
        QVERIFY(TestUtils::fuzzyColor(host.at(right), colourOf(1), 2));
    }

    void fadeWaitsForItsSlide_data()
    {
        QTest::addColumn<bool>("longerThanAnInterval");
        QTest::newRow("ready within the interval") << false;
        QTest::newRow("held longer than an interval") << true;
    }

    // A switch to a slide not ready: the fade starts when it comes, an interval later
    // at most; till then the previous stays at full weight (once it faded to nothing).
    void fadeWaitsForItsSlide()
    {
        QFETCH(bool, longerThanAnInterval);
        TestUtils::FuseFolder fuse;
        if (!fuse.error().isEmpty()) {
            QSKIP(qPrintable(fuse.error()));
        }
        for (int i = 0; i < 3; ++i) {
            TestUtils::writeSolidImage(fuse.backing(), QStringLiteral("%1.png").arg(i), QSize(32, 18), colourOf(i));
        }
        ShowHost host;
        host.apply(fuse.path(), 2, 400);
        QVERIFY(host.shows(colourOf(0)));
        QVERIFY(waitUntilIdle(host.worker()));
        QVariantAnimation *fade = inspect(host.show).fadeAnimation();
        // The look-ahead of this switch hangs in its read.
        fuse.holdReads(true);
        host.show->updateSlide();
        QCOMPARE(fade->state(), QAbstractAnimation::Running);
        QTRY_VERIFY(fuse.waitingReads() >= 1);
        QTRY_COMPARE(fade->state(), QAbstractAnimation::Stopped);
        host.show->stop();
        QElapsedTimer clock;
        clock.start();
        host.show->updateSlide();
        QCOMPARE(fade->state(), QAbstractAnimation::Stopped);
        QCOMPARE(inspect(host.label()).currentOpacity(), 0.0);
        QVERIFY(host.shows(colourOf(1)));
        if (!longerThanAnInterval) {
            fuse.holdReads(false);
            QTRY_VERIFY(fade->state() == QAbstractAnimation::Running || inspect(host.label()).currentOpacity() == 1.0);
            QVERIFY(clock.elapsed() < 2000);
        } else {
            // Still held: after the interval the fade runs all the same.
            QTRY_COMPARE_WITH_TIMEOUT(fade->state(), QAbstractAnimation::Running, 5000);
            QVERIFY(clock.elapsed() >= 1900);
            QVERIFY(fuse.waitingReads() >= 1);
            QVERIFY(host.shows(colourOf(1)));
            fuse.holdReads(false);
        }
        QVERIFY(host.shows(colourOf(2)));
        host.show->stop();
    }

    // Painting uses the label's own copies: it never waits for the worker's lock.
    void paintTakesNoLock()
    {
        ShowHost host;
        host.apply(m_dir.filePath(QStringLiteral("11")), 3600, 1000);
        QVERIFY(host.shows(colourOf(0)));
        QVERIFY(waitUntilIdle(host.worker()));
        std::atomic<bool> holding{false};
        std::atomic<bool> release{false};
        ImageCacheWorker *worker = host.worker();
        std::thread holder([&] {
            const auto lock = ImageCacheWorkerAccess::lock(worker);
            holding = true;
            // Released by the test, or after a while if the paint waited.
            QElapsedTimer held;
            held.start();
            while (!release && held.elapsed() < 10000) {
                std::this_thread::yield();
            }
        });
        QTRY_VERIFY(holding.load());
        QElapsedTimer clock;
        clock.start();
        const QRgb centre = host.centre();
        const qint64 painting = clock.elapsed();
        release = true;
        holder.join();
        QVERIFY2(painting < 1000, qPrintable(QStringLiteral("the paint took %1 ms").arg(painting)));
        QVERIFY(TestUtils::fuzzyColor(centre, colourOf(0), 2));
    }
};

int main(int argc, char **argv)
{
    return TestUtils::runWidgetTest<SlideLabelPaintTest>(argc, argv);
}

#include "slidelabelpainttest.moc"
