"""The kill sweep over capture, verify and restore: the process ends at each of its calls in turn."""

import suite
from console import capture_text, restore_text, verify_text
from image import ImageBuilder, build_image, is_accepted, reference_plain_bytes
from machine import Machine, pattern
from sweep import Expected, sweep_kills

CHUNK = 0x400000
SOURCE = 2 * CHUNK + 512
SOURCE_BYTES = pattern(SOURCE, "source")
IMAGE = 3 * 4096 + 512
IMAGE_BYTES = pattern(IMAGE, "image")


def make_captured(folder):
    return Machine(folder, source=SOURCE_BYTES, target=bytes(512))


def make_restored(folder):
    machine = Machine(folder, source=bytes(512), target=pattern(IMAGE + 4096, "target"))
    build_image(machine.path("a.vrnx"), IMAGE_BYTES)
    return machine


def check_captured(machine, result, call):
    """The final name is not there; the work file is an image only once header and table are written whole."""
    created = bool(result.calls("CreateFileW", path="a.vrnx.partial"))
    if machine.files() != (["a.vrnx.partial"] if created else []):
        raise AssertionError(f"files {machine.files()}")
    if not created:
        return
    path = machine.path("a.vrnx.partial")
    finished = any(line["offset"] == 64 for line in result.calls("WriteFile", path="a.vrnx.partial"))
    if is_accepted(path) != finished:
        raise AssertionError(f"the second reader {'takes' if not finished else 'refuses'} the work file")
    outcome = machine.run("verify", "--in", "a.vrnx.partial")
    if outcome.status != (0 if finished else 1):
        verdict = "takes" if not finished else "refuses"
        raise AssertionError(f"the program {verdict} the work file\n{outcome.describe()}")
    if finished and reference_plain_bytes(path) != SOURCE_BYTES:
        raise AssertionError("the finished work file stands for another disk")
    if not finished:
        with open(path, "rb") as file:
            head = file.read(64)
        header_begun = any(line["offset"] == 0 for line in result.calls("WriteFile", path="a.vrnx.partial")) or (
            call.kind == "WriteFile" and call.line["offset"] == 0)
        if not header_begun and head.strip(b"\0"):
            raise AssertionError("the start of an unfinished work file is not zero")


def check_image_stays(machine, _result, _call):
    if machine.files() != ["a.vrnx"] or machine.read("a.vrnx") != ImageBuilder(IMAGE_BYTES).to_bytes():
        raise AssertionError("the image was changed")


class KillSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def expect_worth_it(self, count, least):
        if not self.settings.sampled:
            self.assertGreaterEqual(count, least)

    def test_capture(self):
        count = sweep_kills(self, make_captured, ["capture", "--disk", "1", "--out", "a.vrnx"],
                            Expected(0, capture_text(1, SOURCE, "a.vrnx")), check_captured)
        self.expect_worth_it(count, 40)

    def test_verify(self):
        count = sweep_kills(self, make_restored, ["verify", "--in", "a.vrnx"],
                            Expected(0, verify_text("a.vrnx", IMAGE, 4096)), check_image_stays)
        self.expect_worth_it(count, 40)

    def test_restore(self):
        count = sweep_kills(self, make_restored, ["restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES"],
                            Expected(0, restore_text("a.vrnx", 2, IMAGE, 4096, larger=True)), check_image_stays)
        self.expect_worth_it(count, 50)


if __name__ == "__main__":
    suite.main()
