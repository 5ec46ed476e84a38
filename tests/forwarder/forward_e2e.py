"""wl-forward end to end: reports and an origin-log file spooled by the
agent's own code reach a file, a syslog socket, an HTTP server and a
JetStream stream (nats-server), with HTTP and NATS down at first, back later,
HTTP down again and the forwarder killed: every report arrives, duplicates
only as at-least-once allows."""
import base64
import http.server
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

SKIP = 77
FORWARD, FEED = sys.argv[1], sys.argv[2]
NATS_SERVER = shutil.which("nats-server") or "/usr/bin/nats-server"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(what, check, timeout=60):
    deadline = time.time() + timeout
    while time.time() < deadline:
        result = check()
        if result:
            return result
        time.sleep(0.1)
    raise AssertionError(f"timed out waiting for {what}")


class Receiver(http.server.ThreadingHTTPServer):
    allow_reuse_address = True
    daemon_threads = True


class HttpSink:
    """A real HTTP server on loopback that records what is POSTed to it."""

    def __init__(self, port):
        self.port = port
        self.reports = []  # every line of every batch, duplicates included
        self.files = {}
        self.lock = threading.Lock()
        self.server = None

    def start(self):
        sink = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                body = self.rfile.read(int(self.headers["Content-Length"]))
                with sink.lock:
                    if self.headers["Content-Type"] == "application/x-ndjson":
                        sink.reports += [json.loads(l) for l in body.decode().splitlines()]
                    else:
                        sink.files[self.headers["X-WL-Upload-Name"]] = (self.headers["X-WL-Upload-Kind"], body)
                self.send_response(200)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *args):
                pass

        self.server = Receiver(("127.0.0.1", self.port), Handler)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def stop(self):
        self.server.shutdown()
        self.server.server_close()

    def seqs(self):
        with self.lock:
            return [int(r["seq_id"]) for r in self.reports]


class SyslogSocket:
    def __init__(self, path):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(path)
        self.messages = []
        threading.Thread(target=self.loop, daemon=True).start()

    def loop(self):
        while True:
            self.messages.append(self.sock.recv(1 << 20))

    def seqs(self):
        out = []
        for m in list(self.messages):
            head, _, body = m.partition(b"\xef\xbb\xbf")
            assert re.match(rb"<13[23]>1 \d{4}-\d\d-\d\dT[\d:.]+Z \S+ wl-agent \d+ \w+ \[wl@32473 ", head), head
            out.append(int(json.loads(body)["seq_id"]))
        return out


class Nats:
    """nats-server with JetStream, and just enough of the client protocol to
    read the stream back."""

    def __init__(self, port, store):
        self.port, self.store, self.process = port, store, None

    def start(self):
        self.process = subprocess.Popen([NATS_SERVER, "-js", "-a", "127.0.0.1", "-p", str(self.port), "-sd", self.store],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for("nats-server", self.listening, 30)

    def listening(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 0.5).close()
            return True
        except OSError:
            return False

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(20)

    def request(self, subject, payload):
        with socket.create_connection(("127.0.0.1", self.port), 5) as s:
            f = s.makefile("rb")
            f.readline()  # INFO
            s.sendall(b'CONNECT {"verbose":false,"headers":true,"no_responders":true}\r\nSUB _INBOX.e2e 1\r\n' +
                      f"PUB {subject} _INBOX.e2e {len(payload)}\r\n".encode() + payload + b"\r\n")
            while True:
                line = f.readline().rstrip(b"\r\n")
                if line == b"PING":
                    s.sendall(b"PONG\r\n")
                elif line.startswith(b"MSG") or line.startswith(b"HMSG"):
                    size = int(line.split()[-1])
                    data = f.read(size + 2)[:size]
                    if line.startswith(b"HMSG"):
                        data = data[int(line.split()[-2]):]
                    return json.loads(data)

    def messages(self):
        info = self.request("$JS.API.STREAM.INFO.WL_E2E", b"")
        if "error" in info:
            return []
        out = []
        state = info["state"]
        for seq in range(state["first_seq"], state["last_seq"] + 1):
            m = self.request("$JS.API.STREAM.MSG.GET.WL_E2E", json.dumps({"seq": seq}).encode())["message"]
            out.append((m["subject"], base64.b64decode(m.get("data", ""))))
        return out


def status(root):
    try:
        with open(f"{root}/var/spool/forward_status.json") as f:
            return json.load(f)
    except (OSError, ValueError):
        return None


def main():
    if not os.path.exists(NATS_SERVER):
        print("SKIP: nats-server is not installed (scripts/setup installs it)")
        return SKIP
    root = tempfile.mkdtemp(prefix="wl-fwd-e2e-")
    http_port, nats_port = free_port(), free_port()
    config = f"{root}/agent.conf"
    with open(config, "w") as f:
        f.write(f"""[spool]
max_file_bytes = 16384
max_total_bytes = 1048576
[syslog]
enabled = true
socket = {root}/syslog.sock
[http]
enabled = true
url = http://127.0.0.1:{http_port}/reports
batch_size = 40
timeout_ms = 2000
retry_initial_ms = 100
retry_max_ms = 400
[nats]
enabled = true
url = nats://127.0.0.1:{nats_port}
subject_prefix = wl.e2e
stream = WL_E2E
timeout_ms = 2000
retry_initial_ms = 100
retry_max_ms = 400
""")
    http_sink = HttpSink(http_port)
    syslog = SyslogSocket(f"{root}/syslog.sock")
    nats = Nats(nats_port, f"{root}/nats")
    forward = None
    origin = f"{root}/origin-20240101.json"
    with open(origin, "w") as f:
        f.write('[{"message":"x"}]')

    def feed(first, count, *extra):
        subprocess.run([FEED, root, config, str(first), str(count), *extra], check=True, stdout=subprocess.DEVNULL)

    def start_forward():
        log = open(f"{root}/forward.log", "a")
        return subprocess.Popen([FORWARD, "--root", root, "--config", config], stdout=log, stderr=subprocess.STDOUT)

    def file_seqs():
        try:
            with open(f"{root}/var/log/agent/manager/reports.jsonl") as f:
                return [int(json.loads(l)["seq_id"]) for l in f]
        except OSError:
            return []

    def nats_seqs():
        return [int(json.loads(d)["seq_id"]) for s, d in nats.messages() if ".upload." not in s]

    try:
        # HTTP and NATS are down: the file and syslog sinks go on regardless.
        feed(0, 150, "3", origin)
        forward = start_forward()
        wait_for("file and syslog sinks", lambda: len(set(file_seqs())) == 150 and len(set(syslog.seqs())) == 150)
        st = wait_for("status of the sinks that are down",
                      lambda: (lambda s: s if s and s["sinks"]["http"]["failed"] > 0 and
                               s["sinks"]["nats"]["failed"] > 0 else None)(status(root)))
        for name in ("http", "nats"):
            sink = st["sinks"][name]
            assert sink["enabled"] and not sink["up"] and sink["backlog_bytes"] > 0 and sink["last_error"], sink
        assert st["sinks"]["file"]["up"] and st["sinks"]["file"]["sent"] == 150, st
        assert set(st) >= {"pid", "sinks", "spool"} and set(st["spool"]) >= {"bytes", "dropped"}, st

        # Both come back, while more reports arrive.
        http_sink.start()
        nats.start()
        feed(150, 150)
        expected = set(range(300))
        wait_for("HTTP to catch up", lambda: set(http_sink.seqs()) == expected)
        wait_for("NATS to catch up", lambda: set(nats_seqs()) == expected)

        # HTTP down again, and the forwarder killed without warning.
        http_sink.stop()
        feed(300, 100)
        time.sleep(1)
        forward.kill()
        forward.wait()
        http_sink.start()
        forward = start_forward()
        expected = set(range(400))
        wait_for("every sink to have every report", lambda: set(http_sink.seqs()) == expected and
                 set(nats_seqs()) == expected and set(file_seqs()) == expected and set(syslog.seqs()) == expected)

        # At least once: what repeats is only what was in flight at the kill.
        for name, seqs in (("http", http_sink.seqs()), ("file", file_seqs()), ("syslog", syslog.seqs())):
            extra = len(seqs) - len(set(seqs))
            assert extra <= 100, f"{name}: {extra} duplicates"
        # JetStream's duplicate window drops a resent message id.
        assert len(nats_seqs()) == 400, len(nats_seqs())

        # The origin-log file went to the file, HTTP and NATS sinks.
        with open(f"{root}/var/log/agent/manager/uploads/kind3/origin-20240101.json") as f:
            assert f.read() == '[{"message":"x"}]'
        assert http_sink.files["origin-20240101.json"] == ("3", b'[{"message":"x"}]'), http_sink.files
        uploads = [(s, d) for s, d in nats.messages() if ".upload." in s]
        assert uploads == [("wl.e2e.e2e-host.upload.kind3", b'[{"message":"x"}]')], uploads
        subjects = {s for s, _ in nats.messages()}
        assert {"wl.e2e.e2e-host.alarm", "wl.e2e.e2e-host.learn_status", "wl.e2e.e2e-host.rasp_alarm"} <= subjects

        st = wait_for("status after catching up",
                      lambda: (lambda s: s if s and all(s["sinks"][n]["backlog_bytes"] == 0 and s["sinks"][n]["up"]
                                                      for n in ("file", "syslog", "http", "nats")) else None)(status(root)))
        assert st["spool"]["dropped"] == 0, st
        print("forward_e2e: 400 reports and 1 file through file, syslog, http and nats")
        print("1 passed, 0 failed")
        return 0
    except Exception:
        try:
            with open(f"{root}/forward.log") as f:
                print("--- forward.log (tail)\n" + "".join(f.readlines()[-30:]))
        except OSError:
            pass
        raise
    finally:
        if forward:
            forward.send_signal(signal.SIGTERM)
            try:
                forward.wait(15)
            except subprocess.TimeoutExpired:
                forward.kill()
        if nats.process:
            nats.process.kill()
            nats.process.wait()
        if http_sink.server:
            try:
                http_sink.stop()
            except Exception:
                pass
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
