"""The commands that look at the bus from outside and show what they see: top, trace and check."""

import fcntl
import json
import os
import pty
import re
import signal
import struct
import termios
import unittest

from end_to_end_test import DONE, FAILED, EndToEndTest, await_that, metadata

OK, WARNING, CRITICAL, UNKNOWN = range(4)


class Terminal:
    """A terminal of its own, whose screen is known as the text that was drawn."""

    def __init__(self, lines, columns):
        self.near, self.far = pty.openpty()
        os.set_blocking(self.near, False)
        self.resize(lines, columns)
        self.modes = termios.tcgetattr(self.far)
        self.drawn = ""

    def resize(self, lines, columns):
        fcntl.ioctl(self.far, termios.TIOCSWINSZ, struct.pack("4H", lines, columns, 0, 0))

    def read(self):
        try:
            self.drawn += os.read(self.near, 1 << 20).decode(errors="replace")
        except BlockingIOError:
            pass
        return self.drawn

    def await_text(self, pattern, process):
        """Waits for text on the screen, which is drawn whole each time that one looks."""
        def drawn_anew():
            os.write(self.near, b"\f")
            return re.search(pattern, self.read().rpartition("\x1b[2J")[2], re.DOTALL)
        await_that(drawn_anew, process)

    def is_as_before(self):
        return self.read().rfind("\x1b[?1049l") > self.drawn.rfind("\x1b[?1049h") and \
            termios.tcgetattr(self.far) == self.modes

    def close(self):
        os.close(self.near)
        os.close(self.far)


class Views(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.hub = self.start_hub()
        self.client = self.foreign_client("svc", "foreign")

    def publish_some(self, *topics):
        for topic in topics:
            self.client.publish(topic, "12345", metadata())

    def start_top(self, lines=10, columns=100):
        terminal = Terminal(lines, columns)
        self.addCleanup(terminal.close)
        top = self.vesk("top", "--interval", "0.05", environment=self.environment | {"TERM": "xterm"},
                        stdin=terminal.far, stdout=terminal.far)
        terminal.await_text("ready", top)
        return top, terminal

    def test_top_is_a_screen_that_leaves_the_terminal_as_it_was(self):
        top, terminal = self.start_top()
        self.publish_some("plant.pump", "plant.valve", "evil.\x1b[2J")
        terminal.await_text(r"evil.\\x1b\[2J", top)
        os.write(terminal.near, b"/pump\r")
        for size in ((1, 1), (2, 30), (24, 100)):
            terminal.resize(*size)
            top.send_signal(signal.SIGWINCH)
        terminal.await_text('topics with "pump": 1.*plant.pump', top)
        os.write(terminal.near, b"q")
        self.assertEqual(top.end(), DONE)
        self.assertTrue(terminal.is_as_before())
        top, terminal = self.start_top()
        terminal.resize(1, 1)
        self.assertEqual(top.end(signal.SIGINT), DONE)
        self.assertTrue(terminal.is_as_before())

    def test_top_once_prints_an_interval(self):
        tops = [self.start_ready("top", "--once", "--interval", "2", *options)
                for options in ((), ("--json", "plant"), ("--depth", "1"))]
        self.publish_some("plant.pump", "plant.pump", "plant.valve", "other")
        self.client.publish("svc.get", '{"replyTopic":"foreign.1","replyNeeded":true}', metadata())
        for top in tops:
            self.assert_ends(top, DONE)
        self.assertRegex(tops[0].output[0], "topics: 4, messages: 5; requests in flight: 1; age p50 ")
        self.assertRegex(tops[0].output[3], r"^ *[\d.]+ /s +[\d.]+ B/s +2 +5 B .* m?s plant.pump$")
        seen = json.loads(tops[1].output[0])
        self.assertEqual([(row["topic"], row["messages"], row["bytes"]) for row in seen["topics"]],
                         [("plant.pump", 2, 10), ("plant.valve", 1, 5)])
        self.assertEqual((seen["messages"], seen["requests_in_flight"]), (3, None))
        self.assertRegex("\n".join(tops[2].output), r" 3 +5 B .* plant\n")
        self.assert_ends(self.vesk("top"), FAILED, "--once")

    def test_trace_tells_how_long_requests_took_and_how_they_ended(self):
        self.start_ready("serve", "svc", "copy", "--", "cat")
        self.start_ready("serve", "svc", "fail", "--", "sh", "-c", "echo no water >&2; false")
        trace = self.start_ready("trace", "--json", "--count", "3", "--reply-timeout", "100")
        slow = self.start_ready("trace", "svc.fail", "svc.copy.x", "--slow", "60000", "--count", "1")
        for number, topic in enumerate(("svc.copy", "svc.fail", "svc.wait")):
            self.client.publish(topic, f'{{"replyTopic":"x:foreign.{number}","replyNeeded":true,"payload":1}}', metadata())
        self.publish_some("foreign.2")
        self.client.publish("foreign.2", "{}", metadata())
        self.assert_ends(slow, DONE)
        self.assertRegex(slow.output[0], "svc.fail 1  NACK: no water$")
        self.assert_ends(trace, DONE)
        seen = {line["command"]: line for line in map(json.loads, trace.output)}
        self.assertEqual({command: line["end"] for command, line in seen.items()},
                         {"copy": "reply", "fail": "nack", "wait": "no_reply"})
        self.assertEqual((seen["copy"]["answer_bytes"], seen["fail"]["nack"], seen["wait"]["answer_ms"]),
                         (len('{"payload":1}'), "no water", None))
        self.assertLessEqual(0, seen["copy"]["ack_ms"])
        self.assertLessEqual(seen["copy"]["ack_ms"], seen["copy"]["answer_ms"])

    def test_check_speaks_to_monitoring(self):
        self.start_ready("serve", "svc", "copy", "--echo")
        limits = ("--timeout", "0.3", "--warn")
        for arguments, status, line in (
                ((), OK, r"^OK - hub answered in [\d.]+ m?s \| rtt=[\d.]+ms;;;0$"),
                (("--warn", "0.001", "--critical", "9999"), WARNING, r"more than 0.001 ms \| .*ms;0.001;9999;0$"),
                (("--critical", "0.001"), CRITICAL, "^CRITICAL - hub answered in"),
                (("--request", "svc", "copy", "[1]"), OK, "^OK - svc.copy answered in "),
                (("--request", "svc", "copy"), CRITICAL, "^CRITICAL - svc.copy failed: the payload is null"),
                (("--request", "svc", "none", *limits, "1"), CRITICAL, "no answer from svc.none within 300 ms$"),
                (("--sub-endpoint", "nowhere"), UNKNOWN, "^UNKNOWN - .*nowhere")):
            with self.subTest(arguments):
                check = self.vesk("check", *arguments)
                self.assert_ends(check, status)
                self.assertRegex("\n".join(check.output), line)
        for usage in ("--warn 2 --critical 1", "--request a:b c", "--request svc copy x", "--timeout no", "more"):
            self.assert_ends(self.vesk("check", *usage.split()), UNKNOWN, output=[])
        self.hub.send_signal(signal.SIGSTOP)
        self.addCleanup(self.hub.send_signal, signal.SIGCONT)
        for arguments in ((), ("--request", "svc", "copy", "1")):
            self.assert_ends(self.vesk("check", "--timeout", "0.3", *arguments), CRITICAL)


if __name__ == "__main__":
    unittest.main()
