#!/usr/bin/env bash
# Requests per second, p99 latency and server CPU per request of examples/version_server against
# nginx serving the same answer, in one run: keep-alive (64 connections) and one connection per
# request, each 10 s. With ORVEL=path/to/orvel the app itself (which logs three lines a request,
# to standard error here, kept in a file) is measured too, on its fixed port 127.0.0.1:8505 under
# the tests' lock of that port. Prints each figure and our ratio to nginx (machines are shared
# and noisy: compare only within one run; CPU per request is the steadier figure). Our listener
# defers the accept until the request is in; the last lines (close-defer) compare the close case
# with nginx doing the same ("listen ... deferred"), the first ones with nginx as it comes.
# OWN_NETWORK=1 runs it all in a network namespace of its own (root and unshare), where port
# 8505 is ours whoever else holds it. THREADS=1 runs wrk with one thread instead of two (then
# wrk leaves a core to the server). Usage: bench/http.sh [path to version_server]
# (default: build/version_server).
set -euo pipefail
if [ -n "${OWN_NETWORK:-}" ] && [ -z "${HTTP_BENCH_NETNS:-}" ]; then
    exec unshare --net -- env HTTP_BENCH_NETNS=1 bash -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
fi

here=$(cd "$(dirname "$0")/.." && pwd)
server=${1:-$here/build/version_server}
duration=${DURATION:-10s}
connections=${CONNECTIONS:-64}
threads=${THREADS:-2}
[ -x "$server" ] || { echo "http.sh: no version_server at $server (build it first)" >&2; exit 1; }

. "$here/bench/tools/scratch.sh"
need nginx nginx-light
need wrk wrk


ours=$(free_port)
"$server" --port "$ours" &
our_pid=$!
pids+=("$our_pid")

theirs=$(free_port)
deferred=$(free_port)
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
        # Accepts as our server does, once the request is in (TCP_DEFER_ACCEPT).
        listen 127.0.0.1:$deferred deferred;
        location = /version { add_header Access-Control-Allow-Origin *; return 200 "412"; }
        location / { return 404; }
    }
}
CONF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" &
nginx_pid=$!
pids+=("$nginx_pid")

app_pid=
if [ -n "${ORVEL:-}" ]; then
    if [ -z "${HTTP_BENCH_NETNS:-}" ]; then
        exec 9>/tmp/orvel-test-port-8505.lock
        flock 9
    fi
    "$ORVEL" 2>"$work/orvel.log" 9>&- &
    app_pid=$!
    pids+=("$app_pid")
    wait_for 8505
fi

wait_for "$ours"
wait_for "$theirs"
wait_for "$deferred"

cpu_ticks() {  # user and system time of a process and its children (nginx's worker), in ticks
    local pid total=0
    for pid in "$1" $(cat /proc/"$1"/task/*/children); do
        total=$((total + $(awk '{print $14 + $15}' "/proc/$pid/stat")))
    done
    echo "$total"
}

# "requests/s p99-in-ms CPU-us-per-request" from one wrk run.
measure() {  # port, connection header, server pid
    local before after
    before=$(cpu_ticks "$3")
    wrk -t"$threads" -c"$connections" -d"$duration" --latency -H "Connection: $2" "http://127.0.0.1:$1/version" >"$work/wrk.txt"
    after=$(cpu_ticks "$3")
    local rps p99 requests
    rps=$(awk '/^Requests\/sec:/ {print $2}' "$work/wrk.txt")
    requests=$(awk '/requests in/ {print $1}' "$work/wrk.txt")
    p99=$(awk '$1 == "99%" {v = $2; if (v ~ /us$/) {sub(/us$/, "", v); v /= 1000} else if (v ~ /ms$/) {sub(/ms$/, "", v)} else if (v ~ /s$/) {sub(/s$/, "", v); v *= 1000}; print v}' "$work/wrk.txt")
    if grep -q 'Non-2xx\|Socket errors' "$work/wrk.txt"; then grep 'Non-2xx\|Socket errors' "$work/wrk.txt" | sed 's/^/    /' >&2; fi
    echo "$rps $p99 $(echo "($after - $before) * 1000000 / $(getconf CLK_TCK) / $requests" | bc -l)"
}

report() {  # mode, name, our figures, nginx's figures
    read -r our_rps our_p99 our_cpu <<<"$3"
    read -r their_rps their_p99 their_cpu <<<"$4"
    printf '%-11s %-14s %7.0f req/s p99 %6.2f ms %5.1f us CPU/req | nginx %7.0f req/s p99 %6.2f ms %5.1f us CPU/req | ratio req/s %.2f p99 %.2f CPU/req %.2f\n' \
        "$1" "$2" "$our_rps" "$our_p99" "$our_cpu" "$their_rps" "$their_p99" "$their_cpu" \
        "$(echo "$our_rps / $their_rps" | bc -l)" "$(echo "$our_p99 / $their_p99" | bc -l)" "$(echo "$our_cpu / $their_cpu" | bc -l)"
}

echo "wrk -t$threads -c$connections -d$duration, $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg); ratio = ours / nginx"
for mode in keep-alive close; do
    nginx=$(measure "$theirs" "$mode" "$nginx_pid")
    ours_figures=$(measure "$ours" "$mode" "$our_pid")
    report "$mode" version_server "$ours_figures" "$nginx"
    [ -z "$app_pid" ] || app_figures=$(measure 8505 "$mode" "$app_pid")
    [ -z "$app_pid" ] || report "$mode" orvel "$app_figures" "$nginx"
done
# The same comparison for one connection per request with nginx accepting as we do.
nginx=$(measure "$deferred" close "$nginx_pid")
report close-defer version_server "$ours_figures" "$nginx"
[ -z "$app_pid" ] || report close-defer orvel "$app_figures" "$nginx"
[ -z "$app_pid" ] || echo "orvel logged $(wc -l <"$work/orvel.log") lines"
