"""End to end on this host: the real agent, module, collector and model
library. A stand-in application is modelled with a start command and does one
of everything the collector reports; each must reach the model library (its
origin log) with the right fields, while an unmodelled sibling doing the same
leaves no trace. Then the collector is killed: the module hears it went
offline, restores the filter, and events flow again.

usage: collector_e2e.py STAGE_DIR auto|ebpf|portable
Exit 0 passed, 1 failed, 77 skipped (not root)."""
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

    def __init__(self, tag, work_dir, connect_port, resolv_conf):
        self.tag = tag
        self.port = free_port()
        command = (f"mount --bind {resolv_conf} /etc/resolv.conf && exec {PYTHON} {HERE}/actor.py "
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
    def __init__(self, stage, backend):
        self.root = tempfile.mkdtemp(prefix="wl-e2e-")
        for part in ("bin", "lib", "agent_plugins", "vr_agent"):
            shutil.copytree(os.path.join(stage, part), os.path.join(self.root, part), symlinks=True)
        self.output = open(os.path.join(self.root, "agent.out"), "w")
        self.process = subprocess.Popen(
            [f"{self.root}/bin/wl-agent", "--root", self.root, "--asset-interval", "2",
             "--collector-backend", backend], stdout=self.output, stderr=subprocess.STDOUT)

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

    def origin_events(self):
        events = []
        for path in glob.glob(f"{self.root}/var/base/originLog/*.json"):
            try:
                with open(path) as f:
                    events += [json.loads(item["message"]) for item in json.load(f)]
            except (ValueError, KeyError, TypeError):
                pass  # being appended to: read it next time
        return events

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
        self.output.close()


def expected_events(actor, number, work_dir, connect_port, listen_port, with_dns):
    base = os.path.join(work_dir, f"{actor.tag}-{number}")
    want = [
        ("PROCESS_CREATION", lambda e: e.get("process_path", "").endswith("/true")
         and e.get("parent_pid") == actor.pid),
        ("FILE_CREATION", lambda e: e.get("file_name") == base + ".txt"),
        ("FILE_MODIFICATION", lambda e: e.get("file_name") == base + ".txt"),
        ("FILE_TIME_MODIFICATION", lambda e: e.get("file_name") == base + ".txt"),
        ("FILE_RENAMING", lambda e: e.get("file_name") == base + ".moved"),
        ("FILE_DELETION", lambda e: e.get("file_name") == base + ".moved"),
        ("NETWORK_CONNECTION", lambda e: e.get("dst_ip") == "127.0.0.2" and e.get("dst_port") == connect_port
         and e.get("protocol") == "tcp" and e.get("process_id") == actor.pid),
        ("HOST_PORT_LISTENING", lambda e: e.get("dst_port") == listen_port),
    ]
    if with_dns:
        want += [
            ("DNS_QUERY", lambda e: e.get("query_name") == f"{actor.tag}-{number}.direct.example"),
            ("DNS_QUERY", lambda e: e.get("query_name") == f"{actor.tag}-{number}.resolver.example"),
        ]
    return want


def missing(events, want):
    return [name for name, match in want if not any(e.get("event_id") == name and match(e) for e in events)]


def run_round(agent, actors, number, work_dir, connect_port, with_dns):
    for actor in actors:
        actor.start_round(number)
    ports = {actor.tag: actor.finish_round(number) for actor in actors}
    want = expected_events(actors[0], number, work_dir, connect_port, ports[actors[0].tag], with_dns)
    try:
        wait_for(f"round {number} in the origin log", lambda: not missing(agent.origin_events(), want), 90)
    except AssertionError:
        raise AssertionError(f"round {number}: never reached the model: {missing(agent.origin_events(), want)}")
    leaked = [e for e in agent.origin_events() if "sibling" in json.dumps(e)]
    assert not leaked, f"an unmodelled process was reported: {leaked[:2]}"
    print(f"round {number}: every kind reached the model, nothing of the sibling did", flush=True)


def main():
    stage, backend = sys.argv[1], sys.argv[2]
    if os.geteuid() != 0:
        print("SKIP: the collector watches processes as root only")
        return 77
    work_dir = tempfile.mkdtemp(prefix="wl-e2e-work-")
    resolv_conf = os.path.join(work_dir, "resolv.conf")
    with open(resolv_conf, "w") as f:
        f.write("nameserver 127.0.0.1\n")
    target = socket.socket()
    target.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    target.bind(("0.0.0.0", 0))
    target.listen(64)
    connect_port = target.getsockname()[1]
    threading.Thread(target=lambda: [target.accept() for _ in iter(int, 1)], daemon=True).start()

    actors, agent = [], None
    try:
        actors = [Actor("actor", work_dir, connect_port, resolv_conf),
                  Actor("sibling", work_dir, connect_port, resolv_conf)]
        actor = actors[0]
        agent = Agent(stage, backend)
        status = wait_for("the collector", agent.collector_status)
        with_dns = "DNS_QUERY" not in status.get("unsupported", [])
        print(f"collector up with the {status['backend']} back-end", flush=True)

        def started():
            agent.wlctl("start", "e2e", actor.exe, str(actor.port), "60")
            return agent.watches(actor.pid)
        wait_for("the model's process to be watched", started, 90, every=2)
        run_round(agent, actors, 1, work_dir, connect_port, with_dns)

        old = agent.collector_status()["pid"]
        os.kill(old, signal.SIGKILL)
        wait_for("the module to hear the collector went offline",
                 lambda: "vr offline , start reinit" in agent.module_log())
        wait_for("a new collector with the filter restored", lambda: (agent.collector_status() or {}).get("pid")
                 not in (None, old) and agent.watches(actor.pid), 90)
        print("collector killed: the module re-initialised and restored the filter", flush=True)
        run_round(agent, actors, 2, work_dir, connect_port, with_dns)
        return 0
    except AssertionError as failure:
        print(f"FAILED: {failure}")
        if agent:
            with open(os.path.join(agent.root, "agent.out")) as f:
                print("--- agent output (tail)\n" + "".join(f.readlines()[-30:]))
            for log in glob.glob(f"{agent.root}/var/log/agent/vr_agent/*"):
                with open(log) as f:
                    print(f"--- {log} (tail)\n" + "".join(f.readlines()[-20:]))
        return 1
    finally:
        for actor in actors:
            actor.stop()
        if agent:
            agent.stop()
            shutil.rmtree(agent.root, ignore_errors=True)
        shutil.rmtree(work_dir, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
