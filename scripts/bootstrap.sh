#!/bin/sh
# Installs the Debian packages that building, running and testing need; only what is missing.
# Usage: scripts/bootstrap.sh [bench|cross]   ("bench" adds the benchmark tools, "cross" the
# 64-bit ARM compilers; the test command itself needs the 32-bit ARM ones and qemu-user)
set -eu

packages="build-essential cmake pkg-config libmicrohttpd-dev libcjson-dev libnanomsg-dev
          libgtest-dev libcurl4-openssl-dev curl net-tools iproute2 util-linux procps
          gzip node-blueimp-md5 chromium chromium-driver python3-selenium python3-jsonschema python3-yaml
          crossbuild-essential-armhf qemu-user dpkg-dev
          clang libclang-rt-14-dev"
if [ "${1:-}" = "bench" ]; then
    packages="$packages wrk nginx-light valgrind"
fi
if [ "${1:-}" = "cross" ]; then
    packages="$packages crossbuild-essential-arm64"
fi

missing=""
for p in $packages; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" -eq 0 ]; then
    as_root=""
elif command -v sudo >/dev/null 2>&1; then
    as_root="sudo"
else
    echo "bootstrap: missing packages:$missing; run as root or install sudo" >&2
    exit 1
fi
echo "bootstrap: installing$missing"
$as_root apt-get update
$as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing
