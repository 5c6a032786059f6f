#!/bin/sh
# Runs a command inside a private user, mount and network namespace:
#   - /mnt and /tmp are fresh, empty tmpfs mounts, so the device paths belong to the test;
#   - every reboot and sync program is a stand-in that only records its call in
#     /tmp/standins.log (a user namespace cannot set the clock or call reboot(2), but a
#     reboot program could still ask the init system over a socket); logger keeps what
#     would go to the machine's system log in /tmp/syslog.log;
#   - the network has its own loopback and an "eth0" (192.0.2.10) when veth is available,
#     so tests may use any port and never meet the machine's services.
# Usage: isolate.sh [--standins DIR] COMMAND [ARGS...]
# The repository (and the build directory of COMMAND) stay visible at their paths even
# when they live under /tmp or /mnt.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
standins="$here/standins"
if [ "${1:-}" = "--standins" ]; then
    standins=$(cd "$2" && pwd)
    shift 2
fi
[ $# -ge 1 ] || { echo "usage: isolate.sh [--standins DIR] COMMAND [ARGS...]" >&2; exit 2; }

if ! unshare -Urmn true 2>/dev/null; then
    echo "isolate.sh: this kernel refuses private user/mount/network namespaces (unshare -Urmn)." >&2
    echo "isolate.sh: the tests never fall back to the machine's real /mnt and /tmp, so they cannot run here." >&2
    exit 1
fi

keep_build=""
case "$1" in
    /*) keep_build=$(cd "$(dirname "$1")/.." && pwd) ;;
esac

exec unshare -Urmn --propagation private sh -s "$root" "$standins" "$keep_build" "$@" <<'INNER'
set -eu
root=$1 standins=$2 keep_build=$3
shift 3
fail() { echo "isolate.sh: $*" >&2; exit 1; }

. "$root/tests/cover_programs.sh"
cover_programs "$standins"

# Keep the repository and the build tree reachable before /tmp and /mnt are covered.
exec 7<"$root"
if [ -n "$keep_build" ]; then exec 8<"$keep_build"; else exec 8<"$root"; fi
mount -t tmpfs -o mode=0755 tmpfs /mnt || fail "cannot mount a private /mnt"
mount -t tmpfs -o mode=1777 tmpfs /tmp || fail "cannot mount a private /tmp"
for pair in "7 $root" "8 $keep_build"; do
    fd=${pair%% *} dir=${pair#* }
    case "$dir" in
        /tmp/*|/mnt/*)
            mkdir -p "$dir"
            mount -c --bind "/proc/self/fd/$fd" "$dir" || fail "cannot keep $dir visible" ;;
    esac
done
exec 7<&- 8<&-

ip link set lo up || fail "cannot bring up the private loopback"
if ip link add eth0 type veth peer name eth0-peer 2>/dev/null; then
    ip addr add 192.0.2.10/24 dev eth0 && ip link set eth0 up && ip link set eth0-peer up || true
fi

export WEB_TEST_ISOLATED=1
exec "$@"
INNER
