"""What a subscriber that has stopped reading costs the hub, and what the others notice of it."""

import re
import signal
import unittest

from end_to_end_test import DONE, EndToEndTest, metadata
from hub_faults_test import is_sanitized, memory_and_descriptors
from hub_survival_test import connected

BUDGET = 16 << 20  # the smallest
OTHERS = 60  # messages between two for the stuck subscriber
WINDOW = 500  # messages that the reading one may be behind


class HubMemory(EndToEndTest):
    def flood(self, hub, client, messages, data):
        """Each for the stuck subscriber and, between 60 others, for the reading one; looks at the hub's growth."""
        before = most = memory_and_descriptors(hub)[0]
        total = messages * (1 + OTHERS)
        for number in range(total + WINDOW):
            if number < total:
                topic = "other" if number % (1 + OTHERS) else "stuck"
                client.publish(f"{topic}.{number}", data if topic == "stuck" else "x" * 100, metadata())
            if number >= WINDOW:
                self.assertTrue(client.receive()[0].endswith(b".%d" % (number - WINDOW)), number)
            if number % 1000 == 0:
                most = max(most, memory_and_descriptors(hub)[0])
        if not is_sanitized(hub):
            self.assertLess((most - before) << 10, 2 * BUDGET)

    def test_stays_within_the_budget_and_the_jam_is_told_once_with_the_process(self):
        hub = self.start_hub("--queue-bytes", str(BUDGET))
        stuck = self.start_ready("sub", "stuck")
        client = self.foreign_client()
        client.subscribe("")
        idle = [connected(self.endpoints[1]) for _ in range(20)]  # which do not even read the hub's greeting
        stuck.send_signal(signal.SIGSTOP)
        self.flood(hub, client, 3000, "x" * 100)  # which do not hold on to what came with them
        self.assertNotIn("does not keep up", hub.log)
        self.flood(hub, client, 1000, "x" * 65536)
        told = re.findall("a subscriber does not keep up: messages for it are dropped, .*", hub.log)
        self.assertEqual([line.split(": ")[-1] for line in told], [f"process {stuck.pid} (vesk)"])
        for connection in idle:
            connection.close()
        stuck.send_signal(signal.SIGCONT)
        client.publish_until(lambda: "stuck.again " in stuck.output, "stuck.again", "")
        self.assertEqual(hub.end(signal.SIGTERM), DONE)

    def test_of_the_next_who_stops_is_told_with_that_one_although_the_first_is_still_stuck(self):
        hub = self.start_hub("--queue-bytes", str(BUDGET))
        client = self.foreign_client()
        for sub in [self.start_ready("sub", "t") for _ in range(2)]:
            for process in (sub, hub):  # all comes at once, before anybody was seen to be stuck for long
                process.send_signal(signal.SIGSTOP)
            for _ in range(50_000):
                client.publish("t", "", metadata())
            hub.send_signal(signal.SIGCONT)
            hub.await_line(rf"messages for it are dropped: .*process {sub.pid} \(vesk\)")


if __name__ == "__main__":
    unittest.main()
