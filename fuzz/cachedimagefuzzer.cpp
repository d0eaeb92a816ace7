/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// libFuzzer target for the image preparation path: arbitrary bytes become a
// file, and the worker fits it in one of the modes. Whatever the bytes, the
// result must be a pixmap of the requested size (a black one for what cannot
// be read), without a crash, a hang or unbounded memory.

#include "imagecache/imagecacheworker.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QImageWriter>
#include <QLoggingCategory>
#include <QPainter>
#include <QPixmap>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace Dm::ScreenSaver;

namespace
{
QTemporaryDir *workDir = nullptr;
ImageCacheWorker *worker = nullptr;

// A first corpus: small images in every format the slide show lists, each
// behind the two selector bytes.
void writeSeeds(const QString &dir)
{
    QDir().mkpath(dir);
    QImage image(37, 23, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        painter.setBrush(QColor(200, 30, 40, 180));
        painter.drawEllipse(QRect(2, 2, 30, 18));
    }
    // Today's formats too, where this machine's image plug-ins write them.
    const char *formats[] = {"PNG", "JPG", "BMP", "XPM", "PBM", "PPM", "PGM", "XBM", "WEBP", "TIFF", "HEIC", "AVIF", "JXL"};
    const QList<QByteArray> writable = QImageWriter::supportedImageFormats();
    int n = 0;
    for (int format = 0; format < int(sizeof(formats) / sizeof(formats[0])); ++format) {
        if (!writable.contains(QByteArray(formats[format]).toLower())) {
            continue;
        }
        QByteArray bytes;
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        image.save(&buffer, formats[format]);
        for (int mode = 0; mode < 5; ++mode) {
            QFile seed(QDir(dir).filePath(QStringLiteral("seed-%1").arg(++n)));
            if (seed.open(QIODevice::WriteOnly)) {
                const char selector[2] = {char(mode), char(format * 16 + (mode % 4) * 4 + mode % 4)};
                seed.write(selector, 2);
                seed.write(bytes);
            }
        }
    }
}
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Q_UNUSED(argc)
    Q_UNUSED(argv)
    qputenv("QT_QPA_PLATFORM", "offscreen");
    static int qtArgc = 1;
    static char name[] = "cachedimagefuzzer";
    static char *qtArgv[] = {name, nullptr};
    new QGuiApplication(qtArgc, qtArgv);
    // Every unreadable input warns; that is expected here and only slows the run.
    QLoggingCategory::setFilterRules(QStringLiteral("zav-tev.screensaver.slideshow.warning=false\nqt.*=false"));
    workDir = new QTemporaryDir;
    worker = new ImageCacheWorker;
    // The first painter loads the font configuration, once per process;
    // done here so that it is not taken for a leak of the first input.
    {
        QPixmap warmUp(8, 8);
        QPainter painter(&warmUp);
    }
    if (qEnvironmentVariableIsSet("ZAV_FUZZ_SEEDS_DIR")) {
        writeSeeds(qEnvironmentVariable("ZAV_FUZZ_SEEDS_DIR"));
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    // The first two bytes choose the mode, the target size and the ratio;
    // the rest is the file.
    const int mode = data[0] % 6; // 5 is an unknown mode, stretched with a warning
    const QSize sizes[] = {QSize(129, 129), QSize(320, 200), QSize(200, 480), QSize(640, 360)};
    const QSize target = sizes[data[1] % 4];
    const double ratios[] = {1.0, 2.0, 1.5, 3.0};
    const double ratio = ratios[(data[1] / 4) % 4];
    static const char *suffixes[] = {".png", ".jpg", ".bmp", ".xpm", ".pbm", ".ppm", ".pgm", ".xbm"};
    const QString path = workDir->filePath(QStringLiteral("input") + QLatin1String(suffixes[(data[1] / 16) % 8]));

    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        std::abort();
    }
    file.write(reinterpret_cast<const char *>(data + 2), qint64(size - 2));
    file.close();

    const QPixmap result = worker->cachedImage(path, QRect(0, 0, target.width(), target.height()), ratio, Position(mode));
    if (result.size() != target) {
        std::fprintf(stderr, "mode %d at %dx%d gave %dx%d\n", mode, target.width(), target.height(), result.width(), result.height());
        std::abort();
    }
    QFile::remove(path);
    return 0;
}
