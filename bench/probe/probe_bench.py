#!/usr/bin/python3
"""Cost of the Python runtime-application probe per request.

A small WSGI application (one SQL statement and one file read per request,
so every request gives the probe work) is served on loopback by a real WSGI
server, once without the probe and once with it (loaded by PYTHONPATH, its
telemetry read by a stand-in agent socket). Rounds of the two alternate so
that the machine's other load falls on both alike. Prints the median and
99th percentile latency of each and the overhead.

usage: probe_bench.py [--requests N] [--rounds R] [--server wsgiref|waitress]
                      [--repeat-seconds S]
"""
import argparse
import http.client
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
AUTOSTART = os.path.join(ROOT, "probes", "python", "autostart")
PYTHON = "/usr/bin/python3"

APP = r'''
import os, sqlite3, sys
DIR = os.environ["APP_DIR"]
db = sqlite3.connect(os.path.join(DIR, "b.db"), check_same_thread=False)
db.execute("create table if not exists t (k integer primary key, v text)")
db.executemany("insert or replace into t values (?, ?)", [(i, "v%d" % i) for i in range(100)])
db.commit()
PAGE = os.path.join(DIR, "page.html")
with open(PAGE, "w") as f:
    f.write("<p>hello</p>" * 50)

def application(environ, start_response):
    key = int(environ.get("QUERY_STRING", "k=1").split("=")[1]) % 100
    row = db.execute("select v from t where k = ?", (key,)).fetchone()
    with open(PAGE) as f:
        body = (f.read() + row[0]).encode()
    start_response("200 OK", [("Content-Type", "text/html"), ("Content-Length", str(len(body)))])
    return [body]

if __name__ == "__main__":
    from wsgiref.simple_server import make_server, WSGIRequestHandler
    WSGIRequestHandler.log_message = lambda *a: None
    make_server("127.0.0.1", int(sys.argv[1]), application).serve_forever()
'''


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Sink:
    """Reads and counts telemetry lines, as the agent would."""

    def __init__(self, path):
        self.lines = 0
        self.server = socket.socket(socket.AF_UNIX)
        self.server.bind(path)
        self.server.listen(8)
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                conn, _ = self.server.accept()
            except OSError:
                return
            threading.Thread(target=self.read, args=(conn,), daemon=True).start()

    def read(self, conn):
        with conn:
            while True:
                data = conn.recv(65536)
                if not data:
                    return
                self.lines += data.count(b"\n")


class Server:
    def __init__(self, kind, work, probe, sink_path, repeat_seconds):
        self.port = free_port()
        env = dict(os.environ, APP_DIR=work)
        env.pop("PYTHONPATH", None)
        if probe:
            env.update(PYTHONPATH=AUTOSTART, WL_PROBE_SOCKET=sink_path, WL_PROBE_REPEAT_SECONDS=str(repeat_seconds))
        else:
            env["WL_PROBE"] = "0"
        command = {"wsgiref": [PYTHON, os.path.join(work, "bench_app.py"), str(self.port)],
                   "waitress": [PYTHON, "-m", "waitress", "--threads=1", "--listen=127.0.0.1:%d" % self.port,
                                "bench_app:application"]}[kind]
        self.process = subprocess.Popen(command, cwd=work, env=env, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 30
        while True:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
                return
            except OSError:
                if time.monotonic() > deadline:
                    raise SystemExit("server did not start")
                time.sleep(0.05)

    def cpu_seconds(self):
        with open("/proc/%d/stat" % self.process.pid) as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self):
        self.process.terminate()
        self.process.wait()


def measure(server, requests, offset):
    latencies = []
    for i in range(requests):
        started = time.perf_counter()
        connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=30)
        connection.request("GET", "/page?k=%d" % (offset + i), headers={"User-Agent": "bench"})
        response = connection.getresponse()
        response.read()
        connection.close()
        latencies.append(time.perf_counter() - started)
        if response.status != 200:
            raise SystemExit("status %d" % response.status)
    return latencies


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--requests", type=int, default=2000, help="requests per mode")
    parser.add_argument("--rounds", type=int, default=4)
    parser.add_argument("--server", default="wsgiref", choices=("wsgiref", "waitress"))
    parser.add_argument("--repeat-seconds", type=int, default=60,
                        help="the probe's WL_PROBE_REPEAT_SECONDS (0: every action is sent)")
    args = parser.parse_args()
    work = tempfile.mkdtemp(prefix="wl-probe-bench-")
    with open(os.path.join(work, "bench_app.py"), "w") as f:
        f.write(APP)
    sink_path = os.path.join(work, "telemetry.sock")
    sink = Sink(sink_path)
    results = {False: [], True: []}
    cpu = {False: 0.0, True: 0.0}
    # Each round's two medians, measured back to back: a burst of other load
    # on the machine falls on one pair, not on the whole comparison.
    round_ratios = []
    per_round = max(1, args.requests // args.rounds)
    servers = {probe: Server(args.server, work, probe, sink_path, args.repeat_seconds) for probe in (False, True)}
    try:
        for server in servers.values():
            measure(server, 50, 0)  # warm up
        for round_number in range(args.rounds):
            order = (False, True) if round_number % 2 == 0 else (True, False)
            round_medians = {}
            for probe in order:
                before = servers[probe].cpu_seconds()
                latencies = measure(servers[probe], per_round, round_number * per_round)
                cpu[probe] += servers[probe].cpu_seconds() - before
                results[probe] += latencies
                round_medians[probe] = statistics.median(latencies)
            round_ratios.append(round_medians[True] / round_medians[False])
    finally:
        for server in servers.values():
            server.stop()
    print("%s, %d requests per mode, probe WL_PROBE_REPEAT_SECONDS=%d, telemetry lines read: %d"
          % (args.server, len(results[False]), args.repeat_seconds, sink.lines))
    row = "%-14s median %7.3f ms   p99 %7.3f ms   server CPU %6.1f us/request"
    medians, p99s, cpus = {}, {}, {}
    for probe, name in ((False, "without probe"), (True, "with probe")):
        medians[probe] = statistics.median(results[probe]) * 1000
        p99s[probe] = percentile(results[probe], 0.99) * 1000
        cpus[probe] = cpu[probe] / len(results[probe]) * 1e6
        print(row % (name, medians[probe], p99s[probe], cpus[probe]))
    print("overhead: median %+.1f%%, p99 %+.1f%%, server CPU %+.1f%%, median of the rounds' paired medians %+.1f%%"
          % ((medians[True] / medians[False] - 1) * 100, (p99s[True] / p99s[False] - 1) * 100,
             (cpus[True] / cpus[False] - 1) * 100, (statistics.median(round_ratios) - 1) * 100))


if __name__ == "__main__":
    sys.exit(main())
