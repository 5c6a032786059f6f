#!/bin/sh
# Builds the server for the device's architectures with Debian's cross compilers, runs the
# test suite under qemu-user, and makes the small device profile.
#
#   scripts/cross.sh ARCH                 build against Debian's libraries for ARCH
#   scripts/cross.sh ARCH test            the same, then every test under emulation
#   scripts/cross.sh ARCH small|static    the small profile (static: also the C library)
#   scripts/cross.sh ARCH small install   the small profile staged as the device's tree
#                                         (cmake --install) and packed as a tarball
#
# ARCH is armhf or arm64; "native" (this machine's own) works with small and static.
# Everything lands in build-cross/: the sysroot-ARCH, the build folders ARCH, ARCH-small
# and ARCH-static, the dependencies' sources (src) and static builds (deps-ARCH).
#
# Why a sysroot instead of Debian's multiarch: libnanomsg5 and libnanomsg-dev carry no
# Multi-Arch field, so installing libnanomsg-dev:armhf would remove the machine's own
# nanomsg, and `dpkg --add-architecture` would change the machine for every other user.
# Instead apt downloads the target's packages with a private state folder, cache and
# sources list (the machine's own sources, nothing added) and dpkg -x unpacks them into
# build-cross/sysroot-ARCH. The machine's dpkg database and packages are never touched.
#
# Under emulation, qemu is registered through a private binfmt_misc mount inside a user
# namespace (Linux 6.7 and later), so the tests' child processes (the server, the device
# simulator) run emulated too and nothing is registered machine-wide.
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
out="$root/build-cross"
jobs=$(nproc 2>/dev/null || echo 2)

usage() {
    echo "usage: scripts/cross.sh armhf|arm64|native [small|static] [test|install]" >&2
    exit 2
}
[ $# -ge 1 ] || usage
arch=$1
shift
profile="" action=""
for word in "$@"; do
    case "$word" in
        small|static) profile=$word ;;
        test|install) action=$word ;;
        *) usage ;;
    esac
done

host_arch=$(dpkg --print-architecture)
case "$arch" in
    armhf) triplet=arm-linux-gnueabihf qemu=qemu-arm
           elf_class='\x01' elf_machine='\x28\x00' ;;
    arm64) triplet=aarch64-linux-gnu qemu=qemu-aarch64
           elf_class='\x02' elf_machine='\xb7\x00' ;;
    native) triplet="" qemu="" ;;
    *) usage ;;
esac
if [ "$arch" = native ] && [ -z "$profile" ]; then
    echo "cross.sh: the native ordinary build is scripts/test.sh's; use native small or native static" >&2
    exit 2
fi
if [ "$action" = test ] && [ -n "$profile" ]; then
    echo "cross.sh: the tests run on the ordinary build (the small profile builds only the server)" >&2
    exit 2
fi

# The test command's packages hold the armhf compilers and qemu; arm64's come on demand.
if [ "$arch" = arm64 ]; then scripts/bootstrap.sh cross; else scripts/bootstrap.sh; fi

# --- apt with a private state folder, cache and sources list -----------------------------

# apt_private DIR ARCH ARGS...: apt-get as if DIR held a machine of ARCH with nothing installed.
apt_private() {
    dir=$1 apt_arch=$2
    shift 2
    apt-get -q -o APT::Architecture="$apt_arch" -o APT::Architectures="$apt_arch" \
        -o Dir::State="$dir/state" -o Dir::State::status="$dir/status" \
        -o Dir::Cache="$dir/cache" \
        -o Dir::Etc::SourceList="$dir/sources.list" -o Dir::Etc::SourceParts="$dir/sources.list.d" \
        "$@"
}

# prepare_apt DIR deb|deb-src ARCH: the machine's own package sources, of the given type,
# indexed for ARCH, and an empty package database.
prepare_apt() {
    dir=$1 type=$2 index_arch=$3
    rm -rf "$dir"
    mkdir -p "$dir/state/lists/partial" "$dir/cache/archives/partial" "$dir/sources.list.d"
    : >"$dir/status"
    : >"$dir/sources.list"
    for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [ -f "$f" ] || continue
        sed -n "s/^[[:space:]]*deb[[:space:]]/$type /p" "$f" >>"$dir/sources.list"
    done
    for f in /etc/apt/sources.list.d/*.sources; do
        [ -f "$f" ] || continue
        sed "s/^Types:.*/Types: $type/" "$f" >"$dir/sources.list.d/${f##*/}"
    done
    # A mirror caught mid-sync fails some indexes; apt keeps the others, and what it finds
    # there is as good for building (each file is still checked against its signed index).
    if ! apt_private "$dir" "$index_arch" update >"$dir/update.log" 2>&1; then
        ls "$dir/state/lists/" | grep -q -e '_Packages' -e '_Sources' ||
            { cat "$dir/update.log" >&2; echo "cross.sh: apt found no package index" >&2; exit 1; }
        echo "cross.sh: warning: some package indexes failed to download, building from the others:" >&2
        grep '^E:' "$dir/update.log" | sed 's/^/    /' >&2
    fi
}

# --- the target's sysroot from Debian's packages ------------------------------------------

# What building and testing for the target link against; apt adds their dependencies.
sysroot_packages="libc6-dev libstdc++-12-dev linux-libc-dev libmicrohttpd-dev libcjson-dev
                  libnanomsg-dev libgtest-dev libcurl4-openssl-dev"

make_sysroot() {
    sysroot="$out/sysroot-$arch"
    wanted=$(echo $sysroot_packages)
    if [ -f "$sysroot/.packages" ] && [ "$(cat "$sysroot/.packages")" = "$wanted" ]; then
        return
    fi
    echo "== sysroot for $arch from Debian's packages: $wanted"
    apt_dir="$out/apt-$arch"
    prepare_apt "$apt_dir" deb "$arch"
    # With an empty package database apt resolves the whole dependency closure; it only
    # downloads (into the private cache), it installs nothing.
    apt_private "$apt_dir" "$arch" install --download-only --no-install-recommends -y $sysroot_packages >/dev/null
    rm -rf "$sysroot"
    mkdir -p "$sysroot"
    for deb in "$apt_dir"/cache/archives/*.deb; do
        dpkg -x "$deb" "$sysroot"
    done
    # Packages link to absolute paths of the target's file system; inside the sysroot they
    # must point into the sysroot.
    find "$sysroot" -type l | while read -r link; do
        target=$(readlink "$link")
        case "$target" in
            /*) ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link" ;;
        esac
    done
    echo "$wanted" >"$sysroot/.packages"
}

# --- the small profile's dependencies from Debian's source packages -----------------------

source_packages="libmicrohttpd cjson nanomsg"

# Fetches and unpacks the source packages into build-cross/src (Debian's changes applied).
fetch_sources() {
    src="$out/src"
    [ -f "$src/.complete" ] && return
    echo "== Debian source packages: $source_packages"
    prepare_apt "$out/apt-src" deb-src "$host_arch"
    rm -rf "$src"
    mkdir -p "$src"
    for p in $source_packages; do
        (cd "$src" && apt_private "$out/apt-src" "$host_arch" source --download-only "$p" >/dev/null 2>&1) || true
        dsc=$(ls "$src/${p}_"*.dsc 2>/dev/null | head -n 1)
        [ -n "$dsc" ] || { echo "cross.sh: apt could not fetch the source package $p" >&2; exit 1; }
        if ! (cd "$src" && dpkg-source -q -x "$dsc" "$p" >/dev/null 2>&1); then
            # Every file apt fetched was checked against the signed index; when a mirror lacks
            # the Debian part, the upstream tarball Debian ships (.orig) is built as it is.
            orig=$(ls "$src/${p}_"*.orig.tar.* 2>/dev/null | head -n 1)
            [ -n "$orig" ] || { echo "cross.sh: apt could not fetch the source of $p" >&2; exit 1; }
            echo "cross.sh: warning: Debian's changes to $p could not be fetched; building ${orig##*/} without them" >&2
            mkdir -p "$src/$p"
            tar -xf "$orig" -C "$src/$p" --strip-components=1
        fi
    done
    touch "$src/.complete"
}

# Builds the three libraries static, -Os with one section per function, into deps-ARCH.
# Their build output goes to deps-build-ARCH/build.log.
build_deps() {
    prefix="$out/deps-$arch"
    [ -f "$prefix/.complete" ] && return
    fetch_sources
    echo "== static libmicrohttpd, cJSON and nanomsg for $arch"
    work="$out/deps-build-$arch"
    rm -rf "$prefix" "$work"
    mkdir -p "$work/mhd" "$prefix"
    log="$work/build.log"
    trap 'echo "cross.sh: building the dependencies failed; the end of $log:" >&2; tail -n 30 "$log" >&2' EXIT
    flags="-Os -ffunction-sections -fdata-sections -D_FILE_OFFSET_BITS=64 $time_bits"
    cc=gcc host=""
    if [ -n "$triplet" ]; then
        cc="$triplet-gcc" host="--host=$triplet"
    fi

    # libmicrohttpd without TLS, authentication, upgrade and tests: the server uses plain
    # HTTP, the post processor, epoll and sendfile.
    (cd "$work/mhd" && "$src/libmicrohttpd/configure" $host --prefix="$prefix" CC="$cc" CFLAGS="$flags" \
        --disable-shared --enable-static --with-pic=no --disable-https --without-gnutls \
        --disable-bauth --disable-dauth --disable-httpupgrade --disable-curl --disable-doc \
        --disable-examples --disable-nls --disable-thread-names --enable-epoll=yes \
        --enable-itc=eventfd --with-threads=posix) >>"$log" 2>&1
    make -C "$work/mhd/src/include" install >>"$log" 2>&1
    make -C "$work/mhd/src/microhttpd" -j "$jobs" install >>"$log" 2>&1
    make -C "$work/mhd" install-pkgconfigDATA >>"$log" 2>&1

    toolchain=""
    [ -n "$triplet" ] && toolchain="-DCMAKE_TOOLCHAIN_FILE=$root/cmake/toolchain-$arch.cmake"
    cmake_dep() {  # SOURCE BUILD ARGS...
        s=$1 b=$2
        shift 2
        cmake -S "$s" -B "$b" $toolchain -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_C_FLAGS="$flags" \
            -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=lib "$@" >>"$log" 2>&1
        cmake --build "$b" -j "$jobs" >>"$log" 2>&1
        cmake --install "$b" >>"$log" 2>&1
    }
    cmake_dep "$src/cjson" "$work/cjson" -DBUILD_SHARED_LIBS=OFF -DBUILD_SHARED_AND_STATIC_LIBS=OFF \
        -DENABLE_CJSON_TEST=OFF -DENABLE_CJSON_UTILS=OFF -DENABLE_CUSTOM_COMPILER_FLAGS=OFF
    # nanomsg without its tools, tests and documents; getaddrinfo_a (libanl) is left out, the
    # server only speaks IPC.
    cmake_dep "$src/nanomsg" "$work/nanomsg" -DNN_STATIC_LIB=ON -DNN_ENABLE_DOC=OFF -DNN_TESTS=OFF \
        -DNN_TOOLS=OFF -DNN_ENABLE_NANOCAT=OFF -DNN_ENABLE_GETADDRINFO_A=OFF
    trap - EXIT
    touch "$prefix/.complete"
}

# 64-bit time where the target's C library has it (glibc 2.34 and later on 32-bit ARM).
time_bits=""
if [ "$arch" = armhf ]; then
    time_bits="-D_TIME_BITS=64"
fi

# --- build -------------------------------------------------------------------------------

build="$out/$arch${profile:+-$profile}"
started=$(date +%s)
toolchain_args=""
[ -n "$triplet" ] && toolchain_args="-DCMAKE_TOOLCHAIN_FILE=$root/cmake/toolchain-$arch.cmake"
if [ -z "$profile" ]; then
    make_sysroot
    echo "== $arch build ($build)"
    cmake -S . -B "$build" $toolchain_args -DWEB_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$build" -j "$jobs"
else
    build_deps
    echo "== $arch $profile profile ($build)"
    # Only the static dependencies: no sysroot, no system library of the build machine.
    PKG_CONFIG_LIBDIR="$prefix/lib/pkgconfig" PKG_CONFIG_SYSROOT_DIR="" \
        cmake -S . -B "$build" $toolchain_args -DWEB_PROFILE="$profile" -DCMAKE_BUILD_TYPE=MinSizeRel \
        -DBUILD_TESTING=OFF >/dev/null
    cmake --build "$build" -j "$jobs" --target webserver
    # The console's pages, which the device's tree holds.
    [ "$action" != install ] || cmake --build "$build" -j "$jobs" --target console
    size=$(wc -c <"$build/bin/webserver")
    echo "cross.sh: $build/bin/webserver: $size bytes before stripping"
fi
echo "cross.sh: $arch ${profile:-ordinary} build took $(($(date +%s) - started)) s"

# --- install -----------------------------------------------------------------------------

if [ "$action" = install ]; then
    stage="$build/stage"
    rm -rf "$stage"
    cmake --install "$build" --prefix "$stage" --strip >/dev/null
    tarball="$out/webserver-$arch${profile:+-$profile}.tar.gz"
    tar -C "$stage" --owner=0 --group=0 --numeric-owner -czf "$tarball" .
    echo "cross.sh: device tree in $stage, packed as $tarball ($(wc -c <"$tarball") bytes)"
fi

# --- tests under emulation ---------------------------------------------------------------

if [ "$action" = test ]; then
    command -v "$qemu" >/dev/null || { echo "cross.sh: $qemu is missing (Debian package qemu-user)" >&2; exit 1; }
    if ! unshare -Urm sh -c 'mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc' 2>/dev/null; then
        echo "cross.sh: this kernel cannot mount binfmt_misc inside a user namespace (Linux 6.7 or later needed)" >&2
        exit 1
    fi
    # The standard ELF header match of qemu's binfmt entries: class, little endian, version 1,
    # an executable or shared object for the machine. Flag F opens the emulator now, so it
    # is found in every mount namespace the tests make.
    magic="\\x7fELF${elf_class}\\x01\\x01\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x02\\x00${elf_machine}"
    mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
    rule=":web-$arch:M::$magic:$mask:$(command -v "$qemu"):F"
    # The seccomp launcher of the old-kernel tests must act on the emulator itself, which
    # refuses filters from the programs it runs: it is built for this machine.
    mkdir -p "$build/host-bin"
    g++ -std=c++20 -O2 -Wall -Wextra -Werror -o "$build/host-bin/enosys" tests/tools/enosys.cpp
    echo "== $arch tests under $qemu"
    started=$(date +%s)
    # The tests learn from WEB_TEST_EMULATOR that they run emulated and from WEB_TEST_HOST_BIN
    # where the machine's own helpers are; QEMU_LD_PREFIX lets the emulator find the target's
    # loader and libraries in the sysroot.
    WEB_TEST_EMULATOR="$qemu" WEB_TEST_HOST_BIN="$build/host-bin" QEMU_LD_PREFIX="$sysroot" \
        unshare -Urm --propagation private sh -c '
            set -e
            mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
            printf "%s\n" "$1" >/proc/sys/fs/binfmt_misc/register
            ctest --test-dir "$2" -j "$3" --output-on-failure' sh "$rule" "$build" "$jobs" || tests_status=$?
    # What the tests left out under emulation, and why (ctest shows only failed tests' output).
    grep -h '^\[ SKIPPED  \]' "$build/Testing/Temporary/LastTest.log" 2>/dev/null || true
    [ "${tests_status:-0}" -eq 0 ] || exit "$tests_status"
    echo "cross.sh: $arch tests under emulation took $(($(date +%s) - started)) s"
fi
