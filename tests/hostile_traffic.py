"""Throws mutations of the fuzz targets' messages at a hub, a subscriber and a server, and looks whether they still work.

Run by scripts/hostile. After every batch the subscriber must have delivered exactly what the protocol says, and
the server must answer a good request.
"""

import contextlib
import json
import os
import pathlib
import random
import socket
import sys
import unittest

import zmq

from end_to_end_test import DONE, EndToEndTest, metadata

BATCH = 200  # small enough for every queue on the way
SEEDS = [message.split(b"\xfe") for seed in pathlib.Path(__file__).parent.glob("../fuzz/corpus/messages/*")
         for message in seed.read_bytes().replace(b"@", b"elsewhere.reply.1").split(b"\xfd")]
PIECES = [b"\0", b"\xff", b"\xc3", b".", b":", b".b", b"[" * 1000, b"{", b'"', b"\\ud800", b"null", b"1e999", b"-",
          b"18446744073709551616", b"%s%n", b"\n", b"\x1b[2J", b'"replyTopic":', b'"payload":', b"x" * 100_000]


def mutated(chance, frame):
    begin = chance.randint(0, len(frame))
    end = min(len(frame), begin + chance.choice([0, 1, 1, 4, 20]))
    middle = chance.choice([b"", chance.randbytes(end - begin), chance.choice(PIECES), frame[begin:end] * 2])
    return frame[:begin] + middle + frame[end:]


def hostile_message(chance):
    """A seed with some frames mutated, in another order, or too many."""
    frames = list(chance.choice(SEEDS))
    if chance.random() < 0.2:
        frames = [chance.choice(frames) for _ in range(chance.randint(1, 8))]
    for _ in range(chance.randint(0, 4)):
        at = chance.randrange(len(frames))
        frames[at] = mutated(chance, frames[at])
    return frames


def is_delivered(frames):
    """Whether a subscriber of "a" gets it: two frames or more, and whole segments of a C text."""
    topic = frames[0].split(b"\0")[0]
    return len(frames) > 1 and (topic == b"a" or topic.startswith(b"a."))


class HostileTraffic(EndToEndTest):
    def make_noise(self, address, noise):
        """A peer that does not speak the protocol at all."""
        with socket.socket(socket.AF_UNIX) as raw, contextlib.suppress(BrokenPipeError, ConnectionResetError):
            raw.connect(address)
            raw.sendall(noise)  # until the hub hangs up, as it should

    def deliveries(self, sub, mark):
        """How many messages the subscriber has printed since the former mark."""
        end = sub.await_line(f'^{{"topic":"a.mark","data":"{mark}"', stream="stdout").end()
        lines = sub.text("stdout")[:end].count("\n")
        os.ftruncate(sub.files["stdout"].fileno(), 0)
        return lines - 1

    def assert_server_answers(self, client, number):
        envelope = {"replyTopic": f"foreign.reply.{number}", "replyNeeded": True, "payload": number}
        client.publish("svc.get", json.dumps(envelope), metadata())
        for answer in (b"{}", b'{"payload":%d}' % number):
            self.assertEqual(client.receive()[:2], [b"foreign.reply.%d" % number, answer])

    def test_leaves_everybody_at_work(self):
        print(f"{MESSAGES} messages, seed {SEED}", flush=True)
        chance = random.Random(SEED)
        hub = self.start_hub()
        sub = self.start_ready("sub", "--json", "a")
        serve = self.start_ready("serve", "svc", "get", "--echo")
        client = self.foreign_client("foreign.reply")
        subscriptions = client.context.socket(zmq.XSUB)
        self.addCleanup(subscriptions.close, 0)
        subscriptions.connect(self.endpoints[1])
        total = 0
        for batch in range(1, MESSAGES // BATCH + 1):
            messages = [hostile_message(chance) for _ in range(BATCH)]
            for frames in messages:
                client.publish(*frames)
            for _ in range(20):
                subscriptions.send(chance.choice([b"\0", b"\1", b"\2", b""]) + mutated(chance, b"a.b.c"))
            for endpoint in self.endpoints:
                self.make_noise(endpoint.removeprefix("ipc://"), chance.randbytes(chance.choice([0, 1, 16, 5000])))
            client.publish("a.mark", str(batch), metadata())
            wanted = sum(map(is_delivered, messages))
            self.assertEqual(self.deliveries(sub, batch), wanted, f"batch {batch}")
            self.assert_server_answers(client, batch)
            total += wanted
        for process in (sub, serve, hub):
            self.assertEqual(process.end(15), DONE, process.log[-2000:])
        print(f"{total} of them were for the subscriber, which got each; {batch} good requests were answered")


if __name__ == "__main__":
    MESSAGES, SEED = map(int, sys.argv[1:])
    unittest.main(argv=sys.argv[:1])
