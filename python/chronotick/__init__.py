"""Chronotick: host library of a multi-channel time tagger.

Times are integer picoseconds. Taggers come from createChronotick(serial)
or createChronotickVirtual() and are given back with free(), a ``with``
block, or when Python collects them. Result getters return new numpy arrays.

The library's log messages go to the ``logging`` logger "chronotick" (info,
warning and error) unless a sink is set with setLogger(). They are carried
there by a daemon thread, so a message may arrive a little after the call
that caused it; flush_log() delivers everything logged so far.
"""

import atexit as _atexit
import logging as _logging
import sys as _sys
import threading as _threading

from . import _chronotick
from ._chronotick import *  # noqa: F401,F403
from ._chronotick import simulation  # noqa: F401

__version__ = _chronotick.getVersion()

_logger = _logging.getLogger("chronotick")

_LEVELS = {
    _chronotick.LOGGER_INFO: _logging.INFO,
    _chronotick.LOGGER_WARNING: _logging.WARNING,
    _chronotick.LOGGER_ERROR: _logging.ERROR,
}

_sink = None
# Held while messages are taken from the queue and delivered, so that
# flush_log() returns only after every earlier message has arrived.
_delivering = _threading.Lock()


def setLogger(callback):
    """Sends the library's messages to callback(level, message) instead of
    ``logging`` (level: LOGGER_INFO, LOGGER_WARNING or LOGGER_ERROR); None
    restores ``logging``. Returns the previous callback, or None.

    The callback runs on the package's log thread (or in flush_log), never on
    the library's worker threads. Exceptions it raises are printed to
    standard error together with the message.
    """
    global _sink
    if callback is not None and not callable(callback):
        raise TypeError("setLogger takes a callable or None")
    with _delivering:
        previous, _sink = _sink, callback
    return previous


def _deliver(level, message):
    sink = _sink
    if sink is None:
        _logger.log(_LEVELS.get(level, _logging.ERROR), message)
        return
    try:
        sink(level, message)
    except Exception as error:  # a broken sink must not end the log thread
        print(f"There was an exception within the log handler: {error}", file=_sys.stderr)
        print(message, file=_sys.stderr)


def flush_log():
    """Delivers every message that the library has logged so far."""
    with _delivering:
        while (item := _chronotick._next_log_message(0)) is not None:
            _deliver(*item)


_stopping = _threading.Event()


def _forward():
    while not _stopping.is_set():
        if _chronotick._wait_log_message(500):
            flush_log()


def _stop_capture():
    # The thread must have left its wait (which runs without the GIL) before
    # the interpreter shuts down. Taggers still alive are freed after this,
    # when the process exits: what they log then goes to standard error.
    _stopping.set()
    _chronotick._stop_log_waits()
    _forwarder.join(timeout=2)
    flush_log()
    _chronotick._capture_log(False)


_chronotick._capture_log(True)
_forwarder = _threading.Thread(target=_forward, name="chronotick-log", daemon=True)
_forwarder.start()
_atexit.register(_stop_capture)
# So that `import chronotick.simulation` and `from chronotick.simulation import ...` work.
_sys.modules[__name__ + ".simulation"] = simulation
