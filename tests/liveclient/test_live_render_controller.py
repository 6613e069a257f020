"""LiveRenderController as a pipeline script uses it, against the installed
kindlet with the recording renderer (KINDLET_TEST_ROOT names the root)."""

import json
import os
import struct
import subprocess
import time

import pytest
import zmq

import ArboliteAPI as A
import LiveRenderController as L

ROOT = os.environ["KINDLET_TEST_ROOT"]


def startKindlet(tmp_path, port, sequenceID, record):
    env = {
        "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
        "SELVANE_INTERNAL_PYTHONHOME": "/usr",
        "SELVANE_INTERNAL_PYTHONPATH": "/usr/lib/python3.11:/usr/lib/python3.11/lib-dynload:"
                                       + ROOT + "/bin/python",
        "SELVANE_DEFAULT_ASSET_PLUGIN": "FileAsset",
        "SELVANE_DEFAULT_FILE_SEQUENCE_PLUGIN": "FileSequence",
    }
    arguments = [ROOT + "/bin/kindlet", "-selvaneRoot", ROOT, "-tempDir", str(tmp_path),
                 "-arbolite3OpTree", ROOT + "/share/kindlet/examples/scene.optree.json",
                 "-renderer", "recording", "-renderMethodName", "liveRender",
                 "-renderMethodType", "liveRender", "-recordFile", str(record),
                 "-host", "127.0.0.1:0", "-serviceRegistryPort", str(port),
                 "-sequenceID", str(sequenceID)]
    return subprocess.Popen(arguments, env=env, stderr=subprocess.PIPE, universal_newlines=True)


def stopAll(registry, processes):
    """Stops every render and returns their standard error texts. A stop whose
    wake-up falls just before the render loop sleeps is sent again."""
    for _ in range(20):
        registry.stop()
        deadline = time.monotonic() + 1
        while time.monotonic() < deadline and any(p.poll() is None for p in processes):
            registry.poll(0.05)
        if all(p.poll() is not None for p in processes):
            break
    errors = [p.communicate(timeout=30)[1] for p in processes]
    assert [p.returncode for p in processes] == [0] * len(processes), errors
    return errors


def recorded(record, slot):
    with open(record) as f:
        return [line.split(" ", 2)[2].rstrip("\n") for line in f if line.startswith(slot + " ")]


def group(**children):
    builder = A.GroupBuilder()
    for name, value in children.items():
        builder.set(name, value)
    return builder.build()


def test_one_update_reaches_each_render_with_its_own_part(tmp_path):
    registry = L.Registry()
    records = [tmp_path / "one.txt", tmp_path / "two.txt"]
    processes = [startKindlet(tmp_path, registry.port, i + 1, records[i]) for i in range(2)]
    try:
        sessions = registry.waitForSessions(2, timeout=60)
        assert sorted(s.sequenceID for s in sessions) == [1, 2]
        assert all(s.name == "LiveRenderSession_1" and s.renderer == "recording" for s in sessions)
        builder = A.GroupBuilder()
        builder.set("a", A.IntAttribute(1))
        for sequenceID in ("1", "2", "3"):
            builder.set("__perRenderUpdateAttributes." + sequenceID,
                        group(own=A.StringAttribute(sequenceID)))
        assert registry.sendUpdate(builder.build()) == 2
        assert registry.sendCommand("onlyTwo", sequenceID=2) == 1
        # Large enough to go through the session's shared region, once mapped.
        deadline = time.monotonic() + 30
        while not all(s.ringMapped for s in sessions) and time.monotonic() < deadline:
            registry.poll(0.05)
        assert all(s.ringMapped for s in sessions)
        assert registry.sendUpdate(group(big=A.StringAttribute("x" * 70000)), sequenceID=1) == 1
        stopAll(registry, processes)
    finally:
        for p in processes:
            p.kill()
        registry.close()
    assert recorded(records[0], "submitUpdate") == ['{own="1",a=1}', '{big="%s"}' % ("x" * 70000)]
    assert recorded(records[1], "submitUpdate") == ['{own="2",a=1}']
    assert recorded(records[0], "handleControlCommand") == []
    assert recorded(records[1], "handleControlCommand") == ["onlyTwo"]


def test_a_registry_that_comes_back_gets_the_session_again(tmp_path):
    registry = L.Registry()
    port = registry.port
    record = tmp_path / "record.txt"
    process = startKindlet(tmp_path, port, 0, record)
    try:
        registry.waitForSessions(1, timeout=60)
        registry.close()
        time.sleep(2.5)  # several reconnection attempts
        registry = L.Registry(port=port)
        (session,) = registry.waitForSessions(1, timeout=30)
        assert session.pid == process.pid
        registry.sendUpdate(group(after=A.IntAttribute(1)))
        (errors,) = stopAll(registry, [process])
    finally:
        process.kill()
        registry.close()
    lost = [line for line in errors.splitlines() if "lost the controller" in line]
    assert len(lost) == 1, errors
    assert lost[0].startswith("[ERROR LiveRendering] ")
    assert recorded(record, "submitUpdate") == ["{after=1}"]


def test_bad_messages_are_dropped_and_the_session_goes_on(tmp_path):
    registry = L.Registry()
    record = tmp_path / "record.txt"
    process = startKindlet(tmp_path, registry.port, 0, record)
    try:
        registry.waitForSessions(1, timeout=60)
        registry.sendRaw(b"\x82\xff\xff\x00\x00abc")
        registry.sendCommand("still here")
        (errors,) = stopAll(registry, [process])
    finally:
        process.kill()
        registry.close()
    assert "update claims 65535 bytes but carries 3." in errors
    assert recorded(record, "handleControlCommand") == ["still here"]


def test_a_session_that_stops_reading_holds_up_nobody(capfd):
    registry = L.Registry(backlogLimit=2 << 20)
    context = zmq.Context()
    clients = []
    for pid, queue in ((1, 1000), (2, 1)):
        client = context.socket(zmq.DEALER)
        client.setsockopt(zmq.RCVHWM, queue)
        client.setsockopt(zmq.LINGER, 0)
        client.connect("tcp://127.0.0.1:%d" % registry.port)
        client.send(bytes([L.REGISTER]) + json.dumps({
            "session": "s", "sequenceID": 0, "opTreeFile": "", "renderer": "",
            "renderMethods": [], "pid": pid}).encode())
        clients.append(client)
    try:
        registry.waitForSessions(2)
        assert clients[0].recv()[0] == L.REGISTERED
        count, received = 6000, []
        deadline = time.monotonic() + 30
        for i in range(count):
            registry.sendCommand(str(i).ljust(4000))
            while clients[0].poll(0):
                received.append(int(clients[0].recv()[5:]))
        while len(received) < count and time.monotonic() < deadline:
            registry.poll(0.01)
            while clients[0].poll(0):
                received.append(int(clients[0].recv()[5:]))
        assert received == list(range(count))
        assert [s.pid for s in registry.givenUp] == [2]
        assert "pid=2) has stopped reading" in capfd.readouterr().err
        # Told once it reads again: the last message says why.
        last = None
        while clients[1].poll(500):
            last = clients[1].recv()
            registry.poll(0)
        assert last[0] == L.GIVEN_UP and b"it has stopped reading" in last[5:]
    finally:
        for client in clients:
            client.close()
        context.term()
        registry.close(0)


def test_bad_registrations_and_registrations_beyond_the_caps_are_refused(capfd):
    registry = L.Registry(maxSessions=2, maxMessageBytes=4096)
    context = zmq.Context()
    clients = []

    def register(client=None, **fields):
        if client is None:
            client = context.socket(zmq.DEALER)
            client.setsockopt(zmq.LINGER, 0)
            client.connect("tcp://127.0.0.1:%d" % registry.port)
            clients.append(client)
        registration = {"session": "s", "sequenceID": 0, "opTreeFile": "", "renderer": "",
                        "renderMethods": [], "pid": 1}
        registration.update(fields)
        client.send(bytes([L.REGISTER]) + json.dumps(registration).encode())
        registry.poll(0.3)
        return client

    try:
        for bad in ({"pid": "1"}, {"sequenceID": "2"}, {"pid": True}, {"sequenceID": 2.0},
                    {"pid": 1 << 63}, {"session": None}):
            register(**bad)
        register(opTreeFile="x" * 8192)  # larger than the registry takes
        first = register(pid=1)
        register(first, pid=1, session="t")  # a second one on the same connection
        register(pid=2)
        third = register(pid=3)
        assert [repr(s) for s in registry.sessions] == ["Session('s', sequenceID=0, pid=1)",
                                                        "Session('s', sequenceID=0, pid=2)"]
        errors = capfd.readouterr().err.splitlines()
        assert errors == ["LiveRenderController: ignored a registration: registration lacks a "
                          "member or has one of the wrong type"] * 6 + [
            "LiveRenderController: refused the registration of Session('t', sequenceID=0, "
            "pid=1): one connection may register at most 1 session",
            "LiveRenderController: refused the registration of Session('s', sequenceID=0, "
            "pid=3): the registry serves at most 2 sessions"]
        why = b"one connection may register at most 1 session"
        assert [first.recv(), first.recv()] == [bytes([L.REGISTERED]), bytes([L.GIVEN_UP]) +
                                                struct.pack("<I", len(why)) + why]
        assert third.recv()[5:] == b"the registry serves at most 2 sessions"
    finally:
        for client in clients:
            client.close()
        context.term()
        registry.close(0)
