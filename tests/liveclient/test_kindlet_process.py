"""KindletProcess against the installed root (KINDLET_TEST_ROOT), from a clean
environment: kindlet-control of the root is the parent."""

import os
import shutil
import signal
import subprocess
import sys
import time

import pytest

import ArboliteAPI as A
import KindletProcess as K
import LiveRenderController as L

ROOT = os.environ["KINDLET_TEST_ROOT"]
EXAMPLES = ROOT + "/share/kindlet/examples/"
CLEAN = {"PATH": "/usr/bin:/bin"}


def test_a_batch_render_of_a_sequence_gives_its_status_and_cost(tmp_path):
    assert K.ROOT == ROOT
    done = K.render(EXAMPLES + "frames/shot.*.optree.json", "recording", frames="1-2",
                    tempDir=tmp_path, options={"recordFile": tmp_path / "calls.txt"}, env=CLEAN)
    assert (done.status, done.ended, done.exitStatus, done.signal) == (
        "succeeded", "succeeded: exit status 0", 0, None)
    assert sorted(done.cost) == ["bytesRead", "bytesWritten", "cpuSeconds", "peakResidentBytes",
                                 "wallSeconds"]
    assert done.cost["cpuSeconds"] > 0
    assert (tmp_path / "calls.txt").read_text().count("\nstop ") == 2


def fakeRoot(tmp_path, script, interpreter=True):
    """A root whose bin/kindlet is a shell script."""
    os.makedirs(tmp_path / "bin")
    shutil.copy(ROOT + "/bin/kindlet-control", tmp_path / "bin")
    os.symlink(ROOT + "/lib", tmp_path / "lib")
    if interpreter:
        home = [name for name in os.listdir(ROOT + "/bin") if name.startswith("python3.")]
        os.symlink(ROOT + "/bin/" + home[0], tmp_path / "bin" / home[0])
    (tmp_path / "bin" / "kindlet").write_text("#!/bin/sh\n" + script + "\n")
    os.chmod(tmp_path / "bin" / "kindlet", 0o755)
    return str(tmp_path)


@pytest.mark.parametrize("case", ["no root", "unknown renderer", "unknown renderer live",
                                  "no scene live", "crashed", "no interpreter"])
def test_bad_input_is_a_prompt_exception_naming_the_cause(tmp_path, case):
    registry = L.Registry() if case.endswith("live") else None
    scene, renderer, root = EXAMPLES + "scene.optree.json", "recording", ROOT
    if case.startswith("unknown renderer"):
        renderer = "noSuchRenderer"
    elif case == "no scene live":
        scene = str(tmp_path / "missing.optree.json")
    elif case == "crashed":
        root = fakeRoot(tmp_path, "echo '[ERROR Test] about to crash' >&2; kill -SEGV $$")
    elif case == "no interpreter":
        root = fakeRoot(tmp_path, "exit 0", interpreter=False)
    try:
        with pytest.raises(K.KindletError) as raised:
            if case == "no root":
                K.start(scene, renderer, root=str(tmp_path))
            elif registry:
                K.start(scene, renderer, registry=registry, env=CLEAN).waitForSession(600)
            else:
                K.render(scene, renderer, root=root, tempDir=tmp_path, env=CLEAN)
    finally:
        if registry:
            registry.close()
    message, kindlet = str(raised.value), raised.value.kindlet
    expected = {
        "no root": (K.NotAnInstallRoot, "%r is not a kindlet install root: %s/bin/kindlet-control"
                    % (str(tmp_path), tmp_path)),
        "unknown renderer": (K.RendererNotRegistered, 'kindlet failed: exit status 255 rendering '),
        "unknown renderer live": (K.RendererNotRegistered, "failed: exit status 255 before it "
                                  "registered; its log: [ERROR"),
        "no scene live": (K.KindletEnded, "missing.optree.json"),
        "crashed": (K.KindletEnded, "kindlet crashed: signal 11 (Segmentation fault) rendering "),
        "no interpreter": (K.KindletEnded, "failed to start: no interpreter home in " + root),
    }[case]
    assert type(raised.value) is expected[0] and expected[1] in message, message
    if case.startswith("unknown renderer"):
        assert raised.value.renderer == "noSuchRenderer"
        assert 'no renderer plug-in registers the name "noSuchRenderer"' in message
    if case == "crashed":
        assert (kindlet.status, kindlet.signal, kindlet.exitStatus) == ("crashed", 11, None)
        assert "[ERROR Test] about to crash" in message


def test_live_renders_register_take_updates_and_end_as_asked(tmp_path):
    registry = L.Registry()
    records = [tmp_path / "one.txt", tmp_path / "two.txt"]
    kindlets = [K.start(EXAMPLES + "scene.optree.json", "recording", registry=registry,
                        sequenceID=i + 1, tempDir=tmp_path, env=CLEAN,
                        options={"recordFile": records[i]}) for i in range(2)]
    try:
        sessions = [k.waitForSession(60) for k in kindlets]
        assert [(s.sequenceID, s.pid) for s in sessions] == [(1, kindlets[0].pid),
                                                             (2, kindlets[1].pid)]
        builder = A.GroupBuilder()
        builder.set("fov", A.FloatAttribute(45.0))
        assert registry.sendUpdate(builder.build()) == 2
        assert K.stop(kindlets[:1]) == ["succeeded"]
        assert kindlets[1].kill() == "killed"
        assert (kindlets[1].ended, kindlets[1].signal) == ("killed: signal 9 (Killed)", 9)
    finally:
        for kindlet in kindlets:
            kindlet.kill()
        registry.close()
    assert [line.split(" ", 2)[2] for line in records[0].read_text().splitlines()
            if line.startswith("submitUpdate ")] == ["{fov=45}"]


def test_a_kindlet_ends_when_the_script_that_started_it_dies(tmp_path):
    script = ("import sys, KindletProcess as K, LiveRenderController as L\n"
              "k = K.start(%r, 'recording', registry=L.Registry(), tempDir=%r)\n"
              "print(k.waitForSession(60).pid, flush=True)\n"
              "sys.stdin.read()\n" % (EXAMPLES + "scene.optree.json", str(tmp_path)))
    child = subprocess.Popen([sys.executable, "-c", script], stdin=subprocess.PIPE,
                             stdout=subprocess.PIPE,
                             env=dict(CLEAN, PYTHONPATH=ROOT + "/bin/python"))
    pid = int(child.stdout.readline())
    child.send_signal(signal.SIGKILL)
    child.wait()
    for _ in range(300):
        if not os.path.exists("/proc/%d" % pid):
            break
        time.sleep(0.1)
    assert not os.path.exists("/proc/%d" % pid)
