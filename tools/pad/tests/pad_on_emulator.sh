#!/usr/bin/env bash
# Dynamic Label and slideshow received end to end: writes an ensemble
# description with an MP2 and a DAB+ service carrying PAD, runs dabhost
# (first argument) on the emulated device for the service given, and checks
# that it shows the label sent and saved every picture byte for byte.
# Usage: pad_on_emulator.sh DABHOST WORK MP2FILE SLIDES SERVICE LABEL [dabhost options]
# Exits 77 (skipped) when the emulated device has no signal generator.
set -u
dabhost="$1" work="$2" mp2="$3" slides="$4" service="$5" label="$6"
shift 6
rm -rf "$work" && mkdir -p "$work/received"
cat >"$work/ensemble.txt" <<END
ensemble eid=0xE2C0 label="MVX PAD"
subchannel id=1 protection=eep-a:3 bitrate=48 payload=dabplus-synth:5 label="DAB+ now: Grüße" slides=$slides
subchannel id=2 protection=uep:3 bitrate=128 payload=mp2:$mp2 label="MP2 now: a text of more than sixteen characters" slides=$slides
service sid=0xE2C1 label="PAD Plus" component=dabplus:1
service sid=0xE2C2 label="PAD Classic" component=mp2:2
END
output="$(MVC900_SOURCE="generated:config=$work/ensemble.txt,mode=1,snr=30" MVC900_SPEED=2 \
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
