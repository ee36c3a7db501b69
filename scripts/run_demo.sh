#!/usr/bin/env bash
# Builds the receiver, the emulated device and dabhost, then runs dabhost on
# the emulated device, paced in real time. On 227,360 kHz the device
# generates the default ensemble with the sample files as its audio: MP2 in
# "MVX Classic", HE-AAC in "MVX Plus". The demo shows the ensemble, receives
# "MVX Classic" for 5 s into a WAV file, then "MVX Plus" likewise, and prints
# each file's duration and level. The WAV files land in build/demo.
#
# With arguments, dabhost runs once with them instead (see dabhost --help),
# e.g. scripts/run_demo.sh --service "MVX Plus" --wav - | aplay, or
# scripts/run_demo.sh --web 8080 for the radio in a browser.
# The emulator's source comes from MVC900_SOURCE and MVC900_GENERATED
# (defaults below).
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
source "$root/scripts/install_dependencies.sh"
mvdab_install_dependencies

build="$root/build/release"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DMVDAB_BENCH=OFF > /dev/null
cmake --build "$build" --target MVXDAB MVC900ACCESS dabhost -j "$(nproc)"

samples="$(cd "$root/.." && pwd)/shared/samples"
if [ -z "${MVC900_SOURCE:-}" ]; then
    export MVC900_SOURCE=generated-default
    if [ -z "${MVC900_GENERATED:-}" ] && [ -r "$samples/speech-mp2-128k.mp2" ] &&
        [ -r "$samples/speech-heaac-48k.dabp" ]; then
        export MVC900_GENERATED="227360=preset=default:mp2=$samples/speech-mp2-128k.mp2:dabp=$samples/speech-heaac-48k.dabp:dabprate=48,mode=1,snr=30"
        # On 229,072 kHz (12D) services with a Dynamic Label and a slideshow.
        mkdir -p "$root/build/demo"
        sed -e "s|@MP2@|$samples/speech-mp2-128k.mp2|g" -e "s|@SLIDES@|$root/tools/pad/tests/slides|g" \
            "$root/tools/pad/tests/pad_ensemble.txt" >"$root/build/demo/pad_ensemble.txt"
        MVC900_GENERATED="$MVC900_GENERATED;229072=config=$root/build/demo/pad_ensemble.txt,mode=1,snr=30"
    fi
fi
dabhost="$build/bin/dabhost"
if [ $# -gt 0 ]; then
    exec "$dabhost" "$@"
fi

echo "== The ensemble on 227,360 kHz (emulated device: MVC900_SOURCE=$MVC900_SOURCE)"
"$dabhost" -f 227360
out="$root/build/demo"
mkdir -p "$out"
for service in "MVX Classic" "MVX Plus"; do
    file="$out/$(tr 'A-Z ' 'a-z-' <<<"$service").wav"
    echo
    echo "== \"$service\" for 5 s into $file"
    # The ensemble was shown above: keep only the line about the request.
    "$dabhost" -f 227360 --service "$service" --wav "$file" -d 5 | grep --line-buffered '^Service 0x'
done
