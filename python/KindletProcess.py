"""Starts kindlets from a pipeline script the way their parent should.

The parent's steps (interpreter paths worked out against the root, default
asset plug-ins, a process that kindlet must not outlive) belong to
`<root>/bin/kindlet-control`: this module asks the kindlet-control of the root
to be each kindlet's parent (`kindlet-control render --report-fd N`) and reads
what it says about the kindlet. So a script needs nothing exported:

    >>> import KindletProcess as K, LiveRenderController as L
    >>> done = K.render(scene, "recording", options={"recordFile": "/tmp/calls.txt"})
    >>> done.status, done.cost["cpuSeconds"]          # "succeeded", 0.07
    >>> registry = L.Registry()
    >>> kindlet = K.start(scene, "recording", registry=registry, sequenceID=1)
    >>> kindlet.waitForSession(timeout=60)            # Session('LiveRenderSession_1', ...)
    >>> K.stop([kindlet])                             # "succeeded"

The script is the program the kindlet must not outlive: when it ends, its
kindlet-control ends, and kindlet's watchdog ends kindlet. kindlet's standard
output passes through; its standard error (the log) goes to `log` (the
script's standard error by default), and its last lines stay in `.log`.
"""

import collections
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time

__all__ = ["Kindlet", "KindletError", "NotAnInstallRoot", "KindletEnded",
           "RendererNotRegistered", "start", "render", "stop", "ROOT"]

# The root this module was installed into (<root>/bin/python).
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

_END = re.compile(r"kindlet (succeeded|failed|killed|crashed|failed to start): (.*)")
_UNREGISTERED = re.compile(r'no renderer plug-in registers the name "(.*?)"')


class KindletError(Exception):
    """A kindlet could not do what was asked; `kindlet` is its handle, if it
    was started."""

    def __init__(self, message, kindlet=None):
        Exception.__init__(self, message)
        self.kindlet = kindlet


class NotAnInstallRoot(KindletError, ValueError):
    pass


class KindletEnded(KindletError):
    """The kindlet ended (or did not start) before it did its part."""


class RendererNotRegistered(KindletEnded):
    def __init__(self, message, kindlet, renderer):
        KindletEnded.__init__(self, message, kindlet)
        self.renderer = renderer


def _checkRoot(root):
    for program in ("kindlet-control", "kindlet"):
        path = os.path.join(root, "bin", program)
        if not os.access(path, os.X_OK):
            raise NotAnInstallRoot("%r is not a kindlet install root: %s is missing or not "
                                   "executable" % (root, path))


class Kindlet(object):
    """One kindlet and the kindlet-control that is its parent.

    `process` is the kindlet-control process; `pid` is kindlet's (None until
    known, or when it did not start); `sequenceID` the one it was given;
    `session` its LiveRenderController.Session once registered
    (waitForSession). Once it has ended, `status` is the word kindlet-control
    uses ("succeeded", "failed", "killed", "crashed", "failed to start", or
    "unknown" when kindlet-control itself was killed), `ended` the whole
    description ("failed: exit status 255", "killed: signal 15 (Terminated)",
    "failed to start: <why>"), `exitStatus` and `signal` the numbers, and
    `analyticsReport` and `cost` (a dict) the analytics report's path and cost
    record, when kindlet wrote one."""

    def __init__(self, options, root=None, registry=None, sequenceID=None, env=None,
                 log="stderr"):
        self.root = os.path.abspath(root or ROOT)
        _checkRoot(self.root)
        self.registry = registry
        self.sequenceID = sequenceID
        self.session = None
        self.pid = None
        self.status = self.ended = self.exitStatus = self.signal = None
        self.analyticsReport = self.cost = None
        self.log = collections.deque(maxlen=200)
        self._reportText = b""
        arguments = [os.path.join(self.root, "bin", "kindlet-control"), "render"]
        if registry is not None:
            arguments += ["--registry", "127.0.0.1:%d" % registry.port]
        if sequenceID is not None:
            options = ["-sequenceID", str(sequenceID)] + list(options)
        self._report, writeEnd = os.pipe()
        try:
            self.process = subprocess.Popen(
                arguments + ["--report-fd", str(writeEnd), "--"] + list(options),
                env=dict(os.environ) if env is None else env, pass_fds=(writeEnd,),
                stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
        except BaseException:
            os.close(self._report)
            raise
        finally:
            os.close(writeEnd)
        os.set_blocking(self._report, False)
        log = sys.stderr if log == "stderr" else log  # the one of the time, not of the import
        self._logThread = threading.Thread(target=self._readLog, args=(log,), daemon=True)
        self._logThread.start()

    def __repr__(self):
        return "Kindlet(pid=%s, sequenceID=%s, %s)" % (self.pid, self.sequenceID,
                                                      self.ended or "running")

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.kill()

    def _readLog(self, log):
        for raw in self.process.stderr:
            line = raw.decode("utf-8", "replace")
            self.log.append(line.rstrip("\n"))
            if log is not None:
                log.write(line)
                log.flush()

    def _readReport(self, toEnd=False):
        if toEnd and self._report is not None:
            os.set_blocking(self._report, True)
        while self._report is not None:
            try:
                chunk = os.read(self._report, 4096)
            except BlockingIOError:
                break
            if not chunk:
                os.close(self._report)
                self._report = None
                break
            self._reportText += chunk
        *lines, self._reportText = self._reportText.split(b"\n")
        for line in lines:
            self._reportLine(line.decode("utf-8", "replace"))

    def _reportLine(self, line):
        end = _END.fullmatch(line)
        if line.startswith("kindlet pid "):
            self.pid = int(line.split()[2])
        elif line.startswith("analytics report "):
            self.analyticsReport, cost = line[len("analytics report "):].split(" ", 1)
            self.cost = json.loads(cost)
        elif end:
            self.status, self.ended = end.group(1), "%s: %s" % end.groups()
            number = re.match(r"(exit status|signal) (\d+)", end.group(2))
            if number and number.group(1) == "signal":
                self.signal = int(number.group(2))
            elif number:
                self.exitStatus = int(number.group(2))

    def _finish(self):
        self._readReport(toEnd=True)
        # The log may still be on its way: kindlet-control has gone, so it
        # ends soon unless a grandchild holds it.
        self._logThread.join(2)
        if self.status is None:
            code = self.process.returncode
            self.status = "unknown"
            self.ended = "unknown: kindlet-control ended with %s" % (
                "signal %d" % -code if code < 0 else "exit status %d" % code)

    def poll(self):
        """The status once kindlet has ended, else None."""
        if self.status is None:
            self._readReport()
            if self.process.poll() is not None:
                self._finish()
        return self.status

    def wait(self, timeout=None):
        """Waits for the end (serving the registry meanwhile, if any) and
        returns the status; TimeoutError after `timeout` seconds."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while self.poll() is None:
            if deadline is not None and time.monotonic() >= deadline:
                raise TimeoutError("%r has not ended after %s s" % (self, timeout))
            if self.registry is not None:
                self.registry.poll(0.05)
            else:
                try:
                    self.process.wait(0.05)
                except subprocess.TimeoutExpired:
                    pass
        return self.status

    def kill(self):
        """Ends kindlet with SIGKILL if it still runs, and waits for its end."""
        if self.poll() is None:
            if self.pid is None:
                self._readReport()
            if self.pid is not None and self.process.poll() is None:
                try:
                    os.kill(self.pid, 9)
                except ProcessLookupError:
                    pass
            else:
                self.process.kill()
            self.wait()
        return self.status

    def waitForSession(self, timeout=60.0):
        """Serves the registry until this kindlet's session has registered and
        returns it. Raises KindletEnded (RendererNotRegistered for an unknown
        renderer) as soon as the kindlet ended before registering, and
        TimeoutError after `timeout` seconds."""
        if self.registry is None:
            raise KindletError("%r renders in batch: it has no session" % self, self)
        deadline = time.monotonic() + timeout
        while self._findSession() is None:
            if self.poll() is not None:
                self.registry.poll(0)  # it may have registered before it ended
                if self._findSession() is None:
                    raise self.failure("before it registered")
                break
            if time.monotonic() >= deadline:
                raise TimeoutError("%r has not registered with the registry on port %d after %s s"
                                   % (self, self.registry.port, timeout))
            self.registry.poll(0.05)
        return self.session

    def _findSession(self):
        if self.session is None and self.registry is not None:
            self._readReport()
            for session in self.registry.sessions:
                if session.pid == self.pid:
                    self.session = session
        return self.session

    def failure(self, when):
        """The exception for an end that was not asked for: how it ended,
        `when`, and the error lines of its log."""
        errors = [line for line in self.log
                  if line.startswith(("[ERROR", "[FATAL", "FATAL", "kindlet-control: "))
                  and not line.startswith(("kindlet-control: kindlet ",
                                           "kindlet-control: analytics "))]
        message = "kindlet %s %s" % (self.ended, when)
        if errors:
            message += "; its log: " + " | ".join(errors[-3:])
        unregistered = _UNREGISTERED.search(message)
        if unregistered:
            return RendererNotRegistered(message, self, unregistered.group(1))
        return KindletEnded(message, self)


def _options(opTree, renderer, renderMethodName, frames, tempDir, options):
    arguments = ["-tempDir", tempDir or tempfile.gettempdir(), "-arbolite3OpTree", str(opTree),
                 "-renderer", renderer, "-renderMethodName", renderMethodName]
    if frames is not None:
        arguments += ["-t", str(frames)]
    for name, value in (options or {}).items():
        arguments += ["-" + name.lstrip("-"), str(value)]
    return arguments


def start(opTree, renderer, registry=None, sequenceID=None, renderMethodName=None, frames=None,
          tempDir=None, options=None, root=None, env=None, log="stderr"):
    """Starts one kindlet of `root` (default: the root of this module) for
    the Op tree file `opTree` (a pattern with `*` and `frames`, e.g. "1-3,7",
    for a sequence) with the registered renderer `renderer`: a live render
    that registers with `registry` (a LiveRenderController.Registry) when one
    is given, else a batch render. `options` maps further kindlet options
    (without the dash) to values; `env` replaces the environment handed down;
    kindlet's standard error goes to the file `log` ("stderr": sys.stderr; None:
    nowhere) and its last lines stay in the Kindlet's `.log`.
    Returns the Kindlet at once; NotAnInstallRoot for a root without
    kindlet-control and kindlet."""
    method = renderMethodName or ("liveRender" if registry is not None else "diskRender")
    return Kindlet(_options(opTree, renderer, method, frames, tempDir, options), root=root,
                   registry=registry, sequenceID=sequenceID, env=env, log=log)


def render(opTree, renderer, renderMethodName="diskRender", frames=None, tempDir=None,
           options=None, root=None, env=None, log="stderr", timeout=None, check=True):
    """A batch render to its end (arguments as for start); returns the ended
    Kindlet with `status` and the analytics `cost` record (the report goes to
    SELVANE_ANALYTICS_DIR of the environment, or to a temporary folder that is
    removed). Raises RendererNotRegistered for an unknown renderer, and with
    `check` KindletEnded for any end but "succeeded"."""
    env = dict(os.environ) if env is None else dict(env)
    scratch = None
    if not env.get("SELVANE_ANALYTICS_DIR"):
        scratch = env["SELVANE_ANALYTICS_DIR"] = tempfile.mkdtemp(prefix="kindlet-analytics-")
    try:
        kindlet = start(opTree, renderer, renderMethodName=renderMethodName, frames=frames,
                        tempDir=tempDir, options=options, root=root, env=env, log=log)
        try:
            kindlet.wait(timeout)
        except TimeoutError:
            kindlet.kill()
            raise
    finally:
        if scratch:
            shutil.rmtree(scratch, ignore_errors=True)
    if scratch:
        kindlet.analyticsReport = None
    if kindlet.status != "succeeded":
        failure = kindlet.failure("rendering %s" % opTree)
        if check or isinstance(failure, RendererNotRegistered):
            raise failure
    return kindlet


def stop(kindlets, timeout=30.0):
    """Ends live renders: sends "stopLiveEditing" to each one's session every
    2 seconds until it has ended (a stop that arrives just before the render
    loop sleeps wakes nobody), serving the registries meanwhile. Returns the
    statuses; after `timeout` seconds the rest are killed and TimeoutError is
    raised."""
    deadline = time.monotonic() + timeout
    nextStop = 0
    while any(k.poll() is None for k in kindlets):
        now = time.monotonic()
        if now >= deadline:
            for kindlet in kindlets:
                kindlet.kill()
            raise TimeoutError("live renders still running after %s s: %r" % (timeout, kindlets))
        if now >= nextStop:
            nextStop = now + 2
            for kindlet in kindlets:
                if kindlet.poll() is None and kindlet._findSession() is not None:
                    kindlet.registry.stop(kindlet.session.sequenceID)
        for registry in {id(k.registry): k.registry for k in kindlets if k.registry}.values():
            registry.poll(0.05)
    return [k.status for k in kindlets]
