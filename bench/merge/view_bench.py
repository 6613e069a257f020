"""One live view on several kindlets (kindlet-control --kindlets), measured on
the demo scene (320x240, path tracer, 1 thread per kindlet); docs/performance.md:

- samples per second of the merged view: 2 kindlets against 1 kindlet
  rendering alone (plain --start, no merge), in alternating rounds;
- edit to first pixels: from writing an update line to kindlet-control until
  its first pass of the new scene state (merged, or the lone kindlet's)
  reaches the --images consumer (its debug line), per edit;
- the image: RMSE against a long reference of the merged image of k samples
  from each of 2 kindlets, and of one kindlet's 2k-sample image
  (LiveRenderController, merge=True).

usage: /usr/bin/python3 view_bench.py ROOT [seconds] [rounds] [edits] [k]"""

import os
import re
import statistics
import subprocess
import sys
import tempfile
import threading
import time

root = sys.argv[1]
seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 15
rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 3
edits = int(sys.argv[4]) if len(sys.argv) > 4 else 10
k = int(sys.argv[5]) if len(sys.argv) > 5 else 8
scene = root + "/share/kindlet/examples/pathtracer/wuson.optree.json"
work = tempfile.mkdtemp(prefix="view-bench-")  # also the scene's image files (relative paths)
os.chdir(work)
PASS = re.compile(r"image beauty of session (\S+) sequenceID \d+: pass \d+, (\d+) samples, "
                  r"scene state (\d+)")


def live(kindlets):
    """(samples per second, [edit latencies in ms]) of one run."""
    view = ["--kindlets", str(kindlets)] if kindlets > 1 else []
    process = subprocess.Popen(
        [root + "/bin/kindlet-control", "--start", "--images", work + "/images", "--script", "-"]
        + view + ["--", "-selvaneRoot", root, "-tempDir", work, "-arbolite3OpTree", scene,
                  "-renderer", "pathtracer", "-renderMethodName", "liveRender",
                  "-samples", "1000000", "-threads", "1"],
        stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, cwd=work,
        env=dict(os.environ, SELVANE_LOG_LEVEL="debug"), text=True)
    passes = []  # (time, samples, state)
    arrived = threading.Condition()

    def read():
        for line in process.stderr:
            match = PASS.search(line)
            if match:
                with arrived:
                    passes.append((time.monotonic(), int(match.group(2)), int(match.group(3))))
                    arrived.notify_all()
    reader = threading.Thread(target=read, daemon=True)
    reader.start()

    def waitFor(condition, limit=120):
        with arrived:
            if not arrived.wait_for(lambda: condition(passes), timeout=limit):
                raise RuntimeError("no such pass within %d s" % limit)
            return passes[-1]
    waitFor(lambda p: len(p) > 3)
    time.sleep(2)
    with arrived:
        start = passes[-1]
    time.sleep(seconds)
    with arrived:
        end = passes[-1]
    rate = (end[1] - start[1]) / (end[0] - start[0])
    latencies = []
    for edit in range(1, edits + 1):
        x = 2.5 if edit % 2 else 1.5
        sent = time.monotonic()
        process.stdin.write('update {"/root/lights/rim": {"attributes": {"xform": {"translate": '
                            '[%s, 2.5, -3.0]}}}}\n' % x)
        process.stdin.flush()
        first = waitFor(lambda p: p[-1][2] >= edit)
        latencies.append(1000 * (first[0] - sent))
        time.sleep(0.5)
    process.stdin.write("stop\n")
    process.stdin.close()
    process.wait(timeout=120)
    return rate, latencies


def rmse():
    """RMSE against the reference: merged k + k, and one kindlet of 2k."""
    sys.path.insert(0, root + "/bin/python")
    import numpy
    import KindletProcess as K
    import LiveRenderController as L

    def image(samples, shares, threads=1):
        registry = L.Registry(images="beauty", merge=True)
        kindlets = [K.start(scene, "pathtracer", registry=registry, tempDir=work, log=None,
                            options={"samples": samples, "threads": threads, "sampleOffset": i,
                                     "sampleStride": shares}) for i in range(shares)]
        try:
            for image in registry.images(timeout=300):
                if image.samples == samples:
                    return image.pixels.astype(numpy.float64)
        finally:
            K.stop(kindlets)
            registry.close()
    reference = image(32 * k, 1, threads=2)
    error = lambda pixels: float(numpy.sqrt(numpy.mean((pixels - reference) ** 2)))
    return error(image(2 * k, 2)), error(image(2 * k, 1))


one, two, latencyOne, latencyTwo = [], [], [], []
for _ in range(rounds):
    rate, latencies = live(1)
    one.append(rate)
    latencyOne += latencies
    rate, latencies = live(2)
    two.append(rate)
    latencyTwo += latencies
print("samples/s: 1 kindlet %s, 2 kindlets %s" % ([round(r, 2) for r in one], [round(r, 2) for r in two]))
print("median samples/s: 1 kindlet %.2f, 2 kindlets %.2f, ratio %.2f"
      % (statistics.median(one), statistics.median(two),
         statistics.median(two) / statistics.median(one)))
print("edit to first pixels, median (min-max) ms: 1 kindlet %.1f (%.1f-%.1f), 2 kindlets %.1f (%.1f-%.1f)"
      % (statistics.median(latencyOne), min(latencyOne), max(latencyOne),
         statistics.median(latencyTwo), min(latencyTwo), max(latencyTwo)))
merged, single = rmse()
print("RMSE against %d samples: merged %d + %d: %.5f, one kindlet %d: %.5f"
      % (32 * k, k, k, merged, 2 * k, single))
