/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// What an ImageCacheWorker's containers hold at one moment, for tests and
// tools (the benchmark); not part of what the slide label uses.

#ifndef ZAV_IMAGECACHEWORKER_P_H
#define ZAV_IMAGECACHEWORKER_P_H

#include "imagecache/imagecacheworker.h"

#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

#include <mutex>

namespace Dm
{
namespace ScreenSaver
{
struct WorkerSnapshot {
    QStringList cachedPaths;
    QList<QString> cacheOrder;
    QSet<QString> pendingRequests;
    quint64 generation = 0;
    int capacity = ImageCacheWorker::maxCacheSize;
    // How many files the worker's thread has begun to read.
    int preparationsStarted = 0;
};

class ImageCacheWorkerAccess
{
public:
    // Deep copies, made under the worker's lock: from any thread.
    static WorkerSnapshot snapshot(const ImageCacheWorker *worker);
    // The worker's own lock, for a test that holds it from another thread.
    static std::unique_lock<std::mutex> lock(const ImageCacheWorker *worker);
};

inline WorkerSnapshot snapshotOf(const ImageCacheWorker *worker)
{
    return ImageCacheWorkerAccess::snapshot(worker);
}

inline WorkerSnapshot snapshotOf(const ImageCacheWorker &worker)
{
    return ImageCacheWorkerAccess::snapshot(&worker);
}
}
}

#endif // ZAV_IMAGECACHEWORKER_P_H
