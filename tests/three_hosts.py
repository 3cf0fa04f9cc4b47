"""Takes the cable of a hub, a server and a client away, one after another, and gives it back.

Run by scripts/three-hosts. Every request must end exactly once, and afterwards everything must work again.
"""

import os
import subprocess
import sys
import time
import unittest

from end_to_end_test import BIN, DONE, PATIENCE, Process
from hub_faults_test import HubFaults

OUTAGE = 20  # seconds
HOSTS = {"hub": "10.213.0.1", "server": "10.213.0.2", "client": "10.213.0.3"}
PUB, SUB = (f"tcp://{HOSTS['hub']}:{port}" for port in (5556, 5557))


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True)


class ThreeHosts(HubFaults):
    def namespace(self, name):
        return f"vesk-{os.getpid()}-{name}"

    def setUp(self):
        super().setUp()
        for name in ("switch", *HOSTS):
            ip("netns", "add", self.namespace(name))
            self.addCleanup(ip, "netns", "del", self.namespace(name))
        ip("-n", self.namespace("switch"), "link", "add", "switch", "type", "bridge")
        ip("-n", self.namespace("switch"), "link", "set", "switch", "up")
        for name, address in HOSTS.items():
            host, switch = self.namespace(name), self.namespace("switch")
            ip("-n", switch, "link", "add", name, "type", "veth", "peer", "name", "cable", "netns", host)
            ip("-n", switch, "link", "set", name, "up", "master", "switch")
            ip("-n", host, "address", "add", f"{address}/24", "dev", "cable")
            for device in ("lo", "cable"):
                ip("-n", host, "link", "set", device, "up")

    def set_cable(self, name, state):
        ip("-n", self.namespace("switch"), "link", "set", name, state)

    def start_on(self, host, program, *arguments, **options):
        command = ["ip", "netns", "exec", self.namespace(host), BIN / program, *arguments]
        process = Process(command, self.environment, options.get("stdin", subprocess.DEVNULL))
        self.addCleanup(process.clean_up)
        return process

    def last_tick(self, sub):
        lines = sub.output
        return int(lines[-1].split(".")[2]) if lines else 0

    def await_everything(self, application, sub):
        """Both ends of the client's requests and the subscriber on the other host are back."""
        sent = self.counts(application)["sent"]
        counts = self.await_recovery(application)
        give_up = time.monotonic() + PATIENCE
        while self.last_tick(sub) <= sent:
            self.assertLess(time.monotonic(), give_up, "the subscriber does not come back")
            time.sleep(0.005)
        return counts

    def test_each_comes_back_after_its_cable_was_away(self):
        self.environment |= {"VESK_PUB_ENDPOINT": PUB, "VESK_SUB_ENDPOINT": SUB}
        self.start_on("hub", "vesk", "hub", "--allow-remote")
        self.start_on("server", "vesk", "serve", "svc", "echo", "--echo")
        sub = self.start_on("server", "vesk", "sub", "tick.app")
        application = self.start_on("client", "traffic", "app", "svc", PUB, SUB, "5", stdin=subprocess.PIPE)
        counts = self.await_everything(application, sub)
        print(f"{'cable of':8} {'away':>6} {'back after':>10} {'requests':>9} {'answered':>9} "
              f"{'ticks lost':>10} {'at the server':>13}")
        for host in HOSTS:
            before, seen = counts, len(sub.output)
            self.set_cable(host, "down")
            time.sleep(OUTAGE)  # the fault itself
            self.set_cable(host, "up")
            returned = time.monotonic()
            counts = self.await_everything(application, sub)
            passed = {name: counts[name] - before[name] for name in counts}
            print(f"{host:8} {OUTAGE:4} s {time.monotonic() - returned:8.1f} s {passed['sent']:9} "
                  f"{passed['answered']:9} {passed['sent'] - passed['heard']:10} "
                  f"{passed['sent'] - (len(sub.output) - seen):13}", flush=True)
        self.assert_answers_all(application, later_than=counts["sent"])
        counts = self.counts(application)
        print(f"requests: {counts['sent']} sent, {counts['answered']} answered, {counts['failed']} timed out, "
              f"{counts['ended_twice']} ended twice")


if __name__ == "__main__":
    OUTAGE = int(sys.argv.pop())
    unittest.main(defaultTest="ThreeHosts.test_each_comes_back_after_its_cable_was_away")
