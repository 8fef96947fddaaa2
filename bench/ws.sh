#!/usr/bin/env bash
# WebSocket streaming of 9600-byte binary messages: examples/ws_stream_server against the npm ws
# package doing the same (bench/ws-stream-server.js), in one run, with the same client
# (bench/tools/ws_bench_client.cpp, built here):
#   throughput  one connection, as fast as the client reads: MB/s and server CPU per GB
#   paced       200 connections at 10 messages/s for 20 s: server CPU seconds per stream-minute
# Prints each figure and our ratio to ws (machines are shared and noisy: compare only within one
# run). Usage: bench/ws.sh [path to ws_stream_server] (default: build/ws_stream_server).
# CONNECTIONS, RATE, PACED_SECONDS and THROUGHPUT_SECONDS change the defaults.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
server=${1:-$here/build/ws_stream_server}
connections=${CONNECTIONS:-200}
rate=${RATE:-10}
paced_seconds=${PACED_SECONDS:-20}
throughput_seconds=${THROUGHPUT_SECONDS:-10}
[ -x "$server" ] || { echo "ws.sh: no ws_stream_server at $server (build it first)" >&2; exit 1; }
[ -d "$here/tests/node/node_modules/ws" ] || { echo "ws.sh: npm ws missing (scripts/setup)" >&2; exit 1; }

. "$here/bench/tools/scratch.sh"
need node nodejs

g++ -std=c++20 -O2 -o "$work/client" "$here/bench/tools/ws_bench_client.cpp"


ours=$(free_port)
"$server" --port "$ours" &
our_pid=$!
pids+=("$our_pid")
theirs=$(free_port)
node "$here/bench/ws-stream-server.js" "$theirs" &
their_pid=$!
pids+=("$their_pid")
wait_for "$ours"
wait_for "$theirs"

field() { sed -n "s/.*$1=\([^ ]*\).*/\1/p" <<<"$2"; }
ratio() { echo "$1 / $2" | bc -l; }

echo "$(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg); ratio = ws_stream_server / node ws"

t_ours=$("$work/client" throughput "$ours" "$throughput_seconds" "$our_pid")
t_theirs=$("$work/client" throughput "$theirs" "$throughput_seconds" "$their_pid")
printf 'throughput, 1 connection:  ours %8.1f MB/s (%.2f CPU-s/GB) | ws %8.1f MB/s (%.2f CPU-s/GB) | ratio MB/s %.2f\n' \
    "$(field MBps "$t_ours")" "$(field serverCpuSecondsPerGB "$t_ours")" \
    "$(field MBps "$t_theirs")" "$(field serverCpuSecondsPerGB "$t_theirs")" \
    "$(ratio "$(field MBps "$t_ours")" "$(field MBps "$t_theirs")")"

p_ours=$("$work/client" paced "$ours" "$connections" "$rate" "$paced_seconds" "$our_pid")
p_theirs=$("$work/client" paced "$theirs" "$connections" "$rate" "$paced_seconds" "$their_pid")
printf 'paced, %d x %d msg/s, %ss: ours %.4f CPU-s/stream-min (%s of %s msgs) | ws %.4f CPU-s/stream-min (%s of %s msgs) | ratio CPU %.2f\n' \
    "$connections" "$rate" "$paced_seconds" \
    "$(field serverCpuSecondsPerStreamMinute "$p_ours")" "$(field messages "$p_ours")" "$(field expected "$p_ours")" \
    "$(field serverCpuSecondsPerStreamMinute "$p_theirs")" "$(field messages "$p_theirs")" "$(field expected "$p_theirs")" \
    "$(ratio "$(field serverCpuSecondsPerStreamMinute "$p_ours")" "$(field serverCpuSecondsPerStreamMinute "$p_theirs")")"
