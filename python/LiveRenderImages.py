"""Images from live renders, received by LiveRenderController's Registry.

A render whose registration says `"images": true` sends the images its
renderer publishes once the registry asks for them (Registry(images=...)).
They come over a second connection of the client's (docs/live-render-protocol.md,
"Images"); each pass arrives here as an `Image`: the pixels as a NumPy array
of shape (height, width, channels), float16 or float32, copied out of the
message or the client's shared memory, and tagged by the session, the image's
name, the pass, its sample count and the scene state it shows:

    >>> registry = L.Registry(images=["*"], onImage=lambda image: print(image))
    >>> for image in registry.images(timeout=10):    # newest pass of each image
    ...     show(image.pixels)
    >>> registry.latestImage(session, "beauty")       # or None

The client sends no newer pass of an image until the registry is done with
the one it sent, and each is copied before that answer, so a script that
reads slowly gets the newest pass of each image, never a backlog, and the
render never waits for it. A message that breaks the protocol is dropped
with one line on standard error; the images after it still arrive.
"""

import collections
import fcntl
import json
import mmap
import os
import struct
import sys

import numpy

IMAGE_HELLO, IMAGE_OPEN, IMAGE_PASS, IMAGE_CLOSE = 0x04, 0x05, 0x06, 0x07
IMAGES_WANTED, IMAGE_DONE = 0x88, 0x89

INLINE = 0xffffffff      # the slot of a pass whose pixels follow its header
SLOTS = 3                # buffers in an image's memory file
PASS_HEADER = 33         # kind, u32 image, u32 slot, u64 pass, u64 samples, u64 scene state
LARGEST_SIDE = 32768
MOST_CHANNELS = 64
PIXEL_TYPES = {"half": numpy.dtype("<f2"), "float": numpy.dtype("<f4")}


def imagesWanted(names):
    """The images-wanted message for these names ("*": all; none: stop)."""
    body = "\n".join(names).encode("utf-8")
    return struct.pack("<BI", IMAGES_WANTED, len(body)) + body


class BadImageMessage(ValueError):
    """A message the registry drops; the text is the reason."""


class Image(object):
    """One pass of one image of one session. `pixels` is the registry's own
    copy: keep it as long as you like."""

    __slots__ = ("session", "sequenceID", "pid", "name", "image", "channels", "pixelType",
                 "passNumber", "samples", "sceneState", "pixels")

    def __init__(self, **fields):
        for name in self.__slots__:
            setattr(self, name, fields[name])

    @property
    def preview(self):
        """The quick first image of a new scene state (no samples yet)."""
        return self.samples == 0

    def __repr__(self):
        return ("Image(%r, session=%r, sequenceID=%d, pass=%d, samples=%d, sceneState=%d, %dx%d %s)"
                % (self.name, self.session, self.sequenceID, self.passNumber, self.samples,
                   self.sceneState, self.pixels.shape[1], self.pixels.shape[0],
                   "".join(self.channels)))


def _integer(value, lowest, highest):
    return type(value) is int and lowest <= value <= highest


def _jsonObject(message, what):
    if len(message) < 5:
        raise BadImageMessage(what + " shorter than its header")
    (length,) = struct.unpack_from("<I", message, 1)
    if length != len(message) - 5:
        raise BadImageMessage("%s claims %d bytes but carries %d"
                              % (what, length, len(message) - 5))
    try:
        document = json.loads(message[5:].decode("utf-8"), parse_constant=_refuse)
    except ValueError:
        document = None
    if not isinstance(document, dict):
        raise BadImageMessage(what + " is not a JSON object")
    return document


def _refuse(constant):
    raise ValueError(constant)


def parseHello(message):
    """(session name, sequenceID, pid) of an image hello."""
    hello = _jsonObject(message, "image hello")
    session, sequenceID, pid = (hello.get(k) for k in ("session", "sequenceID", "pid"))
    if not (isinstance(session, str) and _integer(sequenceID, -2**63, 2**63 - 1)
            and _integer(pid, -2**63, 2**63 - 1)):
        raise BadImageMessage("image hello lacks a member or has one of the wrong type")
    return session, sequenceID, pid


class ImageDescription(object):
    """What an image open says, checked as usable."""

    def __init__(self, message):
        fields = _jsonObject(message, "image open")
        get = fields.get
        region = get("region")
        if not (_integer(get("image"), 0, 2**32 - 1) and isinstance(get("name"), str)
                and _integer(get("width"), -2**31, 2**31 - 1)
                and _integer(get("height"), -2**31, 2**31 - 1)
                and isinstance(get("channels"), list) and isinstance(get("pixelType"), str)
                and (region is None or (isinstance(region, str)
                                        and _integer(get("slotBytes"), 0, 2**64 - 1)))):
            raise BadImageMessage("image open lacks a member or has one of the wrong type")
        self.image, self.name = fields["image"], fields["name"]
        self.width, self.height = fields["width"], fields["height"]
        self.pixelType = fields["pixelType"]
        if self.pixelType not in PIXEL_TYPES:
            raise BadImageMessage('image %s has the unknown pixel type "%s"'
                                  % (self.name, self.pixelType))
        if not (1 <= self.width <= LARGEST_SIDE and 1 <= self.height <= LARGEST_SIDE):
            raise BadImageMessage("image %s has a size of %dx%d"
                                  % (self.name, self.width, self.height))
        channels = fields["channels"]
        named = all(isinstance(c, str) and c for c in channels)
        if not named or len(set(channels)) != len(channels):
            raise BadImageMessage("image %s has a channel without a name of its own" % self.name)
        if not 1 <= len(channels) <= MOST_CHANNELS:
            raise BadImageMessage("image %s has %d channels" % (self.name, len(channels)))
        self.channels = tuple(channels)
        self.dtype = PIXEL_TYPES[self.pixelType]
        self.pixelBytes = self.width * self.height * len(channels) * self.dtype.itemsize
        self.region = region
        self.slotBytes = fields["slotBytes"] if region is not None else 0
        if region is not None and self.slotBytes < self.pixelBytes:
            raise BadImageMessage("image %s has buffers of %d bytes for %d bytes of pixels"
                                  % (self.name, self.slotBytes, self.pixelBytes))
        self.mapping = None  # the memory file, once mapped

    def pixels(self, source, offset):
        """A copy of the pixels at `offset` of `source` (bytes or the mapping)."""
        shape = (self.height, self.width, len(self.channels))
        view = numpy.frombuffer(source, self.dtype, shape[0] * shape[1] * shape[2], offset)
        copy = view.reshape(shape).copy()
        del view  # a mapping with a view on it cannot be closed
        return copy

    def close(self):
        if self.mapping is not None:
            self.mapping.close()
            self.mapping = None


def mapRegion(path, pid, size):
    """The memory file at `path` mapped read-only: it must be a descriptor of
    process `pid` and sealed against shrinking (one cut short under the
    mapping would end a read with SIGBUS), of at least `size` bytes."""
    prefix = "/proc/%d/fd/" % pid
    digits = path[len(prefix):]
    if not path.startswith(prefix) or not digits or digits.strip("0123456789"):
        raise BadImageMessage("the image region %s is not a descriptor of process %d" % (path, pid))
    try:
        # Not blocking: a path naming a pipe must not hold the registry up.
        fd = os.open(path, os.O_RDONLY | os.O_CLOEXEC | os.O_NONBLOCK)
    except OSError as error:
        raise BadImageMessage("cannot open the image region %s: %s" % (path, error.strerror))
    try:
        try:
            sealed = fcntl.fcntl(fd, fcntl.F_GET_SEALS) & fcntl.F_SEAL_SHRINK
        except OSError:
            sealed = False
        if not sealed or os.fstat(fd).st_size < size or size == 0:
            raise BadImageMessage("the image region %s is not a sealed memory file of %d bytes"
                                  % (path, size))
        try:
            return mmap.mmap(fd, size, flags=mmap.MAP_SHARED, prot=mmap.PROT_READ)
        except (OSError, ValueError, OverflowError) as error:
            raise BadImageMessage("cannot map the image region %s: %s" % (path, error))
    finally:
        os.close(fd)


class _Channel(object):
    """One image connection: the session it greeted as, and its open images."""

    def __init__(self, session, sequenceID, pid):
        self.session, self.sequenceID, self.pid = session, sequenceID, pid
        self.images = {}  # by image number

    def closeAll(self):
        for description in self.images.values():
            description.close()
        self.images.clear()


class ImageReceiver(object):
    """The registry's side of the image connections: hands each pass to
    `deliver(image)` and gives the answer to send back."""

    def __init__(self, deliver):
        self._deliver = deliver
        self._channels = {}  # by the routing socket's identity

    def close(self):
        for channel in self._channels.values():
            channel.closeAll()
        self._channels.clear()

    def forget(self, pid, session):
        """The session has ended: its image connections and mappings go."""
        for identity, channel in list(self._channels.items()):
            if (channel.pid, channel.session) == (pid, session):
                channel.closeAll()
                del self._channels[identity]

    def handle(self, identity, message):
        """Handles one message of an image connection; returns the answer to
        send back on it, or None. A bad message gives one line on standard
        error and is dropped."""
        channel = self._channels.get(identity)
        try:
            if message[0] == IMAGE_HELLO:
                session, sequenceID, pid = parseHello(message)
                # The same session's earlier connection is gone.
                self.forget(pid, session)
                if channel is not None:
                    channel.closeAll()
                self._channels[identity] = _Channel(session, sequenceID, pid)
                return None
            if channel is None:
                raise BadImageMessage("an image message before the connection's hello")
            if message[0] == IMAGE_OPEN:
                self._open(channel, ImageDescription(message))
            elif message[0] == IMAGE_PASS:
                return self._pass(channel, message)
            elif message[0] == IMAGE_CLOSE:
                if len(message) != 5:
                    raise BadImageMessage("image close of %d bytes instead of 5" % len(message))
                description = channel.images.pop(struct.unpack_from("<I", message, 1)[0], None)
                if description is not None:
                    description.close()
            else:
                raise BadImageMessage("a message of unknown kind %d" % message[0])
        except BadImageMessage as error:
            of = "" if channel is None else " of session %s pid %d" % (channel.session, channel.pid)
            sys.stderr.write("LiveRenderController: dropped an image message%s: %s\n" % (of, error))
        return None

    def _open(self, channel, description):
        if description.region is not None:
            description.mapping = mapRegion(description.region, channel.pid,
                                            description.slotBytes * SLOTS)
        old = channel.images.get(description.image)
        if old is not None:
            old.close()
        channel.images[description.image] = description

    def _pass(self, channel, message):
        if len(message) < PASS_HEADER:
            raise BadImageMessage("image pass shorter than its header")
        number, slot, passNumber, samples, sceneState = struct.unpack_from("<IIQQQ", message, 1)
        inlineBytes = len(message) - PASS_HEADER
        if slot != INLINE and (slot >= SLOTS or inlineBytes):
            raise BadImageMessage("image pass in buffer %d with %d bytes of pixels in the message"
                                  % (slot, inlineBytes))
        description = channel.images.get(number)
        if description is None:
            raise BadImageMessage("a pass of image %d, which is not open" % number)
        mapping = description.mapping
        if slot == INLINE:
            if inlineBytes != description.pixelBytes or mapping is not None:
                raise BadImageMessage("a pass of image %s with %d bytes of pixels instead of %d"
                                      % (description.name, inlineBytes,
                                         0 if mapping is not None else description.pixelBytes))
            pixels = description.pixels(message, PASS_HEADER)
        elif mapping is None:
            raise BadImageMessage("a pass of image %s in a region it has not got"
                                  % description.name)
        else:
            pixels = description.pixels(mapping, slot * description.slotBytes)
        self._deliver(Image(session=channel.session, sequenceID=channel.sequenceID,
                            pid=channel.pid, name=description.name, image=number,
                            channels=description.channels, pixelType=description.pixelType,
                            passNumber=passNumber, samples=samples, sceneState=sceneState,
                            pixels=pixels))
        return struct.pack("<BIQ", IMAGE_DONE, number, passNumber)


class ImageStore(object):
    """What a Registry keeps of the images: the newest pass of each image
    (kept after its session ended) and those not yet taken by `take`."""

    def __init__(self, wanted, onImage, merge=None):
        self.wanted = [wanted] if isinstance(wanted, str) else list(wanted or [])
        self.onImage = onImage
        # merge: a LiveRenderMerge.ImageMerge class; what arrives is then the merged view.
        self.merge = merge(self._arrived) if merge else None
        self.receiver = ImageReceiver(self.merge.add if self.merge else self._arrived)
        self._latest = collections.OrderedDict()   # (pid, session, name) -> Image, oldest first
        self._untaken = collections.OrderedDict()  # the same, only those not taken
        self._uncalled = []  # passes onImage has not seen yet

    def _arrived(self, image):
        key = (image.pid, image.session, image.name)
        for table in (self._latest, self._untaken):
            table.pop(key, None)
            table[key] = image
        if self.onImage is not None:
            self._uncalled.append(image)

    def callBack(self):
        """Hands onImage what arrived, once the render has its answer: a
        callback that raises must not leave the render waiting for it."""
        while self._uncalled:
            self.onImage(self._uncalled.pop(0))

    def take(self):
        """The oldest untaken newest pass, or None."""
        return self._untaken.popitem(last=False)[1] if self._untaken else None

    def latest(self, session, name):
        """The newest pass of image `name` of `session` (a Session, or a
        sequence ID: then of whichever of its sessions sent one last)."""
        if isinstance(session, int):
            found = [image for image in self._latest.values()
                     if image.sequenceID == session and image.name == name]
            return found[-1] if found else None
        return self._latest.get((session.pid, session.name, name))
