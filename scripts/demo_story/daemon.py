"""The demo's host-side daemon: every second it appends to its log and
reports to its collector on 127.0.0.2. Commands on its port:
  ping     answers pong
  backup   connects to a backup server on 127.0.0.3 (something new)
  run      starts /usr/bin/id (something new)

usage: daemon.py PORT SERVICE_PORT LOG_DIR"""
import os
import socket
import socketserver
import subprocess
import sys
import threading
import time

PORT, SERVICE, LOG = int(sys.argv[1]), int(sys.argv[2]), os.path.join(sys.argv[3], "daemon.log")


def send(address, text):
    with socket.create_connection((address, SERVICE), timeout=5) as s:
        s.sendall(text.encode())


def heartbeat():
    while True:
        with open(LOG, "a") as f:
            f.write("%d alive\n" % time.time())
        try:
            send("127.0.0.2", "stats\n")
        except OSError:
            pass
        time.sleep(1)


class Handler(socketserver.StreamRequestHandler):
    def handle(self):
        word = self.rfile.readline().decode().strip()
        if word == "backup":
            send("127.0.0.3", "backup\n")
            answer = "backed up"
        elif word == "run":
            answer = subprocess.run(["/usr/bin/id", "-un"], capture_output=True, text=True).stdout.strip()
        else:
            answer = "pong"
        self.wfile.write((answer + "\n").encode())


if __name__ == "__main__":
    server = socketserver.ThreadingTCPServer(("127.0.0.1", PORT), Handler)
    threading.Thread(target=heartbeat, daemon=True).start()
    server.serve_forever()
