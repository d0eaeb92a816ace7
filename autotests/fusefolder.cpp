/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#include "fusefolder.h"

#include <QDir>
#include <QFile>
#include <QTest>

namespace TestUtils
{
namespace
{
bool isMountPoint(const QString &path)
{
    QFile mounts(QStringLiteral("/proc/self/mountinfo"));
    if (!mounts.open(QIODevice::ReadOnly)) {
        return false;
    }
    const QByteArray needle = ' ' + QFile::encodeName(path) + ' ';
    return mounts.readAll().contains(needle);
}
}

FuseFolder::FuseFolder()
{
    if (!QFile::exists(QStringLiteral("/dev/fuse"))) {
        m_error = QStringLiteral("/dev/fuse is missing: this machine cannot mount a FUSE file system");
        return;
    }
    if (!m_dir.isValid()) {
        m_error = QStringLiteral("no temporary folder");
        return;
    }
    const QDir root(m_dir.path());
    for (const char *name : {"backing", "mount", "control"}) {
        root.mkdir(QLatin1String(name));
    }
    m_process.setProcessChannelMode(QProcess::ForwardedChannels);
    // The system's Python, where Debian installs fusepy.
    m_process.start(QStringLiteral("/usr/bin/python3"), {QStringLiteral(ZAV_FUSE_FOLDER_SCRIPT), backing(), path(), root.filePath(QStringLiteral("control"))});
    if (!m_process.waitForStarted(10000)) {
        m_error = QStringLiteral("cannot run /usr/bin/python3: %1").arg(m_process.errorString());
        return;
    }
    m_mounted = QTest::qWaitFor(
                    [this] {
                        return isMountPoint(path()) || m_process.state() == QProcess::NotRunning;
                    },
                    10000)
        && isMountPoint(path());
    if (!m_mounted) {
        m_error = QStringLiteral("the FUSE folder did not mount (python3-fusepy and fuse3 installed?)");
    }
}

FuseFolder::~FuseFolder()
{
    holdListings(false, 0);
    holdReads(false, 0);
    if (m_mounted) {
        // Lazily: a reader of the test that is still inside the folder
        // finishes first.
        QProcess::execute(QStringLiteral("umount"), {QStringLiteral("-l"), path()});
    }
    if (m_process.state() != QProcess::NotRunning && !m_process.waitForFinished(10000)) {
        m_process.kill();
        m_process.waitForFinished(10000);
    }
}

QString FuseFolder::path() const
{
    return QDir(m_dir.path()).filePath(QStringLiteral("mount"));
}

QString FuseFolder::backing() const
{
    return QDir(m_dir.path()).filePath(QStringLiteral("backing"));
}

void FuseFolder::hold(const char *what, bool hold, int maxHoldMs)
{
    const QString flag = QDir(m_dir.path()).filePath(QStringLiteral("control/hold-") + QLatin1String(what));
    if (hold) {
        QFile file(flag);
        if (file.open(QIODevice::WriteOnly)) {
            file.write(QByteArray::number(maxHoldMs / 1000.0));
        }
    } else {
        QFile::remove(flag);
    }
}

int FuseFolder::waiting(const char *what) const
{
    QFile file(QDir(m_dir.path()).filePath(QStringLiteral("control/waiting-") + QLatin1String(what)));
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    return file.readAll().trimmed().toInt();
}

void FuseFolder::holdListings(bool hold, int maxHoldMs)
{
    this->hold("listing", hold, maxHoldMs);
}

void FuseFolder::holdReads(bool hold, int maxHoldMs)
{
    this->hold("reads", hold, maxHoldMs);
}

int FuseFolder::waitingListings() const
{
    return waiting("listings");
}

int FuseFolder::waitingReads() const
{
    return waiting("reads");
}

int processThreadCount()
{
    return int(QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
}
}
