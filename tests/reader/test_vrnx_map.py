"""vrnx map: what each cell shows, as text and as SVG, with and without the document of a check."""

import json
import os
import xml.etree.ElementTree

import image
import suite
from image import build_image
from machine import pattern
from sealing import PASSWORD
from vrnx_runs import DAMAGED, FAILED, GOOD, USAGE, VrnxScenario

CHUNK = 512
FULL = pattern(3 * CHUNK, "a") + bytes(2 * CHUNK) + pattern(4 * CHUNK + 100, "b")
THIN = pattern(CHUNK, "thin") + FULL[CHUNK:6 * CHUNK] + bytes(CHUNK) + FULL[7 * CHUNK:]
TOP = THIN[:2 * CHUNK] + pattern(2 * CHUNK, "top") + THIN[4 * CHUNK:]
SVG = "{http://www.w3.org/2000/svg}"


class Map(VrnxScenario):
    def chain(self):
        vrnx = self.vrnx()
        build_image(vrnx.path("full.vrnx"), FULL, chunk_size=CHUNK)
        build_image(vrnx.path("thin.vrnx"), THIN, chunk_size=CHUNK, base=vrnx.path("full.vrnx"), password=PASSWORD)
        build_image(vrnx.path("top.vrnx"), TOP, chunk_size=CHUNK, base=vrnx.path("thin.vrnx"))
        return vrnx

    def cells(self, vrnx, *arguments, status=GOOD):
        """The cells of the map as text, and the lines of its legend."""
        result = vrnx.run("map", *arguments)
        self.assertEqual(result.status, status, result.stderr)
        head, drawing, legend = result.stdout.decode().split("\n\n")
        self.assertTrue(head.startswith(f"{arguments[0]}: "), head)
        return "".join(line[12:] for line in drawing.splitlines()), [line.strip() for line in legend.splitlines()]

    def check_document(self, vrnx, *arguments):
        vrnx.write("check.json", vrnx.run("check", *arguments, "--json").stdout)

    def test_each_chunk_shows_the_image_that_holds_it(self):
        vrnx = self.chain()
        self.assertEqual(self.cells(vrnx, "full.vrnx"), ("AAA..AAAAA", [
            "A  full.vrnx, 8 chunks", ".  zeros, 2 chunks"]))
        self.assertEqual(self.cells(vrnx, "top.vrnx"), ("BCAA.C.CCC", [
            "A  top.vrnx, 2 chunks", "B  thin.vrnx, 1 chunk", "C  full.vrnx, 5 chunks", ".  zeros, 2 chunks"]))

    def test_what_a_check_found_is_marked(self):
        vrnx = self.chain()
        for number in (1, 3, 8):  # the topmost stores chunk 3 anew
            vrnx.flip("full.vrnx", image.Image(vrnx.path("full.vrnx")).offsets[number])
        vrnx.write("password", PASSWORD)
        self.check_document(vrnx, "full.vrnx", "top.vrnx", "--password-file", "password")
        cells, legend = self.cells(vrnx, "top.vrnx", "--check", "check.json", status=DAMAGED)
        self.assertEqual(cells, "B!AA.C.C!C")
        self.assertIn("!  bad, by the check, 2 chunks", legend)
        self.assertIn("C  full.vrnx, 3 chunks", legend)
        self.assertEqual(self.cells(vrnx, "full.vrnx", "--check", "check.json", status=DAMAGED)[0], "A!A!.AAA!A")
        self.check_document(vrnx, "top.vrnx", "--password-file", "password", "--part", "1/5")
        self.assertEqual(self.cells(vrnx, "top.vrnx", "--check", "check.json", status=DAMAGED)[0], "B!AA.C.CCC")

    def test_an_image_is_found_by_the_name_of_its_file_too(self):
        vrnx = self.chain()
        vrnx.flip("full.vrnx", image.Image(vrnx.path("full.vrnx")).offsets[1])
        self.check_document(vrnx, "full.vrnx")
        os.mkdir(vrnx.path("folder"))
        os.rename(vrnx.path("full.vrnx"), vrnx.path("folder/full.vrnx"))
        self.assertEqual(self.cells(vrnx, "folder/full.vrnx", "--check", "check.json", status=DAMAGED)[0], "A!A..AAAAA")

    def test_a_chunk_that_lies_in_no_image_is_shown(self):
        vrnx = self.chain()
        os.remove(vrnx.path("full.vrnx"))
        cells, legend = self.cells(vrnx, "top.vrnx", status=DAMAGED)
        self.assertEqual(cells, "B?AA.?.???")
        self.assertIn("?  in no image that is there, 5 chunks", legend)

    def test_one_bad_chunk_is_seen_in_a_large_cell(self):
        vrnx = self.vrnx()
        count = 10000
        plain = bytearray(pattern(count * CHUNK, "large"))
        plain[5000 * CHUNK:5500 * CHUNK] = bytes(500 * CHUNK)
        build_image(vrnx.path("x.vrnx"), bytes(plain), chunk_size=CHUNK)
        vrnx.flip("x.vrnx", 64 + 72 * count + 777 * CHUNK)
        self.check_document(vrnx, "x.vrnx")
        cells, legend = self.cells(vrnx, "x.vrnx", "--check", "check.json", status=DAMAGED)
        self.assertEqual(len(cells), 2000)  # of five chunks each
        self.assertEqual(cells, "A" * 155 + "!" + "A" * 844 + "." * 100 + "A" * 900)
        self.assertEqual(legend, ["A  x.vrnx, 9499 chunks", "!  bad, by the check, 1 chunk", ".  zeros, 500 chunks"])

    def test_documents_that_tell_nothing_of_the_image(self):
        vrnx = self.chain()
        self.check_document(vrnx, "full.vrnx")
        good = json.loads(vrnx.read("check.json"))
        entry = good["images"][0]
        for name, content in (
                ("empty", b""), ("text", b"good"), ("array", b"[]"), ("other", b"{}"),
                ("cut", vrnx.read("check.json")[:-9]),
                ("version", json.dumps({**good, "schema_version": 2}).encode()),
                ("none", json.dumps({**good, "images": []}).encode()),
                ("shape", json.dumps({**good, "images": [{**entry, "chunks": 9}]}).encode()),
                ("refused", json.dumps({**good, "images": [{**entry, "chunks": None, "result": "refused"}]}).encode()),
                ("beyond", json.dumps({**good, "images": [{**entry, "bad": [{"chunk": 10}]}]}).encode()),
                ("kind", json.dumps({**good, "images": [{**entry, "bad": [{"chunk": "1"}]}]}).encode()),
                ("negative", json.dumps({**good, "images": [{**entry, "bad": [{"chunk": -1}]}]}).encode()),
                ("number", json.dumps({**good, "images": 5}).encode())):
            with self.subTest(name=name):
                vrnx.write("bad.json", content)
                self.expect_failure(vrnx.run("map", "full.vrnx", "--check", "bad.json"), FAILED, "bad.json: ")
        self.expect_failure(vrnx.run("map", "full.vrnx", "--check", "absent"), FAILED, "absent")
        self.expect_failure(vrnx.run("map", "thin.vrnx", "--check", "check.json"), FAILED, "thin.vrnx")

    def test_refused_and_unopened(self):
        vrnx = self.chain()
        vrnx.write("stranger.vrnx", bytes(1000))
        self.expect_failure(vrnx.run("map", "stranger.vrnx"), DAMAGED, "stranger.vrnx")
        self.expect_failure(vrnx.run("map", "absent"), FAILED, "absent")
        for arguments in ((), ("full.vrnx", "thin.vrnx"), ("full.vrnx", "--json"), ("full.vrnx", "--svg")):
            self.expect_failure(vrnx.run("map", *arguments), USAGE)

    def test_svg(self):
        vrnx = self.chain()
        for name in ("thin.vrnx", "top.vrnx"):
            vrnx.flip(name, 64 + 72 * 10 + 5)
        vrnx.write("password", PASSWORD)
        self.check_document(vrnx, "top.vrnx", "--password-file", "password")
        result = vrnx.run("map", "top.vrnx", "--check", "check.json", "--svg", "map.svg")
        self.expect(result, DAMAGED, "", "vrnx: top.vrnx: 2 bad chunks\n")
        root = xml.etree.ElementTree.fromstring(vrnx.read("map.svg"))
        self.assertEqual(root.tag, SVG + "svg")
        cells = [square for square in root.iter(SVG + "rect") if square.find(SVG + "title") is not None]
        self.assertEqual([cell.find(SVG + "title").text for cell in cells], [
            "chunk 0, disk offset 0: bad, by the check", "chunk 1, disk offset 512: full.vrnx",
            "chunk 2, disk offset 1024: bad, by the check", "chunk 3, disk offset 1536: top.vrnx",
            "chunk 4, disk offset 2048: zeros", "chunk 5, disk offset 2560: full.vrnx",
            "chunk 6, disk offset 3072: zeros"] + [f"chunk {n}, disk offset {n * 512}: full.vrnx" for n in (7, 8, 9)])
        kinds = [cell.get("class") for cell in cells]
        self.assertEqual(kinds, ["k0", "k5", "k0", "k3", "k2", "k5", "k2", "k5", "k5", "k5"])
        style = root.find(SVG + "style").text
        for kind in set(kinds):
            self.assertIn(f".{kind}{{fill:#", style)
        texts = [text.text for text in root.iter(SVG + "text")]
        for line in ("top.vrnx, 1 chunk", "thin.vrnx, 0 chunks", "full.vrnx, 5 chunks", "bad, by the check, 2 chunks",
                     "zeros, 2 chunks"):
            self.assertIn(line, texts)

    def test_svg_never_overwrites(self):
        vrnx = self.chain()
        before = vrnx.read("thin.vrnx")
        self.expect_failure(vrnx.run("map", "full.vrnx", "--svg", "thin.vrnx"), FAILED, "thin.vrnx")
        self.expect_failure(vrnx.run("map", "full.vrnx", "--svg", "absent/x.svg"), FAILED, "absent/x.svg")
        self.assertEqual(vrnx.read("thin.vrnx"), before)

    def test_the_longest_chain_has_a_symbol_for_each_image(self):
        vrnx = self.vrnx()
        plain = bytearray(pattern(65 * CHUNK, "65"))
        base = None
        for level in range(65):
            plain[level * CHUNK:(level + 1) * CHUNK] = pattern(CHUNK, f"level {level}")
            build_image(vrnx.path(f"{level}.vrnx"), bytes(plain), chunk_size=CHUNK, base=base)
            base = vrnx.path(f"{level}.vrnx")
        cells, legend = self.cells(vrnx, "64.vrnx")
        self.assertEqual(len(set(cells)), 65)
        self.assertEqual(len(legend), 65)
        self.assertEqual(legend[0], f"{cells[64]}  64.vrnx, 1 chunk")
        self.assertEqual(legend[64], f"{cells[0]}  0.vrnx, 1 chunk")
        self.assertEqual(vrnx.run("map", "64.vrnx", "--svg", "map.svg").status, GOOD)
        root = xml.etree.ElementTree.fromstring(vrnx.read("map.svg"))
        symbols = [text.text for text in root.iter(SVG + "text") if text.get("class") == "symbol"]
        self.assertEqual("".join(symbols[:65]), cells)


if __name__ == "__main__":
    suite.main()
