"""The status page of a hub: what it tells, whom it answers, and what hostile HTTP clients cannot do to it."""

import contextlib
import json
import os
import signal
import socket
import time
import unittest
import urllib.error
import urllib.request

import psutil
from prometheus_client.parser import text_string_to_metric_families

from end_to_end_test import BIN, DONE, FAILED, PATIENCE, EndToEndTest, await_that, metadata
from hub_survival_test import connected, is_served

CROWD = 200
MOST_CONNECTIONS = 32


class StatusPage(EndToEndTest):
    def start_with_status(self, *arguments, program=(BIN / "vesk",)):
        hub = self.start(*program, "hub", "--status", "127.0.0.1:0", *arguments)
        self.room = int(hub.await_line(r"room for (\d+) connections").group(1))
        self.url = hub.await_line("status page at (http.*)/$").group(1)
        return hub

    def get(self, path, **request):
        """Status, headers and text."""
        try:
            with urllib.request.urlopen(urllib.request.Request(self.url + path, **request), timeout=PATIENCE) as answer:
                return answer.status, answer.headers, answer.read().decode()
        except urllib.error.HTTPError as error:
            return error.code, error.headers, error.read().decode()

    def metrics(self):
        samples = [sample for family in text_string_to_metric_families(self.get("/metrics")[2])
                   for sample in family.samples]
        return {(sample.name, *sample.labels.values()): sample.value for sample in samples}

    def raw(self, text=b""):
        client = socket.create_connection(("127.0.0.1", int(self.url.rpartition(":")[2])), PATIENCE)
        self.addCleanup(client.close)
        with contextlib.suppress(ConnectionError):  # it may have been cut off by now
            client.sendall(text)
        return client

    def response_to(self, text):
        with self.raw(text) as client, client.makefile("rb") as answer:
            return answer.read()

    def test_tells_people_and_programs_the_same_about_the_traffic(self):
        self.start_with_status("--queue-bytes", "20971520")
        client = self.foreign_client("t")
        before = self.metrics()
        for _ in range(50):
            client.publish("t", "x" * 1000, metadata())
        grown = await_that(lambda: (now := self.metrics())["vesk_hub_received_messages_total",]
                           - before["vesk_hub_received_messages_total",] >= 50 and now)
        bytes_in = grown["vesk_hub_received_bytes_total",] - before["vesk_hub_received_bytes_total",]
        self.assertGreaterEqual(bytes_in, 50 * (1 + 1000 + 16))
        status = json.loads(self.get("/status.json")[2])
        self.assertEqual(status["limits"]["queue_bytes"], grown["vesk_hub_queue_limit_bytes",])
        self.assertEqual(status["now"]["subscribers"], grown["vesk_hub_connections", "subscription"])
        self.assertEqual(status["endpoints"], dict(zip(("publishing", "subscription"), self.endpoints)))
        self.assertGreater(max(status["history"]["bytes_in_per_second"]), 10_000)
        self.assertEqual(len({len(column) for column in status["history"].values()}), 1)
        page = self.get("/?x=y")[2]
        for text in (*self.endpoints, "<svg", "20 MiB", "1 publishers, 1 subscribers", "the last minute"):
            self.assertIn(text, page)

    def test_answers_known_paths_by_get_and_head_to_whoever_calls_it_by_address(self):
        self.start_with_status()
        self.assertEqual(self.get("/healthz")[::2], (200, "ok\n"))
        self.assertEqual(self.get("/", method="HEAD")[::2], (200, ""))
        self.assertEqual(self.get("/../etc/passwd")[0], 404)
        status, headers, _ = self.get("/", data=b"x" * 100_000)
        self.assertEqual((status, headers["Allow"]), (405, "GET, HEAD"))
        for host, status in (("localhost:1", 200), ("[::1]", 200), ("rebound.example:80", 403), ("127.0.0.1.x", 403)):
            self.assertEqual(self.get("/healthz", headers={"Host": host})[0], status, host)
        self.start_with_status("--allow-remote", *(f"--{side}-endpoint=tcp://127.0.0.1:*" for side in ("pub", "sub")))
        self.assertEqual(self.get("/healthz", headers={"Host": "monitor.example"})[0], 200)

    def test_of_an_address_that_it_cannot_have_names_it_and_leaves_nothing_behind(self):
        taken = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(taken.close)
        for address, reason in ((f"127.0.0.1:{taken.getsockname()[1]}", "Address already in use"),
                                ("0.0.0.0:0", "not a loopback address; other machines need --allow-remote"),
                                ("127.0.0.1:65536", "a port up to 65535"), ("example.org:80", "needs ADDRESS:PORT"),
                                ("::1:80", "needs ADDRESS:PORT"), ("127.0.0.1", "needs ADDRESS:PORT"), ("", "needs ADDRESS:PORT")):
            self.assert_ends(self.vesk("hub", "--status", address), FAILED,
                             f"could not bind the status page to {address}: ")
            self.assert_ends(self.vesk("hub", "--status", address), FAILED, reason)
            self.assertEqual(os.listdir(self.folder), [])

    def test_cuts_off_requests_that_are_none(self):
        self.start_with_status()
        self.assertIn(b" 431 ", self.response_to(b"GET / HTTP/1.1\r\nX: " + b"x" * 10_000))
        self.assertIn(b" 400 ", self.response_to(b"\x16\x03\x01 no HTTP\r\n\r\n"))
        ranges = b",".join(b"%d-" % first for first in range(1000))
        whole = self.response_to(b"GET / HTTP/1.1\r\nAccept-Encoding: br\r\nRange: bytes=" + ranges + b"\r\n\r\n")
        self.assertLess(len(whole), 100_000)
        self.assertIn(b"</html>", whole)

    def test_leaves_the_bus_its_descriptors_and_the_processor_among_clients_that_send_nothing(self):
        limited = ("/usr/bin/prlimit", "--nofile=128:128", BIN / "vesk")
        tcp = [f"--{side}-endpoint=tcp://127.0.0.1:*" for side in ("pub", "sub")]
        hub = self.start_with_status(*tcp, program=limited)
        _, sub = hub.await_line("bound to (.*) and (.*)").groups()
        crowd = [self.raw(b"GET / HT" if number % 2 else b"") for number in range(CROWD)]
        await_that(lambda: self.get("/healthz")[0] == 200, hub)
        crowd += [self.raw() for _ in range(MOST_CONNECTIONS)]
        served = []

        def has_filled_the_room():
            application = connected(sub)
            self.addCleanup(application.close)
            served.append(is_served(application))
            return sum(served) == self.room

        await_that(has_filled_the_room, hub)
        self.assertEqual(self.get("/healthz")[0], 200)  # although the bus has no descriptor left
        await_that(lambda: psutil.Process(hub.pid).cpu_percent(interval=0.2) < 5, hub)
        since = time.monotonic()
        self.assertEqual(hub.end(signal.SIGTERM), DONE)
        self.assertLess(time.monotonic() - since, 5)  # those clients have 10 s each


if __name__ == "__main__":
    unittest.main()
