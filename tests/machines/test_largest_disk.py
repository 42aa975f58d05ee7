"""The largest disk that has an image: a tracked thin capture of it, over a base of its size, with one chunk changed.

The disk and the base are holes in files, so that nothing but the tables is large. It needs no computer: what is tried
is what the program does with 3,728,270 chunks, on a described machine.
"""

import os
import resource

import image
import suite
from image import MAX_CHUNK_COUNT
from incremental import MIB4, marked
from machine import SETTINGS

SIZE = MAX_CHUNK_COUNT * MIB4
CHANGED = 1234567
# The tables of the base and of the new image, the copy that the digest is taken over, and what the description of the
# machine with its bitmap takes; 32 bytes more a chunk are not meant to pass.
MEMORY = 1050 * 1048576


class LargestDisk(suite.Scenario):
    recorded = False

    def test_a_tracked_thin_capture_reads_the_one_chunk_that_changed(self):
        if not SETTINGS.long:
            self.skipTest("takes minutes; VORNIX_LONG is not set")
        machine = self.machine(source=0, target=bytes(512))
        self.leave_unjudged(machine, "the second reader would read 14 TiB of zeros")
        try:
            os.truncate(machine.disk_path(1), SIZE)
            header = image.Header(SIZE, MIB4, MAX_CHUNK_COUNT, epoch=0x10)
            image.write_sparse_image(machine.path("base.vrnx"), MAX_CHUNK_COUNT, chunk_size=MIB4, header=header)
        except OSError as error:
            self.skipTest(f"no file can be that large here: {error}")
        machine.poke_disk(1, CHANGED * MIB4 + 512, b"changed")
        machine.tracker([{"number": 1, "has_previous_epoch": 1, "previous_epoch": 0x10, "current_epoch": 0x11,
                          "bitmap": marked(SIZE, 16, (CHANGED * MIB4 + 512, 7))}])
        result = machine.run("capture", "--disk", "1", "--base", "base.vrnx", "--thin", "--out", "thin.vrnx",
                             timeout=3600)
        self.assertEqual((result.status, result.stderr), (0, b""))
        self.assertIn(f"(stored 1 of {MAX_CHUNK_COUNT} chunks, {MAX_CHUNK_COUNT - 1} are references to the base; "
                      "read from disk: 1)".encode(), result.stdout)
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss * 1024, MEMORY)
        # The changed chunk is the one that the table has, and it holds the disk's bytes.
        _, records = image.read_table(machine.path("thin.vrnx"))
        stored = [(number, record) for number, record in enumerate(records) if record.stored_length]
        self.assertEqual([number for number, _ in stored], [CHANGED])
        with open(machine.path("thin.vrnx"), "rb") as file:
            file.seek(64 + 72 * MAX_CHUNK_COUNT)
            self.assertTrue(file.read(MIB4) == bytes(512) + b"changed" + bytes(MIB4 - 519), "the chunk has other bytes")


if __name__ == "__main__":
    suite.main()
