"""End to end on this host: the real agent, module, collector and model
library. A stand-in application is modelled with a start command and does one
of everything the collector reports; each must reach the model library (its
origin log) with the right fields, while an unmodelled sibling doing the same
leaves no trace. Then the collector is killed: the module hears it went
offline, restores the filter, and events flow again.

usage: collector_e2e.py STAGE_DIR auto|ebpf|portable
Exit 0 passed, 1 failed, 77 skipped (not root)."""
import json
import os
import signal
import sys

import harness
from harness import wait_for


def expected_events(actor, number, work_dir, connect_port, listen_port, with_dns):
    base = os.path.join(work_dir, f"{actor.tag}-{number}")
    want = [
        ("PROCESS_CREATION", lambda e: e.get("process_path", "").endswith("/sleep")
         and "sleep 0.3" in e.get("process_cmd_line", "")
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


def check(run):
    backend = sys.argv[2]
    actor, _ = run.actor("actor"), run.actor("sibling")
    agent = run.new_agent().start("--collector-backend", backend, "--no-discover")
    status = wait_for("the collector", agent.collector_status)
    with_dns = "DNS_QUERY" not in status.get("unsupported", [])
    print(f"collector up with the {status['backend']} back-end", flush=True)

    def started():
        agent.wlctl("start", "e2e", actor.exe, str(actor.port), "60")
        return agent.watches(actor.pid)
    wait_for("the model's process to be watched", started, 90, every=2)
    run_round(agent, run.actors, 1, run.work_dir, run.connect_port, with_dns)

    old = agent.collector_status()["pid"]
    os.kill(old, signal.SIGKILL)
    wait_for("the module to hear the collector went offline",
             lambda: "vr offline , start reinit" in agent.module_log())
    wait_for("a new collector with the filter restored", lambda: (agent.collector_status() or {}).get("pid")
             not in (None, old) and agent.watches(actor.pid), 90)
    print("collector killed: the module re-initialised and restored the filter", flush=True)
    run_round(agent, run.actors, 2, run.work_dir, run.connect_port, with_dns)


if __name__ == "__main__":
    sys.exit(harness.main(check, "the collector watches processes as root only"))
