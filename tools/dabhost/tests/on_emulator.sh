#!/usr/bin/env bash
# End-to-end run of dabhost on the emulated device:
#   on_emulator.sh WORK DABHOST [options] [-- CHECK...]...
# Runs dabhost with its options (output in WORK/output.txt), then each check
# (groups separated by "--"): "printed S..." wants every S in the output;
# anything else is a command that must succeed (reception_match, cmp).
# @W@ in any argument stands for WORK. Exits 77 (skipped) when the emulated
# device of this build has no signal generator and serves noise instead.
set -u
work="$1"
shift
rm -rf "$work" && mkdir -p "$work/received"
args=("${@//@W@/$work}")
run=() i=0
while [ $i -lt ${#args[@]} ] && [ "${args[$i]}" != "--" ]; do run+=("${args[$i]}"); i=$((i + 1)); done
"${run[@]}" >"$work/output.txt" 2>&1
status=$?
tail -n 15 "$work/output.txt"
if grep -q "no signal generator" "$work/output.txt"; then
    echo "SKIPPED: the emulated device has no signal generator in this build"
    exit 77
fi
[ "$status" -eq 0 ] || { echo "FAILED: dabhost exited with $status"; exit 1; }
failed=0
while [ $i -lt ${#args[@]} ]; do
    check=() i=$((i + 1))
    while [ $i -lt ${#args[@]} ] && [ "${args[$i]}" != "--" ]; do check+=("${args[$i]}"); i=$((i + 1)); done
    if [ "${check[0]}" = printed ]; then
        for s in "${check[@]:1}"; do grep -qF -- "$s" "$work/output.txt" || { echo "FAILED: \"$s\" not printed"; failed=1; }; done
    else
        "${check[@]}" || { echo "FAILED: ${check[*]}"; failed=1; }
    fi
done
[ "$failed" -eq 0 ] && echo "PASSED"
exit "$failed"
