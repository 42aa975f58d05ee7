"""Tens of thousands of runs of the program on real files, from one process: see tests/faults/many_runs.cpp.

    with ManyRuns(folder) as runs:
        result = runs.run("verify", "--in", "a.vrnx")           # status, stdout, stderr
        result = runs.run("verify", "--in", "a.vrnx", allocation=3)

Natively only. A status below zero is the signal that ended the run. A `Changed` file takes one change at a time.
"""

import os
import subprocess
from dataclasses import dataclass, field

from machine import SETTINGS


@dataclass
class ManyResult:
    status: int
    allocations: int  # how many the run made until it ended
    stdout: bytes
    stderr: bytes
    meaningless: list = field(default_factory=list)  # as a Result has it


class Answering:
    """A program of this build's tests that answers line by line."""

    def __init__(self, name, folder, **options):
        self.process = subprocess.Popen([os.path.join(SETTINGS.build, "tests", name)], cwd=folder,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, **options)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.process.stdin.close()
        self.process.stdout.close()
        if self.process.wait(60) != 0:
            raise RuntimeError(f"{self.process.args[0]} ended with {self.process.returncode}")

    def ask(self, line):
        self.process.stdin.write(line + b"\n")
        self.process.stdin.flush()
        return self.process.stdout.readline()


class ManyRuns(Answering):
    def __init__(self, folder):
        super().__init__("vornix-many-runs", folder, env=SETTINGS.environment())

    def run(self, *arguments, allocation=0):
        """One run; the allocation of that number fails, and where it is negative all from there on."""
        answer = self.ask("\t".join([str(allocation), *arguments]).encode())
        status, allocations, out, err = map(int, answer.split())
        return ManyResult(status, allocations, self.process.stdout.read(out), self.process.stdout.read(err))


class Changed:
    """A file that differs from its content in one stretch for as long as a `with` lasts."""

    def __init__(self, path):
        self.path = path
        with open(path, "rb") as file:
            self.content = file.read()

    def change(self, offset, data):
        return _Change(self, offset, data)


class _Change:
    def __init__(self, changed, offset, data):
        self.changed, self.offset, self.data = changed, offset, data

    def _put(self, data):
        with open(self.changed.path, "r+b", buffering=0) as file:
            file.seek(self.offset)
            file.write(data)

    def __enter__(self):
        self._put(self.data)

    def __exit__(self, *_):
        self._put(self.changed.content[self.offset:self.offset + len(self.data)])
