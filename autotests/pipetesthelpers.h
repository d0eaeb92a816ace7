/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Named pipes named like images, for a worker that hangs in a read or reads slowly.

#ifndef ZAV_PIPETESTHELPERS_H
#define ZAV_PIPETESTHELPERS_H

#include <QBuffer>
#include <QImage>
#include <QRandomGenerator>
#include <QThread>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace PipeTest
{
inline qint64 millisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

// Opens a write end of the pipe once a reader has it open, writing nothing,
// so the reader waits in its read. A timeout of 0 tries once, a negative one
// waits as long as it takes; -1 if no reader came in time or stop was set.
inline int holdReaderInRead(const QByteArray &pipe, int timeoutMs, const std::atomic<bool> *stop = nullptr)
{
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        const int writer = ::open(pipe.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (writer >= 0 || (stop && stop->load()) || (timeoutMs >= 0 && millisecondsSince(start) >= timeoutMs)) {
            return writer;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Keeps a reader of the pipe waiting until released: in open(), or in its
// read given the write end the test opened (held open without data). Then
// the held end is closed and every open answered with an empty file. Released
// by the test or after autoReleaseMs (never when negative), so that code that
// waits for the reader fails a test instead of hanging it. The destructor
// quits and waits for the reader's thread, if given, while it still answers.
class PipeReleaser
{
public:
    explicit PipeReleaser(const QByteArray &pipe, int autoReleaseMs = -1, int heldWriter = -1, QThread *readerThread = nullptr)
        : m_readerThread(readerThread)
        , m_heldWriter(heldWriter)
        , m_thread(&PipeReleaser::run, this, pipe, autoReleaseMs)
    {
    }

    ~PipeReleaser()
    {
        release();
        if (m_readerThread) {
            m_readerThread->quit();
            m_readerThread->wait();
        }
        m_stop.store(true);
        m_thread.join();
        if (!m_released.load() && m_heldWriter >= 0) {
            ::close(m_heldWriter);
        }
    }

    void release()
    {
        m_releaseNow.store(true);
    }
    // Set before the held write end is closed: while false, the reader waits.
    bool released() const
    {
        return m_released.load();
    }

private:
    void run(const QByteArray &pipe, int autoReleaseMs)
    {
        const auto start = std::chrono::steady_clock::now();
        while (!m_stop.load()) {
            if (!m_released.load() && (m_releaseNow.load() || (autoReleaseMs >= 0 && millisecondsSince(start) >= autoReleaseMs))) {
                m_released.store(true);
                if (m_heldWriter >= 0) {
                    ::close(m_heldWriter);
                }
            }
            if (m_released.load()) {
                const int writer = holdReaderInRead(pipe, 0);
                if (writer >= 0) {
                    ::close(writer);
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    QThread *const m_readerThread;
    const int m_heldWriter;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_releaseNow{false};
    std::atomic<bool> m_released{false};
    std::thread m_thread;
};

// Delivers data through a named pipe slowly, a piece at a time, and notes
// when the reader went away before the end.
class SlowFeeder
{
public:
    SlowFeeder(const QByteArray &pipe, const QByteArray &data, int pieces, int intervalMs)
        : m_thread(&SlowFeeder::run, this, pipe, data, pieces, intervalMs)
    {
    }

    ~SlowFeeder()
    {
        m_stop.store(true);
        m_thread.join();
    }

    bool started() const
    {
        return m_written.load() > 0;
    }
    // Whether the reader closed the pipe before the end, and when (ms after
    // the start).
    bool readerLeft() const
    {
        return m_readerLeftAt.load() >= 0;
    }
    qint64 readerLeftAt() const
    {
        return m_readerLeftAt.load();
    }
    std::chrono::steady_clock::time_point startTime() const
    {
        return m_start;
    }

private:
    void run(const QByteArray &pipe, const QByteArray &data, int pieces, int intervalMs)
    {
        const int writer = holdReaderInRead(pipe, -1, &m_stop);
        if (writer < 0) {
            return;
        }
        m_start = std::chrono::steady_clock::now();
        const int pieceSize = (data.size() + pieces - 1) / pieces;
        for (int offset = 0; offset < data.size() && !m_stop.load();) {
            const ssize_t written = ::write(writer, data.constData() + offset, size_t(qMin(pieceSize, data.size() - offset)));
            if (written < 0 && errno == EPIPE) {
                m_readerLeftAt.store(millisecondsSince(m_start));
                break;
            }
            offset += int(qMax(written, ssize_t(0)));
            m_written.store(offset > 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
        }
        ::close(writer);
    }

    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_written{false};
    std::atomic<qint64> m_readerLeftAt{-1};
    std::chrono::steady_clock::time_point m_start;
    std::thread m_thread;
};

// A PNG file of random pixels: nearly incompressible, so its size is known
// in advance (about four bytes a pixel).
inline QByteArray noisyPng(const QSize &size)
{
    QImage picture(size, QImage::Format_RGB32);
    QRandomGenerator random(7);
    for (int y = 0; y < picture.height(); ++y) {
        auto *line = reinterpret_cast<QRgb *>(picture.scanLine(y));
        for (int x = 0; x < picture.width(); ++x) {
            line[x] = random.generate() | 0xff000000u;
        }
    }
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    picture.save(&buffer, "PNG");
    return png;
}
}

#endif // ZAV_PIPETESTHELPERS_H
