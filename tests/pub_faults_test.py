"""What "vesk pub" says of its messages when the hub is killed and replaced, or its own connection breaks.

Lines are numbered and fed without end until a round is over. Whoever relays them keeps a record, so each round can
tell what was lost; an exit with 0 after a loss is what must never happen. VESK_ROUNDS is how many rounds there are
for each fault.
"""

import collections
import contextlib
import itertools
import os
import re
import socket
import subprocess
import threading
import unittest

import zmq

from end_to_end_test import DONE, FAILED, EndToEndTest, await_that

ROUNDS = int(os.environ.get("VESK_ROUNDS", "8"))


class RecordingHub(threading.Thread):
    """Notes each line before it relays it. Its end takes everything along that it has queued."""

    def __init__(self, record, *endpoints):
        super().__init__()
        self.record, self.context = record, zmq.Context()
        self.taken, self.given = (self.context.socket(kind) for kind in (zmq.SUB, zmq.XPUB))
        self.poller = zmq.Poller()
        for end, endpoint in reversed([*zip((self.taken, self.given), endpoints)]):
            end.rcvhwm = end.sndhwm = end.linger = 0
            end.bind(endpoint)
            self.poller.register(end, zmq.POLLIN)
        self.taken.subscribe(b"")
        self.start()

    def run(self):
        with contextlib.suppress(zmq.ContextTerminated), self.taken, self.given:
            while True:
                for source, _ in self.poller.poll():
                    self.relay(source.recv_multipart())

    def relay(self, frames):
        if frames[0] == b"line":
            self.record.append(int(frames[1]))
        self.given.send_multipart(frames)

    def end(self):
        self.context.term()
        self.join()


class Feeder(threading.Thread):
    """Writes numbered lines into a process until told to stop: one a millisecond, or as fast as they are read."""

    def __init__(self, process, trickling):
        super().__init__()
        self.process, self.trickling = process, trickling
        self.stopped = threading.Event()
        self.fed = 0
        self.start()

    def run(self):
        with contextlib.suppress(BrokenPipeError), self.process.stdin as pipe:
            while not self.stopped.wait(0.001 if self.trickling else 0):
                pipe.write(b"%d\n" % (self.fed + 1))
                pipe.flush()
                self.fed += 1

    def stop(self):
        self.stopped.set()
        self.join()


class FragileRoad(threading.Thread):
    """Passes bytes on between the connections that it takes and a hub. Told to, it loses the next lines that come
    without a probe, and breaks their connection: the publisher gets no sign that it was just then."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.port, self.listener = port, socket.create_server(("127.0.0.1", 0))
        self.breaks = threading.Event()
        self.start()

    def run(self):
        with self.listener:
            while True:
                ends = self.listener.accept()[0], socket.create_connection(("127.0.0.1", self.port))
                for source, sink in (ends, ends[::-1]):
                    threading.Thread(target=self.pass_on, args=(source, sink), daemon=True).start()

    def pass_on(self, source, sink):
        with source, contextlib.suppress(OSError):
            while data := source.recv(4096):
                if self.breaks.is_set() and b"line" in data and b"vesk.probe." not in data:
                    self.breaks.clear()
                    break
                sink.sendall(data)
        with contextlib.suppress(OSError):
            sink.shutdown(socket.SHUT_RDWR)


class PubFaults(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.record = []

    def start_recording(self, *endpoints):
        hub = RecordingHub(self.record, *endpoints)
        self.addCleanup(hub.end)
        return hub

    def check_round(self, break_off, trickling, *options):
        """Breaks something while lines flow; gives how many of them were lost."""
        self.record.clear()
        pub = self.vesk("pub", "line", *options, stdin=subprocess.PIPE)
        feeder = Feeder(pub, trickling)
        self.addCleanup(feeder.stop)
        for interrupt in (break_off, feeder.stop):
            before = len(self.record)
            await_that(lambda: len(self.record) > before + 100, pub)
            interrupt()
        status = pub.end()
        lost = set(range(1, feeder.fed + 1)).difference(self.record)
        self.assertLessEqual(lost, self.named_in(pub.log), (status, pub.log))
        self.assertEqual(status, FAILED if self.named_in(pub.log) else DONE, pub.log)
        return len(lost)

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

    def test_a_hub_that_ends_and_is_replaced(self):
        hubs = [self.start_recording(*self.endpoints)]

        def replace():
            hubs[-1].end()
            hubs.append(self.start_recording(*self.endpoints))

        self.check_rounds(replace)

    def test_a_connection_that_breaks_while_the_hub_lives(self):
        hub = self.start_recording("tcp://127.0.0.1:*", self.endpoints[1])
        road = FragileRoad(int(hub.taken.last_endpoint.rpartition(b":")[2]))
        self.environment["VESK_PUB_ENDPOINT"] = "tcp://127.0.0.1:%d" % road.listener.getsockname()[1]
        self.check_rounds(road.breaks.set)


if __name__ == "__main__":
    unittest.main()
