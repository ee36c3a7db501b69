#!/bin/sh
# CPU time of each thread of the host application in real-time use: a
# generated recording is played through the emulated device at 2.048 MS/s,
# dabhost receives its FIC, and the threads' CPU time is read from /proc
# over a stretch after the ensemble has been found. Prints one line per
# thread name: CPU seconds over wall seconds, in per cent of one core, and
# how often per second it was scheduled in (its wake-ups).
#
#   scripts/thread_cpu.sh [BUILD_DIR] [MODE] [SECONDS]
#
# BUILD_DIR defaults to build/release, MODE to 1, SECONDS (measured) to 20.
set -eu
build=${1:-build/release}
mode=${2:-1}
seconds=${3:-20}
warmup=5
bin=$build/bin
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The recording is longer than the run, so that it never wraps.
"$bin/dabgen" --mode "$mode" --seconds $((seconds + warmup + 5)) --snr 30 --quiet --output "$work/signal.u8"

MVC900_SOURCE="file:$work/signal.u8" MVC900_LOOP=0 \
    "$bin/dabhost" -f 227360 -t 10 -d $((seconds + warmup + 2)) -q >/dev/null 2>&1 &
pid=$!

# Nanoseconds on the CPU and times scheduled in, per thread: "name ns
# switches" lines, summed by name.
sample() {
    for task in /proc/$pid/task/*; do
        name=$(cat "$task/comm" 2>/dev/null) || continue
        stat=$(cut -d' ' -f1,3 "$task/schedstat" 2>/dev/null) || continue
        echo "$name $stat"
    done
}

sleep $warmup
t0=$(date +%s.%N)
sample >"$work/before"
sleep "$seconds"
sample >"$work/after"
t1=$(date +%s.%N)
wait $pid || true

awk -v wall="$(echo "$t1 - $t0" | bc)" '
    FNR == NR { before[$1] += $2; beforeRuns[$1] += $3; next }
    { after[$1] += $2; afterRuns[$1] += $3 }
    END {
        printf "%-16s %8s %10s %8s\n", "thread", "cpu s", "% of core", "runs/s"
        for (n in after) {
            cpu = (after[n] - before[n]) / 1e9
            total += cpu
            printf "%-16s %8.3f %10.3f %8.1f\n", n, cpu, 100 * cpu / wall, (afterRuns[n] - beforeRuns[n]) / wall
        }
        printf "%-16s %8.3f %10.3f   (over %.1f s)\n", "all", total, 100 * total / wall, wall
    }' "$work/before" "$work/after"
