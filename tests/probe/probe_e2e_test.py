#!/usr/bin/python3
"""End to end: fixtures/web_app.py, an application that knows nothing of the
probe, served by real WSGI servers (wsgiref, and gunicorn and waitress where
installed) with the probe loaded by PYTHONPATH alone. A stand-in for the
agent's socket collects the telemetry; every kind of action must arrive with
its request: URL, method, parameters, client address and port.

Name look-ups go to /etc/hosts only ("localhost"); as root the servers also
run in a mount namespace whose resolv.conf names loopback, so that no query
can leave the host. Connections go to 127.0.0.1 only.

Exit 0 passed, 1 failed."""
import http.client
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import traceback
import urllib.parse

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from telemetry_sink import TelemetrySink, action_of, subject_of  # noqa: E402

PYTHON = "/usr/bin/python3"
AUTOSTART = os.path.join(os.path.dirname(os.path.dirname(HERE)), "probes", "python", "autostart")
FIXTURES = os.path.join(HERE, "fixtures")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def importable(module):
    return subprocess.run([PYTHON, "-c", "import " + module], capture_output=True).returncode == 0


def isolated_resolver(work):
    """A command prefix that runs in a mount namespace with a loopback resolver, if possible."""
    if os.geteuid() != 0 or shutil.which("unshare") is None:
        return None
    resolv = os.path.join(work, "resolv.conf")
    with open(resolv, "w") as f:
        f.write("nameserver 127.0.0.1\n")
    probe = subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-c",
                            "mount --bind %s /etc/resolv.conf" % resolv], capture_output=True)
    return resolv if probe.returncode == 0 else None


class Server:
    def __init__(self, kind, work, sink_path, resolv):
        self.kind = kind
        self.port = free_port()
        self.app_dir = tempfile.mkdtemp(prefix="app-", dir=work)
        commands = {
            "wsgiref": [PYTHON, os.path.join(FIXTURES, "web_app.py"), str(self.port)],
            "gunicorn": [PYTHON, "-m", "gunicorn", "--workers", "2", "--bind", "127.0.0.1:%d" % self.port,
                         "--chdir", FIXTURES, "--log-level", "warning", "web_app:application"],
            "waitress": [PYTHON, "-m", "waitress", "--listen=127.0.0.1:%d" % self.port, "web_app:application"],
        }
        command = commands[kind]
        if resolv is not None:
            script = "mount --bind %s /etc/resolv.conf && exec \"$@\"" % resolv
            command = ["unshare", "--mount", "--propagation", "private", "sh", "-c", script, "sh"] + command
        env = dict(os.environ, PYTHONPATH=AUTOSTART, WL_PROBE_SOCKET=sink_path, APP_DIR=self.app_dir,
                   RES_OPTIONS="timeout:1 attempts:1")
        env.pop("WL_PROBE", None)
        self.log = open(os.path.join(work, kind + ".log"), "w")
        self.process = subprocess.Popen(command, cwd=FIXTURES, env=env, stdout=self.log, stderr=subprocess.STDOUT,
                                        start_new_session=True)
        deadline = time.monotonic() + 30
        while True:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
                break
            except OSError:
                if time.monotonic() > deadline or self.process.poll() is not None:
                    raise AssertionError("%s did not start; see %s" % (kind, self.log.name))
                time.sleep(0.1)

    def request(self, method, path, query=None, form=None):
        """Sends one request; returns the client's port and the response body."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        connection.connect()
        client_port = connection.sock.getsockname()[1]
        target = path + ("?" + urllib.parse.urlencode(query) if query else "")
        body = urllib.parse.urlencode(form) if form else None
        headers = {"Content-Type": "application/x-www-form-urlencoded"} if form else {}
        connection.request(method, target, body=body, headers=headers)
        response = connection.getresponse()
        data = response.read()
        connection.close()
        if response.status != 200:
            raise AssertionError("%s %s: %d %r" % (method, target, response.status, data))
        return client_port, data

    def stop(self):
        try:
            os.killpg(self.process.pid, 15)
        except ProcessLookupError:
            pass
        try:
            self.process.wait(timeout=15)
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, 9)
            self.process.wait()
        self.log.close()


def check_server(kind, work, sink, resolv):
    start = sink.count()
    server = Server(kind, work, sink.path, resolv)
    target = socket.socket()
    target.bind(("127.0.0.1", 0))
    target.listen(8)
    target_port = target.getsockname()[1]
    try:
        base = "http://127.0.0.1:%d" % server.port
        # (method, path, query, form, expected actions as (action, subject))
        requests = [
            ("GET", "/search", {"name": "lamp"}, None,
             [("hsql", "select name from items where name = ?")]),
            ("POST", "/notes", {"draft": "no"}, {"id": "7", "text": "hello"},
             [("write", server.app_dir + "/note-7.txt"), ("read", server.app_dir + "/note-7.txt"),
              ("delete", server.app_dir + "/note-7.txt")]),
            ("GET", "/ping", {"port": str(target_port)}, None,
             [("address", {"hostName": "127.0.0.1", "url": "127.0.0.1", "port": target_port})]),
            ("GET", "/lookup", None, None, [("dns", "localhost")]),
            ("GET", "/run", None, None, [("execute", "/bin/echo hello")]),
            ("GET", "/background", None, None, [("read", server.app_dir + "/shop.db")]),
        ]
        sent = []
        for method, path, query, form, expected in requests:
            client_port, _ = server.request(method, path, query, form)
            sent.append((method, path, query, form, expected, client_port))

        startup = ("hsql", "create table if not exists items (name text)")

        def arrived(messages):
            return any((action_of(m), subject_of(m)) == startup for m in messages) and all(any((action_of(m), subject_of(m)) == want and m["data"].get("srcPort") == port
                           for m in messages)
                       for _, _, _, _, expected, port in sent for want in expected)
        messages = sink.wait_for(arrived, timeout=30, start=start)
        for method, path, query, form, expected, client_port in sent:
            url = base + path + ("?" + urllib.parse.urlencode(query) if query else "")
            params = {k: [v] for k, v in list((query or {}).items()) + list((form or {}).items())}
            for want in expected:
                (message,) = [m for m in messages
                              if (action_of(m), subject_of(m)) == want and m["data"].get("srcPort") == client_port]
                request = message["data"]
                got = (request["url"], request["method"], request["param"], request["ip"])
                assert got == (url, method, params, "127.0.0.1"), "%s %s: %r" % (kind, want, got)
                if form:
                    assert request["body"] == urllib.parse.urlencode(form), request["body"]
                assert message["pid"] != server.process.pid or kind != "gunicorn", "a gunicorn worker's pid"
        outside = [m for m in messages if (action_of(m), subject_of(m)) == startup]
        assert outside and all("url" not in m["data"] for m in outside), "start-up statement: %r" % outside[:1]
        pids = {m["pid"] for m in messages}
        if os.environ.get("WL_E2E_SHOW"):
            for m in messages:
                print("  ", m["pid"], action_of(m), subject_of(m), m["data"].get("url", "-"))
        print("%s: %d messages from %d process(es), every kind with its request" % (kind, len(messages), len(pids)))
    finally:
        target.close()
        server.stop()


def main():
    work = tempfile.mkdtemp(prefix="wl-probe-e2e-")
    sink = TelemetrySink(os.path.join(work, "telemetry.sock"))
    resolv = isolated_resolver(work)
    print("resolver:", "loopback in a mount namespace" if resolv else "/etc/hosts names only")
    passed = failed = skipped = 0
    try:
        for kind in ("wsgiref", "gunicorn", "waitress"):
            if kind != "wsgiref" and not importable(kind):
                print("%s: skipped, not installed (Debian package python3-%s)" % (kind, kind))
                skipped += 1
                continue
            try:
                check_server(kind, work, sink, resolv)
                passed += 1
            except Exception:
                failed += 1
                print("%s: FAILED" % kind)
                traceback.print_exc()
                log = os.path.join(work, kind + ".log")
                if os.path.exists(log):
                    print(open(log).read()[-3000:])
    finally:
        sink.close()
        if not failed:
            shutil.rmtree(work, ignore_errors=True)
    print("%d passed, %d failed, %d skipped" % (passed, failed, skipped))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
