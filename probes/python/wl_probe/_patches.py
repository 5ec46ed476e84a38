"""Patches applied to modules when the application imports them: database
drivers, and web servers, which get the request middleware around whatever
application they are given. Nothing is imported on the probe's account."""
import logging
import sys

from . import _context, _sql

log = logging.getLogger("wl_probe")
_pending = {}


def _apply(name, module, patches):
    for patch in patches:
        try:
            patch(module)
        except Exception:
            log.debug("wl_probe: could not patch %s", name, exc_info=True)


class _PatchOnImport:
    """A meta path finder that finds nothing itself: for a module awaiting a
    patch it asks the finders behind it and runs the patch after the module's
    own code."""

    # The method name is the import system's.
    def find_spec(self, name, path=None, target=None):
        patches = _pending.get(name)
        if not patches:
            return None
        found = None
        for finder in sys.meta_path:
            find = getattr(finder, "find_spec", None)
            if finder is self or find is None:
                continue
            try:
                found = find(name, path, target)
            except TypeError:
                found = find(name, path)
            if found is not None:
                break
        loader = getattr(found, "loader", None)
        exec_module = getattr(loader, "exec_module", None)
        if exec_module is None or isinstance(loader, type) or not hasattr(loader, "__dict__"):
            return None  # shared or unusual loader: leave the import alone

        def exec_and_patch(module):
            exec_module(module)
            _apply(name, module, _pending.pop(name, ()))
        loader.exec_module = exec_and_patch
        return found


_finder = _PatchOnImport()


def when_imported(name, patch):
    module = sys.modules.get(name)
    if module is not None:
        _apply(name, module, (patch,))
        return
    _pending.setdefault(name, []).append(patch)
    if _finder not in sys.meta_path:
        sys.meta_path.insert(0, _finder)


# Servers.

def _mark(function):
    function._wl_probe = True
    return function


def patch_wsgiref_handlers(module):
    original = module.BaseHandler.run
    if getattr(original, "_wl_probe", False):
        return

    @_mark
    def run(self, application):
        # wsgiref.simple_server's handler leaves the client's port out of the
        # environ; its request handler, which knows it, hangs on the handler.
        request_handler = getattr(self, "request_handler", None)
        if request_handler is not None:
            try:
                self.base_env.setdefault("REMOTE_PORT", str(request_handler.client_address[1]))
            except (AttributeError, IndexError, TypeError):
                pass
        # Called for every request with the same application: the last one wrapped is tried first, here.
        last = _context.last_wrapped
        return original(self, last[1] if last[0] is application else _context.wrap_app(application))
    module.BaseHandler.run = run


def patch_gunicorn(module):
    cls = module.BaseApplication
    original = cls.wsgi
    if getattr(original, "_wl_probe", False):
        return

    @_mark
    def wsgi(self):
        app = original(self)
        wrapped = _context.wrap_app(app)
        if wrapped is not app:
            self.callable = wrapped
        return wrapped
    cls.wsgi = wsgi


def patch_waitress(module):
    server = sys.modules.get("waitress.server")
    original = getattr(server, "create_server", None) or module.create_server
    if getattr(original, "_wl_probe", False):
        return

    @_mark
    def create_server(application, *args, **kwargs):
        return original(_context.wrap_app(application), *args, **kwargs)
    module.create_server = create_server
    if server is not None:
        server.create_server = create_server


def patch_uvicorn(module):
    cls = module.Config
    original = cls.load
    if getattr(original, "_wl_probe", False):
        return

    @_mark
    def load(self):
        original(self)
        app = getattr(self, "loaded_app", None)
        if app is not None and not getattr(app, "_wl_probe", False):
            self.loaded_app = _context.ASGIMiddleware(app)
    cls.load = load


PATCHES = {
    "wsgiref.handlers": patch_wsgiref_handlers,
    "gunicorn.app.base": patch_gunicorn,
    "waitress": patch_waitress,
    "uvicorn.config": patch_uvicorn,
    "concurrent.futures.thread": _context.propagate_into_executor,
}


def install():
    for table in (PATCHES, _sql.DRIVERS):
        for name, patch in table.items():
            when_imported(name, patch)
