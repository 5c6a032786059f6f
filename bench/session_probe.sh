#!/bin/sh
# Session probe benchmark, run on demand (not a test): requests per second of
# "detection_sessionid" with a live session through the server, against bare_mhd
# (libmicrohttpd alone in the same event-loop style, answering the same bytes), with wrk over
# keep-alive connections, in alternating rounds of the same run inside the private namespace
# of tests/isolate.sh. Every program's output goes to /dev/null. Target: at least 75 %.
# Usage: bench/session_probe.sh [SECONDS] [CONNECTIONS] [ROUNDS]    (defaults 5, 8 and 5)
set -eu
cd "$(dirname "$0")/.."
bench_targets="webserver devicesim bare_mhd"
. bench/prepare.sh
seconds=${1:-5} connections=${2:-8} rounds=${3:-5}
. bench/device_env.sh

lay_out_device 8080
start_device 8080
"$bin/bare_mhd" 8090 >/dev/null 2>&1 &
pids="$pids $!"
wait_http 8090
sid=$(login 8080)
[ -n "$sid" ] || bench_fail "the login failed"
probe="http://127.0.0.1:8080/action/device/detection_sessionid?sessionid=$sid"
bare="http://127.0.0.1:8090/"
[ "$(curl -s "$probe")" = "$(curl -s "$bare")" ] ||
    { echo "session_probe: the two servers do not answer the same bytes" >&2; exit 1; }

# The machine is shared and its load drifts: each round measures both, the order swapped
# every round, and gives one ratio.
: >/tmp/rounds
i=0
while [ "$i" -lt "$rounds" ]; do
    if [ $((i % 2)) -eq 0 ]; then
        o=$(wrk_rate "$connections" "$seconds" "$probe"); b=$(wrk_rate "$connections" "$seconds" "$bare")
    else
        b=$(wrk_rate "$connections" "$seconds" "$bare"); o=$(wrk_rate "$connections" "$seconds" "$probe")
    fi
    echo "$o $b" >>/tmp/rounds
    i=$((i + 1))
done
echo "session probe (wrk -t1 -c$connections -d${seconds}s, keep-alive): server / bare_mhd"
report /tmp/rounds "server / bare_mhd" 75
