"""Thousands of openings by the library, from one process: see tests/reader/many_reads.cpp.

    with ManyReads() as reads:
        code, bad, text = reads.read("a.vrnx", b"password")     # how it opened; {chunk: code}; the text of a failure

Natively only.
"""

import os
import subprocess

from machine import SETTINGS


class ManyReads:
    def __init__(self, folder, settings=SETTINGS):
        self.process = subprocess.Popen([os.path.join(settings.build, "tests", "vrnx-many-reads")], cwd=folder,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.stdout.close()
        if self.process.wait(60) != 0:
            raise RuntimeError(f"the process of many reads ended with {self.process.returncode}")

    def read(self, path, password=b"", flags=0):
        self.process.stdin.write(b"%d\t%s\t%s\n" % (flags, os.fsencode(path), password))
        self.process.stdin.flush()
        code, bad, text = self.process.stdout.readline().rstrip(b"\n").split(b"\t")
        return int(code), dict(map(int, pair.split(b"=")) for pair in bad.split()), text
