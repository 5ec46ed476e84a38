#!/usr/bin/python3
"""End to end through the real agent: a temporary install root made from
the stage (probes/python included); wl-agent started on it; the fixture web
application started with the probe loaded by PYTHONPATH alone (the probe
finds the agent's socket from its own place in the root); a
runtime-application model started for it with wlctl. The requests' actions
must reach the model library, learning: its runtime-application origin log.

usage: probe_agent_e2e.py STAGE_DIR
Exit 0 passed, 1 failed, 77 skipped (not root, or no stage)."""
import json
import os
import socket
import subprocess
import sys
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "e2e"))
from harness import PYTHON, Agent, free_port, wait_for  # noqa: E402


def main():
    stage = sys.argv[1]
    if os.geteuid() != 0:
        print("SKIP: the agent runs as root")
        return 77
    if not os.path.exists(os.path.join(stage, "bin", "wl-agent")):
        print("SKIP: no stage at " + stage)
        return 77
    agent = Agent(stage)
    root = agent.root
    app_dir = os.path.join(root, "app")
    os.mkdir(app_dir)
    agent.start("--no-discover")
    app = None
    failed = False
    try:
        socket_path = os.path.join(root, "var", "run", "rasp_telemetry.sock")
        wait_for("the telemetry socket", lambda: os.path.exists(socket_path))
        port = free_port()
        env = dict(os.environ, PYTHONPATH=os.path.join(root, "probes", "python", "autostart"), APP_DIR=app_dir)
        for key in [k for k in env if k.startswith("WL_PROBE")]:
            del env[key]
        app = subprocess.Popen([PYTHON, os.path.join(HERE, "fixtures", "web_app.py"), str(port)], env=env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        def serving():
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                return True
            except OSError:
                if app.poll() is not None:
                    raise AssertionError("the application exited")
                return False
        wait_for("the application", serving, 30)
        exe = os.readlink("/proc/%d/exe" % app.pid)

        def started():
            return agent.wlctl("--rasp", "start", "shop", exe, str(port), "60").returncode == 0
        wait_for("the model to start", started, 90, every=2)

        def learned():
            # The model knows the application's process only after a scan; ask until it learns.
            for path, query in (("/search", "name=lamp"), ("/run", ""), ("/lookup", "")):
                with urllib.request.urlopen("http://127.0.0.1:%d%s?%s" % (port, path, query), timeout=10) as r:
                    r.read()
            messages = agent.origin_events("raspOriginLog")
            got = {(m["data"]["data"]["action"], json.dumps(m["data"]["data"].get("data"))) for m in messages
                   if m.get("pid") == app.pid and m["data"].get("url", "").startswith("http://127.0.0.1:%d/" % port)}
            want = {("hsql", json.dumps("select name from items where name = ?")),
                    ("execute", json.dumps("/bin/echo hello")), ("dns", json.dumps("localhost"))}
            return want <= got and got
        got = wait_for("the model to learn the application's actions", learned, 120, every=3)
        print("the model learned: " + ", ".join(sorted(action for action, _ in got)))
    except Exception as error:
        failed = True
        print("FAILED: %s" % error)
        agent.show_logs()
    finally:
        if app is not None:
            app.kill()
            app.wait()
        agent.stop()
    print("%d passed, %d failed" % (0 if failed else 1, 1 if failed else 0))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
