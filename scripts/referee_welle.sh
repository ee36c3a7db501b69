#!/usr/bin/env bash
# Plays a generated ensemble (u8 I/Q at 2.048 MS/s) to welle-cli, an
# independent receiver, and keeps what it decodes: its log, the FIC dump, one
# .msc and one .wav file per programme.
#
#   scripts/referee_welle.sh FILE.u8 [OUTDIR] [SECONDS]
#
# OUTDIR defaults to a new temporary directory, SECONDS (how long welle-cli
# may run) to 25. Prints the output directory on the last line; exit status 2
# when welle-cli is not installed.
set -u
file=${1:?usage: referee_welle.sh FILE.u8 [OUTDIR] [SECONDS]}
out=${2:-$(mktemp -d -t referee_welle.XXXXXX)}
seconds=${3:-25}
command -v welle-cli >/dev/null 2>&1 || { echo "welle-cli not installed" >&2; exit 2; }
file=$(readlink -f "$file")
mkdir -p "$out"
cd "$out" || exit 1
# welle-cli writes its dumps into the current directory and runs until
# killed. It plays the file in real time and starts it again at the end, so
# the file should last longer than SECONDS. Its keyboard prompt repeats on
# every read of a closed stdin: give it one that stays open and silent.
sleep $((seconds + 1)) | timeout "$seconds" welle-cli -f "$file" -D >welle.log 2>&1
echo "welle-cli ran for at most ${seconds} s on $file" >&2
grep -aE "Ensemble|ensemble label|Service|service" welle.log | sort -u | head -40 >&2
ls -l "$out" >&2
echo "$out"
