#!/usr/bin/env python3
"""What is written from the tool's command line: the manual page and the completions of bash and zsh,
against the tool's own --help."""

import os
import pty
import re
import select
import subprocess
import unittest

from packaging_case import BUILD, PackagingTest, need, output_of

need("bash", "zsh")

TOOL = BUILD / "tools/zorvex"
REFERENCE = BUILD / "tools/reference"
PATIENCE = 60  # seconds for a shell to answer


def listed(text, heading, pattern):
    """The first words of the entries below a heading of a help text."""
    section = re.search(rf"^{heading}:\n((?:  .*\n?)*)", text, flags=re.MULTILINE)
    return re.findall(pattern, section[1], flags=re.MULTILINE) if section else []


def commands():
    return listed(output_of(TOOL, "--help"), "Subcommands", r"^  ([a-z]\S*)")


def options(*command):
    entries = listed(output_of(TOOL, *command, "--help"), "Options", r"^  (-\S+)")
    return [name for entry in entries for name in entry.split(",")]


class ManualPage(PackagingTest):
    def sections(self):
        """The entries, without markup, of each section of the page and each command's."""
        page = (REFERENCE / "zorvex.1").read_text(encoding="utf-8").replace("\\-", "-")
        sections = {}
        for section in re.split(r"^\.S[HS] ", page, flags=re.MULTILINE)[1:]:
            heading, *lines = section.splitlines()
            sections[heading.split()[0]] = [
                re.sub(r"\\f[BIR]", "", entry) for tag, entry in zip(lines, lines[1:])
                if tag == ".TP"]
        return sections

    def test_has_every_option_of_every_command(self):
        sections = self.sections()
        everywhere = options()
        described = [entry.split(" ")[0].rstrip(",") for entry in sections["OPTIONS"]]
        self.assertTrue(set(described) <= set(everywhere))
        self.assertGreaterEqual(len(described), 5)
        for command in commands():
            names = [name for entry in sections[command] if entry.startswith("-")
                     for name in re.findall(r"(?:^|, )(-[\w-]+)", entry)]
            self.assertEqual(names, [name for name in options(command) if name not in everywhere])

    def test_says_what_an_option_takes_and_whether_it_must_be_there(self):
        train = self.sections()["train"]
        self.assertIn("-o, --output MODEL (required)", train)
        self.assertIn("--algorithm als|bpr", train)
        self.assertIn("--bias", train)
        self.assertEqual(train[0], "FILE")


class Writer(PackagingTest):
    """The program that writes the page and the completions."""

    def run_writer(self, *arguments):
        return subprocess.run([REFERENCE / "zorvex_reference", *arguments], capture_output=True,
                              text=True, check=False)

    def test_refuses_what_it_cannot_do(self):
        path = self.folder / "no folder" / "file"
        for arguments, message in (
                ((), "usage: zorvex_reference manual-page|bash|zsh FILE\n"),
                (("fish", path), "usage: zorvex_reference manual-page|bash|zsh FILE\n"),
                (("zsh", path), f"zorvex_reference: {path} cannot be written\n")):
            result = self.run_writer(*arguments)
            self.assertEqual((result.returncode, result.stderr), (1, message))


class Bash(PackagingTest):
    def offered(self, *words):
        """What is offered for the last word, by the function that bash calls."""
        script = (f"source '{REFERENCE}/zorvex.bash'; compopt() {{ echo \"<$2>\"; }}; "
                  'COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _zorvex; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        return [line for line in
                output_of("bash", "-c", script, "bash", "zorvex", *words,
                          cwd=self.folder).splitlines() if line]

    def test_offers_the_commands(self):
        self.assertGreater(len(commands()), 5)
        self.assertEqual(self.offered(""), commands())
        self.assertEqual(self.offered("--quiet", "tr"), ["train"])

    def test_offers_every_option_of_every_command_once(self):
        everywhere = options()
        self.assertIn("--json", everywhere)
        for command in commands():
            own = [name for name in options(command) if name not in everywhere]
            self.assertEqual(sorted(self.offered(command, "-")), sorted(own + everywhere), command)
        self.assertEqual(sorted(self.offered("-")), sorted(everywhere))

    def test_offers_the_words_that_an_option_takes(self):
        self.assertEqual(self.offered("train", "file", "--algorithm", ""), ["als", "bpr"])
        self.assertEqual(self.offered("train", "file", "--algorithm", "b"), ["bpr"])
        self.assertEqual(self.offered("train", "--holdout", ""), ["leave-one-out"])
        self.assertEqual(self.offered("recommend", "--device", "c"), ["cpu"])

    def test_offers_words_behind_an_equals_sign(self):
        self.assertEqual(self.offered("train", "--algorithm", "="), ["als", "bpr"])
        self.assertEqual(self.offered("train", "--algorithm", "=", "a"), ["als"])

    def test_offers_nothing_for_a_number(self):
        self.assertEqual(self.offered("train", "--dim", ""), [])
        self.assertEqual(self.offered("recommend", "-k", ""), [])

    def test_leaves_files_to_bash(self):
        for words in (("train", ""), ("train", "-o", ""), ("info", ""), ("evaluate", "--test", ""),
                      ("export", "movies.zxm", "")):
            self.assertEqual(self.offered(*words), ["<default>"], words)
        self.assertEqual(self.offered("generate", ""), [])


class Typing(PackagingTest):
    """A shell at a terminal of its own, into which words and tabs are typed."""

    def start(self, *shell, **environment):
        for name in ("ratings.csv", "movies.zxm"):
            (self.folder / name).touch()
        main, terminal = pty.openpty()
        self.addCleanup(os.close, main)
        process = subprocess.Popen(shell, stdin=terminal, stdout=terminal, stderr=terminal,
                                   cwd=self.folder, start_new_session=True,
                                   env={"PATH": f"{TOOL.parent}:/usr/bin:/bin", "TERM": "dumb",
                                        "HOME": str(self.folder), "LC_ALL": "C.UTF-8",
                                        **environment})
        os.close(terminal)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.terminal = main

    def type(self, text):
        os.write(self.terminal, text.encode())

    def await_text(self, wanted):
        """Reads what the shell shows until it shows this."""
        shown = ""
        while wanted not in shown:
            ready, _, _ = select.select([self.terminal], [], [], PATIENCE)
            self.assertTrue(ready, f"no {wanted!r} in {shown!r}")
            shown += os.read(self.terminal, 4096).decode(errors="replace")
        return shown

    def assert_completes(self, typed, completed):
        """One tab completes the line. The end that the shell adds is shown for no other line of a
        test."""
        self.type(f"{typed}\t")
        self.await_text(completed[len(typed):])
        self.type("\x15")  # the line is cleared

    def start_zsh(self):
        self.start("zsh", "-f", "-i", PS1="ready> ")
        self.await_text("ready> ")
        self.type(f"fpath=('{REFERENCE}' $fpath); autoload -Uz compinit; compinit -u; "
                  "echo load''ed\n")
        self.await_text("loaded")

    def test_bash_completes_commands_options_words_and_files(self):
        self.start("bash", "--noprofile", "--norc", "-i", PS1="ready> ")
        self.await_text("ready> ")
        self.type(f"source '{REFERENCE}/zorvex.bash'; echo load''ed\n")
        self.await_text("loaded")
        self.assert_completes("zorvex gen", "zorvex generate ")
        self.assert_completes("zorvex train --algo", "zorvex train --algorithm ")
        self.assert_completes("zorvex train --holdout lea", "zorvex train --holdout leave-one-out ")
        self.assert_completes("zorvex train rat", "zorvex train ratings.csv ")
        self.assert_completes("zorvex train -o mov", "zorvex train -o movies.zxm ")

    def test_zsh_completes_commands_options_words_and_files(self):
        self.start_zsh()
        self.assert_completes("zorvex gen", "zorvex generate ")
        self.assert_completes("zorvex train --algo", "zorvex train --algorithm ")
        self.assert_completes("zorvex train --holdout lea", "zorvex train --holdout leave-one-out ")
        self.assert_completes("zorvex train rat", "zorvex train ratings.csv ")
        self.assert_completes("zorvex -q train -o mov", "zorvex -q train -o movies.zxm ")

    def test_zsh_offers_again_what_may_be_repeated(self):
        self.start_zsh()
        self.type("zorvex recommend movies.zxm --user 1 --us\t")
        self.await_text("--user 1 --user ")


if __name__ == "__main__":
    unittest.main()
