#!/usr/bin/env python3
"""The web page in a real browser: headless Chromium driven through
chromedriver over the W3C WebDriver protocol (plain HTTP, standard library
only). Starts dabhost --web on the emulated device (MVC900_* from the
environment), opens the page, checks that the ensemble and its services
appear, clicks a service, waits for its Dynamic Label and its slide to load,
and saves a screenshot.

Usage: web_browser.py DABHOST FREQUENCY ENSEMBLE SERVICE LABEL SCREENSHOT
Exits 77 (skipped) without chromium or chromedriver.
"""
import base64
import json
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

SKIP = 77
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # the key WebDriver names elements by


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def call(base, method, path, body=None):
    data = None if body is None else json.dumps(body).encode()
    req = urllib.request.Request(base + path, data=data, method=method,
                                 headers={"Content-Type": "application/json"})
    with urllib.request.urlopen(req, timeout=30) as r:
        return json.loads(r.read() or b"{}").get("value")


def wait_for(what, check, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        value = check()
        if value:
            return value
        time.sleep(0.2)
    raise AssertionError("timed out waiting for " + what)


def main():
    dabhost, frequency, ensemble, service, label, screenshot = sys.argv[1:7]
    chromium = shutil.which("chromium") or shutil.which("chromium-browser")
    driver = shutil.which("chromedriver")
    if not chromium or not driver:
        print("SKIPPED: chromium and chromedriver are not installed")
        return SKIP

    log = tempfile.TemporaryFile(mode="w+")
    host = subprocess.Popen([dabhost, "--web", "0", "-f", frequency, "-i", "0.05"], stderr=log)
    driver_port = free_port()
    chrome = subprocess.Popen([driver, "--port=%d" % driver_port], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    base = "http://127.0.0.1:%d" % driver_port
    session = None
    try:
        def page_address():
            log.seek(0)
            m = re.search(r"web page at (http://\S+/)", log.read())
            return m and m.group(1)
        page = wait_for("dabhost's port", page_address, 5)

        def driver_ready():
            try:
                return call(base, "GET", "/status")["ready"]
            except OSError:
                return False
        wait_for("chromedriver", driver_ready, 5)
        args = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                "--window-size=1280,900", "--autoplay-policy=no-user-gesture-required"]
        caps = {"capabilities": {"alwaysMatch": {"browserName": "chrome",
                                                 "goog:chromeOptions": {"binary": chromium, "args": args}}}}
        session = call(base, "POST", "/session", caps)["sessionId"]
        s = base + "/session/" + session

        def script(code):
            return call(s, "POST", "/execute/sync", {"script": code, "args": []})

        call(s, "POST", "/url", {"url": page})
        wait_for("the ensemble label " + ensemble,
                 lambda: script("return document.getElementById('ensemble-label').textContent") == ensemble, 15)
        buttons = wait_for("the services", lambda: script(
            "return [...document.querySelectorAll('#services button')].map(b => b.textContent)"), 10)
        print("services:", buttons)
        button = call(s, "POST", "/element",
                      {"using": "css selector", "value": "#services button[data-id]:nth-child(%d)"
                       % (1 + next(i for i, b in enumerate(buttons) if b.startswith(service)))})
        call(s, "POST", "/element/%s/click" % button[ELEMENT], {})
        wait_for("the Dynamic Label", lambda: script(
            "return document.getElementById('dynamic-label').textContent") == label, 20)
        size = wait_for("the slide", lambda: script(
            "const i = document.getElementById('slide');"
            "return i.complete && i.naturalWidth > 0 && i.style.display !== 'none' && [i.naturalWidth, i.naturalHeight]"),
            20)
        selected = script("return document.querySelector('#services button.selected').textContent")
        print("selected:", selected, "label:", label, "slide:", size)
        assert selected.startswith(service), selected
        # The click started the MP3 stream: the <audio> element plays it.
        played = wait_for("the audio to play", lambda: script(
            "const p = document.getElementById('player');"
            "return !p.error && p.currentTime > 0.5 && p.currentTime"), 10)
        print("played: %.1f s" % played)
        with open(screenshot, "wb") as f:
            f.write(base64.b64decode(call(s, "GET", "/screenshot")))
        # dabhost ends in order on SIGTERM, with the page still polling.
        host.terminate()
        status = host.wait(10)
        assert status == 0, "dabhost exited with %d" % status
        print("PASSED: screenshot in", screenshot)
        return 0
    except AssertionError as e:
        log.seek(0)
        print("FAILED:", e, "\n" + log.read())
        return 1
    finally:
        if session:
            try:
                call(base, "DELETE", "/session/" + session)
            except OSError:
                pass
        chrome.terminate()
        chrome.wait(10)
        if host.poll() is None:
            host.terminate()
            host.wait(10)


if __name__ == "__main__":
    sys.exit(main())
