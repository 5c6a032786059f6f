#!/bin/sh
# Runs the recording listing benchmark inside the test namespace, where the storage root
# under /mnt is a private tmpfs. Usage: bench/listing.sh
set -eu
cd "$(dirname "$0")/.."
bench_targets=listing_bench
. bench/prepare.sh
exec "$bin/listing_bench"
