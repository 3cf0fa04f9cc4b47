"""Requests between real processes, and with a client and a server in another language.

The foreign ones know only the wire: envelopes, reply records and topics as JSON and text.
"""

import json
import os
import unittest

from end_to_end_test import DONE, FAILED, TIMED_OUT, WRONG_USAGE, EndToEndTest, metadata

BIG = '{"b":18446744073709551615,"a":[-9223372036854775808,null,"é"]}'
REPLY_TOPIC = "foreign.reply.7"


class RequestAndReply(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.hub = self.start_hub()

    def start_serve(self, *arguments):
        serve = self.vesk("serve", *arguments)
        serve.await_line("^vesk: ready$")
        return serve

    def assert_request(self, arguments, status, stdout=(), stderr=""):
        request = self.vesk("request", *arguments)
        self.assert_ends(request, status, stderr)
        self.assertEqual(request.stdout, list(stdout))

    def test_a_program_answers_with_its_output_or_with_what_went_wrong(self):
        programs = {  # command: (program, status of the request, its stdout, its stderr)
            "copy": (["cat"], DONE, [BIG], ""),
            "brackets": (["printf", "%s", "[1,2]"], DONE, ["[1,2]"], ""),
            "complains": (["sh", "-c", "echo the reason >&2; exit 4"], FAILED, [], "vesk: the reason"),
            "exits": (["sh", "-c", "echo 1; exit 4"], FAILED, [], "the program exited with status 4"),
            "silent": (["true"], FAILED, [], "the program gave no output"),
            "killed": (["sh", "-c", "kill -9 $$"], FAILED, [], "the program was killed by signal 9"),
            "null": (["echo", "null"], FAILED, [], "the program's output is null"),
            "prose": (["echo", "no json"], FAILED, [], "the program's output is not JSON"),
            "missing": (["./no such program"], FAILED, [], "could not run ./no such program"),
        }
        serves = [self.start_serve("svc", command, "--", *row[0]) for command, row in programs.items()]
        for command, (_, status, stdout, stderr) in programs.items():
            with self.subTest(command):
                self.assert_request(["svc", command, BIG], status, stdout, stderr)
        for serve in serves:
            self.assertEqual(serve.end(15), DONE)

    def test_a_program_that_takes_its_time_delays_nobody(self):
        gate = self.folder / "gate"
        os.mkfifo(gate)
        script = 'p=$(cat); if [ "$p" = 1 ]; then cat "$0"; else echo "$p"; fi'
        self.start_serve("svc", "get", "--", "sh", "-c", script, str(gate))
        slow = self.vesk("request", "svc", "get", "1")
        with open(gate, "w") as opened:  # opens once the slow program reads
            self.assert_request(["svc", "get", "2"], DONE, ["2"])
            opened.write('"at last"')
        self.assert_ends(slow, DONE)
        self.assertEqual(slow.stdout, ['"at last"'])

    def test_no_reply_is_content_with_the_acknowledgement(self):
        serve = self.start_serve("svc", "run", "--no-reply", "--", "sh", "-c", "echo got $(cat) >&2; exit 1")
        self.assert_request(["svc", "run", "5", "--no-reply"], DONE)
        serve.await_line("^vesk: got 5$")

    def test_echo_returns_the_payload(self):
        self.start_serve("svc", "echo", "--echo")
        self.assert_request(["svc", "echo", BIG], DONE, [BIG])
        self.assert_request(["svc", "echo"], FAILED, stderr="the payload is null")

    def test_a_foreign_server_answers_a_request(self):
        server = self.foreign_client()
        server.subscribe("svc")
        runtime, unknown = '"xTypeId":"St13runtime_error"', '"xTypeId":"St12out_of_range"'
        for answers, status, stdout, stderr in (
                (["{}", ' {"payload": {"z" : 1, "a":18446744073709551615}}'], DONE,
                 ['{"z":1,"a":18446744073709551615}'], ""),
                (['{"payload":"no ack","unknown":1}'], DONE, ['"no ack"'], ""),
                (['{}', '{"xWhat":"known",' + runtime + "}"], FAILED, [], "vesk: known"),
                (['{"xWhat":"unknown",' + unknown + "}"], FAILED, [], "vesk: unknown"),
                (["{}", "{}"], TIMED_OUT, [], "timed out")):
            request = self.vesk("request", "svc", "get", '{ "n":  1 }', "--reply-timeout", "300")
            topic, envelope, _ = server.receive()
            self.assertEqual(topic, b"svc.get")
            reply_topic = json.loads(envelope)["replyTopic"]
            self.assertRegex(reply_topic, r"^reqrep_client-[0-9a-f-]{36}\.reply\.1$")
            self.assertEqual(envelope.decode(), '{"replyTopic": "' + reply_topic +
                             '", "replyNeeded": true, "payload": { "n":  1 }}')
            for answer in answers:
                server.publish(reply_topic, answer, metadata())
            self.assert_ends(request, status, stderr)
            self.assertEqual(request.stdout, stdout)
        request = self.vesk("request", "svc", "get", "--no-reply")
        envelope = json.loads(server.receive()[1])
        self.assertEqual(envelope, {"replyTopic": envelope["replyTopic"], "replyNeeded": False})
        server.publish(envelope["replyTopic"], "{}", metadata())
        self.assert_ends(request, DONE)

    def test_a_foreign_client_is_answered(self):
        self.start_serve("svc", "copy", "--", "cat")
        self.start_serve("svc", "fail", "--", "false")
        client = self.foreign_client()
        client.subscribe("foreign.reply")

        def ask(command, payload):
            envelope = '{"replyTopic": "' + REPLY_TOPIC + '", "replyNeeded": true' + payload + "}"
            client.publish("svc." + command, envelope, metadata())
            answers = [client.receive(), client.receive()]
            self.assertEqual([answer[0].decode() for answer in answers], [REPLY_TOPIC] * 2)
            self.assertEqual(answers[0][1], b"{}")
            return answers[1][1].decode()

        self.assertEqual(ask("copy", ', "payload": ' + BIG), '{"payload":' + BIG + "}")
        self.assertEqual(ask("copy.further", ', "payload": [1]'), '{"payload":[1]}')
        nack = {"xTypeId": "St13runtime_error", "xWhat": "the program exited with status 1"}
        self.assertEqual(json.loads(ask("fail", "")), nack)
        for hostile in ("no json", "[" * 200000, '{"replyTopic": 1, "replyNeeded": true}', "{}"):
            client.publish("svc.copy", hostile, metadata())
        self.assertEqual(ask("copy", ', "payload": "still there"'), '{"payload":"still there"}')

    def test_a_request_survives_a_hub_that_comes_late(self):
        self.hub.end(9)
        serve = self.vesk("serve", "svc", "echo", "--echo")
        request = self.vesk("request", "svc", "other")
        self.assert_ends(request, TIMED_OUT, "no answer from the hub at " + self.pub_endpoint)
        self.start_hub()
        serve.await_line("^vesk: ready$")
        self.assert_request(["svc", "echo", "1"], DONE, ["1"])


class WrongUsage(EndToEndTest):
    def test_is_refused_before_anything_is_sent(self):
        for arguments in (["request", "svc"], ["request", "a:b", "get"], ["request", "svc", "a:b"],
                          ["request", "svc", "get", "no json"], ["request", "svc", "get", "1 2"],
                          ["request", "svc", "get", "--reply-timeout", "0"],
                          ["serve", "a.b", "get", "--echo"], ["serve", "a:b", "get", "--echo"],
                          ["serve", "svc", "get:x", "--echo"], ["serve", "svc", "get"],
                          ["serve", "svc", "get", "--echo", "--", "cat"]):
            with self.subTest(arguments):
                process = self.vesk(*arguments)
                self.assert_ends(process, WRONG_USAGE)
                self.assertNotEqual(process.stderr, "")


if __name__ == "__main__":
    unittest.main()
