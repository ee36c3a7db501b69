#!/usr/bin/env bash
# Plays a generated ensemble (u8 I/Q at 2.048 MS/s) to welle-cli, an
# independent receiver, and keeps what it decodes: its log, the FIC dump, one
# .msc and one .wav file per programme.
#
#   scripts/referee_welle.sh FILE.u8 [OUTDIR] [SECONDS]
#
# OUTDIR defaults to a new temporary directory, SECONDS (how long welle-cli
# may run) to 25. When FILE does not exist and DABGEN names the generator
# tool, the file is made first: the "default" ensemble in mode I with the
# audio samples, SECONDS + 3 s long, with any further options in
# DABGEN_ARGS (e.g. "--snr 12 --cfo 1500"). Prints the service list welle-cli
# found and the output directory on the last line; exit status 2 when
# welle-cli is not installed.
set -u
file=${1:?usage: referee_welle.sh FILE.u8 [OUTDIR] [SECONDS]}
out=${2:-$(mktemp -d -t referee_welle.XXXXXX)}
seconds=${3:-25}
command -v welle-cli >/dev/null 2>&1 || { echo "welle-cli not installed" >&2; exit 2; }
if [ ! -e "$file" ] && [ -n "${DABGEN:-}" ]; then
    samples=${MVDAB_SAMPLES_DIR:-$(dirname "$0")/../../shared/samples}
    # shellcheck disable=SC2086
    "$DABGEN" --preset default --mode 1 --dabp "$samples/speech-heaac-48k.dabp" --mp2 "$samples/speech-mp2-128k.mp2" \
        --seconds $((seconds + 3)) --quiet ${DABGEN_ARGS:-} --output "$file" || exit 1
fi
file=$(readlink -f "$file")
mkdir -p "$out"
cd "$out" || exit 1
# welle-cli writes its dumps into the current directory and runs until
# killed. It plays the file in real time and starts it again at the end, so
# the file should last longer than SECONDS. Its keyboard prompt repeats on
# every read of a closed stdin: give it one that stays open and silent.
sleep $((seconds + 1)) | timeout "$seconds" welle-cli -f "$file" -D >welle.log 2>&1
grep -aE "Ensemble label|^ *\[0x|sync|rate" welle.log | sort -u >&2
ls -l "$out" >&2
echo "$out"
