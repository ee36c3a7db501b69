#!/usr/bin/env bash
# Builds and tests the project three times, each in its own build directory:
# Release, ASan+UBSan, TSan (which builds only the suites that start threads);
# a fourth, Windows under wine, where the cross compiler and wine are
# installed. Prints a summary; the exit status is 0 only when every build and
# every test passed.
set -u
root="$(cd "$(dirname "$0")/.." && pwd)"
source "$root/scripts/install_dependencies.sh"
mvdab_install_dependencies || exit 1
# What only some tests need (a browser for the web page's test): without it
# those tests are skipped, so a failed installation is no reason to stop.
mvdab_install_dependencies "$root/scripts/packages-tests.txt" ||
    echo "Warning: the packages of scripts/packages-tests.txt could not be installed; their tests will be skipped"

jobs="$(nproc)"
summary=()
failed=0

# run_suite NAME BUILD_DIR [extra cmake arguments...]
run_suite() {
    local name="$1" dir="$2"
    shift 2
    local start=$SECONDS
    echo "=== $name: configure and build in $dir"
    mkdir -p "$dir"
    if ! cmake -S "$root" -B "$dir" "$@" > "$dir/configure.log" 2>&1; then
        cat "$dir/configure.log"
        summary+=("$name: configure FAILED")
        failed=1
        return
    fi
    if ! cmake --build "$dir" -j "$jobs"; then
        summary+=("$name: build FAILED ($((SECONDS - start)) s)")
        failed=1
        return
    fi
    echo "=== $name: tests"
    local runner=()
    if [ "$name" = "TSan" ]; then
        # The thread sanitizer needs the address layout without randomisation
        # on kernels with many random mmap bits.
        command -v setarch > /dev/null && runner=(setarch "$(uname -m)" -R)
    fi
    if "${runner[@]}" ctest --test-dir "$dir" -j "$jobs" --output-on-failure --no-tests=error; then
        summary+=("$name: passed ($((SECONDS - start)) s)")
    else
        summary+=("$name: tests FAILED ($((SECONDS - start)) s)")
        failed=1
    fi
}

mkdir -p "$root/build"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

run_suite "Release" "$root/build/release" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=ON -DMVDAB_BENCH=ON
run_suite "ASan+UBSan" "$root/build/asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMVDAB_SANITIZE=address -DMVDAB_BENCH=OFF -DBUILD_TESTING=ON
run_suite "TSan" "$root/build/tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMVDAB_SANITIZE=thread -DMVDAB_BENCH=OFF -DBUILD_TESTING=ON

# The Windows DLLs, cross-built with mingw-w64, their core and API tests run
# under wine: only where both are installed (Debian: mingw-w64, wine, wine64).
if command -v x86_64-w64-mingw32-g++-posix > /dev/null && command -v wine > /dev/null; then
    export WINEPREFIX="$root/build/windows/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
    run_suite "Windows (wine)" "$root/build/windows" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
        -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=ON -DMVDAB_BENCH=OFF
else
    summary+=("Windows (wine): skipped (mingw-w64 or wine not installed)")
fi

echo
echo "=== Summary (${SECONDS} s in all)"
for line in "${summary[@]}"; do echo "  $line"; done
exit "$failed"
