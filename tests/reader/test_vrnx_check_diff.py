"""vrnx check and vrnx diff: every result, every cause, every status; each chunk of a chain damaged in turn."""

import json
import os
import random
import sys

import image
import suite
from image import ImageBuilder, build_image
from machine import CHECKOUT, SETTINGS, pattern
from sealing import PASSWORD
from vrnx_runs import DAMAGED, FAILED, GOOD, USAGE, VrnxScenario

VECTORS = os.path.join(CHECKOUT, "tests", "vectors")
CHUNK = 512
COUNT = 6
SIZE = (COUNT - 1) * CHUNK + 100
FULL = pattern(SIZE, "full")
THIN = bytes(CHUNK) + FULL[CHUNK:2 * CHUNK] + pattern(CHUNK, "thin") + FULL[3 * CHUNK:]
TOP = THIN[:5 * CHUNK] + pattern(100, "top")
# Which image of the chain holds each chunk of its topmost image.
HOLDERS = ["thin.vrnx", "full.vrnx", "thin.vrnx", "full.vrnx", "full.vrnx", "top.vrnx"]


class Images(VrnxScenario):
    def chain(self, password=PASSWORD):
        """A full image, a thin one over it which is sealed, and a plain thin one over that."""
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD + b"\r\n")
        build_image(vrnx.path("full.vrnx"), FULL, chunk_size=CHUNK)
        build_image(vrnx.path("thin.vrnx"), THIN, chunk_size=CHUNK, base=vrnx.path("full.vrnx"), password=password,
                    seed="thin")
        build_image(vrnx.path("top.vrnx"), TOP, chunk_size=CHUNK, base=vrnx.path("thin.vrnx"))
        return vrnx

    def check(self, vrnx, *arguments, status=GOOD):
        return vrnx.document("check", *arguments, "--password-file", "password", status=status)["images"]

    def bad(self, number, holder, cause):
        return {"chunk": number, "disk_offset": number * CHUNK, "length": min(CHUNK, SIZE - number * CHUNK),
                "image": holder, "cause": cause}


class Check(Images):
    def test_good_images(self):
        vrnx = self.chain()
        names = ["full.vrnx", "thin.vrnx", "top.vrnx"]
        self.assertEqual(self.check(vrnx, *names), [
            {"path": name, "result": "good", "chunks": COUNT, "checked": COUNT, "bad": [], "message": None}
            for name in names])
        result = vrnx.run("check", *names, "--password-file", "password")
        self.expect(result, GOOD, "".join(f"{name}: good, {COUNT} chunks\n" for name in names), "")

    def test_each_chunk_damaged_in_turn(self):
        vrnx = self.chain()
        for number, holder in enumerate(HOLDERS):
            builder = {"thin.vrnx": THIN, "full.vrnx": FULL, "top.vrnx": TOP}[holder]
            opened = image.Image(vrnx.path(holder), PASSWORD)
            self.assertEqual(builder[number * CHUNK:][:CHUNK], opened.chunk(number))
            data = opened.offsets[number]
            record = 64 + 72 * number
            sealed = holder == "thin.vrnx"
            cause = "authentication" if sealed else "hash"
            last = data + opened.records[number].stored_length - 1
            places = {"first byte": (data, cause), "last byte": (last, cause)}
            if sealed:
                places |= {"nonce": (record + 44, cause), "tag": (record + 56, cause)}
            if holder == "top.vrnx":
                places["hash"] = (record + 12, "hash")
            for place, (offset, expected) in places.items():
                with self.subTest(number=number, place=place):
                    self.expect_one_bad(vrnx, holder, offset, self.bad(number, holder, expected), place)

    def expect_one_bad(self, vrnx, holder, offset, bad, place):
        # A base with a damaged record is no longer the one that is pinned, and is itself the image to look at then.
        name = holder if place in ("nonce", "tag") else "top.vrnx"
        vrnx.flip(holder, offset)
        try:
            found, = self.check(vrnx, name, "--jobs", "3", status=DAMAGED)
            self.assertEqual((found["result"], found["chunks"], found["checked"]), ("damaged", COUNT, COUNT))
            self.assertEqual(found["bad"], [bad])
            self.assertIn("1 of 6", found["message"])
        finally:
            vrnx.flip(holder, offset)

    def test_many_bad_chunks_come_in_order_for_any_number_of_threads(self):
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD)
        plain = pattern(200 * CHUNK, "many")
        builder = ImageBuilder(plain, chunk_size=CHUNK)
        numbers = sorted(random.Random(1).sample(range(200), 90))
        for number in numbers:
            builder.stored[number] = bytes([builder.stored[number][0] ^ 1]) + builder.stored[number][1:]
        builder.write(vrnx.path("x.vrnx"))
        for jobs in ("1", "2", "7", "200", "1024"):
            found, = self.check(vrnx, "x.vrnx", "--jobs", jobs, status=DAMAGED)
            self.assertEqual([bad["chunk"] for bad in found["bad"]], numbers)
            self.assertEqual(found["checked"], 200)
        default, = self.check(vrnx, "x.vrnx", status=DAMAGED)
        self.assertEqual(default, found)

    def test_zeros_are_read_too(self):
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD)
        builder = build_image(vrnx.path("x.vrnx"), bytes(3 * CHUNK), chunk_size=CHUNK)
        vrnx.patch("x.vrnx", builder.data_offset(1) + 5, b"\1")
        self.assertEqual(self.check(vrnx, "x.vrnx", status=DAMAGED)[0]["bad"],
                         [{"chunk": 1, "disk_offset": 512, "length": 512, "image": "x.vrnx", "cause": "hash"}])

    def test_what_the_disk_does_not_need_is_not_read(self):
        vrnx = self.chain()
        vrnx.flip("full.vrnx", image.Image(vrnx.path("full.vrnx")).offsets[0])
        self.assertEqual(self.check(vrnx, "top.vrnx", "thin.vrnx")[0]["result"], "good")
        self.assertEqual(self.check(vrnx, "full.vrnx", status=DAMAGED)[0]["bad"], [self.bad(0, "full.vrnx", "hash")])

    def test_parts_are_runs_that_cover_all_once(self):
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD)
        for count in (1, 5, 12):
            builder = ImageBuilder(pattern(count * CHUNK, "parts"), chunk_size=CHUNK)
            builder.stored = [bytes(len(data)) for data in builder.stored]  # all are bad, so that each is named
            builder.write(vrnx.path("x.vrnx"))
            for parts in (1, 2, 3, 5, 7, 13):
                with self.subTest(count=count, parts=parts):
                    seen = []
                    for part in range(1, parts + 1):
                        document = json.loads(vrnx.run("check", "x.vrnx", "--part", f"{part}/{parts}", "--json").stdout)
                        found, = document["images"]
                        numbers = [bad["chunk"] for bad in found["bad"]]
                        self.assertEqual((found["chunks"], found["checked"]), (count, len(numbers)))
                        self.assertEqual(found["result"], "damaged" if numbers else "good")
                        self.assertIn(len(numbers), (count // parts, count // parts + 1))
                        seen += numbers
                    self.assertEqual(seen, list(range(count)))

    def test_a_wrong_password_shows_as_damage_of_all_that_is_sealed(self):
        vrnx = self.chain()
        vrnx.write("wrong", b"another one")
        found, = vrnx.document("check", "top.vrnx", "--password-file", "wrong", status=DAMAGED)["images"]
        self.assertEqual(found["bad"], [self.bad(number, "thin.vrnx", "authentication") for number in (0, 2)])
        self.assertIn("password may be the wrong one", found["message"])
        # One sealed chunk that opens shows that the password is the right one.
        vrnx.flip("thin.vrnx", image.Image(vrnx.path("thin.vrnx")).offsets[2])
        found, = self.check(vrnx, "top.vrnx", status=DAMAGED)
        self.assertEqual(found["bad"], [self.bad(2, "thin.vrnx", "authentication")])
        self.assertNotIn("password", found["message"])

    def test_without_its_password_a_sealed_image_is_unreadable(self):
        vrnx = self.chain()
        vrnx.write("empty", b"\r\n")
        vrnx.write("large", b"x" * 1048577)
        for arguments in ((), *(("--password-file", name) for name in ("absent", "empty", "large"))):
            with self.subTest(arguments=arguments):
                for name in ("thin.vrnx", "top.vrnx"):
                    found, = vrnx.document("check", name, *arguments, status=FAILED)["images"]
                    self.assertEqual({**found, "message": None}, {
                        "path": name, "result": "unreadable", "chunks": None, "checked": 0, "bad": [], "message": None})
                    self.assertIn("password", found["message"])
                # It is of no interest where nothing is sealed.
                self.assertEqual(vrnx.document("check", "full.vrnx", *arguments)["images"][0]["result"], "good")

    def test_the_worst_of_several_is_the_status(self):
        vrnx = self.chain()
        vrnx.write("stranger.vrnx", b"text" * 100)
        vrnx.flip("top.vrnx", image.Image(vrnx.path("top.vrnx"), PASSWORD).offsets[5])
        found = self.check(vrnx, "full.vrnx", "top.vrnx", "stranger.vrnx", status=DAMAGED)
        self.assertEqual([one["result"] for one in found], ["good", "damaged", "refused"])
        found = self.check(vrnx, "absent", "full.vrnx", "top.vrnx", "stranger.vrnx", "full.vrnx", status=FAILED)
        self.assertEqual([(one["path"], one["result"]) for one in found], [
            ("absent", "unreadable"), ("full.vrnx", "good"), ("top.vrnx", "damaged"), ("stranger.vrnx", "refused"),
            ("full.vrnx", "good")])
        result = vrnx.run("check", "absent", "top.vrnx", "stranger.vrnx", "--password-file", "password")
        self.assertEqual((result.status, result.stderr), (FAILED, b""))
        self.assertEqual([line.split(b":")[0] for line in result.stdout.splitlines()],
                         [b"absent", b"top.vrnx", b"  chunk 5", b"stranger.vrnx"])

    def test_refused_chains(self):
        vrnx = self.chain()
        os.remove(vrnx.path("full.vrnx"))
        found, = self.check(vrnx, "top.vrnx", status=DAMAGED)
        self.assertEqual({**found, "message": None}, {"path": "top.vrnx", "result": "refused", "chunks": None,
                                                      "checked": 0, "bad": [], "message": None})
        self.assertIn("full.vrnx", found["message"])

    def test_every_vector_has_the_verdict_of_its_expectation(self):
        vrnx = self.vrnx()
        with open(os.path.join(VECTORS, "expectations.json"), encoding="utf-8") as file:
            expectations = json.load(file)
        for name in {name.split("/")[0] for name in [*expectations, "password.txt"]}:
            os.symlink(os.path.join(VECTORS, name), vrnx.path(name))
        document = vrnx.document("check", *expectations, "--password-file", "password.txt", status=DAMAGED)
        password = b"correct horse"
        for found in document["images"]:
            with self.subTest(name=found["path"]):
                path = vrnx.path(found["path"])
                if expectations[found["path"]]["status"] == 0:
                    self.assertEqual((found["result"], found["checked"]), ("good", found["chunks"]))
                elif image.is_accepted(path, password):
                    self.assertEqual(found["result"], "damaged")
                    self.assertEqual([bad["chunk"] for bad in found["bad"]], bad_chunks(path, password))
                else:
                    self.assertEqual(found["result"], "refused")
                    self.assertIn(expectations[found["path"]]["message"], found["message"])

    def test_captures_of_the_program_are_good(self):
        machine = self.machine()
        machine.write("password", PASSWORD)
        sealing = ("--encrypt", "--password-file", "password")
        self.assertEqual(machine.run("capture", "--disk", "1", "--out", "a.vrnx", *sealing).status, 0)
        machine.poke_disk(1, 5000000, b"changed")
        self.assertEqual(machine.run("capture", "--disk", "1", "--out", "b.vrnx", "--base", "a.vrnx", "--thin",
                                     *sealing).status, 0)
        vrnx = self.vrnx()
        vrnx.work = machine.work
        for found in self.check(vrnx, "a.vrnx", "b.vrnx"):
            self.assertEqual((found["result"], found["checked"]), ("good", 3))

    def test_it_needs_no_more_memory_than_a_chunk_a_thread(self):
        if SETTINGS.windows or SETTINGS.sampled:
            self.skipTest("what is measured is the plain build on Linux")
        vrnx = self.vrnx()
        chunk = 16 << 20
        count = 12
        image.write_sparse_image(vrnx.path("x.vrnx"), count, chunk_size=chunk)
        for jobs in (1, 2, 4):
            status, peak = run_and_measure(vrnx, "check", "x.vrnx", "--jobs", str(jobs))
            self.assertEqual(status, GOOD)
            self.assertLess(peak, (jobs + 2) * chunk + (12 << 20), f"{jobs} jobs")

    def test_wrong_usage(self):
        vrnx = self.chain()
        for arguments in ((), ("--json",), ("full.vrnx", "--jobs", "0"), ("full.vrnx", "--jobs", "x"),
                          ("full.vrnx", "--jobs", "-1"), ("full.vrnx", "--jobs", "1025"), ("full.vrnx", "--jobs"),
                          ("full.vrnx", "--jobs", ""), ("full.vrnx", "--jobs", "2 "), ("full.vrnx", "--part", "0/2"),
                          ("full.vrnx", "--part", "3/2"), ("full.vrnx", "--part", "1/0"), ("full.vrnx", "--part", "1"),
                          ("full.vrnx", "--part", "/"), ("full.vrnx", "--part", "1/2/3"),
                          ("full.vrnx", "--part", "1/-2"),
                          ("full.vrnx", "--part", "99999999999999999999/99999999999999999999"),
                          ("full.vrnx", "--jobs", "1", "--jobs", "1"), ("full.vrnx", "--unknown"),
                          ("full.vrnx", "--json=yes"), ("full.vrnx", "--password-file"), ("full.vrnx", "-j")):
            with self.subTest(arguments=arguments):
                self.expect_failure(vrnx.run("check", *arguments), USAGE, "vrnx check --help")


def bad_chunks(path, password):
    opened = image.Image(path, password)
    numbers = []
    for number in range(len(opened.records)):
        try:
            opened.chunk(number)
        except image.ImageError:
            numbers.append(number)
    return numbers


def run_and_measure(vrnx, *arguments):
    """The status and the peak of a run's memory in bytes."""
    script = ("import os,resource,subprocess,sys;"
              "status=subprocess.run(sys.argv[1:],stdout=subprocess.DEVNULL).returncode;"
              "print(status,resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss*1024)")
    done = vrnx.start(*arguments, prefix=(sys.executable, "-c", script), capture_output=True)
    status, peak = done.stdout.split()
    return int(status), int(peak)


class Diff(Images):
    def test_ranges_that_touch_are_one(self):
        vrnx = self.vrnx()
        plain = pattern(10 * CHUNK + 7, "old")
        build_image(vrnx.path("old.vrnx"), plain, chunk_size=CHUNK)
        for changed, ranges in (([], []), ([0], [(0, 512)]), ([0, 1, 2], [(0, 1536)]),
                                ([1, 3, 4], [(512, 512), (1536, 1024)]), ([9, 10], [(4608, 519)]), ([10], [(5120, 7)]),
                                (range(11), [(0, 5127)])):
            with self.subTest(changed=list(changed)):
                newer = bytearray(plain)
                for number in changed:
                    newer[number * CHUNK] ^= 1
                build_image(vrnx.path("new.vrnx"), bytes(newer), chunk_size=CHUNK)
                expected = {"schema_version": 1, "disk_size": len(plain),
                            "ranges": [{"offset": offset, "length": length} for offset, length in ranges],
                            "changed_chunks": len(changed), "changed_bytes": sum(length for _, length in ranges)}
                self.assertEqual(vrnx.document("diff", "old.vrnx", "new.vrnx"), expected)
                self.assertEqual(vrnx.document("diff", "new.vrnx", "old.vrnx"), expected)
                result = vrnx.run("diff", "old.vrnx", "new.vrnx")
                self.assertEqual((result.status, result.stderr), (GOOD, b""))
                self.assertEqual([line.split() for line in result.stdout.decode().splitlines()[:-1]],
                                 [[str(offset), str(length)] for offset, length in ranges])

    def test_neither_password_nor_base_nor_data_are_needed(self):
        vrnx = self.chain()
        os.remove(vrnx.path("full.vrnx"))
        vrnx.flip("thin.vrnx", image.read_header(vrnx.path("thin.vrnx")).chunk_count * 72 + 64)
        document = vrnx.document("diff", "thin.vrnx", "top.vrnx")
        self.assertEqual(document["ranges"], [{"offset": 5 * CHUNK, "length": 100}])

    def test_disks_or_chunks_of_other_sizes_are_wrong_usage(self):
        vrnx = self.chain()
        build_image(vrnx.path("other-disk.vrnx"), FULL[:-1], chunk_size=CHUNK)
        build_image(vrnx.path("other-chunks.vrnx"), FULL, chunk_size=2 * CHUNK)
        self.expect_failure(vrnx.run("diff", "full.vrnx", "other-disk.vrnx", "--json"), USAGE, str(SIZE), str(SIZE - 1))
        self.expect_failure(vrnx.run("diff", "full.vrnx", "other-chunks.vrnx", "--json"), USAGE, "512", "1024")

    def test_refused_and_unopened(self):
        vrnx = self.chain()
        vrnx.write("stranger.vrnx", bytes(100))
        self.expect_failure(vrnx.run("diff", "full.vrnx", "stranger.vrnx", "--json"), DAMAGED, "stranger.vrnx")
        self.expect_failure(vrnx.run("diff", "absent", "full.vrnx", "--json"), FAILED, "absent")
        self.expect_failure(vrnx.run("diff", "stranger.vrnx", "absent", "--json"), FAILED, "absent", "stranger.vrnx")
        for arguments in ((), ("full.vrnx",), ("full.vrnx", "thin.vrnx", "top.vrnx")):
            self.expect_failure(vrnx.run("diff", *arguments), USAGE)


if __name__ == "__main__":
    suite.main()
