#!/usr/bin/env bash
# An independent receiver as referee for the transmitter's PAD: a 12 s
# recording of an MP2 and a DAB+ service, each with a label and pictures, is
# played to welle-cli's web server, whose service list must show both
# Dynamic Labels and the service label written in EBU Latin exactly, and
# whose slide of each service must be one of the pictures sent.
# Opt-in (MVDAB_LONG_TESTS=1); skipped (77) without welle-cli or curl.
# Usage: pad_referee_welle.sh DABGEN WORK MP2FILE SLIDES
set -u
dabgen="$1" work="$2" mp2="$3" slides="$4"
[ "${MVDAB_LONG_TESTS:-0}" = 1 ] || { echo "SKIPPED: set MVDAB_LONG_TESTS=1"; exit 77; }
command -v welle-cli >/dev/null && command -v curl >/dev/null || { echo "SKIPPED: no welle-cli or curl"; exit 77; }
rm -rf "$work" && mkdir -p "$work"
sed -e "s|@MP2@|$mp2|g" -e "s|@SLIDES@|$slides|g" "$(dirname "$0")/pad_ensemble.txt" >"$work/ensemble.txt"
"$dabgen" --config "$work/ensemble.txt" --seconds 12 --quiet --output "$work/signal.u8" || exit 1
port=$((20000 + $$ % 20000))
welle-cli -f "$work/signal.u8" -w "$port" -C 2 -P >"$work/welle.log" 2>&1 &
welle=$!
sleep 18
curl -s "http://localhost:$port/mux.json" >"$work/mux.json"
for sid in 58049 58050; do curl -s -o "$work/slide-$sid" "http://localhost:$port/slide/$sid"; done
kill "$welle" 2>/dev/null
wait "$welle" 2>/dev/null
failed=0
for label in "DAB+ now: Grüße" "MP2 now: a text of more than sixteen characters"; do
    grep -qF "\"dls\":{\"label\":\"$label\"" "$work/mux.json" || { echo "FAILED: welle-cli does not show $label"; failed=1; }
done
# The DAB+ service's label holds an umlaut: sent in the EBU Latin set.
grep -qF '"label":"PAD Plüs' "$work/mux.json" || { echo "FAILED: welle-cli does not show the service label PAD Plüs"; failed=1; }
for sid in 58049 58050; do
    found=0
    for picture in "$slides"/*; do cmp -s "$picture" "$work/slide-$sid" && found=1; done
    [ "$found" = 1 ] || { echo "FAILED: the slide of service $sid is none of the pictures sent"; failed=1; }
done
[ "$failed" -eq 0 ] && echo "PASSED"
exit "$failed"
