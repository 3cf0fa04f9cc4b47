"""Real processes of the built programs, and a client in another language that knows only the wire.

Every wait is for a condition; patience runs out only in a failing test, which then kills what it started.
VESK_BIN names the folder of the built programs.
"""

import json
import os
import pathlib
import queue
import re
import shutil
import signal
import struct
import subprocess
import tempfile
import threading
import time
import unittest
import uuid

import zmq

BIN = pathlib.Path(os.environ["VESK_BIN"])
PATIENCE = 60  # seconds
DONE, FAILED, WRONG_USAGE, TIMED_OUT = range(4)


def steady_ms():
    return time.monotonic_ns() // 10**6


def metadata(version=1):
    return struct.pack("<B7xq", version, steady_ms())


class Process:
    """A process whose output is collected line by line while it runs."""

    def __init__(self, command, environment, stdin):
        self.running = subprocess.Popen(command, env=environment, stdin=stdin,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.stdin = self.running.stdin
        self.lines = {"stdout": [], "stderr": []}
        self.arrivals = queue.Queue()
        self.readers = [threading.Thread(target=self._collect, args=(name,)) for name in self.lines]
        for reader in self.readers:
            reader.start()

    def _collect(self, name):
        for line in getattr(self.running, name):
            self.lines[name].append(line.decode().removesuffix("\n"))
            self.arrivals.put(name)
        self.arrivals.put("end of " + name)

    @property
    def stdout(self):
        return self.lines["stdout"]

    @property
    def stderr(self):
        return "\n".join(self.lines["stderr"])

    def await_line(self, pattern, stream="stderr"):
        """Waits for a line of that stream that the pattern matches, and gives the match."""
        while True:
            for line in list(self.lines[stream]):
                if match := re.search(pattern, line):
                    return match
            try:
                arrival = self.arrivals.get(timeout=PATIENCE)
            except queue.Empty:
                arrival = "no more patience"
            if arrival in ("end of " + stream, "no more patience"):
                raise AssertionError(f"{arrival}, without {pattern!r}: {self.lines}")

    def end(self, signal_number=None):
        """Waits for the end of the process, which that signal brings about if one is given."""
        if signal_number is not None:
            self.running.send_signal(signal_number)
        status = self.running.wait(PATIENCE)
        for reader in self.readers:
            reader.join(PATIENCE)
        return status

    def clean_up(self):
        if self.running.poll() is None:
            self.running.kill()
        self.end()
        for stream in (self.running.stdin, self.running.stdout, self.running.stderr):
            if stream:
                stream.close()


class ForeignClient:
    """Two plain sockets: what any other implementation of the protocol would hold."""

    def __init__(self, pub_endpoint, sub_endpoint):
        self.context = zmq.Context()
        self.publishing = self.context.socket(zmq.XPUB)
        self.subscription = self.context.socket(zmq.SUB)
        for a_socket, endpoint in ((self.publishing, pub_endpoint), (self.subscription, sub_endpoint)):
            a_socket.setsockopt(zmq.LINGER, 0)
            a_socket.setsockopt(zmq.RCVTIMEO, PATIENCE * 1000)
            a_socket.setsockopt(zmq.RCVHWM, 0)
            a_socket.connect(endpoint)

    def subscribe(self, *topics):
        """Returns when the hub knows the subscriptions: a probe that was made after them has come back."""
        probe = f"vesk.probe.{uuid.uuid4()}".encode()
        for topic in (*topics, probe.decode()):
            self.subscription.setsockopt_string(zmq.SUBSCRIBE, topic)
        give_up = time.monotonic() + PATIENCE
        while time.monotonic() < give_up:
            self.publish(probe, b"", metadata())
            if self.subscription.poll(20) and self.subscription.recv_multipart()[0] == probe:
                return
        raise AssertionError("the hub does not answer")

    def publish(self, *frames):
        self.publishing.send_multipart([f if isinstance(f, bytes) else f.encode() for f in frames])

    def receive(self):
        """The next message that is no probe."""
        while True:
            frames = self.subscription.recv_multipart()
            if not frames[0].startswith(b"vesk.probe."):
                return frames

    def close(self):
        self.context.destroy(linger=0)


class EndToEndTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vesk-test-"))  # mode 0700
        self.addCleanup(shutil.rmtree, self.folder)
        self.pub_endpoint = f"ipc://{self.folder}/pub"
        self.sub_endpoint = f"ipc://{self.folder}/sub"
        self.environment = {name: value for name, value in os.environ.items()
                            if not name.startswith(("VESK_", "XDG_"))}
        self.environment |= {"VESK_PUB_ENDPOINT": self.pub_endpoint,
                             "VESK_SUB_ENDPOINT": self.sub_endpoint}

    def start(self, program, *arguments, stdin=subprocess.DEVNULL, environment=None):
        process = Process([BIN / program, *arguments], environment or self.environment, stdin)
        self.addCleanup(process.clean_up)
        return process

    def vesk(self, *arguments, **options):
        return self.start("vesk", *arguments, **options)

    def start_hub(self, *arguments, **options):
        hub = self.vesk("hub", *arguments, **options)
        hub.await_line("^vesk: hub bound to ")
        return hub

    def start_sub(self, *arguments, **options):
        sub = self.vesk("sub", *arguments, **options)
        sub.await_line("^vesk: ready$")
        return sub

    def foreign_client(self):
        client = ForeignClient(self.pub_endpoint, self.sub_endpoint)
        self.addCleanup(client.close)
        return client

    def assert_ends(self, process, status, text=""):
        self.assertEqual(process.end(), status, process.stderr)
        self.assertIn(text, process.stderr)

    def publish(self, *arguments, **options):
        self.assert_ends(self.vesk("pub", *arguments, **options), DONE)


class PublishAndSubscribe(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.hub = self.start_hub()

    def test_subscribers_get_whole_segments_and_nothing_that_stands_before_the_first_colon(self):
        published = ["a.b", "a.bc", "a", "a.b.c", "svc:a.b", "svc:a.b:c", ":exact", "end"]
        on_the_wire = ["a.b", "a.bc", "a", "a.b.c", "a.b", "a.b:c", "exact", "end"]
        cases = {  # subscribed topics: deliveries
            ("a.b", "exact", "end"): ["a.b", "a.b.c", "a.b", "exact", "end"],
            ("svc:a.b", "end"): ["end"],
            (): on_the_wire,
        }
        subs = [(self.start_sub(*topics, "--count", str(len(wanted))), wanted)
                for topics, wanted in cases.items()]
        for topic in published:
            self.publish(topic, "data of it")
        for sub, wanted in subs:
            self.assert_ends(sub, DONE)
            self.assertEqual(sub.stdout, [topic + " data of it" for topic in wanted])

    def test_json_prints_one_object_a_line(self):
        sub = self.start_sub("--json", "--count", "1")
        self.publish("a.b", 'tab\t "quote" é')
        self.assert_ends(sub, DONE)
        delivery = json.loads(sub.stdout[0])
        self.assertEqual((delivery["topic"], delivery["data"]), ("a.b", 'tab\t "quote" é'))

    def test_options_count_before_and_after_the_subcommand_and_above_the_environment(self):
        endpoints = ["--pub-endpoint", self.pub_endpoint, "--sub-endpoint", self.sub_endpoint]
        bare = {name: value for name, value in self.environment.items() if not name.startswith("VESK_")}
        misled = bare | {"VESK_PUB_ENDPOINT": "not-an-endpoint", "VESK_SUB_ENDPOINT": "not-an-endpoint"}
        for environment in (bare, misled):
            for arguments in ([*endpoints, "pub", "t", "d"], ["pub", *endpoints, "t", "d"],
                              [*endpoints[:2], "pub", "t", "d", *endpoints[2:]]):
                with self.subTest(arguments, misled=environment is misled):
                    self.assert_ends(self.vesk(*arguments, environment=environment), DONE)

    def test_without_endpoints_hub_and_clients_meet_in_the_runtime_folder(self):
        environment = {name: value for name, value in self.environment.items()
                       if not name.startswith("VESK_")}
        environment["XDG_RUNTIME_DIR"] = str(self.folder)
        self.start_hub(environment=environment)
        self.publish("t", "d", environment=environment)
        self.assertEqual((self.folder / "vesk").stat().st_mode & 0o777, 0o700)

    def test_data_of_censored_topics_is_sent_but_not_logged(self):
        cases = {  # published topic: (on the wire, data in the log)
            "cts/lamp:door": ("door", "censored"),
            "lamp:cts/door": ("cts/door", "4711"),
            "cts": ("cts", "4711"),
        }
        sub = self.start_sub("cts", "cts/door", "door", "--count", str(len(cases)))
        for topic, (wire_topic, logged) in cases.items():
            pub = self.vesk("pub", topic, "4711", "--log-level", "3")
            self.assert_ends(pub, DONE, f"publish: publish topic: '{wire_topic}' data: {logged}\n")
            self.assertEqual("4711" in pub.stderr, logged == "4711")
        self.assert_ends(sub, DONE)
        self.assertEqual(sub.stdout, [wire_topic + " 4711" for wire_topic, _ in cases.values()])

    def test_a_signal_ends_a_subscriber_well(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            self.assertEqual(self.start_sub().end(number), DONE)

    def test_the_example_greets_itself_through_the_hub(self):
        program = self.start("first_program", self.pub_endpoint, self.sub_endpoint)
        self.assert_ends(program, DONE)
        self.assertEqual((program.stdout, program.stderr), (["greeting.morning: hello, bus"], ""))


class ForeignPeers(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.start_hub()
        self.client = self.foreign_client()

    def test_a_publication_is_three_frames_with_version_zeros_and_steady_clock(self):
        self.client.subscribe("a.b")
        before = steady_ms()
        self.publish("svc:a.b", '{"é": ""}')
        topic, data, record = self.client.receive()
        self.assertEqual((topic, data, record[:8]), (b"a.b", '{"é": ""}'.encode(), b"\1" + bytes(7)))
        self.assertEqual(len(record), 16)
        self.assertTrue(before <= int.from_bytes(record[8:], "little", signed=True) <= steady_ms())

    def test_messages_of_other_shapes_are_delivered_or_dropped_with_a_word(self):
        sub = self.start_sub("t", "--count", "6")
        self.client.subscribe()
        after_the_data = ([metadata()], [], [metadata(2)], [b"\1 short"], [metadata(), b"more"])
        for number, frames in enumerate(after_the_data):
            self.client.publish("t", str(number), *frames)
        self.client.publish("t")
        self.client.publish("t", "", metadata())
        self.assert_ends(sub, DONE, "unsupported metadata version=2")
        self.assertEqual(sub.stdout, ["t 0", "t 1", "t 2", "t 3", "t 4", "t "])
        self.assertIn("Failed to receive 0MQ message off of socket; dropping", sub.stderr)

    def received_until_end(self):
        self.publish("end", "")
        received = []
        while (frames := self.client.receive())[0] != b"end":
            received.append(frames[1])
        return received

    def test_each_line_of_stdin_is_a_message(self):
        self.client.subscribe("line", "end")
        cases = {
            b"one\n\nthree": [b"one", b"", b"three"],
            b"one\r\n \n": [b"one\r", b" "],
            b"\n": [b""],
            b"": [],
            b"x" * 300_000 + b"\ny": [b"x" * 300_000, b"y"],
        }
        for text, wanted in cases.items():
            with self.subTest(text[:20]):
                pub = self.vesk("pub", "line", stdin=subprocess.PIPE)
                pub.stdin.write(text)
                pub.stdin.close()
                self.assert_ends(pub, DONE)
                self.assertEqual(self.received_until_end(), wanted)
        self.publish("line")
        self.assertEqual(self.received_until_end(), [], "from /dev/null")

    def test_a_line_is_published_before_the_next_one_is_there(self):
        self.client.subscribe("line")
        pub = self.vesk("pub", "line", stdin=subprocess.PIPE)
        for line in (b"first", b"second"):
            pub.stdin.write(line + b"\n")
            pub.stdin.flush()
            self.assertEqual(self.client.receive()[1], line)
        pub.stdin.close()
        self.assert_ends(pub, DONE)

    def test_a_line_that_the_wire_cannot_carry_is_refused(self):
        pub = self.vesk("pub", "line", stdin=subprocess.PIPE)
        pub.stdin.write(b"good\nwith \0 in it\n")
        pub.stdin.close()
        self.assert_ends(pub, FAILED, "message 2 has a NUL byte")

    def test_a_hundred_thousand_lines_arrive_complete_and_in_order(self):
        lines = [b"%d" % number for number in range(100_000)]
        file = self.folder / "lines"
        file.write_bytes(b"\n".join(lines))
        self.client.subscribe("line")
        with file.open("rb") as source:
            from_file = self.vesk("pub", "line", stdin=source)
            self.assertEqual([self.client.receive()[1] for _ in lines], lines)
        self.assert_ends(from_file, DONE)

        from_pipe = self.vesk("pub", "line", stdin=subprocess.PIPE)
        writer = threading.Thread(target=lambda: (from_pipe.stdin.write(b"\n".join(lines)),
                                                  from_pipe.stdin.close()))
        writer.start()
        self.addCleanup(writer.join)
        self.assertEqual([self.client.receive()[1] for _ in lines], lines)
        self.assert_ends(from_pipe, DONE)


class Refusals(EndToEndTest):
    def test_without_a_hub_a_publisher_gives_up_and_names_the_endpoints(self):
        pub = self.vesk("pub", "t", "d", "--timeout", "0.2")
        self.assert_ends(pub, TIMED_OUT,
                         f"no answer from the hub at {self.pub_endpoint} and {self.sub_endpoint}")

    def test_a_publisher_whose_hub_dies_does_not_claim_success(self):
        hub = self.start_hub()
        client = self.foreign_client()
        client.subscribe("line")
        pub = self.vesk("pub", "line", "--timeout", "0.5", stdin=subprocess.PIPE)
        pub.stdin.write(b"before\n")
        pub.stdin.flush()
        client.receive()
        hub.end(signal.SIGKILL)
        pub.stdin.write(b"after\n")
        pub.stdin.close()
        self.assert_ends(pub, TIMED_OUT, " of 2 messages are not confirmed")

    def test_a_subscriber_gives_up_in_time_and_says_how_much_came(self):
        self.start_hub()
        sub = self.vesk("sub", "--timeout", "0.2")
        self.assert_ends(sub, TIMED_OUT, "timed out after 0 messages")

    def test_a_rejected_endpoint_is_named(self):
        rejected = "could not connect to ZMQ %s socket at not-an-endpoint, reason -1"
        cases = {
            ("--sub-endpoint", "not-an-endpoint"): rejected % "subscription",
            ("--pub-endpoint", "not-an-endpoint"): rejected % "publishing",
            ("--pub-endpoint", ""): "incomplete configuration provided for hub-based configuration",
        }
        for option, text in cases.items():
            for command in (["pub", "t", "d"], ["sub"]):
                with self.subTest(option, command=command):
                    process = self.vesk(*option, *command)
                    self.assertEqual((process.end(), process.stderr), (FAILED, "vesk: " + text))

    def test_wrong_usage_is_told_apart_from_failure(self):
        cases = ("", "nonsense", "pub", "pub t d more", "pub t d --timeout 0", "sub --count 0",
                 "sub --count many", "sub --timeout -1", "sub --no-such-option", "hub more",
                 "--log-level 4 sub", "sub --log-level -2")
        for arguments in cases:
            with self.subTest(arguments):
                process = self.vesk(*arguments.split())
                self.assertEqual((process.end(), process.stdout), (WRONG_USAGE, []))
                self.assertNotEqual(process.stderr, "")

    def test_help_and_version_are_answers(self):
        for arguments in ("--help", "pub --help", "--version"):
            with self.subTest(arguments):
                process = self.vesk(*arguments.split())
                self.assertEqual((process.end(), process.stderr), (DONE, ""))
                self.assertNotEqual(process.stdout, [])


class Hub(EndToEndTest):
    def test_a_second_hub_is_refused_and_leaves_the_first_one_working(self):
        self.start_hub()
        self.assert_ends(self.vesk("hub"), FAILED, f"{self.pub_endpoint}: another hub holds it")
        self.publish("t", "d")

    def test_a_signal_ends_it_well_and_removes_its_sockets(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            hub = self.start_hub()
            self.assertNotEqual(os.listdir(self.folder), [])
            self.assertEqual(hub.end(number), DONE)
            self.assertEqual(os.listdir(self.folder), [])

    def test_it_does_not_bind_where_others_could_connect(self):
        refused = self.vesk("hub", "--pub-endpoint", "tcp://0.0.0.0:*")
        self.assert_ends(refused, FAILED, "tcp://0.0.0.0:*: not a loopback address")
        self.folder.chmod(0o755)
        self.assert_ends(self.vesk("hub"), FAILED, "0755")

    def test_it_serves_loopback_tcp_and_tells_its_counters(self):
        hub = self.start_hub("--pub-endpoint", "tcp://127.0.0.1:*", "--sub-endpoint", "tcp://127.0.0.1:*",
                             "--stats", "0.05")
        endpoints = hub.await_line("bound to (.*) and (.*)").groups()
        self.publish("t", "d", "--pub-endpoint", endpoints[0], "--sub-endpoint", endpoints[1])
        hub.await_line(r"relayed [1-9]\d* messages \(\d+ bytes\)")

    def test_a_running_subscriber_goes_on_after_the_hub_was_killed_and_restarted(self):
        hub = self.start_hub()
        sub = self.start_sub("t", "--count", "2")
        self.publish("t", "before")
        sub.await_line("before", stream="stdout")
        hub.end(signal.SIGKILL)
        self.start_hub()
        client = self.foreign_client()
        client.subscribe()
        give_up = time.monotonic() + PATIENCE
        while sub.running.poll() is None and time.monotonic() < give_up:
            client.publish("t", "after", metadata())
            client.subscribe()  # one round through the hub
        self.assert_ends(sub, DONE)
        self.assertEqual(sub.stdout, ["t before", "t after"])


class Exit(EndToEndTest):
    def test_is_silent_with_every_backend_installed_and_bus_objects_alive(self):
        process = self.start("silent_exit", self.pub_endpoint, self.sub_endpoint)
        self.assertEqual((process.end(), process.stdout, process.stderr), (DONE, [], ""))


if __name__ == "__main__":
    unittest.main()
