"""Holds the documentation to what it says: every block of code is compiled or run, every link leads somewhere.

A block behind a line "[path](path):" shows that whole file. Other C++ is compiled: blocks of declarations at namespace
scope, the rest inside a function that has the objects of support/documented_application.hpp. Shell blocks are run, each
as in a terminal of its own, but for those that build the project; what does not end by itself runs until its section ends,
and must then end in order. A comment <!-- refused: TEXT --> before a block tells the error of what must not compile.

VESK_SOURCE, VESK_BIN and CXX name the clone, the folder of the built programs, and the compiler.
"""

import os
import pathlib
import pty
import re
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

SOURCE, BIN = (pathlib.Path(os.environ[name]) for name in ("VESK_SOURCE", "VESK_BIN"))
DOCUMENTS = [SOURCE / "README.md", SOURCE / "CHANGELOG.md", *sorted((SOURCE / "docs").glob("*.md"))]
TERMINATED = 128 + signal.SIGTERM  # of a pipe's reader, which the signal has ended
PATIENCE = 60  # seconds; only a failing block takes so long
GOES_ON = re.compile(r"^vesk (hub|sub|serve|record|top|trace)\b(?!.*(&$|--count|--once))", re.MULTILINE)
BUILDS = re.compile(r"scripts/|cmake ")
DECLARATION = re.compile(r"(struct|enum|class|namespace|using|constexpr|template|void)\b")
INCLUDES = [f"-I{folder}" for folder in [*SOURCE.glob("platform/*/include"), SOURCE / "toolkit/include",
                                         SOURCE / "relay/include", SOURCE / "tests", SOURCE / "examples"]]


class Block:
    def __init__(self, path, section, line, language, text, before):
        self.place, self.line = f"{path.relative_to(SOURCE)}:{line}", line
        self.section, self.language, self.text = section, language, text
        self.path = path
        self.saved_as = None
        refused = re.search(r"<!-- refused: (.*) -->\s*$", before)
        self.refused = refused.group(1) if refused else None
        shown = re.search(r"\[[^\]]*\]\(([^)]*)\):\s*$", before)
        self.shown_file = path.parent / shown.group(1) if shown else None


def blocks_of(path):
    text = path.read_text()
    found = []
    for match in re.finditer(r"^```(\w*)\n(.*?)^```$", text, re.DOTALL | re.MULTILINE):
        before, after = text[: match.start()], text[match.end() :]
        headings = re.findall(r"^##+ .*$", before, re.MULTILINE)
        block = Block(path, len(headings), before.count("\n") + 2, match.group(1), match.group(2), before)
        if name := re.match(r"\s*Saved as `([^`]+)`", after):
            block.saved_as = name.group(1)
        found.append(block)
    return found


BLOCKS = [block for path in DOCUMENTS for block in blocks_of(path)]


def anchors_of(path):
    """The anchors of a document's headings, as the usual viewers of Markdown make them."""
    text = re.sub(r"^```.*?^```$", "", path.read_text(), flags=re.DOTALL | re.MULTILINE)
    headings = re.findall(r"^#+ (.*)$", text, re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading).lower().replace(" ", "-") for heading in headings}


def free_port():
    with socket.socket() as found:
        found.bind(("127.0.0.1", 0))
        return str(found.getsockname()[1])


class Terminal:
    """A shell that runs one block, with a terminal for its input and output."""

    def __init__(self, text, folder, environment):
        master, slave = pty.openpty()
        self.shown = b""
        self.shell = subprocess.Popen(["bash", "-o", "pipefail", "-ec", "trap : TERM\n" + text], cwd=folder, env=environment,
                                      stdin=slave, stdout=slave, stderr=slave, start_new_session=True)
        os.close(slave)
        threading.Thread(target=self.read, args=(master,), daemon=True).start()

    def read(self, master):
        try:
            while shown := os.read(master, 4096):
                self.shown += shown
        except OSError:
            pass  # everybody has closed the other end

    def ends_within(self, seconds):
        try:
            self.shell.wait(seconds)
            return True
        except subprocess.TimeoutExpired:
            return False

    def end(self):
        """Ends one program after the other, and what runs in the background; gives the shell's status."""
        give_up = time.monotonic() + PATIENCE
        while not self.ends_within(0.5):
            os.killpg(self.shell.pid, signal.SIGTERM if time.monotonic() < give_up else signal.SIGKILL)
        try:
            os.killpg(self.shell.pid, signal.SIGTERM)
        except ProcessLookupError:
            pass
        return self.shell.returncode


class Plant:
    """What the examples talk to: a hub, servers, and traffic on the topics of a plant."""

    SCENE = """
    trap - TERM
    vesk hub &
    vesk serve math add -- python3 -c 'import json, sys; print(sum(json.load(sys.stdin)))' &
    for command in get status configure; do vesk serve plant $command -- echo '"done"' & done
    while sleep 0.2; do vesk pub plant.pump '{"on":true}' && vesk request plant get '{"bar":2.5}'; done
    """

    def __init__(self, folder, environment):
        (folder / "config.json").write_text('{"pumps": 2}')
        self.terminal = Terminal(self.SCENE, folder, environment)
        give_up = time.monotonic() + PATIENCE
        while self.terminal.shown.count(b"ready") < 4 and time.monotonic() < give_up:
            time.sleep(0.05)


class Documentation(unittest.TestCase):
    def test_shows_files_as_they_are_and_says_how_each_block_is_written(self):
        for block in BLOCKS:
            with self.subTest(block.place):
                self.assertIn(block.language, ("", "sh", "cpp", "python", "cmake"))
                if block.shown_file:
                    self.assertEqual(block.text, block.shown_file.read_text())
                elif block.language == "cmake":
                    self.fail("a block of CMake is a whole file, which is named before it")
                elif block.language == "python":
                    compile(block.text, block.place, "exec")
                    self.assertTrue(block.saved_as, "nobody runs it: say under which name it is saved")

    def test_has_links_that_lead_somewhere(self):
        for path in DOCUMENTS:
            text = re.sub(r"^```.*?^```$|`[^`\n]*`", "", path.read_text(), flags=re.DOTALL | re.MULTILINE)
            for link in re.findall(r"\]\(([^)\s]+)\)", text):
                if re.match(r"[a-z]+:", link):
                    continue
                with self.subTest(f"{path.relative_to(SOURCE)}: {link}"):
                    file, _, anchor = link.partition("#")
                    target = path.parent / file if file else path
                    self.assertTrue(target.exists())
                    if anchor:
                        self.assertIn(anchor, anchors_of(target))

    def test_has_only_cpp_that_compiles_or_is_refused_as_it_says(self):
        for path in DOCUMENTS:
            declared = ""
            for block in (block for block in BLOCKS if block.path == path and block.language == "cpp"):
                if re.search(r"^int main\(", block.text, re.MULTILINE):
                    self.compile(block, f'#line {block.line} "{block.place}"\n{block.text}')
                    continue
                includes = "".join(re.findall(r"^#include .*\n", block.text, re.MULTILINE))
                body = re.sub(r"^#include .*\n", "\n", block.text, flags=re.MULTILINE)
                part = f'#line {block.line} "{block.path}"\n{body}'
                if not DECLARATION.match(body.lstrip()):
                    part = f"void block_in_line_{block.line}() {{\n{part}}}\n"
                if block.refused:
                    self.compile(block, includes + declared + part, block.refused)
                else:
                    declared = includes + declared + part
            if declared:
                self.compile(None, declared)

    def compile(self, block, text, refused=None):
        prelude = '#include "support/documented_application.hpp"\n' if "int main(" not in text else ""
        command = [*shlex.split(os.environ["CXX"]), "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Wno-unused",
                   "-Wno-shadow", *INCLUDES, "-x", "c++", "-"]
        done = subprocess.run(command, input=prelude + text, capture_output=True, text=True, timeout=600)
        errors = re.findall(r"error: (.*)", done.stderr)
        with self.subTest(block.place if block else "blocks of declarations and statements"):
            if refused:
                self.assertEqual(1, len(errors), done.stderr)
                self.assertIn(refused, errors[0])
            else:
                self.assertEqual(0, done.returncode, done.stderr)

    def test_has_shell_commands_that_work(self):
        for path in DOCUMENTS:
            with tempfile.TemporaryDirectory() as name:
                folder = pathlib.Path(name)
                (folder / "build/release").mkdir(parents=True)
                (folder / "build/release/bin").symlink_to(BIN)
                (folder / "examples").symlink_to(SOURCE / "examples")
                for block in BLOCKS:
                    if block.path == path and block.saved_as:
                        (folder / block.saved_as).write_text(block.text)
                shell = [block for block in BLOCKS if block.path == path and block.language == "sh"]
                for section in sorted({block.section for block in shell}):
                    self.run_section([block for block in shell if block.section == section], folder)

    def run_section(self, blocks, folder):
        sockets = tempfile.mkdtemp(dir=folder)
        endpoints = {f"VESK_{end.upper()}_ENDPOINT": f"ipc://{sockets}/{end}" for end in ("pub", "sub")}
        environment = {**os.environ, **endpoints, "PATH": f"{BIN}:{os.environ['PATH']}", "TERM": "xterm"}
        blocks = [block for block in blocks if not BUILDS.match(block.text) and self.has_tools(block)]
        ports = {port: free_port() for block in blocks for port in re.findall(r"127\.0\.0\.1:(\d+)", block.text)}
        brings_hub = any("vesk hub" in block.text for block in blocks)
        plant = None if brings_hub or not blocks else Plant(folder, environment)
        terminals = []
        for block in blocks:
            text = block.text
            for written, port in ports.items():
                text = text.replace(f":{written}", f":{port}")
            terminals.append((block, Terminal(text, folder, environment)))
            terminals[-1][1].ends_within(2 if GOES_ON.search(block.text) else PATIENCE)
        for block, terminal in terminals:
            with self.subTest(block.place):
                ended = terminal.shell.poll() is not None
                self.assertTrue(ended or GOES_ON.search(block.text), f"does not end: {terminal.shown}")
                self.assertIn(terminal.end(), [0] if ended else [0, TERMINATED], terminal.shown.decode(errors="replace"))
        if plant:
            plant.terminal.end()

    def has_tools(self, block):
        tools = {word for word in ("jq", "curl") if re.search(rf"\b{word} ", block.text)}
        missing = [tool for tool in tools if subprocess.call(["which", tool], stdout=subprocess.DEVNULL)]
        if missing:
            print(f"{block.place} is not run: there is no {missing[0]} here", file=sys.stderr)
        return not missing


if __name__ == "__main__":
    unittest.main()
