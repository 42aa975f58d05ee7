"""One successful run of each command with every byte of memory accounted for.

In the sanitized build the leak sanitizer looks at what is left at the end of the run, as it does in every scenario. In
the plain build valgrind looks at every read of memory that was never written as well, where it is installed.
"""

import copy
import os
import shutil

import suite
from image import build_image
from incremental import marked
from machine import SETTINGS, Machine, pattern
from product import Product
from snapshot import volume_name

SANITIZED = os.path.basename(SETTINGS.build) == "sanitize"
os.environ["ASAN_OPTIONS"] = "detect_leaks=1:" + os.environ.get("ASAN_OPTIONS", "")
VALGRIND = ["valgrind", "--quiet", "--error-exitcode=86", "--leak-check=full",
            "--errors-for-leak-kinds=definite,indirect", "--show-leak-kinds=definite,indirect",
            "--soname-synonyms=somalloc=nouserintercepts", "--show-mismatched-frees=no"]
SIZE = 3 * 4096 + 512
SOURCE = pattern(1048576, "source")
MIB4 = 0x400000
EPOCH = 0x21
PASSWORD = b"correct horse"
KEY = ["--password-file", "password"]


class Memory(suite.Scenario):
    recorded = False

    def setUp(self):
        super().setUp()
        if self.settings.windows or not SANITIZED and shutil.which("valgrind") is None:
            self.skipTest("no tool that looks at memory")

    def watched(self, kind=Machine, **options):
        settings = copy.copy(SETTINGS)
        if not SANITIZED:
            settings.runner = VALGRIND
        made = kind(os.path.join(self.folder, f"m{len(self.machines) + 1}"), settings=settings, **options)
        self.machines.append(made)
        return made

    def expect_clean(self, machine, *arguments):
        result = machine.run(*arguments)
        self.assertEqual((result.status, result.stderr), (0, b""), result.describe())

    def chain(self, password=None):
        machine = self.watched(source=bytes(512), target=bytes(SIZE))
        machine.write("password", PASSWORD)
        build_image(machine.path("base.vrnx"), pattern(SIZE, "base"))
        build_image(machine.path("a.vrnx"), pattern(4096, "new") + pattern(SIZE, "base")[4096:], password=password,
                    base=machine.path("base.vrnx"))
        return machine

    def test_the_product_with_its_own_allocation_functions(self):
        product = self.watched(Product)
        build_image(product.path("a.vrnx"), SOURCE)
        self.expect_clean(product, "consolidate", "--in", "a.vrnx", "--out", "b.vrnx")

    def test_list_disks(self):
        self.expect_clean(self.watched(), "list-disks")

    def test_capture(self):
        self.expect_clean(self.watched(source=SOURCE), "capture", "--disk", "1", "--out", "new.vrnx")

    def test_capture_with_snapshots_over_a_base_by_the_tracker(self):
        machine = self.watched(source=SOURCE)
        build_image(machine.path("base.vrnx"), SOURCE, chunk_size=MIB4, epoch=EPOCH)
        machine.add_volume(volume_name(1), [(1, 4096, 8192)])
        machine.shadow_service([("Registry Writer", 1, 0)])
        machine.tracker([{"number": 1, "has_previous_epoch": 1, "previous_epoch": EPOCH, "current_epoch": EPOCH + 1,
                          "bitmap": marked(len(SOURCE), 16)}])
        self.expect_clean(machine, "capture", "--disk", "1", "--out", "new.vrnx", "--vss", "--base", "base.vrnx",
                          "--thin")

    def test_verify_of_a_sealed_image_over_a_plain_one(self):
        self.expect_clean(self.chain(PASSWORD), "verify", "--in", "a.vrnx", *KEY)

    def test_restore_of_a_chain(self):
        self.expect_clean(self.chain(), "restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES")

    def test_clone(self):
        self.expect_clean(self.watched(source=SOURCE), "clone", "--from", "1", "--to", "2", "--confirm", "YES",
                          "--verify")

    def test_consolidate(self):
        self.expect_clean(self.chain(), "consolidate", "--in", "a.vrnx", "--out", "new.vrnx")

    def test_consolidate_that_seals(self):
        if not SANITIZED:
            self.skipTest("the rounds of a key take too long under valgrind")
        self.expect_clean(self.chain(), "consolidate", "--in", "a.vrnx", "--out", "new.vrnx", "--encrypt", *KEY)


if __name__ == "__main__":
    suite.main()
