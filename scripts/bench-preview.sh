#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
# SPDX-License-Identifier: GPL-2.0-or-later
#
# Runs the preview host over the whole screen of Xvfb (1920x1080 unless
# ZAV_BENCH_SCREEN says otherwise, for example 3840x2160) on the wallpapers
# of Debian's plasma-workspace-wallpapers, with the default settings (5 s per
# slide, a 500 ms fade, Crop), and reports what the slide show costs there:
#   scripts/bench-preview.sh [SECONDS]   (default 60)
# Prints the CPU seconds (user + system) per slide switch, the peak resident
# memory and the time from the process's start to the first paint of a slide.
# Installs what is missing; the photos stay where the package put them (the
# folder it shows holds only links to them). Environment: ZAV_BUILD_DIR
# (default build), ZAV_BUILD_JOBS (default 2), ZAV_BENCH_KEEP=1 keeps the
# log and the measurements in the printed folder, ZAV_BENCH_PHOTOS=1 also
# measures the preparation of each of these photos with zav-benchmark.
set -euo pipefail

cd "$(dirname "$0")/.."
seconds=${1:-60}
screen=${ZAV_BENCH_SCREEN:-1920x1080}
build_dir=${ZAV_BUILD_DIR:-build}
jobs=${ZAV_BUILD_JOBS:-2}

ZAV_EXTRA_PACKAGES="plasma-workspace-wallpapers xvfb xauth time" bash scripts/install-packages.sh

cmake -S . -B "$build_dir" >/dev/null
targets=(zav-screensaver-preview zav-screensaver_slideshow)
if [ "${ZAV_BENCH_PHOTOS:-}" = 1 ]; then
    targets+=(zav-benchmark)
fi
cmake --build "$build_dir" --target "${targets[@]}" -j"$jobs" >/dev/null

work=$(mktemp -d)
if [ "${ZAV_BENCH_KEEP:-}" != 1 ]; then
    trap 'rm -rf "$work"' EXIT
fi
photos="$work/photos"
mkdir "$photos"

# From every images folder of every wallpaper, its largest variant (the file
# names are the resolutions, like 5120x2880.png).
shopt -s nullglob
for folder in /usr/share/wallpapers/*/contents/images*/; do
    best=
    best_pixels=-1
    for image in "$folder"*.jpg "$folder"*.jpeg "$folder"*.png; do
        name=$(basename "$image")
        pixels=0
        if [[ $name =~ ^([0-9]+)x([0-9]+)\. ]]; then
            pixels=$((BASH_REMATCH[1] * BASH_REMATCH[2]))
        fi
        if [ "$pixels" -gt "$best_pixels" ]; then
            best=$image
            best_pixels=$pixels
        fi
    done
    if [ -n "$best" ]; then
        wallpaper=$(basename "$(dirname "$(dirname "$folder")")")
        variant=$(basename "$folder")
        ln -s "$best" "$photos/$wallpaper-$variant-$(basename "$best")"
    fi
done
count=$(find "$photos" -type l | wc -l)
if [ "$count" -lt 2 ]; then
    echo "bench-preview: found only $count wallpapers in /usr/share/wallpapers" >&2
    exit 1
fi

# An empty settings file: the defaults apply, only the folder is given.
: >"$work/settings.ini"
preview=$(realpath "$build_dir/bin/zav-screensaver-preview")

# The debug log tells when the first slide was ready and how often the
# show switched; each message carries the monotonic time since boot, to be
# set against the process's start time from /proc.
export QT_QPA_PLATFORM=xcb
export QT_LOGGING_RULES="zav-tev.screensaver.slideshow.debug=true"
export QT_MESSAGE_PATTERN="%{time boot} %{message}"
# The shell writes its process id and is then replaced by the preview host,
# which keeps the id and the start time. SIGINT ends the host after the run
# (a screensaver has no other way out but a key or a click).
# Full screen needs a window manager, which Xvfb does not have: a window
# there keeps its natural size (a few pixels here). A window of the screen's
# size, which the X server puts at the origin, covers the screen the same way.
xvfb-run -a -s "-screen 0 ${screen}x24" \
    /usr/bin/time -v -o "$work/time.txt" \
    timeout -s INT "$seconds" \
    sh -c 'echo $$ >"$0/pid"; exec "$@"' "$work" \
    "$preview" --window "$screen" --settings "$work/settings.ini" --dir "$photos" \
    2>"$work/log.txt" &
runner=$!
# The start time must be read while the process lives.
for _ in $(seq 1 100); do
    if [ -s "$work/pid" ] && [ -r "/proc/$(cat "$work/pid")/stat" ]; then
        break
    fi
    sleep 0.1
done
pid=$(cat "$work/pid")
# Field 22 of /proc/PID/stat, counted after the command name in parentheses.
start_ticks=$(sed 's/^.*) //' "/proc/$pid/stat" | awk '{print $20}')
# Twice a second: the resident memory, to see when the peak happens, and the
# CPU time of each thread so far (Qt's pooled threads end when idle, so
# their last sample is what they used).
rss_samples="$work/rss.txt"
thread_samples="$work/threads.txt"
SECONDS=0
while [ -r "/proc/$pid/status" ]; do
    rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status" 2>/dev/null || true)
    if [ -n "$rss" ]; then
        echo "$SECONDS $rss" >>"$rss_samples"
    fi
    for task in /proc/"$pid"/task/*/stat; do
        # tid, name, user and system ticks (fields 14 and 15 of the line).
        sed -n 's/^\([0-9]*\) (\(.*\)) [A-Za-z] \(.*\)$/\1|\2|\3/p' "$task" 2>/dev/null |
            awk -F'|' '{ split($3, f, " "); print $1 "|" $2 "|" f[11] + f[12] }' >>"$thread_samples" || true
    done
    sleep 0.5
done
wait "$runner" || true

ticks_per_second=$(getconf CLK_TCK)
start=$(awk -v t="$start_ticks" -v hz="$ticks_per_second" 'BEGIN { printf "%.3f", t / hz }')

user=$(awk -F': ' '/User time \(seconds\)/ {print $2}' "$work/time.txt")
system=$(awk -F': ' '/System time \(seconds\)/ {print $2}' "$work/time.txt")
peak_kib=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$work/time.txt")

# The paint draws the label's own copies of the slides and logs nothing of
# them; what the log says instead: the first slide is on screen when the
# worker's report for it asks for a paint ("Image cached for current/previous
# key, triggering update"), and after that every switch asks the worker for
# exactly one image, the one after the new slide (one of the request lines,
# whatever the worker makes of it). The images asked for are thus the slides
# shown one switch later.
first_report=$(grep -n -m1 'SlideLabel: Image cached for current/previous key, triggering update:' "$work/log.txt" | cut -d: -f1 || true)
: >"$work/requests.txt"
if [ -n "$first_report" ]; then
    tail -n +"$first_report" "$work/log.txt" |
        grep -E 'ImageCacheWorker: (setting a request for image processing in the queue for|the request is already waiting for the way|the image is already caching with the correct size, the request for the request):'             >"$work/requests.txt" || true
fi
switches=$(wc -l <"$work/requests.txt")
shown=$(awk -F'"' '!seen[$2]++' "$work/requests.txt" | wc -l)
first_paint=$(sed -n "${first_report:-0}p" "$work/log.txt" | awk '{print $1}')
prepared=$(grep -c 'ImageCacheWorker: The current size of the cache:' "$work/log.txt" || true)

echo "Preview host, ${screen} (the whole Xvfb screen), default settings, ${seconds} s, $count wallpapers"
echo "  CPU time:            user ${user} s + system ${system} s"
echo "  slide switches:      ${switches} (${shown} slides shown; ${prepared} images prepared)"
if [ "$switches" -gt 0 ]; then
    awk -v u="$user" -v s="$system" -v n="$switches" 'BEGIN { printf "  CPU per slide:       %.3f s\n", (u + s) / n }'
fi
awk -v k="$peak_kib" 'BEGIN { printf "  peak RSS:            %.1f MiB = %.1f MB (%d KiB)\n", k / 1024, k * 1.024 / 1000, k }'
if [ -s "$rss_samples" ]; then
    awk '$2 > max { max = $2; at = $1 } { last = $2 } END { printf "  RSS samples:         highest %.1f MiB at about %d s, at the end %.1f MiB\n", max / 1024, at, last / 1024 }' "$rss_samples"
fi
if [ -s "$thread_samples" ]; then
    # The main thread is the GUI thread; the cache thread is the one QThread.
    awk -F'|' -v hz="$ticks_per_second" -v pid="$pid" '
        { last[$1] = $3; name[$1] = ($1 == pid ? "GUI thread" : $2) }
        END {
            for (t in last) sum[name[t]] += last[t]
            line = "  CPU by thread:      "
            for (n in sum) { line = line sprintf(" %s %.2f s,", n, sum[n] / hz) }
            sub(/,$/, "", line); print line
        }' "$thread_samples"
fi
if [ -n "$first_paint" ]; then
    awk -v p="$first_paint" -v s="$start" \
        'BEGIN { printf "  first slide:         %.3f s after the process started (its report asked for the paint)\n", p - s }'
else
    echo "  first slide:         never painted"
fi
if [ "${ZAV_BENCH_KEEP:-}" = 1 ]; then
    echo "  log and measurements: $work"
fi
if [ "${ZAV_BENCH_PHOTOS:-}" = 1 ]; then
    # Each photo in the show's order (the floor and Crop at 1920x1080), then
    # the means over all of them and over the first 12: one minute of the
    # default settings shows the first, ten switches and the look-ahead.
    ZAV_BENCHMARK_PHOTOS="$photos" QT_QPA_PLATFORM=offscreen QT_LOGGING_RULES= \
        "$build_dir/bin/zav-benchmark" photos 2>/dev/null | tee "$work/photos.txt"
    awk '
        /^RESULT : Benchmark::photos\(\):"/ { tag = $0; sub(/^[^"]*"/, "", tag); sub(/":$/, "", tag); getline; ms[tag] = $1 }
        /::cleanupTestCase\(\) photos\(/ {
            tag = $0; sub(/^.* photos\(/, "", tag); sub(/\): cpu .*/, "", tag)
            c = $0; sub(/^.*: cpu /, "", c); cpu[tag] = c + 0
            if (tag ~ /-Crop$/) {
                order[++n] = substr(tag, 1, length(tag) - 5)
                p = $0; sub(/^.*psnr /, "", p); p += 0
                if (n == 1 || p < lowest) lowest = p
            }
        }
        function means(k,   i, crop, c, floor) {
            for (i = 1; i <= k; i++) { crop += ms[order[i] "-Crop"]; c += cpu[order[i] "-Crop"]; floor += ms[order[i] "-floor"] }
            return sprintf("Crop %.1f ms (cpu %.1f ms), floor %.1f ms", crop / k, c / k, floor / k)
        }
        END {
            if (n == 0) exit
            printf "lowest PSNR against the full decode: %.1f dB\n", lowest
            printf "mean of %d photos: %s\n", n, means(n)
            m = n < 12 ? n : 12
            printf "mean of the first %d (one minute of default settings): %s\n", m, means(m)
        }' "$work/photos.txt"
fi
