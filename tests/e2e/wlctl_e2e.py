"""wlctl against a running agent: status, models with learning progress,
show, alarms with ids, feedback that stops an alarm, the model commands and
their exit codes, the module switch, raw commands to both channels, and
/healthz and /metrics scraped over loopback. Alarm ids survive a restart.

usage: wlctl_e2e.py STAGE_DIR
Exit 0 passed, 1 failed, 77 skipped (not root)."""
import json
import os
import socket
import subprocess
import sys
import time
import urllib.error
import urllib.request

import harness
from harness import PYTHON, free_port, wait_for

# wlctl's exit codes (wlctl --help)
OK, REFUSED, USAGE, UNREACHABLE, NOT_FOUND, FORBIDDEN = 0, 1, 2, 4, 5, 6


def run_json(agent, *args):
    result = agent.wlctl("--json", *args)
    assert result.returncode == OK, f"wlctl {' '.join(args)}: {result.returncode} {result.stderr}"
    return json.loads(result.stdout)


def telemetry(agent, pid, command):
    message = {"pid": pid, "time": int(time.time()),
               "data": {"url": "http://127.0.0.1/run", "method": "GET",
                        "data": {"type": "process", "action": "execute", "data": command}}}
    assert agent.wlctl("telemetry", json.dumps(message)).returncode == OK


def alarms_about(agent, command):
    listed = run_json(agent, "alarms", "--model", "shop", "--kind", "execute")
    return [a for a in listed["alarms"] if a["subject"] == command]


def start_shop(agent, app):
    """A runtime-application model that filters at once (period 0)."""
    exe = os.readlink(f"/proc/{app.pid}/exe")

    def started():
        # The module pumps its task channel only once its start-up reached the asset wait.
        try:
            return subprocess.run([f"{agent.root}/bin/wlctl", "--root", agent.root, "--rasp", "start", "shop", exe,
                                   str(app.port), "0"], capture_output=True, timeout=60).returncode == OK
        except subprocess.TimeoutExpired:
            return False
    wait_for("the app model to start", started, 150, every=2)


def http(port, path, method="GET"):
    request = urllib.request.Request(f"http://127.0.0.1:{port}{path}", method=method)
    try:
        with urllib.request.urlopen(request, timeout=10) as response:
            return response.status, response.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()


def metric(text, name, **labels):
    want = ",".join(f'{k}="{v}"' for k, v in labels.items())
    prefix = f"{name}{{{want}}} " if labels else f"{name} "
    for line in text.splitlines():
        if line.startswith(prefix):
            return float(line.split()[-1])
    return None


def check(agent, metrics_port, app):
    status = wait_for("the agent's status", lambda: agent.wlctl("--json", "status").returncode == OK and
                      json.loads(agent.wlctl("--json", "status").stdout), 60)
    assert status["agent"]["pid"] == agent.process.pid, status["agent"]
    assert status["module"]["loaded"] is True and status["module"]["centre_switch"] is True
    assert status["agent"]["metrics"] == f"127.0.0.1:{metrics_port}"
    human = agent.wlctl("status")
    assert human.returncode == OK and "\033[" not in human.stdout, "colour on a pipe"
    assert "drops      none" in human.stdout, human.stdout

    exe = os.readlink(f"/proc/{app.pid}/exe")
    port = app.port
    # Start commands wait for the module's asset lists: ask until taken.
    start_shop(agent, app)
    assert agent.wlctl("start", "web", exe, str(port), "30").returncode == OK

    def both_reported():
        models = {m["name"]: m for m in run_json(agent, "models")}
        return models if {"shop", "web"} <= set(models) and models["web"]["status"] else None
    models = wait_for("both models' status", both_reported, 30)
    assert models["shop"]["engine"] == "app" and models["shop"]["period"] == "filtering"
    assert models["shop"]["progress"] == 1.0
    assert models["web"]["engine"] == "host" and models["web"]["period"] == "learning"
    assert models["web"]["progress"] == 0.0 and models["web"]["in_catalogue"] is True
    assert models["web"]["definition"]["ports"] == str(port)
    table = agent.wlctl("models").stdout
    assert "[....................]   0%" in table and "[####################] 100%" in table, table

    # An alarm, with an id the operator can name.
    telemetry(agent, app.pid, "/bin/evil --now")
    first = wait_for("the alarm", lambda: alarms_about(agent, "/bin/evil --now"), 30)[0]
    assert first["engine"] == "app" and first["type"] == "rasp_alarm" and first["id"].isdigit()
    assert first["alarm"]["action"] == "execute"
    assert first["id"] in agent.wlctl("alarms", "--since", "10m").stdout
    assert run_json(agent, "alarms", "--kind", "dns")["alarms"] == []

    # The module's report also left the host's spool through wl-forward's
    # default sink, the file.
    sink = os.path.join(agent.root, "var/log/agent/manager/reports.jsonl")

    def in_sink():
        return os.path.exists(sink) and f'"seq_id":"{first["id"]}"' in open(sink).read()
    wait_for("the alarm in the file sink", in_sink, 30)

    # Fed back, the same behaviour stays quiet; something new still alarms.
    fed = run_json(agent, "feedback", first["id"])
    assert fed["result"] == 0 and fed["ok"] is True, fed
    telemetry(agent, app.pid, "/bin/evil --now")
    telemetry(agent, app.pid, "/bin/other")
    wait_for("the next alarm", lambda: alarms_about(agent, "/bin/other"), 30)
    assert len(alarms_about(agent, "/bin/evil --now")) == 1, "a fed-back alarm came again"
    assert run_json(agent, "models")[[m["name"] for m in run_json(agent, "models")].index("shop")]["alarms"] >= 2

    # What the model learned, by kind, asked afresh.
    shown = run_json(agent, "--rasp", "show", "shop")
    assert shown["fresh"] is True and "/bin/evil --now" in shown["data"]["features"]["execute"], shown
    assert "execute" in agent.wlctl("--rasp", "show", "shop").stdout

    # The model commands, and refusals by distinct exit codes.
    for args in (("query", "web"), ("study", "40", "web"), ("relearn", "30", "web"), ("switch", "off", "web"),
                 ("switch", "on", "web"), ("upload-logs",)):
        answer = run_json(agent, *args)
        assert answer["result"] == 0 and answer["words"] == "done", (args, answer)
    refused = agent.wlctl("--json", "relearn", "30", "no-such-model")
    assert refused.returncode == REFUSED and json.loads(refused.stdout)["result"] == 0x84ce0001, refused
    assert agent.wlctl("feedback", "123").returncode == NOT_FOUND
    assert agent.wlctl("show", "no-such-model").returncode == NOT_FOUND
    assert agent.wlctl("start", "x", "/bin/x", "80,notaport", "5").returncode == USAGE
    assert agent.wlctl("raw", "{not json").returncode == USAGE
    assert agent.wlctl("--root", "/nonexistent", "status").returncode == UNREACHABLE
    os.chmod(agent.root, 0o755)  # so that another user can run wlctl from this root at all
    nobody = subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                             f"{agent.root}/bin/wlctl", "--root", agent.root, "status"],
                            capture_output=True, text=True, timeout=30)
    os.chmod(agent.root, 0o700)
    assert nobody.returncode == FORBIDDEN, (nobody.returncode, nobody.stderr)
    assert oct(os.stat(f"{agent.root}/var/run/wl-agent.sock").st_mode & 0o777) == "0o600"

    # Raw commands on both channels.
    assert run_json(agent, "raw", '{"opr_code":2,"data":{"list":["web"]}}')["result"] == 0
    assert agent.wlctl("raw", "--debug", '{"opr_code":2,"data":{"list":["web"]}}').returncode == OK

    # The module switch through the config centre.
    assert agent.wlctl("module", "off").returncode == OK
    assert run_json(agent, "status")["module"]["centre_switch"] is False
    assert agent.wlctl("module", "on").returncode == OK
    assert run_json(agent, "status")["module"]["centre_switch"] is True

    # Health and metrics over loopback.
    assert http(metrics_port, "/healthz") == (200, "ok\n")
    code, text = http(metrics_port, "/metrics")
    assert code == 200
    assert metric(text, "wl_reports_total", type="rasp_alarm") >= 2, text
    assert metric(text, "wl_model_alarms_total", engine="app", model="shop") >= 2
    assert metric(text, "wl_model_learning_progress", engine="host", model="web") == 0.0
    assert metric(text, "wl_alarms_total", engine="app") >= 2
    assert metric(text, "wl_counters_available", library="telemetry") == 1
    assert metric(text, "wl_reports_lost_total", type="alarm") == 0
    assert http(metrics_port, "/metrics", "POST")[0] == 405
    assert http(metrics_port, "/nothing")[0] == 404
    return first["id"]


def main(run):
    agent = run.new_agent()
    metrics_port = free_port()
    os.makedirs(f"{agent.root}/config", exist_ok=True)
    with open(f"{agent.root}/config/agent.conf", "w") as f:
        f.write(f"[metrics]\nlisten = 127.0.0.1:{metrics_port}\n")
    with open(f"{agent.root}/config/baseConfig.ini", "w") as f:
        f.write("[engine]\nalarm_repeat_window_seconds = 0\n")
    app = subprocess.Popen([PYTHON, "-c", "import socket,sys,time\n"
                            "s=socket.socket(); s.bind(('127.0.0.1',0)); s.listen(8)\n"
                            "print(s.getsockname()[1], flush=True); time.sleep(3600)"],
                           stdout=subprocess.PIPE, text=True)
    run.cleanups.append(lambda: (app.kill(), app.wait()))
    app.port = int(app.stdout.readline())
    agent.start("--no-collector", "--no-discover")
    first_id = check(agent, metrics_port, app)

    # Restarted, the agent still knows the alarm, and new ids are higher.
    agent.process.terminate()
    agent.process.wait(timeout=15)
    agent.output.close()
    agent.start("--no-collector", "--no-discover")
    wait_for("the agent again", lambda: agent.wlctl("status").returncode == OK, 60)
    kept = [a["id"] for a in run_json(agent, "alarms")["alarms"]]
    assert first_id in kept, kept
    start_shop(agent, app)  # a period of 0 is not kept in the catalogue over a restart
    telemetry(agent, app.pid, "/bin/after-restart")
    later = wait_for("an alarm after the restart", lambda: alarms_about(agent, "/bin/after-restart"), 60)
    assert int(later[0]["id"]) > max(int(i) for i in kept), (later[0]["id"], kept)
    print("wlctl: status, models, show, alarms, feedback, commands, module switch, metrics: all as expected")


if __name__ == "__main__":
    sys.exit(harness.main(main, "the agent runs as root",
                          (AssertionError, ValueError, KeyError, subprocess.TimeoutExpired)))
