"""The web request in hand, kept in a ContextVar by the WSGI and ASGI
middlewares, and the views of it that go into telemetry."""
import contextvars
import functools
import re
import threading
from urllib.parse import parse_qsl, quote

REQUEST = contextvars.ContextVar("wl_probe_request", default=None)
# REQUEST's value while the probe itself does I/O (its sender thread, its
# logging): what happens then is not the application's. One look-up of
# REQUEST thus answers both questions an action asks.
BUSY = object()
# Bound once: the middleware runs for every request.
_get_request, _set_request, _reset_request = REQUEST.get, REQUEST.set, REQUEST.reset
_new_object = object.__new__

MAX_HEADERS = 64
MAX_HEADER_VALUE = 1024
MAX_PARAM_NAMES = 64
MAX_PARAM_VALUES = 16
MAX_PARAM_VALUE = 1024
MAX_URL = 4096
FORM_TYPE = "application/x-www-form-urlencoded"

# Set by the probe when it starts; the middlewares pass through until then.
settings = None
# Failures met here, which the application never sees; the probe's stats() counts them with its own.
errors = 0


def _failed():
    global errors
    errors += 1


def current_request():
    """The request being served on this thread or task, or None."""
    request = REQUEST.get()
    return None if request is BUSY else request


def _native_text(value):
    # WSGI hands bytes over as latin-1 strings.
    try:
        return value.encode("latin-1").decode("utf-8", "surrogateescape")
    except UnicodeError:
        return value


def _params(query, body, into=None):
    params = {} if into is None else into
    for text in (query, body):
        if not text:
            continue
        for name, value in parse_qsl(text[:MAX_URL], keep_blank_values=True, encoding="utf-8",
                                     errors="surrogateescape"):
            values = params.get(name)
            if values is None:
                if len(params) >= MAX_PARAM_NAMES:
                    continue
                values = params[name] = []
            if len(values) < MAX_PARAM_VALUES:
                values.append(value[:MAX_PARAM_VALUE])
    return params


def _header(headers, name, value, redact):
    if len(headers) >= MAX_HEADERS:
        return
    if name in redact:
        value = "<redacted>"
    elif name in headers:
        value = headers[name] + ", " + value
    headers[name] = value[:MAX_HEADER_VALUE]


class _Request:
    """What every request offers: fields() for a message, and route_key
    (method, host, path) for telling repeats apart."""
    __slots__ = ("route_key",)

    def fields(self):
        raise NotImplementedError


_PLAIN_PATH = re.compile(r"[A-Za-z0-9/._~,;=:@!$&'()*+-]*\Z")


def _quote_path(path, encoding):
    return path if _PLAIN_PATH.match(path) else quote(path, safe="/;=,:@!$&'()*+~", encoding=encoding)


class TeeInput:
    """wsgi.input that keeps a copy of the body's first bytes and can read
    them ahead for the probe, handing them to the application later."""

    def __init__(self, stream, length, limit):
        self._stream = stream
        self._left = length
        self._limit = min(limit, length)
        self.prefix = bytearray()
        self._pending = b""

    def _record(self, data):
        room = self._limit - len(self.prefix)
        if room > 0 and data:
            self.prefix += data[:room]

    def _raw_read(self, size):
        data = self._stream.read() if size is None or size < 0 else self._stream.read(size)
        self._left -= len(data)
        self._record(data)
        return data

    def _raw_readline(self, size):
        data = self._stream.readline() if size is None or size < 0 else self._stream.readline(size)
        self._left -= len(data)
        self._record(data)
        return data

    def read(self, size=-1):
        pending = self._pending
        if not pending:
            return self._raw_read(size)
        if size is not None and 0 <= size <= len(pending):
            self._pending = pending[size:]
            return pending[:size]
        self._pending = b""
        rest = -1 if size is None or size < 0 else size - len(pending)
        return pending + (self._raw_read(rest) if self._left > 0 else b"")

    def readline(self, size=-1):
        pending = self._pending
        if not pending:
            return self._raw_readline(size)
        end = len(pending) if size is None or size < 0 else min(size, len(pending))
        newline = pending.find(b"\n", 0, end)
        if newline >= 0:
            end = newline + 1
        if newline >= 0 or end < len(pending) or (size is not None and 0 <= size == end):
            self._pending = pending[end:]
            return pending[:end]
        self._pending = b""
        rest = -1 if size is None or size < 0 else size - len(pending)
        return pending + (self._raw_readline(rest) if self._left > 0 else b"")

    def readlines(self, hint=-1):
        lines, total = [], 0
        while True:
            line = self.readline()
            if not line:
                return lines
            lines.append(line)
            total += len(line)
            if hint is not None and 0 < hint <= total:
                return lines

    def __iter__(self):
        return self

    def __next__(self):
        line = self.readline()
        if not line:
            raise StopIteration
        return line

    def read_ahead(self):
        """Reads the rest of the prefix now, keeping it for the application."""
        want = self._limit - len(self.prefix)
        chunks = []
        while want > 0 and self._left > 0:
            chunk = self._stream.read(min(want, self._left))
            if not chunk:
                break
            self._left -= len(chunk)
            self._record(chunk)
            chunks.append(chunk)
            want -= len(chunk)
        if chunks:
            self._pending += b"".join(chunks)

    def __getattr__(self, name):
        return getattr(self._stream, name)


class WsgiRequest(_Request):
    """Made by WSGIMiddleware without a Python __init__, a call that every
    request would pay for."""
    __slots__ = ("environ", "input", "_fields")

    def tee_body(self, length, body_bytes):
        """Keeps the body's first body_bytes as the application reads it."""
        try:
            length = int(length)
        except ValueError:
            return
        environ = self.environ
        stream = environ.get("wsgi.input")
        if length > 0 and stream is not None:
            self.input = TeeInput(stream, length, body_bytes)
            environ["wsgi.input"] = self.input

    def fields(self):
        fields = self._fields
        if fields is None:
            fields = self._fields = self._build()
        return fields

    def _build(self):
        env = self.environ
        host = env.get("HTTP_HOST")
        if not host:
            host = env.get("SERVER_NAME", "")
            port = env.get("SERVER_PORT", "")
            if port and port != {"https": "443"}.get(env.get("wsgi.url_scheme"), "80"):
                host += ":" + port
        path = _quote_path(env.get("SCRIPT_NAME", "") + env.get("PATH_INFO", ""), "latin-1")
        query = _native_text(env.get("QUERY_STRING", ""))
        base = "%s://%s%s" % (env.get("wsgi.url_scheme", "http"), _native_text(host), path)
        method = env.get("REQUEST_METHOD", "")
        redact = settings.redact_headers if settings is not None else ()
        headers = {}
        for key, value in env.items():
            if key.startswith("HTTP_"):
                name = key[5:]
            elif key in ("CONTENT_TYPE", "CONTENT_LENGTH") and value:
                name = key
            else:
                continue
            if isinstance(value, str):
                _header(headers, name.replace("_", "-").lower(), _native_text(value), redact)
        body = ""
        form = None
        if self.input is not None:
            self.input.read_ahead()
            body = bytes(self.input.prefix).decode("utf-8", "surrogateescape")
            if env.get("CONTENT_TYPE", "").startswith(FORM_TYPE):
                form = body
        fields = {"url": (base + "?" + query if query else base)[:MAX_URL], "method": method, "body": body,
                  "headers": headers, "param": _params(query, form)}
        ip = env.get("REMOTE_ADDR")
        if ip:
            fields["ip"] = ip
        try:
            fields["srcPort"] = int(env.get("REMOTE_PORT") or 0)
        except ValueError:
            fields["srcPort"] = 0
        return fields


class AsgiRequest(_Request):
    __slots__ = ("scope", "body", "_limit", "_fixed", "_fields", "_fields_body")

    def __init__(self, scope, body_bytes):
        self.route_key = (scope.get("method"), scope.get("root_path"), scope.get("path"))
        self.scope = scope
        self.body = bytearray()
        self._limit = body_bytes
        self._fixed = None
        self._fields = None
        self._fields_body = -1

    def wrap_receive(self, receive):
        if self._limit <= 0:
            return receive

        async def receive_and_keep():
            message = await receive()
            room = self._limit - len(self.body)
            if room > 0 and message.get("type") == "http.request":
                self.body += (message.get("body") or b"")[:room]
            return message
        return receive_and_keep

    def fields(self):
        fixed = self._fixed
        if fixed is None:
            fixed = self._fixed = self._build()
        if self._fields_body == len(self.body):
            return self._fields
        # The body grows as the application reads it: what it read so far.
        body = bytes(self.body).decode("utf-8", "surrogateescape")
        fields = dict(fixed, body=body)
        if body and fixed["headers"].get("content-type", "").startswith(FORM_TYPE):
            params = {name: list(values) for name, values in fixed["param"].items()}
            fields["param"] = _params(None, body, params)
        self._fields, self._fields_body = fields, len(self.body)
        return fields

    def _build(self):
        scope = self.scope
        redact = settings.redact_headers if settings is not None else ()
        headers = {}
        for pair in scope.get("headers") or ():
            name, value = pair[0], pair[1]
            _header(headers, name.decode("latin-1").lower(), value.decode("utf-8", "surrogateescape"), redact)
        scheme = scope.get("scheme") or ("ws" if scope.get("type") == "websocket" else "http")
        host = headers.get("host")
        if not host:
            server = scope.get("server")
            host = "%s:%s" % (server[0], server[1]) if server and server[1] is not None else (server or [""])[0]
        path = _quote_path((scope.get("root_path") or "") + (scope.get("path") or ""), "utf-8")
        query = (scope.get("query_string") or b"").decode("utf-8", "surrogateescape")
        base = "%s://%s%s" % (scheme, host, path)
        method = scope.get("method", "GET" if scope.get("type") == "websocket" else "")
        fields = {"url": (base + "?" + query if query else base)[:MAX_URL], "method": method, "body": "",
                  "headers": headers, "param": _params(query, None)}
        client = scope.get("client")
        if client:
            fields["ip"] = str(client[0])
            try:
                fields["srcPort"] = int(client[1] or 0)
            except (TypeError, ValueError, IndexError):
                fields["srcPort"] = 0
        return fields


class _ResponseInRequest:
    """The application's response iterable, run inside its request: a
    generator may still be doing the request's work."""
    __slots__ = ("_result", "_iter", "_request")

    def __init__(self, result, request):
        self._result = result
        self._iter = None
        self._request = request

    def __iter__(self):
        return self

    def __next__(self):
        token = REQUEST.set(self._request)
        try:
            if self._iter is None:
                self._iter = iter(self._result)
            return next(self._iter)
        finally:
            REQUEST.reset(token)

    def close(self):
        close = getattr(self._result, "close", None)
        if close is not None:
            token = REQUEST.set(self._request)
            try:
                close()
            finally:
                REQUEST.reset(token)


def WSGIMiddleware(app):  # noqa: N802  (named as the ASGI one, a class)
    """app, run inside the context of each request it serves. A function,
    not an object with __call__: the server calls it for every request, and
    a function is the cheaper call."""

    def in_request(environ, start_response):
        config = settings
        if config is None:
            return app(environ, start_response)
        current = _get_request()
        if current is not None and getattr(current, "environ", None) is environ:
            return app(environ, start_response)
        request = _new_object(WsgiRequest)
        request.environ = environ
        request.route_key = (environ.get("REQUEST_METHOD"), environ.get("HTTP_HOST"), environ.get("SCRIPT_NAME"),
                             environ.get("PATH_INFO"))
        request.input = request._fields = None
        length = environ.get("CONTENT_LENGTH")
        if length and length != "0" and config.body_bytes > 0:
            try:
                request.tee_body(length, config.body_bytes)
            except Exception:
                _failed()  # the application reads its body untouched, and the request goes without it
        token = _set_request(request)
        try:
            result = app(environ, start_response)
        finally:
            _reset_request(token)
        if isinstance(result, (list, tuple)):
            return result
        file_wrapper = environ.get("wsgi.file_wrapper")
        if isinstance(file_wrapper, type) and isinstance(result, file_wrapper):
            return result  # the server may send it with sendfile
        return _ResponseInRequest(result, request)

    in_request._wl_probe = True
    in_request.app = app
    return in_request


class ASGIMiddleware:
    _wl_probe = True

    def __init__(self, app):
        self.app = app

    async def __call__(self, scope, receive, send):
        current = REQUEST.get()
        if (settings is None or scope.get("type") not in ("http", "websocket")
                or (current is not None and getattr(current, "scope", None) is scope)):
            return await self.app(scope, receive, send)
        request = AsgiRequest(scope, settings.body_bytes)
        token = REQUEST.set(request)
        try:
            return await self.app(scope, request.wrap_receive(receive), send)
        finally:
            REQUEST.reset(token)


_CO_COROUTINE = 0x80


def is_coroutine_function(function):
    function = getattr(function, "__func__", function)
    return bool(getattr(getattr(function, "__code__", None), "co_flags", 0) & _CO_COROUTINE)


def is_asgi(app):
    return is_coroutine_function(app) or is_coroutine_function(getattr(app, "__call__", None))


# (application, wrapper) pairs; holding the application keeps it alive, so
# no other object takes its identity. The last one found is tried first:
# servers such as wsgiref hand the application over on every request.
_wrapped = []
last_wrapped = (None, None)


def wrap_app(app):
    """The application inside the middleware that fits it, once."""
    global last_wrapped
    last = last_wrapped
    if last[0] is app:
        return last[1]
    if app is None or getattr(app, "_wl_probe", False):
        return app
    for entry in _wrapped:
        if entry[0] is app:
            break
    else:
        entry = (app, ASGIMiddleware(app) if is_asgi(app) else WSGIMiddleware(app))
        if len(_wrapped) >= 64:
            return entry[1]
        _wrapped.append(entry)
    last_wrapped = entry
    return entry[1]


# Threads and executor jobs do not take the caller's contextvars with them.

_POOL_MODULES = ("concurrent.futures.thread", "multiprocessing.pool")


def propagate_into_threads():
    original = threading.Thread.start
    if getattr(original, "_wl_probe", False):
        return

    def start(self):
        request = REQUEST.get()
        if request is not None and request is not BUSY:
            try:
                target = getattr(self, "_target", None)
                # A pool's worker outlives the request that happened to start it.
                if getattr(target, "__module__", None) not in _POOL_MODULES:
                    run = self.run

                    def run_in_request():
                        REQUEST.set(request)
                        return run()
                    self.run = run_in_request
            except Exception:
                _failed()
        return original(self)

    start._wl_probe = True
    functools.update_wrapper(start, original)
    threading.Thread.start = start


def _run_in_request(request, fn, *args, **kwargs):
    token = REQUEST.set(request)
    try:
        return fn(*args, **kwargs)
    finally:
        REQUEST.reset(token)


def propagate_into_executor(module):
    cls = module.ThreadPoolExecutor
    original = cls.submit
    if getattr(original, "_wl_probe", False):
        return

    def submit(self, fn, /, *args, **kwargs):
        request = REQUEST.get()
        if request is not None and request is not BUSY:
            fn = functools.partial(_run_in_request, request, fn)
        return original(self, fn, *args, **kwargs)

    functools.update_wrapper(submit, original)
    submit._wl_probe = True
    cls.submit = submit
