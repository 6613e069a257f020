"""Staying power of a live session: kindlet-control starts one path-tracer
kindlet on the registry, gets its images (--images), and is fed one update a
line on its standard input at a steady rate (default 100 a second for 10
minutes), each moving the rim light of the demo scene (at 160x120 by
default) and carrying its own number. Meanwhile the resident memory (VmRSS) of both processes is sampled
every second.

It passes when
- neither process's resident memory grew by 5% or more from the end of the
  settling time (default the first minute) to the end of the updates;
- every update reached the renderer, once and in order (kindlet logs each at
  debug level with its number), and the renderer applied the last one (the
  final image's scene state, which counts the updates a render has applied,
  equals the number sent, in kindlet-control's log and in the image file);
- no error line showed on either process's log or standard error, and both
  ended with status 0;
- images flowed: passes of scene states before the last arrived while the
  updates came.

usage: soak.py ROOT [--minutes M] [--rate N] [--settle S] [--threads T]
                    [--resolution WxH] [--work DIR]
Exit status 0 when it passes, 1 when not, 2 for a usage error."""

import argparse
import math
import os
import re
import struct
import subprocess
import sys
import tempfile
import threading
import time

parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
parser.add_argument("root", help="an installed root (cmake --install build --prefix ROOT)")
parser.add_argument("--minutes", type=float, default=10.0, help="how long updates are sent")
parser.add_argument("--rate", type=float, default=100.0, help="updates per second")
parser.add_argument("--settle", type=float, default=60.0,
                    help="seconds after which memory must stay flat (default 60)")
parser.add_argument("--threads", type=int, default=1, help="the path tracer's threads")
parser.add_argument("--resolution", default="160x120",
                    help="the image's size (default 160x120; at 320x240 one thread finishes "
                         "no pass between two updates at 100 a second)")
parser.add_argument("--work", help="folder for the log, images and samples (default: a new one in /tmp)")
args = parser.parse_args()
try:
    width, height = (int(v) for v in args.resolution.split("x"))
except ValueError:
    parser.error(f"--resolution {args.resolution}: expected WIDTHxHEIGHT, e.g. 160x120")
root = os.path.abspath(args.root)
control = os.path.join(root, "bin", "kindlet-control")
if not os.access(control, os.X_OK):
    parser.error(f"{root} is not an installed root: no bin/kindlet-control")
work = os.path.abspath(args.work) if args.work else tempfile.mkdtemp(prefix="kindlet-soak-")
os.makedirs(work + "/images", exist_ok=True)
total = int(round(args.minutes * 60 * args.rate))

UPDATE = re.compile(r"\[DEBUG \S+\] Processing Live Render Update: .*?soakUpdate.*?value=\"(\d+)\"")
PASS = re.compile(r"\[DEBUG KindletControl\] image (\S+) of session .*: pass (\d+), (\d+) samples, scene state (\d+)")
ERROR = re.compile(r"^(\[ERROR |kindlet-control: |Traceback|terminate called|==\d+==|.*runtime error)")


class Log:
    """kindlet-control's standard error, kindlet's log included (kindlet
    inherits it): kept in a file and read as it comes."""

    def __init__(self, stream, path):
        self.applied = 0        # updates seen by kindlet, in order
        self.out_of_order = []  # (expected, seen)
        self.passes = 0
        self.passes_while_sending = 0  # of a scene state before the last update's
        self.scene_state = -1   # of the newest pass
        self.errors = []
        self.warnings = 0
        self.lock = threading.Lock()
        self.file = open(path, "w")
        self.thread = threading.Thread(target=self.read, args=(stream,), daemon=True)
        self.thread.start()

    def read(self, stream):
        for line in stream:
            self.file.write(line)
            with self.lock:
                self.take(line.rstrip("\n"))
        self.file.close()

    def take(self, line):
        if m := UPDATE.match(line):
            number = int(m.group(1))
            if number == self.applied + 1:
                self.applied = number
            elif len(self.out_of_order) < 20:
                self.out_of_order.append((self.applied + 1, number))
        elif m := PASS.match(line):
            self.passes += 1
            self.scene_state = int(m.group(4))
            self.passes_while_sending += self.scene_state < total
        elif ERROR.match(line):
            self.errors.append(line)
        elif line.startswith("[WARNING "):
            self.warnings += 1

    def state(self):
        with self.lock:
            return self.scene_state


def memory_kib(pid):
    """VmRSS and, of it, the anonymous pages (RssAnon): heap and the like,
    where a leak shows without the noise of shared libraries paged in."""
    values = {}
    try:
        with open(f"/proc/{pid}/status") as status:
            for line in status:
                key = line.split(":")[0]
                if key in ("VmRSS", "RssAnon"):
                    values[key] = int(line.split()[1])
    except OSError:
        pass
    return values.get("VmRSS"), values.get("RssAnon")


def exr_int_attribute(path, name):
    """An int attribute from an OpenEXR file's header (name, type, size, value)."""
    with open(path, "rb") as f:
        data = f.read(65536)
    at = 8  # magic and version
    while at < len(data) and data[at] != 0:
        end = data.index(b"\0", at)
        key = data[at:end].decode()
        kind_end = data.index(b"\0", end + 1)
        kind = data[end + 1:kind_end].decode()
        size = struct.unpack_from("<i", data, kind_end + 1)[0]
        value = kind_end + 5
        if key == name and kind == "int":
            return struct.unpack_from("<i", data, value)[0]
        at = value + size
    return None


def update_line(number):
    # The rim light circles the model once every 10 seconds.
    angle = 2 * math.pi * number / (10 * args.rate)
    translate = [round(3.5 * math.cos(angle), 4), 2.5, round(3.5 * math.sin(angle), 4)]
    # The number rides beside the location's attributes, where the renderer
    # ignores it and kindlet's log shows it.
    return ('update {"/root/lights/rim": {"attributes": {"xform": {"translate": %s}}, '
            '"soakUpdate": {"$type": "int", "$value": %d}}}\n' % (translate, number))


scene = work + "/scene.optree.json"
with open(os.path.join(root, "share/kindlet/examples/pathtracer/wuson.optree.json")) as f:
    text = f.read().replace('"$value": [320, 240]', '"$value": [%d, %d]' % (width, height))
with open(scene, "w") as f:
    f.write(text)
environment = dict(os.environ, SELVANE_LOG_LEVEL="debug")
environment.pop("SELVANE_LOG_FILE", None)
process = subprocess.Popen(
    [control, "--start", "--images", work + "/images", "--connect-timeout", "120", "--",
     "-tempDir", work, "-renderer", "pathtracer", "-renderMethodName", "liveRender",
     "-arbolite3OpTree", scene, "-threads", str(args.threads)],
    cwd=work, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
    stderr=subprocess.PIPE, text=True)
log = Log(process.stderr, work + "/stderr.log")
stdout = []
registered = threading.Event()


def read_stdout():
    for line in process.stdout:
        stdout.append(line.rstrip("\n"))
        if line.startswith("registered "):
            registered.set()


threading.Thread(target=read_stdout, daemon=True).start()
if not registered.wait(180):
    process.kill()
    sys.exit("the kindlet did not register within 180 s; see " + work + "/stderr.log")
kindlet = int(next(l.split()[2] for l in stdout if l.startswith("kindlet pid ")))
print(f"kindlet-control pid {process.pid}, kindlet pid {kindlet}; {total} updates at "
      f"{args.rate:g}/s; work folder {work}", flush=True)

# seconds since the first update; VmRSS of kindlet and kindlet-control; their RssAnon (KiB)
samples = []
sending = threading.Event()
start = time.monotonic()


def snapshot():
    (k, k_anon), (c, c_anon) = memory_kib(kindlet), memory_kib(process.pid)
    return time.monotonic() - start, k, c, k_anon, c_anon


def sample():
    while not sending.is_set():
        samples.append(snapshot())
        time.sleep(1.0)


sampler = threading.Thread(target=sample)
sampler.start()
late = 0.0
for number in range(1, total + 1):
    due = start + (number - 1) / args.rate
    now = time.monotonic()
    if now < due:
        time.sleep(due - now)
    else:
        late = max(late, now - due)
    process.stdin.write(update_line(number))
    process.stdin.flush()
    if number % int(60 * args.rate) == 0:
        s = samples[-1]
        print(f"{s[0]:6.0f} s: {number} updates sent, scene state {log.state()}, RSS kindlet "
              f"{s[1]} KiB, kindlet-control {s[2]} KiB", flush=True)
sent_seconds = time.monotonic() - start
sending.set()
sampler.join()
samples.append(snapshot())

deadline = time.monotonic() + 60
while log.state() != total and time.monotonic() < deadline:
    time.sleep(0.1)
process.stdin.write("stop\n")
process.stdin.close()
try:
    status = process.wait(120)
except subprocess.TimeoutExpired:
    process.kill()
    status = process.wait()
log.thread.join(10)

with open(work + "/memory.tsv", "w") as f:
    f.write("seconds\tkindlet_rss_kib\tcontrol_rss_kib\tkindlet_anon_kib\tcontrol_anon_kib\n")
    for s in samples:
        f.write("%.1f\t%s\t%s\t%s\t%s\n" % s)

failures = []
settled = next((s for s in samples if s[0] >= args.settle), samples[0])
end = samples[-1]
print(f"\nupdates: {total} sent in {sent_seconds:.1f} s ({total / sent_seconds:.1f}/s, at most "
      f"{late * 1000:.0f} ms late), {log.applied} reached the renderer in order")
for column, name, what in ((1, "kindlet", "VmRSS"), (3, "kindlet", "RssAnon"),
                           (2, "kindlet-control", "VmRSS"), (4, "kindlet-control", "RssAnon")):
    first, last = settled[column], end[column]
    if first is None or last is None:
        failures.append(f"no {what} of {name}")
        continue
    peak = max(s[column] for s in samples if s[0] >= settled[0] and s[column] is not None)
    growth = 100.0 * (last - first) / first
    print(f"{what} {name}: {samples[0][column]} KiB at the start, {first} KiB at {settled[0]:.0f} s, "
          f"{last} KiB at the end ({end[0]:.0f} s), peak after that {peak} KiB, growth {growth:+.2f}%")
    if what == "VmRSS" and growth >= 5.0:
        failures.append(f"{name}'s resident memory grew by {growth:.2f}%")
image = work + "/images/0.beauty.exr"
file_state = exr_int_attribute(image, "kindlet:sceneState") if os.path.exists(image) else None
print(f"image passes: {log.passes}, {log.passes_while_sending} of them while updates came; "
      f"scene state of the last pass {log.scene_state}, of {os.path.basename(image)} {file_state}")
print(f"error lines: {len(log.errors)}; warning lines: {log.warnings}; exit status {status}")
for line in log.errors[:10]:
    print("  " + line)
if log.applied != total or log.out_of_order:
    failures.append(f"{log.applied} of {total} updates reached the renderer in order"
                    + (f"; expected/seen {log.out_of_order}" if log.out_of_order else ""))
if log.scene_state != total or file_state != total:
    failures.append(f"the last image shows scene state {log.scene_state} (file: {file_state}), not {total}")
if log.passes_while_sending == 0:
    failures.append("no image arrived while updates came")
if log.errors:
    failures.append(f"{len(log.errors)} error lines")
if status != 0 or "kindlet exited with status 0" not in stdout:
    failures.append(f"kindlet-control ended with {status}; its output ends {stdout[-3:]}")
print("\n".join(["FAIL: " + f for f in failures] or ["PASS"]))
sys.exit(1 if failures else 0)
