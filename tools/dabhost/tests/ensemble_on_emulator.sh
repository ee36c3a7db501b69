#!/usr/bin/env bash
# End-to-end: runs dabhost (first argument, then its options up to "--") on
# the emulated device and checks that every string after "--" is printed and
# that dabhost exits 0. Exits 77 (skipped) when the emulated device of this
# build has no signal generator and serves noise instead.
set -u
dabhost="$1"
shift
options=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do options+=("$1"); shift; done
[ $# -gt 0 ] && shift

output="$("$dabhost" "${options[@]}" 2>&1)"
status=$?
printf '%s\n' "$output"
if grep -q "no signal generator" <<<"$output"; then
    echo "SKIPPED: the emulated device has no signal generator in this build"
    exit 77
fi
[ "$status" -eq 0 ] || { echo "FAILED: dabhost exited with $status"; exit 1; }
for expected in "$@"; do
    grep -qF -- "$expected" <<<"$output" || { echo "FAILED: \"$expected\" was not printed"; exit 1; }
done
echo "PASSED: all ${#} expected strings printed"
