#!/usr/bin/env bash
# Builds the receiver, the emulated device and dabhost, then runs dabhost on
# the emulated device: it tunes 227,360 kHz, shows progress until the
# ensemble is complete, prints it, and keeps showing status for 5 s.
# Arguments go to dabhost after those defaults, so they override them (see
# dabhost --help); the emulator's source comes from MVC900_SOURCE (default
# below).
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
source "$root/scripts/install_dependencies.sh"
mvdab_install_dependencies

build="$root/build/release"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DMVDAB_BENCH=OFF > /dev/null
cmake --build "$build" --target MVXDAB MVC900ACCESS dabhost -j "$(nproc)"

# A generated ensemble when the emulated device offers one, else noise.
if [ -z "${MVC900_SOURCE:-}" ]; then
    if grep -rqs "generated-default" "$root/emulator"; then
        export MVC900_SOURCE=generated-default
    else
        export MVC900_SOURCE=noise
    fi
fi
echo "Running dabhost on the emulated device (MVC900_SOURCE=$MVC900_SOURCE)"
exec "$build/bin/dabhost" -f 227360 -d 5 "$@"
