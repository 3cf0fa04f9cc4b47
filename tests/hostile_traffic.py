"""Throws random and mutated messages at a hub, a subscriber and a server, and looks whether they still work.

Run by scripts/hostile. After every batch the subscriber must have delivered exactly what the protocol says, and
the server must answer a good request.
"""

import json
import os
import random
import socket
import sys
import unittest

import zmq

from end_to_end_test import DONE, PATIENCE, EndToEndTest, metadata

BATCH = 200  # small enough for every queue on the way
ENVELOPE = b'{"replyTopic": "elsewhere.reply.1", "replyNeeded": true, "payload": {"a": [1, -2.5e3, "\\u00e9", null]}}'
SEEDS = [
    [b"hostile.tick", b"1", metadata()],
    [b"hostile", ENVELOPE, metadata()],
    [b"svc.echo", ENVELOPE, metadata()],
    [b"svc.echo.further", b'{"replyTopic": "elsewhere.reply.65535", "replyNeeded": false}', metadata()],
    [b"elsewhere.reply.1", b'{"xTypeId":"St12out_of_range","xWhat":"text"}', metadata()],
]
PIECES = [b"\0", b"\xff", b"\xc3", b".", b":", b".tick", b"[" * 1000, b"{", b"}", b'"', b"\\ud800", b"\\", b"null",
          b"1e999", b"-", b"18446744073709551616", b"%s%n", b"\n", b"\x1b[2J", b'"replyTopic":', b'"payload":']
LENGTHS = [0, 1, 2, 7, 8, 15, 16, 17, 255, 256, 5000, 100_000]


def mutated(chance, frame):
    changed = bytearray(frame)
    for _ in range(chance.randint(1, 4)):
        begin = chance.randint(0, len(changed))
        end = min(len(changed), begin + chance.choice([0, 1, 1, 4, 20]))
        changed[begin:end] = chance.choice([b"", chance.randbytes(end - begin), chance.choice(PIECES),
                                            changed[begin:end] * 2])
    return bytes(changed)


def hostile_message(chance):
    frames = list(chance.choice(SEEDS))
    kind = chance.random()
    if kind < 0.6:
        at = chance.randrange(len(frames))
        frames[at] = mutated(chance, frames[at])
    elif kind < 0.8:
        frames = [chance.choice(frames) for _ in range(chance.randint(1, 8))]
    else:
        frames[chance.randint(0, 1):] = [chance.randbytes(chance.choice(LENGTHS)) for _ in range(chance.randint(1, 5))]
    return frames


def is_delivered(frames):
    """Whether a subscriber of "hostile" gets it: two frames or more, and whole segments of a C text."""
    topic = frames[0].split(b"\0")[0]
    return len(frames) > 1 and (topic == b"hostile" or topic.startswith(b"hostile."))


class HostileTraffic(EndToEndTest):
    def make_noise(self, address, noise):
        """A peer that does not speak the protocol at all."""
        with socket.socket(socket.AF_UNIX) as raw:
            raw.connect(address)
            try:
                raw.sendall(noise)
            except OSError:
                pass  # the hub has hung up, as it should

    def send_subscriptions(self, chance, subscriptions):
        for _ in range(20):
            subscriptions.send(chance.choice([b"\0", b"\1", b"\2", b""]) + mutated(chance, b"hostile.tick"))

    def deliveries(self, sub, mark):
        """What the subscriber has printed since the former mark."""
        end = sub.await_line(f'^{{"topic":"hostile.mark","data":"{mark}"', stream="stdout").end()
        text = sub.text("stdout")[:end]
        os.ftruncate(sub.files["stdout"].fileno(), 0)
        return text.split("\n")[:-2]  # without the mark, and the nothing behind it

    def assert_server_answers(self, client, number):
        envelope = {"replyTopic": f"foreign.reply.{number}", "replyNeeded": True, "payload": number}
        client.publish("svc.echo", json.dumps(envelope), metadata())
        for answer in (b"{}", b'{"payload":%d}' % number):
            self.assertEqual(client.receive()[:2], [b"foreign.reply.%d" % number, answer])

    def test_leaves_everybody_at_work(self):
        print(f"{MESSAGES} messages, seed {SEED}", flush=True)
        chance = random.Random(SEED)
        hub = self.start_hub()
        sub = self.start_ready("sub", "--json", "hostile")
        serve = self.start_ready("serve", "svc", "echo", "--echo")
        client = self.foreign_client("foreign.reply")
        subscriptions = client.context.socket(zmq.XSUB)
        self.addCleanup(subscriptions.close, 0)
        subscriptions.connect(self.endpoints[1])
        delivered = 0
        for batch in range(1, MESSAGES // BATCH + 1):
            messages = [hostile_message(chance) for _ in range(BATCH)]
            for frames in messages:
                client.publish(*frames)
            self.send_subscriptions(chance, subscriptions)
            for endpoint in self.endpoints:
                self.make_noise(endpoint.removeprefix("ipc://"), chance.randbytes(chance.choice(LENGTHS)))
            client.publish("hostile.mark", str(batch), metadata())
            self.assertEqual(len(self.deliveries(sub, batch)), sum(map(is_delivered, messages)), f"batch {batch}")
            self.assert_server_answers(client, batch)
            delivered += sum(map(is_delivered, messages))
        for process in (sub, serve, hub):
            self.assertEqual(process.end(15), DONE, process.log[-2000:])
        print(f"{delivered} of them were for the subscriber, which got each; {batch} good requests were answered")


if __name__ == "__main__":
    MESSAGES, SEED = map(int, sys.argv[1:])
    unittest.main(argv=sys.argv[:1])
