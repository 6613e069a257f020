"""Images through LiveRenderController: from the installed kindlet's path
tracer, and from a client played by the test (KINDLET_TEST_ROOT names the root)."""

import fcntl
import json
import os
import struct
import time

import numpy
import zmq

import ArboliteAPI as A
import KindletProcess as K
import LiveRenderController as L

ROOT = os.environ["KINDLET_TEST_ROOT"]


def test_live_path_tracers_send_their_passes_apart(tmp_path):
    got = []
    registry = L.Registry(images="*", onImage=got.append)
    kindlets = [K.start(ROOT + "/share/kindlet/examples/pathtracer/wuson.optree.json", "pathtracer",
                        registry=registry, sequenceID=i, tempDir=str(tmp_path), log=None,
                        options={"samples": 4, "threads": 1,
                                 "outputImage": "%s/%d.png" % (tmp_path, i)}) for i in (1, 2)]

    def waitFor(condition):
        deadline = time.monotonic() + 60
        while not condition() and time.monotonic() < deadline:
            registry.poll(0.05)
    try:
        sessions = [k.waitForSession(timeout=60) for k in kindlets]
        waitFor(lambda: {(g.sequenceID, g.samples) for g in got} >= {(1, 4), (2, 4)})
        update = A.GroupBuilder()
        update.set("/root/lights/rim.attributes.xform.translate", A.FloatAttribute([2, 2, -3], 3))
        registry.sendUpdate(update.build(), sequenceID=1)
        waitFor(lambda: any(g.sceneState == 1 and g.samples == 4 for g in got))
        assert K.stop(kindlets) == ["succeeded"] * 2
    finally:
        for k in kindlets:
            k.kill()
        registry.close()
    for session in sessions:
        passes = [g for g in got if (g.pid, g.session) == (session.pid, session.name)]
        assert {g.sequenceID for g in passes} == {session.sequenceID}
        numbers, states = [g.passNumber for g in passes], [g.sceneState for g in passes]
        assert numbers == sorted(set(numbers)) and states == sorted(states)
        assert states[-1] == (1 if session.sequenceID == 1 else 0)
        assert passes[-1].samples == 4 and registry.latestImage(session, "beauty") is passes[-1]
        for g in passes:
            assert g.pixels.shape == (240, 320, 3) and g.pixels.min() < g.pixels.max()


def test_one_view_on_three_kindlets_with_a_late_joiner(tmp_path):
    got = []
    registry = L.Registry(images="beauty", onImage=got.append, merge=True)

    def start(offset):
        return K.start(ROOT + "/share/kindlet/examples/pathtracer/wuson.optree.json", "pathtracer",
                       registry=registry, tempDir=str(tmp_path), log=None,
                       options={"samples": 9, "threads": 1, "sampleOffset": offset,
                                "sampleStride": 3})

    def waitFor(condition):
        deadline = time.monotonic() + 60
        while not condition() and time.monotonic() < deadline:
            registry.poll(0.05)
        return condition()
    kindlets = [start(0), start(1)]
    try:
        for k in kindlets:
            k.waitForSession(timeout=60)
        assert waitFor(lambda: any(g.samples == 6 for g in got))  # 3 + 3
        update = A.GroupBuilder()
        update.set("/root/lights/rim.attributes.xform.translate", A.FloatAttribute([2, 2, -3], 3))
        registry.sendUpdate(update.build())
        assert waitFor(lambda: any(g.sceneState == 1 and g.samples == 6 for g in got))
        kindlets.append(start(2))  # gets the update before its passes count
        assert waitFor(lambda: any(g.sceneState == 1 and g.samples == 9 for g in got))
        assert K.stop(kindlets) == ["succeeded"] * 3
    finally:
        for k in kindlets:
            k.kill()
        registry.close()
    assert {(g.session, g.sequenceID) for g in got} == {("merged", 0)}
    states = [g.sceneState for g in got]
    assert states == sorted(states) and registry.latestImage(0, "beauty") is got[-1]


def message(kind, body=b"", length=None):
    body = json.dumps(body).encode() if isinstance(body, dict) else body
    return struct.pack("<BI", kind, len(body) if length is None else length) + body


def passOf(image, number, slot=0xffffffff, pixels=b""):
    return struct.pack("<BIIQQQ", 6, image, slot, number, 10 * number, 7) + pixels


def test_client_passes_arrive_bit_exact_and_bad_messages_are_dropped(capfd):
    got = []
    registry = L.Registry(images=["beauty", "depth"], onImage=got.append)
    context = zmq.Context()
    control, images = context.socket(zmq.DEALER), context.socket(zmq.DEALER)
    sealed, unsealed = (os.memfd_create("pixels", os.MFD_ALLOW_SEALING) for _ in range(2))
    for fd in (sealed, unsealed):
        os.ftruncate(fd, 3 * 64)
    fcntl.fcntl(sealed, fcntl.F_ADD_SEALS, fcntl.F_SEAL_SHRINK)
    pid, regionOf = os.getpid(), lambda fd: "/proc/%d/fd/%d" % (os.getpid(), fd)
    hello = {"session": "s", "sequenceID": 3, "pid": pid}
    depth = numpy.arange(12, dtype="<f4").tobytes()
    os.pwrite(sealed, depth, 2 * 64)
    beauty = [os.urandom(3 * 2 * 4 * 2) for _ in range(3)]
    image = {"image": 1, "name": "beauty", "width": 3, "height": 2, "channels": list("RGBA"),
             "pixelType": "half"}
    inRegion = dict(image, image=2, name="depth", pixelType="float", channels=["Z", "Y"],
                    region=regionOf(sealed), slotBytes=64)
    bad = [
        (message(4, dict(hello, sequenceID="3")), "image hello lacks a member"),
        (message(5, {"image": 5}, length=99), "image open claims 99 bytes but carries 12"),
        (message(5, dict(image, pixelType="byte")), 'beauty has the unknown pixel type "byte"'),
        (message(5, dict(image, width=0)), "image beauty has a size of 0x2"),
        (message(5, dict(image, channels=["R", "R"])), "image beauty has a channel without a name"),
        (message(5, dict(inRegion, region="/proc/1/fd/3")),
         "the image region /proc/1/fd/3 is not a descriptor of process %d" % pid),
        (message(5, dict(inRegion, region=regionOf(unsealed))), "not a sealed memory file of 192"),
        (message(5, dict(inRegion, slotBytes=8)), "image depth has buffers of 8 bytes for 48"),
        (passOf(1, 1)[:20], "image pass shorter than its header"),
        (passOf(9, 1), "a pass of image 9, which is not open"),
        (passOf(1, 1, pixels=b"xx"), "a pass of image beauty with 2 bytes of pixels instead of 48"),
        (passOf(2, 1, slot=3), "image pass in buffer 3 with 0 bytes of pixels in the message"),
        (passOf(1, 1, slot=0), "a pass of image beauty in a region it has not got"),
        (b"\x07\x01\x00\x00", "image close of 4 bytes instead of 5"),
    ]
    try:
        for socket in (control, images):
            socket.connect("tcp://127.0.0.1:%d" % registry.port)
        control.send(b"\x01" + json.dumps(dict(hello, opTreeFile="", renderer="", renderMethods=[],
                                                 images=True)).encode())
        (session,) = registry.waitForSessions(1)
        assert [control.recv(), control.recv()] == [b"\x81", message(0x88, b"beauty\ndepth")]
        for sent in [passOf(1, 1), message(4, hello), message(5, image), message(5, inRegion)] + \
                [b for b, _ in bad] + \
                [passOf(1, n + 1, pixels=beauty[n]) for n in range(3)] + [passOf(2, 1, slot=2)]:
            images.send(sent)
        registry.poll(0.5)
        # Read late, only the newest pass of each image comes.
        newest = list(registry.images(timeout=0.2))
        answers = [images.recv() for _ in range(4)]
    finally:
        registry.close(0)
        for socket in (control, images):
            socket.close(0)
        context.term()
    assert [(g.name, g.passNumber, g.samples, g.sceneState) for g in newest] == \
        [("beauty", 3, 30, 7), ("depth", 1, 10, 7)]
    assert [(g.pixels.dtype, g.pixels.shape, g.pixels.tobytes()) for g in newest] == \
        [(numpy.float16, (2, 3, 4), beauty[2]), (numpy.float32, (2, 3, 2), depth)]
    assert len(got) == 4 and registry.latestImage(session, "depth") is newest[1]
    assert answers == [struct.pack("<BIQ", 0x89, i, n) for i, n in ((1, 1), (1, 2), (1, 3), (2, 1))]
    lines = capfd.readouterr().err.splitlines()
    assert len(lines) == 1 + len(bad) and lines[0].endswith("before the connection's hello")
    for line, (_, reason) in zip(lines[1:], bad):
        assert line.startswith("LiveRenderController: dropped an image message of session s "
                               "pid %d: " % pid) and reason in line, line
