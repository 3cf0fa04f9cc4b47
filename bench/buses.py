"""Measures messages a second through a hub in three processes, nothing lost, over this bus, over bare czmq, and over
the buses of others that are installed, in turns; prints the table for docs/performance.md.

  buses.py BIN RUNS      BIN has throughput_peer and vesk
"""

import contextlib
import os
import shutil
import socket
import statistics
import subprocess
import sys
import time

MESSAGES = 200_000
PATIENCE_S = 60


def free_port():
    with socket.socket() as unbound:
        unbound.bind(("127.0.0.1", 0))
        return unbound.getsockname()[1]


def wait_until_bound(port):
    give_up = time.monotonic() + PATIENCE_S
    while time.monotonic() < give_up:
        with socket.socket() as trial:
            if trial.connect_ex(("127.0.0.1", port)) == 0:
                return
        time.sleep(0.01)
    sys.exit(f"nobody listens at port {port}")


def tcp(port):
    return f"tcp://127.0.0.1:{port}"


class Bus:
    """A bus: its name, its hub's command, its clients' two addresses, and what it does with a message."""

    def __init__(self, name, title, hub, addresses, promise):
        self.name, self.title, self.promise = name, title, promise
        self.ports = [free_port(), free_port()]
        self.hub, self.addresses = hub(*self.ports), addresses(*self.ports)

    def is_installed(self, peer):
        said = subprocess.run([peer, "publish", self.name, "", ""], stdin=subprocess.DEVNULL, capture_output=True, text=True)
        return "was not there when this was built" not in said.stderr and shutil.which(self.hub[0]) is not None

    @contextlib.contextmanager
    def running(self):
        hub = subprocess.Popen(self.hub, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            wait_until_bound(self.ports[0])
            yield
        finally:
            hub.terminate()
            hub.wait()

    def messages_per_second(self, peer):
        arguments = [self.name, *self.addresses, str(MESSAGES)]
        with self.running():
            receiver = subprocess.Popen([peer, "receive", *arguments], stdout=subprocess.PIPE)
            publisher = subprocess.run([peer, "publish", *arguments], stdin=receiver.stdout, capture_output=True,
                                       text=True, check=True, timeout=PATIENCE_S)
            receiver.terminate()
            receiver.wait()
        rate = float(publisher.stdout)
        if rate == 0:
            sys.exit(f"{self.title} has lost a message")
        return rate


def all_buses(bin_folder, peer):
    def vesk_hub(pub, sub):
        return [f"{bin_folder}/vesk", "hub", "--pub-endpoint", tcp(pub), "--sub-endpoint", tcp(sub)]

    def both(pub, sub):
        return [tcp(pub), tcp(sub)]

    return [
        Bus("vesk", "this bus", vesk_hub, both,
            "requests with acknowledgement and failure, calls from callbacks; no delivery is confirmed, a slow subscriber loses"),
        Bus("czmq", "bare czmq, this hub", vesk_hub, both, "no requests; the application takes frames apart itself; loses in the same way"),
        Bus("nats", "NATS, core", lambda port, _: ["nats-server", "-a", "127.0.0.1", "-p", str(port)],
            lambda port, _: [f"nats://127.0.0.1:{port}", ""],
            "wildcards, requests, passwords; the client puts many messages into one write; cuts off a slow subscriber"),
        Bus("mosquitto", "MQTT (mosquitto), QoS 0", lambda port, _: ["mosquitto", "-p", str(port)],
            lambda port, _: [str(port), ""], "wildcards, kept messages, passwords; confirmed delivery at QoS 1 and 2, which costs more"),
        Bus("nng", "nng, a forwarder of two sockets", lambda pub, sub: [peer, "hub", "nng", tcp(pub), tcp(sub)], both,
            "no requests over it; prefixes as filters; drops what a queue of at most 8192 cannot hold"),
    ]


def main(bin_folder, runs):
    peer = os.path.abspath(f"{bin_folder}/throughput_peer")
    buses = [bus for bus in all_buses(bin_folder, peer) if bus.is_installed(peer)]
    rates = {bus: [] for bus in buses}
    for _ in range(runs):
        for bus in buses:
            rates[bus].append(bus.messages_per_second(peer))
    bare = statistics.median(next(rates[bus] for bus in buses if bus.name == "czmq"))
    print("| bus | messages a second | of bare czmq | what it does and does not |")
    print("|---|---|---|---|")
    for bus in buses:
        rate = statistics.median(rates[bus])
        readable = f"{rate:,.0f}".replace(",", " ")
        print(f"| {bus.title} | {readable} | {rate / bare:.2f} | {bus.promise} |")


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]))
