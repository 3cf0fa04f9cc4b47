"""What a running application meets when its hub dies, freezes, is replaced, or serves somebody who does not read.

The application ("traffic") sends a request and a numbered tick every 5 ms and counts what becomes of them.
"""

import json
import os
import pathlib
import signal
import subprocess
import time
import unittest

from end_to_end_test import DONE, PATIENCE, EndToEndTest

RESTARTS = 50


def descriptors(process):
    return len(os.listdir(f"/proc/{process.pid}/fd"))


def memory_kib(process):
    status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
    return next(int(line.split()[1]) for line in status.splitlines() if line.startswith("VmRSS"))


def is_sanitized(process):
    """A sanitizer keeps freed memory for a while."""
    return "san.so" in pathlib.Path(f"/proc/{process.pid}/maps").read_text()


class HubFaults(EndToEndTest):
    def start_application(self, name="app", endpoints=None):
        pub, sub = endpoints or self.endpoints
        serve = self.vesk("serve", f"svc-{name}", "echo", "--echo", "--pub-endpoint", pub, "--sub-endpoint", sub)
        application = self.start("traffic", name, f"svc-{name}", pub, sub, "5", stdin=subprocess.PIPE)
        return application, serve

    def counts(self, application):
        lines = application.output
        return json.loads(lines[-1]) if lines else dict.fromkeys(("sent", "last_heard", "last_answered"), 0)

    def await_counts(self, application, holds):
        give_up = time.monotonic() + PATIENCE
        while not holds(counts := self.counts(application)):
            self.assertLess(time.monotonic(), give_up, (counts, application.log))
            time.sleep(0.005)
        return counts

    def await_recovery(self, application):
        """Something that is sent from now on is heard, and something is answered."""
        told = self.counts(application)["sent"]  # a while ago
        sent = self.await_counts(application, lambda now: now["sent"] > told)["sent"]
        return self.await_counts(application, lambda now: min(now["last_heard"], now["last_answered"]) > sent)

    def await_traffic(self, application, amount):
        sent = self.counts(application)["sent"]
        self.await_counts(application, lambda now: now["sent"] >= sent + amount)

    def assert_sound(self, application):
        counts = self.counts(application)
        self.assertEqual([counts[name] for name in ("ended_twice", "answered_wrongly", "foreign")], [0, 0, 0])
        return counts

    def assert_answers_all(self, application, later_than):
        """Lets every request end, and finds none failed of those that were sent after that one."""
        application.feed(b"")
        self.assert_ends(application, DONE)
        counts = self.assert_sound(application)
        self.assertEqual(counts["answered"] + counts["failed"], counts["sent"], counts)
        self.assertLessEqual(counts["last_failed"], later_than, counts)

    def test_killed_and_started_again_50_times_it_costs_neither_side_anything_but_what_was_under_way(self):
        application, serve = self.start_application()
        for restart in range(RESTARTS):
            hub = self.start_hub()
            self.await_recovery(application)
            if restart == RESTARTS // 5:
                before = [(descriptors(process), memory_kib(process)) for process in (application, serve)]
            hub.end(signal.SIGKILL)
        self.start_hub()
        recovered = self.await_recovery(application)["sent"]
        for process, (fds, kib) in zip((application, serve), before):
            self.assertLessEqual(descriptors(process), fds)
            if not is_sanitized(process):
                self.assertLess(memory_kib(process), kib + 2048)
        self.assert_answers_all(application, later_than=recovered)
        self.assertEqual(serve.end(signal.SIGTERM), DONE)

    def test_frozen_and_thawed_it_loses_nothing(self):
        hub = self.start_hub()
        application, _ = self.start_application()
        before = self.await_recovery(application)["sent"]
        hub.send_signal(signal.SIGSTOP)
        self.await_traffic(application, 200)
        hub.send_signal(signal.SIGCONT)
        self.await_recovery(application)
        self.assert_answers_all(application, later_than=before)

    def test_a_subscriber_that_does_not_read_delays_nobody_and_gets_everything_in_the_end(self):
        self.start_hub()
        application, _ = self.start_application()
        sub = self.start_ready("sub", "tick.app")
        self.await_recovery(application)
        sub.send_signal(signal.SIGSTOP)
        self.await_traffic(application, 400)
        counts = self.await_recovery(application)
        sub.send_signal(signal.SIGCONT)
        sub.await_line(f"tick.app.{counts['last_heard']} ", stream="stdout")
        ticks = [int(line.split(".")[2]) for line in sub.output]
        self.assertEqual(ticks, list(range(ticks[0], ticks[0] + len(ticks))))
        self.assert_sound(application)

    def test_two_that_swap_places_get_the_applications_of_the_place(self):
        places = [(f"ipc://{self.folder}/pub{n}", f"ipc://{self.folder}/sub{n}") for n in (1, 2)]
        applications = [self.start_application(f"app{n}", place)[0] for n, place in enumerate(places)]
        hubs = []
        for order in (places, places[::-1], places):
            for hub in hubs:
                self.assertEqual(hub.end(signal.SIGTERM), DONE)
            hubs = [self.start_hub("--pub-endpoint", pub, "--sub-endpoint", sub) for pub, sub in order]
            for application in applications:
                self.await_recovery(application)
        for application in applications:
            self.assert_sound(application)


if __name__ == "__main__":
    unittest.main()
