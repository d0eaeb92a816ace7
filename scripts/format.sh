#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
# SPDX-License-Identifier: GPL-2.0-or-later
#
# Formats every C++ file that git tracks in KDE's style, with the
# .clang-format file of KDE's Extra CMake Modules (which configuring the
# build also writes, and the build's target clang-format uses):
#   scripts/format.sh           format in place
#   scripts/format.sh --check   change nothing; list the files that are not
#                               formatted and fail if there is one
# Installs clang-format when it is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
ZAV_EXTRA_PACKAGES="clang-format" bash scripts/install-packages.sh
if [ ! -f .clang-format ]; then
    template=$(find /usr/share/ECM -path '*kde-modules/clang-format.cmake' | head -n 1)
    if [ -z "$template" ]; then
        echo "format: KDE's clang-format file (extra-cmake-modules) is not installed" >&2
        exit 1
    fi
    cp "$template" .clang-format
fi
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = --check ]; then
    clang-format --dry-run --Werror "${files[@]}"
    echo "format: all ${#files[@]} C++ files are formatted"
else
    clang-format -i "${files[@]}"
fi
