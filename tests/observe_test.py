"""What looks at the bus from outside: vesk sub and vesk record."""

import json
import os
import signal
import subprocess
import threading
import unittest

from end_to_end_test import BIN, DONE, FAILED, TIMED_OUT, WRONG_USAGE, EndToEndTest, await_that, metadata


class Observing(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.hub = self.start_hub()
        self.file = self.folder / "recording"

    def recorded(self):
        header, *lines = map(json.loads, self.file.read_text().splitlines())
        self.assertEqual(header["vesk_record"], 1)
        self.assertRegex(header["start"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d\d:\d\d$")
        return lines

    def test_two_hundred_thousand_lines_arrive_complete_and_in_order_in_a_pipe_and_in_a_recording(self):
        numbers = [str(number) for number in range(200_000)]
        sub = self.start_ready("sub", "t", "--count", "200000", stdout=subprocess.PIPE)
        record = self.start_ready("record", self.file, "t", "t.more")
        pub = self.vesk("pub", "t", stdin=subprocess.PIPE)
        pub.feed("\n".join(numbers).encode())
        self.assertEqual(sub.stdout.read().decode(), "".join(f"t {number}\n" for number in numbers))
        self.assert_ends(sub, DONE)
        self.assert_ends(pub, DONE)
        await_that(lambda: b'"data":"199999"' in self.file.read_bytes()[-200:], record)
        self.assertEqual(record.end(signal.SIGINT), DONE)
        *lines, end = self.recorded()
        self.assertEqual([line["data"] for line in lines], numbers)
        self.assertEqual(sorted(line["t"] for line in lines), [line["t"] for line in lines])
        self.assertEqual(end["vesk_record_end"], {"messages": 200_000, "bytes": len("".join(numbers)), "lost": 0,
                                                  "hub_away_s": 0})
        self.assertIn("vesk: recorded 200000 messages, lost 0", record.log)

    def test_a_message_is_shown_as_its_format_says_whatever_is_in_it(self):
        formats = {r"%t|%p|%l|%x|%%\t\\": "a.b|\u00e9\"\x01|4|c3a92201|%\t\\\n",
                   "%I %U %a": r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d\d:\d\d \d+\.\d{6} \d+"}
        subs = [self.start_ready("sub", "--count", "2", "--format", each) for each in formats]
        as_json = self.start_ready("sub", "--count", "2", "--json", "a", "a.b", "a.*")
        client = self.foreign_client()
        client.publish("a.b", '\u00e9"\x01', metadata())
        client.publish("a", b"\xff\xfe")
        for process in (*subs, as_json):
            self.assert_ends(process, DONE)
        exact, pattern = formats.values()
        self.assertEqual(os.pread(subs[0].files["stdout"].fileno(), 1000, 0), exact.encode() + b"a|\xff\xfe|2|fffe|%\t\\\n")
        self.assertRegex(subs[1].output[0], f"^{pattern}$")
        self.assertTrue(subs[1].output[1].endswith(" -"))
        first, second = map(json.loads, as_json.output)
        self.assertEqual((first["topic"], first["data"]), ("a.b", '\u00e9"\x01'))
        self.assertLess(abs(first["age_ms"]), 5000)
        self.assertEqual((second["data_base64"], second["age_ms"]), ("//4=", None))
        self.assertIn("vesk: 'a.*' matches only topics that are written so", as_json.log)
        for wrong, told in ((["--format", "%t %q"], "'%q' is none of"), (["--format", "\\"], r"'\' is none of"),
                            (["--json", "--format", "%t"], "--json")):
            self.assert_ends(self.vesk("sub", *wrong), WRONG_USAGE, told)

    def test_a_reader_that_does_not_read_costs_whole_messages_which_are_counted(self):
        sub = self.start_ready("sub", "t", stdout=subprocess.PIPE)
        client, data, sent, printed = self.foreign_client(), "x" * 50_000, 2000, []
        for number in range(sent):
            client.publish("t", data, metadata())
            if number % 100 == 99:  # slowly enough for the hub
                client.subscribe()
        reader = threading.Thread(target=lambda: printed.extend(sub.stdout))
        reader.start()
        await_that(lambda: len(printed) > 1000, sub)  # now there is room
        client.publish("t", "end")
        await_that(lambda: printed[-1] == b"t end\n", sub)
        self.assertEqual(sub.end(signal.SIGINT), FAILED)
        reader.join()
        self.assertEqual(set(printed), {f"t {data}\n".encode(), b"t end\n"})
        self.assertLess(len(printed), sent)
        self.assertIn(f"dropped {sent + 1 - len(printed)} messages", sub.log)

    def test_what_was_counted_waits_for_its_reader_as_long_as_it_takes(self):
        sub = self.start_ready("sub", "t", "--count", "400", stdout=subprocess.PIPE)
        client, data = self.foreign_client(), "x" * 1000  # more than a pipe holds
        for _ in range(400):
            client.publish("t", data, metadata())
        with self.assertRaises(subprocess.TimeoutExpired):
            sub.wait(2.5)
        self.assertEqual(sub.stdout.read(), f"t {data}\n".encode() * 400)
        self.assert_ends(sub, DONE)

    def test_it_ends_with_a_word_when_the_reader_has_gone_or_the_disk_is_full(self):
        sub = self.start_ready("sub", "t", stdout=subprocess.PIPE)
        sub.stdout.close()  # and nothing is published
        self.assert_ends(sub, FAILED, "could not write to stdout: Broken pipe")
        with open("/dev/full", "wb") as full:
            sub = self.start_ready("sub", "t", stdout=full)
        record = self.start("/usr/bin/prlimit", "--fsize=5000", BIN / "vesk", "record", self.file, "t")
        record.await_line("^vesk: ready$")
        client = self.foreign_client()
        for _ in range(200):
            client.publish("t", "d", metadata())
        self.assert_ends(sub, FAILED, "could not write to stdout: No space left on device")
        self.assert_ends(record, FAILED, f"could not write to {self.file}: File too large")
        lines = self.recorded()
        self.assertGreater(len(lines), 50)
        self.assertIn(f"recorded {len(lines)} messages, lost ", record.log)
        self.assertTrue(self.file.read_text().endswith("\n"))
        self.assert_ends(self.vesk("record", self.file), FAILED, f"{self.file} exists")

    def test_a_hub_that_goes_and_comes_back_is_told_of_and_so_is_one_that_is_not_there(self):
        record = self.start_ready("record", self.file, "t")
        self.hub.end(signal.SIGKILL)
        record.await_line("^vesk: lost the hub at ")
        pub, sub = self.endpoints
        self.assert_ends(self.vesk("sub", "--timeout", "0.2"), TIMED_OUT, f"no hub at {sub} within 0.2 s")
        self.start_hub()
        await_that(lambda: record.log.count("vesk: ready") == 2, record)
        self.publish("t", "d")
        self.assert_ends(self.vesk("sub", "--timeout", "0.2"), TIMED_OUT, "timed out: 0 messages within 0.2 s")
        self.assert_ends(self.vesk("sub", "--timeout", "0.2", "--pub-endpoint", sub + "x"), TIMED_OUT,
                         f"what goes to {sub}x does not come back at {sub} within 0.2 s")
        self.assertEqual(record.end(signal.SIGTERM), DONE)
        self.assertRegex(record.log, r"the hub was away for \d+\.\d s; what came then is not known")
        message, end = self.recorded()
        self.assertEqual((message["topic"], end["vesk_record_end"]["messages"]), ("t", 1))
        self.assertGreater(end["vesk_record_end"]["hub_away_s"], 0)


if __name__ == "__main__":
    unittest.main()
