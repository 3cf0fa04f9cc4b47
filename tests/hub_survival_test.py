"""What a hub outlives: more connections than it has descriptors, a stderr that takes nothing; what it tells whoever
has started it; and whom it lets in."""

import contextlib
import ctypes
import os
import pty
import resource
import signal
import socket
import termios
import unittest

import psutil

from end_to_end_test import BIN, DONE, FAILED, PATIENCE, TIMED_OUT, EndToEndTest, await_that, metadata

CROWD = 1100
MEMBER, STRANGER, GROUP = 64001, 64002, 64003  # nobody has them


def connected(endpoint):
    kind, address = endpoint.split("://")
    connection = socket.socket(socket.AF_UNIX if kind == "ipc" else socket.AF_INET)
    connection.settimeout(PATIENCE)
    connection.connect(address if kind == "ipc" else ("127.0.0.1", int(address.split(":")[1])))
    return connection


def is_served(connection):
    """A hub greets at once; of a refused connection nothing but its end is heard."""
    try:
        return connection.recv(1) != b""
    except ConnectionResetError:
        return False


def stop(fd):
    """Nothing can be written to it any more."""
    if os.isatty(fd):
        return termios.tcflow(fd, termios.TCOOFF)
    os.set_blocking(fd, False)
    with contextlib.suppress(BlockingIOError):
        while os.write(fd, b"-" * 1024):
            pass
    os.set_blocking(fd, True)


def await_text(fd, text):
    os.set_blocking(fd, False)
    got = bytearray()
    with open(fd, "rb", buffering=0, closefd=False) as stream:
        await_that(lambda: got.extend(stream.read() or b"") or text in got)


class Descriptors(EndToEndTest):
    def start_with(self, limit, *endpoints):
        options = zip(("--pub-endpoint", "--sub-endpoint"), endpoints)
        return self.start("/usr/bin/prlimit", f"--nofile={limit}:{limit}", BIN / "vesk", "hub", *sum(options, ()))

    def outlive_a_crowd(self, hub):
        self.endpoints = hub.await_line("bound to (.*) and (.*)").groups()
        room = int(hub.await_line(r"room for (\d+) connections").group(1))
        old = self.foreign_client("tick")
        with contextlib.ExitStack() as crowd:
            connections = (crowd.enter_context(connected(self.endpoints[1])) for _ in range(CROWD))
            self.assertEqual(sum(map(is_served, connections)), room - 2)
            hub.await_line(r"refused \d+ connections for want of descriptors")
            old.publish("tick", "in the crowd", metadata())
            self.assertEqual(old.receive()[1], b"in the crowd")
            await_that(lambda: psutil.Process(hub.pid).cpu_percent(interval=0.1) == 0, hub)  # never when it spins
        self.foreign_client("tock")  # which waits until it is served
        self.assertEqual(hub.end(signal.SIGTERM), DONE)

    def test_that_run_out_cost_it_only_the_connections_beyond_them(self):
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 4 * CROWD), hard))
        for limit in (64, 256):
            for endpoints in ([f"ipc://{self.folder}/{limit}{side}" for side in "ps"], ["tcp://127.0.0.1:*"] * 2):
                self.outlive_a_crowd(self.start_with(limit, *endpoints))
        self.assert_ends(self.start_with(16), FAILED, "descriptors (ulimit -n), and here it is 16")


class Stderr(EndToEndTest):
    def start_with(self, stderr):
        hub = self.vesk("hub", "--stats", "0.01", stderr=stderr)
        self.foreign_client("t")
        return hub

    def assert_ends_in_order(self, hub):
        self.assertEqual(hub.end(signal.SIGHUP), DONE)
        self.assertEqual(os.listdir(self.folder), [])

    def test_that_takes_nothing_neither_holds_it_nor_its_end_and_is_told_later_what_was_missed(self):
        sockets = [end.detach() for end in socket.socketpair()]
        for read, write in (os.pipe(), sockets, pty.openpty()):
            stop(write)
            hub = self.start_with(write)
            self.assertTrue(os.get_blocking(write), "these flags are everybody's")
            if os.isatty(write):
                termios.tcflow(write, termios.TCOON)
            await_text(read, b"messages are missing here")
            stop(write)
            self.assert_ends_in_order(hub)

    def test_whose_reader_has_gone_does_not_end_it(self):
        read, write = os.pipe()
        os.close(read)
        self.assert_ends_in_order(self.start_with(write))


@contextlib.contextmanager
def frozen(process):
    """The youngest thread of a process stands still, all others go on."""
    attach, detach, any_thread, libc = 16, 17, 0x40000000, ctypes.CDLL(None)
    thread = max(thread.id for thread in psutil.Process(process.pid).threads())
    libc.ptrace(attach, thread, None, None)
    os.waitpid(thread, any_thread)
    try:
        yield
    finally:
        libc.ptrace(detach, thread, None, None)


class ServiceManager(EndToEndTest):
    @unittest.skipIf(os.environ.get("VESK_EMULATED") == "1", "the youngest thread is the emulator's")
    def test_hears_that_the_hub_is_ready_lives_and_ends_and_nothing_while_its_relay_stands_still(self):
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.settimeout(PATIENCE)
        manager.bind(f"{self.folder}/manager")
        hub = self.start_hub("--stats", "0.05", environment=self.environment | {
            "NOTIFY_SOCKET": f"{self.folder}/manager", "WATCHDOG_USEC": "300000"})
        self.assertEqual([manager.recv(99) for _ in range(3)], [b"READY=1", b"WATCHDOG=1", b"WATCHDOG=1"])
        with frozen(hub):
            still = hub.log.count("relayed")
            await_that(lambda: hub.log.count("relayed") > still + 10, hub)
            manager.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                while manager.recv(99):
                    pass
            await_that(lambda: hub.log.count("relayed") > still + 30, hub)
            self.assertRaises(BlockingIOError, manager.recv, 99)
            manager.settimeout(PATIENCE)
        self.assertEqual(manager.recv(99), b"WATCHDOG=1")
        self.assertEqual(hub.end(signal.SIGTERM), DONE)
        while (said := manager.recv(99)) == b"WATCHDOG=1":
            pass
        self.assertEqual(said, b"STOPPING=1")


@unittest.skipIf(os.geteuid() != 0, "only root can be several users")
class Group(EndToEndTest):
    def vesk_as(self, user, *arguments, **options):
        groups = f"--groups={GROUP}" if user == MEMBER else "--clear-groups"
        return self.start("/usr/bin/setpriv", f"--reuid={user}", f"--regid={user}", groups, BIN / "vesk", *arguments,
                          **options)

    def test_members_reach_the_hub_of_a_shared_folder_and_strangers_do_not(self):
        os.chmod(self.folder, 0o711)
        if self.vesk_as(MEMBER, "--version").end() != DONE:
            self.skipTest("other users cannot run the programs here")
        shared = self.bare | {"XDG_RUNTIME_DIR": str(self.folder)}
        named = self.bare | {f"VESK_{side}_ENDPOINT": f"ipc://{self.folder}/vesk/{side.lower()}"
                             for side in ("PUB", "SUB")}
        self.start_hub("--ipc-group", str(GROUP), environment=shared)
        for user, environment, status in ((MEMBER, shared, DONE), (MEMBER, named, DONE), (STRANGER, shared, FAILED),
                                          (STRANGER, named, TIMED_OUT)):
            pub = self.vesk_as(user, "pub", "t", "d", "--timeout", "20" if status == DONE else "0.3",
                               environment=environment)
            self.assertEqual(pub.end(), status, pub.log)
        os.chmod(self.folder / "vesk", 0o770)
        self.assert_ends(self.vesk_as(MEMBER, "pub", "t", "d", environment=shared), FAILED, "is not a folder that")
        self.assert_ends(self.vesk("hub", "--ipc-group", "no such"), FAILED, "there is no group no such")
        self.assert_ends(self.vesk_as(STRANGER, "hub", "--ipc-group", str(GROUP)), FAILED,
                         f"you are not in the group {GROUP}")


if __name__ == "__main__":
    unittest.main()
