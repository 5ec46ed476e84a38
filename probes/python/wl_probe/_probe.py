"""The audit hook: which interpreter events are actions, and what each
action's subject is."""
import atexit
import os
import shlex
import socket
import sys
import threading
import time

from . import _context, _guard
from ._config import Config
from ._sender import KIND, Sender

# A connect this soon after a look-up on the same thread, to the same port,
# is taken to go to the name looked up.
NAME_MEMORY_SECONDS = 5.0
MAX_RECENT = 4096

_probe = None
_hook_installed = False
_start_lock = threading.Lock()
_local = _guard.local
# O_RDONLY is 0: any access-mode bit, or any of the others, means a write.
_WRITE_FLAGS = os.O_ACCMODE | os.O_CREAT | os.O_TRUNC | os.O_APPEND
_MODULE_SUFFIXES = (".py", ".pyc")
# Absolute paths as opened -> as reported. An application opens a few paths
# over and over; module files are left out (whether one is reported depends
# on who opens it), and relative paths (on the working directory).
_open_paths = {}
MAX_OPEN_PATHS = 1024
MAX_PATH = 4096  # longer ones cannot be opened: they are not kept
# Bound once: emit runs for every action, mostly to find it a repeat.
_current_request = _context.REQUEST.get
_BUSY = _context.BUSY
_monotonic = time.monotonic


class Probe:
    def __init__(self, config):
        self.config = config
        self.active = True
        self.pid = os.getpid()
        try:
            self.app_cmd = shlex.join(sys.orig_argv)[:config.field_bytes]
        except Exception:
            self.app_cmd = ""
        self.sender = Sender(config, self.app_cmd)
        self.repeats_suppressed = 0
        self.context_errors_before = _context.errors  # the middleware's count is the process's, not this probe's
        self.recent = {}
        self.repeat_seconds = config.repeat_seconds
        self.field_bytes = config.field_bytes

    def after_fork_in_child(self):
        self.pid = os.getpid()
        self.recent = {}
        self.repeats_suppressed = 0
        self.context_errors_before = _context.errors
        self.sender.after_fork_in_child()

    def emit(self, action, subject, key=None):
        """subject: text, or the address object (whose few keys never reach field_bytes)."""
        request = _current_request()
        if request is _BUSY:
            return  # the probe's own I/O
        if len(subject) > self.field_bytes:
            subject = subject[:self.field_bytes]
        if self.repeat_seconds:
            # Decided before the request's fields are gathered: most repeats cost only this.
            key = (action, subject if key is None else key, None if request is None else request.route_key)
            now = _monotonic()
            if self.recent.get(key, 0.0) > now:
                # Unlocked on this hot path: a rare lost count between threads is tolerated here.
                self.repeats_suppressed += 1
                return
            recent = self.recent
            if len(recent) >= MAX_RECENT:
                recent.clear()
            recent[key] = now + self.repeat_seconds  # until then, the same action is a repeat
        self.sender.put((self.pid, int(time.time()), request.fields() if request is not None else None, action,
                         subject))


def report(action, subject, key=None):
    """Reports one action from code outside the audit hook (database wrappers)."""
    if action not in KIND:
        raise ValueError("unknown action %r: one of %s" % (action, ", ".join(sorted(KIND))))
    probe = _probe
    if probe is None or not probe.active:
        return
    try:
        probe.emit(action, subject if type(subject) is str else text(subject), key)
    except Exception:
        probe.sender.count("errors")


def text(value):
    if isinstance(value, str):
        return value
    if isinstance(value, (bytes, bytearray)):
        return os.fsdecode(bytes(value))
    return str(value)


def _path(value, dir_fd=None):
    if isinstance(value, int):
        return None  # a descriptor: its open was the event
    value = os.fspath(value)
    if isinstance(value, bytes):
        value = os.fsdecode(value)
    if not value:
        return None
    if not value.startswith("/"):
        try:
            if isinstance(dir_fd, int) and dir_fd >= 0:
                base = os.readlink("/proc/self/fd/%d" % dir_fd)
            else:
                base = os.getcwd()
        except OSError:
            return value
        value = os.path.join(base, value)
    elif "/." not in value and "//" not in value:
        return value  # already normal, and normpath is slow
    return os.path.normpath(value)


def _command(args):
    if isinstance(args, (str, bytes, bytearray, os.PathLike)):
        return text(os.fspath(args) if isinstance(args, os.PathLike) else args)
    return shlex.join(text(os.fspath(a) if isinstance(a, os.PathLike) else a) for a in args)


def _file(probe, action, path, dir_fd=None):
    path = _path(path, dir_fd)
    if path:
        probe.emit(action, path)


def _on_open(probe, args, _known=_open_paths):
    path, mode, flags = args
    if type(path) is str:
        subject = _known.get(path)
        if subject is None:
            if not path:
                return
            if path.endswith(_MODULE_SUFFIXES):
                if sys._getframe(2).f_code.co_filename.startswith("<frozen "):
                    return  # the import system reading modules
                subject = _path(path)
            elif path[0] != "/":
                subject = _path(path)  # as the working directory is now
            else:
                subject = path if "/." not in path and "//" not in path else os.path.normpath(path)
                if len(_known) >= MAX_OPEN_PATHS:
                    _known.clear()
                if len(path) <= MAX_PATH:
                    _known[path] = subject
    elif isinstance(path, int):
        return  # a descriptor: its open was the event
    else:
        subject = _path(path)
        if not subject:
            return
    if type(flags) is int:
        write = flags & _WRITE_FLAGS
    else:
        write = any(c in str(mode) for c in "wax+")
    probe.emit("write" if write else "read", subject)


def _on_delete(probe, args):
    _file(probe, "delete", args[0], args[1] if len(args) > 1 else None)


def _on_rename(probe, args):
    _file(probe, "delete", args[0], args[2] if len(args) > 2 else None)
    _file(probe, "write", args[1], args[3] if len(args) > 3 else None)


def _on_new_name(probe, args):
    # os.link and os.symlink: (src, dst, ...): dst is the name created.
    dir_fd = args[3] if len(args) > 3 else (args[2] if len(args) > 2 and isinstance(args[2], int) else None)
    _file(probe, "write", args[1], dir_fd)


def _on_write_path(probe, args):
    # os.truncate (path, length); os.mkdir (path, mode, dir_fd)
    _file(probe, "write", args[0], args[2] if len(args) > 2 else None)


def _on_popen(probe, args):
    argv = args[1]
    line = _command(argv)
    # subprocess may start the child through os.posix_spawn with the same argv.
    _local.popen_line = line
    probe.emit("execute", line)


def _on_posix_spawn(probe, args):
    line = _command(args[1])
    if _local.popen_line == line:
        _local.popen_line = None
        return
    probe.emit("execute", line)


def _on_exec(probe, args):
    probe.emit("execute", _command(args[1] or [args[0]]))
    # The process image is about to be replaced, with the queue in it.
    probe.sender.flush(0.2)


def _on_system(probe, args):
    probe.emit("execute", text(args[0]))


def _on_spawn(probe, args):
    # os.spawn (mode, path, args, env)
    probe.emit("execute", _command(args[2] or [args[1]]))


def _on_pty_spawn(probe, args):
    probe.emit("execute", _command(args[0]))


def _is_address(host):
    for family in (socket.AF_INET, socket.AF_INET6):
        try:
            socket.inet_pton(family, host.split("%", 1)[0])
            return True
        except (OSError, ValueError):
            pass
    return False


def _on_getaddrinfo(probe, args):
    host, port = args[0], args[1]
    if not host:
        return
    host = text(host)
    if _is_address(host):
        return
    _local.resolved = (host, str(port), time.monotonic())
    probe.emit("dns", host)


def _on_name_lookup(probe, args):
    host = text(args[0]) if args[0] else ""
    if host and not _is_address(host):
        probe.emit("dns", host)


def _on_address_lookup(probe, args):
    if args[0]:
        probe.emit("dns", text(args[0]))


def _on_connect(probe, args):
    sock, address = args[0], args[1]
    family = sock.family
    if family in (socket.AF_INET, socket.AF_INET6) and isinstance(address, tuple) and len(address) >= 2:
        destination, port = text(address[0]), address[1]
        host = destination
        resolved = _local.resolved
        if resolved is not None and time.monotonic() - resolved[2] < NAME_MEMORY_SECONDS \
                and resolved[1] == str(port) and _is_address(destination):
            host = resolved[0]
        subject = {"hostName": host, "url": destination, "port": port if isinstance(port, int) else text(port)}
        probe.emit("address", subject, (host, destination, subject["port"]))
    elif family == getattr(socket, "AF_UNIX", None) and isinstance(address, (str, bytes, bytearray)):
        path = text(address)
        if path.startswith("\0"):
            path = "@" + path[1:]  # abstract namespace
        probe.emit("address", {"hostName": path, "url": path}, (path, path, None))


HANDLERS = {
    "open": _on_open,
    "os.remove": _on_delete,
    "os.rmdir": _on_delete,
    "os.rename": _on_rename,
    "os.link": _on_new_name,
    "os.symlink": _on_new_name,
    "os.truncate": _on_write_path,
    "os.mkdir": _on_write_path,
    "subprocess.Popen": _on_popen,
    "os.posix_spawn": _on_posix_spawn,
    "os.exec": _on_exec,
    "os.system": _on_system,
    "os.spawn": _on_spawn,
    "pty.spawn": _on_pty_spawn,
    "socket.getaddrinfo": _on_getaddrinfo,
    "socket.gethostbyname": _on_name_lookup,
    "socket.gethostbyname_ex": _on_name_lookup,
    "socket.gethostbyaddr": _on_address_lookup,
    "socket.connect": _on_connect,
}


def _hook(event, args, _handlers=HANDLERS):
    # Called for every audit event of the process (the default binds its
    # name as a local): a miss is one membership test.
    if event not in _handlers:
        return
    probe = _probe
    if probe is None or not probe.active:
        return
    # Handlers do no audited I/O of their own; the probe's I/O (sending,
    # logging) runs marked busy, on the sender thread or under _guard.busy(),
    # and emit drops what it does.
    try:
        _handlers[event](probe, args)
    except Exception:
        try:
            probe.sender.count("errors")
        except Exception:
            pass


def _after_fork_in_child():
    probe = _probe
    if probe is not None:
        probe.after_fork_in_child()


def _at_exit():
    probe = _probe
    if probe is not None and probe.active:
        probe.sender.flush(0.5)
        probe.active = False
        probe.sender.close()


def start(config=None):
    """Starts the probe once per process; returns it, or None when switched off."""
    global _probe, _hook_installed
    with _start_lock:
        if _probe is not None and _probe.active:
            return _probe
        config = Config() if config is None else config
        if not config.enabled:
            return None
        probe = Probe(config)
        _context.settings = config
        if not _hook_installed:
            from . import _patches
            _patches.install()
            _context.propagate_into_threads()
            os.register_at_fork(after_in_child=_after_fork_in_child)
            atexit.register(_at_exit)
            sys.addaudithook(_hook)
            _hook_installed = True
        _probe = probe
        return probe


def stop(timeout=0.5):
    """Sends what is queued (waiting at most timeout seconds) and goes quiet.
    The audit hook stays, as hooks cannot be removed, but does nothing."""
    global _probe
    with _start_lock:
        probe = _probe
        if probe is None:
            return
        probe.sender.flush(timeout)
        probe.active = False
        probe.sender.close()
        _context.settings = None
        _probe = None


def stats():
    """The counters of the running probe: events seen, repeats suppressed,
    messages queued, sent and dropped (by reason), errors caught."""
    probe = _probe
    if probe is None:
        return {"running": False}
    result = probe.sender.stats()
    result["repeats_suppressed"] = probe.repeats_suppressed
    result["events"] += probe.repeats_suppressed
    result["errors"] += _context.errors - probe.context_errors_before
    result["running"] = probe.active
    return result
