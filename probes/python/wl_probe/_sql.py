"""Database statements. Audit events carry no SQL, so the drivers' execute
methods report it. C types (sqlite3, psycopg2) cannot be patched in place:
their connect() is given a connection subclass that hands out cursor
subclasses. Pure-Python drivers get their cursor methods wrapped."""
import functools
import sys

from . import _context, _guard
from . import _probe as _probes
from ._probe import report, text

_local = _guard.local
_subclasses = {}


def _query_of(kwargs):
    for name in ("sql", "query", "operation", "sql_script"):
        if name in kwargs:
            return kwargs[name]
    return None


def _statement(action, original):
    """original, reporting its statement first."""
    def method(self, *args, **kwargs):
        # report(), inlined: this runs for every statement.
        probe = _probes._probe
        if probe is not None and probe.active:
            query = args[0] if args else _query_of(kwargs)
            if query is not None:
                try:
                    probe.emit(action, query if type(query) is str else text(query))
                except Exception:
                    probe.sender.count("errors")
        return original(self, *args, **kwargs)
    method.__name__ = getattr(original, "__name__", "execute")
    return method


_ABSENT = object()


def _positional_statement(action, original):
    """_statement for a method that takes (statement[, parameters]), by
    position only, as sqlite3's do: no *args and **kwargs to pack and unpack
    on every statement."""
    def method(self, sql, parameters=_ABSENT, /):
        probe = _probes._probe
        if probe is not None and probe.active and sql is not None:
            try:
                probe.emit(action, sql if type(sql) is str else text(sql))
            except Exception:
                probe.sender.count("errors")
        if parameters is _ABSENT:
            return original(self, sql)
        return original(self, sql, parameters)
    method.__name__ = getattr(original, "__name__", "execute")
    return method


def subclass(factory, base, action, names, extra=None, positional=False):
    """A subclass of factory whose methods names report their statements as
    action, when factory is base or a subclass of it and not wrapped yet;
    otherwise factory unchanged. extra(factory) adds methods of its own.
    positional: base's methods take their arguments by position only; so do
    factory's, unless it defines them anew."""
    if not isinstance(factory, type) or not issubclass(factory, base) or getattr(factory, "_wl_probe_sql", False):
        return factory
    key = (factory, action, names)
    cls = _subclasses.get(key)
    if cls is None:
        # The factory's own methods are called directly: no super() lookup per statement.
        namespace = {}
        for name in names:
            original = getattr(factory, name, None)
            if original is not None:
                fixed = positional and original is getattr(base, name, None)
                namespace[name] = (_positional_statement if fixed else _statement)(action, original)
        namespace.update(extra(factory) if extra else {})
        # No __dict__ for the instances (unless the factory's have one): looking
        # up a method of an object without one is the quicker.
        namespace.update({"__module__": factory.__module__, "__qualname__": factory.__qualname__,
                          "__slots__": (), "_wl_probe_sql": True})
        cls = _subclasses[key] = type(factory.__name__, (factory,), namespace)
    return cls


def _patch_connect(module, wrap_arguments):
    original = module.connect
    if getattr(original, "_wl_probe", False):
        return original

    @functools.wraps(original)
    def connect(*args, **kwargs):
        try:
            args, kwargs = wrap_arguments(args, dict(kwargs))
        except Exception:
            pass
        return original(*args, **kwargs)

    connect._wl_probe = True
    module.connect = connect
    return connect


# sqlite3: the statements go to the action "hsql", the embedded SQL engine
# of the action table.
SQLITE_METHODS = ("execute", "executemany", "executescript")


def patch_sqlite3(module):
    base_cursor, base_connection = module.Cursor, module.Connection

    def cursor_class(factory):
        return subclass(factory, base_cursor, "hsql", SQLITE_METHODS, positional=True)

    def connection_extra(factory):
        original = factory.cursor

        def cursor(self, *args, **kwargs):
            if args:
                args = (cursor_class(args[0]),) + args[1:]
            else:
                kwargs["factory"] = cursor_class(kwargs.get("factory", base_cursor))
            return original(self, *args, **kwargs)
        return {"cursor": cursor}

    def wrap_arguments(args, kwargs):
        # connect(database, timeout, detect_types, isolation_level, check_same_thread, factory, ...)
        if len(args) > 5:
            args = args[:5] + (subclass(args[5], base_connection, "hsql", SQLITE_METHODS, connection_extra, True),) \
                + args[6:]
        else:
            kwargs["factory"] = subclass(kwargs.get("factory", base_connection), base_connection, "hsql",
                                         SQLITE_METHODS, connection_extra, True)
        return args, kwargs

    connect = _patch_connect(module, wrap_arguments)
    dbapi2 = sys.modules.get("sqlite3.dbapi2")
    if dbapi2 is not None and not getattr(dbapi2.connect, "_wl_probe", False):
        dbapi2.connect = connect


def patch_psycopg2(module):
    extensions = module.extensions
    methods = ("execute", "executemany")

    def connection_extra(factory):
        original = factory.cursor

        def cursor(self, *args, **kwargs):
            # cursor(name=None, cursor_factory=None, ...)
            if len(args) < 2:
                chosen = kwargs.get("cursor_factory") or self.cursor_factory or extensions.cursor
                kwargs["cursor_factory"] = subclass(chosen, extensions.cursor, "postgre", methods)
            return original(self, *args, **kwargs)
        return {"cursor": cursor}

    def wrap_arguments(args, kwargs):
        if len(args) <= 1:
            factory = kwargs.get("connection_factory") or extensions.connection
            kwargs["connection_factory"] = subclass(factory, extensions.connection, "postgre", (), connection_extra)
        return args, kwargs

    _patch_connect(module, wrap_arguments)


def _report(action, args, kwargs):
    query = args[0] if args else _query_of(kwargs)
    if query is not None:
        report(action, query)


def patch_methods(cls, names, action):
    """Wraps methods defined on cls. A wrapped method that calls another
    (executemany calling execute) reports once."""
    for name in names:
        original = cls.__dict__.get(name)
        if original is None or getattr(original, "_wl_probe", False):
            continue
        if _context.is_coroutine_function(original):
            def make(original):
                async def method(self, *args, **kwargs):
                    _report(action, args, kwargs)
                    return await original(self, *args, **kwargs)
                return method
        else:
            def make(original):
                def method(self, *args, **kwargs):
                    depth = _local.sql_depth
                    if not depth:
                        _report(action, args, kwargs)
                    _local.sql_depth = depth + 1
                    try:
                        return original(self, *args, **kwargs)
                    finally:
                        _local.sql_depth = depth
                return method
        method = functools.wraps(original)(make(original))
        method._wl_probe = True
        setattr(cls, name, method)


def _patch_classes(module, names, methods, action):
    for name in names:
        cls = getattr(module, name, None)
        if isinstance(cls, type):
            patch_methods(cls, methods, action)


def patch_pymysql(module):
    _patch_classes(module, ("Cursor",), ("execute", "executemany"), "mysql")


def patch_mysql_connector(module):
    _patch_classes(module, ("MySQLCursor", "CMySQLCursor"), ("execute", "executemany"), "mysql")


def patch_psycopg(module):
    _patch_classes(module, ("Cursor", "AsyncCursor"), ("execute", "executemany"), "postgre")


# module name -> patch, applied when the module is first imported.
DRIVERS = {
    "sqlite3": patch_sqlite3,
    "psycopg2": patch_psycopg2,
    "psycopg": patch_psycopg,
    "pymysql.cursors": patch_pymysql,
    "mysql.connector.cursor": patch_mysql_connector,
    "mysql.connector.cursor_cext": patch_mysql_connector,
}
