"""The measurements of "vesk bench" as others read them: JSON, a table, a picture, and what it says about losses."""

import json
import signal
import unittest
import xml.etree.ElementTree

from end_to_end_test import DONE, FAILED, TIMED_OUT, EndToEndTest

RANKS = ["min", "p50", "p90", "p99", "p99.9", "max"]
TIMES = {"latency": ["notify_ms", "handle_ms"], "round_trip": ["reply_ms"]}
PHASES = ["throughput", *TIMES]
SVG = "{http://www.w3.org/2000/svg}"


class Bench(EndToEndTest):
    def assert_measured(self, bench, count):
        self.assert_ends(bench, DONE)
        self.assertEqual(bench.log, "")
        (line,) = bench.output
        report = json.loads(line)
        for phase in PHASES:
            self.assertEqual((report[phase]["sent"], report[phase]["lost"]), (count, 0))
            self.assertGreater(report[phase]["per_second"], 0)
        for phase, times in TIMES.items():
            for name in times:
                values = list(report[phase][name].values())
                self.assertEqual(list(report[phase][name]), RANKS)
                self.assertEqual(values, sorted(values))
                self.assertGreater(values[0], 0)
        return report

    def start_measured(self, *arguments):
        """A bench that is in the middle of its first phase, with more messages to come than anybody waits for."""
        client = self.foreign_client("vesk.probe")
        bench = self.vesk("bench", "--count", "10000000", *arguments)
        for _ in range(1000):
            client.subscription.recv_multipart()
        return bench

    def test_measures_a_running_hub(self):
        self.start_hub()
        self.assert_measured(self.vesk("bench", "--json", "--count", "1", "--size", "0"), 1)
        report = self.assert_measured(self.vesk("bench", "--json", "--count", "500", "--size", "5000"), 500)
        self.assertEqual(report["size"], 5000)
        self.assertLessEqual(report["latency"]["notify_ms"]["min"], report["latency"]["handle_ms"]["min"])

    def test_keeps_its_pace(self):
        report = self.assert_measured(self.vesk("bench", "--own-hub", "--json", "--rate", "20", "--count", "20"), 20)
        for phase in TIMES:
            self.assertTrue(15 < report[phase]["per_second"] < 25, report)

    def test_draws_what_it_tells_with_a_hub_of_its_own(self):
        picture = self.folder / "times.svg"
        bench = self.vesk("bench", "--own-hub", "--count", "50", "--svg", str(picture))
        self.assert_ends(bench, DONE)
        table = {line[:32].strip(): line[32:].split() for line in bench.output if line}
        for phase in ("throughput", "latency", "round trip"):
            self.assertEqual(table[phase][:2], ["50", "0"])
        self.assertEqual(table["milliseconds"], RANKS)
        texts = [text.text for text in xml.etree.ElementTree.parse(picture).getroot().iter(f"{SVG}text")]
        for row in ("latency to the notify callback", "latency to the handle callback", "request round trip"):
            self.assertIn(f"{row.capitalize()}, 50 times", texts)
            self.assertIn(f"p50 {table[row][1]} ms", texts)
            self.assertIn(f"p99 {table[row][3]} ms", texts)

    def test_ends_and_tells_its_losses_when_the_hub_dies(self):
        hub = self.start_hub()
        bench = self.start_measured("--json")
        hub.end(signal.SIGKILL)
        self.assert_ends(bench, FAILED, "throughput: nothing has come back for 5 s, giving up")
        (line,) = bench.output
        report = json.loads(line)
        self.assertEqual(list(report), ["size", "throughput"])
        lost, sent = report["throughput"]["lost"], report["throughput"]["sent"]
        self.assertGreater(lost, 0)
        self.assertIn(f"throughput: {lost} of {sent} messages are lost", bench.log)

    def test_ends_at_a_signal_in_the_middle(self):
        self.start_hub()
        bench = self.start_measured()
        bench.send_signal(signal.SIGINT)
        self.assert_ends(bench, FAILED, "interrupted while measuring: throughput", [])

    def test_what_cannot_work_is_told_before_anything_is_measured(self):
        self.assert_ends(self.vesk("bench"), TIMED_OUT, "no answer from the hub at " + self.endpoints[0], [])
        missing = self.folder / "missing" / "x.svg"
        self.assert_ends(self.vesk("bench", "--own-hub", "--svg", str(missing)), FAILED,
                         f"could not write to '{missing}': No such file or directory", [])
        self.assert_wrong_usage(*(["bench", *arguments.split()] for arguments in (
            "--rate 0", "--rate 1001", "--rate -1", "--count 0", "--size -1", "--size 17000000", "more", "--svg")))


if __name__ == "__main__":
    unittest.main()
