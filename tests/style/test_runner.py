#!/usr/bin/env python3
"""The runner of the suites: what it leaves out under Wine and the sanitizers is said by name, and counted; what Wine
does not begin is begun again."""

import os
import shlex
import subprocess
import sys
import tempfile
import unittest

import suite
from machine import Settings

TESTS_OF_ONE = 20


class LeftOut(unittest.TestCase):

    def run_long_suite(self, **settings):
        """Runs a suite of scenarios that all pass, with the settings that the builds give to theirs."""
        with tempfile.TemporaryDirectory(prefix="vornix-") as folder:
            scenarios = os.path.join(folder, "scenarios")
            os.mkdir(scenarios)
            script = os.path.join(scenarios, "test_made_up.py")
            with open(script, "w", encoding="utf-8") as file:
                print("import unittest, suite\nclass Made(unittest.TestCase):", file=file)
                for number in range(TESTS_OF_ONE):
                    print(f"    def test_{number:02}(self): pass", file=file)
                print("suite.main()", file=file)
            environment = {name: value for name, value in os.environ.items() if not name.startswith("VORNIX")}
            done = subprocess.run([sys.executable, script], env=environment | settings, capture_output=True, text=True,
                                  check=True)
        return done.stdout.splitlines()

    def test_all_are_run_where_nothing_is_left_out(self):
        self.assertEqual([f"{TESTS_OF_ONE} passed, 0 failed, 0 skipped"], self.run_long_suite())

    def test_each_that_is_left_out_is_named_and_counted(self):
        *names, count = self.run_long_suite(VORNIX_BUILD="sanitize")
        self.assertEqual("7 passed, 0 failed, 13 skipped", count)
        self.assertEqual([f"skipped Made.test_{number:02}: one scenario in three is run here, all with VORNIX_LONG"
                          for number in range(TESTS_OF_ONE) if number % 3], names)

    def test_a_long_run_leaves_none_out(self):
        self.assertEqual([f"{TESTS_OF_ONE} passed, 0 failed, 0 skipped"],
                         self.run_long_suite(VORNIX_LONG="1", VORNIX_BUILD="sanitize"))


class Starts(unittest.TestCase):

    def run_by(self, script, windows):
        """What the settings of a build give that starts its programs by this script of a shell."""
        with tempfile.TemporaryDirectory(prefix="vornix-") as folder:
            suffix = ".exe" if windows else ""
            settings = Settings({"VORNIX_RUNNER": shlex.join(["sh", "-c", script]), "VORNIX_BENCH": "bench" + suffix})
            done = settings.run("program", "argument", cwd=folder)
        return done.returncode, done.stdout, done.stderr

    def test_a_start_that_wine_gave_up_is_made_again(self):
        begins_late = 'echo >> starts; [ $(wc -l < starts) -lt 3 ] && exit 1; echo "$0 $1"; exit 5'
        self.assertEqual((5, b"program argument\n", b""), self.run_by(begins_late, windows=True))
        self.assertEqual((1, b"", b""), self.run_by(begins_late, windows=False))

    def test_a_program_that_never_begins_or_says_something_is_taken_at_its_word(self):
        self.assertEqual((1, b"", b""), self.run_by("exit 1", windows=True))
        says = "echo >> starts; cat starts >&2; exit 1"
        self.assertEqual((1, b"", b"\n"), self.run_by(says, windows=True))


suite.main()
