#!/usr/bin/python3
"""Unit tests of the Python runtime-application probe (probes/python).

The probe runs in this process, writing to a test-owned stand-in for the
agent's telemetry socket. With --harness, every line it wrote is also run
through the module's own conversion (tests/probe/conversion_harness.cpp).

usage: probe_unit_test.py [--harness PATH] [unittest arguments]
"""
import asyncio
import concurrent.futures
import io
import json
import logging
import os
import shutil
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import wsgiref.util

HERE = os.path.dirname(os.path.abspath(__file__))
PROBE_DIR = os.path.join(os.path.dirname(os.path.dirname(HERE)), "probes", "python")
sys.path.insert(0, PROBE_DIR)
sys.path.insert(0, HERE)
os.environ["WL_PROBE"] = "0"  # each test class starts its own probe

import wl_probe  # noqa: E402
from wl_probe import _guard, _probe, _sender, _sql  # noqa: E402
from telemetry_sink import TelemetrySink, action_of, subject_of  # noqa: E402

HARNESS = None
ACTION_NUMBER = {"dns": 0, "address": 1, "execute": 2, "write": 3, "read": 4, "delete": 5, "hsql": 6,
                 "mysql": 7, "oracle": 8, "postgre": 9, "sqlserver": 10}
SUBJECT_FIELD = {"dns": "dns_name", "execute": "appCmd", "write": "file_path", "read": "file_path",
                 "delete": "file_path", "hsql": "sql_text", "mysql": "sql_text", "postgre": "sql_text"}
KIND = {"dns": "network", "address": "network", "execute": "process", "write": "file", "read": "file",
        "delete": "file", "hsql": "sql", "mysql": "sql", "postgre": "sql"}


def start_probe(socket_path, **settings):
    env = {"WL_PROBE": "1", "WL_PROBE_SOCKET": socket_path, "WL_PROBE_REPEAT_SECONDS": "0"}
    env.update({key: str(value) for key, value in settings.items()})
    wl_probe.stop()
    return wl_probe.start(wl_probe.Config(env))


def wait_until(what, check, timeout=10.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if check():
            return
        time.sleep(0.01)
    raise AssertionError("timed out waiting for " + what)


def make_environ(body=b"", query="id=7&id=8", path="/shop/buy", content_type="application/x-www-form-urlencoded"):
    environ = {}
    wsgiref.util.setup_testing_defaults(environ)
    environ.update({
        "REQUEST_METHOD": "POST", "PATH_INFO": path, "QUERY_STRING": query, "HTTP_HOST": "shop.test",
        "CONTENT_LENGTH": str(len(body)), "CONTENT_TYPE": content_type, "REMOTE_ADDR": "192.0.2.10",
        "REMOTE_PORT": "40001", "HTTP_AUTHORIZATION": "Bearer secret", "HTTP_X_TRACE": "t1",
        "wsgi.input": io.BytesIO(body)})
    return environ


def call_wsgi(app, environ):
    """Runs a WSGI application inside the probe's middleware, as a server would."""
    result = wl_probe.WSGIMiddleware(app)(environ, lambda status, headers, exc_info=None: None)
    try:
        return b"".join(result)
    finally:
        if hasattr(result, "close"):
            result.close()


class ProbeTest(unittest.TestCase):
    settings = {}

    @classmethod
    def setUpClass(cls):
        cls.dir = os.path.realpath(tempfile.mkdtemp(prefix="wl-probe-unit-"))
        cls.marks = 0
        cls.socket_path = os.path.join(cls.dir, "telemetry.sock")
        cls.sink = TelemetrySink(cls.socket_path)
        cls.probe = start_probe(cls.socket_path, **cls.settings)

    @classmethod
    def tearDownClass(cls):
        wl_probe.stop()
        cls.sink.close()
        shutil.rmtree(cls.dir, ignore_errors=True)

    def collect(self, operation, until=None):
        """The messages that operation caused: until they satisfy until, or,
        without it, up to a marker read after it on the same thread."""
        start = self.sync(0)
        operation()
        if until is not None:
            return self.sink.wait_for(until, start=start)
        end = self.sync(start) - 1
        self.lines = self.sink.lines[start:end]
        return self.sink.messages(start)[:end - start]

    def sync(self, start):
        """Index of the sink's line after a marker that follows all earlier events."""
        type(self).marks += 1
        marker = self.path(".mark-%d" % self.marks, None)
        with self.assertRaises(FileNotFoundError):
            open(marker)
        messages = self.sink.wait_for(lambda ms: any(subject_of(m) == marker for m in ms), start=start)
        return start + [subject_of(m) for m in messages].index(marker) + 1

    def path(self, name, content=b"x"):
        path = os.path.join(self.dir, name)
        if content is not None:
            with open(path, "wb") as f:
                f.write(content)
        return path


def listening_socket():
    server = socket.socket()
    server.bind(("127.0.0.1", 0))
    server.listen(8)
    return server


class AuditEventMapping(ProbeTest):
    """Each interpreter operation gives its action and subject, inside a request."""

    def run_in_request(self, operation, expected):
        def app(environ, start_response):
            operation()
            return [b"done"]
        return self.collect(lambda: call_wsgi(app, make_environ(b"a=1")),
                            lambda ms: self.missing(expected, ms) == [])

    @staticmethod
    def missing(expected, messages):
        """The (action, subject) pairs of expected, each as often as it is
        listed there, that messages lack."""
        got = [(action_of(m), subject_of(m)) for m in messages]
        return [want for want in expected if got.count(want) < expected.count(want)]

    def test_operations(self):
        d = self.dir
        server = listening_socket()
        port = server.getsockname()[1]
        unix_path = os.path.join(d, "unix.sock")
        unix_server = socket.socket(socket.AF_UNIX)
        unix_server.bind(unix_path)
        unix_server.listen(1)

        def open_file(name, mode):
            return lambda: open(self.path(name), mode).close()

        def os_open(name, flags):
            return lambda: os.close(os.open(self.path(name), flags, 0o600))

        def relative_remove():
            self.path("rel.txt")
            cwd = os.getcwd()
            os.chdir(d)
            try:
                os.remove("rel.txt")
            finally:
                os.chdir(cwd)

        def dir_fd_unlink():
            os.mkdir(os.path.join(d, "sub"))
            self.path("sub/f.txt")
            fd = os.open(os.path.join(d, "sub"), os.O_RDONLY)
            try:
                os.unlink("f.txt", dir_fd=fd)
            finally:
                os.close(fd)
            os.rmdir(os.path.join(d, "sub"))

        def rename():
            os.rename(self.path("old.txt"), os.path.join(d, "new.txt"))

        def connect(address, family=socket.AF_INET):
            def operation():
                with socket.socket(family) as s:
                    s.connect(address)
            return operation

        def create_connection():
            socket.create_connection(("localhost", port)).close()

        def posix_spawn():
            pid = os.posix_spawn("/bin/true", ["/bin/true", "spawned"], os.environ)
            os.waitpid(pid, 0)

        def exec_in_child():
            pid = os.fork()
            if pid == 0:
                try:
                    os.execv("/bin/true", ["/bin/true", "exec-in-child"])
                finally:
                    os._exit(1)
            os.waitpid(pid, 0)

        def sqlite_statements():
            db = sqlite3.connect(":memory:")
            db.execute("create table t (a)")
            db.executemany("insert into t values (?)", [(1,), (2,)])
            cursor = db.cursor()
            cursor.execute("select a from t where a = ?", (1,))
            cursor.executescript("update t set a = 3;")
            db.close()

        def sqlite_user_classes():
            class MyConnection(sqlite3.Connection):
                pass

            class MyCursor(sqlite3.Cursor):
                pass

            class NotedCursor(sqlite3.Cursor):
                def execute(self, sql, parameters=(), note=None):
                    return super().execute(sql, parameters)
            db = sqlite3.connect(":memory:", factory=MyConnection)
            cursor = db.cursor(MyCursor)
            assert isinstance(db, MyConnection) and isinstance(cursor, MyCursor)
            cursor.execute("select 42")
            # The application's own execute keeps its keywords.
            assert db.cursor(NotedCursor).execute(sql="select ?", parameters=(43,), note="n").fetchone() == (43,)
            db.close()

        def sqlite_as_plain():
            # Wrapped, sqlite3's objects still refuse what the originals refuse.
            db = sqlite3.connect(":memory:")
            for attempt in (lambda: db.execute(sql="select 1"), lambda: setattr(db, "extra", 1),
                            lambda: setattr(db.cursor(), "extra", 1)):
                try:
                    attempt()
                except (TypeError, AttributeError):
                    continue
                raise AssertionError("accepted")
            assert db.execute("select ?, ?", (1, 2)).fetchone() == (1, 2)
            db.execute("select 44")
            db.close()

        def read_relative_in(folder):
            def operation():
                cwd = os.getcwd()
                os.chdir(folder)
                try:
                    open("rel-read.txt").close()
                finally:
                    os.chdir(cwd)
            return operation

        def module_file():
            open(self.path("app_module.py"), "w").close()
            sys.path.insert(0, d)
            try:
                import app_module  # noqa: F401  (by the import system: not reported)
            finally:
                sys.path.remove(d)
            open(os.path.join(d, "app_module.py")).close()

        os.mkdir(os.path.join(d, "other"))
        for folder in (d, os.path.join(d, "other")):
            with open(os.path.join(folder, "rel-read.txt"), "w"):
                pass
        self.path("n.txt")
        cases = [
            ("read", open_file("r.txt", "r"), [("read", d + "/r.txt")]),
            # Twice: the second open, answered from what the first left, is reported alike.
            ("unnormal path", lambda: [open(d + "//other/.././n.txt").close() for _ in range(2)],
             [("read", d + "/n.txt")] * 2),
            ("relative path", read_relative_in(d), [("read", d + "/rel-read.txt")]),
            ("the same relative path elsewhere", read_relative_in(os.path.join(d, "other")),
             [("read", d + "/other/rel-read.txt")]),
            ("a module file the application reads", module_file, [("read", d + "/app_module.py")]),
            ("read binary", open_file("rb.txt", "rb"), [("read", d + "/rb.txt")]),
            ("write", open_file("w.txt", "w"), [("write", d + "/w.txt")]),
            ("append", open_file("a.txt", "a"), [("write", d + "/a.txt")]),
            ("update", open_file("u.txt", "r+"), [("write", d + "/u.txt")]),
            ("os.open read", os_open("o.txt", os.O_RDONLY), [("read", d + "/o.txt")]),
            ("os.open create", os_open("oc.txt", os.O_WRONLY | os.O_CREAT), [("write", d + "/oc.txt")]),
            ("relative remove", relative_remove, [("delete", d + "/rel.txt")]),
            ("dir_fd unlink", dir_fd_unlink, [("write", d + "/sub"), ("delete", d + "/sub/f.txt"),
                                              ("delete", d + "/sub")]),
            ("rename", rename, [("delete", d + "/old.txt"), ("write", d + "/new.txt")]),
            ("symlink", lambda: os.symlink("/etc/hostname", os.path.join(d, "link")), [("write", d + "/link")]),
            ("subprocess", lambda: subprocess.run(["/bin/echo", "two words"], stdout=subprocess.DEVNULL),
             [("execute", "/bin/echo 'two words'")]),
            ("shell", lambda: subprocess.run("exit 0", shell=True), [("execute", "/bin/sh -c 'exit 0'")]),
            ("os.system", lambda: os.system("true system"), [("execute", "true system")]),
            ("posix_spawn", posix_spawn, [("execute", "/bin/true spawned")]),
            ("exec in a child", exec_in_child, [("execute", "/bin/true exec-in-child")]),
            ("getaddrinfo", lambda: socket.getaddrinfo("localhost", 80, socket.AF_INET), [("dns", "localhost")]),
            ("gethostbyname", lambda: socket.gethostbyname("localhost"), [("dns", "localhost")]),
            ("connect", connect(("127.0.0.1", port)),
             [("address", {"hostName": "127.0.0.1", "url": "127.0.0.1", "port": port})]),
            ("connect by name", create_connection,
             [("dns", "localhost"), ("address", {"hostName": "localhost", "url": "127.0.0.1", "port": port})]),
            ("connect unix", connect(unix_path, socket.AF_UNIX),
             [("address", {"hostName": unix_path, "url": unix_path})]),
            ("sqlite", sqlite_statements,
             [("hsql", "create table t (a)"), ("hsql", "insert into t values (?)"),
              ("hsql", "select a from t where a = ?"), ("hsql", "update t set a = 3;")]),
            ("sqlite with the application's classes", sqlite_user_classes,
             [("hsql", "select 42"), ("hsql", "select ?")]),
            ("sqlite's refusals", sqlite_as_plain, [("hsql", "select ?, ?"), ("hsql", "select 44")]),
        ]
        self.all_messages = []
        try:
            for name, operation, expected in cases:
                with self.subTest(name):
                    messages = self.run_in_request(operation, expected)
                    self.all_messages += messages
                    self.assertEqual(self.missing(expected, messages), [])
                    for message in messages:
                        self.assertEqual(message["data"]["url"], "http://shop.test/shop/buy?id=7&id=8")
                        self.assertEqual(message["data"]["data"]["type"], KIND[action_of(message)])
        finally:
            server.close()
            unix_server.close()
        self.check_layout(self.all_messages)

    def check_layout(self, messages):
        for message in messages:
            self.assertEqual(set(message), {"pid", "time", "data"})
            self.assertLessEqual(set(message["data"]), {"url", "body", "method", "appCmd", "headers", "param", "ip",
                                                        "srcPort", "data"})
            self.assertEqual(set(message["data"]["data"]), {"type", "action", "data"})
            self.assertIsInstance(message["pid"], int)
            self.assertIsInstance(message["time"], int)
            self.assertIsInstance(message["data"].get("srcPort", 0), int)
            subject = subject_of(message)
            if action_of(message) == "address":
                self.assertLessEqual(set(subject), {"hostName", "url", "port"})
            else:
                self.assertIsInstance(subject, str)

    def test_not_reported(self):
        module_dir = os.path.join(self.dir, "modules")
        os.mkdir(module_dir)
        with open(os.path.join(module_dir, "wl_probe_fixture_module.py"), "w") as f:
            f.write("VALUE = 1\n")
        sys.path.insert(0, module_dir)

        def operations():
            import wl_probe_fixture_module  # noqa: F401
            socket.getaddrinfo("127.0.0.1", 80)  # an address needs no look-up
            os.close(os.open("/dev/null", os.O_RDONLY))
        try:
            messages = self.collect(operations)
        finally:
            sys.path.remove(module_dir)
        got = [(action_of(m), subject_of(m)) for m in messages]
        self.assertIn(("read", "/dev/null"), got)
        self.assertFalse([g for g in got if "wl_probe_fixture_module" in str(g[1])], got)
        self.assertFalse([g for g in got if g[0] == "dns"], got)


class ModuleConversion(ProbeTest):
    """What the module's own conversion makes of the probe's lines."""

    def test_lines_through_the_module(self):
        if HARNESS is None:
            self.skipTest("no --harness given")
        server = listening_socket()
        port = server.getsockname()[1]
        path = self.path("convert.txt")

        def app(environ, start_response):
            environ["wsgi.input"].read()
            open(path).close()
            with open(path, "w"):
                pass
            os.remove(path)
            subprocess.run(["/bin/true", "it's"])
            socket.getaddrinfo("localhost", 80, socket.AF_INET)
            socket.create_connection(("127.0.0.1", port)).close()
            db = sqlite3.connect(":memory:")
            db.execute("select 'é', ?", (1,))
            open(os.path.join(self.dir, "n\udcff-not-utf8"), "w").close()
            return [b""]
        body = "name=caf%C3%A9&q=x%26y".encode()
        messages = self.collect(lambda: call_wsgi(app, make_environ(body, query="a=1&a=2&b=%C3%A9")))
        server.close()
        lines = self.lines
        self.assertGreaterEqual(len(messages), 8)
        output = subprocess.run([HARNESS], input=b"".join(lines), capture_output=True, check=True).stdout
        records = [json.loads(line.decode("utf-8", "surrogateescape")) for line in output.splitlines()]
        self.assertEqual(len(records), len(messages))
        for message, record in zip(messages, records):
            action = action_of(message)
            with self.subTest(action=action, subject=subject_of(message)):
                self.assertTrue(record["accepted"])
                self.assertEqual(record["action_type"], ACTION_NUMBER[action])
                self.assertEqual(record["action"], action)
                self.assertEqual(record["type"], KIND[action])
                self.assertEqual(record["pid"], os.getpid())
                self.assertLess(abs(record["time"] - time.time()), 120)
                self.assertEqual(record["url"], "http://shop.test/shop/buy?a=1&a=2&b=%C3%A9")
                self.assertEqual(record["method"], "POST")
                self.assertEqual(record["body"], "name=caf%C3%A9&q=x%26y")
                self.assertEqual(json.loads(record["param"]),
                                 {"a": ["1", "2"], "b": ["é"], "name": ["café"], "q": ["x&y"]})
                headers = json.loads(record["headers"])
                self.assertEqual(headers["authorization"], "<redacted>")
                self.assertEqual(headers["x-trace"], "t1")
                if action == "address":
                    self.assertEqual(record["hostName"], "127.0.0.1")
                    self.assertEqual(record["dst_ip"], "127.0.0.1")
                    self.assertEqual(record["port"], str(port))
                    self.assertEqual(record["ip"], "192.0.2.10")
                    self.assertEqual(record["srcPort"], 40001)
                else:
                    self.assertEqual(record[SUBJECT_FIELD[action]], subject_of(message))
                    self.assertEqual(record["action_data"], subject_of(message))
        subjects = {record["action_data"] for record in records}
        self.assertIn("/bin/true 'it'\"'\"'s'", subjects)
        self.assertIn(self.dir + "/n\udcff-not-utf8", subjects)  # the bytes as they were


class LineEncoding(unittest.TestCase):
    """A request's JSON is made once and shared by its actions' lines: each
    line must still carry its own request, whole."""

    def test_each_line_carries_its_own_request(self):
        first = {"url": "http://a.test/x", "method": "GET", "body": "", "headers": {"host": "a.test"},
                 "param": {"q": ["1"]}, "ip": "192.0.2.1", "srcPort": 5}
        # A new fields object, as an ASGI request makes when its body grows.
        second = dict(first, url="http://b.test/y", body="caf\udce9")
        entries = [(first, "read", "/a"), (first, "mysql", "SELECT 1"), (second, "write", "/b"),
                   (None, "dns", "x.test"), (first, "execute", "ls '\u00e9'"),
                   ({}, "address", {"hostName": "h", "url": "192.0.2.7", "port": 80})]
        for app_cmd in ("", "/usr/bin/python3 app.py"):
            encoder = _sender.LineEncoder(app_cmd)
            for fields, action, subject in entries:
                with self.subTest(app_cmd=app_cmd, action=action, request=(fields or {}).get("url")):
                    line = encoder.encode((42, 1700000000, fields, action, subject))
                    self.assertTrue(line.endswith(b"\n"))
                    message = json.loads(line.decode("utf-8", "surrogateescape"))
                    data = dict(fields or {})
                    if app_cmd:
                        data["appCmd"] = app_cmd
                    data["data"] = {"type": KIND[action], "action": action, "data": subject}
                    self.assertEqual(message, {"pid": 42, "time": 1700000000, "data": data})


class RequestContext(ProbeTest):
    """The request follows the work: bodies, generators, threads, executors, tasks."""

    def marker(self, name):
        return self.path(name)

    def test_body_is_kept_for_the_application(self):
        limit = 4096
        readers = {
            "read(n)": lambda s, n: s.read(n),
            "read()": lambda s, n: s.read(),
            "chunks": lambda s, n: b"".join(iter(lambda: s.read(7), b"")),
            "readline": lambda s, n: b"".join(iter(s.readline, b"")),
            "iteration": lambda s, n: b"".join(s),
            "readlines": lambda s, n: b"".join(s.readlines()),
        }
        marker = self.marker("body-marker")
        for size in (10, limit, 10000):
            body = b"".join(b"line-%05d=v\n" % i for i in range(size // 12 + 1))[:size]
            for reader_name, reader in readers.items():
                for when in ("before", "middle", "after"):
                    with self.subTest(size=size, reader=reader_name, when=when):
                        received = []

                        def app(environ, start_response):
                            stream, n = environ["wsgi.input"], int(environ["CONTENT_LENGTH"])
                            head = b""
                            if when == "before":
                                open(marker).close()
                            elif when == "middle":
                                head = stream.read(5)
                                open(marker).close()
                            received.append(head + reader(stream, n - len(head)))
                            if when == "after":
                                open(marker).close()
                            return [b""]
                        messages = self.collect(lambda: call_wsgi(app, make_environ(body, content_type="text/plain")))
                        self.assertEqual(received, [body])
                        reads = [m for m in messages if subject_of(m) == marker]
                        self.assertEqual(len(reads), 1)
                        self.assertEqual(reads[0]["data"]["body"], body[:limit].decode())

    def test_body_left_alone_when_it_cannot_be_kept(self):
        class Environ(dict):
            def __setitem__(self, key, value):
                if key == "wsgi.input":
                    raise TypeError("read-only")
                super().__setitem__(key, value)
        received = []

        def app(environ, start_response):
            received.append(environ["wsgi.input"].read())
            return [b""]
        before = wl_probe.stats()["errors"]
        call_wsgi(app, Environ(make_environ(b"a=1")))
        self.assertEqual(received, [b"a=1"])
        self.assertEqual(wl_probe.stats()["errors"] - before, 1)

    def test_request_fields(self):
        marker = self.marker("fields")

        def app(environ, start_response):
            environ["wsgi.input"].read()
            open(marker).close()
            return [b""]
        environ = make_environ(b"x=%E2%82%AC&y=", query="q=a+b&q=", path="/caf\xc3\xa9/a b")
        messages = self.collect(lambda: call_wsgi(app, environ))
        (message,) = [m for m in messages if subject_of(m) == marker]
        request = message["data"]
        self.assertEqual(request["url"], "http://shop.test/caf%C3%A9/a%20b?q=a+b&q=")
        self.assertEqual(request["method"], "POST")
        self.assertEqual(request["param"], {"q": ["a b", ""], "x": ["€"], "y": [""]})
        self.assertEqual(request["ip"], "192.0.2.10")
        self.assertEqual(request["srcPort"], 40001)
        self.assertEqual(request["headers"]["host"], "shop.test")
        self.assertEqual(request["headers"]["content-type"], "application/x-www-form-urlencoded")
        self.assertEqual(request["headers"]["authorization"], "<redacted>")
        self.assertEqual(request["appCmd"], wl_probe._probe._probe.app_cmd)

    def test_outside_a_request(self):
        marker = self.marker("outside")
        messages = self.collect(lambda: open(marker).close())
        (message,) = [m for m in messages if subject_of(m) == marker]
        self.assertEqual(set(message["data"]), {"appCmd", "data"})

    def test_work_of_the_request(self):
        marker = self.marker("work")
        pool = concurrent.futures.ThreadPoolExecutor(max_workers=1)

        def read_marker():
            open(marker).close()

        def generator_app(environ, start_response):
            yield b"a"
            read_marker()
            yield b"b"

        def thread_app(environ, start_response):
            thread = threading.Thread(target=read_marker)
            thread.start()
            thread.join()
            return [b""]

        def pool_app(environ, start_response):
            pool.submit(read_marker).result()  # this job starts the pool's worker
            return [b""]

        try:
            for name, app, path in (("generator", generator_app, "/gen"), ("thread", thread_app, "/thread"),
                                    ("executor", pool_app, "/pool")):
                with self.subTest(name):
                    messages = self.collect(lambda: call_wsgi(app, make_environ(path=path)))
                    (message,) = [m for m in messages if subject_of(m) == marker]
                    self.assertEqual(message["data"].get("url"), "http://shop.test%s?id=7&id=8" % path)
            with self.subTest("the pool's worker after the request"):
                messages = self.collect(lambda: pool.submit(read_marker).result())
                (message,) = [m for m in messages if subject_of(m) == marker]
                self.assertNotIn("url", message["data"])
            with self.subTest("a thread outside any request"):
                thread = threading.Thread(target=read_marker)
                messages = self.collect(lambda: (thread.start(), thread.join()))
                (message,) = [m for m in messages if subject_of(m) == marker]
                self.assertNotIn("url", message["data"])
        finally:
            pool.shutdown()

    def test_probe_io_inside_a_request(self):
        hidden, shown, threaded = self.marker("hidden"), self.marker("shown"), self.marker("threaded")
        seen = []

        def app(environ, start_response):
            with _guard.busy():
                seen.append(wl_probe.current_request())
                open(hidden).close()
                # A thread started meanwhile is the application's, and no request's.
                thread = threading.Thread(target=lambda: open(threaded).close())
                thread.start()
                thread.join()
            seen.append(wl_probe.current_request() is not None)
            open(shown).close()
            return [b""]
        messages = self.collect(lambda: call_wsgi(app, make_environ()))
        self.assertEqual(seen, [None, True])
        self.assertNotIn(hidden, [subject_of(m) for m in messages])
        (message,) = [m for m in messages if subject_of(m) == shown]
        self.assertEqual(message["data"]["url"], "http://shop.test/shop/buy?id=7&id=8")
        (message,) = [m for m in messages if subject_of(m) == threaded]
        self.assertNotIn("url", message["data"])

    def test_wsgiref_wraps_each_application(self):
        import wsgiref.handlers

        def make(name):
            def app(environ, start_response):
                start_response("200 OK", [])
                return [name + (b"+" if wl_probe.current_request() is not None else b"-")]
            return app
        apps = {b"a": make(b"a"), b"b": make(b"b")}
        # One application after another, as a server with two would hand them over.
        for name in (b"a", b"a", b"b", b"a", b"b", b"b"):
            out = io.BytesIO()
            wsgiref.handlers.SimpleHandler(io.BytesIO(), out, io.StringIO(), make_environ()).run(apps[name])
            self.assertTrue(out.getvalue().endswith(b"\r\n\r\n" + name + b"+"), out.getvalue())

    def test_asgi_requests_interleaved(self):
        def app_for(marker):
            async def app(scope, receive, send):
                body = b""
                while True:
                    message = await receive()
                    body += message.get("body", b"")
                    if not message.get("more_body"):
                        break
                await asyncio.sleep(0.01)  # let the other request run
                await asyncio.create_task(asyncio.to_thread(lambda: open(marker).close()))
                await asyncio.get_running_loop().run_in_executor(None, lambda: open(marker + "-x", "w").close())
                await send({"type": "http.response.start", "status": 200, "headers": []})
                await send({"type": "http.response.body", "body": body})
            return app

        async def serve(app, path, port):
            chunks = [{"type": "http.request", "body": b"k=v&", "more_body": True},
                      {"type": "http.request", "body": path.encode(), "more_body": False}]
            sent = []

            async def receive():
                return chunks.pop(0)

            async def send(message):
                sent.append(message)
            scope = {"type": "http", "method": "PUT", "scheme": "http", "path": path, "root_path": "",
                     "query_string": b"n=1", "server": ("api.test", 8000), "client": ("198.51.100.7", port),
                     "headers": [(b"host", b"api.test:8000"), (b"content-type", b"application/x-www-form-urlencoded"),
                                 (b"cookie", b"session=secret")]}
            await wl_probe.ASGIMiddleware(app)(scope, receive, send)
            return sent[-1]["body"]

        markers = {path: self.marker(path.strip("/")) for path in ("/one", "/two")}

        async def both():
            return await asyncio.gather(serve(app_for(markers["/one"]), "/one", 5001),
                                        serve(app_for(markers["/two"]), "/two", 5002))
        bodies = []
        messages = self.collect(lambda: bodies.extend(asyncio.run(both())))
        self.assertEqual(bodies, [b"k=v&/one", b"k=v&/two"])
        for path, port in (("/one", 5001), ("/two", 5002)):
            for subject in (markers[path], markers[path] + "-x"):
                (message,) = [m for m in messages if subject_of(m) == subject]
                request = message["data"]
                self.assertEqual(request["url"], "http://api.test:8000%s?n=1" % path)
                self.assertEqual((request["method"], request["ip"], request["srcPort"]), ("PUT", "198.51.100.7", port))
                self.assertEqual(request["body"], "k=v&" + path)
                self.assertEqual(request["param"], {"n": ["1"], "k": ["v"], path: [""]})
                self.assertEqual(request["headers"]["cookie"], "<redacted>")


def call_asgi(app, path, query=b""):
    """Runs an ASGI application inside the probe's middleware, as a server would."""
    scope = {"type": "http", "method": "GET", "scheme": "http", "path": path, "root_path": "", "query_string": query,
             "server": ("api.test", 80), "client": ("198.51.100.7", 5000), "headers": [(b"host", b"api.test")]}

    async def receive():
        return {"type": "http.request", "body": b"", "more_body": False}

    async def send(message):
        pass
    asyncio.run(wl_probe.ASGIMiddleware(app)(scope, receive, send))


class Repeats(ProbeTest):
    settings = {"WL_PROBE_REPEAT_SECONDS": 60}

    def test_same_action_of_the_same_route_once(self):
        marker = self.path("repeat")

        def wsgi_app(environ, start_response):
            open(marker).close()
            open(marker).close()
            return [b""]

        async def asgi_app(scope, receive, send):
            open(marker).close()
            open(marker).close()
        def on_host(host, path, query):
            environ = make_environ(path=path, query=query)
            environ["HTTP_HOST"] = host
            return call_wsgi(wsgi_app, environ)
        requests = (("/a", "x=1"), ("/a", "x=2"), ("/b", "x=1"))
        for name, serve, urls in (
                ("wsgi", lambda p, q: on_host("shop.test", p, q), ["http://shop.test/a?x=1", "http://shop.test/b?x=1"]),
                ("wsgi, another host", lambda p, q: on_host("other.test", p, q),
                 ["http://other.test/a?x=1", "http://other.test/b?x=1"]),
                ("asgi", lambda p, q: call_asgi(asgi_app, p, q.encode()),
                 ["http://api.test/a?x=1", "http://api.test/b?x=1"])):
            with self.subTest(name):
                before = wl_probe.stats()["repeats_suppressed"]
                messages = self.collect(lambda: [serve(p, q) for p, q in requests])
                self.assertEqual(sorted(m["data"]["url"] for m in messages if subject_of(m) == marker), urls)
                self.assertEqual(wl_probe.stats()["repeats_suppressed"] - before, 4)


class RepeatsExpire(ProbeTest):
    settings = {"WL_PROBE_REPEAT_SECONDS": 1}

    def test_sent_again_after_the_time(self):
        marker = self.path("expire")

        def app(environ, start_response):
            open(marker).close()
            return [b""]
        messages = self.collect(lambda: [call_wsgi(app, make_environ()) for _ in range(2)])
        self.assertEqual([subject_of(m) for m in messages].count(marker), 1)
        time.sleep(1.1)
        messages = self.collect(lambda: call_wsgi(app, make_environ()))
        self.assertEqual([subject_of(m) for m in messages].count(marker), 1)


class Robustness(unittest.TestCase):
    """Full queues, no agent, failing handlers: counted, never raised."""

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="wl-probe-robust-")
        self.socket_path = os.path.join(self.dir, "agent.sock")

    def tearDown(self):
        wl_probe.stop()
        shutil.rmtree(self.dir, ignore_errors=True)

    def test_full_queue_drops_and_counts(self):
        sink = TelemetrySink(self.socket_path)
        try:
            path = os.path.join(self.dir, "q")
            open(path, "w").close()
            probe = start_probe(self.socket_path, WL_PROBE_QUEUE=10, WL_PROBE_WARN_SECONDS=3600)
            with self.assertLogs("wl_probe", logging.WARNING) as logs:
                with probe.sender._send_lock:  # the sender stands still
                    for _ in range(25):
                        open(path).close()
                    self.assertEqual(wl_probe.stats()["queue_depth"], 10)
            self.assertEqual(len(logs.records), 1)  # one warning for many drops
            self.assertIn("1 for a full queue (10 max)", logs.output[0])
            wait_until("the queue to be sent", lambda: wl_probe.stats()["sent"] == 10)
            stats = wl_probe.stats()
            self.assertEqual((stats["queued"], stats["dropped_queue_full"], stats["events"]), (10, 15, 25))
            sink.wait_for(lambda ms: len(ms) == 10)
        finally:
            sink.close()

    def test_missing_agent(self):
        for name, socket_path in (("absent", self.socket_path), ("a directory", self.dir),
                                  ("too long", "/tmp/" + "x" * 200)):
            with self.subTest(name):
                start_probe(socket_path, WL_PROBE_WARN_SECONDS=0)
                with self.assertLogs("wl_probe", logging.WARNING):
                    open(os.devnull).close()
                    wait_until("the drop to be counted", lambda: wl_probe.stats()["dropped_no_agent"] == 1)
                    # Before the next attempt to connect: dropped unsent.
                    subprocess.run(["/bin/true"])
                    wait_until("the drops to be counted", lambda: wl_probe.stats()["dropped_no_agent"] == 2)
                stats = wl_probe.stats()
                self.assertEqual((stats["sent"], stats["errors"], stats["connected"]), (0, 0, False))

    def test_agent_comes_back(self):
        sink = TelemetrySink(self.socket_path)
        path = os.path.join(self.dir, "back")
        open(path, "w").close()
        start_probe(self.socket_path, WL_PROBE_WARN_SECONDS=3600)
        try:
            open(path).close()
            sink.wait_for(lambda ms: len(ms) == 1)
            with self.assertLogs("wl_probe", logging.WARNING):
                sink.close()
                for _ in range(3):
                    open(path).close()
                    time.sleep(0.05)
                wait_until("losses to be counted", lambda: wl_probe.stats()["dropped_no_agent"] >= 1)
            sink = TelemetrySink(self.socket_path)

            def reaches():
                open(path).close()
                return sink.count() > 0
            wait_until("the probe to reconnect", reaches, timeout=10)

            def accounted():
                stats = wl_probe.stats()
                return stats["queued"] == stats["sent"] + stats["dropped_no_agent"] + stats["queue_depth"]
            wait_until("every queued message to be sent or counted as lost", accounted)
        finally:
            sink.close()

    def test_own_io_is_not_reported(self):
        sink = TelemetrySink(self.socket_path)
        log_path = os.path.join(self.dir, "probe.log")
        handler = logging.FileHandler(log_path, delay=True)
        logger = logging.getLogger("wl_probe")
        logger.addHandler(handler)
        logger.setLevel(logging.WARNING)
        kept, dropped = os.path.join(self.dir, "kept"), os.path.join(self.dir, "dropped")
        open(kept, "w").close()
        open(dropped, "w").close()
        try:
            probe = start_probe(self.socket_path, WL_PROBE_QUEUE=1, WL_PROBE_WARN_SECONDS=0)
            with probe.sender._send_lock:
                open(kept).close()
                open(dropped).close()  # the warning for its drop opens the log file on this thread
            self.assertGreater(os.path.getsize(log_path), 0)
            self.assertEqual(wl_probe.stats()["events"], 2)
            messages = sink.wait_for(lambda ms: any(subject_of(m) == kept for m in ms))
            open(kept, "w").close()  # once more, now that the sender has connected
            messages = sink.wait_for(lambda ms: len(ms) == 2)
            self.assertEqual([(action_of(m), subject_of(m)) for m in messages], [("read", kept), ("write", kept)])
        finally:
            logger.removeHandler(handler)
            logger.setLevel(logging.NOTSET)
            handler.close()
            sink.close()

    def test_failing_handler_never_reaches_the_application(self):
        sink = TelemetrySink(self.socket_path)
        original = _probe.HANDLERS["open"]

        def broken(probe, args):
            raise RuntimeError("handler fault")
        _probe.HANDLERS["open"] = broken
        try:
            start_probe(self.socket_path)
            with open(os.devnull) as f:
                f.read()
            self.assertEqual(wl_probe.stats()["errors"], 1)
            # Odd arguments: a descriptor, a path that is bytes, no host.
            _probe.HANDLERS["open"] = original
            with open(os.open(os.devnull, os.O_RDONLY)) as f:
                f.read()
            socket.getaddrinfo(None, 80)
            with socket.socket(socket.AF_UNIX) as s:
                try:
                    s.connect(os.fsencode(os.path.join(self.dir, "none\xff")))
                except OSError:
                    pass
            self.assertEqual(wl_probe.stats()["errors"], 1)
        finally:
            _probe.HANDLERS["open"] = original
            sink.close()

    def test_stopped_probe_leaves_no_thread(self):
        sink = TelemetrySink(self.socket_path)
        try:
            probe = start_probe(self.socket_path)
            open(os.devnull).close()
            sink.wait_for(lambda ms: len(ms) == 1)
            thread = probe.sender._thread
            self.assertTrue(probe.sender.stats()["connected"])
            wl_probe.stop()
            thread.join(5)
            self.assertFalse(thread.is_alive())
            self.assertFalse(probe.sender.stats()["connected"])  # its socket closed with it
        finally:
            sink.close()

    def test_report_refuses_an_unknown_action(self):
        start_probe(self.socket_path)
        for action in ("bogus", "", "READ", None):
            with self.subTest(action=action):
                with self.assertRaisesRegex(ValueError, "unknown action"):
                    wl_probe.report(action, "x")
        self.assertEqual(wl_probe.stats()["events"], 0)

    def test_forked_child_reports_with_its_own_pid(self):
        sink = TelemetrySink(self.socket_path)
        try:
            start_probe(self.socket_path)
            marker = os.path.join(self.dir, "fork")
            open(marker, "w").close()
            open(marker).close()  # the parent's sender is running when it forks
            pid = os.fork()
            if pid == 0:
                code = 1
                try:
                    open(marker).close()
                    wl_probe.stop(5)
                    code = 0
                finally:
                    os._exit(code)
            _, status = os.waitpid(pid, 0)
            self.assertEqual(status, 0)
            messages = sink.wait_for(lambda ms: any(m["pid"] == pid for m in ms))
            self.assertEqual([subject_of(m) for m in messages if m["pid"] == pid], [marker])
        finally:
            sink.close()


class Loading(unittest.TestCase):
    """The one-variable start through autostart/sitecustomize.py."""

    def run_python(self, env_extra, code):
        env = {k: v for k, v in os.environ.items() if not k.startswith("WL_PROBE")}
        env.update(env_extra)
        return subprocess.run(["/usr/bin/python3", "-c", code], env=env, capture_output=True, text=True, timeout=60)

    def test_autostart(self):
        with tempfile.TemporaryDirectory() as d:
            shadowed = os.path.join(d, "other")
            os.mkdir(shadowed)
            with open(os.path.join(shadowed, "sitecustomize.py"), "w") as f:
                f.write("import os\nos.environ['SHADOWED_RAN'] = '1'\n")
            autostart = os.path.join(PROBE_DIR, "autostart")
            code = ("import os, sys, wl_probe; "
                    "print(wl_probe.stats()['running'], os.environ.get('SHADOWED_RAN'), wl_probe.stats().get('socket'))")
            for name, extra, expected in (
                    ("on", {}, "True 1 " + os.path.join(d, "s.sock")),
                    ("off", {"WL_PROBE": "0"}, "False 1 None")):
                with self.subTest(name):
                    env = {"PYTHONPATH": autostart + os.pathsep + shadowed, "WL_PROBE_SOCKET": os.path.join(d, "s.sock")}
                    env.update(extra)
                    result = self.run_python(env, code)
                    self.assertEqual(result.returncode, 0, result.stderr)
                    self.assertEqual(result.stdout.strip(), expected)

    def test_default_socket_is_under_the_install_root(self):
        config = wl_probe.Config({})
        root = os.path.dirname(os.path.dirname(PROBE_DIR))
        self.assertEqual(config.socket_path, os.path.join(root, "var", "run", "rasp_telemetry.sock"))


class Drivers(ProbeTest):
    """Wrapping of pure-Python drivers' cursor classes."""

    def test_patch_methods(self):
        calls = []

        class FakeCursor:
            def execute(self, operation, params=None):
                calls.append(operation)

            def executemany(self, query, seq):
                for _ in seq:
                    self.execute(query)

            async def run(self, query):
                calls.append(query)
                return "ran"

        _sql.patch_methods(FakeCursor, ("execute", "executemany", "run"), "mysql")
        _sql.patch_methods(FakeCursor, ("execute",), "mysql")  # twice: still one report
        cursor = FakeCursor()

        def use():
            cursor.execute("select 1")
            cursor.execute(operation="select 2")
            cursor.executemany("insert 3", [1, 2])
            self.assertEqual(asyncio.run(cursor.run("select 4")), "ran")
        messages = self.collect(use)
        self.assertEqual(calls, ["select 1", "select 2", "insert 3", "insert 3", "select 4"])
        self.assertEqual([(action_of(m), subject_of(m)) for m in messages],
                         [("mysql", "select 1"), ("mysql", "select 2"), ("mysql", "insert 3"), ("mysql", "select 4")])


def main():
    global HARNESS
    args = sys.argv[1:]
    if "--harness" in args:
        i = args.index("--harness")
        HARNESS = args[i + 1]
        del args[i:i + 2]
    logging.basicConfig(level=logging.ERROR)
    program = unittest.main(argv=[sys.argv[0]] + args, exit=False, verbosity=2)
    result = program.result
    failed = len({getattr(test, "test_case", test).id() for test, _ in result.failures + result.errors})
    print("%d passed, %d failed, %d skipped" % (result.testsRun - failed - len(result.skipped), failed,
                                                len(result.skipped)))
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
