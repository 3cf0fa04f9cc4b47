"""Real processes of the built programs, and a client in another language that knows only the wire.

Every wait is for a condition; patience runs out only in a failing test, which then kills what it started.
VESK_BIN names the folder of the built programs.
"""

import base64
import fcntl
import json
import os
import pathlib
import pty
import re
import shlex
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


def metadata():
    return struct.pack("<B7xq", 1, time.monotonic_ns() // 10**6)


def log_file():
    """A file that may be emptied while a process writes to it."""
    file = tempfile.TemporaryFile()
    fcntl.fcntl(file, fcntl.F_SETFL, os.O_APPEND)
    return file


def await_that(holds, *processes):
    """Waits until something holds, at most as long as all these processes run, and gives it."""
    give_up = time.monotonic() + PATIENCE
    while True:
        hopeless = time.monotonic() > give_up or any(process.poll() is not None for process in processes)
        if it := holds():
            return it
        if hopeless:
            raise AssertionError([(process.args, process.output[-20:], process.log[-2000:]) for process in processes])
        time.sleep(0.005)


class Process(subprocess.Popen):
    """A process whose output can be read while it runs."""

    def __init__(self, command, environment, **streams):
        self.files = {stream: log_file() for stream in ("stdout", "stderr")}
        super().__init__(command, env=environment, **{"stdin": subprocess.DEVNULL, **self.files, **streams})

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
        return await_that(lambda: re.search(f"{pattern}.*\n", self.text(stream), re.MULTILINE), self)

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
        self.context.sndhwm = self.context.rcvhwm = 0
        self.publishing = self.context.socket(zmq.XPUB)
        self.subscription = self.context.socket(zmq.SUB)
        self.subscription.rcvtimeo = PATIENCE * 1000
        self.publishing.connect(pub_endpoint)
        self.subscription.connect(sub_endpoint)

    def subscribe(self, *topics):
        """Returns when the hub knows the subscriptions: a probe that was made after them has come back."""
        probe = f"vesk.probe.{uuid.uuid4()}"
        for topic in (*topics, probe):
            self.subscription.subscribe(topic)
        self.publish_until(
            lambda: self.subscription.poll(20) and self.subscription.recv_multipart()[0] == probe.encode(), probe, "")

    def publish(self, *frames):
        self.publishing.send_multipart([f if isinstance(f, bytes) else f.encode() for f in frames])

    def publish_until(self, seen, topic, data):
        def is_seen():
            self.publish(topic, data, metadata())
            return seen()

        await_that(is_seen)

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

    def start(self, program, *arguments, environment=None, **streams):
        process = Process([BIN / program, *arguments], environment or self.environment, **streams)
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

    def publish(self, *arguments, **options):
        self.assert_ends(self.vesk("pub", *arguments, **options), DONE)


class PublishAndSubscribe(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.start_hub()
        self.client = self.foreign_client("line", "end")

    def test_subscribers_get_their_topics_byte_for_byte_up_to_a_count_and_as_json(self):
        cases = {("a.b", "exact"): ["a.b", "a.b.c", "exact"], (): ["a.b", "a.bc", "a.b.c", "exact"]}
        subs = [self.start_ready("sub", *topics, "--count", str(len(cases[topics]))) for topics in cases]
        as_json = self.start_ready("sub", "--json", "--count", "1")
        for topic in ("a.b", "a.bc", "svc:a.b.c", ":exact", "end"):
            self.publish(topic, b'tab\t "quote" \xc3\xa9 \xff\r')
        for sub, topics in zip(subs, cases.values()):
            self.assert_ends(sub, DONE, output=[topic + ' tab\t "quote" é \\xff\r' for topic in topics])
        self.assert_ends(as_json, DONE)
        delivery = json.loads(as_json.output[0])
        data = base64.b64decode(delivery["data_base64"])
        self.assertEqual((delivery["topic"], data), ("a.b", b'tab\t "quote" \xc3\xa9 \xff\r'))

    def test_options_count_before_and_after_the_subcommand_and_above_the_environment(self):
        pub, sub = ["--pub-endpoint", "tcp://127.0.0.1:*"], ["--sub-endpoint", "tcp://127.0.0.1:*"]
        hub = self.start_hub(*pub, *sub, "--stats", "0.05")
        pub[1], sub[1] = hub.await_line("bound to (.*) and (.*)").groups()
        misled = self.bare | {"VESK_PUB_ENDPOINT": "not-an-endpoint", "VESK_SUB_ENDPOINT": "not-an-endpoint"}
        publisher = self.vesk(*pub, "pub", "t", "d", *sub, "--log-level", "3", environment=misled)
        self.assert_ends(publisher, DONE, "topic: 't' data: d")
        hub.await_line(r"relayed [1-9]\d* messages \(\d+ bytes\)")

    def test_without_endpoints_hub_and_clients_meet_in_the_runtime_folder_whoever_makes_it(self):
        environment = self.bare | {"XDG_RUNTIME_DIR": str(self.folder)}
        folder = self.folder / "vesk"
        pub = self.vesk("pub", "t", "d", environment=environment)
        await_that(folder.exists, pub)
        self.start_hub(environment=environment)
        self.assert_ends(pub, DONE)
        self.assertEqual(folder.stat().st_mode & 0o777, 0o700)

    def test_programs_of_the_library_do_their_work_and_end_in_silence_whatever_is_still_alive(self):
        for program, output in (("first_program", ["greeting.morning: hello, bus", "geometry.area: 42"]),
                                ("silent_exit", [])):
            process = self.start(program, *self.endpoints)
            self.assertEqual((process.end(), process.output, process.log), (DONE, output, ""))

    def test_each_line_of_stdin_is_a_message_unless_the_wire_cannot_carry_it(self):
        long, largest = b"x" * 300_000, b"x" * (16 << 20)
        for text, published, status, log in (
                (b"one\n\nthree", [b"one", b"", b"three"], DONE, ""),
                (b"one\r\n \n", [b"one\r", b" "], DONE, ""),
                (b"", [], DONE, ""),
                (long + b"\ny", [long, b"y"], DONE, ""),
                (largest, [largest], DONE, ""),
                (b"before\n" + largest + b"x", [b"before"], FAILED, "line 2 is longer than 16 MiB"),
                (b"before\nwith \0 in it\nafter\n", [b"before"], FAILED, "line 2 has a NUL byte")):
            pub = self.vesk("pub", "line", stdin=subprocess.PIPE)
            pub.feed(text)
            self.assert_ends(pub, status, log)
            self.publish("end", "")
            received = [self.client.receive()[:2] for _ in (*published, "end")]
            self.assertTrue(received == [*([b"line", line] for line in published), [b"end", b""]], text[:20])

    def test_a_hundred_thousand_lines_arrive_complete_and_in_order_from_a_file_and_from_a_pipe(self):
        lines = [b"%d" % number for number in range(100_000)]
        file = self.folder / "lines"
        file.write_bytes(b"\n".join(lines))
        with file.open("rb") as source, subprocess.Popen(["cat", file], stdout=subprocess.PIPE) as pipe:
            for stdin in (source, pipe.stdout):
                pub = self.vesk("pub", "line", stdin=stdin)
                self.assertEqual([self.client.receive()[1] for _ in lines], lines)
                self.assert_ends(pub, DONE)

    def test_a_terminal_gets_what_a_peer_has_sent_in_visible_letters(self):
        near, terminal = pty.openpty()
        sub = self.start_ready("sub", "t", "--count", "1", stdout=terminal)
        self.client.publish("t", b"\x1b]0;owned\x07 \xc2\x9b \xff\r", metadata())
        self.assert_ends(sub, DONE)
        self.assertEqual(os.read(near, 1000), rb"t \x1b]0;owned\x07 \u009b \xff\x0d" + b"\r\n")
        for end in (near, terminal):
            os.close(end)


class Refusals(EndToEndTest):
    def test_who_waits_in_vain_gives_up_in_time_and_says_what_for(self):
        self.assert_ends(self.vesk("pub", "t", "d", "--timeout", "0.2"), TIMED_OUT,
                         "no answer from the hub at " + " and ".join(self.endpoints))
        hub = self.start_hub()
        self.assert_ends(self.vesk("sub", "--timeout", "0.2"), TIMED_OUT, "timed out: 0 messages within 0.2 s")
        client = self.foreign_client("line")
        pub = self.vesk("pub", "line", "--timeout", "2", stdin=subprocess.PIPE)
        pub.feed(b"before\n", close=False)
        client.receive()  # although there is more to come
        hub.end(signal.SIGKILL)
        pub.feed(b"after\n")
        self.assert_ends(pub, TIMED_OUT, " of 2 messages are not confirmed: line")

    def test_what_cannot_work_is_said_in_words(self):
        for command, log in (
                ("vesk sub --sub-endpoint not-an-endpoint", "vesk: could not connect to not-an-endpoint: Invalid argument"),
                ("vesk pub t d --pub-endpoint not-an-endpoint", "could not connect to ZMQ publishing socket at not-an-endpoint, reason -1"),
                ("vesk pub t d --pub-endpoint ''", "vesk: incomplete configuration"),
                ("vesk hub --pub-endpoint 'tcp://0.0.0.0:*'", "tcp://0.0.0.0:*: not a loopback address"),
                ("vesk bench --own-hub --svg /missing/x.svg", "could not write to '/missing/x.svg'"),
                ("ZSYS_SNDHWM=-1 vesk pub t d", "vesk: ZSYS_SNDHWM in the environment is '-1'"),
                ("ZSYS_SNDHWM=many vesk pub t d", "vesk: ZSYS_SNDHWM in the environment is 'many'"),
                ("prlimit --nofile=12 vesk pub t d", "more descriptors can be opened"),
                ("prlimit --nofile=12 vesk bench --own-hub", "more descriptors can be opened")):
            process = self.start("/bin/sh", "-c", f"PATH={BIN}:/usr/bin; {command}")
            self.assert_ends(process, FAILED, log, [])

    def test_wrong_usage_is_told_apart_from_failure_and_from_help(self):
        for arguments in (
                "", "nonsense", "pub", "pub t d more", "pub t d --timeout 0", "sub --count 0", "sub --count many",
                "sub --timeout -1", "sub --no-such-option", "hub more", "--log-level 4 sub", "sub --log-level -2",
                "request svc", "request '' get", "request a:b get", "request svc a:b", "request svc get 'no json'",
                "request svc get '1 2'", "request svc get --reply-timeout 0", "serve '' get --echo",
                "serve a.b get --echo", "serve a:b get --echo", "serve svc get:x --echo", "serve svc get",
                "serve svc get --echo -- cat", "serve svc get --program-timeout 0 -- cat",
                "serve svc get --program-timeout 1 --echo", "bench --rate 1001", "bench --count 0",
                "bench --size 17000000", "pub t d --whole", "replay - --loop", "replay x --prefix a:",
                "request sv.c echo 1"):
            with self.subTest(arguments):
                process = self.vesk(*shlex.split(arguments))
                self.assert_ends(process, WRONG_USAGE, output=[])
                self.assertNotEqual(process.log, "")
        for arguments in ("--help", "pub --help", "--version"):
            process = self.vesk(*arguments.split())
            self.assert_ends(process, DONE)
            self.assertTrue(process.output and not process.log)


class Hub(EndToEndTest):
    def test_refuses_endpoints_of_another_and_ends_well_at_a_signal_without_its_sockets(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            hub = self.start_hub()
            self.assert_ends(self.vesk("hub"), FAILED, f"{self.endpoints[0]}: another hub, process {hub.pid}, holds it")
            self.assertEqual(self.start_ready("sub").end(number), DONE)  # the first hub is still there
            self.assertEqual(hub.end(number), DONE)
            self.assertEqual(os.listdir(self.folder), [])

    def test_lets_a_subscriber_have_thousands_of_topics_also_after_a_restart(self):
        topics = [f"topic.{number}" for number in range(3000)]
        last = "topic.last"  # both in the command line and in the order of the bytes, which a restart goes by
        published = [*topics[::7], last]  # what is lost is lost by the hundred
        sub = self.vesk("sub", *topics, last)
        for data in ("before", "after"):
            hub = self.start_hub()
            client = self.foreign_client()
            client.publish_until(lambda: f"{last} probe {data}" in sub.output, last, f"probe {data}")
            for topic in published:
                client.publish(topic, data, metadata())
            sub.await_line(f"^{last} {data}$", stream="stdout")
            self.assertEqual([line for line in sub.output if line.endswith(f" {data}") and "probe" not in line],
                             [f"{topic} {data}" for topic in published])
            hub.end(signal.SIGKILL)


if __name__ == "__main__":
    unittest.main()
