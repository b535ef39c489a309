#!/usr/bin/python3
"""The page of `quillmar serve` in a real browser (Debian's chromium, chromedriver and
python3-selenium, headless), against a real recorder's storage and catalogue.

Records 20 calls with loss through quillmarwriter and `quillmar send`, makes a users file with
`quillmar passwd`, starts `quillmar serve`, then as a person would: signs in by the form, searches
a call id (the table shows exactly that call's legs), opens a leg whose recording has gaps, sees the
waveform drawn and the gaps shaded where `quillmar inspect --json` and the peaks API put them,
plays it and sees the player's clock advance, downloads the WAV and compares it byte for byte with
`quillmar export`, and signs out. Screenshots of the search page and of the leg's page are saved in
SCREENSHOTS.

Usage: browser_test.py QUILLMARWRITER QUILLMAR SCREENSHOTS
Prints "N passed, 0 failed" and exits 0, or names the first failed check and exits 1.
"""

import base64
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

CALLS = 20
RATE = 8000
USER = "anna"
PASSWORD = "correct horse battery"
TIMEOUT = 20.0


class Failed(Exception):
    pass


checks = 0
started = time.monotonic()


def phase(name):
    """Says where the run's time goes."""
    print(f"{time.monotonic() - started:6.2f} s  {name}", flush=True)


def check(condition, what):
    global checks
    if not condition:
        raise Failed(what)
    checks += 1


def poll(probe, what, timeout=TIMEOUT, interval=0.05):
    """probe()'s first true value, polled until the deadline; Failed(what) past it."""
    deadline = time.monotonic() + timeout
    while True:
        value = probe()
        if value:
            return value
        if time.monotonic() > deadline:
            raise Failed("timed out waiting for " + what)
        time.sleep(interval)


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Run:
    def __init__(self, recorder, tool, work):
        self.recorder = recorder
        self.tool = tool
        self.work = work
        self.storage = work / "storage"
        self.storage.mkdir()
        self.processes = []

    def tool_run(self, *args, stdin=None):
        return subprocess.run([self.tool, *args], input=stdin, capture_output=True, cwd=self.work,
                              timeout=TIMEOUT)

    def start(self, args, name):
        out = open(self.work / (name + ".out"), "wb")
        err = open(self.work / (name + ".err"), "wb")
        process = subprocess.Popen(args, stdout=out, stderr=err, cwd=self.work)
        self.processes.append(process)
        return process

    def output(self, name, stream):
        return (self.work / (name + "." + stream)).read_text(errors="replace")

    def stop_all(self):
        for process in reversed(self.processes):
            if process.poll() is None:
                process.send_signal(signal.SIGTERM)
                try:
                    process.wait(TIMEOUT)
                except subprocess.TimeoutExpired:
                    process.kill()


def record_calls(run):
    """The recorder with a SQLite catalogue in its storage and CALLS calls sent to it with loss;
    returns the recorder's UDP port."""
    port = free_port(socket.SOCK_DGRAM)
    config = run.work / "writer.conf"
    config.write_text(f"storage = {run.storage}\nport = {port}\ncatalog = sqlite:catalog.sqlite\n"
                      f"metrics_file = {run.work / 'metrics.prom'}\n")
    recorder = run.start([run.recorder, "--config", str(config)], "recorder")
    poll(lambda: "PACKETS_READER: thread [" in run.output("recorder", "err"),
         "the recorder to receive")
    sent = run.tool_run("send", "--to", f"127.0.0.1:{port}", "--calls", str(CALLS), "--duration",
                        "2", "--rate", "8000", "--loss", "0.05", "--seed", "11", "--manifest",
                        str(run.work / "manifest.json"))
    check(sent.returncode == 0, "quillmar send: " + sent.stderr.decode())
    check(recorder.poll() is None, "the recorder is running")


def start_serve(run):
    users = run.work / "users"
    made = run.tool_run("passwd", str(users), USER, stdin=(PASSWORD + "\n").encode())
    check(made.returncode == 0, "quillmar passwd: " + made.stderr.decode())
    run.start([run.tool, "serve", "--listen", "127.0.0.1:0", "--catalog", "sqlite:catalog.sqlite",
               "--storage", str(run.storage), "--users", str(users), "--metrics",
               str(run.work / "metrics.prom"), "--access-log", str(run.work / "access.log")],
              "serve")
    line = poll(lambda: run.output("serve", "out").partition("\n")[1] and
                run.output("serve", "out"), "serve to listen")
    prefix = "listening on http://127.0.0.1:"
    check(line.startswith(prefix), "serve's first line: " + line)
    return "http://127.0.0.1:" + line[len(prefix):].strip()


def api(base, path):
    """The JSON of an API call, signed in by Basic as a script would."""
    request = urllib.request.Request(base + path)
    token = base64.b64encode(f"{USER}:{PASSWORD}".encode()).decode()
    request.add_header("Authorization", "Basic " + token)
    with urllib.request.urlopen(request, timeout=TIMEOUT) as response:
        return json.load(response)


def browser(downloads):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                     "--window-size=1280,1000", "--mute-audio",
                     "--autoplay-policy=no-user-gesture-required"):
        options.add_argument(argument)
    options.add_experimental_option("prefs", {
        "download.default_directory": str(downloads),
        "download.prompt_for_download": False,
    })
    # A zone other than UTC, so that the page's two start times differ as they would for a person.
    service = Service("/usr/bin/chromedriver", env={**os.environ, "TZ": "Europe/Berlin"})
    return webdriver.Chrome(service=service, options=options)


def sign_in(driver, base):
    driver.get(base + "/")
    poll(lambda: driver.current_url == base + "/signin", "the page to send us to sign in")
    driver.find_element(By.ID, "name").send_keys(USER)
    driver.find_element(By.ID, "password").send_keys(PASSWORD)
    driver.find_element(By.ID, "submit").click()
    poll(lambda: driver.current_url.split("?")[0] == base + "/", "the start page after sign-in")
    cookie = driver.get_cookie("quillmar_session")
    check(cookie is not None, "a session cookie after sign-in")
    check(cookie["httpOnly"] and cookie["sameSite"] == "Strict" and cookie["path"] == "/"
          and not cookie["secure"], "the cookie's attributes: " + json.dumps(cookie))


def leg_with_gaps(run, base, legs):
    """A leg of `legs` whose recording has gaps, with its inspect report."""
    for leg in legs:
        media = run.storage / leg["path"] / "media.qm"
        inspected = run.tool_run("inspect", "--json", str(media))
        report = json.loads(inspected.stdout)
        if sum(side["gaps"] for side in report["sides"]) > 0:
            return leg, media, report
    raise Failed("no leg with gaps among the calls sent")


def table_uuids(driver):
    # Read in one go: the page replaces the rows when an answer arrives.
    return sorted(driver.execute_script(
        "return [...document.querySelectorAll('#results tbody tr')].map((r) => r.dataset.uuid);"))


def search_call(driver, call_id, expected):
    field = driver.find_element(By.ID, "call_id")
    field.clear()
    field.send_keys(call_id)
    driver.find_element(By.ID, "find").click()
    poll(lambda: table_uuids(driver) == expected, f"the table to show the legs of {call_id}")


# In the page: what the waveform's canvases hold and where the gap regions are. wavesurfer.js
# draws in a shadow root under #waveform.
CANVAS_SCRIPT = """
const root = document.querySelector('#waveform > div').shadowRoot;
const canvases = [...root.querySelectorAll('canvas')];
const halves = [0, 0];
for (const canvas of canvases) {
  if (!canvas.width || !canvas.height) continue;
  const box = canvas.getBoundingClientRect();
  const top = root.querySelector('[part~="wrapper"]') || canvas.parentElement;
  const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
  for (let y = 0; y < canvas.height; ++y) {
    for (let x = 0; x < canvas.width; ++x) {
      if (data[4 * (y * canvas.width + x) + 3] !== 0) {
        const page_y = box.top + y * box.height / canvas.height;
        halves[page_y < top.getBoundingClientRect().top + top.getBoundingClientRect().height / 2 ? 0 : 1]++;
      }
    }
  }
}
const frame = root.querySelector('[part~="wrapper"]').getBoundingClientRect();
const regions = [...root.querySelectorAll('[data-samples]')].map((r) => {
  const box = r.getBoundingClientRect();
  return {side: Number(r.dataset.side), start_sample: Number(r.dataset.startSample),
          samples: Number(r.dataset.samples), title: r.title, left: box.left - frame.left,
          width: box.width, top: (box.top - frame.top) / frame.height,
          height: box.height / frame.height, color: getComputedStyle(r).backgroundColor};
});
return {canvases: canvases.length, halves: halves, regions: regions, width: frame.width};
"""


def check_waveform(driver, base, leg, report):
    drawn = poll(lambda: driver.execute_script(
        "return document.body.dataset.waveform === 'ready' && "
        "document.querySelector('#waveform > div') && "
        "document.querySelector('#waveform > div').shadowRoot.querySelectorAll('canvas').length;"),
        "the waveform to be drawn")
    seen = poll(lambda: (lambda s: s if min(s["halves"]) > 0 else None)(
        driver.execute_script(CANVAS_SCRIPT)), "both sides' waveforms to hold painted pixels")
    check(seen["canvases"] == drawn, "the canvases read are the ones drawn")
    peaks = api(base, f"/api/legs/{leg['uuid']}/peaks?width=100")
    for side in (0, 1):
        shaded = sorted((r["start_sample"], r["samples"]) for r in seen["regions"]
                        if r["side"] == side)
        check(len(shaded) == report["sides"][side]["gaps"],
              f"side {side}: {len(shaded)} shaded gaps, inspect says {report['sides'][side]['gaps']}")
        check(sum(samples for _, samples in shaded) == report["sides"][side]["missing_samples"],
              f"side {side}: the shaded gaps' length is inspect's missing samples")
        check(shaded == sorted((g["start_sample"], g["samples"])
                               for g in peaks["sides"][side]["gaps"]),
              f"side {side}: the shaded gaps start where the peaks API puts them")
    # Each gap is shaded where its samples lie on the timeline, in its own side's half.
    for region in seen["regions"]:
        where = json.dumps(region)
        scale = seen["width"] / peaks["samples"]
        check(abs(region["left"] - region["start_sample"] * scale) <= 1.5, "a gap's place: " + where)
        check(abs(region["width"] - max(2, region["samples"] * scale)) <= 1.5,
              "a gap's width: " + where)
        check(abs(region["top"] - region["side"] / 2) < 0.01 and abs(region["height"] - 0.5) < 0.01,
              "a gap in its side's half: " + where)
        check(region["color"] == "rgba(214, 48, 49, 0.35)", "a gap is shaded: " + where)
        ms = region["samples"] * 1000 / RATE
        check(region["title"].startswith(f"{('inbound', 'outbound')[region['side']]}: "
                                         f"{ms:g} ms missing"),
              "a gap's hover text: " + region["title"])


def accesses(run):
    """The access log's lines without their time: "user=... address=... uuid=... what=..."."""
    log = run.work / "access.log"
    text = log.read_text() if log.exists() else ""
    return [line.partition(" ")[2] for line in text.splitlines()]


def player_time(driver):
    return float(driver.find_element(By.ID, "time").text.split()[0])


def check_playback(driver):
    check(player_time(driver) == 0.0, "the player starts at 0")
    play = driver.find_element(By.ID, "play")
    poll(lambda: play.is_enabled(), "the play button")
    play.click()
    first = poll(lambda: player_time(driver) or None, "the player's time to advance")
    poll(lambda: player_time(driver) > first, "the player's time to advance again")
    check(play.text == "Pause", "the button offers to pause while playing")
    play.click()


def check_download(driver, run, leg, media, downloads):
    driver.find_element(By.ID, "download-wav").click()
    saved = downloads / (leg["uuid"] + ".wav")
    poll(lambda: saved.exists() and not list(downloads.glob("*.crdownload")), "the download")
    exported = run.work / "x.wav"
    made = run.tool_run("export", str(media), "--output", str(exported))
    check(made.returncode == 0, "quillmar export: " + made.stderr.decode())
    check(saved.read_bytes() == exported.read_bytes(),
          "the downloaded WAV is byte for byte what quillmar export writes")


def main():
    recorder, tool = (str(Path(argument).resolve()) for argument in sys.argv[1:3])
    screenshots = Path(sys.argv[3])
    screenshots.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix="qm-browser-") as temporary:
        work = Path(temporary)
        run = Run(recorder, tool, work)
        driver = None
        try:
            phase("recording")
            record_calls(run)
            phase("serving")
            base = start_serve(run)
            legs = poll(lambda: (lambda l: l if len(l) == CALLS else None)(
                api(base, "/api/legs?limit=1000")), "every leg in the catalogue")
            leg, media, report = leg_with_gaps(run, base, legs)
            call_legs = sorted(l["uuid"] for l in api(base, "/api/legs?call_id=" + leg["call_id"]))
            check(leg["uuid"] in call_legs, "the call's legs hold the leg")

            downloads = work / "downloads"
            downloads.mkdir()
            phase("starting the browser")
            driver = browser(downloads)
            phase("signing in")
            sign_in(driver, base)
            # The start page lists every leg before any search.
            poll(lambda: table_uuids(driver) == sorted(l["uuid"] for l in legs),
                 "the start page to list every leg")
            driver.save_screenshot(str(screenshots / "search.png"))
            search_call(driver, leg["call_id"], call_legs)

            driver.find_element(By.CSS_SELECTOR, f'#results tr[data-uuid="{leg["uuid"]}"] a').click()
            poll(lambda: driver.current_url == f"{base}/legs/{leg['uuid']}", "the leg's page")
            phase("looking at the leg")
            check_waveform(driver, base, leg, report)
            check(json.loads(driver.find_element(By.ID, "inspect").text) == report,
                  "the page shows inspect's report")
            who = f"user={USER} address=127.0.0.1 uuid={leg['uuid']} what="
            check(accesses(run) == [who + "view"], "opening the page is a view, not a playback: " +
                  repr(accesses(run)))
            driver.save_screenshot(str(screenshots / "leg.png"))
            phase("playing")
            check_playback(driver)
            check(accesses(run) == [who + "view", who + "play"],
                  "playing is one playback: " + repr(accesses(run)))
            phase("downloading")
            check_download(driver, run, leg, media, downloads)
            check(accesses(run) == [who + "view", who + "play", who + "download"],
                  "the download is one line: " + repr(accesses(run)))
            phase("signing out")

            driver.find_element(By.ID, "signout").click()
            poll(lambda: driver.current_url == base + "/signin", "the sign-in form after sign-out")
            driver.get(base + "/")
            poll(lambda: driver.current_url == base + "/signin", "sign-in again after sign-out")
        except Failed as failure:
            print(f"FAILED: {failure}")
            for name in ("recorder", "serve"):
                path = work / (name + ".err")
                if path.exists():
                    print(f"--- {name} stderr (last lines)\n" +
                          "\n".join(path.read_text(errors="replace").splitlines()[-20:]))
            print(f"{checks} passed, 1 failed")
            return 1
        finally:
            if driver is not None:
                driver.quit()
            run.stop_all()
    phase("done")
    print(f"{checks} passed, 0 failed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
