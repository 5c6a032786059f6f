#!/bin/sh
# Builds the fuzz targets with clang (libFuzzer, ASan, UBSan) in build-fuzz/ and runs each
# inside tests/isolate.sh, starting from its kept inputs (fuzz/corpus/NAME and the past
# findings in fuzz/crashes/NAME); what it learns goes to build-fuzz/corpus/NAME.
#
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]    each target SECONDS long (default 60)
#   FUZZ_RUNS=N    each target for N executions instead
#   FUZZ_JOBS=N    targets at once (default 1); each has a namespace of its own
#   FUZZ_OUT=DIR   build and work folder instead of build-fuzz
# A finding keeps its input in build-fuzz/findings/NAME/ and makes the script end with 1;
# the other targets still run. Each target's log is build-fuzz/logs/NAME.log.
set -eu
cd "$(dirname "$0")/.."
out=${FUZZ_OUT:-build-fuzz}  # another folder lets a long run go on beside the test command

# Runs one target with FUZZ_LIMIT (the entry through which xargs runs several at once).
if [ "${1:-}" = --run-one ]; then
    name=$2
    mkdir -p "$out/corpus/$name" "$out/findings/$name"
    crashes=""
    [ -d "fuzz/crashes/$name" ] && crashes="fuzz/crashes/$name"
    # The target's own log lines are silenced (-close_fd_mask); a hang is a finding after
    # -timeout seconds.
    # shellcheck disable=SC2086 # crashes may be empty
    if tests/isolate.sh "$out/bin/fuzz_$name" "$FUZZ_LIMIT" -timeout=60 -close_fd_mask=3 -print_final_stats=1 \
        -artifact_prefix="$out/findings/$name/" "$out/corpus/$name" "fuzz/corpus/$name" $crashes \
        >"$out/logs/$name.log" 2>&1; then
        echo 0 >"$out/logs/$name.status"
    else
        echo 1 >"$out/logs/$name.status"
    fi
    exit 0
fi

scripts/bootstrap.sh
seconds=60
case "${1:-}" in
    ''|*[!0-9]*) ;;
    *) seconds=$1; shift ;;
esac
if [ -n "${FUZZ_RUNS:-}" ]; then
    FUZZ_LIMIT="-runs=$FUZZ_RUNS"
else
    FUZZ_LIMIT="-max_total_time=$seconds"
fi
export FUZZ_LIMIT

CC=clang CXX=clang++ cmake -S . -B "$out" -DWEB_FUZZ=ON -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$out" -j "$(nproc 2>/dev/null || echo 2)" --target fuzz_all >/dev/null
mkdir -p "$out/logs"

targets=${*:-$(cd "$out/bin" && ls fuzz_* | sed 's/^fuzz_//')}
# Each target as soon as a slot is free, so that the slow ones (those that go through the
# server) hold up no quick one.
# shellcheck disable=SC2086 # one target per word
printf '%s\n' $targets | xargs -P "${FUZZ_JOBS:-1}" -I NAME "$(pwd)/scripts/fuzz.sh" --run-one NAME

failed=0
for name in $targets; do
    runs=$(sed -n 's/^Done \([0-9]*\) runs in \([0-9]*\) second.*/\1 executions in \2 s/p' "$out/logs/$name.log")
    if [ "$(cat "$out/logs/$name.status")" = 0 ]; then
        echo "fuzz $name: ${runs:-?}, no finding"
    else
        echo "fuzz $name: FINDING, see $out/logs/$name.log and $out/findings/$name/" >&2
        failed=1
    fi
done
exit $failed
