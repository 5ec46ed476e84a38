#!/usr/bin/python3
"""The demo's story, told step by step on this host: the agent in a fresh
install root, a web application with the probe and a host daemon learning
for about a minute, then each doing something new, the alarms, the models'
status, one alarm fed back, and where the reports are.

usage: story.py STAGE_DIR
Exit 0 when exactly the expected alarms came, 1 otherwise."""
import glob
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
PYTHON = "/usr/bin/python3"
# Learning: 2 units of 30 s. The module's clock adds a minute of learned time
# once a minute, so a model started early in that minute learns for most of it.
LEARN_UNIT_SECONDS = 30
STUDY_UNITS = 2
WEB_MODEL, DAEMON_MODEL = "notes-web", "billing-daemon"
KEEP_DIR = "/tmp/wl-demo-last"
# Straight to the loopback application, whatever proxy the environment names.
HTTP = urllib.request.build_opener(urllib.request.ProxyHandler({}))
STARTED = time.time()


def say(text=""):
    print(text, flush=True)


def step(number, text):
    say("\n[%3ds] Step %d: %s" % (time.time() - STARTED, number, text))


def wait_for(what, check, timeout, every=0.5):
    deadline = time.time() + timeout
    while time.time() < deadline:
        result = check()
        if result:
            return result
        time.sleep(every)
    raise AssertionError("timed out waiting for " + what)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def serving(port):
    try:
        socket.create_connection(("127.0.0.1", port), 1).close()
        return True
    except OSError:
        return False


class Service:
    """The daemon's collector (127.0.0.2) and a backup server (127.0.0.3),
    one port, bound to those loopback addresses only."""

    def __init__(self):
        self.port = free_port()
        self.sockets = []
        for address in ("127.0.0.2", "127.0.0.3"):
            s = socket.socket()
            s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            s.bind((address, self.port))
            s.listen(64)
            self.sockets.append(s)
            threading.Thread(target=self.serve, args=(s,), daemon=True).start()

    @staticmethod
    def serve(s):
        while True:
            try:
                conn, _ = s.accept()
            except OSError:
                return
            conn.close()

    def close(self):
        for s in self.sockets:
            s.close()


class Demo:
    def __init__(self, stage):
        self.stage = stage
        self.root = tempfile.mkdtemp(prefix="wl-demo-")
        self.data = os.path.join(self.root, "demo")
        self.processes = {}
        self.outputs = []
        self.service = None
        self.reports_seen = 0

    # --- the install root and the agent

    def lay_out(self):
        for part in ("bin", "lib", "agent_plugins", "vr_agent", "probes"):
            shutil.copytree(os.path.join(self.stage, part), os.path.join(self.root, part), symlinks=True,
                            ignore=shutil.ignore_patterns("__pycache__"))
        os.makedirs(os.path.join(self.root, "config"))
        with open(os.path.join(self.root, "config", "baseConfig.ini"), "w") as f:
            # Every alarm at once, so that a repeat after the feedback shows.
            f.write("[engine]\nlearn_unit_seconds = %d\nalarm_repeat_window_seconds = 0\n" % LEARN_UNIT_SECONDS)
        os.makedirs(self.data)

    def spawn(self, name, argv, **options):
        out = open(os.path.join(self.root, name + ".out"), "w")
        self.outputs.append(out)
        self.processes[name] = subprocess.Popen(argv, stdout=out, stderr=subprocess.STDOUT, **options)
        return self.processes[name]

    def wlctl(self, *args):
        return subprocess.run([os.path.join(self.root, "bin", "wlctl"), "--root", self.root, *args],
                              capture_output=True, text=True, timeout=30)

    def collector_status(self):
        result = self.wlctl("collector", "--json")
        try:
            return json.loads(result.stdout) if result.returncode == 0 else None
        except ValueError:
            return None

    def reports(self):
        try:
            with open(os.path.join(self.root, "var", "spool", "manager", "reports.jsonl")) as f:
                lines = f.readlines()
        except OSError:
            return []
        out = []
        for line in lines:
            try:
                out.append(json.loads(line))
            except ValueError:
                pass  # being written: read it next time
        return out

    def alarms(self):
        return [(r["type"], r[r["type"]]) for r in self.reports() if r.get("type") in ("alarm", "rasp_alarm")]

    def status(self, model, rasp):
        """The model's latest status as the module reported it after a query."""
        before = len(self.reports())
        self.wlctl(*(["--rasp"] if rasp else []), "query", model)
        kind = "rasp_learn_status" if rasp else "learn_status"

        def found():
            for report in reversed(self.reports()[before:]):
                if report.get("type") == kind:
                    payload = report[kind]
                    for item in payload.get("models", [payload]) if isinstance(payload, dict) else payload:
                        if isinstance(item, dict) and item.get("model_name") == model:
                            return item
            return None
        return wait_for("the status of " + model, found, 10, 0.2)

    # --- the two applications

    def web(self, path, form=None):
        data = urllib.parse.urlencode(form).encode() if form else None
        with HTTP.open("http://127.0.0.1:%d%s" % (self.web_port, path), data, timeout=10) as r:
            return r.read().decode()

    def daemon(self, word):
        with socket.create_connection(("127.0.0.1", self.daemon_port), timeout=10) as s:
            s.sendall((word + "\n").encode())
            return s.makefile().readline().strip()

    def normal_traffic(self):
        self.web("/save", {"name": "note-1.txt", "text": "buy milk"})
        self.web("/search?q=milk")
        self.web("/count?name=note-1.txt")
        self.daemon("ping")

    # --- the story

    def run(self):
        step(1, "a fresh install root for the agent")
        self.lay_out()
        say("  root: %s (copied from %s)" % (self.root, self.stage))
        say("  models learn in units of %d s here (the default unit is a minute)" % LEARN_UNIT_SECONDS)

        step(2, "starting wl-agent with its action collector")
        self.spawn("agent", [os.path.join(self.root, "bin", "wl-agent"), "--root", self.root, "--no-discover",
                             "--asset-interval", "2"])
        status = wait_for("the collector", self.collector_status, 30)
        wait_for("the probes' socket", lambda: os.path.exists(os.path.join(self.root, "var/run/rasp_telemetry.sock")),
                 60)
        say("  agent running (pid %d); collector pid %s, capture back-end: %s"
            % (self.processes["agent"].pid, status.get("pid"), status.get("backend")))

        step(3, "starting a sample web application (with the probe) and a host daemon")
        self.service = Service()
        self.web_port, self.daemon_port = free_port(), free_port()
        env = dict(os.environ, PYTHONPATH=os.path.join(self.root, "probes", "python", "autostart"),
                   WL_PROBE_REPEAT_SECONDS="0", PYTHONDONTWRITEBYTECODE="1")
        for key in [k for k in env if k.startswith("WL_PROBE") and k != "WL_PROBE_REPEAT_SECONDS"]:
            del env[key]
        web = self.spawn("web_app", [PYTHON, os.path.join(HERE, "web_app.py"), str(self.web_port), self.data], env=env)
        plain = dict(os.environ, PYTHONDONTWRITEBYTECODE="1")
        plain.pop("PYTHONPATH", None)
        daemon = self.spawn("daemon", [PYTHON, os.path.join(HERE, "daemon.py"), str(self.daemon_port),
                                       str(self.service.port), self.data], env=plain)
        for name, port in (("web_app", self.web_port), ("daemon", self.daemon_port)):
            wait_for(name, lambda: serving(port) or self.processes[name].poll() is not None, 30)
            if self.processes[name].poll() is not None:
                raise AssertionError(name + " exited; see " + os.path.join(self.root, name + ".out"))
        self.web_exe = os.readlink("/proc/%d/exe" % web.pid)
        self.daemon_exe = os.readlink("/proc/%d/exe" % daemon.pid)
        say("  web application \"%s\": %s, pid %d, http://127.0.0.1:%d (notes: save, search, count)"
            % (WEB_MODEL, self.web_exe, web.pid, self.web_port))
        say("  host daemon \"%s\": %s, pid %d, port %d; each second it writes its log and reports to 127.0.0.2:%d"
            % (DAEMON_MODEL, self.daemon_exe, daemon.pid, self.daemon_port, self.service.port))

        step(4, "creating their models, learning for %d x %d s" % (STUDY_UNITS, LEARN_UNIT_SECONDS))
        starts = [([], DAEMON_MODEL, self.daemon_exe, self.daemon_port),
                  (["--rasp"], WEB_MODEL, self.web_exe, self.web_port)]
        for prefix, model, exe, port in starts:
            # Refused until the agent's assets are ready: ask again.
            wait_for("the start of " + model,
                     lambda: self.wlctl(*prefix, "start", model, exe, str(port), str(STUDY_UNITS)).returncode == 0,
                     45, 1)
            say("  wlctl %sstart %s %s %d %d: taken" % (" ".join(prefix) + " " if prefix else "", model, exe, port,
                                                       STUDY_UNITS))
        wait_for("the daemon to be watched", lambda: daemon.pid in (self.collector_status() or {}).get("watched", []),
                 30)
        say("  the collector now watches the daemon's process %d" % daemon.pid)

        step(5, "normal traffic while they learn")
        rounds = 0
        learning_since = time.time()

        def learned():
            nonlocal rounds
            self.normal_traffic()
            rounds += 1
            return all(self.status(model, rasp).get("period") == "FILTER_PEROID"
                       for model, rasp in ((DAEMON_MODEL, False), (WEB_MODEL, True)))
        wait_for("the models to finish learning", learned, 135, 2)
        say("  %d rounds of normal requests (save a note, search, count its size; ping the daemon)" % rounds)
        say("  learning ended after %d s; both models now filter" % (time.time() - learning_since))
        for model, rasp in ((DAEMON_MODEL, False), (WEB_MODEL, True)):
            self.show_status(model, rasp)

        step(6, "the same normal traffic again: it is known, so nothing should alarm")
        before = len(self.alarms())
        for _ in range(3):
            self.normal_traffic()
            time.sleep(1)
        time.sleep(3)
        quiet = self.alarms()[before:]
        say("  alarms: %d" % len(quiet))

        step(7, "each does something new")
        start = len(self.alarms())  # the first alarms come within milliseconds
        injected = "note-1.txt; id"
        say("  web: GET /count?name=%s   (the name reaches a shell: it also runs 'id')" % injected)
        self.web("/count?" + urllib.parse.urlencode({"name": injected}))
        say("  web: POST /save name=../www/shell.php   (a file written outside the notes)")
        self.web("/save", {"name": "../www/shell.php", "text": "<?php system($_GET['c']); ?>"})
        say("  daemon: connects to a backup server at 127.0.0.3:%d   (somewhere new)" % self.service.port)
        self.daemon("backup")
        say("  daemon: starts /usr/bin/id   (a program it never ran)")
        self.daemon("run")
        expected = [
            ("web app ran a shell command", lambda t, a: t == "rasp_alarm" and a.get("action") == "execute"
             and "id" in a.get("process_cmd_line", "").split("; ")[-1]),
            ("web app wrote an unexpected file", lambda t, a: t == "rasp_alarm" and a.get("action") == "write"
             and a.get("file_name", "").endswith("shell.php")),
            ("daemon connected to 127.0.0.3", lambda t, a: t == "alarm" and a.get("dst_ip") == "127.0.0.3"),
            ("daemon started /usr/bin/id", lambda t, a: t == "alarm" and a.get("process_path") == "/usr/bin/id"),
        ]

        def arrived():
            got = self.alarms()[start:]
            return all(any(match(t, a) for t, a in got) for _, match in expected)
        try:
            wait_for("the alarms", arrived, 30)
        except AssertionError:
            pass
        time.sleep(3)  # anything else that would come
        surprise = self.alarms()[start:]

        step(8, "the alarms")
        for kind, alarm in surprise:
            say("  - " + describe(kind, alarm))
        missing = [what for what, match in expected if not any(match(t, a) for t, a in surprise)]
        unexpected = quiet + [(t, a) for t, a in surprise if not any(match(t, a) for _, match in expected)]

        step(9, "the models' status")
        for model, rasp in ((DAEMON_MODEL, False), (WEB_MODEL, True)):
            self.show_status(model, rasp)
        collector = self.wlctl("collector")
        for line in collector.stdout.strip().splitlines():
            if not line.split()[-5:] == ["0"] * 5:  # kinds that saw nothing
                say("  collector: " + line)

        step(10, "an operator decides the backup connection is fine: the alarm goes back as feedback")
        feedback_alarm = next((a for t, a in surprise if t == "alarm" and a.get("dst_ip") == "127.0.0.3"), None)
        repeat = []
        if feedback_alarm is None:
            say("  (no such alarm to feed back)")
            missing.append("feedback: no connection alarm")
        else:
            command = json.dumps({"opr_code": 7, "data": {"list": [feedback_alarm]}})
            result = self.wlctl("push", command)
            say("  wlctl push '{\"opr_code\":7,\"data\":{\"list\":[<the alarm, unchanged>]}}': %s"
                % result.stdout.strip())
            if result.returncode != 0:
                missing.append("feedback taken")
            time.sleep(1)
            start = len(self.alarms())
            say("  the daemon connects to 127.0.0.3 again and starts /usr/bin/id again")
            self.daemon("backup")
            self.daemon("run")
            try:
                wait_for("the repeat", lambda: any(t == "alarm" and a.get("process_path") == "/usr/bin/id"
                                                   for t, a in self.alarms()[start:]), 20)
            except AssertionError:
                missing.append("daemon started /usr/bin/id (again)")
            time.sleep(4)  # the connection's second chance and a margin
            repeat = self.alarms()[start:]
            for kind, alarm in repeat:
                say("  - " + describe(kind, alarm))
            if any(t == "alarm" and a.get("dst_ip") == "127.0.0.3" for t, a in repeat):
                say("  the connection still alarmed: the feedback did not take")
                unexpected.append(("alarm", feedback_alarm))
            else:
                say("  the connection no longer alarms; the new program still does")
            self.show_status(DAEMON_MODEL, False)
            unexpected += [(t, a) for t, a in repeat if not (t == "alarm" and a.get("process_path") == "/usr/bin/id")
                           and not (t == "alarm" and a.get("dst_ip") == "127.0.0.3")]

        step(11, "where the reports are")
        self.keep()
        counts = {}
        for report in self.reports():
            counts[report.get("type")] = counts.get(report.get("type"), 0) + 1
        say("  reports to the manager (one JSON envelope a line): %s/reports.jsonl" % KEEP_DIR)
        say("    " + ", ".join("%s %d" % item for item in sorted(counts.items())))
        say("  the module's log: %s/white_list.log; the agent's output: %s/agent.out" % (KEEP_DIR, KEEP_DIR))
        say("  the models learned: %s/models/" % KEEP_DIR)
        say("  (copied from the demo's root; with scripts/run-agent they are under build/i386/stage/var/)")

        say("")
        if missing or unexpected:
            for what in missing:
                say("FAILED: expected alarm did not come: " + what)
            for kind, alarm in unexpected:
                say("FAILED: unexpected alarm: " + describe(kind, alarm))
            return 1
        say("Demo passed: every expected alarm came, nothing else alarmed, and the fed-back alarm stayed quiet.")
        return 0

    def show_status(self, model, rasp):
        s = self.status(model, rasp)
        period = {"LEARN_PEROID": "learning", "FILTER_PEROID": "filtering"}.get(s.get("period"), s.get("period"))
        say("  %s (%s): %s, learned %s of %d s, %s behaviours known%s"
            % (model, "runtime application" if rasp else "host", period, s.get("learned_seconds"),
               s.get("learn_time", 0) * s.get("learn_unit_seconds", LEARN_UNIT_SECONDS), s.get("feature_count"),
               ", stable" if s.get("stable") else ""))
        data = self.model_data(model, rasp)
        for kind, features in sorted((data or {}).get("features", {}).items()):
            for feature in features:
                say("      knows %s: %s" % (kind, feature))

    def model_data(self, model, rasp):
        kind = "rasp_model" if rasp else "model"
        for report in reversed(self.reports()):
            payload = report.get(kind) if report.get("type") == kind else None
            if isinstance(payload, dict) and payload.get("model_name") == model:
                return payload
        return None

    def keep(self):
        shutil.rmtree(KEEP_DIR, ignore_errors=True)
        os.makedirs(os.path.join(KEEP_DIR, "models"))
        for source, target in (("var/spool/manager/reports.jsonl", "reports.jsonl"), ("agent.out", "agent.out")):
            if os.path.exists(os.path.join(self.root, source)):
                shutil.copy(os.path.join(self.root, source), os.path.join(KEEP_DIR, target))
        with open(os.path.join(KEEP_DIR, "white_list.log"), "w") as out:
            for path in sorted(glob.glob(os.path.join(self.root, "var/log/agent/white_list/*"))):
                with open(path, errors="replace") as f:
                    out.write(f.read())
        # Each model as the module last reported it.
        for report in self.reports():
            kind = report.get("type")
            if kind in ("model", "rasp_model") and isinstance(report.get(kind), dict):
                name = report[kind].get("model_name")
                if name:
                    with open(os.path.join(KEEP_DIR, "models", name + ".json"), "w") as f:
                        json.dump(report[kind], f, indent=1)

    def stop(self):
        for name in ("web_app", "daemon", "agent"):
            process = self.processes.get(name)
            if process is None or process.poll() is not None:
                continue
            process.send_signal(signal.SIGTERM)
            try:
                process.wait(timeout=15)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        if self.service:
            self.service.close()
        for out in self.outputs:
            out.close()
        shutil.rmtree(self.root, ignore_errors=True)


def describe(kind, a):
    model = a.get("model_name", "?")
    if kind == "rasp_alarm":
        what = {"execute": "ran the command %s" % a.get("process_cmd_line"),
                "write": "wrote the file %s" % a.get("file_name"),
                "read": "read the file %s" % a.get("file_name"),
                "delete": "deleted the file %s" % a.get("file_name"),
                "address": "connected to %s port %s" % (a.get("hostName") or a.get("dst_ip"), a.get("dst_port")),
                "dns": "looked up %s" % a.get("query_name")}.get(a.get("action"),
                                                                 "%s %s" % (a.get("action"), a.get("sql_command")))
        return "runtime-application alarm, model %s: while serving %s it %s" % (model, a.get("url"), what)
    event = a.get("event_id")
    if event == "PROCESS_CREATION":
        what = "started a new program %s (%s)" % (a.get("process_path"), a.get("process_cmd_line"))
    elif event == "NETWORK_CONNECTION":
        what = "connected somewhere new: %s port %s (%s)" % (a.get("dst_ip"), a.get("dst_port"), a.get("protocol"))
    elif event == "DNS_QUERY":
        what = "looked up %s" % a.get("query_name")
    elif event == "HOST_PORT_LISTENING":
        what = "opened the port %s" % a.get("port")
    else:
        what = "%s %s" % (event, a.get("file_name"))
    return "host alarm, model %s: %s" % (model, what)


def main():
    if os.geteuid() != 0:
        say("the demo runs the agent and its collector: run it as root")
        return 2
    demo = Demo(sys.argv[1])
    try:
        return demo.run()
    except KeyboardInterrupt:
        say("\ninterrupted")
        return 130
    except (AssertionError, OSError) as failure:
        say("\nFAILED: %s" % failure)
        demo.keep()
        say("the agent's output and the module's log are in " + KEEP_DIR)
        return 1
    finally:
        demo.stop()
        say("[%3ds] cleaned up: the agent, the collector, both applications stopped; %s removed"
            % (time.time() - STARTED, demo.root))


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    sys.exit(main())
