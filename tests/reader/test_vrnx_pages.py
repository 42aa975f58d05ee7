"""The pages of vrnx: usage text, manual page, README, the page of the JSON fields and the completion tell the same."""

import os
import re
import shutil
import subprocess

import suite
from machine import CHECKOUT
from vrnx_runs import GOOD, SCHEMAS, USAGE, VrnxScenario

COMMANDS = ["info", "list", "check", "diff", "map", "export"]
OPTIONS = {"info": ["--json"], "list": ["--json"], "check": ["--password-file", "--jobs", "--part", "--json"],
           "diff": ["--json"], "map": ["--check", "--svg"], "export": ["--password-file", "--salvage", "--from"]}


def read(*parts):
    with open(os.path.join(CHECKOUT, *parts), encoding="utf-8") as file:
        return file.read()


def squeezed(lines):
    return [" ".join(line.split()) for line in lines]


class Pages(VrnxScenario):
    def usage(self):
        return re.findall(r"(?m)^  (vrnx [a-z].*)$", self.vrnx().run("--help").stdout.decode())

    def test_usage_texts(self):
        vrnx = self.vrnx()
        for arguments in (("--help",), ("-h",)):
            result = vrnx.run(*arguments)
            self.assertEqual((result.status, result.stderr), (GOOD, b""))
        self.assertEqual([line.split()[1] for line in self.usage()], COMMANDS)
        for command in COMMANDS:
            for arguments in ((command, "--help"), (command, "x", "y", "z", "-h")):
                result = vrnx.run(*arguments)
                self.assertEqual((result.status, result.stderr), (GOOD, b""))
                text = result.stdout.decode()
                line = text.splitlines()[0].removeprefix("Usage: ")
                self.assertIn(" ".join(line.split()), squeezed(self.usage()))
                # Each option is in the line, and is told of below it, and is known.
                self.assertEqual(re.findall(r"--[a-z-]+", line), OPTIONS[command])
                self.assertEqual(re.findall(r"(?m)^  (--[a-z-]+)", text), OPTIONS[command])
                self.assertLessEqual(max(map(len, text.splitlines())), 120)

    def test_version(self):
        version = re.search(r"project\(vornix VERSION ([0-9.]+)", read("CMakeLists.txt")).group(1)
        self.expect(self.vrnx().run("--version"), GOOD, f"vrnx {version}\n", "")

    def test_wrong_commands(self):
        vrnx = self.vrnx()
        for arguments in ((), ("",), ("frob",), ("INFO", "x"), ("--frob",), ("-",), ("--",), ("--json", "info")):
            result = vrnx.run(*arguments)
            self.expect_failure(result, USAGE, "vrnx --help")

    def test_each_page_has_the_commands_of_the_usage_text(self):
        self.assertEqual(re.findall(r"(?m)^    (vrnx [a-z].*)$", read("README.md")), self.usage())
        synopsis = read("man", "vrnx.1").split(".SH SYNOPSIS")[1].split(".SH DESCRIPTION")[0]
        synopsis = re.sub(r"\\f[BIR]", "", synopsis).replace("\\-", "-")
        self.assertEqual(re.findall(r"(?m)^(vrnx .*)$", synopsis), squeezed(self.usage()))

    def test_manual_page_tells_of_each_option_and_has_no_warnings(self):
        page = read("man", "vrnx.1").replace("\\-", "-")
        for option in {option for options in OPTIONS.values() for option in options} | {"--help", "--version"}:
            self.assertRegex(page, rf"(?m)^\.B[I]? {option}\b")
        done = subprocess.run(["groff", "-man", "-ww", "-z", os.path.join(CHECKOUT, "man", "vrnx.1")],
                              capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_the_page_of_the_documents_has_every_field_in_its_order(self):
        page = read("docs", "vrnx-json.md")
        for command, objects in SCHEMAS.items():
            section = re.search(rf"(?ms)^## vrnx {command}$(.*?)(?=^## |\Z)", page).group(1)
            tables = [re.findall(r"(?m)^\| `(\w+)` \|", table) for table in section.split("\n\n")]
            tables = [table for table in tables if table]
            # What is told in the row of its parent has no table of its own.
            told = [fields for name, fields in objects.items() if name not in ("chunks", "ranges")]
            self.assertEqual(tables, told, command)
            for name in ("chunks", "ranges"):
                for field in objects.get(name, []):
                    self.assertIn(f"`{field}`", section)

    def complete(self, vrnx, *words):
        """What bash completes the last of these words to."""
        script = ('source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vrnx; printf "%s\\n" "${COMPREPLY[@]}"')
        done = subprocess.run(["bash", "--norc", "-c", script, os.path.join(CHECKOUT, "reader", "cli", "vrnx.bash"),
                               "vrnx", *words], cwd=vrnx.work, capture_output=True, text=True, check=True)
        self.assertEqual(done.stderr, "")
        return sorted(line for line in done.stdout.splitlines() if line)

    def test_completion(self):
        if shutil.which("bash") is None:
            self.skipTest("bash is not installed")
        vrnx = self.vrnx()
        for name in ("one.vrnx", "two.VRNX", "three.vrnx.partial", "notes.txt"):
            vrnx.write(name, b"")
        os.mkdir(vrnx.path("folder"))
        self.assertEqual(self.complete(vrnx, ""), sorted([*COMMANDS, "--help", "--version"]))
        self.assertEqual(self.complete(vrnx, "e"), ["export"])
        for command in COMMANDS:
            self.assertEqual(self.complete(vrnx, command, "--"), sorted([*OPTIONS[command], "--help"]))
        images = ["folder", "one.vrnx", "three.vrnx.partial", "two.VRNX"]
        self.assertEqual(self.complete(vrnx, "check", "one.vrnx", ""), images)
        self.assertEqual(self.complete(vrnx, "list", ""), ["folder"])
        self.assertEqual(self.complete(vrnx, "map", "one.vrnx", "--check", "no"), ["notes.txt"])
        self.assertEqual(self.complete(vrnx, "export", "one.vrnx", "o"), ["one.vrnx"])
        self.assertEqual(self.complete(vrnx, "check", "--part", ""), [])


if __name__ == "__main__":
    suite.main()
