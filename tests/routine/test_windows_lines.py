#!/usr/bin/env python3
"""The lines of the Windows routine with vornix and vrnx, run on a described machine with their variables filled in.

There is no PowerShell in Debian: what the script does round these lines is not tried here, and it says so itself.
"""

import itertools
import os
import re
import shlex
import subprocess

import suite
from machine import CHECKOUT, pattern

SCRIPT = os.path.join(CHECKOUT, "packaging", "routine", "vornix-backup.ps1")
LINUX = os.path.join(CHECKOUT, "packaging", "routine", "vornix-backup")

# A list of arguments begins so, grows so under a condition, and is handed to a program.
LIST = re.compile(r"^ +\$(\w+) = @\('(\w+)', (.*)\)$", re.M)
ADDED = re.compile(r"^ +if \((.*?)\) \{ \$(\w+) \+= (.*) \}$", re.M)
CALL = re.compile(r"Invoke-Program \$(\w+) \$(\w+)|& \$(\w+) @(\w+)")


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def split_arguments(text):
    """The items of a PowerShell list, unquoted."""
    return [item.strip("'\"") for item in re.split(r", ?", text)]


class WindowsLines(suite.Scenario):
    recorded = False

    def lists(self):
        """Each list of arguments: its name, and what it holds under each combination of its conditions."""
        text = read(SCRIPT)
        made = {}
        for name, command, rest in LIST.findall(text):
            begin = [command, *split_arguments(rest)]
            extra = [(condition, split_arguments(more)) for condition, of, more in ADDED.findall(text) if of == name]
            made[name] = [(begin + [word for _, words in chosen for word in words], {what for what, _ in chosen})
                          for count in range(len(extra) + 1) for chosen in itertools.combinations(extra, count)]
        return made

    def test_each_program_is_called_with_a_list_that_is_looked_at_here(self):
        text = read(SCRIPT)
        named = {(a or c, b or d) for a, b, c, d in CALL.findall(text)}
        self.assertEqual(named, {("Vornix", "verify"), ("Vornix", "capture"), ("Vrnx", "list"),
                                 ("program", "arguments")})
        self.assertEqual(set(self.lists()), {"verify", "capture", "list"})
        self.assertEqual(len(re.findall(r"\$Vornix\b|\$Vrnx\b", text)), 8, "nowhere else is a program run")

    def test_one_thing_is_a_list_of_one(self):
        """PowerShell gives a function's list of one as the thing itself, of which [-1] is a letter. So @( ) makes a
        list of what the functions for names give, wherever it is taken."""
        text = read(SCRIPT)
        functions = text.split("\nfunction Get-Images(")[1].split("\nfunction Move-ToQuarantine(")[0]
        calls = re.findall(r"(?<!function )(.?.?)\bGet-(?:Images|Chains|ImagesOfChain)\b",
                           text.replace("\nfunction Get-Images(" + functions, ""))
        self.assertGreaterEqual(len(calls), 6)
        self.assertEqual(set(calls), {"@("})

    def test_times_are_written_and_read_the_same_in_every_country(self):
        """There are calendars with other years, and times without colons."""
        formats = re.findall(r"\.ToString\('[^)]*\)|ParseExact\(.*\)", read(SCRIPT))
        self.assertGreaterEqual(len(formats), 4)
        self.assertEqual([one for one in formats if "$invariant)" not in one], [])

    def test_each_line_of_vornix_runs(self):
        machine = self.machine(source=pattern(3 * 4194304 + 512))
        machine.shadow_service([("System Writer", 1, "0x0")])
        machine.add_volume("\\\\?\\Volume{11111111-2222-3333-4444-555555555555}\\", [(1, 4194304, 4194304)])
        machine.write("password.txt", b"five random words\n")
        self.expect_success(machine.run("capture", "--disk", "1", "--out", "base.vrnx"))
        runs = 0
        for words, conditions in self.lists()["capture"]:
            image = f"new{runs}.vrnx"
            places = {"$Disk": "1", "$Folder\\$image": image, "$Folder\\$base": "base.vrnx",
                      "$PasswordFile": "password.txt"}
            done = machine.run(*[places.get(word, word) for word in words])
            self.expect_success(done)
            self.assertEqual(b"(thin)" in done.stdout, "$base" in conditions)
            self.assertEqual(b"1 volume(s) snapshotted" in done.stdout, "$Snapshot" in conditions)
            sealed = "$PasswordFile" in conditions
            for check, asked in self.lists()["verify"]:
                places = {"$Folder\\$file": image, "$PasswordFile": "password.txt"}
                verified = machine.run(*[places.get(word, word) for word in check])
                good = not sealed or "$PasswordFile" in asked
                self.assertEqual(verified.status, 0 if good else 1, verified.describe())
            runs += 1
        self.assertGreaterEqual(runs, 8)

    def expect_success(self, result):
        self.assertEqual(result.status, 0, result.describe())
        self.assertNotRegex("".join(str(word) for word in result.arguments), r"\$")

    def test_the_line_of_vrnx_runs(self):
        vrnx = os.path.join(self.settings.build, "vrnx")
        if not os.path.exists(vrnx):
            self.skipTest("vrnx was not built")
        machine = self.machine(source=pattern(4096))
        self.expect_success(machine.run("capture", "--disk", "1", "--out", "base.vrnx"))
        (words, _), = self.lists()["list"]
        folder = os.path.dirname(machine.path("base.vrnx"))
        done = subprocess.run([vrnx, *[folder if word == "$Folder" else word for word in words]],
                              capture_output=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn(b'"deletable"', done.stdout)

    def test_both_routines_judge_a_snapshot_alike(self):
        """What counts as a fall-back is one expression in both, and those of the program's lines that are one fit
        it."""
        windows = "".join(re.findall(r"'(\^ \*--vss: [^']*|\.\*[^']* - read live[^']*)'", read(SCRIPT)))
        linux, = re.findall(r"'(\^ \*--vss: .*)'", read(LINUX))
        self.assertEqual(windows, linux)
        for line, falls_back in (
                ("  --vss: CoInitializeEx failed (0x80004005) - reading live instead (crash-consistent only).", True),
                ("  --vss: could not add volume X to the snapshot set (0x80042308) - read live.", True),
                ("  --vss: 0 volume(s) snapshotted via IVssBackupComponents; anything outside", True),
                ("  --vss: 1 volume(s) snapshotted via IVssBackupComponents; anything outside", False),
                ("  --vss: volume X can't be snapshotted (removable/unsupported) - it will be read live.", False)):
            with self.subTest(line):
                self.assertEqual(re.match(windows, line) is not None, falls_back)

    def test_the_scheduled_command_is_the_one_that_is_tried_by_hand(self):
        page = read(os.path.join(CHECKOUT, "docs", "routine-windows.md"))
        command = "powershell.exe -NoProfile -ExecutionPolicy Bypass -File C:\\tools\\vornix-backup.ps1"
        self.assertIn(f"    {command}\n", page)
        scheduled, = re.findall(r"^ +(schtasks .*)$", page, re.M)
        words = shlex.split(scheduled.replace("\\", "\\\\"))
        self.assertEqual(words[words.index("/TR") + 1], command)
        self.assertIn(command, read(SCRIPT))


if __name__ == "__main__":
    suite.main()
