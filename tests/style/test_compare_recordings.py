#!/usr/bin/env python3
"""Tries the comparison of two builds' recordings on small ones: what is equal, what is excepted, what is a failure.

Closes with the line that ./check adds up.
"""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import suite

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))

SAME = [{"runs": [{"status": 0, "log": [{"call": "exit"}]}]}]
OTHER = [{"runs": [{"status": 1, "log": [{"call": "exit"}]}]}]


class CompareRecordings(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="vornix-")
        self.addCleanup(shutil.rmtree, self.folder)

    def compare(self, native, wine, exceptions=""):
        """The lines and the status for recordings as {"suite/test": account}."""
        for side, recordings in (("native", native), ("wine", wine)):
            os.mkdir(os.path.join(self.folder, side))
            for name, account in recordings.items():
                path = os.path.join(self.folder, side, name + ".json")
                os.makedirs(os.path.dirname(path), exist_ok=True)
                with open(path, "w", encoding="utf-8") as file:
                    json.dump(account, file)
        path = os.path.join(self.folder, "exceptions.txt")
        with open(path, "w", encoding="utf-8") as file:
            file.write(exceptions)
        done = subprocess.run([sys.executable, os.path.join(ROOT, "tests", "scenarios", "compare_recordings.py"),
                               os.path.join(self.folder, "native"), os.path.join(self.folder, "wine"),
                               "--exceptions", path], capture_output=True, text=True, check=False)
        return done.stdout.splitlines(), done.returncode

    def test_equal_accounts_are_counted_for_each_suite(self):
        both = {"test_a/A.one": SAME, "test_a/A.two": OTHER, "test_long_name/B.one": SAME}
        self.assertEqual(self.compare(both, both), ([
            "scenarios of    natively      Wine  left out     equal  excepted    failed",
            "test_a                 2         2         0         2         0         0",
            "test_long_name         1         1         0         1         0         0",
            "all                    3         3         0         3         0         0",
            "3 passed, 0 failed, 0 skipped"], 0))

    def test_a_difference_is_a_failure_and_is_shown(self):
        lines, status = self.compare({"test_a/A.one": SAME, "test_a/A.two": SAME},
                                     {"test_a/A.one": SAME, "test_a/A.two": OTHER})
        self.assertEqual(status, 1)
        self.assertEqual(lines[2].split(), ["all", "2", "2", "0", "1", "0", "1"])
        self.assertEqual(lines[3:], ["FAILED test_a/A.two",
                                     "    account[0].runs[0].status: 0 natively, 1 under Wine",
                                     "1 passed, 1 failed, 0 skipped"])

    def test_a_scenario_of_one_build_alone_is_a_failure(self):
        lines, status = self.compare({"test_a/A.one": SAME, "test_a/A.two": SAME}, {"test_a/A.one": SAME})
        self.assertEqual((status, lines[-2:]), (1, ["    ran only natively", "1 passed, 1 failed, 0 skipped"]))

    def test_an_exception_is_counted_with_its_reason(self):
        lines, status = self.compare({"test_a/A.one": SAME, "test_a/A.two": SAME}, {"test_a/A.one": SAME},
                                     "# a remark\ntest_a/A.two: cannot be there\n")
        self.assertEqual((status, lines[2:]), (0, [
            "all                  2         1         0         1         1         0",
            "excepted: test_a/A.two: cannot be there",
            "1 passed, 0 failed, 1 skipped"]))

    def test_an_exception_that_is_not_needed_is_a_failure(self):
        both = {"test_a/A.one": SAME}
        lines, status = self.compare(both, both, "test_a/A.one: cannot be there\n")
        self.assertEqual((status, lines[-1]), (1, "1 passed, 1 failed, 0 skipped"))

    def test_what_the_windows_build_leaves_out_is_counted_and_an_exception_of_it_is_not_stale(self):
        lines, status = self.compare({"test_a/A.one": SAME, "test_a/A.two": SAME},
                                     {"test_a/A.one": SAME, "test_a/A.two": None, "test_a/A.unrecorded": None},
                                     "test_a/A.two: cannot be there\n")
        self.assertEqual((status, lines[1:]), (0, [
            "test_a               2         1         1         1         0         0",
            "all                  2         1         1         1         0         0",
            "1 passed, 0 failed, 0 skipped"]))

    def test_a_suite_that_is_left_out_whole_is_a_failure(self):
        lines, status = self.compare({"test_a/A.one": SAME, "test_b/B.one": SAME},
                                     {"test_a/A.one": SAME, "test_b/B.one": None})
        self.assertEqual((status, lines[-3:]), (1, [
            "FAILED test_b", "    has nothing that both builds ran", "1 passed, 1 failed, 0 skipped"]))

    def test_nothing_to_compare_is_a_failure(self):
        self.assertEqual(self.compare({}, {})[1], 1)


if __name__ == "__main__":
    suite.main()
