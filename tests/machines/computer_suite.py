"""The frame of the suites on whole computers: a Story makes computers, and says what a run has to come to."""

import os
import time

import suite
from computer import Computer, reason_to_skip
from kernel import Missing
from machine import SETTINGS


class Story(suite.Scenario):
    """A test on computers of its own; skipped, with the reason, where there can be none.

    `long`: the stories of the class run with `./check --long` only.
    """

    recorded = False  # natively only
    long = False

    def setUp(self):
        super().setUp()
        if self.long and not SETTINGS.long:
            self.skipTest("takes minutes; VORNIX_LONG is not set")
        reason = reason_to_skip()
        if reason:
            self.skipTest(reason)
        self.computers = 0
        self.begun = time.monotonic()

    def folder_of_computer(self):
        self.computers += 1
        folder = os.path.join(self.folder, f"computer{self.computers}")
        os.mkdir(folder)
        return folder

    def computer(self, *disks, **options):
        """A computer that is running and has found its disks; it is switched off at the end of the test."""
        try:
            made = Computer(self.folder_of_computer(), disks, **options)
        except Missing as missing:
            self.skipTest(str(missing))
        self.addCleanup(made.stop)
        made.start()
        made.settle()
        return made

    def expect_success(self, result, said):
        self.assertEqual((result.status, result.errors), (0, ""), result)
        self.assertIn(said, result.text)
        return result

    def expect_failure(self, result, said, last_error=None):
        """Status 1, one report on standard error that begins with these words, and the last error where it says one."""
        self.assertEqual(result.status, 1, result)
        self.assertIn(said, result.errors, result)
        if last_error is not None:
            self.assertIn(f"(GetLastError={last_error})", result.errors)
        return result
