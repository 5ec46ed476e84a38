"""What the end-to-end tests share: a stand-in application, and the real
agent in a fresh install root made from the build's stage."""
import glob
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
PYTHON = "/usr/bin/python3"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(what, check, timeout=60, every=0.25):
    deadline = time.time() + timeout
    while time.time() < deadline:
        result = check()
        if result:
            return result
        time.sleep(every)
    raise AssertionError(f"timed out waiting for {what}")


class Actor:
    """The actor script in a mount namespace whose resolv.conf names loopback,
    so resolver queries never leave the host."""

    def __init__(self, tag, work_dir, connect_port, resolv_conf, python=PYTHON):
        self.tag = tag
        self.port = free_port()
        command = (f"mount --bind {resolv_conf} /etc/resolv.conf && exec {python} {HERE}/actor.py "
                   f"{tag} {self.port} {work_dir} {connect_port}")
        env = dict(os.environ, RES_OPTIONS="timeout:1 attempts:1")
        self.process = subprocess.Popen(["unshare", "--mount", "--propagation", "private", "sh", "-c", command],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=env)
        assert self.process.stdout.readline().strip() == "ready", f"{tag} did not start"
        self.pid = self.process.pid
        self.exe = os.readlink(f"/proc/{self.pid}/exe")

    def start_round(self, number):
        self.process.stdin.write(f"round {number}\n")
        self.process.stdin.flush()

    def finish_round(self, number):
        words = self.process.stdout.readline().split()
        assert words[:2] == ["done", str(number)], f"{self.tag} round {number}: {words}"
        return int(words[2])

    def stop(self):
        self.process.kill()
        self.process.wait()


class Agent:
    def __init__(self, stage):
        self.root = tempfile.mkdtemp(prefix="wl-e2e-")
        for part in ("bin", "lib", "agent_plugins", "vr_agent", "probes"):
            if os.path.isdir(os.path.join(stage, part)):
                shutil.copytree(os.path.join(stage, part), os.path.join(self.root, part), symlinks=True,
                                ignore=shutil.ignore_patterns("__pycache__"))
        self.process = None

    def start(self, *options):
        self.output = open(os.path.join(self.root, "agent.out"), "w")
        self.process = subprocess.Popen([f"{self.root}/bin/wl-agent", "--root", self.root, "--asset-interval", "2",
                                         *options], stdout=self.output, stderr=subprocess.STDOUT)
        return self

    def agent_output(self):
        with open(os.path.join(self.root, "agent.out")) as f:
            return f.read()

    def show_logs(self):
        print("--- agent output (tail)\n" + "".join(self.agent_output().splitlines(True)[-30:]))
        for log in glob.glob(f"{self.root}/var/log/agent/vr_agent/*"):
            with open(log) as f:
                print(f"--- {log} (tail)\n" + "".join(f.readlines()[-20:]))

    def wlctl(self, *args):
        return subprocess.run([f"{self.root}/bin/wlctl", "--root", self.root, *args],
                              capture_output=True, text=True, timeout=30)

    def collector_status(self):
        result = self.wlctl("collector", "--json")
        if result.returncode != 0:
            return None
        try:
            return json.loads(result.stdout)
        except ValueError:
            return None

    def watches(self, pid):
        status = self.collector_status()
        return status is not None and pid in status.get("watched", [])

    def module_log(self):
        text = ""
        for path in glob.glob(f"{self.root}/var/log/agent/white_list/*"):
            with open(path, errors="replace") as f:
                text += f.read()
        return text

    def origin_events(self, directory="originLog"):
        """What the model library logged while learning; "raspOriginLog" for
        the runtime-application engine."""
        events = []
        for path in glob.glob(f"{self.root}/var/base/{directory}/*.json"):
            try:
                with open(path) as f:
                    events += [json.loads(item["message"]) for item in json.load(f)]
            except (ValueError, KeyError, TypeError):
                pass  # being appended to: read it next time
        return events

    def stop(self):
        if self.process:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
            self.output.close()
        shutil.rmtree(self.root, ignore_errors=True)


def loopback_target():
    """A listener on every loopback address, so that 127.0.0.2 (not one of the
    host's own addresses, which the module filters) can be connected to."""
    import threading
    target = socket.socket()
    target.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    target.bind(("0.0.0.0", 0))
    target.listen(64)
    threading.Thread(target=lambda: [target.accept() for _ in iter(int, 1)], daemon=True).start()
    return target.getsockname()[1]


def private_resolver(work_dir):
    """A resolv.conf naming loopback: resolver queries never leave the host."""
    path = os.path.join(work_dir, "resolv.conf")
    with open(path, "w") as f:
        f.write("nameserver 127.0.0.1\n")
    return path




class Run:
    """What one script starts, stopped at its end whatever happened: the
    agent, the actors and a work directory."""

    def __init__(self, stage):
        self.stage = stage
        self.work_dir = tempfile.mkdtemp(prefix="wl-e2e-work-")
        self.agent = None
        self.actors = []
        self.cleanups = []  # called at the end, before the agent stops
        self._resolv_conf = self._connect_port = None

    def new_agent(self):
        self.agent = Agent(self.stage)
        return self.agent

    def actor(self, tag, python=PYTHON):
        """An actor that connects to loopback_target() with private_resolver()."""
        if self._connect_port is None:
            self._resolv_conf, self._connect_port = private_resolver(self.work_dir), loopback_target()
        self.actors.append(Actor(tag, self.work_dir, self._connect_port, self._resolv_conf, python))
        return self.actors[-1]

    @property
    def connect_port(self):
        return self._connect_port

    def close(self):
        for cleanup in self.cleanups:
            cleanup()
        for actor in self.actors:
            actor.stop()
        if self.agent:
            self.agent.stop()
        shutil.rmtree(self.work_dir, ignore_errors=True)


def main(body, skip_reason, failures=(AssertionError,)):
    """Runs body(Run) as root with the stage named by argv[1]: exit status 0
    passed, 1 failed (with the agent's logs), 77 skipped."""
    if os.geteuid() != 0:
        print(f"SKIP: {skip_reason}")
        return 77
    run = Run(sys.argv[1])
    try:
        body(run)
        return 0
    except failures as failure:
        print(f"FAILED: {failure!r}")
        if run.agent:
            run.agent.show_logs()
        return 1
    finally:
        run.close()
