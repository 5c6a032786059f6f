# Shared by the benchmarks that run the whole device. Sourced inside tests/isolate.sh (the
# private /mnt, /tmp and network) from the repository root, with $bin naming the directory
# of the built programs. Programs started here are ended by stop_all (also on exit).

sim_pid=""
server_pid=""
pids=""  # further programs a benchmark starts; ended with the others
stop_all() {
    for p in $server_pid $sim_pid $pids; do kill "$p" 2>/dev/null || true; done
    for p in $server_pid $sim_pid $pids; do wait "$p" 2>/dev/null || true; done
    server_pid="" sim_pid="" pids=""
}
trap stop_all EXIT

bench_fail() {
    echo "bench: $*" >&2
    exit 1
}

# The demo tree under /mnt, with the web port $1 stored (a stored port wins over the
# command line).
lay_out_device() {
    rm -rf /mnt/app /mnt/usr
    mkdir -p /mnt/app /mnt/usr/config
    cp -a demo/web_root /mnt/app/web_root
    cp -a demo/usr/config/app_parameters /mnt/usr/config/app_parameters
    printf '{\n\t"Port":\t%s\n}' "$1" >/mnt/usr/config/app_parameters/WebServerParameter.json
}

# Waits until 127.0.0.1:$1 answers HTTP; fails after 10 s.
wait_http() {
    tries=0
    until curl -s -o /dev/null "http://127.0.0.1:$1/"; do
        tries=$((tries + 1))
        [ "$tries" -lt 100 ] || bench_fail "nothing answers on port $1"
        sleep 0.1
    done
}

# Starts the simulator (scenario file $1, optional) and waits until it serves.
start_sim() {
    "$bin/devicesim" /mnt/app/web_root/config/command_para ${1:+"$1"} >/dev/null 2>&1 &
    sim_pid=$!
    tries=0
    until [ -S /tmp/app_user.ipc ]; do
        tries=$((tries + 1))
        [ "$tries" -lt 100 ] || bench_fail "the simulator did not start"
        sleep 0.1
    done
}

# Starts the server on port $1, its output sent to /dev/null, and waits until it serves.
start_server() {
    "$bin/webserver" "$1" lo >/dev/null 2>&1 &
    server_pid=$!
    wait_http "$1"
}

stop_server() {
    [ -z "$server_pid" ] || { kill "$server_pid"; wait "$server_pid" 2>/dev/null || true; }
    server_pid=""
}

# The simulator (scenario $2, optional) and the server on port $1.
start_device() {
    start_sim "${2:-}"
    start_server "$1"
}

# Prints a session id of the default account (the digest of "tavel"), one hour long.
login() {
    curl -s -d '{"username":"admin","password":"45b5d899e8cbbf16302d286d2c2f8e9d","timeout":3600}' \
        "http://127.0.0.1:$1/action/device/login" | sed -n 's/.*"sessionid":[[:space:]]*"\([0-9a-f-]*\)".*/\1/p'
}

# A value in KiB from the server's /proc status ("VmHWM:" peak, "VmRSS:" current).
server_kib() {
    awk -v key="$1" '$1 == key { print $2 }' "/proc/$server_pid/status"
}

now_ns() { date +%s%N; }

# The median of the numbers on standard input.
median() {
    sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# Requests per second that wrk measures with $1 connections over $2 seconds on the URL $3.
wrk_rate() {
    wrk -t1 -c"$1" -d"$2"s "$3" | awk '/^Requests\/sec:/ { print $2 }'
}

# Prints the rounds (lines "ours yardstick" in file $1) and the median of their ratios against
# the target percentage $3; $2 names the two sides.
report() {
    ratio=$(awk '{ print 100 * $1 / $2 }' "$1" | median)
    awk -v names="$2" -v median="$ratio" -v target="$3" '
    { printf "round %d: %9.0f / %9.0f per second (%.1f %%)\n", NR, $1, $2, 100 * $1 / $2 }
    END {
        printf "%s, %d rounds: median ratio %.1f %% (target at least %d %%): %s\n",
               names, NR, median, target, (median >= target) ? "met" : "MISSED"
    }' "$1"
}
