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

Sending never waits for a render: what a render's connection will not take
yet waits in that session's backlog, in order, and goes out as the render
reads, on every call of this class (poll, waitForSessions, flush, a send). A
session whose backlog passes `backlogLimit` bytes has stopped reading: it is
given up with a line on standard error and listed in `givenUp`; the client
is told (a given-up message) and ends its live render. Registrations beyond
`maxSessions` in total or `maxSessionsPerConnection` on one connection are
refused the same way, and a client message larger than `maxMessageBytes`
ends that client's connection.

Images: `Registry(images=["*"], onImage=callable)` asks every render that
offers them for its renderer's images (or those named) and hands each pass
over as a NumPy array: to `onImage`, through the iterator `images()` and as
`latestImage(session, name)`. See LiveRenderImages.

The class is not thread-safe: use one Registry from one thread; `onImage` is
called on it, from within poll and the calls that poll.
"""

import collections
import fcntl
import json
import mmap
import os
import struct
import sys
import time

import zmq

import LiveRenderImages
import LiveRenderMerge

__all__ = ["Registry", "Session", "REGISTER", "BYE", "REGISTERED", "UPDATE", "COMMAND",
           "REGION", "SHARED_UPDATE", "GIVEN_UP"]

REGISTER, BYE, REGION_MAPPED = 0x01, 0x02, 0x03
REGISTERED, UPDATE, COMMAND, REGION, SHARED_UPDATE = 0x81, 0x82, 0x83, 0x84, 0x85
GIVEN_UP = 0x8a

REGION_HEADER = 64       # bytes before the payloads; the first 8 are the release mark
REGION_SIZE = 16 << 20
SHARED_FROM = 1 << 10    # updates from this size on go through the region


class PayloadRing(object):
    """A region of shared memory (an anonymous memory file) that one
    session's large updates are copied into; only a small message naming them
    goes through the socket. Space comes back as the client releases it."""

    def __init__(self, size=REGION_SIZE):
        self._fd = os.memfd_create("kindlet-live-updates",
                                   os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
        os.ftruncate(self._fd, size)
        # Clients refuse a region that could shrink under their mapping.
        fcntl.fcntl(self._fd, fcntl.F_ADD_SEALS,
                    fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_GROW | fcntl.F_SEAL_SEAL)
        self._map = mmap.mmap(self._fd, size)
        self._area = size - REGION_HEADER
        self._written = 0
        self.path = "/proc/%d/fd/%d" % (os.getpid(), self._fd)

    def close(self):
        self._map.close()
        os.close(self._fd)

    def place(self, body):
        """The shared-update message for `body` copied into the ring, or None
        when the ring has no room for it now."""
        size = len(body)
        at = self._written % self._area
        skip = self._area - at if at + size > self._area else 0
        (released,) = struct.unpack_from("<Q", self._map, 0)
        if size > self._area or self._written + skip + size - released > self._area:
            return None
        if skip:
            at = 0
        self._map[REGION_HEADER + at:REGION_HEADER + at + size] = body
        self._written += skip + size
        return struct.pack("<BIQQQ", SHARED_UPDATE, 24, REGION_HEADER + at, size, self._written)


def _isInt64(value):
    return type(value) is int and -(1 << 63) <= value < (1 << 63)


class Session(object):
    """One registered render: the fields of its registration, and `identity`,
    the routing socket's name for its connection. A registration that is not
    a JSON object with every member of the right type raises ValueError, as
    kindlet-control refuses it."""

    def __init__(self, identity, registration):
        if not isinstance(registration, dict):
            raise ValueError("registration is not a JSON object")
        get = registration.get
        if not (isinstance(get("session"), str) and _isInt64(get("sequenceID"))
                and isinstance(get("opTreeFile"), str) and isinstance(get("renderer"), str)
                and isinstance(get("renderMethods"), list) and _isInt64(get("pid"))):
            raise ValueError("registration lacks a member or has one of the wrong type")
        self.identity = identity
        self.name = registration["session"]
        self.sequenceID = registration["sequenceID"]
        self.opTreeFile = registration["opTreeFile"]
        self.renderer = registration["renderer"]
        self.renderMethods = [m for m in registration["renderMethods"] if isinstance(m, str)]
        self.pid = registration["pid"]
        self.backlog = collections.deque()  # messages not yet taken, oldest first
        self.backlogBytes = 0
        self.sharedRegions = registration.get("sharedRegions") is True
        self.ring = None
        self.ringMapped = False  # the client said so: until then updates go whole

    def __repr__(self):
        return "Session(%r, sequenceID=%d, pid=%d)" % (self.name, self.sequenceID, self.pid)


class Registry(object):
    """The service registry: one routing socket bound at host:port."""

    def __init__(self, port=0, host="127.0.0.1", backlogLimit=256 << 20, images=None,
                 onImage=None, maxSessions=128, maxSessionsPerConnection=1,
                 maxMessageBytes=2 << 30, merge=False):
        self._context = zmq.Context()
        self._socket = self._context.socket(zmq.ROUTER)
        # A full connection refuses a message (which then waits in the
        # session's backlog) instead of dropping it, and a client that is gone
        # is reported instead of ignored.
        self._socket.setsockopt(zmq.ROUTER_MANDATORY, 1)
        self._socket.setsockopt(zmq.LINGER, 500)
        # ZeroMQ allocates a message whole as soon as its size is known.
        self._socket.setsockopt(zmq.MAXMSGSIZE, maxMessageBytes)
        self._socket.bind("tcp://%s:%s" % (host, port or "*"))
        self.port = int(self._socket.getsockopt_string(zmq.LAST_ENDPOINT).rsplit(":", 1)[1])
        self.sessions = []
        self.ended = []  # sessions that said goodbye, oldest first
        self.givenUp = []  # sessions that were gone or stopped reading
        self.backlogLimit = backlogLimit
        self.maxSessions = maxSessions
        self.maxSessionsPerConnection = maxSessionsPerConnection
        self._farewells = []  # (identity, given-up message) the connection has not taken yet
        # Shared memory reaches only clients on this machine.
        self._local = host.startswith("127.") or host == "localhost"
        # The names of the images to ask for ("*": all), what came of them.
        self._images = LiveRenderImages.ImageStore(
            images, onImage, LiveRenderMerge.ImageMerge if merge else None)
        # One view on several kindlets: updates sent to all are kept for those
        # that register later (see _replayTo).
        self._merge = merge
        self._updates = []
        self._updatesHad = {}    # (pid, session) -> how many of _updates it was sent
        self._replayDue = {}     # image connection -> (pid, session) waiting for its first pass

    def close(self, flushTimeout=2.0):
        """Gives the backlogs up to `flushTimeout` seconds to leave, then
        unbinds; the clients notice the outage and register again with
        whichever registry comes back on the same port."""
        if not self.flush(flushTimeout):
            for session in self.sessions:
                if session.backlog:
                    sys.stderr.write("LiveRenderController: %r did not read its last %d messages "
                                     "before the registry closed\n" % (session, len(session.backlog)))
        for session in list(self.sessions):
            self._forget(session)
        self._images.receiver.close()
        self._socket.close()
        self._context.term()

    def flush(self, timeout=30.0):
        """Waits until every backlog has left (True) or `timeout` seconds
        have passed (False), serving registrations meanwhile."""
        deadline = time.monotonic() + timeout
        while any(s.backlog for s in self.sessions):
            if time.monotonic() >= deadline:
                return False
            self.poll(0.002)
        return True

    def poll(self, timeout=0):
        """Sends what the backlogs hold as far as the clients take it and
        handles the clients' messages that arrive within `timeout` seconds;
        returns the number handled."""
        handled = 0
        deadline = time.monotonic() + timeout
        while True:
            self._flushBacklogs()
            remaining = max(0.0, deadline - time.monotonic())
            if self._farewells or any(s.backlog for s in self.sessions):
                # The routing socket says only that some connection has room,
                # not which: look again soon.
                remaining = min(remaining, 0.002)
            if not self._socket.poll(int(remaining * 1000)):
                self._flushBacklogs()
                if time.monotonic() >= deadline:
                    return handled
                continue
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
        reached. A large one goes through the shared region of each session
        that has one."""
        data = update.getBinary() if hasattr(update, "getBinary") else bytes(update)
        message = struct.pack("<BI", UPDATE, len(data)) + data
        if self._merge and sequenceID is None:
            self._updates.append((message, data if len(data) >= SHARED_FROM else None))
        return self._send(message, sequenceID, data if len(data) >= SHARED_FROM else None,
                          kept=self._merge and sequenceID is None)

    def sendCommand(self, text, sequenceID=None):
        """Sends a control command; "stopLiveEditing" ends the live render."""
        data = text.encode("utf-8")
        return self.sendRaw(struct.pack("<BI", COMMAND, len(data)) + data, sequenceID)

    def stop(self, sequenceID=None):
        return self.sendCommand("stopLiveEditing", sequenceID)

    def sendRaw(self, message, sequenceID=None):
        """Sends one message as it is to every session, or to those with this
        sequence ID, without waiting (see above). Returns the sessions it went
        to or waits for."""
        return self._send(message, sequenceID, None)

    def _send(self, message, sequenceID, sharedBody, kept=False):
        self.poll(0)
        reached = 0
        for session in list(self.sessions):
            if sequenceID is not None and session.sequenceID != sequenceID:
                continue
            key = (session.pid, session.name)
            if kept and self._updatesHad.get(key, 0) + 1 < len(self._updates):
                reached += 1  # waits for its replay, which brings this one too, in order
                continue
            named = session.ring.place(sharedBody) if session.ringMapped and sharedBody else None
            if self._sendTo(session, named or message):
                reached += 1
                if kept:
                    self._updatesHad[key] = len(self._updates)
        return reached

    def _replayTo(self, session):
        """The updates sent to all that `session` has not had, in order. kindlet
        applies what comes before its live loop begins only with the next
        delivery, so a session that sends images gets them with its first pass."""
        key = (session.pid, session.name)
        while self._updatesHad.get(key, 0) < len(self._updates) and session in self.sessions:
            message, sharedBody = self._updates[self._updatesHad.get(key, 0)]
            self._updatesHad[key] = self._updatesHad.get(key, 0) + 1
            named = session.ring.place(sharedBody) if session.ringMapped and sharedBody else None
            self._sendTo(session, named or message)

    def _trySend(self, session, message):
        """True when sent, False when the connection is full; a session that
        is gone is given up (then None)."""
        try:
            self._socket.send_multipart([session.identity, message], zmq.NOBLOCK, copy=False)
            return True
        except zmq.Again:
            return False
        except zmq.ZMQError:
            self._giveUp(session, "is gone")
            return None

    def _sendTo(self, session, message):
        # Behind a backlog a message waits its turn, so the stream stays ordered.
        if not session.backlog:
            sent = self._trySend(session, message)
            if sent is None:
                return False
            if sent:
                return True
        session.backlog.append(message)
        session.backlogBytes += len(message)
        if session.backlogBytes > self.backlogLimit:
            self._giveUp(session, "has stopped reading: more than %d bytes wait for it"
                         % self.backlogLimit)
            return False
        return True

    def _flushBacklogs(self):
        for farewell in list(self._farewells):
            try:
                self._socket.send_multipart(list(farewell), zmq.NOBLOCK)
            except zmq.Again:
                continue
            except zmq.ZMQError:
                pass  # nobody left to tell
            self._farewells.remove(farewell)
        for session in list(self.sessions):
            while session.backlog:
                sent = self._trySend(session, session.backlog[0])
                if not sent:
                    break
                session.backlogBytes -= len(session.backlog.popleft())

    def _giveUp(self, session, why):
        sys.stderr.write("LiveRenderController: %r %s; giving the session up (%d messages to it "
                         "not sent)\n" % (session, why, len(session.backlog)))
        self._forget(session)
        self.givenUp.append(session)
        if why != "is gone":
            self._farewell(session.identity, "it " + why)

    def _farewell(self, identity, why):
        """Tells the client its session was given up, once its connection
        takes the message; the client then ends its live render."""
        text = why.encode("utf-8")
        self._farewells.append((identity, struct.pack("<BI", GIVEN_UP, len(text)) + text))
        # Clients that refuse to read make it cost no more than the sessions would.
        del self._farewells[:-self.maxSessions]
        self._flushBacklogs()

    def _refusal(self, identity, session):
        others = [s for s in self.sessions if (s.pid, s.name) != (session.pid, session.name)]
        if sum(s.identity == identity for s in others) >= self.maxSessionsPerConnection:
            return "one connection may register at most %d session%s" % (
                self.maxSessionsPerConnection, "" if self.maxSessionsPerConnection == 1 else "s")
        if len(others) >= self.maxSessions:
            return "the registry serves at most %d sessions" % self.maxSessions
        return None

    def _forget(self, session, reregistered=False):
        self.sessions.remove(session)
        # A session registered again keeps its images: its new image
        # connection may have greeted before the registration came.
        if not reregistered:
            self._images.receiver.forget(session.pid, session.name)
            if self._images.merge:
                self._images.merge.forget(session.pid, session.name)
        if session.ring:
            session.ring.close()
            session.ring = None

    def _handle(self, identity, message):
        if message[0] == REGISTER:
            try:
                registration = json.loads(message[1:].decode("utf-8"))
                session = Session(identity, registration)
            except ValueError as error:  # bad JSON and bad UTF-8 are ValueErrors too
                sys.stderr.write("LiveRenderController: ignored a registration: %s\n"
                                 % (error if "registration" in str(error)
                                    else "registration is not a JSON object"))
                return
            refused = self._refusal(identity, session)
            if refused:
                sys.stderr.write("LiveRenderController: refused the registration of %r: %s\n"
                                 % (session, refused))
                self._farewell(identity, refused)
                return
            # A client that reconnected registers again under a new identity.
            for old in [s for s in self.sessions if (s.pid, s.name) == (session.pid, session.name)]:
                self._forget(old, reregistered=True)
            self.sessions.append(session)
            if self._sendTo(session, bytes([REGISTERED])) and session.sharedRegions and self._local:
                ring = PayloadRing()
                path = ring.path.encode("utf-8")
                if self._sendTo(session, struct.pack("<BI", REGION, len(path)) + path):
                    session.ring = ring
                else:
                    ring.close()
            session.sendsImages = isinstance(registration, dict) and registration.get("images") is True
            if session in self.sessions and session.sendsImages and self._images.wanted:
                self._sendTo(session, LiveRenderImages.imagesWanted(self._images.wanted))
            elif self._merge:
                self._replayTo(session)
        elif message[0] == REGION_MAPPED:
            for session in self.sessions:
                if session.identity == identity and session.ring:
                    session.ringMapped = True
        elif message[0] == BYE:
            for session in self.sessions:
                if session.identity == identity:
                    self._forget(session)
                    self.ended.append(session)
                    break
        elif LiveRenderImages.IMAGE_HELLO <= message[0] <= LiveRenderImages.IMAGE_CLOSE:
            self._handleImageMessage(identity, message)

    # Images (LiveRenderImages).

    def wantImages(self, names):
        """Asks every session that offers images for these ("*": all; an
        empty list: none) from now on."""
        self._images.wanted = [names] if isinstance(names, str) else list(names)
        for session in list(self.sessions):
            if getattr(session, "sendsImages", False):
                self._sendTo(session, LiveRenderImages.imagesWanted(self._images.wanted))

    def images(self, timeout=None):
        """Yields the images' passes as they arrive, each image's newest only
        (a pass replaced before it was taken is never yielded), oldest image
        first, serving the registry meanwhile. Ends once nothing new has come
        for `timeout` seconds (None: never)."""
        while True:
            self.poll(0)
            deadline = None if timeout is None else time.monotonic() + timeout
            image = self._images.take()
            while image is None:
                if deadline is not None and time.monotonic() >= deadline:
                    return
                self.poll(0.005)
                image = self._images.take()
            yield image

    def latestImage(self, session, name):
        """The newest pass of image `name` of `session` (a Session, or a
        sequence ID: then of its session that sent one last) that has
        arrived, taken or not, also after the session ended; None before."""
        return self._images.latest(session, name)

    def _handleImageMessage(self, identity, message):
        if self._merge and message[0] == LiveRenderImages.IMAGE_HELLO:
            try:
                session, _, pid = LiveRenderImages.parseHello(message)
                self._replayDue[identity] = (pid, session)
            except LiveRenderImages.BadImageMessage:
                pass  # the receiver says so
        if self._merge and message[0] == LiveRenderImages.IMAGE_PASS and identity in self._replayDue:
            due = self._replayDue.pop(identity)
            for session in [s for s in self.sessions if (s.pid, s.name) == due]:
                self._replayTo(session)
        answer = self._images.receiver.handle(identity, message)
        if answer is not None:
            try:
                self._socket.send_multipart([identity, answer], zmq.NOBLOCK)
            except zmq.ZMQError:
                sys.stderr.write("LiveRenderController: an image connection did not take "
                                 "its answer\n")
        self._images.callBack()
