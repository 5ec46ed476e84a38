"""End to end on this host: with discovery on, the agent proposes a model for
an application it finds listening and starts watching it, and proposes none
for a program inside its own install root.

usage: discovery_e2e.py STAGE_DIR
Exit 0 passed, 1 failed, 77 skipped (not root)."""
import os
import re
import shutil
import sys

import harness
from harness import wait_for


def check(run):
    agent = run.new_agent()
    own_python = os.path.join(agent.root, "vr_agent", "python-inside")
    shutil.copy2(os.path.realpath("/usr/bin/python3"), own_python)
    outsider = run.actor("outsider")
    insider = run.actor("insider", python=own_python)
    agent.start("--collector-backend", "ebpf")
    name = os.path.basename(outsider.exe)
    # Another application of the same name on this host makes it "name-2".
    proposal = re.compile(rf"discovered {re.escape(name)}(-\d+)? \({re.escape(outsider.exe)}, ports")
    wait_for("a model for the outside application", lambda: proposal.search(agent.agent_output()), 60)
    wait_for("its process to be watched", lambda: agent.watches(outsider.pid), 60)
    output = agent.agent_output()
    assert "python-inside" not in output, "a program of the agent's own was modelled"
    # (It may still be watched: it is a child of this test, which listens too.)
    assert str(insider.port) not in output, "a port of the agent's own program was modelled"
    print(f"discovered {name} and watches pid {outsider.pid}; nothing of the agent's own", flush=True)


if __name__ == "__main__":
    sys.exit(harness.main(check, "the agent and its collector run as root only"))
