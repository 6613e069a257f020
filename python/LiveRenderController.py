"""The controlling side of live renders on the live-render client transport.

A controlling application (a lighting tool, a pipeline script, a test) serves
the service registry that kindlet's live-render client connects to, and feeds
every registered render session updates and commands:

    >>> import ArboliteAPI as A, LiveRenderController as L
    >>> registry = L.Registry(port=0)           # 0: a free port, see .port
    >>> # start kindlet with -host 127.0.0.1:0 -serviceRegistryPort <registry.port>
    >>> #   -renderMethodType liveRender [-sequenceID N]
    >>> registry.waitForSessions(1, timeout=30)
    >>> b = A.GroupBuilder()
    >>> b.set("camera.fov", A.FloatAttribute(45.0))
    >>> registry.sendUpdate(b.build())           # every session
    >>> registry.sendCommand("myCommand", sequenceID=2)   # only render 2
    >>> registry.stop()                           # "stopLiveEditing" to every session
    >>> registry.close()

One update serves several renders: give it a group child
"__perRenderUpdateAttributes" with a group per render, named by the render's
decimal sequence ID; each render sees the common update with its own part
folded in. The wire protocol is docs/live-render-protocol.md.

The class is not thread-safe: use one Registry from one thread.
"""

import json
import struct
import time

import zmq

__all__ = ["Registry", "Session", "REGISTER", "BYE", "REGISTERED", "UPDATE", "COMMAND"]

REGISTER, BYE = 0x01, 0x02
REGISTERED, UPDATE, COMMAND = 0x81, 0x82, 0x83


class Session(object):
    """One registered render: the fields of its registration, and `identity`,
    the routing socket's name for its connection."""

    def __init__(self, identity, registration):
        self.identity = identity
        self.name = registration["session"]
        self.sequenceID = registration["sequenceID"]
        self.opTreeFile = registration["opTreeFile"]
        self.renderer = registration["renderer"]
        self.renderMethods = list(registration["renderMethods"])
        self.pid = registration["pid"]

    def __repr__(self):
        return "Session(%r, sequenceID=%d, pid=%d)" % (self.name, self.sequenceID, self.pid)


class Registry(object):
    """The service registry: one routing socket bound at host:port."""

    def __init__(self, port=0, host="127.0.0.1"):
        self._context = zmq.Context()
        self._socket = self._context.socket(zmq.ROUTER)
        # A full queue makes a send wait instead of dropping the message, and
        # a client that is gone is reported instead of ignored.
        self._socket.setsockopt(zmq.ROUTER_MANDATORY, 1)
        self._socket.setsockopt(zmq.LINGER, 500)
        self._socket.bind("tcp://%s:%s" % (host, port or "*"))
        self.port = int(self._socket.getsockopt_string(zmq.LAST_ENDPOINT).rsplit(":", 1)[1])
        self.sessions = []
        self.ended = []  # sessions that said goodbye, oldest first

    def close(self):
        """Unbinds; the clients notice the outage and register again with
        whichever registry comes back on the same port."""
        self._socket.close()
        self._context.term()

    def poll(self, timeout=0):
        """Handles registrations and goodbyes that arrive within `timeout`
        seconds; returns the number handled."""
        handled = 0
        deadline = time.monotonic() + timeout
        while True:
            remaining = max(0.0, deadline - time.monotonic())
            if not self._socket.poll(int(remaining * 1000)):
                return handled
            frames = self._socket.recv_multipart()
            if len(frames) == 2 and frames[1]:
                self._handle(frames[0], frames[1])
                handled += 1

    def waitForSessions(self, count, timeout=30.0, sequenceIDs=None):
        """Waits until `count` sessions are registered (with these sequence
        IDs, if given); raises TimeoutError otherwise."""
        deadline = time.monotonic() + timeout
        while True:
            found = [s for s in self.sessions
                     if sequenceIDs is None or s.sequenceID in sequenceIDs]
            if len(found) >= count:
                return found
            if time.monotonic() >= deadline:
                raise TimeoutError("%d of %d sessions registered" % (len(found), count))
            self.poll(0.05)

    def sendUpdate(self, update, sequenceID=None):
        """Sends an update: a group attribute (anything with getBinary()) or
        the bytes of one in the binary attribute form. Returns the sessions
        reached."""
        data = update.getBinary() if hasattr(update, "getBinary") else bytes(update)
        return self.sendRaw(struct.pack("<BI", UPDATE, len(data)) + data, sequenceID)

    def sendCommand(self, text, sequenceID=None):
        """Sends a control command; "stopLiveEditing" ends the live render."""
        data = text.encode("utf-8")
        return self.sendRaw(struct.pack("<BI", COMMAND, len(data)) + data, sequenceID)

    def stop(self, sequenceID=None):
        return self.sendCommand("stopLiveEditing", sequenceID)

    def sendRaw(self, message, sequenceID=None):
        """Sends one message as it is to every session, or to those with this
        sequence ID. A session whose client is gone is dropped."""
        self.poll(0)
        reached = 0
        for session in list(self.sessions):
            if sequenceID is not None and session.sequenceID != sequenceID:
                continue
            try:
                self._socket.send_multipart([session.identity, message])
                reached += 1
            except zmq.ZMQError:
                self.sessions.remove(session)
        return reached

    def _handle(self, identity, message):
        if message[0] == REGISTER:
            try:
                registration = json.loads(message[1:].decode("utf-8"))
                session = Session(identity, registration)
            except (ValueError, KeyError, TypeError):
                return
            # A client that reconnected registers again under a new identity.
            self.sessions = [s for s in self.sessions
                             if (s.pid, s.name) != (session.pid, session.name)]
            self.sessions.append(session)
            self._socket.send_multipart([identity, bytes([REGISTERED])])
        elif message[0] == BYE:
            for session in self.sessions:
                if session.identity == identity:
                    self.sessions.remove(session)
                    self.ended.append(session)
                    break
