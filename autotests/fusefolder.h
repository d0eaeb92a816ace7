/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_FUSEFOLDER_H
#define ZAV_FUSEFOLDER_H

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

namespace TestUtils
{
// A folder that behaves like a network share whose server can stop
// answering: a small FUSE file system of the tests' own (fusefolder.py, run
// by the system's Python with fusepy) shows the files of a backing folder at
// path(), and holds its listings or its reads for as long as the test asks.
// Like most network shares it reports no change to a file system watcher.
// Unmounted (and everything released) when it goes.
class FuseFolder
{
public:
    FuseFolder();
    ~FuseFolder();
    FuseFolder(const FuseFolder &) = delete;
    FuseFolder &operator=(const FuseFolder &) = delete;

    // Empty when mounted, else why not (for QSKIP: a machine without FUSE).
    QString error() const
    {
        return m_error;
    }
    // Where the show looks, and where the test writes its files.
    QString path() const;
    QString backing() const;

    // While held, every listing (every read) of the folder waits, each at
    // most maxHoldMs: code that waited for it would make a test fail, not
    // hang.
    void holdListings(bool hold, int maxHoldMs = 20000);
    void holdReads(bool hold, int maxHoldMs = 20000);
    // How many listings (reads) are waiting right now.
    int waitingListings() const;
    int waitingReads() const;

private:
    void hold(const char *what, bool hold, int maxHoldMs);
    int waiting(const char *what) const;

    QTemporaryDir m_dir;
    QProcess m_process;
    QString m_error;
    bool m_mounted = false;
};

// The threads of this process, as the kernel counts them.
int processThreadCount();
}

#endif // ZAV_FUSEFOLDER_H
