"""Checks a recording renderer's record file: frames f1..fN (the scene's only
child names the frame) each completed a render (start then stop) exactly once.
Lines of several processes interleave; each process is followed by its
thread id, and a process renders one scene at a time."""
import collections
import re
import sys

path, count = sys.argv[1], int(sys.argv[2])
scene_of = {}
started = set()
done = collections.Counter()
for line in open(path):
    parts = line.split(" ", 2)
    call, tid = parts[0], parts[1].strip()
    if call in ("create", "setSceneIterator"):
        match = re.match(r"/root\(f(\d+)\)", parts[2])
        scene_of[tid] = int(match.group(1)) if match else None
    elif call == "start":
        started.add(tid)
    elif call == "stop" and tid in started:
        started.discard(tid)
        done[scene_of.get(tid)] += 1
wrong = {frame: done[frame] for frame in range(1, count + 1) if done[frame] != 1}
extra = set(done) - set(range(1, count + 1))
if wrong or extra:
    print("renders per frame that are not 1:", wrong, "unexpected scenes:", extra)
    sys.exit(1)
