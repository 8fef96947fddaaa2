"""Runs the installed orvel as the calling user with a private PulseAudio: /version answers,
a page streams 16 kHz audio, the login item names /usr/bin/orvel. Every process it starts is
stopped by its PID."""
import base64
import json
import os
import socket
import subprocess
import sys
import time

home = os.environ["HOME"]
runtime = os.path.join(home, "runtime")
os.makedirs(runtime, mode=0o700, exist_ok=True)
env = dict(os.environ, XDG_RUNTIME_DIR=runtime, XDG_CONFIG_HOME=os.path.join(home, "config"))
subprocess.run(["pulseaudio", "--daemonize=yes", "--exit-idle-time=-1", "-n",
                "--load=module-native-protocol-unix", "--load=module-null-sink sink_name=check",
                "--log-target=file:" + os.path.join(home, "pulseaudio.log")], env=env, check=True)
pulse = int(open(os.path.join(runtime, "pulse", "pid")).read())
orvel = subprocess.Popen(["/usr/bin/orvel"], env=env, stderr=open(os.path.join(home, "orvel.log"), "w"))


def connect():
    for _ in range(100):
        try:
            return socket.create_connection(("127.0.0.1", 8505), 1)
        except OSError:
            time.sleep(0.05)
    raise SystemExit("install-check: orvel never listened")


def head(sock):
    data = b""
    while b"\r\n\r\n" not in data:
        byte = sock.recv(1)
        if not byte:
            raise SystemExit("install-check: connection closed inside a response head")
        data += byte
    return data.decode()


try:
    with connect() as sock:
        sock.settimeout(10)
        sock.sendall(b"GET /version HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
        assert head(sock).startswith("HTTP/1.1 200 OK"), "version route"
    with connect() as sock:
        sock.settimeout(20)
        key = base64.b64encode(os.urandom(16)).decode()
        sock.sendall(("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: http://localhost\r\nUpgrade: websocket\r\n"
                      "Connection: Upgrade\r\nSec-WebSocket-Key: %s\r\nSec-WebSocket-Version: 13\r\n\r\n" % key).encode())
        assert head(sock).startswith("HTTP/1.1 101 "), "upgrade"
        payload = json.dumps({"type": "loopback", "sample_rate": 16000}).encode()
        mask = os.urandom(4)
        sock.sendall(bytes([0x81, 0x80 | len(payload)]) + mask + bytes(b ^ mask[i % 4] for i, b in enumerate(payload)))
        received = 0
        while received < 3 * (3200 + 4):  # three 100 ms messages with their frame heads
            chunk = sock.recv(65536)
            if not chunk:
                raise SystemExit("install-check: the stream ended early")
            received += len(chunk)
    entry = open(os.path.join(home, "config", "autostart", "com.tamrix.orvel.desktop")).read()
    assert 'Exec="/usr/bin/orvel"' in entry, entry
finally:
    orvel.terminate()
    orvel.wait(10)
    os.kill(pulse, 15)
print("install-check: /version answered, a page streamed, the login item names /usr/bin/orvel")
