/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// Named pipes named like images, for the tests of a worker that hangs in a
// read or reads a file that arrives slowly.

#ifndef ZAV_PIPETESTHELPERS_H
#define ZAV_PIPETESTHELPERS_H

#include <QBuffer>
#include <QByteArray>
#include <QImage>
#include <QRandomGenerator>
#include <QSize>
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

// Keeps a reader of the pipe waiting until released: in open() (nobody
// opens the write end) or, given the write end that the test opened, in its
// read (the write end stays open without data). Once released, the held
// write end is closed and every open of the pipe is answered by opening and
// closing a write end, so that each reader reads an empty file. Released by
// the test, or on its own after autoReleaseMs (never when negative), so that
// code that waits for the reader makes a test fail instead of hang. Given the
// reader's thread, the destructor quits it and waits for it while it still
// answers.
class PipeReleaser
{
public:
    explicit PipeReleaser(const QByteArray &pipe, int autoReleaseMs = -1, int heldWriter = -1, QThread *readerThread = nullptr)
        : m_readerThread(readerThread)
        , m_heldWriter(heldWriter)
        , m_thread([this, pipe, autoReleaseMs] {
            run(pipe, autoReleaseMs);
        })
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
    }

    PipeReleaser(const PipeReleaser &) = delete;
    PipeReleaser &operator=(const PipeReleaser &) = delete;

    void release()
    {
        m_releaseNow.store(true);
    }

    bool released() const
    {
        return m_released.load();
    }

private:
    void run(const QByteArray &pipe, int autoReleaseMs)
    {
        const auto start = std::chrono::steady_clock::now();
        while (!m_stop.load()) {
            if (!m_released.load()) {
                if (!m_releaseNow.load() && (autoReleaseMs < 0 || millisecondsSince(start) < autoReleaseMs)) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    continue;
                }
                if (m_heldWriter >= 0) {
                    ::close(m_heldWriter);
                }
                m_released.store(true);
            }
            // Succeeds only while a reader has the pipe open.
            const int writer = ::open(pipe.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (writer >= 0) {
                ::close(writer);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (!m_released.load() && m_heldWriter >= 0) {
            ::close(m_heldWriter);
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
        : m_thread([this, pipe, data, pieces, intervalMs] {
            run(pipe, data, pieces, intervalMs);
        })
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
    // Whether the reader closed the pipe before everything was delivered,
    // and how many ms after the start that was seen.
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
        int writer = -1;
        while (!m_stop.load() && writer < 0) {
            writer = ::open(pipe.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (writer < 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
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
            if (written > 0) {
                offset += int(written);
                m_written.fetch_add(int(written));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
        }
        ::close(writer);
    }

    std::atomic<bool> m_stop{false};
    std::atomic<int> m_written{0};
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

// Opens a write end of the pipe as soon as a reader has it open, without
// writing, so that the reader then waits in its read; -1 if no reader came
// within timeoutMs.
inline int holdReaderInRead(const QByteArray &pipe, int timeoutMs)
{
    const auto start = std::chrono::steady_clock::now();
    while (millisecondsSince(start) < timeoutMs) {
        const int writer = ::open(pipe.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (writer >= 0) {
            return writer;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return -1;
}
}

#endif // ZAV_PIPETESTHELPERS_H
