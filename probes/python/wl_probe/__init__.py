"""Runtime-application probe for Python web applications.

Importing this package starts the probe (unless WL_PROBE=0): interpreter
audit events and database calls become telemetry lines for the white-list
module, each with the web request in hand. See docs/telemetry.md.
"""
from ._config import Config
from ._context import ASGIMiddleware, WSGIMiddleware, current_request
from ._probe import report, start, stats, stop

__all__ = ["ASGIMiddleware", "Config", "WSGIMiddleware", "current_request", "report", "start", "stats", "stop"]

start()
