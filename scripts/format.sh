#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
# SPDX-License-Identifier: GPL-2.0-or-later
#
# Formats every C++ file that git tracks with the project's .clang-format:
#   scripts/format.sh           format in place
#   scripts/format.sh --check   change nothing; list the files that are not
#                               formatted and fail if there is one
# Installs clang-format when it is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
ZAV_EXTRA_PACKAGES="clang-format" bash scripts/install-packages.sh
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = --check ]; then
    clang-format --dry-run --Werror "${files[@]}"
    echo "format: all ${#files[@]} C++ files are formatted"
else
    clang-format -i "${files[@]}"
fi
