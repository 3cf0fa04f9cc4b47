"""Real processes of the built programs, and a client in another language that knows only the wire.

Every wait is for a condition; patience runs out only in a failing test, which then kills what it started.
VESK_BIN names the folder of the built programs.
"""

import fcntl
import json
import os
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import tempfile
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


def log_file():
    """A file that may be emptied while a process writes to it."""
    file = tempfile.TemporaryFile()
    fcntl.fcntl(file, fcntl.F_SETFL, os.O_APPEND)
    return file


class Process(subprocess.Popen):
    """A process whose output can be read while it runs."""

    def __init__(self, command, environment, stdin):
        self.files = {stream: log_file() for stream in ("stdout", "stderr")}
        super().__init__(command, env=environment, stdin=stdin, **self.files)

    def text(self, stream):
        return os.pread(self.files[stream].fileno(), 1 << 24, 0).decode(errors="backslashreplace")

    @property
    def output(self):
        return self.text("stdout").split("\n")[:-1]

    @property
    def log(self):
        return self.text("stderr").removesuffix("\n")

    def await_line(self, pattern, stream="stderr"):
        """Waits for a whole line of that stream that the pattern matches, and gives the match."""
        give_up = time.monotonic() + PATIENCE
        while time.monotonic() < give_up:
            ended = self.poll() is not None
            if match := re.search(f"{pattern}.*\n", self.text(stream), re.MULTILINE):
                return match
            if ended:
                break
            time.sleep(0.005)
        raise AssertionError(f"no {pattern!r}: {self.output[-20:]} {self.log[-2000:]}")

    def feed(self, text, close=True):
        self.stdin.write(text)
        self.stdin.flush()
        if close:
            self.stdin.close()

    def end(self, signal_number=None):
        """Waits for the end of the process, which that signal brings about if one is given."""
        if signal_number is not None:
            self.send_signal(signal_number)
        return self.wait(PATIENCE)

    def clean_up(self):
        with self:
            self.kill()
        for file in self.files.values():
            file.close()


class ForeignClient:
    """Two plain sockets: what any other implementation of the protocol would hold."""

    def __init__(self, pub_endpoint, sub_endpoint):
        self.context = zmq.Context()
        self.publishing = self.context.socket(zmq.XPUB)
        self.publishing.sndhwm = 0
        self.subscription = self.context.socket(zmq.SUB)
        self.subscription.rcvtimeo = PATIENCE * 1000
        self.subscription.rcvhwm = self.subscription.sndhwm = 0
        self.publishing.connect(pub_endpoint)
        self.subscription.connect(sub_endpoint)

    def subscribe(self, *topics):
        """Returns when the hub knows the subscriptions: a probe that was made after them has come back."""
        probe = f"vesk.probe.{uuid.uuid4()}"
        for topic in (*topics, probe):
            self.subscription.subscribe(topic)
        give_up = time.monotonic() + PATIENCE
        while time.monotonic() < give_up:
            self.publish(probe, "", metadata())
            if self.subscription.poll(20) and self.subscription.recv_multipart()[0] == probe.encode():
                return
        raise AssertionError("the hub does not answer")

    def publish(self, *frames):
        self.publishing.send_multipart([f if isinstance(f, bytes) else f.encode() for f in frames])

    def receive(self):
        """The next message that is no probe."""
        while (frames := self.subscription.recv_multipart())[0].startswith(b"vesk.probe."):
            pass
        return frames


class EndToEndTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vesk-test-"))  # mode 0700
        self.addCleanup(shutil.rmtree, self.folder)
        self.endpoints = (f"ipc://{self.folder}/pub", f"ipc://{self.folder}/sub")
        self.bare = {name: value for name, value in os.environ.items()
                     if not name.startswith(("VESK_", "XDG_"))}
        self.environment = self.bare | dict(zip(("VESK_PUB_ENDPOINT", "VESK_SUB_ENDPOINT"), self.endpoints))

    def start(self, program, *arguments, stdin=subprocess.DEVNULL, environment=None):
        process = Process([BIN / program, *arguments], environment or self.environment, stdin)
        self.addCleanup(process.clean_up)
        return process

    def vesk(self, *arguments, **options):
        return self.start("vesk", *arguments, **options)

    def start_ready(self, *arguments, line="^vesk: ready$", **options):
        process = self.vesk(*arguments, **options)
        process.await_line(line)
        return process

    def start_hub(self, *arguments, **options):
        return self.start_ready("hub", *arguments, line="^vesk: hub bound to ", **options)

    def foreign_client(self, *topics):
        client = ForeignClient(*self.endpoints)
        self.addCleanup(lambda: client.context.destroy(linger=0))
        client.subscribe(*topics)
        return client

    def assert_ends(self, process, status, log="", output=None):
        self.assertEqual(process.end(), status, process.log)
        self.assertIn(log, process.log)
        if output is not None:
            self.assertEqual(process.output, output)

    def assert_wrong_usage(self, *cases):
        for arguments in cases:
            with self.subTest(arguments):
                process = self.vesk(*arguments)
                self.assert_ends(process, WRONG_USAGE, output=[])
                self.assertNotEqual(process.log, "")

    def publish(self, *arguments, **options):
        self.assert_ends(self.vesk("pub", *arguments, **options), DONE)


class PublishAndSubscribe(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.start_hub()
        self.client = self.foreign_client("line", "end")

    def test_subscribers_get_whole_segments_and_nothing_that_stands_before_the_first_colon(self):
        published = ["a.b", "a.bc", "a", "a.b.c", "svc:a.b", "svc:a.b:c", ":exact", "end"]
        cases = {  # subscribed topics: deliveries
            ("a.b", "exact", "end"): ["a.b", "a.b.c", "a.b", "exact", "end"],
            ("svc:a.b", "end"): ["end"],
            (): ["a.b", "a.bc", "a", "a.b.c", "a.b", "a.b:c", "exact", "end"],
        }
        subs = [self.start_ready("sub", *topics, "--count", str(len(cases[topics]))) for topics in cases]
        as_json = self.start_ready("sub", "--json", "--count", "1")
        for topic in published:
            self.publish(topic, 'tab\t "quote" é')
        for sub, topics in zip(subs, cases.values()):
            self.assert_ends(sub, DONE, output=[topic + ' tab\t "quote" é' for topic in topics])
        self.assert_ends(as_json, DONE)
        delivery = json.loads(as_json.output[0])
        self.assertEqual((delivery["topic"], delivery["data"]), ("a.b", 'tab\t "quote" é'))

    def test_options_count_before_and_after_the_subcommand_and_above_the_environment(self):
        pub, sub = ["--pub-endpoint", self.endpoints[0]], ["--sub-endpoint", self.endpoints[1]]
        misled = self.bare | {"VESK_PUB_ENDPOINT": "not-an-endpoint", "VESK_SUB_ENDPOINT": "not-an-endpoint"}
        for arguments in ([*pub, *sub, "pub", "t", "d"], [*pub, "pub", "t", "d", *sub]):
            self.assert_ends(self.vesk(*arguments, environment=misled), DONE)

    def test_without_endpoints_hub_and_clients_meet_in_the_runtime_folder(self):
        environment = self.bare | {"XDG_RUNTIME_DIR": str(self.folder)}
        self.start_hub(environment=environment)
        self.publish("t", "d", environment=environment)
        self.assertEqual((self.folder / "vesk").stat().st_mode & 0o777, 0o700)

    def test_data_of_censored_topics_is_sent_but_not_logged(self):
        sub = self.start_ready("sub", "--count", "2")
        for topic, logged in (("cts/lamp:door", "censored"), ("lamp:cts/door", "4711")):
            pub = self.vesk("pub", topic, "4711", "--log-level", "3")
            self.assert_ends(pub, DONE, f"topic: '{topic.split(':')[1]}' data: {logged}\n")
            self.assertEqual("4711" in pub.log, logged == "4711")
        self.assert_ends(sub, DONE, output=["door 4711", "cts/door 4711"])

    def test_the_example_greets_and_asks_itself_through_the_hub(self):
        program = self.start("first_program", *self.endpoints)
        self.assert_ends(program, DONE, output=["greeting.morning: hello, bus", "geometry.area: 42"])
        self.assertEqual(program.log, "")

    def test_a_publication_is_three_frames_with_version_zeros_and_steady_clock(self):
        before = steady_ms()
        self.publish("svc:line.a", '{"é": ""}')
        topic, data, record = self.client.receive()
        self.assertEqual((topic, data, record[:8]), (b"line.a", '{"é": ""}'.encode(), b"\1" + bytes(7)))
        self.assertEqual(len(record), 16)
        self.assertTrue(before <= int.from_bytes(record[8:], "little", signed=True) <= steady_ms())

    def test_messages_of_other_shapes_are_delivered_or_dropped_with_a_word(self):
        sub = self.start_ready("sub", "t", "--count", "4")
        for frames in (["0", metadata(2)], ["1"], [], ["2", b"\1 short", b"more"], ["", metadata()]):
            self.client.publish("t", *frames)
        self.assert_ends(sub, DONE, "unsupported metadata version=2", ["t 0", "t 1", "t 2", "t "])
        self.assertIn("Failed to receive 0MQ message off of socket; dropping", sub.log)

    def test_each_line_of_stdin_is_a_message_unless_the_wire_cannot_carry_it(self):
        for text, wanted in ((b"one\n\nthree", [b"one", b"", b"three"]), (b"one\r\n \n", [b"one\r", b" "]),
                             (b"\n", [b""]), (b"", []), (b"x" * 300_000 + b"\ny", [b"x" * 300_000, b"y"])):
            with self.subTest(text[:20]):
                pub = self.vesk("pub", "line", stdin=subprocess.PIPE)
                pub.feed(text)
                self.assert_ends(pub, DONE)
                self.publish("end", "")
                self.assertEqual([self.client.receive()[1] for _ in wanted], wanted)
                self.assertEqual(self.client.receive()[0], b"end")
        pub = self.vesk("pub", "line", stdin=subprocess.PIPE)
        for line in (b"before", b"the next"):
            pub.feed(line + b"\n", close=False)
            self.assertEqual(self.client.receive()[1], line)
        pub.feed(b"with \0 in it\n")
        self.assert_ends(pub, FAILED, "message 3 has a NUL byte")

    def test_a_hundred_thousand_lines_arrive_complete_and_in_order_from_a_file_and_from_a_pipe(self):
        lines = [b"%d" % number for number in range(100_000)]
        file = self.folder / "lines"
        file.write_bytes(b"\n".join(lines))
        with file.open("rb") as source, subprocess.Popen(["cat", file], stdout=subprocess.PIPE) as pipe:
            for stdin in (source, pipe.stdout):
                pub = self.vesk("pub", "line", stdin=stdin)
                self.assertEqual([self.client.receive()[1] for _ in lines], lines)
                self.assert_ends(pub, DONE)


class Refusals(EndToEndTest):
    def test_who_waits_in_vain_gives_up_in_time_and_says_what_for(self):
        endpoints = " and ".join(self.endpoints)
        self.assert_ends(self.vesk("pub", "t", "d", "--timeout", "0.2"), TIMED_OUT,
                         "no answer from the hub at " + endpoints)
        self.start_hub()
        self.assert_ends(self.vesk("sub", "--timeout", "0.2"), TIMED_OUT, "timed out after 0 messages")

    def test_a_publisher_whose_hub_dies_does_not_claim_success(self):
        hub = self.start_hub()
        client = self.foreign_client("line")
        pub = self.vesk("pub", "line", "--timeout", "0.5", stdin=subprocess.PIPE)
        pub.feed(b"before\n", close=False)
        client.receive()
        hub.end(signal.SIGKILL)
        pub.feed(b"after\n")
        self.assert_ends(pub, TIMED_OUT, " of 2 messages are not confirmed")

    def test_a_rejected_endpoint_is_named(self):
        rejected = "could not connect to ZMQ %s socket at not-an-endpoint, reason -1"
        for option, endpoint, text in (
                ("--sub-endpoint", "not-an-endpoint", rejected % "subscription"),
                ("--pub-endpoint", "not-an-endpoint", rejected % "publishing"),
                ("--pub-endpoint", "", "incomplete configuration provided for hub-based configuration")):
            for command in (["pub", "t", "d"], ["sub"]):
                process = self.vesk(option, endpoint, *command)
                self.assertEqual((process.end(), process.log), (FAILED, "vesk: " + text))

    def test_wrong_usage_is_told_apart_from_failure_and_from_help(self):
        cases = ("", "nonsense", "pub", "pub t d more", "pub t d --timeout 0", "sub --count 0",
                 "sub --count many", "sub --timeout -1", "sub --no-such-option", "hub more",
                 "--log-level 4 sub", "sub --log-level -2")
        self.assert_wrong_usage(*(arguments.split() for arguments in cases))
        for arguments in ("--help", "pub --help", "--version"):
            process = self.vesk(*arguments.split())
            self.assertEqual((process.end(), process.log), (DONE, ""))
            self.assertNotEqual(process.output, [])


class Hub(EndToEndTest):
    def test_is_refused_on_endpoints_of_another_or_of_everybody_and_leaves_the_other_one_working(self):
        self.start_hub()
        self.assert_ends(self.vesk("hub"), FAILED, f"{self.endpoints[0]}: another hub holds it")
        remote = self.vesk("hub", "--pub-endpoint", "tcp://0.0.0.0:*")
        self.assert_ends(remote, FAILED, "tcp://0.0.0.0:*: not a loopback address")
        self.publish("t", "d")

    def test_ends_well_at_a_signal_and_removes_its_sockets_and_a_subscriber_ends_well_too(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            hub = self.start_hub()
            self.assertEqual(self.start_ready("sub").end(number), DONE)
            self.assertNotEqual(os.listdir(self.folder), [])
            self.assertEqual(hub.end(number), DONE)
            self.assertEqual(os.listdir(self.folder), [])

    def test_serves_loopback_tcp_and_tells_its_counters(self):
        hub = self.start_hub("--pub-endpoint", "tcp://127.0.0.1:*", "--sub-endpoint", "tcp://127.0.0.1:*",
                             "--stats", "0.05")
        pub, sub = hub.await_line("bound to (.*) and (.*)").groups()
        self.publish("t", "d", "--pub-endpoint", pub, "--sub-endpoint", sub)
        hub.await_line(r"relayed [1-9]\d* messages \(\d+ bytes\)")

    def test_that_was_killed_and_restarted_goes_on_serving_a_running_subscriber(self):
        hub = self.start_hub()
        sub = self.start_ready("sub", "t", "--count", "2")
        self.publish("t", "before")
        sub.await_line("before", stream="stdout")
        hub.end(signal.SIGKILL)
        self.start_hub()
        client = self.foreign_client()
        give_up = time.monotonic() + PATIENCE
        while sub.poll() is None and time.monotonic() < give_up:
            client.publish("t", "after", metadata())
            client.subscribe()  # one round through the hub
        self.assert_ends(sub, DONE, output=["t before", "t after"])


    def test_lets_a_subscriber_have_thousands_of_topics_also_after_a_restart(self):
        topics = [f"topic.{number}" for number in range(3000)]
        last = "topic.last"  # both in the command line and in the order of the bytes, which a restart goes by
        hub = self.start_hub()
        sub = self.start_ready("sub", *topics, last)
        for data in ("before", "after"):
            client = self.foreign_client()
            give_up = time.monotonic() + PATIENCE
            while f"{last} probe {data}" not in sub.output and time.monotonic() < give_up:
                client.publish(last, f"probe {data}", metadata())
                client.subscribe()  # one round through the hub
            for topic in (*topics, last):
                client.publish(topic, data, metadata())
            sub.await_line(f"^{last} {data}$", stream="stdout")
            self.assertEqual([line for line in sub.output if line.endswith(f" {data}") and "probe" not in line],
                             [f"{topic} {data}" for topic in (*topics, last)])
            hub.end(signal.SIGKILL)
            hub = self.start_hub()


class Exit(EndToEndTest):
    def test_is_silent_with_every_backend_installed_and_bus_objects_alive(self):
        process = self.start("silent_exit", *self.endpoints)
        self.assertEqual((process.end(), process.output, process.log), (DONE, [], ""))


if __name__ == "__main__":
    unittest.main()
