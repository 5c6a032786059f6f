#!/bin/sh
# Memory benchmark, run on demand (not a test): the server's resident memory (VmRSS) idle,
# with many keep-alive connections open, after they have closed, and after a million mixed
# requests (pages, missing documents, ranges, HEAD, 304, session probes, the device clock and
# a relayed command), inside the private namespace of tests/isolate.sh. The connections come
# from 32 loopback addresses, as the server limits connections per address.
# The anchor is the idle server of the same run, after 200,000 requests of the same mix.
# Targets: after the connections close, at most 256 KiB above idle; after the requests, at
# most 128 KiB above that.
# Usage: bench/memory.sh [REQUESTS] [CONNECTIONS]    (defaults 1000000 and 256)
set -eu
cd "$(dirname "$0")/.."
bench_targets="webserver devicesim memory_client"
. bench/prepare.sh
requests=${1:-1000000} connections=${2:-256}

. bench/device_env.sh

# Waits until the server holds no connection to port $1 any more (none established or
# half-closed on its side), then for its next sweep (once a second), which hands the memory
# freed meanwhile back to the system.
wait_connections_closed() {
    hex=$(printf '%04X' "$1")
    tries=0
    while awk -v port=":$hex" 'substr($2, length($2) - 4) == port && ($4 == "01" || $4 == "08") { found = 1 }
                               END { exit !found }' /proc/net/tcp; do
        tries=$((tries + 1))
        [ "$tries" -lt 100 ] || bench_fail "the server keeps connections open"
        sleep 0.1
    done
    sleep 1.5
}

lay_out_device 8080
start_device 8080
sid=$(login 8080)
[ -n "$sid" ] || bench_fail "no session"
# Before the anchor, the mixed requests at the same concurrency as below, so that first-use
# allocations and the C library's working set for 16 clients at once are in it. That working
# set includes glibc's per-thread caches of freed blocks (up to 7 of each small size per
# thread, about 240 KiB at most on x86-64, half that on 32-bit), which fill over the first few
# hundred thousand requests and are never trimmed; bounded, but without this warm-up they
# would count as growth. What grows after it is kept per request.
"$bin/memory_client" 8080 mixed 200000 16 "$sid" >/dev/null
wait_connections_closed 8080
idle=$(server_kib VmRSS:)

mkfifo /tmp/memory-control
"$bin/memory_client" 8080 hold "$connections" 32 </tmp/memory-control >/tmp/memory-client.out &
pids=$!
exec 3>/tmp/memory-control
tries=0
until grep -q held /tmp/memory-client.out; do
    tries=$((tries + 1))
    [ "$tries" -lt 600 ] || bench_fail "the connections were not all served"
    sleep 0.1
done
held=$(server_kib VmRSS:)
echo close >&3
exec 3>&-
wait "$pids"
pids=""
wait_connections_closed 8080
closed=$(server_kib VmRSS:)

"$bin/memory_client" 8080 mixed "$requests" 16 "$sid"
wait_connections_closed 8080
after=$(server_kib VmRSS:)

awk -v idle="$idle" -v held="$held" -v closed="$closed" -v after="$after" -v n="$connections" -v r="$requests" '
function verdict(ok) { return ok ? "met" : "MISSED" }
BEGIN {
    printf "idle, after 200000 requests:     %6d KiB (anchor)\n", idle
    printf "with %d connections open:       %6d KiB (%+d KiB, %.1f KiB each)\n", n, held, held - idle, (held - idle) / n
    printf "after they closed:               %6d KiB (%+d KiB over idle; target at most 256): %s\n",
           closed, closed - idle, verdict(closed - idle <= 256)
    printf "after %d mixed requests:   %6d KiB (%+d KiB over the closed state; target at most 128): %s\n",
           r, after, after - closed, verdict(after - closed <= 128)
}'
