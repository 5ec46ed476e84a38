"""Settings, read once from the environment when the probe starts."""
import os
from pathlib import Path

# probes/python/wl_probe/ lies inside the agent's install root.
INSTALL_ROOT = Path(__file__).resolve().parents[3]
DEFAULT_SOCKET = str(INSTALL_ROOT / "var" / "run" / "rasp_telemetry.sock")


def _int(env, name, default, low, high):
    try:
        value = int(env.get(name, ""))
    except ValueError:
        return default
    return min(max(value, low), high)


class Config:
    __slots__ = ("enabled", "socket_path", "queue_max", "repeat_seconds", "body_bytes", "field_bytes",
                 "redact_headers", "warn_seconds")

    def __init__(self, env=None):
        env = os.environ if env is None else env
        self.enabled = env.get("WL_PROBE", "1").strip().lower() not in ("0", "off", "no", "false")
        self.socket_path = env.get("WL_PROBE_SOCKET") or DEFAULT_SOCKET
        self.queue_max = _int(env, "WL_PROBE_QUEUE", 1024, 1, 1 << 16)
        # The agent takes about ten messages a second: the same action of the
        # same route is sent once per this many seconds (0: every time).
        self.repeat_seconds = _int(env, "WL_PROBE_REPEAT_SECONDS", 60, 0, 86400)
        self.body_bytes = _int(env, "WL_PROBE_BODY_BYTES", 4096, 0, 65536)
        self.field_bytes = _int(env, "WL_PROBE_FIELD_BYTES", 8192, 256, 65536)
        self.warn_seconds = _int(env, "WL_PROBE_WARN_SECONDS", 60, 0, 86400)
        names = env.get("WL_PROBE_REDACT_HEADERS", "authorization,proxy-authorization,cookie")
        self.redact_headers = frozenset(n.strip().lower() for n in names.split(",") if n.strip())
