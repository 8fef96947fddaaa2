"""Runs the installed orvel as the calling user in a private desktop (Xvfb, a session bus, the
tests' StatusNotifierWatcher) with a private PulseAudio: the tray icon comes from the installed
theme and its menu is right, /version answers, a page streams 16 kHz audio, the login item names
/usr/bin/orvel. Every process it starts is stopped by its PID."""
import base64
import json
import os
import socket
import subprocess
import sys
import time

e2e = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e")
home = os.environ["HOME"]
runtime = os.path.join(home, "runtime")
os.makedirs(runtime, mode=0o700, exist_ok=True)
children = []


def child(command, **options):
    process = subprocess.Popen(command, **options)
    children.append(process)
    return process


xvfb = child(["Xvfb", "-displayfd", "1", "-screen", "0", "800x600x24", "-nolisten", "tcp"], stdout=subprocess.PIPE, text=True)
display = ":" + xvfb.stdout.readline().strip()
bus = child(["dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=unix:path=" + os.path.join(runtime, "bus"),
             "--print-address=1"], stdout=subprocess.PIPE, text=True)
env = dict(os.environ, XDG_RUNTIME_DIR=runtime, XDG_CONFIG_HOME=os.path.join(home, "config"), DISPLAY=display,
           GDK_BACKEND="x11", NO_AT_BRIDGE="1", DBUS_SESSION_BUS_ADDRESS=bus.stdout.readline().strip())
watcher = child(["/usr/bin/python3", "-u", os.path.join(e2e, "sni_watcher.py")], env=env, stdout=subprocess.PIPE, text=True)
assert watcher.stdout.readline().strip() == "READY", "the StatusNotifierWatcher did not start"
subprocess.run(["pulseaudio", "--daemonize=yes", "--exit-idle-time=-1", "-n",
                "--load=module-native-protocol-unix", "--load=module-null-sink sink_name=check",
                "--log-target=file:" + os.path.join(home, "pulseaudio.log")], env=env, check=True)
pulse = int(open(os.path.join(runtime, "pulse", "pid")).read())
orvel = child(["/usr/bin/orvel"], env=env, stderr=open(os.path.join(home, "orvel.log"), "w"))


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
    registered = watcher.stdout.readline().split()
    assert registered[:1] == ["REGISTERED"], "no tray item registered"
    shown = subprocess.run(["/usr/bin/python3", os.path.join(e2e, "dbusmenu.py"), "show"] + registered[1:3], env=env,
                           capture_output=True, text=True, check=True).stdout
    lines = [line.split("\t") for line in shown.splitlines()]
    properties = {fields[1]: fields[2] for fields in lines if fields[0] == "property"}
    labels = [fields[3] for fields in lines if fields[0] == "entry"]
    assert properties["IconName"] == "com.tamrix.orvel-symbolic", properties
    assert properties["IconThemePath"] == "", "the icon should come from the installed theme: %s" % properties
    assert labels == ["Tamrix Orvel (v%s)" % os.environ["ORVEL_VERSION"], "", "Quit"], labels
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
    for process in reversed(children):
        process.terminate()
        process.wait(10)
    os.kill(pulse, 15)
print("install-check: the tray showed the theme's icon and the menu, /version answered, a page streamed, "
      "the login item names /usr/bin/orvel")
