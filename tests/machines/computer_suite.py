"""The frame of the suites on whole computers: a Story makes computers, and says what a run has to come to."""

import json
import os
import shutil
import subprocess
import sys
import threading

import suite
from computer import Computer, reason_to_skip
from kernel import Missing
from loop_device import LoopDevice
from machine import SETTINGS


IN_NAMESPACE = "VORNIX_IN_NAMESPACE_OF_ITS_OWN"

_counting = threading.Lock()


def in_namespace():
    return IN_NAMESPACE in os.environ


def enter_namespace():
    """Goes on in a mount namespace of the suite's own, where that can be had: what is mounted goes with it."""
    if in_namespace() or SETTINGS.windows or os.geteuid() != 0 or shutil.which("unshare") is None:
        return
    private = ["unshare", "--mount", "--propagation", "private"]
    if subprocess.run([*private, "true"], capture_output=True, check=False).returncode == 0:
        os.environ[IN_NAMESPACE] = "1"
        os.execvp("unshare", [*private, sys.executable, *sys.argv])


class Counted(suite.Scenario):
    """A test whose count goes into the table in docs/reliability.md."""

    recorded = False  # natively only

    def count(self, kind, case, tried, troubles):
        """The end of a case that tried many things: what it tried goes into the table in docs/reliability.md, where
        VORNIX_COUNTS names a file for its rows (see update_counts.py), and any trouble fails it."""
        target = os.environ.get("VORNIX_COUNTS")
        result = f"{len(troubles)} do not hold" if troubles else "all hold"
        if target:
            with _counting, open(target, "a", encoding="utf-8") as file:
                file.write(json.dumps([kind, case, str(tried), result]) + "\n")
        if troubles:
            self.fail(f"{kind}, {case}, {tried}: {len(troubles)} troubles\n" + "\n".join(map(str, troubles[:20])))

    def mount_new(self, size, make, options, folder):
        """A file system of its own for a folder, until the end of the test; only after `enter_namespace`."""
        path = os.path.join(self.folder, os.path.basename(folder) + ".img")
        with open(path, "wb") as file:
            file.truncate(size)
        subprocess.run([*make.split(), path], check=True, capture_output=True)
        device = LoopDevice(path)
        self.addCleanup(device.detach)
        subprocess.run(["mount", "-o", options, device.path, folder], check=True)
        self.addCleanup(subprocess.run, ["umount", folder], check=True)


class Story(Counted):
    """A test on computers of its own; skipped, with the reason, where there can be none.

    `long`: the stories of the class run with `./check --long` only.
    """

    long = False

    def setUp(self):
        super().setUp()
        if self.long and not SETTINGS.long:
            self.skipTest("takes minutes; VORNIX_LONG is not set")
        reason = reason_to_skip()
        if reason:
            self.skipTest(reason)
        self.computers = 0

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
