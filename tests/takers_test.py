"""Commands that take part in the bus: how they wait for a hub, what "vesk request" tells, and "vesk replay"."""

import json
import os
import pty
import signal
import subprocess
import time
import unittest

from end_to_end_test import DONE, FAILED, TIMED_OUT, WRONG_USAGE, EndToEndTest, await_that

HEADER = {"vesk_record": 1, "start": "2026-11-24T17:05:09.250000Z"}
MESSAGES = [{"t": 5.0, "topic": "plant.pump", "data": 'ü "\n', "age_ms": 1},
            {"t": 5.2, "topic": "cut:here.x", "data_base64": "//48", "age_ms": None},
            {"t": 5.4, "topic": "plantation", "data": "3"}]


def end_line(**changed):
    return {"vesk_record_end": {"messages": len(MESSAGES), "bytes": 9, "lost": 0} | changed}


class Waiting(EndToEndTest):
    def test_each_command_says_what_it_waits_for_and_serve_what_becomes_of_it(self):
        (self.folder / "recording").write_text(json.dumps(HEADER) + "\n" + json.dumps(end_line(messages=0)) + "\n")
        ending = [self.vesk(*command) for command in (("pub", "t", "d"), ("replay", self.folder / "recording"))]
        request = self.vesk("request", "svc", "echo", "7")
        serve = self.vesk("serve", "svc", "echo", "--echo")
        for process in (*ending, request, serve):
            process.await_line("^vesk: waiting for the hub at " + " and ".join(self.endpoints))
        self.assertEqual(request.end(signal.SIGTERM), FAILED)
        hub = self.start_hub()
        for process in ending:
            self.assert_ends(process, DONE)
        serve.await_line("^vesk: ready$")
        hub.end(signal.SIGTERM)
        serve.await_line("^vesk: lost the hub at ")
        self.start_hub()
        await_that(lambda: serve.log.count("vesk: ready") == 2, serve)
        self.assert_ends(self.vesk("request", "svc", "echo", "7"), DONE, output=["7"])


class Requests(EndToEndTest):
    def test_a_time_out_says_what_was_missing(self):
        self.start_hub()
        server = self.foreign_client("svc.get")
        for answers, missing in (([], "no server of this identity and command answered within 0.3 s"),
                                 (["{}"], r"acknowledged after \d+ ms, but no reply within 0.3 s")):
            request = self.vesk("request", "svc", "get", "--timeout", "0.3")
            reply_topic = json.loads(server.receive()[1])["replyTopic"]
            for answer in answers:
                server.publish(reply_topic, answer)
            self.assert_ends(request, TIMED_OUT)
            self.assertRegex(request.log, missing)

    def test_a_payload_comes_from_stdin_or_a_file_and_what_cannot_be_sent_is_named(self):
        self.start_hub()
        self.start_ready("serve", "svc", "echo", "--echo")
        big = '"' + "x" * 1_000_000 + '"'
        (self.folder / "big").write_text(big)
        (self.folder / "too big").write_text(big.ljust(16_777_217))
        self.assert_ends(self.vesk("request", "svc", "echo", f"@{self.folder}/big"), DONE, output=[big])
        self.assert_ends(self.vesk("request", "svc", "echo", f"@{self.folder}/too big"), FAILED,
                         "more than 16776192 bytes")
        for payload, status, output in ((b"[1,\n2]\n", DONE, ["[1,2]"]), (b"1\0", WRONG_USAGE, [])):
            request = self.vesk("request", "svc", "echo", "-", stdin=subprocess.PIPE)
            request.feed(payload)
            self.assert_ends(request, status, output=output)
        self.assert_ends(self.vesk("request", "svc", "echo", "hello"), WRONG_USAGE, """write '"hello"'""")


class Publishing(EndToEndTest):
    def test_whole_stdin_is_one_message_and_a_terminal_is_told_that_lines_are_read(self):
        self.start_hub()
        client = self.foreign_client("t")
        for text, status in ((b"a\nb\n", DONE), (b"a\0", FAILED), (b"x" * ((16 << 20) + 1), FAILED)):
            pub = self.vesk("pub", "t", "--whole", stdin=subprocess.PIPE)
            pub.feed(text)
            self.assert_ends(pub, status)
        near, terminal = pty.openpty()
        pub = self.vesk("pub", "t", stdin=terminal)
        pub.await_line(r"^vesk: publishes each line that is typed here; \^D ends it$")
        os.write(near, b"typed\n\x04")
        self.assert_ends(pub, DONE)
        self.assertEqual([client.receive()[1] for _ in range(2)], [b"a\nb\n", b"typed"])


class Replay(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.start_hub()
        self.client = self.foreign_client("")

    def replay(self, lines, status, *options, log=""):
        replay = self.vesk("replay", "-", *options, stdin=subprocess.PIPE)
        replay.feed("".join(json.dumps(line) + "\n" for line in lines).encode())
        self.assert_ends(replay, status, log)
        return replay

    def assert_received(self, *wanted):
        self.assertEqual([tuple(self.client.receive()[:2]) for _ in wanted], list(wanted))

    def test_a_recording_comes_again_with_its_timing_and_its_bytes(self):
        begin = time.monotonic()
        replay = self.replay([HEADER, *MESSAGES, end_line()], DONE)
        self.assertGreaterEqual(time.monotonic() - begin, 0.4)
        self.assertEqual(replay.log, "")
        self.assert_received((b"plant.pump", 'ü "\n'.encode()), (b"cut:here.x", b"\xff\xfe\x3c"), (b"plantation", b"3"))
        a_day_long = [message | {"t": 86400 * message["t"]} for message in MESSAGES]
        self.replay([HEADER, *a_day_long], DONE, "--fast", "--topic", "plant", "--topic", "cut:here", "--prefix", "old.",
                    log="has no last line")
        self.assert_received((b"old.plant.pump", 'ü "\n'.encode()), (b"old.cut:here.x", b"\xff\xfe\x3c"))

    def test_what_is_no_recording_ends_at_the_line_that_shows_it(self):
        good = MESSAGES[0]
        for lines, log in (([{"vesk_record": 2}, good], "line 1 is of a recording of version 2"),
                           ([good], "line 1 is not the first line of a recording"),
                           ([], "the recording is empty"),
                           ([HEADER, good, good | {"t": -1}, good], 'line 3 has no "t"'),
                           ([HEADER, good, {"t": 6, "topic": "x", "data_base64": "a"}, good], "not base64"),
                           ([HEADER, good, good | {"data": "\0"}, good], "the data of line 3 has a NUL byte"),
                           ([HEADER, good, end_line(), good], "line 4 comes after the last line")):
            with self.subTest(log):
                self.replay(lines, FAILED, "--fast", log=log)
                if good in lines and HEADER in lines:
                    self.assert_received((b"plant.pump", 'ü "\n'.encode()))
        for end, note in (({"lost": 7}, "lacks 7 messages"), ({"hub_away_s": 1.5}, "in 1.5 s without the hub"),
                          ({"messages": 4}, "has 3 messages, and had 4")):
            self.replay([HEADER, *MESSAGES, end_line(**end)], DONE, "--fast", log=note)

    def test_a_loop_goes_on_until_a_signal(self):
        (self.folder / "recording").write_text("\n".join(map(json.dumps, [HEADER, MESSAGES[0]])))
        replay = self.vesk("replay", self.folder / "recording", "--loop", "--speed", "100")
        for _ in range(3):
            self.assert_received((b"plant.pump", 'ü "\n'.encode()))
        self.assertEqual(replay.end(signal.SIGINT), DONE)


if __name__ == "__main__":
    unittest.main()
