"""Takes the cable between a hub and its applications away, and gives it back.

Run by scripts/two-hosts. Every request must end exactly once, and afterwards everything must work again.
"""

import os
import subprocess
import sys
import time
import unittest

from end_to_end_test import BIN
from hub_faults_test import HubFaults

HOSTS = {"hub": "10.213.0.1", "applications": "10.213.0.2"}
ENDPOINTS = [f"tcp://{HOSTS['hub']}:{port}" for port in (5556, 5557)]


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True)


class TwoHosts(HubFaults):
    def namespace(self, host):
        return f"vesk-{os.getpid()}-{host}"

    def on(self, host):
        return "/sbin/ip", "netns", "exec", self.namespace(host)

    def setUp(self):
        super().setUp()
        self.environment |= dict(zip(("VESK_PUB_ENDPOINT", "VESK_SUB_ENDPOINT"), ENDPOINTS))
        for host in HOSTS:
            ip("netns", "add", self.namespace(host))
            self.addCleanup(ip, "netns", "del", self.namespace(host))
        ends = [self.namespace(host) for host in HOSTS]
        ip("-n", ends[0], "link", "add", "cable", "type", "veth", "peer", "name", "cable", "netns", ends[1])
        for host, address in HOSTS.items():
            ip("-n", self.namespace(host), "address", "add", f"{address}/24", "dev", "cable")
            for device in ("lo", "cable"):
                ip("-n", self.namespace(host), "link", "set", device, "up")

    def test_everything_comes_back_after_the_cable_was_away(self):
        self.start(*self.on("hub"), BIN / "vesk", "hub", "--allow-remote")
        self.start(*self.on("applications"), BIN / "vesk", "serve", "svc", "echo", "--echo")
        application = self.start_traffic("app", "svc", *ENDPOINTS, "5", on=self.on("applications"))
        self.await_recovery(application)
        ip("-n", self.namespace("hub"), "link", "set", "cable", "down")
        time.sleep(OUTAGE)  # the fault itself
        ip("-n", self.namespace("hub"), "link", "set", "cable", "up")
        returned = time.monotonic()
        recovered = self.await_recovery(application)
        print(f"back {time.monotonic() - returned:.1f} s after an outage of {OUTAGE} s")
        print(self.assert_answers_all(application, later_than=recovered))


if __name__ == "__main__":
    OUTAGE = int(sys.argv.pop())
    unittest.main(defaultTest="TwoHosts.test_everything_comes_back_after_the_cable_was_away")
