/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "imagemetrics.h"

#include <cmath>
#include <vector>

namespace ImageMetrics
{
QImage photoLike(int width, int height, quint32 seed)
{
    QImage image(width, height, QImage::Format_RGB32);
    std::vector<int> columnWave(static_cast<size_t>(width));
    std::vector<int> rowWave(static_cast<size_t>(height));
    const double phase = double(seed % 97) / 15.0;
    for (int x = 0; x < width; ++x) {
        columnWave[size_t(x)] = int(30 * std::sin(phase + 2 * M_PI * 5 * x / width));
    }
    for (int y = 0; y < height; ++y) {
        rowWave[size_t(y)] = int(25 * std::sin(phase + 2 * M_PI * 3 * y / height));
    }
    quint32 state = seed * 2654435761u + 1;
    for (int y = 0; y < height; ++y) {
        auto *line = reinterpret_cast<QRgb *>(image.scanLine(y));
        for (int x = 0; x < width; ++x) {
            state ^= state << 13;
            state ^= state >> 17;
            state ^= state << 5;
            const int noiseR = int(state & 15) - 8;
            const int noiseG = int((state >> 8) & 15) - 8;
            const int noiseB = int((state >> 16) & 15) - 8;
            const int r = 50 + 150 * x / width + columnWave[size_t(x)] + noiseR;
            const int g = 40 + 130 * y / height + rowWave[size_t(y)] + noiseG;
            const int b = 80 + 60 * (x + y) / (width + height) + (columnWave[size_t(x)] + rowWave[size_t(y)]) / 2 + noiseB;
            line[x] = qRgb(qBound(0, r, 255), qBound(0, g, 255), qBound(0, b, 255));
        }
    }
    return image;
}

bool writePhoto(const QString &path, const QSize &size, quint32 seed)
{
    const bool jpeg = path.endsWith(QLatin1String(".jpg"), Qt::CaseInsensitive);
    return photoLike(size.width(), size.height(), seed).save(path, nullptr, jpeg ? 90 : -1);
}

double psnr(const QImage &actual, const QImage &expected)
{
    if (actual.isNull() || actual.size() != expected.size()) {
        return -1;
    }
    const QImage a = actual.convertToFormat(QImage::Format_RGB32);
    const QImage b = expected.convertToFormat(QImage::Format_RGB32);
    double squares = 0;
    for (int y = 0; y < a.height(); ++y) {
        const auto *lineA = reinterpret_cast<const QRgb *>(a.constScanLine(y));
        const auto *lineB = reinterpret_cast<const QRgb *>(b.constScanLine(y));
        for (int x = 0; x < a.width(); ++x) {
            const int dr = qRed(lineA[x]) - qRed(lineB[x]);
            const int dg = qGreen(lineA[x]) - qGreen(lineB[x]);
            const int db = qBlue(lineA[x]) - qBlue(lineB[x]);
            squares += dr * dr + dg * dg + db * db;
        }
    }
    const double mse = squares / (3.0 * a.width() * a.height());
    if (mse == 0) {
        return 100;
    }
    return 10 * std::log10(255.0 * 255.0 / mse);
}
}
