/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Images that look like photos to an encoder, and how close two pictures
// are: shared by the benchmarks and the tests of the reduced decoding.

#ifndef ZAV_IMAGEMETRICS_H
#define ZAV_IMAGEMETRICS_H

#include <QImage>
#include <QtGlobal>

namespace ImageMetrics
{
// Smooth gradients and slow waves with a little per-pixel noise: the noise
// keeps JPEG and PNG from compressing it far better than a real photo.
QImage photoLike(int width, int height, quint32 seed);

// Writes photoLike(size, seed) to path, in the format its suffix names: a
// JPEG at quality 90, as cameras write, a PNG at the default compression.
bool writePhoto(const QString &path, const QSize &size, quint32 seed);

// The peak signal-to-noise ratio of actual against expected over the red,
// green and blue channels, in dB (higher is closer; 100 for equal
// pictures, -1 for pictures of different sizes or null ones). Above about
// 38 dB the two cannot be told apart by eye.
double psnr(const QImage &actual, const QImage &expected);
}

#endif // ZAV_IMAGEMETRICS_H
