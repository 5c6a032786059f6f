#!/bin/sh
# Builds and runs the recording listing benchmark inside the test namespace, where the
# storage root under /mnt is a private tmpfs. Usage: bench/listing.sh [build-dir]
set -eu
cd "$(dirname "$0")/.."
build=${1:-build}
cmake -S . -B "$build" >/dev/null
cmake --build "$build" -j2 --target listing_bench >/dev/null
exec tests/isolate.sh "$build/bin/listing_bench"
