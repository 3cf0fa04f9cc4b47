"""What a running application meets when its hub dies or ends, freezes, or serves somebody who does not read.

The application ("traffic") sends a request and a numbered tick every 5 ms and counts what becomes of them. What was
under way when a hub died fails 15 seconds later. VESK_ROUNDS is how often the hub is replaced.
"""

import collections
import json
import os
import signal
import subprocess
import unittest

import psutil

from end_to_end_test import BIN, DONE, EndToEndTest, await_that

ROUNDS = int(os.environ.get("VESK_ROUNDS", "3"))
SERVE = "serve", "svc", "echo", "--echo"


def memory_and_descriptors(process):
    """In KiB, and how many."""
    watched = psutil.Process(process.pid)
    return watched.memory_info().rss // 1024, watched.num_fds()


def is_sanitized(process):
    """A sanitizer keeps freed memory for a while."""
    return any("san.so" in mapped.path for mapped in psutil.Process(process.pid).memory_maps())


class HubFaults(EndToEndTest):
    def start_traffic(self, *arguments, on=()):
        return self.start(*on, BIN / "traffic", *arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def start_application(self):
        return self.start_traffic("app", "svc", *self.endpoints, "5")

    def counts(self, application):
        application.feed(b"\n", close=False)
        return collections.Counter(json.loads(application.stdout.readline()))

    def await_traffic(self, application, amount):
        sent = self.counts(application)["sent"]
        await_that(lambda: self.counts(application)["sent"] >= sent + amount, application)

    def await_recovery(self, application):
        """Something that is sent from now on is heard, and something is answered; gives what was sent until then."""
        sent = self.counts(application)["sent"]

        def has_recovered():
            counts = self.counts(application)
            return min(counts["last_heard"], counts["last_answered"]) > sent and counts["sent"]

        return await_that(has_recovered, application)

    def assert_answers_all(self, application, later_than):
        """Lets every request end, and finds none failed of those that were sent after that one; gives the counts."""
        application.feed(b"")
        counts = collections.Counter(json.loads(application.stdout.read()))
        self.assert_ends(application, DONE)
        self.assertEqual(counts["wrong"], 0)
        self.assertLessEqual(counts["last_failed"], later_than, counts)
        return counts

    def test_killed_or_ended_and_started_again_it_costs_neither_side_anything_but_what_was_under_way(self):
        application, serve = self.start_application(), self.vesk(*SERVE)
        for restart in range(ROUNDS):
            hub = self.start_hub()
            self.await_recovery(application)
            if restart == ROUNDS // 5:
                before = [memory_and_descriptors(process) for process in (application, serve)]
            hub.end(signal.SIGKILL if restart % 2 else signal.SIGTERM)
        self.start_hub()
        recovered = self.await_recovery(application)
        for process, (kib, descriptors) in zip((application, serve), before):
            kib_now, descriptors_now = memory_and_descriptors(process)
            self.assertLessEqual(descriptors_now, descriptors)
            if not is_sanitized(process):
                self.assertLess(kib_now, kib + 2048)
        self.assert_answers_all(application, later_than=recovered)
        self.assertEqual(serve.end(signal.SIGTERM), DONE)

    def test_neither_its_being_frozen_nor_a_subscriber_that_does_not_read_costs_anybody_a_message(self):
        hub = self.start_hub()
        self.start_ready(*SERVE)
        application = self.start_application()
        sub = self.start_ready("sub", "tick.app")
        before = self.await_recovery(application)
        sub.send_signal(signal.SIGSTOP)
        self.await_traffic(application, 400)
        self.await_recovery(application)
        hub.send_signal(signal.SIGSTOP)
        self.await_traffic(application, 200)
        hub.send_signal(signal.SIGCONT)
        self.await_recovery(application)
        sub.send_signal(signal.SIGCONT)
        counts = self.assert_answers_all(application, later_than=before)
        self.assertEqual(counts["lost"], 0)
        sub.await_line(f"tick.app.{counts['last_heard']} ", stream="stdout")
        ticks = [int(line.split(".")[2]) for line in sub.output]
        self.assertEqual(ticks, list(range(ticks[0], ticks[0] + len(ticks))))


if __name__ == "__main__":
    unittest.main()
