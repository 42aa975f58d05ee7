#!/usr/bin/env python3
"""The runner of the suites: what it leaves out under Wine and the sanitizers is said by name, and counted."""

import os
import subprocess
import sys
import tempfile
import unittest

import suite

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


suite.main()
