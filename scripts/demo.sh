#!/bin/sh
# Runs the web server on a demo device tree, on http://127.0.0.1:8080/.
#
# Installs what is missing, builds, copies the demo tree (demo/) into demo/run/ and starts
# "webserver 8080 lo" in a private user and mount namespace where /mnt/app/web_root,
# /mnt/usr/config/app_parameters and /tmp come from demo/run/ and every reboot program is a
# stand-in that only prints a line. The network is the machine's own, so a browser on this
# machine reaches the server; the user namespace takes away the right to set the clock or
# to reboot. With demo/web_root/config/command_para and the device simulator built, the
# simulator runs beside the server. Ctrl-C stops everything.
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)

scripts/bootstrap.sh
cmake -S . -B build >/dev/null
cmake --build build -j2 --target webserver console
sim=""
if [ -f demo/web_root/config/command_para ] && [ -f tools/devicesim/CMakeLists.txt ]; then
    cmake --build build -j2 --target devicesim
    sim=yes
fi

run="$root/demo/run"
rm -rf "$run"
mkdir -p "$run/tmp"
cp -a demo/web_root "$run/web_root"
cp -a build/console/. "$run/web_root/"  # the pages with their library and gzip copies
cp -a demo/usr/config/app_parameters "$run/app_parameters"

if ! unshare -Urm true 2>/dev/null; then
    echo "demo: this kernel refuses private user and mount namespaces (unshare -Urm)" >&2
    exit 1
fi

echo "demo: open http://127.0.0.1:8080/ in a browser; Ctrl-C stops the demo"
exec unshare -Urm --propagation private sh -s "$root" "$run" "$sim" <<'INNER'
set -eu
root=$1 run=$2 sim=$3
fail() { echo "demo: $*" >&2; exit 1; }

. "$root/tests/cover_programs.sh"
cover_programs "$root/demo/standins"

# The repository stays reachable through fd 8 even if it lives under /mnt or /tmp.
exec 8<"$root"
repo=/proc/self/fd/8
mount -t tmpfs -o mode=0755 tmpfs /mnt || fail "cannot mount a private /mnt"
mkdir -p /mnt/app/web_root /mnt/usr/config/app_parameters
mount -c --bind "$repo/demo/run/web_root" /mnt/app/web_root
mount -c --bind "$repo/demo/run/app_parameters" /mnt/usr/config/app_parameters
mount -c --bind "$repo/demo/run/tmp" /tmp
cd /

# Background programs of a script ignore Ctrl-C: the trap ends them.
pids=""
stop() { [ -z "$pids" ] || kill $pids 2>/dev/null || true; }
trap 'stop; exit 0' INT TERM
if [ -n "$sim" ]; then
    # The scenario slows the upgrade and the WIFI scan down to a pace a person can watch.
    "$repo/build/bin/devicesim" /mnt/app/web_root/config/command_para "$repo/demo/devicesim.json" &
    pids="$!"
fi
"$repo/build/bin/webserver" 8080 lo &
web_pid=$!
pids="$pids $web_pid"
wait "$web_pid" || true
stop
INNER
