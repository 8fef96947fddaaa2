#!/usr/bin/env bash
# Requests per second and p99 latency of examples/version_server against nginx serving the same
# answer, in one run: keep-alive (64 connections) and one connection per request, each 10 s.
# Prints each figure and our ratio to nginx (machines are shared and noisy: compare only within
# one run). Usage: bench/http.sh [path to version_server] (default: build/version_server).
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
server=${1:-$here/build/version_server}
duration=${DURATION:-10s}
connections=${CONNECTIONS:-64}
[ -x "$server" ] || { echo "http.sh: no version_server at $server (build it first)" >&2; exit 1; }
command -v nginx >/dev/null || { echo "http.sh: nginx missing (scripts/setup installs nginx-light)" >&2; exit 1; }
command -v wrk >/dev/null || { echo "http.sh: wrk missing (scripts/setup installs it)" >&2; exit 1; }

. "$here/bench/tools/scratch.sh"

wait_for() {  # port: polls until something answers, at most 5 s
    for _ in $(seq 100); do
        curl -s -o /dev/null "http://127.0.0.1:$1/version" && return 0
        sleep 0.05
    done
    echo "http.sh: nothing listens on $1" >&2
    exit 1
}

ours=$(free_port)
"$server" --port "$ours" &
pids+=($!)

theirs=$(free_port)
mkdir -p "$work/nginx/logs" "$work/nginx/tmp"
cat >"$work/nginx/nginx.conf" <<CONF
worker_processes 1;
daemon off;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log;
events { worker_connections 1024; }
http {
    access_log off;
    client_body_temp_path $work/nginx/tmp;
    proxy_temp_path $work/nginx/tmp;
    fastcgi_temp_path $work/nginx/tmp;
    uwsgi_temp_path $work/nginx/tmp;
    scgi_temp_path $work/nginx/tmp;
    server {
        listen 127.0.0.1:$theirs;
        location = /version { add_header Access-Control-Allow-Origin *; return 200 "412"; }
        location / { return 404; }
    }
}
CONF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" &
pids+=($!)

wait_for "$ours"
wait_for "$theirs"

# "requests/s p99-in-ms" from one wrk run.
measure() {  # port, connection header
    wrk -t2 -c"$connections" -d"$duration" --latency -H "Connection: $2" "http://127.0.0.1:$1/version" >"$work/wrk.txt"
    local rps p99
    rps=$(awk '/^Requests\/sec:/ {print $2}' "$work/wrk.txt")
    p99=$(awk '$1 == "99%" {v = $2; if (v ~ /us$/) {sub(/us$/, "", v); v /= 1000} else if (v ~ /ms$/) {sub(/ms$/, "", v)} else if (v ~ /s$/) {sub(/s$/, "", v); v *= 1000}; print v}' "$work/wrk.txt")
    if grep -q 'Non-2xx\|Socket errors' "$work/wrk.txt"; then grep 'Non-2xx\|Socket errors' "$work/wrk.txt" | sed 's/^/    /' >&2; fi
    echo "$rps $p99"
}

report() {  # mode, our figures, their figures
    read -r our_rps our_p99 <<<"$2"
    read -r their_rps their_p99 <<<"$3"
    printf '%-22s version_server %10.0f req/s  p99 %7.2f ms | nginx %10.0f req/s  p99 %7.2f ms | ratio req/s %.2f  p99 %.2f\n' \
        "$1" "$our_rps" "$our_p99" "$their_rps" "$their_p99" \
        "$(echo "$our_rps / $their_rps" | bc -l)" "$(echo "$our_p99 / $their_p99" | bc -l)"
}

echo "wrk -t2 -c$connections -d$duration, $(nproc) cores; ratio = version_server / nginx"
report "keep-alive" "$(measure "$ours" keep-alive)" "$(measure "$theirs" keep-alive)"
report "connection per request" "$(measure "$ours" close)" "$(measure "$theirs" close)"
