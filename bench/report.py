"""Runs the benchmarks and makes a table of them, or checks that no figure is far off.

  report.py PROGRAM check        fails on a figure that stays at more than twice its reach
  report.py PROGRAM table RUNS   runs several times, and prints the table for docs/performance.md
"""

import json
import statistics
import subprocess
import sys

ROWS = {  # benchmark: (what is measured, what its cost is divided by)
    "publish/bytes:100": ("CPU of `publish`, 100 bytes", "the same czmq calls alone"),
    "publish/bytes:10000": ("CPU of `publish`, 10 000 bytes", "the same czmq calls alone"),
    "receive/bytes:100": ("CPU of receiving a message, 100 bytes", "the same czmq calls alone"),
    "receive/bytes:10000": ("CPU of receiving a message, 10 000 bytes", "the same czmq calls alone"),
    "notify_latency/p50": ("publisher to notify callback at 1000 a second, p50", "a bare epoll loop"),
    "notify_latency/p99": ("publisher to notify callback at 1000 a second, p99", "a bare epoll loop"),
    "deliveries_in_a_burst/asio": ("deliveries a second in a burst, median", "1000"),
    "deliveries_in_a_burst/libuv": ("the same on a libuv loop", "1000"),
    "deliveries_in_a_burst/glib": ("the same on a GLib loop", "1000"),
    "deliveries_in_a_burst/epoll": ("the same on the loop of `examples/epoll_event_loop.hpp`", "1000"),
    "requests_back_to_back": ("round trip of a request back to back, p50", "3.00 ms"),
    "requests_at_random_moments": ("round trip of a request at random moments, p50", "2.84 ms"),
    "refused_log_call": ("a log call that no sink wants, ns more", "a comparison with a global"),
    "admitted_log_call": ("a log call that is wanted", "`memset` of 4096 bytes, `fmt::format_to_n`"),
    "topics_of_one_subscriber/1000": ("matching among 1000 topics of a subscriber", "among 10"),
    "topics_of_one_subscriber/100000": ("matching among 100 000 topics of a subscriber", "among 10"),
    "megabyte_of_dots/100000": ("matching a megabyte of dots among 100 000 topics", "among 10"),
    "subscribers_of_other_topics/1000": ("a message that none of 1000 subscribers wants", "that none of 10 wants"),
    "subscribers_of_other_topics/10000": ("a message that none of 10 000 subscribers wants", "that none of 10 wants"),
    "subscribers_of_one_topic_each/1000": ("a message that one of 1000 subscribers wants", "that one of 10 wants"),
    "subscribers_of_one_topic_each/10000": ("a message that one of 10 000 subscribers wants", "that one of 10 wants"),
    "issuing_and_ending_a_request/outstanding:60000": ("issuing and ending a request, 60 000 outstanding",
                                                       "10 outstanding"),
    "hub_deliveries/subscribers:1": ("hub, deliveries a second to 1 subscriber", "libzmq's proxy"),
    "hub_deliveries/subscribers:10": ("hub, deliveries a second to 10 subscribers", "libzmq's proxy"),
    "hub_deliveries/subscribers:100": ("hub, deliveries a second to 100 subscribers", "libzmq's proxy"),
    "hub_latency": ("hub, one message after another, one way", "libzmq's proxy"),
    "hub_deliveries_in_a_jam": ("hub, deliveries a second while another subscriber is stuck", "without it"),
    "vesk_sub_into_a_file": ("`vesk sub` into a file, messages a second", "a bare SUB loop that writes the same"),
    "vesk_record_into_a_file": ("`vesk record` into a file, messages a second", "a bare SUB loop that writes the same"),
    "ten_vesk_pubs": ("ten `vesk pub` one after another, whole processes", "ten processes that do it in bare czmq"),
    "vesk_top_once": ("CPU of `vesk top --once`, 300 000 messages on 100 000 topics, with the table", "a bare SUB loop that only counts"),
    "throughput": ("messages a second in three processes, nothing lost", "the same czmq calls alone"),
    "memory_of_a_message_queued_in_the_hub": ("memory of a 100-byte message queued among 60 others", "512 bytes"),
    "memory_of_a_queued_delivery": ("memory of a queued delivery", "what its record holds"),
    "memory_of_a_subscription": ("memory of a subscription", "what its record holds"),
    "memory_of_an_outstanding_request": ("memory of an outstanding request", "what its record holds"),
}
UNITS = {"microseconds": "µs", "milliseconds": "ms", "per_second": "/s", "bytes": "bytes"}


def output_of(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def run(program, wanted=ROWS.keys()):
    """The wanted benchmarks by their names, without what the name says of the way they are run. Each has a process of
    its own: what one does to the heap is no cost of another."""
    names = {name.split("/iterations:")[0]: name for name in output_of(program, "--benchmark_list_tests").split()}
    if names.keys() != ROWS.keys():
        sys.exit(f"benchmarks without a row, or rows without a benchmark: {names.keys() ^ ROWS.keys()}")
    return {name: run_alone(program, names[name]) for name in ROWS if name in wanted}


def run_alone(program, name):
    output = output_of(program, "--benchmark_format=json", f"--benchmark_filter=^{name}$")
    return json.loads(output)["benchmarks"][0]


def reach(result):
    return ("≤", result["at_most"]) if "at_most" in result else ("≥", result["at_least"])


def is_far_off(result):
    if "error_message" in result:
        return True
    kind, limit = reach(result)
    return result["figure"] > 2 * limit if kind == "≤" else result["figure"] < limit / 2


def said_of(name, result):
    if "error_message" in result:
        return f"{ROWS[name][0]}: {result['error_message']}"
    kind, limit = reach(result)
    return f"{ROWS[name][0]}: {result['figure']:.2f} (reach {kind} {limit}) of {ROWS[name][1]}"


def check(program):
    """A figure has to be far off three times: a machine that has something else to do is no fault."""
    suspects = ROWS.keys()
    for _ in range(3):
        results = run(program, suspects)
        for name, result in results.items():
            print("FAR OFF" if is_far_off(result) else "ok     ", said_of(name, result), flush=True)
        suspects = [name for name, result in results.items() if is_far_off(result)]
        if not suspects:
            return 0
    return 1


def readable(value):
    return f"{value:,.0f}".replace(",", " ") if value >= 999.5 else f"{value:.3g}"


def ratio(figure):
    return f"{round(figure, 2) + 0:.2f}"  # without a sign of zero


def cost(result, prefix=""):
    for key, unit in UNITS.items():
        if prefix + key in result:
            nanoseconds = key == "microseconds" and result[prefix + key] < 0.1
            return f"{result[prefix + key] * 1000:.3g} ns" if nanoseconds else f"{readable(result[prefix + key])} {unit}"
    return ""


def table(program, runs):
    results = [run(program) for _ in range(runs)]
    for name, result in ((name, result) for one in results for name, result in one.items()):
        if "error_message" in result:
            sys.exit(said_of(name, result))
    print("| measured | divided by | ratio | spread | reach | itself | limit | allocations, limit's |")
    print("|---|---|---|---|---|---|---|---|")
    for name, (measured, limit) in ROWS.items():
        figures = sorted(result[name]["figure"] for result in results)
        middle = min((result[name] for result in results),
                     key=lambda one: abs(one["figure"] - statistics.median(figures)))
        kind, wanted = reach(middle)
        counts = [f"{middle[key]:.0f}" for key in ("allocations", "limit_allocations") if key in middle]
        print(f"| {measured} | {limit} | **{ratio(middle['figure'])}** | {ratio(figures[0])} to {ratio(figures[-1])} | "
              f"{kind} {wanted:g} | {cost(middle)} | {cost(middle, 'limit_')} | {', '.join(counts)} |")
    return 0


if __name__ == "__main__":
    sys.exit(check(sys.argv[1]) if sys.argv[2] == "check" else table(sys.argv[1], int(sys.argv[3])))
