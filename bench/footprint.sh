#!/bin/sh
# Footprint benchmark, run on demand (not a test): the small device profile against the
# ordinary build of the same run.
#   - armhf small: the stripped binary, which needs only the C library;
#   - armhf static: the stripped, fully static binary;
#   - native small: resident memory (VmRSS) of the idle server, inside the private namespace
#     of tests/isolate.sh.
# The anchors are the ordinary builds: the armhf binary with the shared libraries it loads
# (from the sysroot), and the idle native server linked against the machine's libraries.
# Budgets: armhf small at most 320 KB plus the C library, fully static at most 900 KB,
# native small idle at most 3 MiB (1 KB = 1000 bytes, 1 MiB = 1024 KiB).
# Usage: bench/footprint.sh [ROUNDS]    (default 3; the resident memory is the median)
set -eu
cd "$(dirname "$0")/.."
if [ -z "${WEB_TEST_ISOLATED:-}" ]; then
    # Outside the namespace: apt and the builds need the machine's network and folders.
    for build in "armhf" "armhf small" "armhf static" "native small"; do
        # shellcheck disable=SC2086 # architecture and profile
        scripts/cross.sh $build >build-cross/footprint.log 2>&1 ||
            { tail -n 30 build-cross/footprint.log >&2; exit 1; }
    done
fi
bench_targets=webserver
. bench/prepare.sh
rounds=${1:-3}

. bench/device_env.sh

out="$root/build-cross"
triplet=arm-linux-gnueabihf
sysroot="$out/sysroot-armhf"

stripped_size() {  # STRIP BINARY
    "$1" -o /tmp/stripped "$2"
    wc -c </tmp/stripped
}

# The shared libraries an armhf program needs, all the way down, as paths in the sysroot.
needed() {
    "$triplet-readelf" -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'
}
library_closure() {
    todo=$(needed "$1") seen=""
    while [ -n "$todo" ]; do
        set -- $todo
        lib=$1
        shift
        todo="$*"
        case " $seen " in *" $lib "*) continue ;; esac
        seen="$seen $lib"
        for dir in "$sysroot/lib/$triplet" "$sysroot/usr/lib/$triplet" "$sysroot/lib"; do
            if [ -e "$dir/$lib" ]; then
                echo "$dir/$lib"
                todo="$todo $(needed "$dir/$lib")"
                break
            fi
        done
    done
}

echo "== sizes (stripped)"
ordinary=$(stripped_size "$triplet-strip" "$out/armhf/bin/webserver")
libs=$(library_closure "$out/armhf/bin/webserver")
lib_count=$(echo "$libs" | wc -l)
lib_bytes=$(echo "$libs" | xargs stat -L -c %s | awk '{ s += $1 } END { print s }')
libc_bytes=$(echo "$libs" | grep -E '/(libc\.so\.6|ld-linux-armhf\.so\.3)$' | xargs stat -L -c %s | awk '{ s += $1 } END { print s }')
small=$(stripped_size "$triplet-strip" "$out/armhf-small/bin/webserver")
small_needs=$(needed "$out/armhf-small/bin/webserver" | tr '\n' ' ')
static=$(stripped_size "$triplet-strip" "$out/armhf-static/bin/webserver")
static_needs=$(needed "$out/armhf-static/bin/webserver" | tr '\n' ' ')
native_small=$(stripped_size strip "$out/native-small/bin/webserver")

# Resident memory of the idle server: started, one page served, nothing open.
idle_kib() {  # BINARY
    "$1" 8080 lo >/dev/null 2>&1 &
    server_pid=$!
    wait_http 8080
    kib=$(server_kib VmRSS:)
    stop_server
    echo "$kib"
}
lay_out_device 8080
: >/tmp/rss-small
: >/tmp/rss-ordinary
for round in $(seq "$rounds"); do
    idle_kib "$out/native-small/bin/webserver" >>/tmp/rss-small
    idle_kib "$bin/webserver" >>/tmp/rss-ordinary
done
rss_small=$(median </tmp/rss-small)
rss_ordinary=$(median </tmp/rss-ordinary)

awk -v ord="$ordinary" -v libs="$lib_bytes" -v n="$lib_count" -v libc="$libc_bytes" \
    -v small="$small" -v small_needs="$small_needs" -v static="$static" -v static_needs="$static_needs" \
    -v native="$native_small" -v rss_small="$rss_small" -v rss_ord="$rss_ordinary" -v rounds="$rounds" '
function verdict(ok) { return ok ? "met" : "MISSED" }
BEGIN {
    printf "armhf ordinary (anchor):  %8d bytes + %d shared libraries of %d bytes (%d of them the C library)\n",
           ord, n, libs, libc
    printf "armhf small:              %8d bytes, needs: %s (budget 320000 plus the C library): %s\n",
           small, small_needs, verdict(small <= 320000 && small_needs ~ /^(libc\.so\.6 |ld-linux-armhf\.so\.3 )+$/)
    printf "                          %.1f %% of the ordinary binary with its libraries besides the C library\n",
           100 * small / (ord + libs - libc)
    printf "armhf static:             %8d bytes, needs: %s (budget 900000, nothing else): %s\n",
           static, static_needs == "" ? "nothing" : static_needs, verdict(static <= 900000 && static_needs == "")
    printf "native small:             %8d bytes\n", native
    printf "idle resident memory, median of %d: native small %d KiB, ordinary %d KiB (anchor, %.0f %%); budget 3072 KiB: %s\n",
           rounds, rss_small, rss_ord, 100 * rss_small / rss_ord, verdict(rss_small <= 3072)
}'
