"""What "vesk pub" says of its messages when the hub is killed and replaced, or its own connection breaks.

Lines are numbered and fed without end until a round is over. Whoever relays them keeps a record, so each round can
tell what was lost; an exit with 0 after a loss is what must never happen. VESK_ROUNDS is how many rounds there are
for each fault.
"""

import collections
import contextlib
import itertools
import os
import pathlib
import re
import signal
import socket
import socketserver
import subprocess
import threading
import unittest

from end_to_end_test import DONE, FAILED, EndToEndTest, await_that

ROUNDS = int(os.environ.get("VESK_ROUNDS", "4"))


def feed_lines(process, trickling, stopped, fed):
    """Writes numbered lines until told to stop: one a millisecond, or as fast as they are read. Notes them."""
    with contextlib.suppress(BrokenPipeError), process.stdin:
        while not stopped.wait(0.001 if trickling else 0):
            process.feed(b"%d\n" % (len(fed) + 1), close=False)
            fed.append(len(fed) + 1)


class FragileRoad(socketserver.ThreadingUnixStreamServer):
    """Passes bytes on between the connections that it takes and a hub. Told to, it loses the next lines that come
    without a probe, and breaks their connection: the publisher gets no sign that it was just then."""

    daemon_threads = True

    def __init__(self, path, hub):
        super().__init__(path, None)
        self.hub, self.breaks = hub, threading.Event()
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def finish_request(self, near, _):
        with socket.socket(socket.AF_UNIX) as far:
            far.connect(self.hub)
            threading.Thread(target=self.pass_on, args=(far, near), daemon=True).start()
            self.pass_on(near, far)

    def pass_on(self, source, sink):
        with contextlib.suppress(OSError):
            while data := source.recv(4096):
                if self.breaks.is_set() and b"line" in data and b"vesk.probe." not in data:
                    self.breaks.clear()
                    break
                sink.sendall(data)
            sink.shutdown(socket.SHUT_RDWR)


class PubFaults(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.record = self.folder / "record"
        self.hub = self.start_recording()

    def start_recording(self):
        program = pathlib.Path(__file__).parent / "support" / "recording_hub.py"
        return self.start("/usr/bin/python3", program, self.record, *self.endpoints)

    def check_round(self, break_off, trickling, *options):
        """Breaks something while lines flow; gives how many of them were lost."""
        self.record.write_bytes(b"")
        pub = self.vesk("pub", "line", *options, stdin=subprocess.PIPE)
        stopped, fed = threading.Event(), []
        self.addCleanup(stopped.set)
        feeder = threading.Thread(target=feed_lines, args=(pub, trickling, stopped, fed))
        feeder.start()
        for interrupt in (break_off, stopped.set):
            before = len(self.recorded())
            await_that(lambda: len(self.recorded()) > before + 100, pub)
            interrupt()
        feeder.join()
        status = pub.end()
        lost = set(fed).difference(self.recorded())
        self.assertLessEqual(lost, self.named_in(pub.log), (status, pub.log))
        self.assertEqual(status, FAILED if self.named_in(pub.log) else DONE, pub.log)
        return len(lost)

    def recorded(self):
        return [int(line) for line in self.record.read_bytes().split(b"\n")[:-1]]

    @staticmethod
    def named_in(log):
        told = re.search("not confirmed: lines? (.*)", log)
        ranges = [one.split("-") for one in told[1].split(", ")] if told else []
        return {number for one in ranges for number in range(int(one[0]), int(one[-1]) + 1)}

    def check_rounds(self, break_off):
        lost = collections.Counter()
        kinds = itertools.cycle(itertools.product((True, False), ((), ("--resend",))))
        for trickling, options in itertools.islice(kinds, ROUNDS):
            lost[options] += self.check_round(break_off, trickling, *options)
        self.assertEqual(lost["--resend",], 0)
        self.assertGreater(lost[()], 0, "nothing was ever lost, so nothing was tried")

    def test_a_hub_that_is_killed_and_replaced(self):
        def replace():
            self.hub.end(signal.SIGKILL)
            self.hub = self.start_recording()

        self.check_rounds(replace)

    def test_a_connection_that_breaks_while_the_hub_lives(self):
        await_that((self.folder / "pub").exists, self.hub)
        with FragileRoad(f"{self.folder}/road", f"{self.folder}/pub") as road:
            self.environment["VESK_PUB_ENDPOINT"] = f"ipc://{self.folder}/road"
            self.check_rounds(road.breaks.set)
            road.shutdown()


if __name__ == "__main__":
    unittest.main()
