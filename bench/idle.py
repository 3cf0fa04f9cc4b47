"""What an idle hub and an idle application cost, and how large the libraries are: a table for docs/performance.md.

  idle.py BIN [STRIP [EMULATOR...]]      the folder of the programs, the program that strips, what runs the programs

The application has a subscriber and a server. An emulator's own memory is taken off: that of a program that does
nothing.
"""

import os
import pathlib
import subprocess
import sys
import tempfile
import time

import psutil

SECONDS = 20
LIBRARIES = ["libvesk-hub.so", "libvesk.so", "libvesk-toolkit.so", "libvesk-eventloop.so", "libvesk-sedes.so",
             "libvesk-lumo.so", "libvesk-uuidtypes.so"]


def stripped_kib(strip, library):
    with tempfile.NamedTemporaryFile() as small:
        subprocess.run([strip, "-o", small.name, library], check=True)
        return os.path.getsize(small.name) / 1024


def switches(process):
    of_all = 0
    for thread in process.threads():
        status = pathlib.Path(f"/proc/{process.pid}/task/{thread.id}/status").read_text()
        of_all += sum(int(line.split()[1]) for line in status.splitlines() if "ctxt_switches" in line)
    return of_all


def cpu_ms(process):
    used = process.cpu_times()
    return 1000 * (used.user + used.system)


def measure(processes):
    """(resident MiB, ms of CPU, context switches) of each in SECONDS, after it has come to rest."""
    time.sleep(3)
    before = [(cpu_ms(each), switches(each)) for each in processes]
    time.sleep(SECONDS)
    return [(each.memory_info().rss / 2**20, cpu_ms(each) - cpu, switches(each) - switched)
            for each, (cpu, switched) in zip(processes, before)]


def main(folder, strip="strip", *emulator):
    bin_folder = pathlib.Path(folder)
    with tempfile.TemporaryDirectory() as sockets:
        endpoints = [f"ipc://{sockets}/hub/pub", f"ipc://{sockets}/hub/sub"]
        commands = [[bin_folder / "vesk", "hub", "--pub-endpoint", endpoints[0], "--sub-endpoint", endpoints[1]],
                    [bin_folder / "idle_application", *endpoints], [bin_folder / "idle_application"]]
        started = [subprocess.Popen([*emulator, *command], stderr=subprocess.DEVNULL) for command in commands]
        hub, application, nothing = measure([psutil.Process(each.pid) for each in started])
        for each in started:
            each.terminate()
            each.wait()
    own = nothing[0] if emulator else 0
    print(f"| | resident memory | CPU in {SECONDS} s | context switches in {SECONDS} s |")
    print("|---|---|---|---|")
    for name, (resident, cpu, switched) in (("an idle hub, `vesk hub`", hub), ("an idle application", application)):
        print(f"| {name} | {resident - own:.1f} MiB | {cpu:.0f} ms | {switched} |")
    print("\n| library | stripped |")
    print("|---|---|")
    for library in LIBRARIES:
        print(f"| `{library}` | {stripped_kib(strip, bin_folder / '../lib' / library):.0f} KiB |")


if __name__ == "__main__":
    main(*sys.argv[1:])
