# Shared by the server benchmarks (sourced, inside tests/isolate.sh): the demo device tree,
# the simulator and the real server on 127.0.0.1:$port, a login, and the server's memory.
# Expects $build (the build directory) and the repository as the working directory.

port=8080
admin_digest=45b5d899e8cbbf16302d286d2c2f8e9d  # the default account's password digest
sim_pid=""
server_pid=""

# Lays out the demo tree with the port stored and starts the simulator (scenario file $1,
# optional); every server run below uses it.
bench_device()
{
    rm -rf /mnt/app /mnt/usr
    mkdir -p /mnt/app /mnt/usr/config
    cp -r demo/web_root /mnt/app/web_root
    cp -r demo/usr/config/app_parameters /mnt/usr/config/app_parameters
    printf '{\n\t"Port":\t%d\n}' "$port" >/mnt/usr/config/app_parameters/WebServerParameter.json
    if [ -n "${1:-}" ]; then
        "$build/bin/devicesim" /mnt/app/web_root/config/command_para "$1" >/tmp/devicesim.log 2>&1 &
    else
        "$build/bin/devicesim" /mnt/app/web_root/config/command_para >/tmp/devicesim.log 2>&1 &
    fi
    sim_pid=$!
    wait_for_text /tmp/devicesim.log "devicesim: ready" || bench_fail "the simulator did not start"
}

# Starts the server and waits until it answers; its output goes to a file, as on the device.
bench_server_start()
{
    "$build/bin/webserver" "$port" lo >/tmp/webserver.log 2>&1 &
    server_pid=$!
    i=0
    until curl -s -o /dev/null "http://127.0.0.1:$port/login.html"; do
        i=$((i + 1))
        [ $i -lt 100 ] || bench_fail "the server did not start"
        sleep 0.05
    done
}

bench_server_stop()
{
    [ -z "$server_pid" ] || { kill "$server_pid"; wait "$server_pid" 2>/dev/null || true; }
    server_pid=""
}

bench_stop_all()
{
    bench_server_stop
    [ -z "$sim_pid" ] || { kill "$sim_pid"; wait "$sim_pid" 2>/dev/null || true; }
    sim_pid=""
}

# Prints a new session id of the default account.
bench_login()
{
    curl -s -X POST -d "{\"username\":\"admin\",\"password\":\"$admin_digest\",\"timeout\":1800}" \
        "http://127.0.0.1:$port/action/device/login" |
        grep -o '[0-9a-f]\{8\}-[0-9a-f]\{4\}-[0-9a-f]\{4\}-[0-9a-f]\{4\}-[0-9a-f]\{12\}'
}

# A value in KiB from the server's /proc status ("VmHWM:" peak, "VmRSS:" current).
server_kib()
{
    awk -v key="$1" '$1 == key { print $2 }' "/proc/$server_pid/status"
}

wait_for_text()
{
    i=0
    until grep -q "$2" "$1" 2>/dev/null; do
        i=$((i + 1))
        [ $i -lt 100 ] || return 1
        sleep 0.05
    done
}

now_ns() { date +%s%N; }

bench_fail()
{
    echo "bench: $*" >&2
    bench_stop_all
    exit 1
}
