#!/usr/bin/env bash
# Many pages at once: CLIENTS WebSocket clients streaming real captured audio from build/orvel
# (a private PulseAudio whose null sink plays a sine the whole time), then the same number of
# synthetic 9600-byte streams at 10 messages/s from node ws (bench/ws-stream-server.js) and from
# a bare epoll loop (bench/tools/ws_epoll_server.cpp), one after the other in one run, all read by
# bench/tools/ws_bench_client.cpp. For each: delivered share, pace (messages/s per stream, lowest
# and median), jitter p99 (how far the gaps between a stream's messages stray from 100 ms),
# connect time, server CPU seconds per stream-minute, RSS; then orvel's ratios to the other two.
# Usage: bench/scale.sh [--clients N] [--rate 48000|16000] [--seconds S] [path to orvel]
# (defaults 1000 clients, 48000 Hz, 60 s, build/orvel). Takes the lock on port 8505 that the
# end-to-end tests use. Not part of CI.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
clients=1000
rate=48000
seconds=60
orvel="$here/build/orvel"
while (($#)); do
    case "$1" in
        --clients) clients="$2"; shift ;;
        --rate) rate="$2"; shift ;;
        --seconds) seconds="$2"; shift ;;
        -h|--help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) orvel="$1" ;;
    esac
    shift
done
[ -x "$orvel" ] || { echo "scale.sh: no orvel at $orvel (build it first)" >&2; exit 1; }
[ -d "$here/tests/node/node_modules/ws" ] || { echo "scale.sh: npm ws missing (scripts/setup)" >&2; exit 1; }

# A client and a server descriptor per page, for each of the three servers in turn.
ulimit -n $((clients * 2 + 1024)) 2>/dev/null || ulimit -n "$(ulimit -Hn)"
[ "$(ulimit -n)" -ge $((clients + 256)) ] || { echo "scale.sh: ulimit -n $(ulimit -n) is too low for $clients clients" >&2; exit 1; }

. "$here/bench/tools/scratch.sh"

exec 9>/tmp/orvel-test-port-8505.lock
flock 9

g++ -std=c++20 -O2 -o "$work/client" "$here/bench/tools/ws_bench_client.cpp"
g++ -std=c++20 -O2 -o "$work/epoll_server" "$here/bench/tools/ws_epoll_server.cpp" -lcrypto

export XDG_RUNTIME_DIR="$work/runtime" XDG_CONFIG_HOME="$work/config"
mkdir -m 700 "$XDG_RUNTIME_DIR"
unset PULSE_SERVER PULSE_RUNTIME_PATH PULSE_SINK PULSE_SOURCE DISPLAY WAYLAND_DISPLAY
pulseaudio --daemonize=yes --exit-idle-time=-1 -n --load=module-native-protocol-unix \
    --load="module-null-sink sink_name=scale_sink" --log-target="file:$work/pulseaudio.log"
pulse_pid=$(cat "$XDG_RUNTIME_DIR/pulse/pid")
# The daemon is no child of ours, so it is waited for by polling before the scratch folder goes.
stop_pulse() {
    kill "$pulse_pid" 2>/dev/null || true
    for _ in $(seq 100); do kill -0 "$pulse_pid" 2>/dev/null || return 0; sleep 0.1; done
}
trap 'stop_pulse; cleanup' EXIT
# Keeps the null sink rendering (an idle one renders in bursts) with something worth capturing.
total=$((seconds * 3 + 120))
sox -q -n -t raw -r 48000 -c 2 -b 16 -e signed-integer - synth "$total" sine 440 vol 0.5 2>/dev/null |
    pacat --playback --raw --format=s16le --rate=48000 --channels=2 --latency-msec=20 2>/dev/null &
pids+=($!)
# For about two seconds after playback starts the monitor yields nothing (measured with parec:
# 1.7 s at 0.2 s, 8 ms at 3 s). Pages that join then would all wait for the same first samples,
# which no page on a desktop that is playing sound does.
sleep 3

field() { sed -n "s/.*[ ^]$1=\([^ ]*\).*/\1/p" <<<" $2"; }
ratio() { echo "scale=2; $1 / $2" | bc -l; }
show() {  # name, client line
    printf '%-6s delivered %6s %% (%s of %s, %s closed) | pace min %s median %s msg/s | jitter p50 %s p99 %s max %s ms | connect p50 %s p99 %s ms | CPU %s s/stream-min | RSS %s MiB (peak %s)\n' \
        "$1" "$(field delivered "$2")" "$(field messages "$2")" "$(field expected "$2")" "$(field closed "$2")" \
        "$(field paceMin "$2")" "$(field paceMedian "$2")" "$(field jitterP50 "$2")" "$(field jitterP99 "$2")" \
        "$(field jitterMax "$2")" "$(field connectP50 "$2")" "$(field connectP99 "$2")" \
        "$(field serverCpuSecondsPerStreamMinute "$2")" "$(field rssMiB "$2")" "$(field peakRssMiB "$2")"
}
stop() {  # pid: ends one server of ours before the next runs, so they do not share the cores
    kill "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
}

echo "$(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg); $clients clients for ${seconds}s; orvel at $rate Hz"

"$orvel" 2>"$work/orvel.log" &
orvel_pid=$!
pids+=("$orvel_pid")
wait_for 8505
# The sound server's record streams, every 2 s while the pages stream: one per rate is the goal.
(while kill -0 "$orvel_pid" 2>/dev/null; do pactl list short source-outputs 2>/dev/null | wc -l; sleep 2; done >"$work/record-streams") &
pids+=($!)
ours=$("$work/client" scale 8505 "$clients" "$seconds" "$orvel_pid" "{\"type\":\"loopback\",\"sample_rate\":$rate}")
stop "$orvel_pid"
record_streams=$(sort -n "$work/record-streams" | tail -1)
echo "load $(cut -d' ' -f1-3 /proc/loadavg)"

measure_peer() {  # variable, server command (given a port last): the clients' line for that server
    local port pid
    port=$(free_port)
    "${@:2}" "$port" &
    pid=$!
    pids+=("$pid")
    wait_for "$port"
    printf -v "$1" '%s' "$("$work/client" scale "$port" "$clients" "$seconds" "$pid" "pace 10")"
    stop "$pid"
    echo "load $(cut -d' ' -f1-3 /proc/loadavg)"
}
measure_peer theirs node "$here/bench/ws-stream-server.js"
measure_peer bare "$work/epoll_server"

show orvel "$ours"
show ws "$theirs"
show epoll "$bare"
cpu() { field serverCpuSecondsPerStreamMinute "$1"; }
echo "orvel: at most $record_streams record stream(s) on the sound server while it streamed;" \
    "log: $(grep -c "Client too slow\|client too slow" "$work/orvel.log" || true) too slow," \
    "$(grep -c "Audio capture failed" "$work/orvel.log" || true) capture failures"
echo "ratios: CPU per stream-minute orvel/ws $(ratio "$(cpu "$ours")" "$(cpu "$theirs")")," \
    "orvel/epoll $(ratio "$(cpu "$ours")" "$(cpu "$bare")"), ws/epoll $(ratio "$(cpu "$theirs")" "$(cpu "$bare")");" \
    "RSS orvel/ws $(ratio "$(field rssMiB "$ours")" "$(field rssMiB "$theirs")")"
