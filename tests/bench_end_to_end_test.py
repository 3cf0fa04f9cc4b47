"""The measurements of "vesk bench" as others read them: JSON, a table, a picture, and what it says about losses."""

import json
import signal
import unittest
import xml.etree.ElementTree

from end_to_end_test import DONE, FAILED, EndToEndTest

TIMES = {"latency": ["notify_ms", "handle_ms"], "round_trip": ["reply_ms"]}
SVG = "{http://www.w3.org/2000/svg}"


class Bench(EndToEndTest):
    def test_measures_a_running_hub_as_json_and_its_own_as_a_table_and_a_picture(self):
        self.start_hub()
        bench = self.vesk("bench", "--json", "--count", "300", "--size", "5000")
        self.assert_ends(bench, DONE)
        report = json.loads(bench.output[0])
        counts = [report[phase][key] for phase in ("throughput", *TIMES) for key in ("sent", "lost")]
        self.assertEqual(counts, [300, 0] * 3)
        for values in (list(report[phase][name].values()) for phase, names in TIMES.items() for name in names):
            self.assertTrue(values == sorted(values) and values[0] > 0, report)
        picture = self.folder / "times.svg"
        bench = self.vesk("bench", "--own-hub", "--count", "50", "--svg", str(picture))
        self.assert_ends(bench, DONE)
        table = {line[:32].strip(): line[32:].split() for line in bench.output if line}
        texts = [text.text for text in xml.etree.ElementTree.parse(picture).getroot().iter(f"{SVG}text")]
        for row in ("latency to the notify callback", "latency to the handle callback", "request round trip"):
            self.assertIn(f"{row.capitalize()}, 50 times", texts)
            self.assertIn(f"p99 {table[row][3]} ms", texts)

    def test_tells_its_losses_when_the_hub_dies(self):
        hub = self.start_hub()
        client = self.foreign_client("vesk.probe")
        bench = self.vesk("bench", "--count", "10000000", "--json")
        for _ in range(1000):
            client.subscription.recv_multipart()
        hub.end(signal.SIGKILL)
        self.assert_ends(bench, FAILED, "throughput: nothing has come back for 5 s, giving up")
        report = json.loads(bench.output[0])["throughput"]
        self.assertGreater(report["lost"], 0)
        self.assertIn(f"throughput: {report['lost']} of {report['sent']} messages are lost", bench.log)


if __name__ == "__main__":
    unittest.main()
