"""What is in vornix.exe and vrnx.exe besides the programs: imports, the protections in the headers, resources.

Read from the file itself, with a small reader of the published PE/COFF format. Needs build/windows; skipped without it.
"""

import glob
import os
import struct
import sys
import unittest
import xml.etree.ElementTree

import suite

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))

BUILD = os.path.join(ROOT, "build", "windows")

DYNAMIC_BASE, HIGH_ENTROPY, NX_COMPATIBLE = 0x0040, 0x0020, 0x0100
IMPORT_DIRECTORY, RESOURCE_DIRECTORY, RELOCATION_DIRECTORY, DELAY_DIRECTORY = 1, 2, 5, 13
RESOURCE_VERSION, RESOURCE_MANIFEST = 16, 24
# Windows 10, under which the later ones and their servers go too.
SUPPORTED_SYSTEMS = ["{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}"]


class Executable:
    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = file.read()
        pe, = struct.unpack_from("<I", self.data, 0x3C)
        assert self.data[pe:pe + 4] == b"PE\0\0"
        (self.machine, sections, self.time, _, _, optional_size,
         self.characteristics) = struct.unpack_from("<HHIIIHH", self.data, pe + 4)
        optional = pe + 24
        assert struct.unpack_from("<H", self.data, optional)[0] == 0x20B
        self.dll_characteristics, = struct.unpack_from("<H", self.data, optional + 70)
        self.subsystem, = struct.unpack_from("<H", self.data, optional + 68)
        self.directories = [struct.unpack_from("<II", self.data, optional + 112 + 8 * i) for i in range(16)]
        self.sections = []
        for index in range(sections):
            at = optional + optional_size + 40 * index
            virtual_size, address, size, pointer = struct.unpack_from("<IIII", self.data, at + 8)
            flags, = struct.unpack_from("<I", self.data, at + 36)
            self.sections.append((address, max(virtual_size, size), pointer, flags))

    def offset(self, address):
        for start, length, pointer, _ in self.sections:
            if start <= address < start + length:
                return pointer + address - start
        raise ValueError(hex(address))

    def text(self, address):
        at = self.offset(address)
        return self.data[at:self.data.index(b"\0", at)].decode("ascii")

    def names(self, directory, entry_size, name_at):
        address, size = self.directories[directory]
        if size == 0:
            return set()
        names, at = set(), self.offset(address)
        while True:
            name, = struct.unpack_from("<I", self.data, at + name_at)
            if name == 0:
                return names
            names.add(self.text(name).lower())
            at += entry_size

    def resource(self, kind):
        """The bytes of the first resource of a kind, or None."""
        base = self.offset(self.directories[RESOURCE_DIRECTORY][0])
        at, wanted = base, kind
        for _ in range(3):
            named, numbered = struct.unpack_from("<HH", self.data, at + 12)
            for index in range(named + numbered):
                name, target = struct.unpack_from("<II", self.data, at + 16 + 8 * index)
                if wanted is None or name == wanted:
                    break
            else:
                return None
            wanted = None
            at = base + (target & 0x7FFFFFFF)
        address, size = struct.unpack_from("<II", self.data, at)
        return self.data[self.offset(address):self.offset(address) + size]


class WindowsExecutable:
    """What holds for each executable."""

    # All of these are part of every Windows. A new one is to be thought about before it is added here. And these are in
    # the memory of Windows before any program starts, so that none of their names is looked for anywhere.
    imports = delayed_imports = nothing_to_guard = frozenset()
    name = None

    def setUp(self):
        path = os.path.join(BUILD, self.name)
        if not os.path.exists(path):
            self.skipTest("no Windows build here")
        self.file = Executable(path)

    def own_objects(self):
        """The object files of the program's own units."""
        raise NotImplementedError

    def test_it_is_a_console_program_for_x64(self):
        self.assertEqual(self.file.machine, 0x8664)
        self.assertEqual(self.file.subsystem, 3)

    def test_it_needs_no_library_beside_those_of_every_windows(self):
        self.assertEqual(self.file.names(IMPORT_DIRECTORY, 20, 12), self.imports)

    def test_what_windows_has_not_in_memory_is_loaded_when_it_is_called_and_not_before(self):
        imports = self.file.names(IMPORT_DIRECTORY, 20, 12)
        self.assertEqual(imports & self.delayed_imports, set())
        delayed = self.file.names(DELAY_DIRECTORY, 32, 4)
        if delayed:
            self.assertEqual(delayed, self.delayed_imports)
        else:
            # The tool that makes the import keeps its descriptor in the data without listing it in the headers.
            for name in self.delayed_imports:
                self.assertIn(name.encode(), self.file.data.lower())

    def test_it_names_no_folder_of_the_build(self):
        for path in (ROOT, "build/windows", "CMakeFiles"):
            self.assertNotIn(path.encode(), self.file.data)
            self.assertNotIn(path.replace("/", "\\").encode(), self.file.data)

    def test_its_addresses_are_randomised_and_its_data_is_not_executed(self):
        for flag in (DYNAMIC_BASE, HIGH_ENTROPY, NX_COMPATIBLE):
            self.assertTrue(self.file.dll_characteristics & flag, hex(flag))
        self.assertFalse(self.file.characteristics & 0x0001, "relocations are stripped")
        self.assertGreater(self.file.directories[RELOCATION_DIRECTORY][1], 0)

    def test_no_section_is_writable_and_executable(self):
        for _, _, _, flags in self.file.sections:
            self.assertFalse(flags & 0x80000000 and flags & 0x20000000)

    def test_its_manifest_asks_for_no_more_than_the_caller_has(self):
        manifest = xml.etree.ElementTree.fromstring(self.file.resource(RESOURCE_MANIFEST))
        wanted = {}
        for element in manifest.iter():
            wanted.setdefault(element.tag.split("}")[1], []).append(element.attrib)
        self.assertEqual(wanted["requestedExecutionLevel"], [{"level": "asInvoker", "uiAccess": "false"}])
        self.assertEqual([attributes["Id"] for attributes in wanted["supportedOS"]], SUPPORTED_SYSTEMS)
        # Paths of images have one limit everywhere, and narrow texts the system's code page.
        for unwanted in ("longPathAware", "activeCodePage"):
            self.assertNotIn(unwanted, wanted)

    def test_its_version_is_that_of_the_build(self):
        with open(os.path.join(ROOT, "CMakeLists.txt"), encoding="utf-8") as file:
            version = file.read().split("project(vornix VERSION ", 1)[1].split()[0]
        resource = self.file.resource(RESOURCE_VERSION)
        for name, value in (("FileVersion", version), ("ProductVersion", version), ("OriginalFilename", self.name)):
            pair = (name + "\0").encode("utf-16-le")
            behind = resource[resource.index(pair) + len(pair):].lstrip(b"\0")
            self.assertTrue(behind.startswith((value + "\0").encode("utf-16-le")), name)
        # The same once more as numbers, behind a signature.
        numbers = struct.unpack_from("<HHHH", resource, resource.index(struct.pack("<I", 0xFEEF04BD)) + 8)
        major, minor, patch = map(int, version.split("."))
        self.assertEqual(numbers, (minor, major, 0, patch))

    def test_it_carries_no_time_of_its_making(self):
        self.assertEqual(self.file.time, 0)

    def test_it_carries_stack_protection_in_the_program_s_own_units(self):
        self.assertIn(b"stack smashing detected", self.file.data)
        objects = self.own_objects()
        self.assertGreater(len(objects), 20)
        unguarded = set()
        for path in objects:
            with open(path, "rb") as file:
                if b"__stack_chk_fail" not in file.read():
                    unguarded.add(os.path.basename(path))
        self.assertEqual(unguarded - self.nothing_to_guard, set())


class Vornix(WindowsExecutable, unittest.TestCase):
    name = "vornix.exe"
    imports = {"advapi32.dll", "kernel32.dll", "msvcrt.dll", "ole32.dll", "oleaut32.dll"}
    delayed_imports = {"bcrypt.dll", "vssapi.dll"}
    # These two keep nothing on their stack that an overrun could leave.
    nothing_to_guard = {"aligned_buffer.cpp.obj", "read_routing.cpp.obj"}

    def own_objects(self):
        return glob.glob(os.path.join(BUILD, "CMakeFiles", "vornix_program.dir", "src", "*", "*.obj"))


class Vrnx(WindowsExecutable, unittest.TestCase):
    name = "vrnx.exe"
    imports = {"advapi32.dll", "kernel32.dll", "msvcrt.dll"}
    delayed_imports = {"bcrypt.dll"}
    nothing_to_guard = set()

    def own_objects(self):
        return glob.glob(os.path.join(BUILD, "reader", "**", "*.cpp.obj"), recursive=True)


if __name__ == "__main__":
    sys.exit(suite.main())
