"""Bounded hand-over from the application's threads to one sender thread.

The application only appends to a deque; a daemon thread turns entries into
JSON lines and writes them to the agent's socket. Whatever cannot be queued
or delivered is dropped and counted, never waited for.

The sender is woken once per batch, not per entry: every wake-up takes the
interpreter lock from the application's threads, which cost a request more
than the telemetry itself.
"""
import collections
import contextvars
import json
import logging
import socket
import threading
import time

from . import _guard

log = logging.getLogger("wl_probe")

# The agent refuses longer lines (platform/orv_rasp/telemetry_server.h).
MAX_LINE_BYTES = 1024 * 1024 - 1
RETRY_SECONDS = 1.0
SEND_TIMEOUT = 5.0
# Woken by a first entry, the sender lets this long's entries gather before it
# sends them in one write, unless the queue fills to half meanwhile.
GATHER_SECONDS = 0.05

COUNTERS = ("queued", "sent", "dropped_queue_full", "dropped_no_agent",
            "dropped_too_long", "errors")


_dumps = json.JSONEncoder(ensure_ascii=False, separators=(",", ":")).encode
_dumps_text = json.encoder.encode_basestring  # what _dumps does for a str, without its checks

# The class of each action, and both as the JSON that introduces its subject.
KIND = {"dns": "network", "address": "network", "execute": "process", "write": "file", "read": "file",
        "delete": "file", "hsql": "sql", "mysql": "sql", "oracle": "sql", "postgre": "sql", "sqlserver": "sql"}
_ACTION_TEXT = {action: '"data":{"type":%s,"action":%s,"data":' % (_dumps(kind), _dumps(action))
                for action, kind in KIND.items()}


class LineEncoder:
    """Queued entries as the bytes of telemetry lines. A request's fields
    are the bulk of a line and the same for all of its actions: their JSON
    is made once per request (per fields object) and reused."""

    def __init__(self, app_cmd):
        self._app_cmd = ',"appCmd":' + _dumps(app_cmd) if app_cmd else ""
        self._no_request_text = "{" + self._app_cmd[1:] + "," if app_cmd else "{"
        self._fields = None
        self._fields_text = ""

    def encode(self, entry):
        """entry: (pid, time, request fields or None, action, subject)."""
        pid, when, fields, action, subject = entry
        if not fields:
            # The text of data's members up to the action: '{"url":...,' or '{'.
            request_text = self._no_request_text
        elif fields is self._fields:
            request_text = self._fields_text
        else:
            # The entry holding fields keeps it alive, so identity is enough.
            request_text = self._fields_text = _dumps(fields)[:-1] + self._app_cmd + ","
            self._fields = fields
        text = '{"pid":%d,"time":%d,"data":%s%s%s}}}' % (
            pid, when, request_text, _ACTION_TEXT[action],
            _dumps_text(subject) if type(subject) is str else _dumps(subject))
        try:
            # Names and bodies that were not UTF-8 travel as their original bytes:
            # the agent's records hold bytes.
            return text.encode("utf-8", "surrogateescape") + b"\n"
        except UnicodeEncodeError:
            return text.encode("utf-8", "replace") + b"\n"


def encode_line(entry, app_cmd):
    """One queued entry as the bytes of one telemetry line."""
    return LineEncoder(app_cmd).encode(entry)


class Sender:
    def __init__(self, config, app_cmd):
        self.config = config
        self.app_cmd = app_cmd
        self.closed = False
        self._warned_at = None
        self._fresh_state()

    def _fresh_state(self):
        self._queue = collections.deque()
        self._wake = threading.Event()
        self._waking = False  # the sender was told to wake: entries need not tell it again
        self._urgent = threading.Event()  # the queue is half full: send without gathering
        self._urgent_depth = max(1, self.config.queue_max // 2)
        self._encoder = LineEncoder(self.app_cmd)
        self._send_lock = threading.Lock()
        self._count_lock = threading.Lock()
        self._thread = None
        self._sock = None
        self._retry_at = 0.0
        self.counts = dict.fromkeys(COUNTERS, 0)

    def after_fork_in_child(self):
        # Locks may have been held by threads that do not exist here.
        sock = self._sock
        self._fresh_state()
        if sock is not None:
            try:
                sock.close()
            except OSError:
                pass

    def count(self, name, n=1):
        with self._count_lock:
            self.counts[name] += n

    def stats(self):
        with self._count_lock:
            result = dict(self.counts)
        # Events the sender saw; the probe adds the repeats it kept back.
        result["events"] = result["queued"] + result["dropped_queue_full"]
        result["queue_depth"] = len(self._queue)
        result["queue_max"] = self.config.queue_max
        result["connected"] = self._sock is not None
        result["socket"] = self.config.socket_path
        return result

    def put(self, entry):
        """Called on the application's threads: never blocks on I/O, and
        takes no lock on the common path."""
        if self.closed:
            return False
        queue = self._queue
        depth = len(queue)
        if depth >= self.config.queue_max:
            self.count("dropped_queue_full")
            self.warn_if_due()
            return False
        queue.append(entry)
        # Unlocked: a rare lost count between threads is tolerated for this
        # one; the counts of drops are kept under the lock.
        self.counts["queued"] += 1
        if self._thread is None:
            self._start_thread()
        if not self._waking:
            self._waking = True
            self._wake.set()
        elif depth + 1 >= self._urgent_depth and not self._urgent.is_set():
            self._urgent.set()
        return True

    def _start_thread(self):
        with self._count_lock:
            if self._thread is not None:
                return
            thread = threading.Thread(target=self._run, name="wl_probe-sender", daemon=True)
            self._thread = thread
        # An empty context: the sender belongs to no request.
        contextvars.Context().run(thread.start)

    def _run(self):
        _guard.mark_probe_thread()
        while not self.closed:
            # No timeout: an idle sender never takes the interpreter lock.
            self._wake.wait()
            if self._queue and len(self._queue) < self._urgent_depth:
                self._urgent.wait(GATHER_SECONDS)
            self._wake.clear()
            self._urgent.clear()
            # From here an entry wakes the sender again; whatever came before is in this drain.
            self._waking = False
            self.drain(None)
        with self._send_lock:
            sock, self._sock = self._sock, None
            if sock is not None:
                sock.close()

    def close(self):
        """Takes no more entries; the sender thread ends."""
        self.closed = True
        self._wake.set()

    def drain(self, lock_timeout):
        """Sends what is queued; lock_timeout None waits for a concurrent drain."""
        if not self._send_lock.acquire(timeout=-1 if lock_timeout is None else lock_timeout):
            return
        try:
            queue = self._queue
            while queue:
                if self._sock is None and time.monotonic() < self._retry_at:
                    # No agent, and not yet time to try again: the lines would be made only to be lost.
                    self._drop_unsent(queue)
                    break
                # Short batches: the interpreter lock is given back at each write,
                # so a large backlog does not hold a request up for long.
                lines = []
                while queue and len(lines) < 64:
                    entry = queue.popleft()
                    try:
                        line = self._encoder.encode(entry)
                    except Exception:
                        self.count("errors")
                        continue
                    if len(line) > MAX_LINE_BYTES:
                        self.count("dropped_too_long")
                        continue
                    lines.append(line)
                if lines:
                    self._write(lines)
        finally:
            self._send_lock.release()

    def _drop_unsent(self, queue):
        dropped = 0
        try:
            while True:
                queue.popleft()
                dropped += 1
        except IndexError:
            pass
        self.count("dropped_no_agent", dropped)
        self.warn_if_due()

    def _connect(self):
        now = time.monotonic()
        if now < self._retry_at:
            return None
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.settimeout(SEND_TIMEOUT)
        try:
            sock.connect(self.config.socket_path)
        except OSError:
            sock.close()
            self._retry_at = now + RETRY_SECONDS
            return None
        self._sock = sock
        return sock

    def _write(self, lines):
        sock = self._sock or self._connect()
        if sock is None:
            self.count("dropped_no_agent", len(lines))
            self.warn_if_due()
            return
        try:
            sock.sendall(b"".join(lines), socket.MSG_NOSIGNAL)  # an application may not ignore SIGPIPE
        except OSError:
            # Nothing tells which lines the agent got whole: all count as lost.
            self._sock = None
            self._retry_at = time.monotonic() + RETRY_SECONDS
            try:
                sock.close()
            except OSError:
                pass
            self.count("dropped_no_agent", len(lines))
            self.warn_if_due()
            return
        self.count("sent", len(lines))

    def flush(self, timeout):
        """Sends the queue on the calling thread, for a process about to end or
        exec; waits, within timeout, for a send the sender thread has begun."""
        with _guard.busy():
            self.drain(timeout)

    def warn_if_due(self):
        now = time.monotonic()
        last = self._warned_at
        if last is not None and now - last < self.config.warn_seconds:
            return
        self._warned_at = now
        with _guard.busy():
            c = self.stats()
            log.warning("wl_probe: telemetry dropped: %d for a full queue (%d max), %d with no agent at %s, "
                        "%d sent so far", c["dropped_queue_full"], c["queue_max"], c["dropped_no_agent"],
                        c["socket"], c["sent"])
