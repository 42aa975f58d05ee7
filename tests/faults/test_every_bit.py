"""Every single bit of small images inverted: verify notices it, or the format says that the bit carries nothing.

The images hold all that the format has: plain and sealed chunks, thin references, a trailer, a base below. What the
program still takes after a change the second reader takes for the very same disk, and it agrees on what is refused. The
library is the third account: of every bit it says the same, and refuses with the program's words. What carried nothing
is counted by field, and docs/image-format.md shows exactly these counts. All bits are tried with VORNIX_LONG, one of
each byte without, and fewer under the sanitizers, where a run costs several times as much.

    tests/run tests/faults/test_every_bit.py --update      rewrites the table there
"""

import os
import re
import sys
from collections import Counter

import suite
from image import ImageError, build_image, reference_plain_bytes
from machine import CHECKOUT, SETTINGS, pattern
from many_reads import ManyReads
from many_runs import Changed, ManyRuns

CHUNK = 512
SIZE = CHUNK + 40  # two chunks, the last one short
COUNT = 2
PASSWORD = b"correct horse"
PAGE = os.path.join(CHECKOUT, "docs", "image-format.md")
HEADINGS = ("| Changed file | Bits | Refused at open | Found at a chunk | Without effect |\n"
            "|---|---:|---:|---:|---|\n")
# One bit of each byte, another one in each: 9 goes through all eight of them.
SAMPLE_STEP = 61 if SETTINGS.sampled else 1 if SETTINGS.long else 9

HEADER_FIELDS = (("Magic", 8), ("Version", 4), ("DiskSize", 8), ("SectorSize", 4), ("ChunkSize", 4), ("ChunkCount", 8),
                 ("Encrypted", 1), ("Epoch", 7), ("Salt", 16), ("KdfIterations", 4))
RECORD_FIELDS = (("DiskOffset", 8), ("StoredLength", 4), ("Hash", 32), ("Nonce", 12), ("Tag", 16))


def first_disk():
    return pattern(SIZE, "disk")


def second_disk(chunk):
    """The first disk with another content in one chunk."""
    data = bytearray(first_disk())
    begin, end = chunk * CHUNK, min((chunk + 1) * CHUNK, SIZE)
    data[begin:end] = pattern(end - begin, f"second {chunk}")
    return bytes(data)


def field_at(position, references, data_end):
    """The name of the field that a byte belongs to; records by what they stand for."""
    for name, width in HEADER_FIELDS:
        if position < width:
            return f"`{name}`"
        position -= width
    data_end -= 64
    for index in range(COUNT):
        for name, width in RECORD_FIELDS:
            if position < width:
                if name in ("Nonce", "Tag") and index in references:
                    return f"`{name}` of a thin reference"
                return f"`{name}`"
            position -= width
        data_end -= 72
    return "chunk data" if position < data_end else "trailer"


class Case:
    """A row of the table: one file, and the image that is verified while it is changed."""

    def __init__(self, title, build, changed, verified, references=()):
        self.title, self.build, self.changed, self.verified = title, build, changed, verified
        self.references = references


def full(folder, name="full", **options):
    return build_image(os.path.join(folder, name), first_disk(), chunk_size=CHUNK, **options)


def thin(folder, name, base, chunk, **options):
    """An image over `base` that stores one chunk and refers to the other."""
    return build_image(os.path.join(folder, name), second_disk(chunk), chunk_size=CHUNK,
                       base=os.path.join(folder, base), seed=name, **options)


CASES = {
    "plain full image": Case("plain full image", lambda folder: full(folder, epoch=0x1234), "full", "full"),
    "sealed full image": Case("sealed full image", lambda folder: full(folder, password=PASSWORD), "full", "full"),
    "plain thin image": Case(
        "plain thin image", lambda folder: (full(folder), thin(folder, "thin", "full", 1)), "thin", "thin", (0,)),
    "sealed thin image": Case(
        "sealed thin image", lambda folder: (full(folder, password=PASSWORD),
                                             thin(folder, "thin", "full", 1, password=PASSWORD)), "thin", "thin", (0,)),
    "base of a plain thin image": Case(
        "base of a plain thin image, which stores its last chunk anew",
        lambda folder: (full(folder), thin(folder, "thin", "full", 1)), "full", "thin"),
    "image amid a chain": Case(
        "image amid a chain of thin images",
        lambda folder: (full(folder), thin(folder, "thin", "full", 1), thin(folder, "top", "thin", 1)), "thin", "top",
        (0,)),
}


def reader_takes(folder, name, disk):
    """Whether the second reader takes the image with all its chunks; None where it takes it for another disk."""
    try:
        plain = reference_plain_bytes(os.path.join(folder, name), PASSWORD)
    except (ImageError, OSError):
        return False
    return True if plain == disk else None


def library_agrees(result, code, bad, text):
    """Whether the library's account of an image is that of a run of verify."""
    if result.status == 0:
        return code == 0 and not bad
    if b"Verifying" in result.stdout:
        return code == 0 and bool(bad)
    message = result.stderr.rsplit(b"FATAL: ", 1)[-1].split(b" (GetLastError")[0]
    return code != 0 and message in text


def row_of(case, folder, complain, step=1):
    """Inverts each bit of a case, or one in `step`; gives its row of the table. `complain` takes what is wrong."""
    case.build(folder)
    with open(os.path.join(folder, "password"), "wb") as file:
        file.write(PASSWORD)
    changed = Changed(os.path.join(folder, case.changed))
    disk = reference_plain_bytes(os.path.join(folder, case.verified), PASSWORD)
    data_end = len(changed.content) - (48 + len("full") if case.changed == "thin" else 0)
    refused = found = 0
    silent = Counter()
    arguments = ["verify", "--in", case.verified, "--password-file", "password"]
    bits = range(0, 8 * len(changed.content), step)
    with ManyRuns(folder) as runs, ManyReads(folder) as reads:
        if runs.run(*arguments).status != 0:
            complain("the unchanged image does not verify")
        for bit in bits:
            at, mask = bit // 8, 1 << bit % 8
            with changed.change(at, bytes([changed.content[at] ^ mask])):
                result = runs.run(*arguments)
                library = reads.read(case.verified, PASSWORD)
                # Of what the program refuses, one bit a byte goes through the second reader too, which is the slower
                # one.
                asked = result.status == 0 or bit % 8 == at % 8
                taken = reader_takes(folder, case.verified, disk) if asked else False
            field = field_at(at, case.references, data_end)
            if (result.status, taken) not in ((0, True), (1, False)):
                complain(f"{case.title}, bit {bit % 8} of byte {at} ({field}): status {result.status}, and the second "
                         f"reader's verdict is {taken}: {result.stderr!r}")
            if not library_agrees(result, *library):
                complain(f"{case.title}, bit {bit % 8} of byte {at} ({field}): status {result.status}, "
                         f"{result.stderr!r}, and the library says {library}")
            if result.status == 0:
                silent[field] += 1
            elif b"Verifying" in result.stdout:
                found += 1
            else:
                refused += 1
    fields = ", ".join(f"{field} {count}" for field, count in sorted(silent.items())) or "none"
    return f"| {case.title} | {len(bits)} | {refused} | {found} | {fields} |\n"


def section(page):
    return re.search(r"<!-- every bit -->\n(.*?)<!-- end of every bit -->", page, flags=re.S).group(1)


def read_page():
    with open(PAGE, encoding="utf-8") as file:
        return file.read()


class EveryBit(suite.Scenario):
    recorded = False

    def try_case(self, title):
        if self.settings.windows:
            self.skipTest("the many runs that this takes are made natively")
        troubles = []
        row = row_of(CASES[title], self.folder, troubles.append, SAMPLE_STEP)
        self.assertEqual(troubles[:5], [])
        if SAMPLE_STEP == 1:
            self.assertIn(row, section(read_page()), "docs/image-format.md is out of date; --update rewrites it")

    def test_plain_full_image(self):
        self.try_case("plain full image")

    def test_sealed_full_image(self):
        self.try_case("sealed full image")

    def test_plain_thin_image(self):
        self.try_case("plain thin image")

    def test_sealed_thin_image(self):
        self.try_case("sealed thin image")

    def test_base_of_a_plain_thin_image(self):
        self.try_case("base of a plain thin image")

    def test_image_amid_a_chain(self):
        self.try_case("image amid a chain")

    def test_the_page_shows_these_rows_and_no_other(self):
        rows = section(read_page()).removeprefix(HEADINGS).splitlines()
        self.assertEqual([row.split(" | ")[0] for row in rows], [f"| {case.title}" for case in CASES.values()])


def update():
    import tempfile
    rows, troubles = "", []
    for case in CASES.values():
        with tempfile.TemporaryDirectory() as folder:
            rows += row_of(case, folder, troubles.append)
    if troubles:
        sys.exit("\n".join(troubles))
    page = read_page()
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(page.replace(f"<!-- every bit -->\n{section(page)}", f"<!-- every bit -->\n{HEADINGS}{rows}"))


if __name__ == "__main__":
    if sys.argv[1:] == ["--update"]:
        update()
    else:
        suite.main()
