#!/usr/bin/python3
"""Cost of the Python runtime-application probe per request.

A small, typical WSGI application (a product page: one SQL query on sqlite3,
one template file read from disk, the template rendered with the rows) is
served on loopback by a real WSGI server, by two processes at once: one
without the probe and one with it (loaded by PYTHONPATH, its telemetry read
by a stand-in agent socket). Short rounds of the two run back to back, in
alternating order, so that the machine's other load falls on both alike;
each round gives a pair of medians and a pair of CPU costs, and the median
of the rounds' ratios is the figure least disturbed by that load.

Server CPU is the server process's own run time (all its threads, the
probe's sender included) from /proc/PID/task/*/schedstat, in nanoseconds.

--control runs both servers without the probe: its "overhead" is the noise
floor of the machine at that moment.

--instructions counts instead the instructions each server executes per
request, under valgrind (cachegrind): the servers are run for two numbers
of requests and the difference taken, so start-up and shut-down cancel out.
The count does not depend on the machine's load at all.

usage: probe_bench.py [--requests N] [--rounds R] [--server wsgiref|waitress]
                      [--repeat-seconds S] [--control] [--instructions]
"""
import argparse
import http.client
import os
import re
import shutil
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
import html, os, sqlite3, string, sys
from urllib.parse import parse_qs

DIR = os.environ["APP_DIR"]
db = sqlite3.connect(os.path.join(DIR, "shop.db"), check_same_thread=False)
db.executescript("""
create table if not exists product (id integer primary key, name text, price integer);
create table if not exists review (product integer, author text, stars integer, body text);
create index if not exists review_product on review (product);
""")
if not db.execute("select count(*) from product").fetchone()[0]:
    db.executemany("insert into product values (?, ?, ?)", [(i, "product %d" % i, 100 + i) for i in range(500)])
    db.executemany("insert into review values (?, ?, ?, ?)",
                   [(i % 500, "author %d" % i, i % 5 + 1, "review <%d> of product %d" % (i, i % 500))
                    for i in range(5000)])
    db.commit()
TEMPLATE = os.path.join(DIR, "product.html")
with open(TEMPLATE, "w") as f:
    f.write("<!doctype html><html><head><title>$name</title></head><body>"
            "<h1>$name</h1><p>Price: $price</p><ul>$reviews</ul></body></html>\n")
QUERY = ("select p.name, p.price, r.author, r.stars, r.body from product p "
         "left join review r on r.product = p.id where p.id = ? limit 10")


def application(environ, start_response):
    query = parse_qs(environ.get("QUERY_STRING", ""))
    product = int(query.get("id", ["1"])[0]) % 500
    rows = db.execute(QUERY, (product,)).fetchall()
    with open(TEMPLATE) as f:
        page = string.Template(f.read())
    reviews = "".join("<li>%s (%d stars): %s</li>" % (html.escape(r[2]), r[3], html.escape(r[4])) for r in rows)
    body = page.substitute(name=html.escape(rows[0][0]), price=rows[0][1], reviews=reviews).encode()
    start_response("200 OK", [("Content-Type", "text/html; charset=utf-8"), ("Content-Length", str(len(body)))])
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
    def __init__(self, kind, work, probe, sink_path, repeat_seconds, wrapper=(), app_dir=None):
        self.port = free_port()
        app_dir = app_dir or tempfile.mkdtemp(prefix="app-", dir=work)
        env = dict(os.environ, APP_DIR=app_dir, PYTHONDONTWRITEBYTECODE="1")
        if wrapper:
            env["PYTHONHASHSEED"] = "0"  # the same dictionaries' collisions in every run
        env.pop("PYTHONPATH", None)
        if probe:
            env.update(PYTHONPATH=AUTOSTART, WL_PROBE_SOCKET=sink_path, WL_PROBE_REPEAT_SECONDS=str(repeat_seconds))
        else:
            env["WL_PROBE"] = "0"
        command = {"wsgiref": [PYTHON, os.path.join(work, "bench_app.py"), str(self.port)],
                   "waitress": [PYTHON, "-m", "waitress", "--threads=1", "--listen=127.0.0.1:%d" % self.port,
                                "bench_app:application"]}[kind]
        self.process = subprocess.Popen(list(wrapper) + command, cwd=work, env=env, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + (300 if wrapper else 30)
        while True:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
                return
            except OSError:
                if self.process.poll() is not None or time.monotonic() > deadline:
                    raise SystemExit("server did not start: %s" % " ".join(command))
                time.sleep(0.05)

    def cpu_ns(self):
        total = 0
        task_dir = "/proc/%d/task" % self.process.pid
        for task in os.listdir(task_dir):
            try:
                with open(os.path.join(task_dir, task, "schedstat")) as f:
                    total += int(f.read().split()[0])
            except (FileNotFoundError, ProcessLookupError):
                pass  # a thread that ended meanwhile: the servers here keep theirs
        return total

    def stop(self):
        self.process.terminate()
        self.process.wait()


def measure(server, requests, offset):
    latencies = []
    for i in range(requests):
        started = time.perf_counter()
        connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=30)
        connection.request("GET", "/product?id=%d" % (offset + i), headers={"User-Agent": "bench"})
        response = connection.getresponse()
        body = response.read()
        connection.close()
        latencies.append(time.perf_counter() - started)
        if response.status != 200 or b"stars" not in body:
            raise SystemExit("bad answer: status %d" % response.status)
    return latencies


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def count_instructions(args, work, sink_path):
    """Instructions per request of each server, from two runs under cachegrind."""
    valgrind = shutil.which("valgrind")
    if valgrind is None:
        raise SystemExit("--instructions needs valgrind")
    few, many = 100, 100 + args.requests
    per_request = {}
    for probe in (False, True):
        app_dir = tempfile.mkdtemp(prefix="app-", dir=work)
        # The database is made now, so that both runs start alike.
        subprocess.run([PYTHON, "-c", "import bench_app"], cwd=work, check=True,
                       env=dict(os.environ, APP_DIR=app_dir, WL_PROBE="0", PYTHONDONTWRITEBYTECODE="1"))
        totals = []
        for requests in (few, many):
            log = os.path.join(work, "cachegrind-%d-%d.log" % (probe, requests))
            wrapper = (valgrind, "--tool=cachegrind", "--cache-sim=no", "--cachegrind-out-file=/dev/null",
                       "--log-file=" + log)
            server = Server(args.server, work, probe and not args.control, sink_path, args.repeat_seconds,
                            wrapper, app_dir)
            try:
                measure(server, requests, 0)
            finally:
                server.stop()
            with open(log) as f:
                match = re.search(r"I\s+refs:\s+([\d,]+)", f.read())
            if match is None:
                raise SystemExit("no instruction count in " + log)
            totals.append(int(match.group(1).replace(",", "")))
        per_request[probe] = (totals[1] - totals[0]) / (many - few)
    return per_request


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--requests", type=int,
                        help="requests per mode, 4000 (with --instructions: the difference between the two "
                             "runs, 1000)")
    parser.add_argument("--rounds", type=int, default=40)
    parser.add_argument("--server", default="wsgiref", choices=("wsgiref", "waitress"))
    parser.add_argument("--repeat-seconds", type=int, default=60,
                        help="the probe's WL_PROBE_REPEAT_SECONDS (0: every action is sent)")
    parser.add_argument("--control", action="store_true", help="both servers without the probe")
    parser.add_argument("--instructions", action="store_true", help="count instructions under valgrind")
    args = parser.parse_args()
    if args.requests is None:
        args.requests = 1000 if args.instructions else 4000
    if args.requests < 1 or args.rounds < 1:
        parser.error("--requests and --rounds must be positive")
    if args.instructions and args.server != "wsgiref":
        # waitress's threads wake on timers: what they run depends on how long the run takes.
        parser.error("--instructions counts wsgiref only")
    if args.server == "waitress" and subprocess.run([PYTHON, "-c", "import waitress"],
                                                    capture_output=True).returncode != 0:
        raise SystemExit("waitress is not installed for " + PYTHON)
    work = tempfile.mkdtemp(prefix="wl-probe-bench-")
    try:
        with open(os.path.join(work, "bench_app.py"), "w") as f:
            f.write(APP)
        sink_path = os.path.join(work, "telemetry.sock")
        sink = Sink(sink_path)
        names = ("server A", "server B") if args.control else ("without probe", "with probe")
        if args.control:
            print("CONTROL: neither server has the probe; the overhead below is the machine's noise")
        if args.instructions:
            per_request = count_instructions(args, work, sink_path)
            print("%s, instructions per request (cachegrind, %d requests' difference), probe "
                  "WL_PROBE_REPEAT_SECONDS=%d, telemetry lines read: %d"
                  % (args.server, args.requests, args.repeat_seconds, sink.lines))
            for probe, name in zip((False, True), names):
                print("%-14s %10.0f instructions/request" % (name, per_request[probe]))
            print("overhead: %+.1f%% (%+.0f instructions/request)"
                  % ((per_request[True] / per_request[False] - 1) * 100, per_request[True] - per_request[False]))
            return 0
        run_rounds(args, work, sink, names)
        return 0
    finally:
        shutil.rmtree(work, ignore_errors=True)


def run_rounds(args, work, sink, names):
    sink_path = os.path.join(work, "telemetry.sock")
    results = {False: [], True: []}
    cpu = {False: 0, True: 0}
    latency_ratios, cpu_ratios = [], []
    per_round = max(1, args.requests // args.rounds)
    servers = {}
    try:
        for probe in (False, True):
            servers[probe] = Server(args.server, work, probe and not args.control, sink_path, args.repeat_seconds)
        for server in servers.values():
            measure(server, 200, 0)  # warm up: caches, the probe's first (sent) actions
        for round_number in range(args.rounds):
            order = (False, True) if round_number % 2 == 0 else (True, False)
            medians, costs = {}, {}
            for probe in order:
                before = servers[probe].cpu_ns()
                latencies = measure(servers[probe], per_round, round_number * per_round)
                costs[probe] = servers[probe].cpu_ns() - before
                cpu[probe] += costs[probe]
                results[probe] += latencies
                medians[probe] = statistics.median(latencies)
            latency_ratios.append(medians[True] / medians[False])
            cpu_ratios.append(costs[True] / costs[False])
    finally:
        for server in servers.values():
            server.stop()
    print("%s, %d rounds of %d requests per mode, probe WL_PROBE_REPEAT_SECONDS=%d, telemetry lines read: %d"
          % (args.server, args.rounds, per_round, args.repeat_seconds, sink.lines))
    row = "%-14s median %7.1f us   p99 %7.1f us   server CPU %6.1f us/request"
    medians, p99s, cpus = {}, {}, {}
    for probe, name in zip((False, True), names):
        medians[probe] = statistics.median(results[probe]) * 1e6
        p99s[probe] = percentile(results[probe], 0.99) * 1e6
        cpus[probe] = cpu[probe] / len(results[probe]) / 1e3
        print(row % (name, medians[probe], p99s[probe], cpus[probe]))
    print("overhead, pooled:            median latency %+.1f%%, p99 %+.1f%%, server CPU %+.1f%% (%+.1f us)"
          % ((medians[True] / medians[False] - 1) * 100, (p99s[True] / p99s[False] - 1) * 100,
             (cpus[True] / cpus[False] - 1) * 100, cpus[True] - cpus[False]))

    def spread(ratios):
        low, middle, high = statistics.quantiles(ratios, n=4) if len(ratios) > 1 else ratios * 3
        return "%+.1f%% (quartiles %+.1f%% .. %+.1f%%)" % ((middle - 1) * 100, (low - 1) * 100, (high - 1) * 100)
    print("overhead, median of rounds:  median latency %s, server CPU %s" % (spread(latency_ratios), spread(cpu_ratios)))
    print("load average %.1f" % os.getloadavg()[0])


if __name__ == "__main__":
    sys.exit(main())
