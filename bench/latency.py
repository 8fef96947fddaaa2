#!/usr/bin/python3
"""End-to-end latency of Orvel: from a sample being played to the page receiving the message
that holds it, on the real PulseAudio path, with parec reading the same monitor as the reference.

A private PulseAudio (own XDG_RUNTIME_DIR under a temporary folder, one null sink) plays a
stream of silence through pacat, with a 1 ms click every 400 to 500 ms; the writer is paced by
pacat itself, so the n-th sample is due n / 48000 s after the start. A second, silent stream
keeps the null sink rendering in small steps. Orvel captures at 48 kHz and sends 100 ms messages
to a WebSocket client here; parec records the sink's monitor at the same time. For each click:
the time its message arrived (Orvel) or its bytes arrived (parec), minus the time it was due.
Both paths share the player's own buffering, so the difference between them is Orvel's share,
most of it the wait for the click's 100 ms message to fill (0 to 100 ms, by where it lands).

With --server pipewire the sound server is PipeWire (pipewire, wireplumber and pipewire-pulse on
a session bus of their own) instead of PulseAudio; the client side is the same. With --pages N,
N - 1 other pages stream at 48 kHz beside the measured one (bench/tools/ws_bench_client, built
here, reading every message); the clicks start once they have had 5 s to connect.

Usage: bench/latency.py [--orvel build/orvel] [--seconds 40] [--server pulseaudio|pipewire] [--pages 1]
Needs port 8505 free, pulseaudio or the PipeWire set, pacat and parec (scripts/setup installs
them). Every process it starts is stopped by its PID.
"""

import argparse
import base64
import fcntl
import os
import random
import shutil
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

RATE = 48000
F_SETPIPE_SZ = 1031  # fcntl.h on Linux
BLOCK = 240  # 5 ms of samples per write
CLICK_EVERY = 0.4  # plus 0 to 100 ms at random
CLICK_SAMPLES = 48
THRESHOLD = 8000  # of 32767: a click is full scale, silence is 0


def percentile(values, p):
    ordered = sorted(values)
    if not ordered:
        return float("nan")
    k = (len(ordered) - 1) * p / 100.0
    lo = int(k)
    hi = min(lo + 1, len(ordered) - 1)
    return ordered[lo] + (ordered[hi] - ordered[lo]) * (k - lo)


class ClickFinder:
    """Finds click onsets in a stream of 16-bit little-endian samples."""

    def __init__(self):
        self.quiet = RATE  # samples since the last loud one

    def feed(self, data):
        """Number of click onsets in data."""
        onsets = 0
        for (value,) in struct.iter_unpack("<h", data[: len(data) // 2 * 2]):
            if abs(value) > THRESHOLD:
                if self.quiet > RATE // 10:
                    onsets += 1
                self.quiet = 0
            else:
                self.quiet += 1
        return onsets


class Clicks:
    """When each click was due, in order, shared by the player and the readers."""

    def __init__(self):
        self.lock = threading.Lock()
        self.due = []

    def add(self, when):
        with self.lock:
            self.due.append(when)

    def nth(self, index):
        with self.lock:
            return self.due[index] if index < len(self.due) else None


def play(pacat, clicks, stop, go, start):
    """Writes silence as fast as pacat takes it, so the stream never runs dry and sample n plays
    n / RATE seconds after the first; once `go` is set, a click every CLICK_EVERY seconds. A
    click's time is when its first sample is due by that count."""
    silence = bytes(BLOCK * 2)
    click = struct.pack("<h", 30000) * CLICK_SAMPLES + bytes((BLOCK - CLICK_SAMPLES) * 2)
    written = 0
    next_click = None
    while not stop.is_set():
        if next_click is None and go.is_set():
            next_click = written + RATE  # a second later: beyond what is already queued
        block = silence
        if next_click is not None and written <= next_click < written + BLOCK:
            block = click
            clicks.add(start + written / RATE)
            # Not a whole number of messages apart: each click lands elsewhere in its message.
            next_click += int(RATE * CLICK_EVERY) + random.randrange(RATE // 10)
        try:
            pacat.stdin.write(block)  # blocks while the pipe is full: pacat paces us
            pacat.stdin.flush()
        except (BrokenPipeError, ValueError):
            return
        written += BLOCK


parec_started = threading.Event()


def read_parec(parec, clicks, results, stop):
    finder = ClickFinder()
    seen = 0
    while not stop.is_set():
        data = os.read(parec.stdout.fileno(), 4096)
        if not data:
            return
        parec_started.set()
        now = time.monotonic()
        for _ in range(finder.feed(data)):
            due = clicks.nth(seen)
            seen += 1
            if due is not None:
                results.append(now - due)


def websocket(port, origin):
    sock = socket.create_connection(("127.0.0.1", port), timeout=30)
    key = base64.b64encode(os.urandom(16)).decode()
    sock.sendall(
        (
            f"GET / HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            f"Sec-WebSocket-Key: {key}\r\nSec-WebSocket-Version: 13\r\nOrigin: {origin}\r\n\r\n"
        ).encode()
    )
    head = b""
    while b"\r\n\r\n" not in head:
        chunk = sock.recv(4096)
        if not chunk:
            raise RuntimeError("no handshake answer")
        head += chunk
    if not head.startswith(b"HTTP/1.1 101"):
        raise RuntimeError("handshake refused: " + head.split(b"\r\n")[0].decode())
    return sock, head.split(b"\r\n\r\n", 1)[1]


def send_text(sock, text):
    payload = text.encode()
    mask = os.urandom(4)
    masked = bytes(b ^ mask[i % 4] for i, b in enumerate(payload))
    sock.sendall(bytes([0x81, 0x80 | len(payload)]) + mask + masked)


def read_orvel(sock, pending, clicks, results, counts, stop):
    finder = ClickFinder()
    seen = 0
    buffer = bytearray(pending)

    def need(n):
        while len(buffer) < n:
            try:
                chunk = sock.recv(65536)
            except OSError:  # closed by the main thread at the end
                return False
            if not chunk:
                return False
            buffer.extend(chunk)
        return True

    while not stop.is_set():
        if not need(2):
            return
        length = buffer[1] & 0x7F
        header = 2
        if length == 126:
            if not need(4):
                return
            length = struct.unpack(">H", buffer[2:4])[0]
            header = 4
        elif length == 127:
            if not need(10):
                return
            length = struct.unpack(">Q", buffer[2:10])[0]
            header = 10
        if not need(header + length):
            return
        opcode = buffer[0] & 0x0F
        payload = bytes(buffer[header : header + length])
        del buffer[: header + length]
        now = time.monotonic()
        if opcode == 8:
            return
        counts[len(payload)] = counts.get(len(payload), 0) + 1
        for _ in range(finder.feed(payload)):
            due = clicks.nth(seen)
            seen += 1
            if due is not None:
                results.append(now - due)


def port_free(port):
    probe = socket.socket()
    probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        probe.bind(("127.0.0.1", port))
        return True
    except OSError:
        return False
    finally:
        probe.close()


def main():
    here = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--orvel", default=os.path.join(here, "build", "orvel"))
    parser.add_argument("--seconds", type=float, default=40.0)
    parser.add_argument("--server", choices=("pulseaudio", "pipewire"), default="pulseaudio")
    parser.add_argument("--pages", type=int, default=1)
    args = parser.parse_args()
    if args.pages < 1:
        sys.exit("latency: --pages takes a count of at least 1")
    if not os.access(args.orvel, os.X_OK):
        sys.exit(f"latency: {args.orvel} is not built")
    if not port_free(8505):
        sys.exit("latency: something listens on 127.0.0.1:8505; stop it first")

    folder = tempfile.mkdtemp(prefix="orvel-latency-")
    other_pages = os.path.join(folder, "ws_bench_client")
    if args.pages > 1:
        subprocess.run(["g++", "-std=c++20", "-O2", "-o", other_pages,
                        os.path.join(here, "bench", "tools", "ws_bench_client.cpp")], check=True)
    runtime = os.path.join(folder, "runtime")
    os.mkdir(runtime, 0o700)
    env = {k: v for k, v in os.environ.items() if not k.startswith("PULSE_") and k not in ("DISPLAY", "WAYLAND_DISPLAY")}
    env["XDG_RUNTIME_DIR"] = runtime
    env["XDG_CONFIG_HOME"] = os.path.join(folder, "config")
    children = []
    pulse_pid = None
    bus_pid = None
    servers = []
    stop = threading.Event()
    go = threading.Event()
    player_stop = threading.Event()
    try:
        if args.server == "pulseaudio":
            subprocess.run(
                ["pulseaudio", "--daemonize=yes", "--exit-idle-time=-1", "-n", "--load=module-native-protocol-unix",
                 "--load=module-null-sink sink_name=latency sink_properties=device.description=Latency",
                 f"--log-target=file:{folder}/pulseaudio.log"],
                env=env, check=True)
            with open(os.path.join(runtime, "pulse", "pid")) as f:
                pulse_pid = int(f.read())
        else:
            env["HOME"] = folder
            bus = subprocess.run(["dbus-daemon", "--session", "--fork", "--print-pid=1",
                                  f"--address=unix:path={folder}/bus"], env=env, check=True, capture_output=True, text=True)
            bus_pid = int(bus.stdout.split()[0])
            env["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={folder}/bus"
            for program in ("pipewire", "wireplumber", "pipewire-pulse"):
                log = open(os.path.join(folder, program + ".log"), "w")
                servers.append(subprocess.Popen([program], env=env, stdout=log, stderr=log))
                deadline = time.monotonic() + 30
                while program == "pipewire" and not os.path.exists(os.path.join(runtime, "pipewire-0")):
                    if time.monotonic() > deadline:
                        raise RuntimeError("pipewire did not start")
                    time.sleep(0.05)
            deadline = time.monotonic() + 30
            while subprocess.run(["pactl", "info"], env=env, capture_output=True).returncode != 0:
                if time.monotonic() > deadline:
                    raise RuntimeError("pipewire-pulse did not answer")
                time.sleep(0.1)
            subprocess.run(["pactl", "load-module", "module-null-sink", "sink_name=latency"], env=env, check=True,
                           capture_output=True)
            while subprocess.run(["pactl", "set-default-sink", "latency"], env=env, capture_output=True).returncode != 0:
                if time.monotonic() > deadline:
                    raise RuntimeError("the session manager did not take the default sink")
                time.sleep(0.1)

        # An idle null sink renders in 2 s bursts; a silent stream of its own keeps it rendering
        # in small steps, as a real sound card does.
        children.append(subprocess.Popen(
            ["pacat", "--playback", "--raw", "--format=s16le", f"--rate={RATE}", "--channels=2",
             "--latency-msec=20", "/dev/zero"], env=env))
        time.sleep(2.5)  # until the sink has left its idle 2 s cycle (2 s was seen not to be enough once)
        pacat = subprocess.Popen(
            ["pacat", "--playback", "--raw", "--format=s16le", f"--rate={RATE}", "--channels=1", "--latency-msec=50"],
            stdin=subprocess.PIPE, env=env)
        children.append(pacat)
        # A small pipe bounds how far ahead of the sink the writer runs (16 KiB: 85 ms).
        fcntl.fcntl(pacat.stdin.fileno(), F_SETPIPE_SZ, 16384)
        clicks = Clicks()
        start = time.monotonic()
        player = threading.Thread(target=play, args=(pacat, clicks, player_stop, go, start), daemon=True)
        player.start()

        orvel = subprocess.Popen([args.orvel], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        children.append(orvel)
        deadline = time.monotonic() + 30
        while True:
            try:
                sock, pending = websocket(8505, "http://localhost")
                break
            except (ConnectionRefusedError, OSError):
                if time.monotonic() > deadline or orvel.poll() is not None:
                    raise RuntimeError("orvel did not start serving")
                time.sleep(0.05)
        send_text(sock, '{"type": "loopback", "sample_rate": 48000}')
        others = None
        if args.pages > 1:
            # They read until the clicks' last message is in (5 s to connect, the clicks, 3 s after).
            others = subprocess.Popen(
                [other_pages, "scale", "8505", str(args.pages - 1), str(args.seconds + 8), str(orvel.pid),
                 '{"type": "loopback", "sample_rate": 48000}'], stdout=subprocess.PIPE, text=True)
            children.append(others)
            time.sleep(5)

        parec = subprocess.Popen(
            ["parec", "-d", "latency.monitor", "--raw", "--format=s16le", f"--rate={RATE}", "--channels=1",
             "--latency-msec=10"],
            stdout=subprocess.PIPE, env=env)
        children.append(parec)

        ours, reference, counts = [], [], {}
        readers = [
            threading.Thread(target=read_orvel, args=(sock, pending, clicks, ours, counts, stop), daemon=True),
            threading.Thread(target=read_parec, args=(parec, clicks, reference, stop), daemon=True),
        ]
        for reader in readers:
            reader.start()
        # Clicks start once both paths deliver audio, so the n-th click found is the n-th played.
        deadline = time.monotonic() + 30
        while (not counts or not parec_started.is_set()) and time.monotonic() < deadline:
            time.sleep(0.05)
        go.set()
        time.sleep(args.seconds)
        go.clear()
        player_stop.set()
        player.join()
        time.sleep(3.0)  # the last clicks are still on their way
        stop.set()
        sock.close()

        load = os.getloadavg()[0]
        print(f"server {args.server}; pages {args.pages}; clicks played {len(clicks.due)}; found by orvel {len(ours)}, by parec {len(reference)}; "
              f"message sizes {counts}; load average {load:.1f}")
        if others:
            print("other pages:", others.communicate(timeout=120)[0].strip())
        for name, values in (("orvel (WebSocket message)", ours), ("parec (reference)", reference)):
            ms = [v * 1000 for v in values]
            if ms:
                print(f"{name:28s} p50 {percentile(ms, 50):6.1f} ms  p99 {percentile(ms, 99):6.1f} ms  "
                      f"min {min(ms):6.1f}  max {max(ms):6.1f}")
        paired = [(a - b) * 1000 for a, b in zip(ours, reference)]
        if paired:
            print(f"{'orvel - parec, per click':28s} p50 {percentile(paired, 50):6.1f} ms  p99 {percentile(paired, 99):6.1f} ms  "
                  f"min {min(paired):6.1f}  max {max(paired):6.1f}")
        if ours and reference:
            print(f"orvel - parec: p50 {percentile([v * 1000 for v in ours], 50) - percentile([v * 1000 for v in reference], 50):.1f} ms; "
                  f"goal orvel p50 <= 130 ms, p99 <= 160 ms")
    finally:
        stop.set()
        for child in reversed(children):
            if child.poll() is None:
                child.send_signal(signal.SIGTERM)
                try:
                    child.wait(10)
                except subprocess.TimeoutExpired:
                    child.kill()
                    child.wait()
        player_stop.set()
        for server in reversed(servers):
            server.terminate()
            server.wait()
        for pid in (pulse_pid, bus_pid):
            if pid:
                try:
                    os.kill(pid, signal.SIGTERM)
                except ProcessLookupError:
                    pass
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
