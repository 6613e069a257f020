"""Connects Python's ``logging`` to the process log of kindlet.

After ``Init()`` every record that reaches the root logger is written by the
process log as one line, "[LEVEL Python] text" (the logger name goes in front
of the text for loggers other than the root). Which records get there is set
by the interpreter verbosity in ``sys.selvane_verbosityLevel``: 0 lets
warnings and errors through, 1 adds info, 2 and above add debug. The process
log applies its own threshold (SELVANE_LOG_LEVEL) on top.

Importing ``logging`` costs more than starting the interpreter does, and
kindlet starts once per render job. So ``Init()`` does not import it: if no
code has imported ``logging`` yet, the connection is made the moment some
code does.
"""

import os
import sys

CHANNEL = "Python"

# Levels of the process log, and Python's numeric levels, which are fixed.
_ERROR, _WARNING, _INFO, _DEBUG = 1, 2, 3, 4
_PY_DEBUG, _PY_INFO, _PY_WARNING, _PY_ERROR = 10, 20, 30, 40

_library = None
_handler = None
_rootLevel = _PY_INFO
_hook = None

# Set once the logging module is connected; the class derives from
# logging.Handler and so only exists from then on.
ProcessLogHandler = None


def libraryPath():
    """The process log library of the install root this module belongs to
    (<root>/bin/python/MainLogging.py -> <root>/lib/libXoLogging.so)."""
    here = os.path.dirname(os.path.abspath(__file__))
    return os.path.normpath(os.path.join(here, os.pardir, os.pardir, "lib", "libXoLogging.so"))


def _loadLibrary():
    global _library
    if _library is None:
        import ctypes
        # Inside kindlet the library is already loaded, and this returns the
        # same copy, so Python shares the process's threshold and output.
        library = ctypes.CDLL(libraryPath())
        library.XoLoggingEmit.argtypes = [ctypes.c_char_p, ctypes.c_int, ctypes.c_char_p]
        library.XoLoggingEmit.restype = None
        library.XoLoggingGetThreshold.argtypes = []
        library.XoLoggingGetThreshold.restype = ctypes.c_int
        _library = library
    return _library


def processLevel(levelno):
    """The process log level for a Python level number."""
    if levelno >= _PY_ERROR:
        return _ERROR
    if levelno >= _PY_WARNING:
        return _WARNING
    if levelno >= _PY_INFO:
        return _INFO
    return _DEBUG


def levelForVerbosity(verbosity):
    """The Python level that a verbosity lets through."""
    if verbosity <= 0:
        return _PY_WARNING
    if verbosity == 1:
        return _PY_INFO
    return _PY_DEBUG


def _encode(text):
    # The process log is byte text; a lone surrogate must not make a record
    # disappear.
    return text.encode("utf-8", "backslashreplace")


def emit(level, text, channel=CHANNEL):
    """Writes one line through the process log at a process log level."""
    _loadLibrary().XoLoggingEmit(_encode(channel), level, _encode(text))


def _handlerClass(logging):
    class _ProcessLogHandler(logging.Handler):
        """Writes each record as one line of the process log."""

        def __init__(self, channel=CHANNEL):
            logging.Handler.__init__(self)
            self._channel = _encode(channel)
            self._emit = _loadLibrary().XoLoggingEmit
            self.setFormatter(logging.Formatter("%(message)s"))

        def emit(self, record):
            try:
                text = self.format(record)
                if record.name and record.name != "root":
                    text = "%s: %s" % (record.name, text)
                # One record, one line: continuation lines of tracebacks
                # stay readable but cannot pass for lines of their own.
                text = text.rstrip("\n").replace("\n", "\n    ")
                self._emit(self._channel, processLevel(record.levelno), _encode(text))
            except Exception:
                self.handleError(record)

    _ProcessLogHandler.__name__ = _ProcessLogHandler.__qualname__ = "ProcessLogHandler"
    return _ProcessLogHandler


def _connect(logging):
    global _handler, ProcessLogHandler
    if ProcessLogHandler is None:
        ProcessLogHandler = _handlerClass(logging)
    root = logging.getLogger()
    if _handler is not None:
        root.removeHandler(_handler)
    _handler = ProcessLogHandler()
    root.addHandler(_handler)
    root.setLevel(_rootLevel)
    logging.captureWarnings(True)


class _ConnectOnImport(object):
    """Import hook that connects the logging module as soon as it has been
    executed, then steps aside."""

    def find_spec(self, name, path=None, target=None):
        if name != "logging":
            return None
        for finder in sys.meta_path:
            if finder is self or not hasattr(finder, "find_spec"):
                continue
            found = finder.find_spec(name, path, target)
            if found is not None:
                break
        else:
            return None
        self._remove()
        loader = found.loader
        if loader is None or not hasattr(loader, "exec_module"):
            return found
        execute = loader.exec_module

        def exec_module(module):
            execute(module)
            try:
                _connect(module)
            except Exception as error:
                # The import itself must still succeed.
                sys.stderr.write("MainLogging: cannot connect logging: %r\n" % (error,))

        loader.exec_module = exec_module
        return found

    def _remove(self):
        global _hook
        if self in sys.meta_path:
            sys.meta_path.remove(self)
        if _hook is self:
            _hook = None


def Init():
    """Routes the root logger to the process log at the interpreter
    verbosity. Calling it again takes a new verbosity into account."""
    global _rootLevel, _hook
    _rootLevel = levelForVerbosity(getattr(sys, "selvane_verbosityLevel", 1))
    logging = sys.modules.get("logging")
    if logging is not None:
        _connect(logging)
    elif _hook is None:
        _hook = _ConnectOnImport()
        sys.meta_path.insert(0, _hook)
