#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""A server of many workstations at full size, and its page in a browser. For nights: forty stations, and chromium."""
import base64
import hashlib
import json
import os
import random
import shutil
import struct
import subprocess
import unittest

from fleet_harness import FleetCase, FleetServer, FleetStation
from harness import BIN, MB, die_with_parent


LONG = unittest.skipUnless("QRN_LONG_TESTS" in os.environ, "only with --long")


class Browser:
    """Chromium without a screen, spoken to over the pipes it offers for that."""

    def __init__(self, case):
        command_read, self.commands = os.pipe()
        self.answers, answer_write = os.pipe()
        # As descriptors 3 and 4; a shell puts them there.
        self.process = subprocess.Popen(
            ["bash", "-c", f'exec "$@" 3<&{command_read} 4>&{answer_write}', "browser", "chromium", "--headless=new",
             "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--remote-debugging-pipe",
             f"--user-data-dir={case.path('browser')}", "about:blank"],
            pass_fds=(command_read, answer_write), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, preexec_fn=die_with_parent)
        os.close(command_read)
        os.close(answer_write)
        case.addCleanup(self.close)
        self.case, self.number, self.rest = case, 0, b""
        self.session = None
        page = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=page, flatten=True)["sessionId"]

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.commands)
        os.close(self.answers)

    def call(self, method, **parameters):
        self.number += 1
        command = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            command["sessionId"] = self.session
        os.write(self.commands, json.dumps(command).encode() + b"\0")
        while True:
            while b"\0" not in self.rest:
                part = os.read(self.answers, 1 << 20)
                self.case.assertTrue(part, "the browser has gone")
                self.rest += part
            text, self.rest = self.rest.split(b"\0", 1)
            answer = json.loads(text)
            if answer.get("id") == self.number:
                self.case.assertNotIn("error", answer)
                return answer["result"]

    def value(self, expression):
        return self.call("Runtime.evaluate", expression=expression, returnByValue=True)["result"].get("value")

    def screenshot(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.call("Page.captureScreenshot", format="png")["data"]))


ROWS = "[...document.querySelectorAll('#workstations tbody tr')].map(row => [...row.cells].map(c => c.textContent))"

# Texts that leave the screen or their cell, or that are too small to be read.
UNREADABLE = """(() => {
  const bad = [];
  for (const cell of document.querySelectorAll('h1, h2, td, th')) {
    const at = cell.getBoundingClientRect();
    if (at.width === 0) continue;
    if (at.left < 0 || at.right > document.documentElement.clientWidth || cell.scrollWidth > cell.clientWidth + 1 ||
        parseFloat(getComputedStyle(cell).fontSize) < 12)
      bad.push([cell.textContent, at.left, at.right, cell.scrollWidth, cell.clientWidth]);
  }
  return bad;
})()"""


@LONG
class Page(FleetCase):
    def test_The_page_lives_and_is_readable_on_wide_and_narrow_screens(self):
        self.golden()
        server = FleetServer(self, self.config('{ image = "golden", at_boot = "keep" }', more='http = "127.0.0.1:0"'))
        first = FleetStation(self, server, "pc0")
        browser = Browser(self)
        browser.call("Page.navigate", url=server.output().split("the page is at ")[1].split()[0])
        column = {name: index for index, name in enumerate(
            ("name", "state", "address", "disks", "read", "written", "again", "overlays"))}
        cell = lambda row, name: (browser.value(ROWS) or [[""] * 12] * 3)[row][column[name]]
        self.wait_until(lambda: len(browser.value(ROWS) or []) == 3, "three rows")
        self.assertEqual([cell(row, "state") for row in range(3)], ["running", "off", "off"])
        self.assertIn("golden@1", cell(0, "disks"))
        FleetStation(self, server, "pc1")
        self.wait_until(lambda: cell(1, "state") == "running", "pc1 shows up while one looks")
        self.write(first, 0, random.Random(1).randbytes(2 * MB))
        self.wait_until(lambda: cell(0, "overlays").endswith(" MB"), "the room of what was written")
        for width in (1280, 400):
            browser.call("Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1, mobile=False)
            self.assertEqual(browser.value("innerWidth"), width)
            self.assertEqual(browser.value(UNREADABLE), [])
            self.assertTrue(browser.value("document.documentElement.scrollWidth <= document.documentElement.clientWidth"),
                            "nothing to scroll sideways")
            picture = self.path(f"page-{width}.png")
            browser.screenshot(picture)
            with open(picture, "rb") as file:
                self.assertEqual(struct.unpack(">II", file.read(24)[16:]), (width, 900))
            if "QRN_SCREENSHOTS" in os.environ:
                shutil.copy(picture, os.environ["QRN_SCREENSHOTS"])
        server.kill()
        self.wait_until(lambda: browser.value("document.getElementById('state').className") == "lost", "the loss is told")


@LONG
class Forty(FleetCase):
    STATIONS = 40

    def test_Forty_stations_keep_their_writes_over_one_image_through_kills_of_the_server(self):
        golden = self.golden()
        text = self.config('{ image = "golden", at_boot = "keep" }')
        server = FleetServer(self, text)
        stations = [FleetStation(self, server, f"pc{n}", memory_mb=64) for n in range(self.STATIONS)]
        sources = [self.random_disk(f"source{n}", 2, seed=10 + n) for n in range(self.STATIONS)]
        writers = [self.start_client("nbdkit", "-U", "-", "--filter=rate", "file", source, "rate=4M", "burstiness=0.1",
                                     "--run", f'nbdcopy --flush "$uri" "{station.uri()}"')
                   for source, station in zip(sources, stations)]
        written = lambda: sum(one["disks"][0]["written_bytes"] for one in server.ctl("list")["workstations"])
        for life in range(3):
            self.wait_until(lambda: written() > 8 * MB, "writing is under way", timeout_s=60)
            server.kill()
            server = FleetServer(self, text.replace("127.0.0.1:0", f"127.0.0.1:{server.port}"), name=f"life{life}")
        for writer in writers:
            self.finish_client(writer)
        for source, station in zip(sources, stations):
            with open(source, "rb") as file:
                self.assertEqual(self.read(station), file.read() + golden[2 * MB:])
        with open(self.path("golden"), "rb") as file:
            self.assertEqual(hashlib.sha256(file.read()).digest(), hashlib.sha256(golden).digest())
        for station in stations:
            station.stop()
        server.stop()
        for number in range(self.STATIONS):
            subprocess.run([f"{BIN}/qrn-ctl", "--json", "check-overlay", self.path(f"state/overlays/pc{number}.lun0")],
                           stdout=subprocess.DEVNULL, check=True)


if __name__ == "__main__":
    unittest.main()
