"""The Debian package on this machine: a real install with dpkg, the agent
started as its systemd unit would start it, an upgrade to a higher version
that keeps models and catalogue, then removal and purge that leave nothing
behind. Needs root; anything the package owns already on this host makes it
skip rather than touch it.

Usage: package_test.py STAGE SOURCE_DIR"""
import configparser
import grp
import hashlib
import json
import os
import shlex
import signal
import stat
import subprocess
import sys
import tempfile
import time

PACKAGE = "wl-agent"
ROOT = "/opt/wl-agent"
STATE = "/var/lib/wl-agent"
LOGS = "/var/log/wl-agent"
ETC = "/etc/wl-agent"
GROUP = "wl-telemetry"
UNIT = "/lib/systemd/system/wl-agent.service"
WANTS = "/etc/systemd/system/multi-user.target.wants/wl-agent.service"
# Where a package's files and its traces land; compared before and after.
WATCHED = ["/opt", "/etc", "/usr/bin", "/usr/share/doc", "/usr/share/bash-completion", "/lib/systemd/system",
           "/var/lib", "/var/log"]
NOT_OURS = ("/var/lib/dpkg", "/var/lib/apt", "/var/log/apt", "/var/log/dpkg.log", "/etc/group-", "/etc/gshadow-",
            "/etc/passwd-", "/etc/shadow-", "/etc/ld.so.cache", "/var/lib/systemd/catalog")


def run(*args, check=True, timeout=120, **kwargs):
    result = subprocess.run(list(args), capture_output=True, text=True, timeout=timeout, **kwargs)
    if check and result.returncode != 0:
        raise AssertionError(f"{' '.join(args)} exited {result.returncode}:\n{result.stdout}{result.stderr}")
    return result


def expect(condition, what):
    if not condition:
        raise AssertionError(what)


def package_status():
    result = run("dpkg-query", "-W", "-f=${Status} ${Version}", PACKAGE, check=False)
    return result.stdout.strip() if result.returncode == 0 else ""


def installed():
    return package_status().startswith("install ok installed")


def group_exists():
    try:
        grp.getgrnam(GROUP)
        return True
    except KeyError:
        return False


def snapshot():
    paths = set()
    for top in WATCHED:
        for directory, dirs, files in os.walk(top):
            for name in dirs + files:
                path = os.path.join(directory, name)
                if not path.startswith(NOT_OURS):
                    paths.add(path)
    return paths


def mode_of(path):
    st = os.lstat(path)
    return stat.S_IMODE(st.st_mode), st.st_uid, st.st_gid


def hashes(top):
    out = {}
    for directory, _, files in os.walk(top):
        for name in files:
            path = os.path.join(directory, name)
            if os.path.isfile(path) and not os.path.islink(path):
                with open(path, "rb") as f:
                    out[path] = hashlib.sha256(f.read()).hexdigest()
    return out


def unit_service_section():
    parser = configparser.ConfigParser(strict=False, interpolation=None)
    parser.optionxform = str
    parser.read(UNIT)
    return parser["Service"]


class UnitProcess:
    """ExecStart as systemd would run it (PID 1 here is not systemd): the
    unit's umask, no new privileges and its capability bounding set, with
    stdout and stderr to a file in place of the journal."""

    def __init__(self, output, command=None):
        service = unit_service_section()
        self.output_path = output
        argv = command or shlex.split(service["ExecStart"])
        caps = ",".join("+" + c.lower().removeprefix("cap_") for c in service["CapabilityBoundingSet"].split())
        wrapper = ["setpriv", f"--bounding-set=-all,{caps}"]
        if service.get("NoNewPrivileges") == "yes":
            wrapper.append("--no-new-privs")
        script = f"umask {service['UMask']} && exec {shlex.join(wrapper + argv)}"
        self.output = open(output, "w")
        self.process = subprocess.Popen(["sh", "-c", script], stdout=self.output, stderr=subprocess.STDOUT,
                                        start_new_session=True)

    def text(self):
        with open(self.output_path, errors="replace") as f:
            return f.read()

    def running(self):
        return self.process.poll() is None

    def stop(self):
        """SIGTERM to the agent alone, as KillMode=mixed does; True when it and
        its children were gone within TimeoutStopSec."""
        clean = True
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout=30)
            except subprocess.TimeoutExpired:
                clean = False
        try:
            os.killpg(self.process.pid, 0)
            clean = False  # something of the service outlived the agent
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        self.output.close()
        return clean


def wait_for(what, check, timeout=90, every=0.5):
    deadline = time.time() + timeout
    last = None
    while time.time() < deadline:
        last = check()
        if last:
            return last
        time.sleep(every)
    raise AssertionError(f"timed out waiting for {what}")


def wlctl(*args):
    return run("/usr/bin/wlctl", *args, check=False, timeout=40)


def build_packages(source, stage, out):
    debs = []
    for version in ("1.0~test1", "1.0~test2"):
        result = run(os.path.join(source, "scripts/package"), "--stage", stage, "--version", version, "--out", out,
                     "--fast", timeout=300)
        debs.append(result.stdout.strip().splitlines()[-1])
        expect(os.path.isfile(debs[-1]), f"scripts/package printed {debs[-1]}, which is not there")
    return debs


def check_install(stage, version):
    expect(package_status() == f"install ok installed {version}", f"dpkg says: {package_status()}")

    # The stage as a whole, not a list of files; what runs made there stays out.
    for directory, dirs, files in os.walk(stage):
        dirs[:] = [d for d in dirs if d != "__pycache__" and not (directory == stage and d in ("var", "config"))]
        for name in files:
            relative = os.path.relpath(os.path.join(directory, name), stage)
            expect(os.path.isfile(os.path.join(ROOT, relative)), f"{relative} of the stage is not installed")
    for path in ("bin/wl-agent", "bin/wlctl", "vr_agent/wl-collector"):
        expect(os.access(os.path.join(ROOT, path), os.X_OK), f"{path} is not executable")
    expect(os.readlink(f"{ROOT}/var") == STATE, "the install root's var/ does not lead to the state")
    expect(os.readlink(f"{ROOT}/config") == ETC, "the install root's config/ does not lead to /etc")
    expect(os.path.realpath("/usr/bin/wlctl") == f"{ROOT}/bin/wlctl", "wlctl on the path is not the package's")
    completion = "/usr/share/bash-completion/completions/wlctl"
    if os.path.exists(f"{stage}/share/bash-completion/completions/wlctl"):
        expect(os.path.isfile(completion), "the stage's bash completion for wlctl is not installed")

    # Every binary finds its libraries in the installed tree or the declared dependencies.
    depends = run("dpkg-query", "-W", "-f=${Depends}", PACKAGE).stdout
    for needed in ("libc6:i386", "libcjson1:i386", "libbpf1"):
        expect(needed in depends, f"Depends lacks {needed}: {depends}")
    for directory, _, files in os.walk(ROOT):
        for name in files:
            path = os.path.join(directory, name)
            with open(path, "rb") as f:
                if f.read(4) != b"\x7fELF":
                    continue
            expect("not found" not in run("ldd", path, check=False).stdout, f"{path}: a library is not found")

    conffiles = run("dpkg-query", "-W", "-f=${Conffiles}", PACKAGE).stdout
    for name in ("agent.conf", "whitelist_port.cfg", "baseConfig.ini"):
        expect(f"{ETC}/{name} " in conffiles, f"{ETC}/{name} is not a conffile")
    with tempfile.TemporaryDirectory() as defaults:
        run(f"{stage}/bin/wl-agent", "--write-default-config", defaults)
        with open(f"{defaults}/agent.conf") as want, open(f"{ETC}/agent.conf") as got:
            expect(want.read() == got.read(), "/etc/wl-agent/agent.conf is not the agent's default text")
    expect(os.path.isdir(f"{ETC}/agent.conf.d"), "no drop-in directory")
    expect(mode_of(f"{ETC}/agent.conf")[0] & 0o007 == 0, "agent.conf is readable by everyone")

    expect(group_exists(), f"no group {GROUP}")
    telemetry = grp.getgrnam(GROUP).gr_gid
    expect(mode_of(STATE) == (0o750, 0, telemetry), f"{STATE}: {mode_of(STATE)}")
    for path in ("base", "spool", "asset"):
        expect(mode_of(f"{STATE}/{path}") == (0o750, 0, 0), f"{STATE}/{path}: {mode_of(f'{STATE}/{path}')}")
    expect(mode_of(f"{STATE}/run") == (0o755, 0, 0), f"{STATE}/run: {mode_of(f'{STATE}/run')}")
    expect(mode_of(LOGS) == (0o750, 0, 0), f"{LOGS}: {mode_of(LOGS)}")
    expect(os.path.realpath(f"{STATE}/log") == LOGS, "the module's logs do not go to /var/log/wl-agent")

    expect(os.path.isfile(UNIT), "no unit")
    expect(os.path.realpath(WANTS) == os.path.realpath(UNIT), "the service is not enabled")
    verify = run("systemd-analyze", "verify", UNIT, check=False)
    expect(verify.returncode == 0 and "wl-agent" not in verify.stderr,
           f"systemd-analyze verify:\n{verify.stdout}{verify.stderr}")


def check_running_agent(agent):
    def said(text):
        expect(agent.running(), f"the agent exited with {agent.process.returncode}")
        return text in agent.text()

    wait_for("the agent's start", lambda: said(f"install root {ROOT}, settings {ETC}/agent.conf"), 30)
    wait_for("the drop-in in agent.conf.d to switch discovery off", lambda: said("discovery is off"), 30)
    if any(line.split()[:1] == ["status"] for line in wlctl("--help").stdout.splitlines()):
        wait_for("wlctl status to tell a healthy agent", lambda: agent.running() and wlctl("status").returncode == 0)
        status = json.loads(wlctl("--json", "status").stdout)
        expect(isinstance(status, dict) and status, f"wlctl --json status: {status}")
    else:
        wait_for("the module's answer on the task channel",
                 lambda: agent.running() and "result 0x" in wlctl("query", "pkgtest").stdout)
    # The collector runs under the unit's capability set, where this host lets it run at all.
    if run(f"{ROOT}/vr_agent/wl-collector", "probe", check=False).returncode == 0:
        wait_for("the collector's answer", lambda: agent.running() and wlctl("collector", "--json").returncode == 0)


def start_a_model(agent):
    exe = os.path.realpath(sys.executable)
    # Refused while the module waits for its assets: asked again.
    wait_for("the start of a model", lambda: wlctl("start", "pkgtest", exe, "8", "1440").returncode == 0, 60, 2)
    catalogue = f"{STATE}/base/base_model.cfg"
    wait_for("the catalogue", lambda: os.path.isfile(catalogue) and "pkgtest" in open(catalogue).read(), 30)
    # A saved model: the library writes them every two minutes, too slow to wait for.
    os.makedirs(f"{STATE}/base/model", exist_ok=True)
    with open(f"{STATE}/base/model/pkgtest.upgrade-check", "wb") as f:
        f.write(os.urandom(4096))


def check_written_modes(agent):
    telemetry = f"{STATE}/run/rasp_telemetry.sock"
    wait_for("the telemetry socket", lambda: os.path.exists(telemetry), 30)
    expect(mode_of(telemetry)[1:] == (0, grp.getgrnam(GROUP).gr_gid), f"{telemetry} is not the group's")
    expect(mode_of(telemetry)[0] == 0o660, f"{telemetry}: {oct(mode_of(telemetry)[0])}")
    logs = [os.path.join(d, n) for d, _, files in os.walk(LOGS) for n in files]
    expect(logs, "no log files under /var/log/wl-agent")
    for path in logs + [f"{STATE}/base/base_model.cfg"]:
        expect(mode_of(path)[0] & 0o007 == 0, f"{path} is readable by everyone: {oct(mode_of(path)[0])}")


def unchanged_since(marker, *tops):
    """What changed in read-only places (ProtectSystem=strict)."""
    return run("find", *tops, "-xdev", "-newer", marker, check=False).stdout.split()


def main(stage, source):
    if os.geteuid() != 0:
        print("SKIP: installing a package needs root")
        return 77
    if package_status() or any(os.path.lexists(p) for p in (ROOT, STATE, LOGS, ETC)):
        print(f"SKIP: {PACKAGE} (or its directories) is already on this host; not touching it")
        return 77

    work = tempfile.mkdtemp(prefix="wl-package-test-")
    agent = None
    # A development host has the group already (scripts/setup): taken away
    # for the test, as on a fresh machine, and given back with its number.
    host_gid = grp.getgrnam(GROUP).gr_gid if group_exists() else None
    if host_gid is not None:
        run("groupdel", GROUP)
    before = snapshot()
    try:
        debs = build_packages(source, stage, work)
        env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
        run("dpkg", "-i", debs[0], env=env)
        check_install(stage, "1.0~test1")

        with open(f"{ETC}/agent.conf.d/50-test.conf", "w") as f:
            f.write("[discovery]\nenabled = false\n")
        marker = os.path.join(work, "marker")
        open(marker, "w").close()
        agent = UnitProcess(os.path.join(work, "agent-1.out"))
        check_running_agent(agent)
        start_a_model(agent)
        check_written_modes(agent)
        expect(agent.stop(), "the agent or its collector did not stop on SIGTERM")
        changed = unchanged_since(marker, ROOT, ETC, "/usr/bin/wlctl")
        changed = [p for p in changed if not p.startswith(f"{ETC}/agent.conf.d")]
        expect(not changed, f"the agent wrote outside its state and log directories: {changed}")
        agent = None

        kept = hashes(f"{STATE}/base")
        expect(any(p.endswith("base_model.cfg") for p in kept), "no catalogue to keep")
        gid = grp.getgrnam(GROUP).gr_gid
        run("dpkg", "-i", debs[1], env=env)
        expect(package_status() == "install ok installed 1.0~test2", f"after the upgrade dpkg says {package_status()}")
        expect(hashes(f"{STATE}/base") == kept, "the upgrade changed models or catalogue")
        expect(os.path.isfile(f"{ETC}/agent.conf.d/50-test.conf"), "the upgrade lost a drop-in")
        expect(grp.getgrnam(GROUP).gr_gid == gid, "the upgrade made the group anew")

        # By hand, with no options: the packaged root and its /etc settings are the defaults.
        agent = UnitProcess(os.path.join(work, "agent-2.out"), [f"{ROOT}/bin/wl-agent"])
        check_running_agent(agent)
        expect(agent.stop(), "the upgraded agent did not stop on SIGTERM")
        agent = None

        run("dpkg", "--remove", PACKAGE, env=env)
        expect(not os.path.lexists(ROOT), f"{ROOT} outlived the removal")
        expect(os.path.isfile(f"{ETC}/agent.conf"), "removal (not purge) took the settings")
        expect(os.path.isfile(f"{STATE}/base/base_model.cfg"), "removal (not purge) took the models")
        run("dpkg", "--purge", PACKAGE, env=env)
        expect(not package_status().startswith("install"), f"after the purge dpkg says {package_status()}")
        expect(not group_exists(), f"group {GROUP} outlived the purge")
        # Only names of this package: other work on the host may add files meanwhile.
        left = sorted(p for p in snapshot() - before if any(n in p for n in ("wl-agent", "wlctl", GROUP)))
        expect(not left, "left behind by the purge:\n" + "\n".join(left))
        print("package: installed, ran, upgraded, removed and purged")
        return 0
    except AssertionError as failure:
        print(f"FAIL: {failure}")
        for name in ("agent-1.out", "agent-2.out"):
            path = os.path.join(work, name)
            if os.path.exists(path):
                with open(path, errors="replace") as f:
                    print(f"--- {name} (tail)\n" + "".join(f.readlines()[-30:]))
        return 1
    finally:
        if agent is not None:
            agent.stop()
        if package_status():
            run("dpkg", "--purge", PACKAGE, check=False)
        if host_gid is None and group_exists() and not package_status():
            run("groupdel", GROUP, check=False)
        if host_gid is not None and not group_exists():
            run("groupadd", "--system", "--gid", str(host_gid), GROUP, check=False)
        run("rm", "-rf", work, check=False)


if __name__ == "__main__":
    sys.exit(main(os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])))
