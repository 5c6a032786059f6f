#!/bin/sh
# Firmware upload benchmark: a 200 MiB image posted with curl to "StartUpgrade" (with a
# session, the upgrade application answering at once), against cp of the same file into
# /tmp in the same run, and the server's peak resident memory. Runs inside
# tests/isolate.sh, where /tmp and /mnt are private tmpfs mounts.
# Usage: bench/upload.sh [image-MiB]
set -eu
cd "$(dirname "$0")/.."
bench_targets="webserver devicesim"
. bench/prepare.sh
mib=${1:-200}
rounds=5  # of each side, alternated; the medians are compared
port=8080
. bench/device_env.sh

# The upgrade application reports the end at once, so the request time is the upload's.
cat >/tmp/scenario.json <<'JSON'
{"StartUpgrade": {"Response": {"Result": "OK", "Parameters": {"UpgradeProgressValue": 100}}}}
JSON
lay_out_device $port
start_device $port /tmp/scenario.json
sid=$(login $port)
[ -n "$sid" ] || bench_fail "the login failed"
idle_kib=$(server_kib VmHWM:)

head -c $((mib * 1024 * 1024)) /dev/urandom >/tmp/image.bin
bytes=$(stat -c %s /tmp/image.bin)
: >/tmp/cp.ms
: >/tmp/upload.ms
r=0
while [ $r -lt $rounds ]; do
    t0=$(now_ns)
    cp /tmp/image.bin /tmp/copy.bin
    t1=$(now_ns)
    rm -f /tmp/copy.bin
    echo $(((t1 - t0) / 1000)) >>/tmp/cp.ms
    # -T streams the file (a POST through -X) instead of reading it into curl's memory.
    t0=$(now_ns)
    curl -s -o /tmp/reply.json -X POST -T /tmp/image.bin -H 'Expect:' -H 'Content-Type: application/octet-stream' \
        "http://127.0.0.1:$port/action/device/StartUpgrade?sessionid=$sid"
    t1=$(now_ns)
    echo $(((t1 - t0) / 1000)) >>/tmp/upload.ms
    grep -q '"UpgradeProgressValue":	100' /tmp/reply.json || bench_fail "unexpected reply: $(cat /tmp/reply.json)"
    cmp -s /tmp/image.bin /tmp/upgrade || bench_fail "/tmp/upgrade differs from the image"
    r=$((r + 1))
done
peak_kib=$(server_kib VmHWM:)
stop_all

cp_us=$(median </tmp/cp.ms)
up_us=$(median </tmp/upload.ms)
awk -v b="$bytes" -v c="$cp_us" -v u="$up_us" -v idle="$idle_kib" -v peak="$peak_kib" 'BEGIN {
    printf "%-10s %10s %10s %8s %13s %13s\n", "image", "cp MB/s", "upload MB/s", "rate x", "idle peak kB", "peak kB"
    printf "%-10s %10.0f %10.0f %8.2f %13d %13d\n", sprintf("%.0f MiB", b / 1048576), b / c, b / u, c / u, idle, peak
    printf "targets: rate x >= 0.50 (upload against cp), peak kB < 16384 (peak %.1f %% of the image)\n", peak * 102400 / b
}'
