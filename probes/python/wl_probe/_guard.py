"""Per-thread state of the probe: the mark that the probe itself is at work,
so that its own I/O (the telemetry socket, logging) never turns into
telemetry, and what a handler leaves for the next event on the thread."""
import threading

from ._context import BUSY, REQUEST


class _Local(threading.local):
    # Defaults as class attributes: a thread that never set one reads it
    # without the AttributeError that getattr(local, name, default) raises
    # and swallows, which cost more than the rest of an event's handling.
    popen_line = None  # the command line of the Popen being started
    resolved = None  # (host, port, when) of the last name looked up
    sql_depth = 0  # wrapped statement methods under way


local = _Local()


def mark_probe_thread():
    """For the probe's own threads, busy for good."""
    REQUEST.set(BUSY)


class busy:
    __slots__ = ("_token",)

    def __enter__(self):
        self._token = REQUEST.set(BUSY)
        return self

    def __exit__(self, *exc):
        REQUEST.reset(self._token)
        return False
