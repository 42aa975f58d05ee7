"""vrnx export: the disk byte for byte, or as much of it as is good, with a map; what is bad taken from elsewhere."""

import os
import random
import re
import shutil
import subprocess

import image
import suite
from image import ImageBuilder, build_image
from machine import SETTINGS, pattern
from sealing import PASSWORD
from vrnx_runs import DAMAGED, FAILED, GOOD, USAGE, VrnxScenario

CHUNK = 512
COUNT = 8
SIZE = (COUNT - 1) * CHUNK + 77
FULL = pattern(SIZE, "full")
THIN = bytes(CHUNK) + FULL[CHUNK:2 * CHUNK] + pattern(CHUNK, "thin") + FULL[3 * CHUNK:]
TOP = THIN[:5 * CHUNK] + bytes(2 * CHUNK) + pattern(77, "top")
# Which image of the chain holds each chunk of its topmost image.
HOLDERS = ["thin.vrnx", "full.vrnx", "thin.vrnx", "full.vrnx", "full.vrnx", "top.vrnx", "top.vrnx", "top.vrnx"]
ZEROS = {0, 5, 6}
# Where a run costs several times as much, one chunk of each image of the chain and one of zeros stand for all.
TRIED = (0, 2, 3, 7) if SETTINGS.windows or SETTINGS.sampled else range(COUNT)


def read_map(text):
    """The blocks of a ddrescue map as (position, length, status); holds the file against what its manual says."""
    lines = [line for line in text.decode("ascii").splitlines() if not line.startswith("#")]
    current, status, _ = lines[0].split()
    blocks = [(int(position, 16), int(length, 16), status) for position, length, status in map(str.split, lines[1:])]
    end = 0
    for at, (position, length, block_status) in enumerate(blocks):
        assert position == end and length > 0, text
        assert at == 0 or blocks[at - 1][2] != block_status, text
        end += length
    assert int(current, 16) <= end and status == ("?" if blocks[-1][2] == "?" else "+"), text
    return blocks


def chunk_ranges(numbers, chunk=CHUNK, size=SIZE):
    """The ranges of these chunks as (offset, length), those that touch put together."""
    ranges = []
    for number in sorted(numbers):
        offset, length = number * chunk, min(chunk, size - number * chunk)
        if ranges and sum(ranges[-1]) == offset:
            ranges[-1] = (ranges[-1][0], ranges[-1][1] + length)
        else:
            ranges.append((offset, length))
    return ranges


def without_chunks(plain, numbers, chunk=CHUNK):
    made = bytearray(plain)
    for number in numbers:
        part = made[number * chunk:(number + 1) * chunk]
        made[number * chunk:(number + 1) * chunk] = bytes(len(part))
    return bytes(made)


class Exports(VrnxScenario):
    def chain(self):
        """A full image, a thin one over it which is sealed, and a plain thin one over that."""
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD + b"\n")
        build_image(vrnx.path("full.vrnx"), FULL, chunk_size=CHUNK)
        build_image(vrnx.path("thin.vrnx"), THIN, chunk_size=CHUNK, base=vrnx.path("full.vrnx"), password=PASSWORD,
                    seed="thin")
        build_image(vrnx.path("top.vrnx"), TOP, chunk_size=CHUNK, base=vrnx.path("thin.vrnx"))
        return vrnx

    def export(self, vrnx, name, *options, status=GOOD, out="out.img"):
        if vrnx.exists(out):
            os.remove(vrnx.path(out))
        result = vrnx.run("export", name, out, *options, "--password-file", "password")
        self.assertEqual(result.status, status, result.stderr)
        return result

    def salvage(self, vrnx, name, plain, bad, *options, chunk=CHUNK):
        """Salvages an image; exactly these chunks must be missing from the disk, and the map must say so."""
        for old in ("out.map", "out.img"):
            if vrnx.exists(old):
                os.remove(vrnx.path(old))
        result = self.export(vrnx, name, "--salvage", "out.map", *options, status=DAMAGED if bad else GOOD)
        self.expect_file(vrnx, "out.img", without_chunks(plain, bad, chunk))
        blocks = read_map(vrnx.read("out.map"))
        self.assertEqual(sum(length for _, length, _ in blocks), len(plain))
        self.assertEqual([(offset, length) for offset, length, status in blocks if status == "-"],
                         chunk_ranges(bad, chunk, len(plain)))
        self.assertLessEqual({status for _, _, status in blocks}, {"+", "-"})
        streamed = vrnx.run("export", name, "-", "--salvage", "stream.map", *options, "--password-file", "password")
        self.assertEqual(streamed.status, result.status)
        self.assertEqual(streamed.stdout, vrnx.read("out.img"))
        self.assertEqual(vrnx.read("stream.map"), vrnx.read("out.map"))
        os.remove(vrnx.path("stream.map"))
        return result


class Whole(Exports):
    def test_a_chain(self):
        vrnx = self.chain()
        for name, plain in (("full.vrnx", FULL), ("thin.vrnx", THIN), ("top.vrnx", TOP)):
            self.export(vrnx, name)
            self.expect_file(vrnx, "out.img", plain)
            result = vrnx.run("export", name, "-", "--password-file", "password")
            self.assertEqual((result.status, result.stdout, result.stderr), (GOOD, plain, b""))
            self.salvage(vrnx, name, plain, [])

    def test_zeros_become_holes(self):
        if SETTINGS.windows:
            self.skipTest("what a file takes on the medium is told by Linux")
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD)
        chunk = 1 << 20
        plain = bytes(8 * chunk) + pattern(chunk, "data") + bytes(8 * chunk - 5)
        build_image(vrnx.path("x.vrnx"), plain, chunk_size=chunk)
        self.export(vrnx, "x.vrnx")
        self.expect_file(vrnx, "out.img", plain)
        self.assertLess(os.stat(vrnx.path("out.img")).st_blocks * 512, 3 * chunk)

    def test_random_chains_against_what_they_were_made_of(self):
        rng = random.Random(20)
        for turn in range(6 if SETTINGS.windows or SETTINGS.sampled else 25):
            with self.subTest(turn=turn):
                self.expect_random_chain(rng)

    def expect_random_chain(self, rng):
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD)
        sector = rng.choice((512, 4096))
        chunk = sector * rng.randrange(1, 9)
        size = rng.randrange(1, 20 * chunk)
        plain = bytearray(pattern(size, rng.random()))
        base = None
        for level in range(rng.randrange(1, 8)):
            for _ in range(rng.randrange(4)):
                start = rng.randrange(size)
                length = rng.randrange(1, 3 * chunk)
                made = bytes(length) if rng.random() < 0.5 else pattern(length, rng.random())
                plain[start:start + length] = made[:size - start]
            name = f"{level}.vrnx"
            sealed = {"password": PASSWORD, "seed": f"{rng.random()}"} if rng.random() < 0.4 else {}
            count = image.chunk_count_of(size, chunk)
            references = None
            if base is not None and rng.random() < 0.2:
                references = ()  # a thin image may store what it could refer to
            build_image(vrnx.path(name), bytes(plain), chunk_size=chunk, sector_size=sector, base=base,
                        references=references, **sealed)
            base = vrnx.path(name)
            self.assertEqual(len(image.read_table(base)[1]), count)
        self.export(vrnx, name)
        self.expect_file(vrnx, "out.img", bytes(plain))
        document = vrnx.document("check", name, "--password-file", "password", "--jobs", "2")
        self.assertEqual(document["images"][0]["checked"], count)

    def test_captures_of_the_program(self):
        machine = self.machine()
        machine.write("password", PASSWORD)
        machine.poke_disk(1, 0, bytes(5000000))
        sealing = ("--encrypt", "--password-file", "password")
        self.assertEqual(machine.run("capture", "--disk", "1", "--out", "a.vrnx", *sealing).status, 0)
        machine.poke_disk(1, 5000000, b"changed")
        self.assertEqual(machine.run("capture", "--disk", "1", "--out", "b.vrnx", "--base", "a.vrnx", "--thin",
                                     *sealing).status, 0)
        vrnx = self.vrnx()
        vrnx.work = machine.work
        self.export(vrnx, "b.vrnx")
        self.expect_file(vrnx, "out.img", machine.disk_bytes(1))


class Refusals(Exports):
    def test_what_exists_is_never_overwritten(self):
        vrnx = self.chain()
        before = vrnx.read("full.vrnx")
        vrnx.write("out.img", b"precious")
        os.mkdir(vrnx.path("folder"))
        for name in ("out.img", "folder", "full.vrnx"):
            self.expect_failure(vrnx.run("export", "full.vrnx", name), FAILED, name)
            self.expect_failure(vrnx.run("export", "full.vrnx", name, "--salvage", "new.map"), FAILED, name)
            self.expect_failure(vrnx.run("export", "full.vrnx", "new.img", "--salvage", name), FAILED, name)
        self.expect_failure(vrnx.run("export", "full.vrnx", "same", "--salvage", "same"), FAILED, "same")
        self.assertEqual((vrnx.read("out.img"), vrnx.read("full.vrnx")), (b"precious", before))
        self.assertEqual(vrnx.files(), ["folder", "full.vrnx", "out.img", "password", "thin.vrnx", "top.vrnx"])

    def test_what_cannot_be_begun_leaves_nothing(self):
        vrnx = self.chain()
        vrnx.write("empty", b"\n")
        vrnx.write("stranger.vrnx", bytes(1000))
        before = vrnx.files()
        for status, *arguments in (
                (FAILED, "absent", "new.img"), (DAMAGED, "stranger.vrnx", "new.img"),
                (DAMAGED, "stranger.vrnx", "new.img", "--salvage", "new.map"),
                (FAILED, "thin.vrnx", "new.img"), (FAILED, "thin.vrnx", "new.img", "--password-file", "absent"),
                (FAILED, "thin.vrnx", "new.img", "--password-file", "empty"),
                (FAILED, "thin.vrnx", "new.img", "--salvage", "new.map"),
                (FAILED, "full.vrnx", "new.img", "--from", "absent"), (FAILED, "full.vrnx", "new.img", "--from", "."),
                (FAILED, "full.vrnx", "new.img", "--from", "thin.vrnx"),
                (FAILED, "full.vrnx", "absent/new.img"),
                (FAILED, "full.vrnx", "new.img", "--salvage", "absent/new.map"),
                (USAGE, "full.vrnx"), (USAGE, "full.vrnx", "new.img", "another"),
                (USAGE, "full.vrnx", "new.img", "--salvage"), (USAGE, "full.vrnx", "new.img", "--from"),
                (USAGE, "full.vrnx", "new.img", "--json"), (USAGE,)):
            with self.subTest(arguments=arguments):
                self.expect_failure(vrnx.run("export", *arguments), status)
                self.assertEqual(vrnx.files(), before)

    def test_a_bad_chunk_ends_it_and_what_was_written_stays(self):
        vrnx = self.chain()
        opened = image.Image(vrnx.path("full.vrnx"))
        vrnx.flip("full.vrnx", opened.offsets[3])
        for name, plain in (("full.vrnx", FULL), ("top.vrnx", TOP)):
            result = self.export(vrnx, name, status=DAMAGED)
            self.assertEqual(result.stdout, b"")
            for word in (b"full.vrnx", b"chunk 3 ", b"disk offset 1536"):
                self.assertIn(word, result.stderr)
            self.expect_file(vrnx, "out.img", plain[:3 * CHUNK])
            result = vrnx.run("export", name, "-", "--password-file", "password")
            self.assertEqual((result.status, result.stdout), (DAMAGED, plain[:3 * CHUNK]))

    def test_a_wrong_password_ends_it_at_the_first_sealed_chunk(self):
        vrnx = self.chain()
        vrnx.write("password", b"another one")
        result = self.export(vrnx, "thin.vrnx", status=DAMAGED)
        self.assertIn(b"chunk 2 ", result.stderr)  # chunk 0 is zeros by its hash
        self.expect_file(vrnx, "out.img", THIN[:2 * CHUNK])


class Salvage(Exports):
    def test_each_chunk_of_a_chain_damaged_in_turn(self):
        vrnx = self.chain()
        self.assertEqual({name for name in HOLDERS}, {"full.vrnx", "thin.vrnx", "top.vrnx"})
        vrnx.write("raw", TOP)
        build_image(vrnx.path("donor.vrnx"), TOP, chunk_size=1536, password=PASSWORD, seed="donor")
        for number in TRIED:
            holder = HOLDERS[number]
            opened = image.Image(vrnx.path(holder), PASSWORD)
            with self.subTest(number=number):
                vrnx.flip(holder, opened.offsets[number] + number % opened.records[number].stored_length)
                # What is zeros by its hash needs no reading.
                bad = [] if number in ZEROS else [number]
                self.salvage(vrnx, "top.vrnx", TOP, bad)
                self.salvage(vrnx, "top.vrnx", TOP, [], "--from", "raw")
                self.export(vrnx, "top.vrnx", "--from", "donor.vrnx")
                self.expect_file(vrnx, "out.img", TOP)
                vrnx.flip(holder, opened.offsets[number] + number % opened.records[number].stored_length)

    def test_each_record_of_a_sealed_image_damaged_in_turn(self):
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD)
        vrnx.write("raw", THIN)
        build_image(vrnx.path("x.vrnx"), THIN, chunk_size=CHUNK, password=PASSWORD)
        for number in (0, 3) if SETTINGS.sampled else range(COUNT):
            zero = number in (0,)
            for what, offset, bad, healed in (
                    ("disk offset", 3, [number], False), ("stored length", 8, [number], False),
                    ("hash", 12, [number], False), ("nonce", 44, [] if zero else [number], True),
                    ("tag", 71, [] if zero else [number], True)):
                with self.subTest(number=number, what=what):
                    vrnx.flip("x.vrnx", 64 + 72 * number + offset)
                    self.salvage(vrnx, "x.vrnx", THIN, bad)
                    self.salvage(vrnx, "x.vrnx", THIN, [] if healed else bad, "--from", "raw")
                    vrnx.flip("x.vrnx", 64 + 72 * number + offset)

    def test_a_truncated_image(self):
        vrnx = self.chain()
        whole = vrnx.read("full.vrnx")
        data = 64 + 72 * COUNT
        for length, first_bad in ((len(whole) - 1, 7), (data + 5 * CHUNK, 5), (data + 5 * CHUNK - 1, 4), (data, 0)):
            with self.subTest(length=length):
                vrnx.write("full.vrnx", whole[:length])
                bad = range(first_bad, COUNT)
                self.assertEqual(vrnx.run("export", "full.vrnx", "x.img").status, DAMAGED)
                self.salvage(vrnx, "full.vrnx", FULL, bad)
                self.salvage(vrnx, "top.vrnx", TOP, [number for number in bad if HOLDERS[number] == "full.vrnx"])
                vrnx.write("raw", FULL[:6 * CHUNK])
                self.salvage(vrnx, "full.vrnx", FULL, [number for number in bad if number >= 6], "--from", "raw")
        # Within the table: of what has no record nobody knows the right bytes.
        vrnx.write("full.vrnx", whole[:64 + 72 * 3 + 10])
        vrnx.write("raw", FULL)
        self.salvage(vrnx, "full.vrnx", FULL, range(COUNT))
        self.salvage(vrnx, "full.vrnx", FULL, range(3, COUNT), "--from", "raw")

    def test_a_missing_base(self):
        vrnx = self.chain()
        vrnx.write("raw", FULL)
        os.remove(vrnx.path("full.vrnx"))
        self.assertEqual(vrnx.run("export", "top.vrnx", "x.img", "--password-file", "password").status, DAMAGED)
        self.salvage(vrnx, "top.vrnx", TOP, [1, 3, 4])
        # The older disk has those chunks still.
        self.salvage(vrnx, "top.vrnx", TOP, [], "--from", "raw")
        self.export(vrnx, "top.vrnx", "--from", "raw")
        self.expect_file(vrnx, "out.img", TOP)
        os.remove(vrnx.path("thin.vrnx"))
        self.salvage(vrnx, "top.vrnx", TOP, [1, 2, 3, 4])

    def test_a_replaced_base_gives_what_has_the_right_hash(self):
        vrnx = self.chain()
        newer = FULL[:3 * CHUNK] + pattern(CHUNK, "newer") + FULL[4 * CHUNK:]
        build_image(vrnx.path("full.vrnx"), newer, chunk_size=CHUNK)
        self.salvage(vrnx, "top.vrnx", TOP, [3])
        build_image(vrnx.path("full.vrnx"), FULL, chunk_size=CHUNK, epoch=5)
        self.salvage(vrnx, "top.vrnx", TOP, [])
        self.assertEqual(vrnx.run("export", "top.vrnx", "x.img", "--password-file", "password").status, DAMAGED)
        # One of another disk is of no use.
        build_image(vrnx.path("full.vrnx"), FULL + b"x", chunk_size=CHUNK)
        self.salvage(vrnx, "top.vrnx", TOP, [1, 3, 4])
        vrnx.write("full.vrnx", b"text" * 1000)
        self.salvage(vrnx, "top.vrnx", TOP, [1, 3, 4])

    def test_donors_of_every_kind_give_what_they_have(self):
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD)
        builder = ImageBuilder(FULL, chunk_size=CHUNK)
        builder.stored = [bytes(len(data)) for data in builder.stored]
        builder.write(vrnx.path("x.vrnx"))
        first, second = without_chunks(FULL, range(4)), without_chunks(FULL, range(3, COUNT))
        build_image(vrnx.path("first.vrnx"), first, chunk_size=3 * CHUNK, password=PASSWORD, salt=b"s" * 16)
        build_image(vrnx.path("second.vrnx"), second, chunk_size=5 * CHUNK)
        build_image(vrnx.path("short.vrnx"), FULL[:2 * CHUNK], chunk_size=CHUNK)
        vrnx.write("first.raw", first)
        vrnx.write("second.raw", second[:3 * CHUNK])
        vrnx.write("tiny.raw", b"x")
        for donors, bad in ((["first.vrnx"], range(4)), (["second.vrnx"], range(3, COUNT)),
                            (["short.vrnx"], range(2, COUNT)), (["first.vrnx", "second.vrnx"], [3]),
                            (["second.raw", "first.raw"], [3]), (["tiny.raw", "short.vrnx", "first.raw"], [2, 3]),
                            (["x.vrnx"], range(COUNT))):
            with self.subTest(donors=donors):
                options = [word for donor in donors for word in ("--from", donor)]
                self.salvage(vrnx, "x.vrnx", FULL, bad, *options)
                # Without a map the first that nobody has ends it.
                self.export(vrnx, "x.vrnx", *options, status=DAMAGED)
                self.expect_file(vrnx, "out.img", FULL[:min(bad) * CHUNK])
        result = self.salvage(vrnx, "x.vrnx", FULL, [3], "--from", "first.vrnx", "--from", "second.vrnx")
        self.assertIn(b"first.vrnx", result.stderr)
        self.assertIn(b"7 healed, 1 bad", result.stdout)

    def test_a_donor_that_is_damaged_itself_gives_what_is_good(self):
        vrnx = self.chain()
        opened = image.Image(vrnx.path("full.vrnx"))
        shutil.copy(vrnx.path("full.vrnx"), vrnx.path("copy.vrnx"))
        for name, number in (("full.vrnx", 1), ("full.vrnx", 3), ("copy.vrnx", 3), ("copy.vrnx", 4)):
            vrnx.flip(name, opened.offsets[number])
        self.salvage(vrnx, "full.vrnx", FULL, [3], "--from", "copy.vrnx")
        self.salvage(vrnx, "top.vrnx", TOP, [3], "--from", "copy.vrnx")
        os.rename(vrnx.path("full.vrnx"), vrnx.path("gone"))
        self.salvage(vrnx, "top.vrnx", TOP, [1, 3, 4], "--from", "top.vrnx")

    def test_a_wrong_password_is_healed_like_any_damage(self):
        vrnx = self.chain()
        vrnx.write("password", b"another one")
        vrnx.write("raw", THIN)
        self.salvage(vrnx, "thin.vrnx", THIN, [2])
        self.salvage(vrnx, "thin.vrnx", THIN, [], "--from", "raw")

    def test_ddrescuelog_accepts_the_map(self):
        if shutil.which("ddrescuelog") is None:
            self.skipTest("ddrescuelog is not installed")
        vrnx = self.chain()
        for numbers in ((), (0,), (3, 4), (0, 2, 4, 7), range(COUNT)):
            for number in numbers:
                vrnx.flip("full.vrnx", 64 + 72 * COUNT + number * CHUNK)
            self.salvage(vrnx, "full.vrnx", FULL, list(numbers))
            for number in numbers:
                vrnx.flip("full.vrnx", 64 + 72 * COUNT + number * CHUNK)
            path = vrnx.path("out.map")
            shown = subprocess.run(["ddrescuelog", "--show-status", path], capture_output=True, text=True,
                                   check=True).stdout
            bad = sum(length for _, length in chunk_ranges(numbers))
            self.assertEqual(re.findall(r"(?:rescued|bad-sector): +([0-9]+ B|\S+ kB)", shown),
                             [f"{SIZE - bad} B", f"{bad} B"], shown)
            done = subprocess.run(["ddrescuelog", "--done-status", path], capture_output=True, check=False)
            self.assertEqual(done.returncode == 0, not numbers)

    def test_random_damage(self):
        rng = random.Random(7)
        for turn in range(4 if SETTINGS.windows or SETTINGS.sampled else 20):
            with self.subTest(turn=turn):
                self.expect_random_damage(rng)

    def expect_random_damage(self, rng):
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD)
        chunk = 512 * rng.randrange(1, 5)
        count = rng.randrange(1, 40)
        plain = pattern(count * chunk - rng.randrange(chunk), rng.random())
        sealed = {"password": PASSWORD} if rng.random() < 0.5 else {}
        build_image(vrnx.path("x.vrnx"), plain, chunk_size=chunk, **sealed)
        opened = image.Image(vrnx.path("x.vrnx"))
        bad = rng.sample(range(count), rng.randrange(count + 1))
        for number in bad:
            vrnx.flip("x.vrnx", opened.offsets[number] + rng.randrange(opened.records[number].stored_length))
        self.salvage(vrnx, "x.vrnx", plain, bad, chunk=chunk)
        held = rng.sample(range(count), rng.randrange(count + 1))
        vrnx.write("raw", without_chunks(plain, set(range(count)) - set(held), chunk))
        self.salvage(vrnx, "x.vrnx", plain, set(bad) - set(held), "--from", "raw", chunk=chunk)


if __name__ == "__main__":
    suite.main()
