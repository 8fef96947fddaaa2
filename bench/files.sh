#!/usr/bin/env bash
# Static files: examples/file_server against nginx serving the same folder, in one run. wrk with
# keep-alive connections on a 4 KiB file and on a 1 MiB file. Prints requests/s, the server's CPU
# time per request (from /proc/<pid>/stat, steadier than throughput on a shared machine) and our
# ratios to nginx. Goals: requests/s ratio >= 1.0 at 4 KiB, >= 0.8 at 1 MiB.
# Usage: bench/files.sh [path to file_server] (default: build/file_server).
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
server=${1:-$here/build/file_server}
duration=${DURATION:-10s}
connections=${CONNECTIONS:-64}
[ -x "$server" ] || { echo "files.sh: no file_server at $server (build it first)" >&2; exit 1; }

. "$here/bench/tools/scratch.sh"
need nginx nginx-light
need wrk wrk

mkdir -p "$work/www"
head -c 4096 /dev/urandom >"$work/www/4k.bin"
head -c 1048576 /dev/urandom >"$work/www/1m.bin"


ours=$(free_port)
"$server" --root "$work/www" --port "$ours" >/dev/null &
pids+=($!)
our_pid=$!

theirs=$(free_port)
mkdir -p "$work/nginx/logs" "$work/nginx/tmp"
# One worker, as our server is one process; sendfile on, as nginx is set up to serve files.
cat >"$work/nginx/nginx.conf" <<CONF
worker_processes 1;
master_process off;
daemon off;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log;
events { worker_connections 1024; }
http {
    access_log off;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 1000000;
    client_body_temp_path $work/nginx/tmp;
    proxy_temp_path $work/nginx/tmp;
    fastcgi_temp_path $work/nginx/tmp;
    uwsgi_temp_path $work/nginx/tmp;
    scgi_temp_path $work/nginx/tmp;
    server {
        listen 127.0.0.1:$theirs;
        root $work/www;
    }
}
CONF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" &
pids+=($!)
their_pid=$!

wait_for "$ours"
wait_for "$theirs"
for port in "$ours" "$theirs"; do  # both serve the same bytes
    curl -sf "http://127.0.0.1:$port/1m.bin" | cmp -s - "$work/www/1m.bin" || { echo "files.sh: $port serves other bytes" >&2; exit 1; }
done

cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }  # user + system, all threads

# "requests/s CPU-microseconds-per-request" from one wrk run.
measure() {  # port, pid, file
    local before after rps requests
    before=$(cpu_ticks "$2")
    wrk -t2 -c"$connections" -d"$duration" -H "Connection: keep-alive" "http://127.0.0.1:$1/$3" >"$work/wrk.txt"
    after=$(cpu_ticks "$2")
    if grep -q 'Non-2xx\|Socket errors' "$work/wrk.txt"; then grep 'Non-2xx\|Socket errors' "$work/wrk.txt" | sed 's/^/    /' >&2; fi
    rps=$(awk '/^Requests\/sec:/ {print $2}' "$work/wrk.txt")
    requests=$(awk '/requests in/ {print $1}' "$work/wrk.txt")
    echo "$rps $(echo "($after - $before) * 1000000 / $(getconf CLK_TCK) / $requests" | bc -l)"
}

report() {  # file, our figures, their figures
    read -r our_rps our_cpu <<<"$2"
    read -r their_rps their_cpu <<<"$3"
    printf '%-8s file_server %9.0f req/s %7.1f us CPU/req | nginx %9.0f req/s %7.1f us CPU/req | ratio req/s %.2f  CPU/req %.2f\n' \
        "$1" "$our_rps" "$our_cpu" "$their_rps" "$their_cpu" \
        "$(echo "$our_rps / $their_rps" | bc -l)" "$(echo "$our_cpu / $their_cpu" | bc -l)"
}

echo "wrk -t2 -c$connections -d$duration keep-alive, $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "ratio req/s = file_server / nginx (goal >= 1.0 at 4 KiB, >= 0.8 at 1 MiB); CPU/req lower is better"
report "4 KiB" "$(measure "$ours" "$our_pid" 4k.bin)" "$(measure "$theirs" "$their_pid" 4k.bin)"
report "1 MiB" "$(measure "$ours" "$our_pid" 1m.bin)" "$(measure "$theirs" "$their_pid" 1m.bin)"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
