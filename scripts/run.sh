#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
# SPDX-License-Identifier: GPL-2.0-or-later
#
# Sets everything up on a Debian 12 machine and runs one job:
#   scripts/run.sh main   install what is missing, build, say where the plug-in is
#   scripts/run.sh test   install what is missing, build, run the whole test suite
# Environment: ZAV_BUILD_DIR (default build), ZAV_SANITIZERS (for example
# address,undefined or thread; empty for a normal build), ZAV_TEST_LABEL (run
# only the tests with this CTest label).
set -euo pipefail

cd "$(dirname "$0")/.."
job=${1:-main}
build_dir=${ZAV_BUILD_DIR:-build}
sanitizers=${ZAV_SANITIZERS:-}

packages=(
    cmake g++ make pkg-config
    qtbase5-dev qtbase5-dev-tools libqt5svg5
    libkf5i18n-dev extra-cmake-modules gettext
    fonts-dejavu-core
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        sudo=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake -S . -B "$build_dir" -DZAV_SANITIZERS="$sanitizers" >/dev/null
cmake --build "$build_dir" -j2

case "$job" in
main)
    module=$(find "$build_dir/plugins" -name 'libzav-screensaver_slideshow.so' -print -quit)
    echo "The plug-in is built: $(realpath "$module")"
    ;;
test)
    label=()
    if [ -n "${ZAV_TEST_LABEL:-}" ]; then
        label=(-L "$ZAV_TEST_LABEL")
    fi
    ctest --test-dir "$build_dir" --output-on-failure -j2 "${label[@]}"
    ;;
*)
    echo "usage: $0 main|test" >&2
    exit 2
    ;;
esac
