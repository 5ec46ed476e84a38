"""Bounded hand-over from the application's threads to one sender thread.

The application only appends to a deque; a daemon thread turns entries into
JSON lines and writes them to the agent's socket. Whatever cannot be queued
or delivered is dropped and counted, never waited for.
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

COUNTERS = ("repeats_suppressed", "queued", "sent", "dropped_queue_full", "dropped_no_agent",
            "dropped_too_long", "errors")


def encode_line(entry, app_cmd):
    """One queued entry as the bytes of one telemetry line."""
    pid, when, request, action, kind, subject = entry
    data = dict(request) if request else {}
    if app_cmd:
        data["appCmd"] = app_cmd
    data["data"] = {"type": kind, "action": action, "data": subject}
    text = json.dumps({"pid": pid, "time": when, "data": data}, ensure_ascii=False, separators=(",", ":"))
    try:
        # Names and bodies that were not UTF-8 travel as their original bytes:
        # the agent's records hold bytes.
        return text.encode("utf-8", "surrogateescape") + b"\n"
    except UnicodeEncodeError:
        return text.encode("utf-8", "replace") + b"\n"


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
        result["events"] = result["queued"] + result["dropped_queue_full"] + result["repeats_suppressed"]
        result["queue_depth"] = len(self._queue)
        result["queue_max"] = self.config.queue_max
        result["connected"] = self._sock is not None
        result["socket"] = self.config.socket_path
        return result

    def put(self, entry):
        """Called on the application's threads: never blocks on I/O."""
        if self.closed:
            return False
        if len(self._queue) >= self.config.queue_max:
            self.count("dropped_queue_full")
            self.warn_if_due()
            return False
        self._queue.append(entry)
        self.count("queued")
        if self._thread is None:
            self._start_thread()
        if not self._wake.is_set():
            self._wake.set()
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
            self._wake.wait(1.0)
            self._wake.clear()
            self.drain(None)

    def drain(self, lock_timeout):
        """Sends what is queued; lock_timeout None waits for a concurrent drain."""
        if not self._send_lock.acquire(timeout=-1 if lock_timeout is None else lock_timeout):
            return
        try:
            while self._queue:
                lines = []
                while self._queue and len(lines) < 256:
                    entry = self._queue.popleft()
                    try:
                        line = encode_line(entry, self.app_cmd)
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
