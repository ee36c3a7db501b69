#!/usr/bin/env python3
"""dabhost --web on the emulated device (MVC900_* from the environment), first
over HTTP as the page drives it, then in headless Chromium through
chromedriver (W3C WebDriver, standard library only; skipped without them).

Usage: web_on_emulator.py DABHOST SLIDES SCREENSHOT
"""
import base64, json, os, re, shutil, socket, subprocess, sys, tempfile, time, urllib.error, urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # the key WebDriver names elements by


def call(base, method, path, body=None, kind="application/json"):
    data = None if body is None else (body if isinstance(body, str) else json.dumps(body)).encode()
    req = urllib.request.Request(base + path, data=data, method=method, headers={"Content-Type": kind})
    try:
        with urllib.request.urlopen(req, timeout=30) as r:
            return r.status, json.loads(r.read() or b"{}")
    except urllib.error.HTTPError as e:
        return e.code, None


def wait_for(what, check, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        value = check()
        if value:
            return value
        time.sleep(0.2)
    raise AssertionError("timed out waiting for " + what)


def mp3_frames(data):
    """MPEG-1 layer III frames at 48 kHz in stereo from the first header on, walked by their lengths."""
    rates = [0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320]
    p, frames = data.find(b"\xff\xfb"), 0
    while p >= 0 and p + 4 <= len(data):
        h = data[p:p + 4]
        assert h[0] == 0xFF and h[1] == 0xFB and (h[2] >> 2) & 3 == 1 and h[3] >> 6 != 3, "no MP3 header at %d" % p
        p, frames = p + 144 * rates[h[2] >> 4] * 1000 // 48000 + ((h[2] >> 1) & 1), frames + 1
    return frames


def over_http(page, slides):
    state = lambda: call(page, "GET", "api/state")[1]
    s = wait_for("the ensemble", lambda: (lambda s: s["outcome"] == "complete" and s)(state()), 20)
    assert s["ensemble"]["label"] == "MVX DEFAULT" and s["signal"]["locked"], s
    labels = [(v["label"], v["kind"]) for v in s["ensemble"]["services"]]
    assert labels == [("MVX Plus", "DAB+"), ("MVX Classic", "MP2"), ("", "data")], labels
    # Bad commands are refused and change nothing.
    for path, body in [("select", "{"), ("select", '{"service": 7}'), ("tune", '{"frequency": "99Z"}'),
                       ("tune", '{"frequency": 12}'), ("scan", '{"frequencies": [true]}'), ("scan", "[]")]:
        assert call(page, "POST", "api/" + path, body)[0] == 400, (path, body)
    assert call(page, "POST", "api/select", '{"service": "MVX Plus"}', "text/plain")[0] == 415
    # A selected MP2 service streams MP3: 1.5 s of it.
    assert call(page, "POST", "api/select", {"service": "MVX Classic"})[0] == 202
    wait_for("MVX Classic", lambda: (lambda s: s["service"] and s["service"]["audioFrames"] > 10)(state()), 10)
    with urllib.request.urlopen(page + "audio.mp3", timeout=10) as r:
        assert mp3_frames(r.read(24000)) > 50
    # Another frequency: its DAB+ service with its label and one of the pictures sent.
    assert call(page, "POST", "api/tune", {"frequency": "12D"})[0] == 202
    call(page, "POST", "api/select", {"service": "PAD Plüs"})
    s = wait_for("PAD Plüs", lambda: (lambda s: s["service"] and s["service"]["label"] == "PAD Plüs" and
                                      s["service"]["slides"] > 0 and s["service"]["dynamicLabel"] and s)(state()), 25)
    assert s["frequencyKhz"] == 229072 and s["ensemble"]["label"] == "MVX PAD", s
    assert s["service"]["dynamicLabel"] == "DAB+ now: Grüße", s
    with urllib.request.urlopen(page + "slide") as r:
        assert r.headers["Content-Type"] == "image/png"
        picture = r.read()
    assert any(open(os.path.join(slides, f), "rb").read() == picture for f in os.listdir(slides))


def in_browser(page, driver, chromium, screenshot):
    port = socket.create_server(("127.0.0.1", 0)).getsockname()[1]
    chrome = subprocess.Popen([driver, "--port=%d" % port], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    base, session = "http://127.0.0.1:%d" % port, None
    try:
        wait_for("chromedriver", lambda: call(base, "GET", "/status")[1]["value"]["ready"] if _up(port) else False, 5)
        args = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--window-size=1280,900",
                "--autoplay-policy=no-user-gesture-required"]
        caps = {"capabilities": {"alwaysMatch": {"browserName": "chrome",
                                                 "goog:chromeOptions": {"binary": chromium, "args": args}}}}
        session = call(base, "POST", "/session", caps)[1]["value"]["sessionId"]
        s = base + "/session/" + session
        script = lambda code: call(s, "POST", "/execute/sync", {"script": code, "args": []})[1]["value"]
        call(s, "POST", "/url", {"url": page})
        wait_for("MVX PAD", lambda: script("return document.getElementById('ensemble-label').textContent") == "MVX PAD", 15)
        buttons = wait_for("the services", lambda: script(
            "return [...document.querySelectorAll('#services button')].map(b => b.textContent)"), 10)
        index = 1 + next(i for i, b in enumerate(buttons) if b.startswith("PAD Classic"))
        button = call(s, "POST", "/element", {"using": "css selector",
                                              "value": "#services button[data-id]:nth-child(%d)" % index})[1]["value"]
        call(s, "POST", "/element/%s/click" % button[ELEMENT], {})
        wait_for("the Dynamic Label", lambda: script("return document.getElementById('dynamic-label').textContent")
                 == "MP2 now: a text of more than sixteen characters", 20)
        wait_for("the slide", lambda: script("const i = document.getElementById('slide');"
                                             "return i.complete && i.naturalWidth > 0 && i.style.display !== 'none'"), 20)
        assert script("return document.querySelector('#services button.selected').textContent").startswith("PAD Classic")
        # The click started the MP3 stream: the <audio> element plays it.
        wait_for("the audio to play", lambda: script(
            "const p = document.getElementById('player'); return !p.error && p.currentTime > 0.5"), 10)
        with open(screenshot, "wb") as f:
            f.write(base64.b64decode(call(s, "GET", "/screenshot")[1]["value"]))
    finally:
        if session:
            call(base, "DELETE", "/session/" + session)
        chrome.terminate()
        chrome.wait(10)


def _up(port):
    try:
        socket.create_connection(("127.0.0.1", port), 1).close()
        return True
    except OSError:
        return False


def main():
    dabhost, slides, screenshot = sys.argv[1:4]
    log = tempfile.TemporaryFile(mode="w+")
    host = subprocess.Popen([dabhost, "--web", "0", "-f", "227360", "-i", "0.05"], stderr=log)
    try:
        page = wait_for("dabhost's port", lambda: log.seek(0) == 0 and
                        (lambda m: m and m.group(1))(re.search(r"web page at (http://\S+/)", log.read())), 5)
        over_http(page, slides)
        chromium, driver = shutil.which("chromium") or shutil.which("chromium-browser"), shutil.which("chromedriver")
        if chromium and driver:
            in_browser(page, driver, chromium, screenshot)
        else:
            print("chromium and chromedriver are not installed: the page was not tried in a browser")
        # dabhost ends in order on SIGINT, and so does a stream still playing.
        stream = urllib.request.urlopen(page + "audio.mp3", timeout=10)
        host.send_signal(2)
        assert host.wait(10) == 0, "dabhost exited with %d" % host.returncode
        while stream.read(65536):
            pass
        print("PASSED")
        return 0
    except AssertionError as e:
        log.seek(0)
        print("FAILED:", e, "\n" + log.read()[-3000:])
        return 1
    finally:
        if host.poll() is None:
            host.kill()


if __name__ == "__main__":
    sys.exit(main())
