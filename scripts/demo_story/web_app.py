"""The demo's sample web application: a tiny notes service. Unaware of the
probe, which PYTHONPATH loads.

usage: web_app.py PORT DATA_DIR"""
import os
import sqlite3
import subprocess
import sys
from urllib.parse import parse_qs

DATA = sys.argv[2]
NOTES = os.path.join(DATA, "notes")
DB = os.path.join(DATA, "notes.db")
os.makedirs(NOTES, exist_ok=True)
os.makedirs(os.path.join(DATA, "www"), exist_ok=True)
with sqlite3.connect(DB) as db:
    db.execute("create table if not exists notes (name text, text text)")


def search(query, form):
    with sqlite3.connect(DB) as db:
        rows = db.execute("select name from notes where text like ?", ("%" + query["q"][0] + "%",)).fetchall()
    return repr(rows)


def save(query, form):
    # The name is trusted as given: a "../" in it writes outside the notes.
    name = form["name"][0]
    with open(os.path.join(NOTES, name), "w") as f:
        f.write(form["text"][0])
    with sqlite3.connect(DB) as db:
        db.execute("insert into notes values (?, ?)", (name, form["text"][0]))
    return "saved " + name


def count(query, form):
    # Built into a shell line: a "; ..." in the name runs more.
    return subprocess.run("wc -c " + query["name"][0], shell=True, cwd=NOTES, capture_output=True,
                          text=True).stdout


ROUTES = {"/search": search, "/save": save, "/count": count}


def application(environ, start_response):
    length = int(environ.get("CONTENT_LENGTH") or 0)
    form = parse_qs(environ["wsgi.input"].read(length).decode()) if length else {}
    route = ROUTES.get(environ.get("PATH_INFO", ""))
    if route is None:
        start_response("404 Not Found", [("Content-Type", "text/plain")])
        return [b"no such page"]
    body = route(parse_qs(environ.get("QUERY_STRING", "")), form).encode()
    start_response("200 OK", [("Content-Type", "text/plain"), ("Content-Length", str(len(body)))])
    return [body]


if __name__ == "__main__":
    from wsgiref.simple_server import WSGIRequestHandler, make_server

    class Quiet(WSGIRequestHandler):
        def log_message(self, *args):
            pass

    make_server("127.0.0.1", int(sys.argv[1]), application, handler_class=Quiet).serve_forever()
