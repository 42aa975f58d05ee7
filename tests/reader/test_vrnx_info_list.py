"""vrnx info and vrnx list: every field, every state, every status."""

import json
import os

import image
import suite
from image import ImageBuilder, build_image
from machine import CHECKOUT, pattern
from sealing import PASSWORD
from vrnx_runs import DAMAGED, FAILED, GOOD, VrnxScenario

VECTORS = os.path.join(CHECKOUT, "tests", "vectors")
CHUNK = 4096
SIZE = 5 * CHUNK + 512
PLAIN = pattern(SIZE, "plain")
# Chunk 1 and the short last one become zeros.
NEWER = PLAIN[:CHUNK] + bytes(CHUNK) + PLAIN[2 * CHUNK:5 * CHUNK] + bytes(512)
NEWEST = pattern(CHUNK, "newest") + NEWER[CHUNK:]

with open(os.path.join(VECTORS, "expectations.json"), encoding="utf-8") as file:
    EXPECTATIONS = json.load(file)


class Images(VrnxScenario):
    def chain(self):
        """A plain full image, a sealed thin one over it, and a plain thin one over that."""
        vrnx = self.vrnx()
        self.full = build_image(vrnx.path("full.vrnx"), PLAIN, epoch=0xAB)
        self.thin = build_image(vrnx.path("thin.vrnx"), NEWER, base=vrnx.path("full.vrnx"), password=PASSWORD,
                                seed="thin")
        self.top = build_image(vrnx.path("top.vrnx"), NEWEST, base=vrnx.path("thin.vrnx"), epoch=0x123456789ABCDE)
        return vrnx


class Info(Images):
    def test_a_full_image(self):
        vrnx = self.chain()
        self.assertEqual(vrnx.document("info", "full.vrnx"), {
            "schema_version": 1, "path": "full.vrnx", "version": 2, "disk_size": SIZE, "sector_size": 512,
            "chunk_size": CHUNK, "chunk_count": 6, "encrypted": False, "kdf_iterations": 0, "salt": None, "epoch": "AB",
            "digest": self.full.digest().hex(), "file_size": os.path.getsize(vrnx.path("full.vrnx")),
            "chunks": {"stored": 6, "references": 0, "zero": 0}, "base": None,
            "chain": [{"path": "full.vrnx", "digest": self.full.digest().hex(), "version": 2, "encrypted": False,
                       "chunks_used": 6}],
            "problems": []})

    def test_a_chain_of_three_without_its_password(self):
        vrnx = self.chain()
        document = vrnx.document("info", "top.vrnx")
        self.assertEqual(document["epoch"], "123456789ABCDE")
        self.assertEqual((document["encrypted"], document["salt"]), (False, None))
        self.assertEqual(document["chunks"], {"stored": 1, "references": 5, "zero": 2})
        full, thin, top = (builder.digest().hex() for builder in (self.full, self.thin, self.top))
        self.assertEqual(document["base"], {"name": "thin.vrnx", "digest": thin, "path": "thin.vrnx", "state": "good"})
        self.assertEqual(document["chain"], [
            {"path": "top.vrnx", "digest": top, "version": 3, "encrypted": False, "chunks_used": 1},
            {"path": "thin.vrnx", "digest": thin, "version": 3, "encrypted": True, "chunks_used": 2},
            {"path": "full.vrnx", "digest": full, "version": 2, "encrypted": False, "chunks_used": 3}])

    def test_a_sealed_image(self):
        vrnx = self.chain()
        document = vrnx.document("info", "thin.vrnx")
        self.assertIs(document["encrypted"], True)
        self.assertEqual((document["kdf_iterations"], document["salt"]), (100000, self.thin.header.salt.hex()))
        self.assertIsNone(document["epoch"])
        self.assertEqual(document["chunks"], {"stored": 2, "references": 4, "zero": 2})

    def test_paths_are_as_given_and_bases_beside_them(self):
        vrnx = self.chain()
        os.mkdir(vrnx.path("folder"))
        for name in ("full.vrnx", "thin.vrnx", "top.vrnx"):
            os.rename(vrnx.path(name), vrnx.path(f"folder/{name}"))
        document = vrnx.document("info", "folder/top.vrnx")
        self.assertEqual(document["path"], "folder/top.vrnx")
        self.assertEqual(document["base"]["path"], "folder/thin.vrnx")
        self.assertEqual([link["path"] for link in document["chain"]],
                         ["folder/top.vrnx", "folder/thin.vrnx", "folder/full.vrnx"])

    def expect_base(self, vrnx, name, state, length):
        document = vrnx.document("info", name, status=DAMAGED)
        self.assertEqual(document["base"]["state"], state)
        self.assertEqual(len(document["chain"]), length)
        self.assertGreater(len(document["problems"]), 0)
        return document

    def test_a_missing_base(self):
        vrnx = self.chain()
        os.remove(vrnx.path("thin.vrnx"))
        document = self.expect_base(vrnx, "top.vrnx", "missing", 1)
        self.assertEqual(document["chunks"], {"stored": 1, "references": 5, "zero": 2})
        self.assertEqual(document["chain"][0]["chunks_used"], 1)
        self.assertIn("thin.vrnx", document["problems"][0])

    def test_a_base_that_lacks_its_own(self):
        vrnx = self.chain()
        os.remove(vrnx.path("full.vrnx"))
        document = self.expect_base(vrnx, "top.vrnx", "incomplete", 2)
        self.assertEqual([link["chunks_used"] for link in document["chain"]], [1, 2])
        self.expect_base(vrnx, "thin.vrnx", "missing", 1)

    def test_a_replaced_base(self):
        vrnx = self.chain()
        build_image(vrnx.path("full.vrnx"), PLAIN, epoch=0xAC)
        self.expect_base(vrnx, "thin.vrnx", "replaced", 1)
        self.expect_base(vrnx, "top.vrnx", "incomplete", 2)

    def test_a_base_of_another_disk(self):
        vrnx = self.vrnx()
        other = build_image(vrnx.path("other.vrnx"), PLAIN[:CHUNK])
        builder = ImageBuilder(PLAIN, base=build_image(vrnx.path("x"), PLAIN) and vrnx.path("x"))
        builder.trailer.base_name, builder.trailer.base_digest = b"other.vrnx", other.digest()
        builder.write(vrnx.path("thin.vrnx"))
        self.expect_base(vrnx, "thin.vrnx", "replaced", 1)

    def test_a_refused_base(self):
        vrnx = self.chain()
        with open(vrnx.path("thin.vrnx"), "r+b") as file:
            file.truncate(64 + 72 * 6)
        self.expect_base(vrnx, "top.vrnx", "refused", 1)
        with open(vrnx.path("thin.vrnx"), "r+b") as file:
            file.truncate(10)
        self.expect_base(vrnx, "top.vrnx", "refused", 1)
        os.remove(vrnx.path("thin.vrnx"))
        os.mkdir(vrnx.path("thin.vrnx"))
        self.expect_base(vrnx, "top.vrnx", "refused", 1)

    def test_names_that_lead_out_of_the_folder_are_refused(self):
        vrnx = self.chain()
        for name in (b"../full.vrnx", b"c:full.vrnx", b"a\\full.vrnx", b"..", b".", b"full.vrnx\0", b"\0"):
            with self.subTest(name=name):
                build_image(vrnx.path("evil.vrnx"), NEWER, base=vrnx.path("full.vrnx"), base_name=name)
                document = self.expect_base(vrnx, "evil.vrnx", "refused", 1)
                self.assertEqual(document["base"]["name"], name.decode())
                self.assertIsNone(document["base"]["path"])

    def test_a_bad_record_leaves_what_the_header_says(self):
        vrnx = self.chain()
        vrnx.flip("full.vrnx", 64 + 72 * 2)
        document = vrnx.document("info", "full.vrnx", status=DAMAGED)
        self.assertEqual((document["disk_size"], document["chunk_count"]), (SIZE, 6))
        self.assertEqual(document["digest"], image.digest_of(vrnx.path("full.vrnx")).hex())
        self.assertIsNone(document["chunks"])
        self.assertIsNone(document["chain"][0]["chunks_used"])

    def test_what_is_no_image_is_described_by_nulls(self):
        vrnx = self.vrnx()
        for content in (b"", bytes(63), bytes(64), bytes(10000), b"text\n" * 100):
            with self.subTest(length=len(content)):
                vrnx.write("x.vrnx", content)
                document = vrnx.document("info", "x.vrnx", status=DAMAGED)
                known = {name: value for name, value in document.items() if value is not None}
                self.assertEqual(list(known), ["schema_version", "path", "file_size", "problems"])
                self.assertEqual(known["file_size"], len(content))
                self.assertEqual(len(known["problems"]), 1)

    def test_vectors_that_are_refused_and_no_other_have_problems(self):
        vrnx = self.vrnx()
        for name in {name.split("/")[0] for name in EXPECTATIONS}:
            os.symlink(os.path.join(VECTORS, name), vrnx.path(name))
        for name, expected in EXPECTATIONS.items():
            with self.subTest(name=name):
                refused = not image.is_accepted(vrnx.path(name))
                document = vrnx.document("info", name, status=DAMAGED if refused else GOOD)
                if refused:
                    self.assertIn(expected["message"].split(": ")[-1].rstrip("\n"), document["problems"][0])

    def test_what_cannot_be_opened_gives_no_document(self):
        vrnx = self.vrnx()
        os.mkdir(vrnx.path("folder"))
        for name in ("absent", "folder", "folder/absent", ""):
            with self.subTest(name=name):
                self.expect_failure(vrnx.run("info", name, "--json"), FAILED)
                self.expect_failure(vrnx.run("info", name), FAILED)

    def test_text_names_what_matters(self):
        vrnx = self.chain()
        result = vrnx.run("info", "top.vrnx")
        self.assertEqual((result.status, result.stderr), (GOOD, b""))
        text = result.stdout.decode()
        for word in ("top.vrnx", "thin.vrnx", "full.vrnx", "123456789ABCDE", self.top.digest().hex(), "thin, sealed",
                     "1 stored here, 5 in a base; 2 are zeros"):
            self.assertIn(word, text)
        os.remove(vrnx.path("thin.vrnx"))
        result = vrnx.run("info", "top.vrnx")
        self.assertEqual((result.status, result.stderr), (DAMAGED, b""))
        self.assertIn(b"Problem ", result.stdout)

    def test_a_name_cannot_steer_the_terminal(self):
        vrnx = self.chain()
        name = b"\x1b[2Jx\n\x7f\xc2\x9b1m\xff"
        build_image(vrnx.path("evil.vrnx"), NEWER, base=vrnx.path("full.vrnx"), base_name=name)
        text = vrnx.run("info", "evil.vrnx").stdout
        self.assertIn(b"\\x1b[2Jx\\x0a\\x7f\\xc2\\x9b1m\\xff", text)
        document = vrnx.document("info", "evil.vrnx", status=DAMAGED)
        self.assertEqual(document["base"]["name"], os.fsdecode(name))
        self.assertIn(b"\\udcff", vrnx.run("info", "evil.vrnx", "--json").stdout)


class List(Images):
    def by_name(self, vrnx, status=GOOD, folder="."):
        document = vrnx.document("list", folder, status=status)
        self.assertEqual(document["folder"], folder)
        names = [entry["path"] for entry in document["images"]]
        self.assertEqual(names, sorted(names, key=os.fsencode))
        return {entry["path"]: entry for entry in document["images"]}

    def test_a_chain(self):
        vrnx = self.chain()
        self.assertEqual(vrnx.document("list", "."), {"schema_version": 1, "folder": ".", "images": [
            {"path": "full.vrnx", "kind": "full", "digest": self.full.digest().hex(), "disk_size": SIZE, "base": None,
             "needed_by": ["thin.vrnx"], "deletable": False, "state": "complete", "reason": None},
            {"path": "thin.vrnx", "kind": "thin", "digest": self.thin.digest().hex(), "disk_size": SIZE,
             "base": "full.vrnx", "needed_by": ["top.vrnx"], "deletable": False, "state": "complete", "reason": None},
            {"path": "top.vrnx", "kind": "thin", "digest": self.top.digest().hex(), "disk_size": SIZE,
             "base": "thin.vrnx", "needed_by": [], "deletable": True, "state": "complete", "reason": None}]})

    def test_a_missing_base_breaks_all_above_it(self):
        vrnx = self.chain()
        os.remove(vrnx.path("full.vrnx"))
        entries = self.by_name(vrnx, DAMAGED)
        self.assertEqual([entry["state"] for entry in entries.values()], ["broken", "broken"])
        for entry in entries.values():
            self.assertIn("full.vrnx", entry["reason"])
            self.assertIn("missing", entry["reason"])
        # It is of no use, and yet what is above it would need it.
        self.assertEqual([entry["deletable"] for entry in entries.values()], [False, True])
        self.assertEqual(entries["thin.vrnx"]["needed_by"], ["top.vrnx"])

    def test_a_replaced_base_is_needed_by_nobody(self):
        vrnx = self.chain()
        build_image(vrnx.path("full.vrnx"), PLAIN, epoch=0xAC)
        entries = self.by_name(vrnx, DAMAGED)
        self.assertEqual([entries[name]["state"] for name in entries], ["complete", "broken", "broken"])
        self.assertEqual((entries["full.vrnx"]["needed_by"], entries["full.vrnx"]["deletable"]), ([], True))

    def test_several_need_one(self):
        vrnx = self.chain()
        for name in ("b.vrnx", "a.vrnx"):
            build_image(vrnx.path(name), NEWEST, base=vrnx.path("full.vrnx"))
        self.assertEqual(self.by_name(vrnx)["full.vrnx"]["needed_by"], ["a.vrnx", "b.vrnx", "thin.vrnx"])

    def test_unfinished_files_and_strangers_have_nothing_to_say(self):
        vrnx = self.chain()
        vrnx.write("new.vrnx.partial", bytes(64) + b"rest")
        vrnx.write("old.vrnx", bytes(5000))
        vrnx.write("short.partial", bytes(63))
        vrnx.write("empty.vrnx", b"")
        vrnx.write("text.vrnx", b"text" * 100)
        vrnx.write("notes.txt", b"none of it")
        entries = self.by_name(vrnx)
        self.assertEqual({name: entry["kind"] for name, entry in entries.items()}, {
            "empty.vrnx": "not an image", "full.vrnx": "full", "new.vrnx.partial": "unfinished",
            "old.vrnx": "unfinished", "short.partial": "not an image", "text.vrnx": "not an image",
            "thin.vrnx": "thin", "top.vrnx": "thin"})
        for name in ("empty.vrnx", "new.vrnx.partial", "old.vrnx", "short.partial", "text.vrnx"):
            self.assertEqual([value for value in entries[name].values() if value is not None],
                             [name, entries[name]["kind"]])

    def test_a_whole_image_is_what_it_is_by_any_name(self):
        vrnx = self.chain()
        os.rename(vrnx.path("top.vrnx"), vrnx.path("top.vrnx.partial"))
        os.rename(vrnx.path("full.vrnx"), vrnx.path("FULL.VRNX"))
        build_image(vrnx.path("over.Partial"), NEWEST, base=vrnx.path("FULL.VRNX"))
        entries = self.by_name(vrnx, GOOD if self.settings.windows else DAMAGED)
        self.assertEqual(entries["top.vrnx.partial"]["kind"], "thin")
        self.assertEqual(entries["over.Partial"]["state"], "complete")
        # Letter case counts where it counts for the system.
        self.assertEqual(entries["thin.vrnx"]["state"], "complete" if self.settings.windows else "broken")

    def test_a_base_of_another_suffix_counts(self):
        vrnx = self.vrnx()
        build_image(vrnx.path("first.vrnx"), PLAIN)
        build_image(vrnx.path("middle.img"), NEWER, base=vrnx.path("first.vrnx"))
        build_image(vrnx.path("last.vrnx"), NEWEST, base=vrnx.path("middle.img"))
        entries = self.by_name(vrnx)
        self.assertEqual(list(entries), ["first.vrnx", "last.vrnx"])
        self.assertEqual((entries["last.vrnx"]["state"], entries["last.vrnx"]["base"]), ("complete", "middle.img"))
        self.assertEqual(entries["first.vrnx"]["needed_by"], ["middle.img"])
        self.assertIs(entries["first.vrnx"]["deletable"], False)
        os.remove(vrnx.path("first.vrnx"))
        self.assertIn("first.vrnx", self.by_name(vrnx, DAMAGED)["last.vrnx"]["reason"])

    def test_a_broken_image_is_broken_by_its_own_reason(self):
        vrnx = self.chain()
        vrnx.flip("full.vrnx", 64 + 8)
        entries = self.by_name(vrnx, DAMAGED)
        self.assertEqual([entry["state"] for entry in entries.values()], ["broken"] * 3)
        self.assertIn("chunk table", entries["full.vrnx"]["reason"])
        self.assertEqual(entries["full.vrnx"]["kind"], "full")

    def test_chains_that_lead_back_to_themselves_end(self):
        vrnx = self.chain()
        # A digest covers no trailer, so that two images can pin each other, and one itself.
        one = ImageBuilder(NEWER, base=vrnx.path("full.vrnx"))
        other = ImageBuilder(NEWEST, base=vrnx.path("full.vrnx"))
        one.trailer.base_name, one.trailer.base_digest = b"other.vrnx", other.digest()
        other.trailer.base_name, other.trailer.base_digest = b"one.vrnx", one.digest()
        one.write(vrnx.path("one.vrnx"))
        other.write(vrnx.path("other.vrnx"))
        one.trailer.base_name, one.trailer.base_digest = b"self.vrnx", one.digest()
        one.write(vrnx.path("self.vrnx"))
        entries = self.by_name(vrnx, DAMAGED)
        for name in ("one.vrnx", "other.vrnx", "self.vrnx"):
            self.assertEqual(entries[name]["state"], "broken", name)
        self.assertEqual(entries["self.vrnx"]["needed_by"], [])
        self.assertEqual(entries["one.vrnx"]["needed_by"], ["other.vrnx"])
        lines = vrnx.run("list", ".").stdout.decode().splitlines()
        self.assertEqual(sum(line.lstrip().startswith(("one.vrnx ", "other.vrnx ", "self.vrnx ")) for line in lines), 3)
        document = vrnx.document("info", "one.vrnx", status=DAMAGED)
        self.assertGreater(len(document["problems"]), 0)

    def test_a_chain_may_have_65_images_and_no_more(self):
        vrnx = self.vrnx()
        build_image(vrnx.path("00.vrnx"), PLAIN[:1024], chunk_size=512)
        for number in range(1, 67):
            build_image(vrnx.path(f"{number:02}.vrnx"), PLAIN[:1024], chunk_size=512,
                        base=vrnx.path(f"{number - 1:02}.vrnx"))
        entries = self.by_name(vrnx, DAMAGED)
        self.assertEqual([name for name, entry in entries.items() if entry["state"] == "broken"],
                         ["65.vrnx", "66.vrnx"])
        self.assertEqual(len(vrnx.document("info", "64.vrnx")["chain"]), 65)
        self.assertEqual(vrnx.document("info", "65.vrnx", status=DAMAGED)["base"]["state"], "incomplete")

    def test_list_and_info_agree_on_every_vector(self):
        vrnx = self.vrnx()
        names = [name for name in EXPECTATIONS if "/" not in name]
        for name in names:
            os.symlink(os.path.join(VECTORS, name), vrnx.path(name))
        entries = self.by_name(vrnx, DAMAGED)
        self.assertEqual(sorted(names), sorted(entries))
        for name, entry in entries.items():
            with self.subTest(name=name):
                document = json.loads(vrnx.run("info", name, "--json").stdout)
                if entry["state"] is None:
                    self.assertIsNone(document["version"])
                else:
                    self.assertEqual(entry["state"], "broken" if document["problems"] else "complete")
                    self.assertEqual(entry["digest"], document["digest"])
                    self.assertEqual(entry["disk_size"], document["disk_size"])
                    self.assertEqual(entry["base"], document["base"] and document["base"]["name"])

    def test_a_folder_with_nothing_in_it(self):
        vrnx = self.vrnx()
        self.assertEqual(self.by_name(vrnx), {})
        result = vrnx.run("list", ".")
        self.assertEqual((result.status, result.stdout, result.stderr), (GOOD, b"", b""))

    def test_what_is_no_folder_cannot_be_listed(self):
        vrnx = self.chain()
        for name in ("absent", "full.vrnx", ""):
            with self.subTest(name=name):
                self.expect_failure(vrnx.run("list", name, "--json"), FAILED)

    def test_the_tree_as_text(self):
        vrnx = self.chain()
        build_image(vrnx.path("orphan.vrnx"), NEWER, base=vrnx.path("full.vrnx"), base_name=b"gone.vrnx")
        result = vrnx.run("list", ".")
        self.assertEqual((result.status, result.stderr), (DAMAGED, b""))
        lines = result.stdout.decode().splitlines()
        self.assertEqual([line if "BROKEN" in line else line[:line.index(".vrnx") + 5] for line in lines],
                         ["full.vrnx", "  thin.vrnx", "    top.vrnx", "orphan.vrnx",
                          "  BROKEN: gone.vrnx, the base of orphan.vrnx, is missing"])
        self.assertIn("can be deleted", lines[2])
        self.assertNotIn("can be deleted", lines[1])


if __name__ == "__main__":
    suite.main()
