# Sourced first by every benchmark script, from the repository root, after bench_targets
# names the programs it runs. Outside the test namespace: installs the benchmark tools, makes
# a release build of those programs in build-bench/ (the developer's build/ keeps its
# settings) and runs the calling script again inside tests/isolate.sh (private /mnt, /tmp and
# network) with the same arguments. Inside: sets $root and $bin.
root=$(pwd)
bin="$root/build-bench/bin"
if [ -z "${WEB_TEST_ISOLATED:-}" ]; then
    scripts/bootstrap.sh bench
    cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
    # shellcheck disable=SC2086 # a list of targets
    cmake --build build-bench -j2 --target $bench_targets >/dev/null
    exec tests/isolate.sh /bin/sh "$root/bench/$(basename "$0")" "$@"
fi
