#!/bin/sh
# Static file benchmark, run on demand (not a test): this server against nginx on the same
# files, in the same run, inside the private namespace of tests/isolate.sh.
#   - small file: requests per second with wrk over keep-alive connections;
#   - large file (100 MiB): curl's transfer rate, the mean of eight transfers.
# nginx runs with "worker_processes 1", like this server's single event loop.
# Targets: at least nginx's request rate, and at least 90 % of its transfer rate.
# Usage: bench/static.sh [SECONDS] [CONNECTIONS] [ROUNDS]    (defaults 5, 8 and 5; this server takes
# at most 8 connections from one address, and wrk has only one)
set -eu
cd "$(dirname "$0")/.."
bench_targets=webserver
. bench/prepare.sh
seconds=${1:-5} connections=${2:-8} rounds=${3:-5}

. bench/device_env.sh

# The device tree, plus the two benchmark files.
lay_out_device 8080
head -c 1024 /dev/urandom | base64 > /mnt/app/web_root/small.html
head -c 104857600 /dev/zero > /mnt/app/web_root/big.mp4
small_size=$(stat -c %s /mnt/app/web_root/small.html)

mkdir -p /tmp/nginx
cat > /tmp/nginx/nginx.conf <<CONF
worker_processes 1;
daemon off;
# One process, which never switches user: a user namespace refuses a worker's group changes.
master_process off;
user root root;
pid /tmp/nginx/nginx.pid;
error_log /tmp/nginx/error.log;
events { worker_connections 1024; }
http {
    access_log off;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 1000000;
    client_body_temp_path /tmp/nginx/body;
    proxy_temp_path /tmp/nginx/proxy;
    fastcgi_temp_path /tmp/nginx/fastcgi;
    uwsgi_temp_path /tmp/nginx/uwsgi;
    scgi_temp_path /tmp/nginx/scgi;
    types { text/html html; video/mp4 mp4; }
    server {
        listen 127.0.0.1:8081;
        root /mnt/app/web_root;
    }
}
CONF

start_server 8080
nginx -p /tmp/nginx -c /tmp/nginx/nginx.conf &
pids=$!
wait_http 8081

rps() { wrk_rate "$connections" "$seconds" "http://127.0.0.1:$1/small.html"; }
# One transfer takes some 50 ms, too short to stand out of the machine's noise: the mean of
# eight.
rate() {
    for _ in 1 2 3 4 5 6 7 8; do
        curl -s -o /dev/null -w '%{speed_download}\n' "http://127.0.0.1:$1/big.mp4"
    done | awk '{ sum += $1 } END { print sum / NR }'
}

# The machine is shared, so its load changes from second to second: the two servers are
# measured in alternating rounds (the order swapped each round) and each round gives a ratio;
# the median ratio is reported.
: > /tmp/rounds
i=0
while [ $i -lt "$rounds" ]; do
    if [ $((i % 2)) -eq 0 ]; then
        o=$(rps 8080); n=$(rps 8081); ot=$(rate 8080); nt=$(rate 8081)
    else
        n=$(rps 8081); o=$(rps 8080); nt=$(rate 8081); ot=$(rate 8080)
    fi
    echo "$o $n $ot $nt" >> /tmp/rounds
    i=$((i + 1))
done

small_ratio=$(awk '{ print $1 / $2 }' /tmp/rounds | median)
large_ratio=$(awk '{ print $3 / $4 }' /tmp/rounds | median)

awk -v s="$small_size" -v sec="$seconds" -v c="$connections" -v rounds="$rounds" \
    -v sr="$small_ratio" -v lr="$large_ratio" '
{
    printf "round %d: small %8.0f / %8.0f req/s (%.2f)   large %7.1f / %7.1f MiB/s (%.2f)\n",
           NR, $1, $2, $1 / $2, $3 / 1048576, $4 / 1048576, $3 / $4
}
END {
    printf "webserver / nginx (worker_processes 1), %d rounds:\n", rounds
    printf "  small file (%d bytes), wrk -t1 -c%d -d%ds keep-alive: median ratio %.2f (target >= 1.00): %s\n",
           s, c, sec, sr, (sr >= 1.0) ? "met" : "MISSED"
    printf "  large file (100 MiB), curl: median ratio %.2f (target >= 0.90): %s\n",
           lr, (lr >= 0.9) ? "met" : "MISSED"
}' /tmp/rounds
