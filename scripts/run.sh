#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
# SPDX-License-Identifier: GPL-2.0-or-later
#
# Sets everything up on a Debian 12 machine and runs one job:
#   scripts/run.sh main   install what is missing, build, and run the demo: the
#                         preview host shows generated sample images headless
#                         and writes a few frames and a contact sheet
#   scripts/run.sh test   install what is missing, build, run the whole test suite
# Environment: ZAV_BUILD_DIR (default build), ZAV_SANITIZERS (for example
# address,undefined or thread; empty for a normal build), ZAV_TEST_LABEL (run
# only the tests with this CTest label), ZAV_DEMO_SHOW=1 (the demo shows the
# slide show in a window on the current display instead of capturing frames).
set -euo pipefail

cd "$(dirname "$0")/.."
job=${1:-main}
build_dir=${ZAV_BUILD_DIR:-build}
sanitizers=${ZAV_SANITIZERS:-}

bash scripts/install-packages.sh

cmake -S . -B "$build_dir" -DZAV_SANITIZERS="$sanitizers" >/dev/null
cmake --build "$build_dir" -j2

case "$job" in
main)
    module=$(realpath "$build_dir/plugins/libzav-screensaver_slideshow.so")
    echo "The plug-in is built: $module"
    demo="$build_dir/demo"
    bin="$build_dir/bin"
    rm -rf "$demo/frames"
    mkdir -p "$demo"
    "$bin/zav-screensaver-samples" images "$demo/images" >/dev/null
    # A short interval and a one-second fade, so that a few seconds show two
    # switches: frames 2, 10 and 18 are slides, 6 and 14 are mid-fade.
    settings=(--settings "$demo/settings.ini" --dir "$(realpath "$demo/images")" --interval 1 --effect 1000 --position Crop)
    if [ "${ZAV_DEMO_SHOW:-}" = 1 ]; then
        echo "Showing the slide show; press any key or click to stop."
        exec "$bin/zav-screensaver-preview" "${settings[@]}" --window 960x540
    fi
    QT_QPA_PLATFORM=offscreen "$bin/zav-screensaver-preview" "${settings[@]}" --window 960x540 \
        --record "$demo/frames" --duration 4.6 --fps 4 2>/dev/null
    frames=()
    for n in 0002 0006 0010 0014 0018; do
        if [ -f "$demo/frames/frame-$n.png" ]; then
            frames+=("$demo/frames/frame-$n.png")
        fi
    done
    QT_QPA_PLATFORM=offscreen "$bin/zav-screensaver-samples" contact-sheet "$demo/contact-sheet.png" "${frames[@]}" 2>/dev/null >/dev/null
    echo "Sample images:  $(realpath "$demo/images")"
    echo "Frames:         $(realpath "$demo/frames") (frame-0006.png and frame-0014.png are mid-fade)"
    echo "Contact sheet:  $(realpath "$demo/contact-sheet.png")"
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
