"""End to end on this host: with discovery on, the agent proposes a model for
an application it finds listening and starts watching it, and proposes none
for a program inside its own install root.

usage: discovery_e2e.py STAGE_DIR
Exit 0 passed, 1 failed, 77 skipped (not root)."""
import os
import shutil
import sys
import tempfile

from harness import Actor, Agent, loopback_target, private_resolver, wait_for


def main():
    stage = sys.argv[1]
    if os.geteuid() != 0:
        print("SKIP: the agent and its collector run as root only")
        return 77
    work_dir = tempfile.mkdtemp(prefix="wl-e2e-work-")
    resolv_conf, connect_port = private_resolver(work_dir), loopback_target()
    actors, agent = [], None
    try:
        agent = Agent(stage)
        own_python = os.path.join(agent.root, "vr_agent", "python-inside")
        shutil.copy2(os.path.realpath("/usr/bin/python3"), own_python)
        outsider = Actor("outsider", work_dir, connect_port, resolv_conf)
        insider = Actor("insider", work_dir, connect_port, resolv_conf, python=own_python)
        actors = [outsider, insider]
        agent.start("--collector-backend", "ebpf")
        name = os.path.basename(outsider.exe)
        wait_for("a model for the outside application",
                 lambda: f"discovered {name} ({outsider.exe}, ports" in agent.agent_output(), 60)
        wait_for("its process to be watched", lambda: agent.watches(outsider.pid), 60)
        output = agent.agent_output()
        assert "python-inside" not in output, "a program of the agent's own was modelled"
        # (It may still be watched: it is a child of this test, which listens too.)
        assert str(insider.port) not in output, "a port of the agent's own program was modelled"
        print(f"discovered {name} and watches pid {outsider.pid}; nothing of the agent's own", flush=True)
        return 0
    except AssertionError as failure:
        print(f"FAILED: {failure}")
        if agent:
            agent.show_logs()
        return 1
    finally:
        for actor in actors:
            actor.stop()
        if agent:
            agent.stop()
        shutil.rmtree(work_dir, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
