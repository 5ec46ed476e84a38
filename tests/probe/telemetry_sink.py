"""A stand-in for the agent's telemetry socket: accepts probes on a Unix
stream socket and keeps every line they write."""
import json
import os
import socket
import threading
import time


class TelemetrySink:
    def __init__(self, path):
        self.path = path
        self.lines = []
        self._cond = threading.Condition()
        if os.path.exists(path):
            os.unlink(path)
        self._server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._server.bind(path)
        self._server.listen(16)
        self._closed = False
        self._connections = []
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                conn, _ = self._server.accept()
            except OSError:
                return
            self._connections.append(conn)
            threading.Thread(target=self._read, args=(conn,), daemon=True).start()

    def _read(self, conn):
        with conn, conn.makefile("rb") as stream:
            try:
                for line in stream:
                    with self._cond:
                        self.lines.append(line)
                        self._cond.notify_all()
            except (OSError, ValueError):
                pass

    def count(self):
        with self._cond:
            return len(self.lines)

    def messages(self, start=0):
        with self._cond:
            lines = self.lines[start:]
        return [json.loads(line.decode("utf-8", "surrogateescape")) for line in lines]

    def wait_for(self, predicate, timeout=15.0, start=0):
        """The messages since start once predicate(messages) holds; raises on timeout."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                messages = [json.loads(line.decode("utf-8", "surrogateescape")) for line in self.lines[start:]]
                if predicate(messages):
                    return messages
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError("telemetry never satisfied the wait; got %d messages: %s"
                                         % (len(messages), json.dumps(messages[-5:])[:2000]))
                self._cond.wait(min(left, 0.2))

    def close(self):
        self._closed = True
        try:
            self._server.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._server.close()
        for conn in self._connections:
            try:
                conn.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        if os.path.exists(self.path):
            os.unlink(self.path)


def action_of(message):
    return message["data"]["data"]["action"]


def subject_of(message):
    return message["data"]["data"]["data"]
