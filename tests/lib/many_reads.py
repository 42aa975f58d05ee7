"""Thousands of openings by the library, from one process: see tests/reader/many_reads.cpp.

    with ManyReads() as reads:
        code, bad, text = reads.read("a.vrnx", b"password")     # how it opened; {chunk: code}; the text of a failure

Natively only.
"""

import os

from many_runs import Answering


class ManyReads(Answering):
    def __init__(self, folder):
        super().__init__("vrnx-many-reads", folder)

    def read(self, path, password=b"", flags=0):
        answer = self.ask(b"%d\t%s\t%s" % (flags, os.fsencode(path), password))
        code, bad, text = answer.rstrip(b"\n").split(b"\t")
        return int(code), dict(map(int, pair.split(b"=")) for pair in bad.split()), text
