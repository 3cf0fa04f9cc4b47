"""Runs a hub, servers, clients and subscribers with churn for a while, and looks whether anything grows or is lost.

Run by scripts/soak. Two applications stay from the beginning to the end and send ticks and requests to each other and
to a server that stays; they replace clients, servers and subscribers all the time. Beside them peers come, and are
killed. At the end somebody subscribes to a million topics. What is measured comes out as lines and as a picture.
"""

import json
import os
import pathlib
import signal
import statistics
import subprocess
import sys
import time
import unittest

from end_to_end_test import DONE, metadata
from hub_faults_test import HubFaults, descriptors, memory_kib

PERIOD = 1  # seconds between two measurements
KILL_EVERY = 5  # measurements
FOREIGN_TOPICS = 1_000_000
GROWTH_KIB = 1024  # allowed to a process, from the first to the last quarter of the time

PLOT = """
set terminal svg size 900,1000 dynamic font "sans,12" background "white"
set output "{picture}"
set datafile separator tab
set multiplot layout 4,1 title "{title}"
set lmargin 10
set rmargin 16
set key outside right
set grid
set yrange [0:*]
set ylabel "memory, MiB"
plot for [name in "{processes}"] "{table}" using 1:(column(name." KiB")/1024) with lines title name
set ylabel "descriptors"
plot for [name in "{processes}"] "{table}" using 1:(column(name." descriptors")) with lines title name
set ylabel "a second"
plot for [name in "deliveries answers lost"] "{table}" using 1:(column(name)) with lines title name
set ylabel "round trip, ms"
set xlabel "minutes"
plot "{table}" using 1:(column("round trip")) with lines title "mean"
"""


def slope(minutes, values):
    return statistics.linear_regression(minutes, values).slope if len(values) > 1 else 0.0


class Soak(HubFaults):
    def counts(self, application):
        """What the application has told last; what it told before is dropped."""
        if lines := application.output:
            application.told = json.loads(lines[-1])
            os.ftruncate(application.files["stdout"].fileno(), 0)
        return application.told

    def start_traffic(self, name, server, *churn):
        application = self.start("traffic", name, server, *self.endpoints, "20", *churn, stdin=subprocess.PIPE)
        application.told = dict.fromkeys(("sent", "last_heard", "last_answered"), 0)
        return application

    def start_passing(self):
        """A server and a client that are going to be killed."""
        return [self.vesk("serve", "svc-passing", "echo", "--echo"), self.start_traffic("passing", "svc-passing", "100")]

    def measure(self, since):
        """One row: a process's memory and descriptors, and the rates since the last row."""
        row = {"minutes": (time.monotonic() - since) / 60}
        for name, process in self.staying.items():
            row |= {f"{name} KiB": memory_kib(process), f"{name} descriptors": descriptors(process)}
        totals = [self.counts(application) for application in self.applications]
        total = {name: sum(counts[name] for counts in totals) for name in totals[0]}
        passed = {name: total[name] - self.total.get(name, 0) for name in total}
        self.total = total
        return row | {
            "deliveries": passed["heard"] + passed["foreign"],
            "answers": passed["answered"] + passed["passing_answered"],
            "lost": passed["lost"],
            "round trip": passed["round_trips_us"] / 1000 / max(1, passed["answered"]),
        }

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
                    self.killed += 1
                passing = self.start_passing()
        return rows

    def write(self, rows):
        table = FOLDER / "soak.tsv"
        lines = [rows[0].keys(), *(row.values() for row in rows)]
        table.write_text("".join("\t".join(map(str, line)) + "\n" for line in lines))
        script = PLOT.format(table=table, picture=FOLDER / "soak.svg", processes=" ".join(self.staying),
                             title=f"{rows[-1]['minutes']:.1f} minutes")
        subprocess.run(["gnuplot"], input=script, text=True, check=True)

    def assert_flat(self, rows):
        """Compares the last quarter of the time with the first."""
        quarter = max(1, len(rows) // 4)
        minutes = [row["minutes"] for row in rows[quarter:]]
        for name in self.staying:
            memory, open_files = ([row[f"{name} {what}"] for row in rows] for what in ("KiB", "descriptors"))
            print(f"{name:8} {memory[-1]:7} KiB, {slope(minutes, memory[quarter:]):+8.2f} KiB a minute; "
                  f"{min(open_files)} to {max(open_files)} descriptors", flush=True)
            growth = statistics.median(memory[-quarter:]) - statistics.median(memory[:quarter])
            self.assertLess(growth, GROWTH_KIB, name)
            self.assertLessEqual(statistics.median(open_files[-quarter:]), max(open_files[:quarter]), name)

    def assert_foreign_subscriptions_cost_the_applications_nothing(self):
        before = [memory_kib(application) for application in self.applications]
        client = self.foreign_client(*(f"foreign.topic.{number}" for number in range(FOREIGN_TOPICS)))
        client.publish(f"foreign.topic.{FOREIGN_TOPICS - 1}", "", metadata())
        self.assertEqual(client.receive()[0], f"foreign.topic.{FOREIGN_TOPICS - 1}".encode())
        for application, kib in zip(self.applications, before):
            self.await_recovery(application)
            growth = memory_kib(application) - kib
            print(f"{growth:+} KiB in an application for {FOREIGN_TOPICS} foreign subscriptions")
            self.assertLess(growth, GROWTH_KIB)

    def test_nothing_grows_and_nothing_is_lost(self):
        hub = self.start_hub()
        serve = self.start_ready("serve", "svc", "echo", "--echo")
        self.applications = [self.start_traffic(name, "svc", "200") for name in ("app1", "app2")]
        self.staying = {"hub": hub, "serve": serve} | dict(zip(("app1", "app2"), self.applications))
        for application in self.applications:
            self.await_recovery(application)
        self.total, self.killed = {}, 0
        self.measure(0)
        rows = self.run_for(SECONDS)
        self.write(rows)
        self.assert_flat(rows)
        self.assert_foreign_subscriptions_cost_the_applications_nothing()
        for application in self.applications:
            application.feed(b"")
            self.assert_ends(application, DONE)
            counts = self.counts(application)
            print(counts)
            self.assertEqual([counts[name] for name in ("lost", "ended_twice", "answered_wrongly")], [0, 0, 0])
        print(f"{self.killed} peers were killed meanwhile; see {FOLDER}/soak.svg")


if __name__ == "__main__":
    SECONDS, FOLDER = float(sys.argv[1]) * 60, pathlib.Path(sys.argv[2])
    unittest.main(argv=sys.argv[:1], defaultTest="Soak.test_nothing_grows_and_nothing_is_lost")
