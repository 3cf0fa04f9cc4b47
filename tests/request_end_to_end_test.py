"""Requests between real processes, and programs that answer them well, badly, late or never."""

import collections
import json
import os
import re
import shlex
import signal
import unittest

from end_to_end_test import DONE, FAILED, TIMED_OUT, EndToEndTest, metadata

BIG = '{"b":18446744073709551615,"a":[-9223372036854775808,null,"é"]}'
# Under qemu, which turns vfork into fork, nobody learns why a program could not be run.
CANNOT_RUN = ("the program exited with status 127" if os.environ["VESK_EMULATED"] == "1" else
              "could not run ./no such program")


def nack(text):
    return b'{"xTypeId":"St13runtime_error","xWhat":"%s"}' % text.encode()


class RequestAndReply(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.hub = self.start_hub()

    def test_ends_as_the_program_and_the_options_of_both_sides_say(self):
        requests = {  # command: (the server's arguments, the client's, its status, its output, its log)
            "copy": ("-- cat", [BIG], DONE, [BIG], ""),
            "echo": ("--echo", [BIG], DONE, [BIG], ""),
            "brackets": ("-- printf %s [1,2]", [], DONE, ["[1,2]"], ""),
            "quiet": ("--no-reply -- sh -c 'echo got $(cat) >&2; exit 1'", ["5", "--no-reply"], DONE, [], ""),
            "complains": ("-- sh -c 'printf \"the\\nreason\" >&2; exit 4'", [], FAILED, [], "vesk: the\nvesk: reason"),
            "exits": ("-- sh -c 'echo 1; exit 4'", [], FAILED, [], "the program exited with status 4"),
            "silent": ("-- true", [], FAILED, [], "the program gave no output"),
            "killed": ("-- sh -c 'kill -9 $$'", [], FAILED, [], "the program was killed by signal 9"),
            "late": ("--program-timeout 0.1 -- sleep 1000", [], FAILED, [], "vesk: the program ran longer than 0.1 s"),
            "hang": ("-- sleep 1000", ["1", "--reply-timeout", "300"], TIMED_OUT, [], "no reply within 0.3 s"),
            "null": ("-- echo null", [], FAILED, [], "the program's output is null"),
            "nothing": ("--echo", [], FAILED, [], "the payload is null"),
            "prose": ("-- echo 'no json'", [], FAILED, [], "the program's output is not JSON"),
            "missing": ("-- './no such program'", [], FAILED, [], CANNOT_RUN),
            "deep": ("-- python3 -c \"print('[' * 256 + ']' * 256)\"", [], FAILED, [], "deeper than 256 levels"),
            "endless": ("-- yes 1", [], FAILED, [], "the program's output is larger than a message may be"),
            "large": ("-- python3 -c 'print(chr(34) + 16_776_500 * chr(120) + chr(34))'", [], FAILED, [],
                      "the program's output makes a reply of 16776502 bytes, which is larger than a message may be"),
            "verbose": ("-- sh -c 'yes | head -c 17000000 >&2; echo the end >&2; exit 1'", [], FAILED, [], "the end"),
        }
        serves = {command: self.vesk("serve", "svc", command, *shlex.split(given))
                  for command, (given, *_) in requests.items()}
        for serve in serves.values():
            serve.await_line("^vesk: ready$")
        asked = {command: self.vesk("request", "svc", command, *row[1]) for command, row in requests.items()}
        for command, (_, _, status, output, log) in requests.items():
            with self.subTest(command):
                self.assert_ends(asked[command], status, log, output)
                if status == FAILED:
                    serves[command].await_line(f"^vesk: svc.{command}: (?s:.*){re.escape(log.removeprefix('vesk: '))}")
        serves["quiet"].await_line("^vesk: svc.quiet: the program exited with status 1: got 5$")
        for serve in serves.values():
            self.assertEqual(serve.end(signal.SIGTERM), DONE)

    def test_runs_64_programs_lets_1000_wait_and_ends_as_its_own_program_does_although_all_end_at_once(self):
        running = self.folder / "running"
        running.mkdir()
        script = ': >"$0/$$"; read -r seconds; sleep "$seconds"; echo 1'
        serve = self.start_ready("serve", "svc", "get", "--", "sh", "-c", script, running)
        client = self.foreign_client("foreign.reply")
        for number in range(64 + 1000 + 1):
            seconds = 0.5 if 64 <= number < 128 else 1000
            envelope = {"replyTopic": f"foreign.reply.{number}", "replyNeeded": True, "payload": seconds}
            client.publish("svc.get", json.dumps(envelope), metadata())
        answers = [client.receive()[:2] for _ in range(64 + 1000 + 2)]
        self.assertEqual({data for _, data in answers[:-1]}, {b"{}"})
        refusal = nack("too many requests are waiting: 1000, with payloads of 3936 bytes")
        self.assertEqual(answers[-1], [b"foreign.reply.1064", refusal])
        first = [int(pid) for pid in os.listdir(running)]
        serve.send_signal(signal.SIGSTOP)
        os.waitpid(serve.pid, os.WUNTRACED)
        for kill in (os.kill, os.killpg):  # the programs first, then who has their pipes too
            for pid in first:
                kill(pid, signal.SIGKILL)
        serve.send_signal(signal.SIGCONT)
        answers = collections.Counter(client.receive()[1] for _ in range(128))
        self.assertEqual(answers, {nack("the program was killed by signal 9"): 64, b'{"payload":1}': 64})
        self.assertEqual(serve.end(signal.SIGTERM), DONE)

    def test_survives_a_hub_that_comes_late(self):
        self.hub.end(signal.SIGKILL)
        serve = self.vesk("serve", "svc", "echo", "--echo")
        request = self.vesk("request", "svc", "other")
        self.assert_ends(request, TIMED_OUT, "no answer from the hub at " + self.endpoints[0])
        self.start_hub()
        serve.await_line("^vesk: ready$")
        self.assert_ends(self.vesk("request", "svc", "echo", "1"), DONE, output=["1"])


if __name__ == "__main__":
    unittest.main()
