"""Single-byte changes along a chain of four images: every position of header, table and trailer of every link.

Each change is either refused when the chain is opened, or found when the chunk is read that it concerns, or it is in a
field that means nothing there. Which of the three, and in which words, is worked out beforehand by an account of the
checks that is written down here a second time. What was done is counted in a line of the output.

Two values are tried at each position: the complement, and one inverted bit that moves on with the position; in lengths
of stored chunks every bit. With VORNIX_LONG every position gets the complement and all of its eight bits. Under Wine a
sample of the positions is tried.
"""

import hashlib
import re
import struct
from collections import Counter

import suite
from console import fatal, meter, verify_failed, verifying_line
from image import build_image, is_accepted
from incremental import missing_base, other_base
from machine import SETTINGS, pattern
from many_runs import ManyRuns
from sweep import sample

CHUNK = 4096
SIZE = 3 * CHUNK + 1536  # four chunks, the last one short
COUNT = 4
DATA = 64 + 72 * COUNT
CHANGES = ((), (1,), (2,), (0, 3))  # the chunks that each link stores anew
LINKS = len(CHANGES)
TOP = f"g{LINKS - 1}.vrnx"
PASSWORD = b"correct horse"
RATE = re.compile(rb"\([\d.]+ MiB/s\)")
WINE_POSITIONS = 12  # of each link

HEADER_FIELDS = (("Magic", 8), ("Version", 4), ("DiskSize", 8), ("SectorSize", 4), ("ChunkSize", 4), ("ChunkCount", 8),
                 ("Encrypted", 1), ("Epoch", 7), ("Salt", 16), ("KdfIterations", 4))
RECORD_FIELDS = (("DiskOffset", 8), ("StoredLength", 4), ("Hash", 32), ("Nonce", 12), ("Tag", 16))
TRAILER_FIELDS = (("trailer Magic", 8), ("NameLength", 4), ("BaseName", 7), ("BaseDigest", 32), ("TotalLength", 4))

# Of the top image, which nothing pins: what opening it does not examine, and nobody reads in a plain image.
UNEXAMINED = {"Epoch", "Salt", "Nonce", "Tag"}


def layout(size, thin):
    """The name of the field at each examined position of a file of this size."""
    names = [name for name, width in HEADER_FIELDS for _ in range(width)]
    names += [name for name, width in RECORD_FIELDS for _ in range(width)] * COUNT
    positions = dict(enumerate(names))
    if thin:
        trailer = [name for name, width in TRAILER_FIELDS for _ in range(width)]
        positions.update(zip(range(size - len(trailer), size), trailer))
    return positions


class Refused(Exception):
    """The whole of standard error."""


def opened(files, name, depth=0):
    """The image of this name as opening it finds it, with its base; raises Refused at the first complaint.

    `files` maps names to contents. The order of the checks is the order of the complaints.
    """
    def refuse(message, before=b""):
        raise Refused(before + fatal(message).encode())

    if depth > 64:
        refuse("image chain is too deep (or loops back on itself)")
    data = files[name]
    magic, version, disk_size, sector, chunk, count, encrypted = struct.unpack_from("<8sIQIIQB", data)
    iterations, = struct.unpack_from("<I", data, 60)
    if magic != b"VRNXDSK2" or version not in (2, 3):
        refuse("not a recognized Vornix image (bad magic/version)")
    if disk_size == 0 or sector < 512 or sector & (sector - 1) or chunk < sector or chunk > 0x4000000 or chunk % sector:
        refuse("image header has invalid disk/sector/chunk geometry")
    if encrypted > 1 or (not 100000 <= iterations <= 10000000 if encrypted else iterations != 0):
        refuse("image has invalid encryption/KDF parameters")
    if count != (disk_size - 1) // chunk + 1 or count > 3728270:
        refuse("image header has an impossible chunk count")
    if len(data) < 64 + 72 * count:
        refuse("image is truncated before its chunk table")
    end, stored = 64 + 72 * count, []
    for index in range(count):
        offset, length = struct.unpack_from("<QI", data, 64 + 72 * index)
        whole = min(chunk, disk_size - index * chunk)
        if offset != index * chunk or not (length == whole or (length == 0 and version == 3)):
            refuse("image chunk table has an invalid offset or length")
        stored.append((end, length, whole, data[64 + 72 * index + 12:64 + 72 * index + 44]))
        end += length
    if end > len(data):
        refuse("image chunk data extends past end of file")
    image = {"data": data, "stored": stored, "digest": hashlib.sha256(data[:64 + 72 * count]).digest(),
             "shape": (disk_size, chunk, count), "base": None}
    if version == 3:
        total = int.from_bytes(data[-4:], "little")
        if len(data) < end + 48 or not 48 <= total <= 4096 or total > len(data) - end:
            refuse("thin image has no valid trailer - file is truncated")
        trailer = data[-total:]
        length = int.from_bytes(trailer[8:12], "little")
        if trailer[:8] != b"VRNXBASE" or length + 48 != total or length == 0:
            refuse("thin image trailer is malformed")
        base = trailer[12:12 + length]
        if any(byte in base for byte in b"\\/:"):
            refuse("thin image trailer names a base outside its folder - refusing")
        image["base name"] = base = base.split(b"\0")[0]  # as a text of C ends
        found = base
        if SETTINGS.windows:
            found = next((name for name in files if name.lower() == base.lower()), base)
        if found not in files:
            refuse("base image of a thin image not found", _bytes(missing_base, base))
        image["base"] = below = opened(files, found, depth + 1)
        if trailer[-36:-4] != below["digest"]:
            refuse("base image does not match the one pinned in the thin image", _bytes(other_base, base))
        if below["shape"] != image["shape"]:
            refuse("base image geometry differs from the thin image")
    return image


def _bytes(text, name):
    return text("\u203aname\u2039").encode().replace("\u203aname\u2039".encode(), name)


def good_chunk(image, index):
    """The bytes of a plain chunk, or None where some record on the way does not vouch for them."""
    offset, length, whole, digest = image["stored"][index]
    data = image["data"][offset:offset + length] if length else good_chunk(image["base"], index)
    return data if data is not None and hashlib.sha256(data).digest() == digest else None


def verified(image):
    """Standard output, standard error and the number of bad chunks of a verification of this plain chain."""
    count, size = len(image["stored"]), image["shape"][0]
    text = verifying_line(TOP, count, size).encode()
    text += b"  thin image: chain continues with " + image["base name"] + b"\n"
    looks = bad = 0
    for index in range(count):
        _, length, whole, _ = image["stored"][index]
        if good_chunk(image, index) is None:
            if length == 0:
                return text, fatal("chunk failed its hash check (corrupt image or base)").encode(), bad + 1
            text += f"\n  chunk {index} (disk offset {index * CHUNK}): HASH MISMATCH\n".encode()
            bad += 1
        if index % 32 == 0 or index == count - 1:
            looks += 1
            text += meter(index * CHUNK + whole, size, looks).encode()
    text += b"\n"
    if bad:
        return text, verify_failed(bad, count).encode(), bad
    return text + f"Verify OK - all {count} chunks match their recorded hash.\n".encode(), b"", 0


class ChangedChain(suite.Scenario):
    recorded = False

    def chain(self, machine, passwords=(None,) * LINKS):
        """The chain in the machine's work folder; gives name to content."""
        plain, base = pattern(SIZE, "disk"), None
        for place, indexes in enumerate(CHANGES):
            data = bytearray(plain)
            for index in indexes:
                length = len(data[index * CHUNK:(index + 1) * CHUNK])
                data[index * CHUNK:index * CHUNK + length] = pattern(length, f"g{place} {index}")
            plain, name = bytes(data), f"g{place}.vrnx"
            build_image(machine.path(name), plain, base=base, seed=name, password=passwords[place])
            base = machine.path(name)
        return {f"g{place}.vrnx".encode(): machine.read(f"g{place}.vrnx") for place in range(LINKS)}

    def masks(self, position, field):
        """What one byte is changed by."""
        if SETTINGS.long or field == "StoredLength":
            return [0xFF] + [1 << bit for bit in range(8)]
        return [0xFF, 1 << position % 8]

    def changes(self, place, data):
        """(position, field, new value) of every change to try in a link."""
        fields = layout(len(data), place > 0)
        positions = sorted(fields)
        if SETTINGS.sampled:
            positions = sample(positions, WINE_POSITIONS)
        for position in positions:
            for mask in self.masks(position, fields[position]):
                yield position, fields[position], data[position] ^ mask

    def run_changed(self, machine, name, position, value, *arguments, runs):
        """One run with one byte changed, and the byte put back; also whether the second reader takes the chain. Where
        there is `runs` it makes the run, at a fraction of the time, but by the real clock."""
        with open(machine.path(name), "r+b") as file:
            file.seek(position)
            old = file.read(1)
            file.seek(position)
            file.write(bytes([value]))
        try:
            accepted = is_accepted(machine.path(TOP))
            machine.runs.clear()
            return (runs or machine).run(*arguments), accepted
        finally:
            with open(machine.path(name), "r+b") as file:
                file.seek(position)
                file.write(old)

    def try_link(self, place, what, passwords=(None,) * LINKS):
        """Every change of one link under verify, counted by outcome and, where there is none, by field."""
        machine = self.machine(default=False)
        machine.description.pop("calls")
        files = self.chain(machine, passwords)
        machine.write("password", PASSWORD)
        name = f"g{place}.vrnx"
        counts, effects, seen = Counter(), Counter(), set()
        runs = None
        if not SETTINGS.windows:
            runs = ManyRuns(machine.work)
            self.addCleanup(runs.close)
        for position, field, value in self.changes(place, files[name.encode()]):
            data = bytearray(files[name.encode()])
            data[position] = value
            result, accepted = self.run_changed(machine, name, position, value, "verify", "--in", TOP,
                                                "--password-file", "password", runs=runs)
            try:
                image = opened({**files, name.encode(): bytes(data)}, TOP.encode())
                stdout, stderr, bad = self.reading(image, place, position, field)
                kind = "read" if bad else "none"
            except Refused as refused:
                stdout, stderr, bad, kind = b"", refused.args[0], 1, "refused"
            with self.subTest(field=field, position=position, value=f"{value:02X}"):
                if runs is not None:
                    result.stdout, stdout = (RATE.sub(b"(any MiB/s)", text) for text in (result.stdout, stdout))
                self.expect(result, 1 if bad else 0, stdout, stderr)
                if not SETTINGS.windows:
                    self.assertEqual(accepted, kind != "refused", "the second reader is of another opinion")
                self.expect_kind(place, field, kind)
            counts[kind] += 1
            seen.add(position)
            if kind == "none":
                effects[field] += 1
        without = ", ".join(f"{field} {count}" for field, count in sorted(effects.items())) or "none"
        print(f"g{place} of {LINKS} in a chain, {what}: {len(seen)} positions, {sum(counts.values())} changes: "
              f"{counts['refused']} refused at open, {counts['read']} found when the chunk is read, "
              f"{counts['none']} without effect ({without})", flush=True)
        if not SETTINGS.sampled:
            self.assertEqual(len(seen), DATA + (55 if place else 0))
        self.assertTrue(counts["refused"])
        return counts, effects


class PlainChain(ChangedChain):
    def reading(self, image, place, position, field):
        return verified(image)

    def expect_kind(self, place, field, kind):
        """What may go unnoticed, said without any account of the checks."""
        if kind == "refused":
            return
        if field == "BaseName":
            self.assertTrue(SETTINGS.windows, "only there may another name be the same file")
        elif place < LINKS - 1:
            self.fail("every byte of header and table of a base is pinned")
        elif kind == "none":
            self.assertIn(field, UNEXAMINED)
        else:
            self.assertIn(field, {"Hash", "StoredLength"})

    def test_every_byte_of_the_full_image(self):
        self.try_link(0, "all plain")

    def test_every_byte_of_the_second_image(self):
        self.try_link(1, "all plain")

    def test_every_byte_of_the_third_image(self):
        self.try_link(2, "all plain")

    def test_every_byte_of_the_top_image(self):
        counts, effects = self.try_link(3, "all plain")
        if not SETTINGS.sampled:
            # All of them: each byte of these fields is looked at by nobody, in a plain image that nothing pins.
            times = 9 if SETTINGS.long else 2
            self.assertEqual({field: effects[field] // times for field in UNEXAMINED},
                             {"Epoch": 7, "Salt": 16, "Nonce": 12 * COUNT, "Tag": 16 * COUNT})
            self.assertGreaterEqual(counts["read"], 32 * COUNT * times)


class SealedChain(ChangedChain):
    """A sealed link, where salt, iterations, nonces and tags do mean something."""

    def masks(self, position, field):
        if field == "KdfIterations":
            return [0xFF, 0x40]  # the latter keeps the first byte's value within the bounds
        return super().masks(position, field) if SETTINGS.long else [0xFF]

    def reading(self, image, place, position, field):
        """By the field alone: the chunks that the top image stores, 0 and 3, go by its own key."""
        index = (position - 64) // 72
        stored = CHANGES[-1]
        unauthentic, mismatch, ended = [], [], None
        if place == LINKS - 1:
            if field in ("Salt", "KdfIterations"):
                unauthentic = list(stored)
            elif field in ("Nonce", "Tag") and index in stored:
                unauthentic = [index]
            elif field == "Hash" and index in stored:
                mismatch = [index]
            elif field in ("Hash", "StoredLength"):
                ended = index
        text = verifying_line(TOP, COUNT, SIZE).encode() + b"  thin image: chain continues with " \
            + image["base name"] + b"\n"
        looks = 0
        for at in range(COUNT):
            if at == ended:
                return text, fatal("chunk failed its hash check (corrupt image or base)").encode(), 1
            if at in unauthentic:
                text += self.chunk_line(at, "AUTHENTICATION FAILED (corrupt or tampered)")
                continue
            if at in mismatch:
                text += self.chunk_line(at, "HASH MISMATCH")
            if at in (0, COUNT - 1):
                looks += 1
                text += meter(min((at + 1) * CHUNK, SIZE), SIZE, looks).encode()
        bad = len(unauthentic) + len(mismatch)
        if bad:
            return text + b"\n", verify_failed(bad, COUNT).encode(), bad
        return text + f"\nVerify OK - all {COUNT} chunks match their recorded hash.\n".encode(), b"", 0

    @staticmethod
    def chunk_line(index, verdict):
        return f"\n  chunk {index} (disk offset {index * CHUNK}): {verdict}\n".encode()

    def expect_kind(self, place, field, kind):
        if kind == "none" and field != "BaseName":
            self.assertEqual(place, LINKS - 1)
            self.assertIn(field, {"Epoch", "Nonce", "Tag"})

    def test_every_byte_of_a_sealed_full_image(self):
        counts, _ = self.try_link(0, "the lowest sealed", (PASSWORD, None, None, None))
        self.assertEqual((counts["read"], counts["none"]), (0, 0))

    def test_every_byte_of_a_sealed_top_image(self):
        counts, effects = self.try_link(3, "the top sealed", (None, None, None, PASSWORD))
        if not SETTINGS.sampled:
            # Nonce and tag of the two references mean nothing; those of the two stored chunks do.
            self.assertEqual(effects, {"Epoch": 7, "Nonce": 24, "Tag": 32})
            self.assertGreaterEqual(counts["read"], 16 + 2 * 28 + 4 * 32)


if __name__ == "__main__":
    suite.main()
