"""Every allocation of verify and consolidate failing in turn, once and from then on.

Running out of memory for a container is an exception that nobody catches: the process ends abnormally, without a word
of its own. Inside a call of the platform it is that call's failure, with the status or the error that Windows has for
it, and the program reports it like any other. A run never ends as a success for that, and what it leaves is no image to
any reader. Natively, through tests/faults/many_runs.cpp.
"""

import os
import signal
from collections import Counter

import suite
from image import build_image, is_accepted, reference_plain_bytes
from machine import pattern
from many_runs import ManyRuns
from sweep import sample

SIZE = 3 * 512 + 40
FIRST, SECOND = pattern(SIZE, "first"), pattern(512, "second") + pattern(SIZE, "first")[512:]
PASSWORD = b"correct horse"
KEY = ["--password-file", "password"]
UNDER_SANITIZERS = 24
# STATUS_NO_MEMORY, ERROR_NOT_ENOUGH_MEMORY
OUT_OF_MEMORY = rb"\AFATAL: .* \((NTSTATUS 0xC0000017|GetLastError=8)\)\n\Z"


class Allocations(suite.Scenario):
    recorded = False

    def setUp(self):
        super().setUp()
        if self.settings.windows:
            self.skipTest("the many runs that this takes are made natively")
        build_image(self.path("full"), FIRST, chunk_size=512)
        build_image(self.path("thin"), SECOND, chunk_size=512, base=self.path("full"))
        build_image(self.path("sealed"), FIRST, chunk_size=512, password=PASSWORD)
        build_image(self.path("sealed-thin"), SECOND, chunk_size=512, password=PASSWORD, base=self.path("sealed"))
        with open(self.path("password"), "wb") as file:
            file.write(PASSWORD)

    def path(self, name):
        return os.path.join(self.folder, name)

    def kind_of_end(self, result):
        """Which of the two ends a run without memory had; there is no third."""
        if result.status == -signal.SIGABRT:
            self.assertEqual(result.stderr, b"")
            return "abnormal"
        self.assertEqual(result.status, 1)
        self.assertRegex(result.stderr, OUT_OF_MEMORY)
        return "reported"

    def exhaust(self, *arguments, out=None, disk=None):
        """The command with each allocation failing; `out` is what it makes, of `disk`."""
        def remove_output():
            if out is not None and os.path.exists(self.path(out)):
                os.remove(self.path(out))

        with ManyRuns(self.folder) as runs:
            healthy = runs.run(*arguments)
            self.assertEqual((healthy.status, healthy.stderr), (0, b""))
            remove_output()
            self.assertGreater(healthy.allocations, 12)
            kinds = Counter()
            numbers = list(range(1, healthy.allocations + 1))
            for number in sample(numbers, UNDER_SANITIZERS if self.settings.sampled else None):
                for place in (number, -number):
                    result = runs.run(*arguments, allocation=place)
                    with self.subTest(allocation=place):
                        kinds[self.kind_of_end(result)] += 1
                        self.assertNotIn(b"OK", result.stdout)
                        # Ended while it read back what it had made, it leaves the image; before that, none.
                        if out is not None and is_accepted(self.path(out)):
                            self.assertEqual(reference_plain_bytes(self.path(out)), disk)
                    remove_output()
            self.assertGreater(kinds["abnormal"], 0)
            self.assertGreater(kinds["reported"], 0)
            beyond = runs.run(*arguments, allocation=healthy.allocations + 1)
            self.assertEqual(beyond.status, 0, "the run after all those that failed")
            if out is not None:
                self.assertEqual(reference_plain_bytes(self.path(out), PASSWORD), disk)

    def test_verify(self):
        self.exhaust("verify", "--in", "full")

    def test_verify_of_a_thin_image(self):
        self.exhaust("verify", "--in", "thin")

    def test_verify_of_a_sealed_chain(self):
        self.exhaust("verify", "--in", "sealed-thin", *KEY)

    def test_consolidate(self):
        self.exhaust("consolidate", "--in", "thin", "--out", "new", out="new", disk=SECOND)

    def test_consolidate_of_a_sealed_chain(self):
        self.exhaust("consolidate", "--in", "sealed-thin", "--out", "new", *KEY, out="new", disk=SECOND)


if __name__ == "__main__":
    suite.main()
