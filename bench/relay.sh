#!/bin/sh
# Relay benchmark, run on demand (not a test): relayed commands per second through the server
# and the device simulator (wrk, keep-alive; the simulator answers at once), against raw_nn,
# which makes the same nanomsg exchanges with the same simulator one after another, on a
# socket opened and closed for each, as the relay does. The server's exchanges with one
# application also go one at a time; with a few client connections (a page asks several
# things at once) its HTTP work for one request overlaps the exchange of another. Alternating
# rounds of the same run inside the private namespace of tests/isolate.sh; every program's
# output goes to /dev/null. Target: at least 85 %. The yardstick makes no HTTP round trip, so
# the run also measures one alone (bare_mhd, one keep-alive connection) and prints the rate
# that a relay adding that round trip to each raw exchange, one at a time, would reach.
# Usage: bench/relay.sh [SECONDS] [ROUNDS] [CONNECTIONS]    (defaults 5, 5 and 4)
set -eu
cd "$(dirname "$0")/.."
bench_targets="webserver devicesim raw_nn bare_mhd"
. bench/prepare.sh
seconds=${1:-5} rounds=${2:-5} connections=${3:-4}
. bench/device_env.sh

# A command the demo routes to an application whose simulated answer is immediate.
command=GetVideoEncodeParameters receiver=app_media address=ipc:///tmp/app_media.ipc

lay_out_device 8080
start_device 8080
sid=$(login 8080)
[ -n "$sid" ] || bench_fail "the login failed"
relayed="http://127.0.0.1:8080/action/device/$command?sessionid=$sid"
"$bin/bare_mhd" 8090 >/dev/null 2>&1 &
pids="$pids $!"
wait_http 8090
case "$(curl -s "$relayed")" in
    *'"Result":'*'"OK"'*) ;;
    *) echo "relay: $command is not answered by $receiver" >&2; exit 1 ;;
esac

: >/tmp/rounds
: >/tmp/http
i=0
while [ "$i" -lt "$rounds" ]; do
    if [ $((i % 2)) -eq 0 ]; then
        o=$(wrk_rate "$connections" "$seconds" "$relayed"); r=$("$bin/raw_nn" "$address" "$command" "$receiver" "$seconds")
    else
        r=$("$bin/raw_nn" "$address" "$command" "$receiver" "$seconds"); o=$(wrk_rate "$connections" "$seconds" "$relayed")
    fi
    echo "$o $r" >>/tmp/rounds
    wrk_rate 1 "$seconds" "http://127.0.0.1:8090/" >>/tmp/http
    i=$((i + 1))
done
echo "relay of $command to $receiver (wrk -t1 -c$connections -d${seconds}s, keep-alive): server / raw nanomsg"
report /tmp/rounds "server / raw nanomsg" 85
# Median times: a relay that added only the HTTP round trip would take raw + http per command.
paste /tmp/rounds /tmp/http | awk '{ r[NR] = 1 / $2; h[NR] = 1 / $3 }
    function median(v, n,   i, j, t) {
        for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (v[j] < v[i]) { t = v[i]; v[i] = v[j]; v[j] = t }
        return (n % 2) ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
    }
    END {
        raw = median(r, NR); http = median(h, NR)
        printf "HTTP round trip alone (bare_mhd, -c1): %.0f us; raw exchange: %.0f us; ", 1e6 * http, 1e6 * raw
        printf "raw + round trip: %.0f/s = %.1f %% of raw\n", 1 / (raw + http), 100 * raw / (raw + http)
    }'
