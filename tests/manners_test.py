"""How "vesk" treats whoever types: wrong words, help texts, manual pages, completions, colours, a full disk."""

import os
import pty
import re
import shutil
import subprocess
import unittest

from end_to_end_test import BIN, DONE, FAILED, TIMED_OUT, WRONG_USAGE, EndToEndTest

COMPLETE = 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vesk; printf "%s\\n" "${COMPREPLY[@]}"'


class Manners(EndToEndTest):
    def said(self, *arguments):
        """What the command prints, a list of lines; it must end well."""
        process = self.vesk(*arguments)
        self.assert_ends(process, DONE, output=None)
        return process.output

    def commands(self):
        rows = "\n".join(self.said("help")).split("\nCommands:\n")[1].split("\n\n")[0]
        return re.findall(r"^  (\w+)", rows, re.MULTILINE)

    def test_what_is_wrong_with_a_command_line_is_said_in_words_with_the_nearest_name(self):
        for line, words in (
                ("", "a command is missing"),
                ("pbu t d", "there is no command 'pbu'; did you mean 'pub'?"),
                ("subscribe", "there is no command 'subscribe'; did you mean 'sub'?"),
                ("xyzzy", "there is no command 'xyzzy'"),
                ("help sreve", "there is no command 'sreve'; did you mean 'serve'?"),
                ("sub --cuont 3", "'sub' has no option '--cuont'; did you mean '--count'?"),
                ("pub --resned", "'pub' has no option '--resned'; did you mean '--resend'?"),
                ("--lgo-level=3 hub", "'hub' has no option '--lgo-level'; did you mean '--log-level'?"),
                ("hub [more]", "'[more]' is one argument too many for 'hub'"),
                ("bench --rate [5]", "--rate: '[5]' is not a number of messages a second from 1 to 1000"),
                ("sub --count", "--count needs a value behind it"),
                ("sub --count 1 --count 2", "--count is given more than once"),
                ("sub --count 0", "--count: '0' is not a number of messages from 1 on"),
                ("bench --count 0x10", "--count: '0x10' is not a number of messages from 1 to 10000000"),
                ("bench --rate 1001", "--rate: '1001' is not a number of messages a second from 1 to 1000"),
                *((f"sub --timeout {number}",
                   f"--timeout: '{number}' is not a number of seconds from 0.001 to 1000000")
                  for number in ("nan", "inf", "1e7", "0", "5s"))):
            process = self.vesk(*line.split())
            self.assert_ends(process, WRONG_USAGE, output=[])
            first, *more = process.log.split("\n")
            self.assertEqual(first, "vesk: " + words)
            self.assertTrue(all(other.startswith("vesk: see 'vesk help") for other in more), more)
        timed_out = self.vesk("pub", "t", "-5", "--timeout", "010e-3")
        self.assert_ends(timed_out, TIMED_OUT, "0.01 s")

    def test_every_help_text_has_ranges_in_words_defaults_and_two_examples_that_use_what_there_is(self):
        known = " ".join(self.said("help"))
        for command in self.commands():
            text = "\n".join(self.said("help", command))
            self.assertEqual(text, "\n".join(self.said(command, "--help")))
            description, examples = text.split("\nExamples:\n")
            self.assertGreaterEqual(len(re.findall(r"^  (?! ).*\bvesk ", examples, re.MULTILINE)), 2, text)
            for option in re.findall(r" (--[a-z-]+)", examples):
                self.assertIn(option, description + known)
            rows = re.split(r"\n  (?=-)", description.split("Options:")[-1])[1:]
            for row in rows:
                if re.match(r"(-\w, )?--[a-z-]+ [A-Z]", row):
                    self.assertIn("default", " ".join(row.split()), f"{command}: {row}")
            self.assertNotRegex(text, r" in \[|[0-9]{13}|UINT|INT:|TEXT|FLOAT|POSITIVE")
            self.assertLessEqual(max(map(len, description.split("\n"))), 80)

    def test_manual_pages_and_completions_know_every_command_and_are_well_formed(self):
        self.said("--write-documents", str(self.folder / "share"))
        pages = sorted((self.folder / "share/man/man1").iterdir())
        self.assertEqual([page.name for page in pages],
                         sorted(["vesk.1", *(f"vesk-{command}.1" for command in self.commands())]))
        checks = [["groff", "-ww", "-man", "-z", "-Tutf8", *pages],
                  ["zsh", "-n", self.folder / "share/zsh/site-functions/_vesk"]]
        for check in filter(lambda check: shutil.which(check[0]), checks):
            checked = subprocess.run(check, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            self.assertEqual((checked.returncode, checked.stdout), (0, b""))
        self.assertIn(rb"\-\-resend", (self.folder / "share/man/man1/vesk-pub.1").read_bytes())
        picture = self.folder / "a picture.svg"
        picture.touch()
        for words, offered in ((("pu",), ["pub"]), (("pub", "--res"), ["--resend"]),
                               (("pub", "--timeout", ""), [""]), (("help", "se"), ["serve"]),
                               (("--pub-endpoint", "tcp", ":", "//h:1", "sub", "--cou"), ["--count"]),
                               (("bench", "--svg", "=", f"{self.folder}/a"), [str(picture)]),
                               (("sub", "--sub-"), ["--sub-endpoint"])):
            bash = subprocess.run(["bash", "-uc", COMPLETE, self.folder / "share/bash-completion/completions/vesk",
                                   "vesk", *words], capture_output=True, text=True)
            self.assertEqual((bash.stdout.split("\n")[:-1], bash.stderr), (offered, ""), words)

    def test_an_output_that_cannot_be_written_ends_with_1(self):
        for arguments in (["help"], ["pub", "--help"], ["--version"], ["bench", "--own-hub", "--count", "1"],
                          ["check", "--timeout", "0.01"]):
            with open("/dev/full", "wb") as full:
                process = self.vesk(*arguments, stdout=full)
                self.assert_ends(process, FAILED, "vesk: could not write to stdout: No space left on device")
        for shell, reason in (('"$0" help >&-', "Bad file descriptor"),
                              ('exec 3> >(:); wait $!; "$0" help >&3', "Broken pipe")):
            ended = subprocess.run(["bash", "-c", shell, BIN / "vesk"], capture_output=True, text=True)
            self.assertEqual((ended.returncode, ended.stderr), (FAILED, f"vesk: could not write to stdout: {reason}\n"))

    def test_colours_and_the_progress_bar_keep_to_the_terminal_and_to_NO_COLOR(self):
        for variables, colours, bar in (({"TERM": "xterm"}, True, True),
                                        ({"TERM": "xterm", "NO_COLOR": "1"}, False, True),
                                        ({"TERM": "dumb", "COLORTERM": "truecolor"}, False, False)):
            near, terminal = pty.openpty()
            self.addCleanup(os.close, near)
            bench = self.vesk("bench", "--own-hub", "--count", "1", "--log-level", "3", stderr=terminal,
                              environment=self.bare | {"TERM": "", "COLORTERM": "", "NO_COLOR": ""} | variables)
            os.close(terminal)
            shown = b""
            while b"deallocated request_id" not in shown:
                shown += os.read(near, 1 << 16)
            self.assertEqual((b"\x1b[3" in shown, b"\x1b[K" in shown), (colours, bar), shown)


if __name__ == "__main__":
    unittest.main()
