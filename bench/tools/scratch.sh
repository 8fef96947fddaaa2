# Sourced by the benchmark scripts: a scratch folder ($work), the PIDs of what the script starts
# ($pids, each stopped and waited for on exit), free_port (a loopback port nobody listens on) and
# wait_for PORT (polls until something accepts on it, at most 10 s), need PROGRAM PACKAGE (stops
# the script when PROGRAM is missing).
work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }

wait_for() {
    for _ in $(seq 200); do
        (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
        sleep 0.05
    done
    echo "$(basename "$0"): nothing listens on $1" >&2
    exit 1
}

need() { command -v "$1" >/dev/null || { echo "$(basename "$0"): $1 missing (scripts/setup installs $2)" >&2; exit 1; }; }
