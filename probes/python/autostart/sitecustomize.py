"""Starts the runtime-application probe in every Python process that has
this folder on PYTHONPATH, then runs the sitecustomize this one shadows."""
import os
import sys


def _start_probe():
    here = os.path.dirname(os.path.abspath(__file__))
    package_root = os.path.dirname(here)
    if package_root not in sys.path:
        sys.path.append(package_root)
    try:
        import wl_probe  # noqa: F401  (starts on import)
    except Exception as error:  # the application must start regardless
        sys.stderr.write("wl_probe: not started: %r\n" % (error,))
    return here


def _run_shadowed(here):
    import importlib.machinery
    import types
    for entry in sys.path:
        folder = os.path.abspath(entry or ".")
        path = os.path.join(folder, "sitecustomize.py")
        if folder == here or not os.path.isfile(path):
            continue
        module = types.ModuleType("sitecustomize")
        module.__file__ = path
        try:
            importlib.machinery.SourceFileLoader("sitecustomize", path).exec_module(module)
        except Exception as error:
            sys.stderr.write("Error in sitecustomize; set PYTHONVERBOSE for traceback:\n%r\n" % (error,))
            return
        sys.modules["sitecustomize"] = module
        return


_run_shadowed(_start_probe())
