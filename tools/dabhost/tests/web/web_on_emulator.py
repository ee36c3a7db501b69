#!/usr/bin/env python3
"""dabhost --web on the emulated device (MVC900_* from the environment), over
HTTP as the page drives it.

Usage: web_on_emulator.py DABHOST SLIDES
"""
import json, os, re, subprocess, sys, tempfile, time, urllib.error, urllib.request

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


def main():
    dabhost, slides = sys.argv[1:3]
    log = tempfile.TemporaryFile(mode="w+")
    host = subprocess.Popen([dabhost, "--web", "0", "-f", "227360", "-i", "0.05"], stderr=log)
    try:
        page = wait_for("dabhost's port", lambda: log.seek(0) == 0 and
                        (lambda m: m and m.group(1))(re.search(r"web page at (http://\S+/)", log.read())), 5)
        over_http(page, slides)
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
