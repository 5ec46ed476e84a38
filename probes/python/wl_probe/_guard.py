"""A per-thread mark that the probe itself is at work, so that its own I/O
(the telemetry socket, logging) never turns into telemetry."""
import threading

local = threading.local()


def is_busy():
    return getattr(local, "busy", False)


def mark_probe_thread():
    local.busy = True


class busy:
    __slots__ = ("_was",)

    def __enter__(self):
        self._was = getattr(local, "busy", False)
        local.busy = True
        return self

    def __exit__(self, *exc):
        local.busy = self._was
        return False
