#!/bin/sh
# Installs what is missing, then builds and runs every test twice: a normal build and an
# AddressSanitizer + UndefinedBehaviorSanitizer build that stops at the first report. Then
# every fuzz target runs for a few seconds (scripts/fuzz.sh runs them longer).
set -eu
cd "$(dirname "$0")/.."
scripts/bootstrap.sh

jobs=$(nproc 2>/dev/null || echo 2)
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=0:detect_leaks=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"

for variant in normal sanitize; do
    dir=build
    flags="-DWEB_SANITIZE=OFF"
    if [ "$variant" = sanitize ]; then
        dir=build-asan
        flags="-DWEB_SANITIZE=ON"
    fi
    echo "== $variant build ($dir)"
    cmake -S . -B "$dir" $flags >/dev/null
    cmake --build "$dir" -j "$jobs"
    echo "== $variant tests"
    ctest --test-dir "$dir" -j "$jobs" --output-on-failure
done

echo "== fuzz targets, 3 s each"
scripts/fuzz.sh 3
