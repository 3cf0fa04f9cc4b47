"""Requests between real processes, and programs that answer them well, badly, late or never."""

import os
import re
import signal
import unittest

from end_to_end_test import DONE, FAILED, TIMED_OUT, EndToEndTest, await_that, metadata

BIG = '{"b":18446744073709551615,"a":[-9223372036854775808,null,"é"]}'
# Under qemu, which turns vfork into fork, nobody learns why a program could not be run.
CANNOT_RUN = ("the program exited with status 127" if os.environ["VESK_EMULATED"] == "1" else
              "could not run ./no such program")


def send_request(client, command, number, payload):
    envelope = f'{{"replyTopic": "foreign.reply.{number}", "replyNeeded": true, "payload": {payload}}}'
    client.publish("svc." + command, envelope, metadata())


def nack(text):
    return '{"xTypeId":"St13runtime_error","xWhat":"' + text + '"}'


class RequestAndReply(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.hub = self.start_hub()

    def test_ends_as_the_program_and_the_options_of_both_sides_say(self):
        def shell(script):
            return ["--", "sh", "-c", script]

        def python(program):
            return ["--", "python3", "-c", program]

        quiet = ["--no-reply", *shell("echo got $(cat) >&2; exit 1")]
        killed_late = ["--program-timeout", "0.1", *shell("sleep 1000; echo 1")]
        requests = {  # command: (the server's arguments, the client's, its status, its output, its log)
            "copy": (["--", "cat"], [BIG], DONE, [BIG], ""),
            "echo": (["--echo"], [BIG], DONE, [BIG], ""),
            "brackets": (["--", "printf", "%s", "[1,2]"], [], DONE, ["[1,2]"], ""),
            "quiet": (quiet, ["5", "--no-reply"], DONE, [], ""),
            "complains": (shell("echo the reason >&2; exit 4"), [], FAILED, [], "vesk: the reason"),
            "exits": (shell("echo 1; exit 4"), [], FAILED, [], "the program exited with status 4"),
            "silent": (["--", "true"], [], FAILED, [], "the program gave no output"),
            "killed": (shell("kill -9 $$"), [], FAILED, [], "the program was killed by signal 9"),
            "late": (killed_late, [], FAILED, [], "vesk: the program ran longer than 0.1 s"),
            "hang": (["--", "sleep", "1000"], ["1", "--reply-timeout", "300"], TIMED_OUT, [], "timed out"),
            "null": (["--", "echo", "null"], [], FAILED, [], "the program's output is null"),
            "nothing": (["--echo"], [], FAILED, [], "the payload is null"),
            "prose": (["--", "echo", "no json"], [], FAILED, [], "the program's output is not JSON"),
            "missing": (["--", "./no such program"], [], FAILED, [], CANNOT_RUN),
            "deep": (python("print('[' * 256 + ']' * 256)"), [], FAILED, [], "deeper than 256 levels"),
            "endless": (["--", "yes", "1"], [], FAILED, [], "the program's output is larger than a message may be"),
            "grows": (python("print('[' + '1e9,' * 1_500_000 + '1]')"), [], FAILED, [],
                      "the program's output makes a reply of 19500003 bytes"),
            "verbose": (shell("yes | head -c 17000000 >&2; echo the end >&2; exit 1"), [], FAILED, [], "the end"),
        }
        serves = {command: self.vesk("serve", "svc", command, *row[0]) for command, row in requests.items()}
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

    def test_programs_that_end_while_the_server_is_stopped_do_not_end_those_that_waited(self):
        running = self.folder / "running"
        running.mkdir()
        script = 'touch "$0/$$"; sleep "$(cat)"; echo 1'
        serve = self.start_ready("serve", "svc", "get", "--", "sh", "-c", script, running)
        client = self.foreign_client("foreign.reply")
        for number in range(128):
            send_request(client, "get", number, 1000 if number < 64 else 0.5)
        await_that(lambda: len(os.listdir(running)) == 64, serve)
        first = [int(pid) for pid in os.listdir(running)]
        serve.send_signal(signal.SIGSTOP)
        os.waitpid(serve.pid, os.WUNTRACED)
        for kill in (os.kill, os.killpg):  # the programs first, then who has their pipes too
            for pid in first:
                kill(pid, signal.SIGKILL)
        serve.send_signal(signal.SIGCONT)
        answers = [client.receive()[1].decode() for _ in range(256)]
        for answer, count in (("{}", 128), (nack("the program was killed by signal 9"), 64), ('{"payload":1}', 64)):
            self.assertEqual(answers.count(answer), count, answers)

    def test_that_finds_a_thousand_waiting_is_refused(self):
        serve = self.start_ready("serve", "svc", "hang", "--", "sleep", "1000")
        client = self.foreign_client("foreign.reply")
        for number in range(64 + 1000 + 1):
            send_request(client, "hang", number, "null")
        answers = [client.receive()[:2] for _ in range(64 + 1000 + 2)]
        refusal = nack("too many requests are waiting: 1000, with payloads of 4000 bytes")
        self.assertEqual([answer for answer in answers if answer[1] != b"{}"],
                         [[b"foreign.reply.1064", refusal.encode()]])
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
