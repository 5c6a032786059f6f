#!/bin/sh
# Recording listing benchmark through the real server: the same two cards as
# bench/listing.sh, listed over HTTP with curl, against find(1) over the same tree in the
# same run (time), and the server's peak resident memory added by one listing against the
# reply's size. Runs inside tests/isolate.sh. Usage: bench/listing_server.sh
set -eu
cd "$(dirname "$0")/.."
bench_targets="webserver devicesim listing_bench"
. bench/prepare.sh
rounds=9  # timed listings per card after one warm-up; the medians are compared
port=8080
. bench/device_env.sh

lay_out_device $port
start_sim
printf "%-10s %7s %10s %10s %9s %7s %12s %8s\n" card files "reply B" "list ms" "find ms" "time x" "peak add kB" "mem x"
for card in "30 1000" "365 100"; do
    set -- $card
    "$bin/listing_bench" --card "$1" "$2"
    # A fresh server per card, so the peak of an earlier listing does not hide this one's.
    start_server $port
    sid=$(login $port)
    [ -n "$sid" ] || bench_fail "the login failed"
    url="http://127.0.0.1:$port/action/device/get_video_directory?sessionid=$sid"
    curl -s -o /dev/null -X POST "http://127.0.0.1:$port/action/device/get_user_param?sessionid=$sid"
    before=$(server_kib VmHWM:)
    reply=$(curl -s -o /tmp/listing.json -w '%{size_download}' -X POST "$url")
    after=$(server_kib VmHWM:)
    grep -q '"Successfully to get params"' /tmp/listing.json || bench_fail "listing failed: $(head -c 200 /tmp/listing.json)"

    : >/tmp/find.us
    : >/tmp/list.us
    r=-1  # round -1 warms the caches
    while [ $r -lt $rounds ]; do
        t0=$(now_ns)
        find /mnt/app/web_root/sd/ -maxdepth 2 -printf '%s %C@ %f\n' >/dev/null
        t1=$(now_ns)
        curl -s -o /dev/null -X POST "$url"
        t2=$(now_ns)
        if [ $r -ge 0 ]; then
            echo $(((t1 - t0) / 1000)) >>/tmp/find.us
            echo $(((t2 - t1) / 1000)) >>/tmp/list.us
        fi
        r=$((r + 1))
    done
    stop_server
    awk -v name="$1x$2" -v files=$(($1 * $2)) -v reply="$reply" -v l="$(median </tmp/list.us)" \
        -v f="$(median </tmp/find.us)" -v added=$((after - before)) 'BEGIN {
        printf "%-10s %7d %10d %10.2f %9.2f %7.2f %12d %8.2f\n", name, files, reply, l / 1000, f / 1000, l / f,
               added, added * 1024 / reply
    }'
done
stop_all
echo "targets: time x <= 2.00 (listing over HTTP against find -maxdepth 2), mem x <= 3.00 (peak added against reply)"
