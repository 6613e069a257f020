"""The browser viewer's numbers, measured in headless Chromium against a live
path-tracer render of the demo scene at 512x512 (docs/performance.md):

- edit to first pixels: a small camera drag in the page, timed with
  performance.now() from the pointer event to the painting of the first frame
  whose scene state includes it (window.kindletViewer.latencies);
- the renderer's samples per second while the page is streamed every pass,
  against windows in which the page watches nothing (kindlet-control still
  takes every pass, nothing goes to the browser), alternated.

usage: viewer_bench.py ROOT [edits] [windows]"""

import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By

root = sys.argv[1]
edits = int(sys.argv[2]) if len(sys.argv) > 2 else 40
windows = int(sys.argv[3]) if len(sys.argv) > 3 else 4
work = tempfile.mkdtemp(prefix="viewer-bench-")
scene = open(root + "/share/kindlet/examples/pathtracer/wuson.optree.json").read()
scene = scene.replace('"$value": [320, 240]', '"$value": [512, 512]')
open(work + "/scene.optree.json", "w").write(scene)

process = subprocess.Popen(
    [root + "/bin/kindlet-control", "--view", "127.0.0.1:0", "--start", "--script", "/dev/null",
     "--", "-tempDir", work, "-renderer", "pathtracer", "-renderMethodName", "liveRender",
     "-arbolite3OpTree", work + "/scene.optree.json", "-samples", "100000"],
    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
url = next(m.group(1) for m in (re.match(r"viewer at (\S+)", l) for l in process.stdout) if m)
options = webdriver.ChromeOptions()
options.binary_location = "/usr/bin/chromium"
for flag in ["--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             "--window-size=1100,800", "--user-data-dir=" + work + "/chromium"]:
    options.add_argument(flag)
driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


def wait(script, seconds=60):
    deadline = time.time() + seconds
    while time.time() < deadline:
        value = driver.execute_script(script)
        if value:
            return value
        time.sleep(0.01)
    raise SystemExit("timed out: " + script)


try:
    driver.get(url)
    wait("return window.kindletViewer.frames > 0")
    canvas = driver.find_element(By.ID, "image")
    ActionChains(driver).move_to_element(canvas).perform()
    for i in range(edits):
        count = driver.execute_script("return window.kindletViewer.latencies.length")
        ActionChains(driver).click_and_hold().move_by_offset(4 if i % 2 else -4, 0).release().perform()
        wait(f"return window.kindletViewer.latencies.length > {count}")
        time.sleep(0.3)  # let refinement go on between edits, as a user does
    latencies = sorted(driver.execute_script("return window.kindletViewer.latencies"))
    p90 = latencies[int(0.9 * (len(latencies) - 1))]
    print(f"edit to first pixels, {len(latencies)} edits: median {statistics.median(latencies):.1f} ms,"
          f" p90 {p90:.1f} ms, min {latencies[0]:.1f}, max {latencies[-1]:.1f}")

    key = driver.execute_script("const f = window.kindletViewer.frame; return f.sequenceID + '/' + f.image")
    frame = "const f = window.kindletViewer.frame; return [f.samples, f.receivedMs, f.sceneState];"
    rates = {"streamed": [], "not streamed": []}
    for _ in range(windows):
        for mode in rates:
            if mode == "not streamed":
                driver.execute_script("window.kindletViewer.watchKey('none')")
            a = driver.execute_script(frame)
            time.sleep(5)
            driver.execute_script(f"window.kindletViewer.watchKey('{key}')")
            count = driver.execute_script("return window.kindletViewer.frames")
            wait(f"return window.kindletViewer.frames > {count}")
            b = driver.execute_script(frame)
            assert a[2] == b[2]
            rates[mode].append((b[0] - a[0]) / (b[1] - a[1]) * 1000)
    for mode, values in rates.items():
        print(f"samples per second, {mode}: median {statistics.median(values):.2f} "
              f"({', '.join('%.2f' % v for v in values)})")
    loss = 1 - statistics.median(rates["streamed"]) / statistics.median(rates["not streamed"])
    print(f"streaming costs the renderer {100 * loss:.1f}% of its samples per second")
finally:
    driver.quit()
    process.terminate()
    process.wait()
