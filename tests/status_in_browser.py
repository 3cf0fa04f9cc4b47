"""The status page of a hub as a browser shows it. Run by scripts/browser.

With a file and a number of minutes it leaves a picture of the page there, of a hub that has had traffic for so long.
"""

import contextlib
import itertools
import json
import math
import random
import signal
import socket
import sys
import threading
import time
import unittest

import zmq
from selenium import webdriver
from selenium.webdriver.chrome.service import Service

from end_to_end_test import DONE, EndToEndTest, await_that, metadata

FLAGS = ("--headless=new --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking "
         "--disable-component-update --disable-sync --hide-scrollbars").split()
WIDE, NARROW = (1080, 1132), (390, 800)


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


class StatusInBrowser(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.address = f"127.0.0.1:{free_port()}"
        self.endpoints = tuple(f"tcp://127.0.0.1:{free_port()}" for _ in range(2))
        self.environment |= dict(zip(("VESK_PUB_ENDPOINT", "VESK_SUB_ENDPOINT"), self.endpoints))
        self.page = f"http://{self.address}/"
        self.hub = self.start_hub("--status", self.address, "--queue-bytes", "16777216")

    def open_page(self, scripts=True, size=WIDE, scheme="light"):
        (self.folder / "profile").mkdir(exist_ok=True)
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for flag in (*FLAGS, f"--user-data-dir={self.folder}/profile"):
            options.add_argument(flag)
        options.add_experimental_option("prefs", {"profile.managed_default_content_settings.javascript": 2 - scripts})
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        self.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.addCleanup(self.browser.quit)
        self.resize(size)
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                     {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
        self.browser.get(self.page)

    def resize(self, size):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": size[0], "height": size[1], "deviceScaleFactor": 1, "mobile": False})

    def value(self, script):
        return self.browser.execute_script(f"return {script}")

    def text(self):
        return self.value("document.body.innerText")

    def requested(self):
        """What the page has asked the network for."""
        events = [json.loads(entry["message"])["message"] for entry in self.browser.get_log("performance")]
        sent = [event["params"] for event in events if event["method"] == "Network.requestWillBeSent"]
        urls = {each["request"]["url"] for each in sent if each["documentURL"] == self.page}
        return {url for url in urls if not url.startswith("data:")}

    def test_keeps_itself_up_to_date_and_says_when_the_hub_has_gone(self):
        self.open_page()
        self.assertIn("0 publishers, 0 subscribers", self.text())
        self.value("window.mark = 'not loaded again'")
        self.foreign_client("t")
        await_that(lambda: "1 publishers, 1 subscribers" in self.text())
        self.assertEqual(self.value("window.mark"), "not loaded again")
        self.assertEqual(self.browser.get_log("browser"), [])
        self.assertEqual(self.hub.end(signal.SIGTERM), DONE)
        await_that(lambda: "The hub does not answer" in self.text())
        self.start_hub("--status", self.address)
        await_that(lambda: "The hub does not answer" not in self.text())
        self.assertEqual(self.requested(), {self.page})

    def test_can_be_read_without_scripts_and_is_loaded_again_by_itself(self):
        self.open_page(scripts=False)
        self.assertIn("0 publishers, 0 subscribers", self.browser.page_source)
        self.assertIn("the last minute", self.browser.page_source)
        self.foreign_client("t")
        await_that(lambda: "1 publishers, 1 subscribers" in self.browser.page_source)

    def test_fits_a_telephone_and_the_dark(self):
        self.open_page(size=NARROW, scheme="dark")
        self.assertLessEqual(self.value("document.documentElement.scrollWidth"), NARROW[0])
        ground = self.value("getComputedStyle(document.body).backgroundColor")
        self.assertLess(max(map(int, ground[4:-1].split(", "))), 64)


class Picture(StatusInBrowser):
    def traffic(self):
        """Comes and goes, until it is enough, with a subscriber that now and then does not read."""
        client = self.foreign_client()
        stuck = client.context.socket(zmq.SUB)
        stuck.subscribe("plant")
        stuck.connect(self.endpoints[1])
        others = []
        begin = time.monotonic()
        for step in itertools.count():
            seconds = step / 20
            rate = 1500 + 700 * math.sin(seconds / 70) + 250 * math.sin(seconds / 11) + random.gauss(0, 60)
            for _ in range(int(rate / 20)):
                client.publish("plant.pump", b"x" * random.choice((60, 200, 900)), metadata())
            if not 150 < seconds % 400 < 200:
                with contextlib.suppress(zmq.Again):
                    while stuck.recv_multipart(zmq.NOBLOCK):
                        pass
            if step % 600 == 0:
                others.append(self.foreign_client("other"))
            if len(others) > random.randint(4, 12):
                others.pop().context.destroy(linger=0)
            if self.enough.wait(max(0, begin + seconds - time.monotonic())):
                return

    def draw(self, file, minutes):
        self.enough = threading.Event()
        thread = threading.Thread(target=self.traffic)
        thread.start()
        time.sleep(60 * minutes)
        self.open_page()
        self.browser.save_screenshot(file)
        self.enough.set()
        thread.join()


def draw(file, minutes):
    picture = Picture("draw")
    picture.setUp()
    try:
        picture.draw(file, float(minutes))
    finally:
        picture.doCleanups()


if __name__ == "__main__":
    if len(sys.argv) == 3:
        draw(*sys.argv[1:])
    else:
        unittest.main(defaultTest="StatusInBrowser")
