"""What protects the Linux executables and libraries besides their sources: what their ELF headers say of it.

Read from the files themselves, with a small reader of the published ELF-64 format. Needs build/linux.
"""

import os
import struct
import sys
import unittest

import suite

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.join(ROOT, "build", "linux")
# What is installed: the programs, and what other programs load.
PROGRAMS = [name for name in ("vornix", "vornix-disks", "vrnx") if os.path.exists(os.path.join(BUILD, name))]
LIBRARIES = [name for name in ("libvrnx.so.0", "nbdkit-vrnx-plugin.so") if os.path.exists(os.path.join(BUILD, name))]

SHARED_OBJECT, X86_64 = 3, 62
DYNAMIC, STACK, RELRO = 2, 0x6474E551, 0x6474E552
EXECUTE = 1
STRING_TABLE, SYMBOL_TABLE, FLAGS, FLAGS_1 = 5, 6, 30, 0x6FFFFFFB
BIND_NOW, NOW, PIE = 8, 1, 0x08000000


class Elf:
    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = file.read()
        assert self.data[:5] == b"\x7fELF\x02"
        self.kind, self.machine = struct.unpack_from("<HH", self.data, 16)
        start, = struct.unpack_from("<Q", self.data, 32)
        size, count = struct.unpack_from("<HH", self.data, 54)
        # Of each segment: kind, flags, offset, address, bytes in the file.
        self.segments = [struct.unpack_from("<IIQQ8xQ", self.data, start + index * size) for index in range(count)]
        (_, _, offset, _, length), = (segment for segment in self.segments if segment[0] == DYNAMIC)
        self.dynamic = dict(struct.unpack_from("<QQ", self.data, offset + 16 * index) for index in range(length // 16))

    def segment(self, kind):
        return next((segment for segment in self.segments if segment[0] == kind), None)

    def names(self):
        """Every name in the table of names that the loader reads, of what is called and of what is offered."""
        address = self.dynamic[STRING_TABLE]
        _, _, offset, first, length = next(
            segment for segment in self.segments if segment[0] == 1 and segment[3] <= address < segment[3] + segment[4])
        table = self.data[offset + address - first:offset + length]
        return set(table.split(b"\0"))


@unittest.skipUnless(PROGRAMS, "no Linux build here")
class LinuxExecutables(unittest.TestCase):
    def each(self, names=None):
        for name in names or PROGRAMS + LIBRARIES:
            with self.subTest(name):
                yield Elf(os.path.join(BUILD, name))

    def test_the_program_is_among_them(self):
        self.assertIn("vornix", PROGRAMS)
        for elf in self.each():
            self.assertEqual(elf.machine, X86_64)

    def test_their_addresses_are_randomised(self):
        for elf in self.each():
            self.assertEqual(elf.kind, SHARED_OBJECT)
        for elf in self.each(PROGRAMS):
            self.assertTrue(elf.dynamic[FLAGS_1] & PIE)

    def test_what_the_loader_fills_in_is_bound_at_the_start_and_read_only_from_then_on(self):
        for elf in self.each():
            self.assertIsNotNone(elf.segment(RELRO))
            self.assertTrue(elf.dynamic.get(FLAGS, 0) & BIND_NOW)
            self.assertTrue(elf.dynamic.get(FLAGS_1, 0) & NOW)

    def test_no_stack_is_executed_and_nothing_is_writable_and_executable(self):
        for elf in self.each():
            self.assertIsNotNone(elf.segment(STACK))
            self.assertFalse(elf.segment(STACK)[1] & EXECUTE)
            for _, flags, *_ in elf.segments:
                self.assertNotEqual(flags & 3, 3)

    def test_stacks_are_guarded_and_buffers_checked_where_their_size_is_known(self):
        for elf in self.each():
            self.assertIn(b"__stack_chk_fail", elf.names())
        checked = [name for name in Elf(os.path.join(BUILD, "vornix")).names() if name.endswith(b"_chk")]
        self.assertGreater(len(checked), 1, "nothing was compiled with _FORTIFY_SOURCE")


if __name__ == "__main__":
    sys.exit(suite.main())
