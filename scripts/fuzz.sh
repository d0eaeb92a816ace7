#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
# SPDX-License-Identifier: GPL-2.0-or-later
#
# Fuzzes the image preparation path with libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer:
#   scripts/fuzz.sh [SECONDS]    (default 60; the corpus grows in build-fuzz/corpus)
# Installs clang and what the build needs when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

ZAV_EXTRA_PACKAGES="clang-14 libclang-rt-14-dev" bash scripts/install-packages.sh

cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++-14 -DZAV_FUZZ=ON -DZAV_SANITIZERS=address,undefined -DBUILD_TESTING=OFF >/dev/null
cmake --build build-fuzz --target cachedimagefuzzer -j2
mkdir -p build-fuzz/corpus build-fuzz/artifacts

export QT_QPA_PLATFORM=offscreen
export ZAV_FUZZ_SEEDS_DIR=build-fuzz/corpus
export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:abort_on_error=1:fast_unwind_on_malloc=0
export LSAN_OPTIONS=suppressions=$PWD/autotests/sanitizers/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
# An input may take at most 30 s and the process 3 GiB: a hang or unbounded
# memory counts as a finding like a crash.
build-fuzz/fuzz/cachedimagefuzzer -max_total_time="$seconds" -timeout=30 -rss_limit_mb=3072 -max_len=65536 \
    -artifact_prefix=build-fuzz/artifacts/ -print_final_stats=1 build-fuzz/corpus
