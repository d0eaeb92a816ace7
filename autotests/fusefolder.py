#!/usr/bin/python3
# SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
# SPDX-License-Identifier: GPL-2.0-or-later
#
# A folder that behaves like a network share whose server can stop
# answering: it shows the files of a backing folder, and hangs its listings
# or its reads for as long as the test asks. The test asks through files in a
# control folder: while "hold-listing" exists, every listing of a folder
# waits; while "hold-reads" exists, every read of a file waits. A hold file
# may give the most seconds that one operation waits, so that code that
# waits for the folder makes a test fail rather than hang. Each waiting
# operation counts itself in "waiting-listings" or "waiting-reads", so that
# the test knows when a reader is really held. Changes made in the backing
# folder are seen at once, but nothing is reported to file system watchers,
# as on most network shares.
#
#   fusefolder.py BACKING MOUNTPOINT CONTROL

import os
import subprocess
import sys
import threading
import time

from fusepy import FUSE, FuseOSError, Operations


class HangingFolder(Operations):
    def __init__(self, backing, control):
        self.backing = backing
        self.control = control
        self.mutex = threading.Lock()
        self.waiting = {"listings": 0, "reads": 0}

    def _path(self, path):
        return os.path.join(self.backing, path.lstrip("/"))

    def _hold(self, what, kind):
        flag = os.path.join(self.control, "hold-" + what)
        if not os.path.exists(flag):
            return
        try:
            with open(flag) as limit:
                deadline = time.monotonic() + float(limit.read().strip() or "inf")
        except (OSError, ValueError):
            deadline = float("inf")
        with self.mutex:
            self.waiting[kind] += 1
            self._publish(kind)
        try:
            while os.path.exists(flag) and time.monotonic() < deadline:
                time.sleep(0.01)
        finally:
            with self.mutex:
                self.waiting[kind] -= 1
                self._publish(kind)

    def _publish(self, kind):
        name = os.path.join(self.control, "waiting-" + kind)
        with open(name + ".new", "w") as out:
            out.write(str(self.waiting[kind]))
        os.replace(name + ".new", name)

    def getattr(self, path, fh=None):
        try:
            st = os.lstat(self._path(path))
        except OSError as error:
            raise FuseOSError(error.errno)
        keys = ("st_mode", "st_nlink", "st_uid", "st_gid", "st_size", "st_atime", "st_mtime", "st_ctime")
        return {key: getattr(st, key) for key in keys}

    def readdir(self, path, fh):
        self._hold("listing", "listings")
        try:
            names = os.listdir(self._path(path))
        except OSError as error:
            raise FuseOSError(error.errno)
        return [".", ".."] + names

    def readlink(self, path):
        return os.readlink(self._path(path))

    def open(self, path, flags):
        try:
            return os.open(self._path(path), os.O_RDONLY)
        except OSError as error:
            raise FuseOSError(error.errno)

    def read(self, path, size, offset, fh):
        self._hold("reads", "reads")
        return os.pread(fh, size, offset)

    def release(self, path, fh):
        os.close(fh)
        return 0

    def statfs(self, path):
        st = os.statvfs(self.backing)
        keys = ("f_bavail", "f_bfree", "f_blocks", "f_bsize", "f_favail", "f_ffree", "f_files", "f_flag", "f_frsize", "f_namemax")
        return {key: getattr(st, key) for key in keys}


def unmount_when_orphaned(mountpoint):
    # The test that started this program may crash: then the folder goes
    # too, and with it everything the test's processes had open here.
    parent = os.getppid()
    while os.getppid() == parent:
        time.sleep(0.1)
    subprocess.call(["umount", "-l", mountpoint])
    os._exit(0)


if __name__ == "__main__":
    backing, mountpoint, control = sys.argv[1:4]
    threading.Thread(target=unmount_when_orphaned, args=(mountpoint,), daemon=True).start()
    # No caching in the kernel: every listing and every read reaches this
    # program, and changes in the backing folder show at once.
    FUSE(HangingFolder(backing, control), mountpoint, foreground=True, nothreads=False, direct_io=True,
         attr_timeout=0, entry_timeout=0, negative_timeout=0)
