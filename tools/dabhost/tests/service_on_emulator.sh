#!/usr/bin/env bash
# End-to-end reception of one service: runs dabhost (first argument) on the
# emulated device with the options up to "--", writing WORK/received.wav and
# WORK/received.rec, then each check after it (groups separated by "--"):
# a reception_match command line in which @WAV@ and @REC@ stand for those
# files. Exits 77 (skipped) when the emulated device has no signal generator.
set -u
dabhost="$1"
match="$2"
work="$3"
shift 3
options=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do options+=("$1"); shift; done
mkdir -p "$work"
wav="$work/received.wav"
rec="$work/received.rec"
rm -f "$wav" "$rec"
output="$("$dabhost" "${options[@]}" --wav "$wav" --record "$rec" 2>&1)"
status=$?
printf '%s\n' "$output" | tail -n 12
if grep -q "no signal generator" <<<"$output"; then
    echo "SKIPPED: the emulated device has no signal generator in this build"
    exit 77
fi
[ "$status" -eq 0 ] || { echo "FAILED: dabhost exited with $status"; exit 1; }
failed=0
while [ $# -gt 0 ]; do
    shift  # the "--"
    check=()
    while [ $# -gt 0 ] && [ "$1" != "--" ]; do
        check+=("$(sed -e "s|@WAV@|$wav|g" -e "s|@REC@|$rec|g" <<<"$1")")
        shift
    done
    "$match" "${check[@]}" || failed=1
done
[ "$failed" -eq 0 ] && echo "PASSED" || echo "FAILED: a check did not match"
exit "$failed"
