"""Requests between real processes, and with a client and a server in another language.

The foreign ones know only the wire: envelopes, reply records and topics as JSON and text.
"""

import fcntl
import json
import os
import signal
import time
import unittest

from end_to_end_test import DONE, FAILED, PATIENCE, TIMED_OUT, EndToEndTest, metadata

BIG = '{"b":18446744073709551615,"a":[-9223372036854775808,null,"é"]}'
# Under qemu, which turns vfork into fork, nobody learns why a program could not be run.
CANNOT_RUN = ("the program exited with status 127" if os.environ["VESK_EMULATED"] == "1" else
              "could not run ./no such program")


def send_request(client, command, number, payload):
    envelope = f'{{"replyTopic": "foreign.reply.{number}", "replyNeeded": true{payload}}}'
    client.publish("svc." + command, envelope, metadata())


def nack(text):
    return '{"xTypeId":"St13runtime_error","xWhat":"' + text + '"}'


def await_files(folder, count):
    give_up = time.monotonic() + PATIENCE
    while len(os.listdir(folder)) < count and time.monotonic() < give_up:
        time.sleep(0.005)
    return os.listdir(folder)


class RequestAndReply(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.hub = self.start_hub()

    def assert_request(self, arguments, status, output=(), log=""):
        self.assert_ends(self.vesk("request", "svc", *arguments), status, log, list(output))

    def test_a_program_answers_with_its_output_or_with_what_went_wrong(self):
        programs = {  # command: (program, status of the request, its output, its log)
            "copy": (["cat"], DONE, [BIG], ""),
            "brackets": (["printf", "%s", "[1,2]"], DONE, ["[1,2]"], ""),
            "complains": (["sh", "-c", "echo the reason >&2; exit 4"], FAILED, [], "vesk: the reason"),
            "exits": (["sh", "-c", "echo 1; exit 4"], FAILED, [], "the program exited with status 4"),
            "silent": (["true"], FAILED, [], "the program gave no output"),
            "killed": (["sh", "-c", "kill -9 $$"], FAILED, [], "the program was killed by signal 9"),
            "null": (["echo", "null"], FAILED, [], "the program's output is null"),
            "prose": (["echo", "no json"], FAILED, [], "the program's output is not JSON"),
            "missing": (["./no such program"], FAILED, [], CANNOT_RUN),
            "deep": (["python3", "-c", "print('[' * 256 + ']' * 256)"], FAILED, [], "deeper than 256 levels"),
            "endless": (["yes", "1"], FAILED, [], "the program's output is larger than a message may be"),
            "verbose": (["sh", "-c", "yes | head -c 17000000 >&2; echo the end >&2; exit 1"],
                        FAILED, [], "the end"),
            "again": (["cat"], DONE, [BIG], ""),  # behind all of these
        }
        serves = [self.start_ready("serve", "svc", command, "--", *row[0])
                  for command, row in programs.items()]
        for command, (_, *outcome) in programs.items():
            with self.subTest(command):
                self.assert_request([command, BIG], *outcome)
        for serve in serves:
            self.assertEqual(serve.end(15), DONE)

    def test_echo_returns_the_payload_and_no_reply_is_content_with_the_acknowledgement(self):
        self.start_ready("serve", "svc", "echo", "--echo")
        self.assert_request(["echo", BIG], DONE, [BIG])
        self.assert_request(["echo"], FAILED, log="the payload is null")
        serve = self.start_ready("serve", "svc", "run", "--no-reply", "--",
                                 "sh", "-c", "echo got $(cat) >&2; exit 1")
        self.assert_request(["run", "5", "--no-reply"], DONE)
        serve.await_line("^vesk: svc.run: the program exited with status 1: got 5$")

    def test_a_program_that_runs_too_long_is_killed_and_both_sides_are_told(self):
        serve = self.start_ready("serve", "svc", "hang", "--program-timeout", "0.1", "--", "sleep", "1000")
        self.assert_request(["hang"], FAILED, log="vesk: the program ran longer than 0.1 s")
        serve.await_line("^vesk: svc.hang: the program ran longer than 0.1 s$")

    def test_programs_that_end_while_the_server_is_stopped_do_not_end_those_that_waited(self):
        script = ('p=$(cat); if [ "$p" = 0 ]; then (touch "$0/$$"; sleep 1000) & wait; fi; '
                  'touch "$0/$$"; flock -s "$0" echo "$p"')
        running = self.folder / "running"
        running.mkdir()
        gate = os.open(running, os.O_RDONLY)
        self.addCleanup(os.close, gate)
        fcntl.flock(gate, fcntl.LOCK_EX)
        serve = self.start_ready("serve", "svc", "get", "--", "sh", "-c", script, str(running))
        client = self.foreign_client("foreign.reply")
        for number in range(128):
            send_request(client, "get", number, f', "payload": {number // 64}')
        first = [int(pid) for pid in await_files(running, 64)]
        serve.send_signal(signal.SIGSTOP)
        os.waitpid(serve.pid, os.WUNTRACED)
        for kill in (os.kill, os.killpg):  # the programs first, then who has their pipes too
            for pid in first:
                kill(pid, signal.SIGKILL)
        serve.send_signal(signal.SIGCONT)
        await_files(running, 128)
        fcntl.flock(gate, fcntl.LOCK_UN)
        answers = [client.receive()[1].decode() for _ in range(256)]
        for answer, count in (("{}", 128), (nack("the program was killed by signal 9"), 64), ('{"payload":1}', 64)):
            self.assertEqual(answers.count(answer), count, answers)

    def test_a_request_that_finds_a_thousand_waiting_is_refused(self):
        serve = self.start_ready("serve", "svc", "hang", "--", "sleep", "1000")
        client = self.foreign_client("foreign.reply")
        for number in range(64 + 1000 + 1):
            send_request(client, "hang", number, "")
        answers = [client.receive()[:2] for _ in range(64 + 1000 + 2)]
        refusal = nack("too many requests are waiting: 1000, with payloads of 4000 bytes")
        self.assertEqual([answer for answer in answers if answer[1] != b"{}"],
                         [[b"foreign.reply.1064", refusal.encode()]])
        self.assertEqual(serve.end(15), DONE)

    def test_a_foreign_server_answers_a_request(self):
        server = self.foreign_client("svc")
        for answers, status, output, log in (
                (["{}", ' {"payload": {"z" : 1, "a":18446744073709551615}}'], DONE,
                 ['{"z":1,"a":18446744073709551615}'], ""),
                (['{"payload":"no ack","unknown":1}'], DONE, ['"no ack"'], ""),
                (["{}", '{"xWhat":"text","xTypeId":"St12out_of_range"}'], FAILED, [], "vesk: text"),
                (["{}", "{}"], TIMED_OUT, [], "timed out")):
            request = self.vesk("request", "svc", "get", '{ "n":  1 }', "--reply-timeout", "300")
            topic, envelope, _ = server.receive()
            reply_topic = json.loads(envelope)["replyTopic"]
            self.assertRegex(reply_topic, r"^reqrep_client(-[0-9a-f]+){5}\.reply\.1$")
            wanted = f'{{"replyTopic": "{reply_topic}", "replyNeeded": true, "payload": {{ "n":  1 }}}}'
            self.assertEqual((topic, envelope.decode()), (b"svc.get", wanted))
            for answer in answers:
                server.publish(reply_topic, answer, metadata())
            self.assert_ends(request, status, log, output)

    def test_a_foreign_client_is_answered_whatever_else_is_sent(self):
        self.start_ready("serve", "svc", "copy", "--", "cat")
        self.start_ready("serve", "svc", "fail", "--", "false")
        self.start_ready("serve", "svc", "echo", "--echo")
        client = self.foreign_client("foreign.reply")
        for hostile in ("no json", "[" * 200000, '{"replyTopic": 1, "replyNeeded": true}', "{}"):
            client.publish("svc.copy", hostile, metadata())
        too_large = nack("the payload makes a reply of 19500003 bytes, which is larger than a message may be")
        for command, payload, reply in (("copy", ', "payload": ' + BIG, '{"payload":' + BIG + "}"),
                                        ("copy.further", ', "payload": [1]', '{"payload":[1]}'),
                                        ("fail", "", nack("the program exited with status 1")),
                                        ("echo", ', "payload": [' + "1e9," * 1_500_000 + "1]", too_large)):
            send_request(client, command, 7, payload)
            answers = [client.receive()[:2] for _ in range(2)]
            self.assertEqual(answers, [[b"foreign.reply.7", text.encode()] for text in ("{}", reply)])

    def test_a_request_survives_a_hub_that_comes_late(self):
        self.hub.end(9)
        serve = self.vesk("serve", "svc", "echo", "--echo")
        self.assert_request(["other"], TIMED_OUT, log="no answer from the hub at " + self.endpoints[0])
        self.start_hub()
        serve.await_line("^vesk: ready$")
        self.assert_request(["echo", "1"], DONE, ["1"])


class WrongUsage(EndToEndTest):
    def test_is_refused_before_anything_is_sent(self):
        self.assert_wrong_usage(
            ["request", "svc"], ["request", "a:b", "get"], ["request", "svc", "a:b"],
            ["request", "svc", "get", "no json"], ["request", "svc", "get", "1 2"],
            ["request", "svc", "get", "--reply-timeout", "0"],
            ["serve", "a.b", "get", "--echo"], ["serve", "a:b", "get", "--echo"],
            ["serve", "", "get", "--echo"], ["request", "", "get"],
            ["serve", "svc", "get:x", "--echo"], ["serve", "svc", "get"],
            ["serve", "svc", "get", "--echo", "--", "cat"],
            ["serve", "svc", "get", "--program-timeout", "0", "--", "cat"],
            ["serve", "svc", "get", "--program-timeout", "1", "--echo"])


if __name__ == "__main__":
    unittest.main()
