"""Every reason for which restore and clone refuse, in one table: status 1 with its report, and not one byte written.

"Not one byte" is said by the log, in which no call writes to a disk or tells one to read its partition table again, and
by the disks, which hold what they held. The reports themselves are held word for word by the suites of the two
commands; here a part of each shows that it was this reason and no other.
"""

import os

import suite
from image import ImageBuilder, build_image
from machine import UPDATE_PROPERTIES, pattern

CHUNK = 4096
SIZE = 3 * CHUNK + 512
PASSWORD = b"correct horse"
RESTORE = ["restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES"]
SEALED = [*RESTORE, "--password-file", "password"]
CLONE = ["clone", "--from", "1", "--to", "2", "--confirm", "YES", "--verify"]
NO_IMAGE = "not a recognized Vornix image"


def without(arguments, option):
    at = arguments.index(option)
    return arguments[:at] + arguments[at + 2:]


def replaced(arguments, option, value):
    at = arguments.index(option)
    return [*arguments[:at + 1], value, *arguments[at + 2:]]


def thin(machine, **options):
    """a.vrnx over base.vrnx."""
    build_image(machine.path("base.vrnx"), pattern(SIZE, "base"))
    build_image(machine.path("a.vrnx"), pattern(SIZE, "image"), base=machine.path("base.vrnx"), **options)


def changed(change, **options):
    """a.vrnx as a builder makes it after a change."""
    def prepare(machine):
        builder = ImageBuilder(pattern(SIZE, "image"), **options)
        change(builder)
        builder.write(machine.path("a.vrnx"))
    return prepare


def header(**fields):
    return changed(lambda builder: [setattr(builder.header, name, value) for name, value in fields.items()])


def cut(count):
    """a.vrnx cut to so many bytes."""
    def prepare(machine):
        machine.write("a.vrnx", ImageBuilder(pattern(SIZE, "image")).to_bytes()[:count])
    return prepare


def sealed(password_file):
    def prepare(machine):
        build_image(machine.path("a.vrnx"), pattern(SIZE, "image"), password=PASSWORD)
        if password_file is not None:
            machine.write("password", password_file)
    return prepare


def target(**fields):
    return lambda machine: machine.disk(2).update(fields)


def fault(call, **effect):
    return lambda machine: machine.add_fault(call, **effect)


def swap_base(machine):
    thin(machine)
    build_image(machine.path("base.vrnx"), pattern(SIZE, "another"))


def remove_base(machine):
    thin(machine)
    os.remove(machine.path("base.vrnx"))


def base_of_another_shape(machine):
    build_image(machine.path("base.vrnx"), pattern(SIZE, "base")[:-512])
    builder = ImageBuilder(pattern(SIZE, "image"))
    thin_builder = ImageBuilder(pattern(SIZE, "image")[:-512], base=machine.path("base.vrnx"))
    builder.header.version, builder.trailer = 3, thin_builder.trailer
    builder.write(machine.path("a.vrnx"))


def trailer(**fields):
    def prepare(machine):
        build_image(machine.path("base.vrnx"), pattern(SIZE, "base"))
        builder = ImageBuilder(pattern(SIZE, "image"), base=machine.path("base.vrnx"))
        for name, value in fields.items():
            setattr(builder.trailer, name, value)
        builder.write(machine.path("a.vrnx"))
    return prepare


def loop(machine):
    builder = ImageBuilder(pattern(SIZE, "image"))
    builder.write(machine.path("a.vrnx"))
    thin_builder = ImageBuilder(pattern(SIZE, "image"), base=machine.path("a.vrnx"), base_name=b"a.vrnx")
    thin_builder.write(machine.path("a.vrnx"))


def record(index, **fields):
    return changed(lambda builder: [setattr(builder.records[index], name, value) for name, value in fields.items()])


# (what, arguments, preparation of the machine, a part of the report)
REFUSALS = [
    ("restore onto the system disk", replaced(RESTORE, "--disk", "0"), None, "currently running from"),
    ("restore without a system volume", RESTORE, lambda machine: machine.system_volume(None), "could not open C:"),
    ("restore without an answer of the system volume", RESTORE, fault("DeviceIoControl", error=5, path="C:"),
     "IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed"),
    ("restore without a confirmation", without(RESTORE, "--confirm"), None, "Pass --confirm YES"),
    ("restore with another confirmation", replaced(RESTORE, "--confirm", "yes"), None, "Pass --confirm YES"),
    ("restore of nothing", RESTORE, lambda machine: os.remove(machine.path("a.vrnx")), "could not open image file"),
    ("restore of an empty file", RESTORE, cut(0), "could not read image header"),
    ("restore of less than a header", RESTORE, cut(63), "could not read image header"),
    ("restore of less than a table", RESTORE, cut(64 + 72 * 4 - 1), "truncated before its chunk table"),
    ("restore of less than the chunks", RESTORE, cut(64 + 72 * 4 + SIZE - 1), "extends past end of file"),
    ("restore of zeros", RESTORE, lambda machine: machine.write("a.vrnx", bytes(4096)), NO_IMAGE),
    ("restore of another version", RESTORE, header(version=4), NO_IMAGE),
    ("restore of a bad geometry", RESTORE, header(sector_size=768), "invalid disk/sector/chunk geometry"),
    ("restore of a disk of no bytes", RESTORE, header(disk_size=0), "invalid disk/sector/chunk geometry"),
    ("restore of bad key parameters", RESTORE, header(kdf_iterations=1), "invalid encryption/KDF parameters"),
    ("restore of an impossible count", RESTORE, header(chunk_count=5), "impossible chunk count"),
    ("restore of a bad offset", RESTORE, record(1, disk_offset=0), "invalid offset or length"),
    ("restore of a bad length", RESTORE, record(1, stored_length=1), "invalid offset or length"),
    ("restore of a reference in a full image", RESTORE, record(1, stored_length=0), "invalid offset or length"),
    ("restore of a sealed image without a password", RESTORE, sealed(None), "this image is encrypted"),
    ("restore with a missing password file", SEALED, sealed(None), "could not open password file"),
    ("restore with an empty password file", SEALED, sealed(b"\r\n"), "password file is empty"),
    ("restore with a large password file", SEALED, sealed(bytes(1048577)), "password file is too large"),
    ("restore with a wrong password", SEALED, sealed(b"wrong horse"), "chunk 0 failed authentication"),
    ("restore over a missing base", RESTORE, remove_base, "base image of a thin image not found"),
    ("restore over a replaced base", RESTORE, swap_base, "does not match the one pinned"),
    ("restore over a base of another shape", RESTORE, base_of_another_shape, "geometry differs from the thin image"),
    ("restore over a base elsewhere", RESTORE, trailer(base_name=b"../base.vrnx"), "outside its folder"),
    ("restore with a trailer that contradicts itself", RESTORE, trailer(name_length=1), "trailer is malformed"),
    ("restore with a trailer of no length", RESTORE, trailer(total_length=47), "no valid trailer"),
    ("restore of a loop", RESTORE, loop, "too deep (or loops back on itself)"),
    ("restore of a damaged first chunk", RESTORE, record(0, hash=bytes(32)), "chunk 0 hash mismatch"),
    ("restore onto a missing disk", replaced(RESTORE, "--disk", "7"), None, "Could not open disk 7 exclusively"),
    ("restore onto a disk in use", RESTORE, target(in_use=True), "Could not open disk 2 exclusively"),
    ("restore onto a disk that may not be written", RESTORE, target(open_error=5), "Could not open disk 2 exclusively"),
    ("restore onto a disk without a length", RESTORE, fault("DeviceIoControl", error=1, path="PhysicalDrive2"),
     "IOCTL_DISK_GET_LENGTH_INFO failed"),
    ("restore onto a disk without a geometry", RESTORE,
     fault("DeviceIoControl", error=1, path="PhysicalDrive2", skip=1), "IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed"),
    ("restore onto a smaller disk", RESTORE, target(length=SIZE - 1), "smaller than the image's"),
    ("restore without memory", RESTORE, fault("_aligned_malloc", null=True), "out of memory"),
    ("clone onto the system disk", replaced(CLONE, "--to", "0"), None, "it cannot be a clone target"),
    ("clone onto itself", replaced(CLONE, "--to", "1"), None, "source and target are the same disk"),
    ("clone without a system volume", CLONE, lambda machine: machine.system_volume(None), "could not open C:"),
    ("clone without a confirmation", without(CLONE, "--confirm"), None, "Pass --confirm YES"),
    ("clone with another confirmation", replaced(CLONE, "--confirm", "Yes"), None, "Pass --confirm YES"),
    ("clone from a missing disk", replaced(CLONE, "--from", "7"), None, "Could not open source PhysicalDrive7"),
    ("clone onto a missing disk", replaced(CLONE, "--to", "7"), None, "Could not open disk 7 exclusively"),
    ("clone onto a disk in use", CLONE, target(in_use=True), "Could not open disk 2 exclusively"),
    ("clone onto a smaller disk", CLONE, target(length=SIZE - 1), "smaller than the source's"),
    *((f"clone without {name} of disk {number}", CLONE,
       fault("DeviceIoControl", error=1, path=f"PhysicalDrive{number}", skip=skip), name)
      for number in (1, 2) for skip, name in ((0, "IOCTL_DISK_GET_LENGTH_INFO failed"),
                                              (1, "IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed"))),
    *((f"clone without memory, buffer {skip}", CLONE, fault("_aligned_malloc", null=True, skip=skip), "out of memory")
      for skip in (0, 1)),
    ("clone that cannot read its first block", CLONE, fault("ReadFile", error=23, path="PhysicalDrive1"),
     "read from the source disk failed"),
]


class Refusals(suite.Scenario):
    def test_every_refusal_comes_before_the_first_write(self):
        tried = set()
        for what, arguments, prepare, part in REFUSALS:
            with self.subTest(what):
                machine = self.machine(source=pattern(SIZE, "source"), target=pattern(SIZE, "target"))
                build_image(machine.path("a.vrnx"), pattern(SIZE, "image"))
                if prepare is not None:
                    prepare(machine)
                disks = {disk["number"]: machine.disk_bytes(disk["number"]) for disk in machine.description["disks"]}
                result = machine.run(*arguments)
                self.assertEqual(result.status, 1, result.describe())
                self.assertIn(part, result.stderr.decode(), result.describe())
                self.assertNotIn("complete", result.stdout.decode())
                self.assertEqual(result.calls("WriteFile"), [])
                self.assertEqual(result.calls("DeviceIoControl", code=UPDATE_PROPERTIES), [])
                for number, before in disks.items():
                    self.expect_disk(machine, number, before)
                tried.add(what)
        self.assertEqual(len(tried), len(REFUSALS), "two reasons of one name, or one that was not reached")

    def test_the_same_machine_does_write_where_nothing_refuses(self):
        for arguments in (RESTORE, CLONE):
            machine = self.machine(source=pattern(SIZE, "source"), target=pattern(SIZE, "target"))
            build_image(machine.path("a.vrnx"), pattern(SIZE, "image"))
            result = machine.run(*arguments)
            self.assertEqual(result.status, 0, result.describe())
            self.assertTrue(result.calls("WriteFile", path="PhysicalDrive2"))
            self.expect_disk(machine, 2, pattern(SIZE, "image" if arguments is RESTORE else "source"))


if __name__ == "__main__":
    suite.main()
