"""Runs a hub, servers, clients and subscribers with churn for a while, and looks whether anything grows or is lost.

Run by scripts/soak. Two applications stay from the beginning to the end and send ticks and requests to each other and
to a server that stays; they replace clients, servers and subscribers all the time. Beside them peers come, and are
killed. What is measured comes out as lines, as a table and as a picture.
"""

import collections
import csv
import pathlib
import signal
import statistics
import subprocess
import sys
import time
import unittest

from hub_faults_test import HubFaults, memory_and_descriptors

PERIOD = 1  # seconds between two measurements
KILL_EVERY = 5  # measurements
GROWTH_KIB = 1024  # allowed to a process, from the first to the last quarter of the time


class Soak(HubFaults):
    def start_passing(self):
        """A server and a client that are going to be killed."""
        return [self.vesk("serve", "svc-passing", "echo", "--echo"),
                self.start_traffic("passing", "svc-passing", *self.endpoints, "20", "100")]

    def measure(self, since):
        """One row: the processes' memory and descriptors, and the rates since the last row."""
        row = {"minutes": (time.monotonic() - since) / 60}
        for name, process in self.staying.items():
            row[f"{name} KiB"], row[f"{name} descriptors"] = memory_and_descriptors(process)
        total = sum(map(self.counts, self.applications), collections.Counter())
        passed, self.total = total - self.total, total
        return row | {"deliveries": passed["heard"] + passed["foreign"], "answers": passed["answered"],
                      "lost": passed["lost"],
                      "round trip": passed["round_trips_us"] / 1000 / max(1, passed["answered"])}

    def run_for(self, seconds):
        begun = time.monotonic()
        rows, passing = [], self.start_passing()
        while time.monotonic() < begun + seconds:
            time.sleep(PERIOD)  # the pace of the measurements
            rows.append(self.measure(begun))
            if len(rows) % KILL_EVERY == 0:
                for process in passing:
                    process.end(signal.SIGKILL)
                    process.clean_up()
                passing = self.start_passing()
        return rows

    def write(self, rows):
        with (FOLDER / "soak.tsv").open("w") as file:
            table = csv.DictWriter(file, rows[0], delimiter="\t")
            table.writeheader()
            table.writerows(rows)
        script = pathlib.Path(__file__).with_suffix(".gnuplot")
        subprocess.run(["gnuplot", "-c", script, file.name, FOLDER / "soak.svg", " ".join(self.staying)],
                       check=True)

    def assert_flat(self, rows):
        """Compares the last quarter of the time with the first."""
        quarter = max(1, len(rows) // 4)
        for name in self.staying:
            memory, open_files = ([row[f"{name} {what}"] for row in rows] for what in ("KiB", "descriptors"))
            growth = statistics.median(memory[-quarter:]) - statistics.median(memory[:quarter])
            print(f"{name:8} {memory[-1]:7} KiB, {growth:+8.0f} KiB; {min(open_files)} to {max(open_files)} descriptors")
            self.assertLess(growth, GROWTH_KIB, name)
            self.assertLessEqual(statistics.median(open_files[-quarter:]), max(open_files[:quarter]), name)

    def test_nothing_grows_and_nothing_is_lost(self):
        hub = self.start_hub()
        serve = self.start_ready("serve", "svc", "echo", "--echo")
        names = ["app1", "app2"]
        self.applications = [self.start_traffic(name, "svc", *self.endpoints, "20", "200") for name in names]
        self.staying = {"hub": hub, "serve": serve} | dict(zip(names, self.applications))
        ready = [self.await_recovery(application) for application in self.applications]
        self.total = collections.Counter()
        self.measure(0)
        rows = self.run_for(SECONDS)
        self.write(rows)
        self.assert_flat(rows)
        for application, later_than in zip(self.applications, ready):
            counts = self.assert_answers_all(application, later_than)
            print(counts)
            self.assertEqual(counts["lost"], 0)


if __name__ == "__main__":
    SECONDS, FOLDER = float(sys.argv[1]) * 60, pathlib.Path(sys.argv[2])
    unittest.main(argv=sys.argv[:1], defaultTest="Soak.test_nothing_grows_and_nothing_is_lost")
