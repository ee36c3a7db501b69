#!/usr/bin/env bash
# Dynamic Label and slideshow received end to end: fills in the ensemble
# description pad_ensemble.txt (MP2 and DAB+ services with PAD), runs dabhost
# (first argument) on the emulated device for the service given, and checks
# that it shows the label sent and saved every picture byte for byte.
# Usage: pad_on_emulator.sh DABHOST WORK MP2FILE SLIDES SERVICE LABEL [dabhost options]
# Exits 77 (skipped) when the emulated device has no signal generator.
set -u
dabhost="$1" work="$2" mp2="$3" slides="$4" service="$5" label="$6"
shift 6
rm -rf "$work" && mkdir -p "$work/received"
sed -e "s|@MP2@|$mp2|g" -e "s|@SLIDES@|$slides|g" "$(dirname "$0")/pad_ensemble.txt" >"$work/ensemble.txt"
output="$(MVC900_SOURCE="generated:config=$work/ensemble.txt,mode=1,snr=30" MVC900_SPEED=1 \
          "$dabhost" -f 227360 --service "$service" --slides "$work/received" --json "$@" 2>&1)"
status=$?
printf '%s\n' "$output" | tail -n 6
if grep -q "no signal generator" <<<"$output"; then
    echo "SKIPPED: the emulated device has no signal generator in this build"
    exit 77
fi
[ "$status" -eq 0 ] || { echo "FAILED: dabhost exited with $status"; exit 1; }
failed=0
grep -qF "\"dynamicLabel\": \"$label\"" <<<"$output" || { echo "FAILED: label \"$label\" not in the JSON"; failed=1; }
grep -qF "label \"$label\"" <<<"$output" || { echo "FAILED: label \"$label\" not on the status lines"; failed=1; }
for picture in "$slides"/*; do
    cmp "$picture" "$work/received/$(basename "$picture")" || { echo "FAILED: $(basename "$picture")"; failed=1; }
done
[ "$failed" -eq 0 ] && echo "PASSED"
exit "$failed"
