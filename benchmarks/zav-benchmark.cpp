/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Micro-benchmarks of what the slide show does for every slide and every
// frame, run by hand (not by CTest); QtTest measures and reports them:
//
// - preparation: one slide prepared by ImageCacheWorker::cachedImage in each
//   fitting mode, for generated photos of four sizes at two screen sizes,
//   beside the floor (one decode of the file plus one smooth scale to the
//   screen size). At the end it prints, per row, the CPU time of the whole
//   process per run (Qt scales and converts on its thread pool too) and the
//   PSNR of the slide against the mode applied to the whole decoded file.
// - photos: the same, the floor and Crop at 1920x1080, for the JPEG and PNG
//   files of the folder named by ZAV_BENCHMARK_PHOTOS, in the order in which
//   the slide show takes them.
// - fadeFrame: one cross-fade frame of the slide label (two slides, weight
//   0.37) with and without the window background, beside a plain copy of a
//   pixmap of the frame's size.
//
// The photos are generated (gradients plus noise, which compress like a
// photo) into a temporary folder when first needed. The GUI thread's
// stalls, the time to the first slide and the peak memory of a show are
// measured by zav-stalls.
//
//   zav-benchmark [-iterations N] [-median N] [function[:row]]...

#include "imagecache/imagecacheworker.h"
#include "imagemetrics.h"
#include "slidelabel/slidelabel.h"
#include "slidelabel/slidelabel_p.h"

#include <QDir>
#include <QFile>
#include <QPainter>
#include <QPixmapCache>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QVector>

#include <ctime>
#include <memory>

using namespace Dm::ScreenSaver;

namespace
{
// A 24-megapixel photo takes about a second on a slow machine.
constexpr int patienceMs = 120000;

struct Photo {
    const char *name;
    QSize size;
    quint32 seed;
};
const Photo generatedPhotos[] = {
    {"6000x4000.jpg", {6000, 4000}, 1},
    {"3840x2160.png", {3840, 2160}, 2},
    {"2560x1600.jpg", {2560, 1600}, 3},
    {"5120x2880.jpg", {5120, 2880}, 4},
};
const QSize screens[] = {{1920, 1080}, {3840, 2160}};

// The floor, or a fitting mode by its value.
const char *modeName(int mode)
{
    static const char *const names[] = {"Stretch", "Crop", "Tile", "Center", "Fit"};
    return mode < 0 ? "floor" : names[mode];
}

// CPU time of the whole process, all threads.
double processCpuMs()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

QByteArray loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed() : QByteArray("unknown");
}

// What the mode makes of the whole decoded file: the preparation as it was
// before the decoding was reduced.
QPixmap fullDecode(const ImageCacheWorker &worker, const QString &path, const QSize &size, Position mode)
{
    switch (mode) {
    case Stretch:
        return worker.stretch(path, size);
    case Crop:
        return worker.crop(path, size, 1.0);
    case Tile:
        return worker.tile(path, size, 1.0);
    case Center:
        return worker.center(path, size, 1.0);
    case Fit:
        return worker.fit(path, size, 1.0);
    }
    return QPixmap();
}
}

class Benchmark : public QObject
{
    Q_OBJECT

public:
    // Headless unless told otherwise: the figures do not depend on a screen.
    static void initMain()
    {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
        }
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // QPixmap(file) in the GUI thread goes through the global pixmap
        // cache, the cache thread's loads never do: no figure may come from it.
        QPixmapCache::setCacheLimit(0);
        qInfo("%d cores, load average at start %s", QThread::idealThreadCount(), loadAverage().constData());
    }

    void cleanupTestCase()
    {
        for (const Note &note : qAsConst(m_notes)) {
            if (note.psnr < 0) {
                qInfo("%s: cpu %.1f ms", qPrintable(note.row), note.cpuMs);
            } else {
                qInfo("%s: cpu %.1f ms, psnr %.1f dB", qPrintable(note.row), note.cpuMs, note.psnr);
            }
        }
        qInfo("load average at end %s", loadAverage().constData());
    }

    void preparation_data()
    {
        addPreparationColumns();
        for (const Photo &photo : generatedPhotos) {
            const QString path = photoPath(photo);
            for (const QSize &screen : screens) {
                for (int mode = -1; mode <= Fit; ++mode) {
                    QTest::addRow("%s-%dx%d-%s", photo.name, screen.width(), screen.height(), modeName(mode)) << path << screen << mode;
                }
            }
        }
    }

    void preparation()
    {
        QFETCH(QString, path);
        QFETCH(QSize, screen);
        QFETCH(int, mode);
        // Only its preparation is used, in this thread as the cache thread
        // would: no request, no cache.
        ImageCacheWorker worker;
        QPixmap slide;
        int runs = 0;
        const double cpuBefore = processCpuMs();
        if (mode < 0) {
            QBENCHMARK {
                slide = QPixmap(path).scaled(screen, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
                ++runs;
            }
        } else {
            QBENCHMARK {
                slide = worker.cachedImage(path, QRect(QPoint(0, 0), screen), 1.0, Position(mode));
                ++runs;
            }
        }
        const double cpuMs = (processCpuMs() - cpuBefore) / runs;
        QCOMPARE(slide.size(), screen);
        // QtTest runs a row several times: the first run compares the slide,
        // the last one's CPU time counts, as its time does.
        const QString row = QStringLiteral("%1(%2)").arg(QLatin1String(QTest::currentTestFunction()), QLatin1String(QTest::currentDataTag()));
        if (m_notes.isEmpty() || m_notes.last().row != row) {
            const double psnr = mode < 0 ? -1 : ImageMetrics::psnr(slide.toImage(), fullDecode(worker, path, screen, Position(mode)).toImage());
            m_notes.append({row, cpuMs, psnr});
        }
        m_notes.last().cpuMs = cpuMs;
    }

    void photos_data()
    {
        addPreparationColumns();
        const QString dir = qEnvironmentVariable("ZAV_BENCHMARK_PHOTOS");
        if (dir.isEmpty()) {
            QSKIP("ZAV_BENCHMARK_PHOTOS names no folder of photos");
        }
        const QDir folder(dir);
        const QStringList names =
            folder.entryList({QStringLiteral("*.jpg"), QStringLiteral("*.jpeg"), QStringLiteral("*.png")}, QDir::Files, QDir::Name | QDir::IgnoreCase);
        if (names.isEmpty()) {
            QSKIP("no JPEG or PNG files in ZAV_BENCHMARK_PHOTOS");
        }
        // The default mode at the most common screen size.
        for (const QString &name : names) {
            for (const int mode : {-1, int(Crop)}) {
                QTest::addRow("%s-%s", qPrintable(name), modeName(mode)) << folder.filePath(name) << QSize(1920, 1080) << mode;
            }
        }
    }

    void photos()
    {
        preparation();
    }

    void fadeFrame_data()
    {
        QTest::addColumn<QSize>("screen");
        QTest::addColumn<QString>("what");
        for (const QSize &screen : screens) {
            for (const char *what : {"frame", "paint-only", "copy"}) {
                QTest::addRow("%dx%d-%s", screen.width(), screen.height(), what) << screen << QString::fromLatin1(what);
            }
        }
    }

    void fadeFrame()
    {
        QFETCH(QSize, screen);
        QFETCH(QString, what);
        QImage frame(screen, QImage::Format_RGB32);
        frame.fill(Qt::black);
        if (what == QLatin1String("copy")) {
            QPixmap pixmap(screen);
            pixmap.fill(Qt::darkCyan);
            QBENCHMARK {
                QPainter(&frame).drawPixmap(0, 0, pixmap);
            }
            return;
        }
        // Kept from run to run: QtTest runs a row again until its figure is
        // steady, and the slides take a while to prepare.
        if (!m_label || m_label->size() != screen) {
            m_label.reset();
            auto label = std::make_unique<SlideLabel>();
            label->resize(screen);
            label->setPosition(Crop);
            // Shown first: a hidden widget gets its resize event only when
            // shown or rendered, and that event empties the cache.
            label->show();
            QVERIFY(QTest::qWaitForWindowExposed(label.get()));
            QCOMPARE(label->size(), screen);
            label->setDir(fadeFolder());
            const auto ready = [&label](const QString &path) {
                return inspect(*label).files().size() == 2 && !inspect(*label).slide(path).isNull();
            };
            QTRY_VERIFY_WITH_TIMEOUT(ready(inspect(*label).currentImage()), patienceMs);
            label->setNext();
            QTRY_VERIFY_WITH_TIMEOUT(ready(inspect(*label).currentImage()) && ready(inspect(*label).previousImage()), patienceMs);
            label->setOpacity(0.37);
            m_label = std::move(label);
        }
        // "paint-only": without the background, the label's paintEvent alone.
        const QWidget::RenderFlags flags = what == QLatin1String("frame") ? QWidget::DrawWindowBackground | QWidget::DrawChildren : QWidget::RenderFlags();
        QBENCHMARK {
            m_label->render(&frame, QPoint(), QRegion(), flags);
        }
    }

private:
    static void addPreparationColumns()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QSize>("screen");
        // A Position, or -1 for the floor.
        QTest::addColumn<int>("mode");
    }

    // The photo's file, written when first asked for.
    QString photoPath(const Photo &photo)
    {
        const QString path = m_dir.filePath(QString::fromLatin1(photo.name));
        if (!QFile::exists(path) && !ImageMetrics::writePhoto(path, photo.size, photo.seed)) {
            qFatal("zav-benchmark: cannot write %s", qPrintable(path));
        }
        return path;
    }

    // A folder of two different photos for the cross-fade.
    QString fadeFolder()
    {
        const QString dir = m_dir.filePath(QStringLiteral("fade"));
        if (QDir().mkpath(dir) && QDir(dir).isEmpty()) {
            QFile::copy(photoPath(generatedPhotos[0]), QDir(dir).filePath(QStringLiteral("a.jpg")));
            QFile::copy(photoPath(generatedPhotos[2]), QDir(dir).filePath(QStringLiteral("b.jpg")));
        }
        return dir;
    }

    QTemporaryDir m_dir;
    std::unique_ptr<SlideLabel> m_label;
    // Per row of the preparation: the CPU time of the whole process per run,
    // and the PSNR of the slide against the mode applied to the whole
    // decoded file (-1 for the floor).
    struct Note {
        QString row;
        double cpuMs;
        double psnr;
    };
    QVector<Note> m_notes;
};

QTEST_MAIN(Benchmark)

#include "zav-benchmark.moc"
