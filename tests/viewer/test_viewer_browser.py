"""The browser viewer of kindlet-control --view, in a real (headless) Chromium
against a live path-tracer render of the demo scene."""

import http.client
import os
import re
import subprocess
import time

import pytest
from selenium import webdriver
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.keys import Keys

ROOT = os.environ["KINDLET_TEST_ROOT"]
SCENE = ROOT + "/share/kindlet/examples/pathtracer/wuson.optree.json"


def start(tmp_path, view):
    env = dict(os.environ, SELVANE_LRUA_DEBUG=str(tmp_path / "updates.txt"))
    process = subprocess.Popen(
        [ROOT + "/bin/kindlet-control", "--view", view, "--view-save-dir", str(tmp_path),
         "--start", "--script", "/dev/null", "--", "-tempDir", str(tmp_path),
         "-renderer", "pathtracer", "-renderMethodName", "liveRender", "-arbolite3OpTree", SCENE,
         "-samples", "24", "-threads", "1"],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=env)
    for line in process.stdout:
        found = re.match(r"viewer at (http://\S+)", line)
        if found:
            return process, found.group(1)
    pytest.fail("kindlet-control printed no viewer address")


@pytest.fixture
def render(tmp_path):
    process, url = start(tmp_path, "127.0.0.1:0")
    yield process, url
    if process.poll() is None:
        process.kill()
    process.wait()


@pytest.fixture
def browser(tmp_path):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ["--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update",
                 "--disable-sync", "--window-size=1100,700",
                 "--user-data-dir=" + str(tmp_path / "chromium")]:
        options.add_argument(flag)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"),
                              options=options)
    yield driver
    driver.quit()


def waitFor(driver, script, seconds=60):
    deadline = time.time() + seconds
    while time.time() < deadline:
        value = driver.execute_script(script)
        if value:
            return value
        time.sleep(0.05)
    errors = driver.execute_script("return window.kindletViewer && window.kindletViewer.errors")
    pytest.fail(f"timed out waiting for: {script} (the page's errors: {errors})")


# Mean and spread of the canvas's pixels (0 to 255), with the frame they show.
CANVAS_STATS = """
const c = document.getElementById('image'), d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
let s = 0, q = 0, n = 0;
for (let i = 0; i < d.length; i += 4) { const v = (d[i] + d[i + 1] + d[i + 2]) / 3; s += v; q += v * v; ++n; }
return {mean: s / n, spread: Math.sqrt(q / n - (s / n) * (s / n)), frame: window.kindletViewer.frame,
        pixels: Array.from(d.filter((_, i) => i % 97 == 0))};
"""


def refined(driver, state, samples=6):
    waitFor(driver, f"const f = window.kindletViewer.frame; return f && f.sceneState >= {state}"
                    f" && f.samples >= {samples};")
    return driver.execute_script(CANVAS_STATS)


def screenshotStats(driver, path):
    """Per-channel mean and spread of the image as the browser shows it (a
    screenshot of the canvas element, read by OpenImageIO's oiiotool)."""
    driver.find_element(By.ID, "image").screenshot(str(path))
    text = subprocess.run(["oiiotool", "--stats", str(path)], capture_output=True, text=True).stdout
    stats = lambda name: [float(v) for v in re.search(name + r": ([\d. ]+) \(", text).group(1).split()]
    return stats("Avg"), stats("StdDev")


def test_the_page_shows_the_render_and_its_edits_reach_the_plugin(render, browser, tmp_path):
    process, url = render
    browser.get(url)
    first = refined(browser, 0)
    assert first["spread"] > 10, "the first image is flat"
    browser.save_screenshot(str(tmp_path / "page.png"))
    shown, spread = screenshotStats(browser, tmp_path / "first.png")
    assert min(spread) > 10 and 20 < min(shown) < max(shown) < 235
    assert "samples" in browser.find_element(By.ID, "status").text

    # A drag orbits the camera: an update of /root/cam reaches kindlet, and
    # the picture is another one.
    canvas = browser.find_element(By.ID, "image")
    ActionChains(browser).move_to_element(canvas).click_and_hold().move_by_offset(60, 0) \
        .move_by_offset(60, 10).release().perform()
    state = waitFor(browser, "return window.kindletViewer.state")
    turned = refined(browser, state)
    turnedShown = screenshotStats(browser, tmp_path / "turned.png")[0]
    assert "/root/cam" in (tmp_path / "updates.txt").read_text()
    changed = sum(abs(a - b) > 8 for a, b in zip(first["pixels"], turned["pixels"]))
    assert changed > len(first["pixels"]) / 10, "the drag did not change the view"
    latencies = browser.execute_script("return window.kindletViewer.latencies")
    assert latencies and all(0 < ms < 30000 for ms in latencies)

    # The key light's intensity slider to its end (four times its value)
    # brightens the picture.
    slider = browser.find_element(By.CSS_SELECTOR, '.light[data-path="/root/lights/key"] .intensity')
    slider.send_keys(Keys.END)
    state = waitFor(browser, f"const s = window.kindletViewer.state; return s > {state} && s")
    brighter = refined(browser, state)
    assert brighter["mean"] > turned["mean"] * 1.15
    assert '"intensity"' in (tmp_path / "updates.txt").read_text()
    brighterShown = screenshotStats(browser, tmp_path / "brighter.png")[0]
    assert sum(brighterShown) > sum(turnedShown) * 1.15

    assert browser.execute_script("return window.kindletViewer.errors") == []

    # Saving writes the newest pass on the controller's disk.
    browser.find_element(By.ID, "saveExr").click()
    saved = waitFor(browser, "return window.kindletViewer.saved")
    assert saved.endswith(".exr") and os.path.getsize(saved) > 1000

    # A malformed message gets an error answer; the render goes on.
    answer = browser.execute_async_script("""
        const done = arguments[0], ws = new WebSocket(`ws://${location.host}/ws`);
        ws.onopen = () => ws.send('{"type": "update", "update": [1]');
        ws.onmessage = (e) => { if (typeof e.data == 'string' && e.data.includes('error')) done(e.data); };""")
    assert "JSON object" in answer
    assert process.poll() is None

    # The stop button ends the render, and kindlet-control with it.
    browser.find_element(By.ID, "stop").click()
    assert process.wait(timeout=60) == 0


def get(port, target, headers):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
    connection.request("GET", target, headers=headers)
    response = connection.getresponse()
    return response.status, response.read()


def test_requests_from_elsewhere_are_refused(tmp_path):
    process, url = start(tmp_path, "127.0.0.1:0")
    try:
        port = int(re.search(r":(\d+)/", url).group(1))
        host = {"Host": f"127.0.0.1:{port}"}
        assert get(port, "/", host)[0] == 200
        assert get(port, "/../etc/passwd", host)[0] == 404
        # A name of another site that points here, and a page of another site.
        assert get(port, "/", {"Host": f"attacker.example:{port}"})[0] == 403
        upgrade = {"Upgrade": "websocket", "Connection": "Upgrade", "Sec-WebSocket-Version": "13",
                   "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ=="}
        assert get(port, "/ws", {**host, **upgrade, "Origin": "http://attacker.example"})[0] == 403
        assert get(port, "/ws", {**host, **upgrade, "Origin": f"http://127.0.0.1:{port}"})[0] == 101
        assert get(port, "/", {**host, "X-Big": "x" * 20000})[0] == 413
    finally:
        process.terminate()  # ends the session as the page's stop button does
        assert process.wait(timeout=60) == 0

    process, url = start(tmp_path, "0.0.0.0:0")
    try:
        port = int(re.search(r":(\d+)/", url).group(1))
        token = re.search(r"token=(\w+)", url).group(1)
        assert get(port, "/", {})[0] == 403
        assert get(port, "/?token=" + token, {})[0] == 200
        assert get(port, "/viewer.js", {"Cookie": "kindletViewerToken=" + token})[0] == 200
    finally:
        process.terminate()
        assert process.wait(timeout=60) == 0
