#!/bin/sh
# Installs what is missing, then builds and runs the tests four times: every test in a
# normal build and in an AddressSanitizer + UndefinedBehaviorSanitizer build that stops at the
# first report, the system tests (the real server's threads at work) in a ThreadSanitizer
# build, and every test built for 32-bit ARM (armhf) under qemu-user, so that 32-bit faults
# show. Then every fuzz target runs for a few seconds (scripts/fuzz.sh runs them longer).
set -eu
cd "$(dirname "$0")/.."
scripts/bootstrap.sh

echo "== folder includes"
scripts/check_includes.sh

jobs=$(nproc 2>/dev/null || echo 2)
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=0:detect_leaks=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

for variant in normal sanitize thread; do
    case $variant in
        normal) dir=build flags="-DWEB_SANITIZE=OFF -DWEB_TSAN=OFF" tests="" ;;
        sanitize) dir=build-asan flags="-DWEB_SANITIZE=ON -DWEB_TSAN=OFF" tests="" ;;
        thread) dir=build-tsan flags="-DWEB_SANITIZE=OFF -DWEB_TSAN=ON" tests="-L system" ;;
    esac
    echo "== $variant build ($dir)"
    cmake -S . -B "$dir" $flags >/dev/null
    cmake --build "$dir" -j "$jobs"
    echo "== $variant tests"
    # shellcheck disable=SC2086 # an optional label filter
    ctest --test-dir "$dir" -j "$jobs" --output-on-failure $tests
done

echo "== armhf build and tests under emulation"
scripts/cross.sh armhf test

echo "== fuzz targets, 2 s each"
scripts/fuzz.sh 2
