"""The process ended at each call of capture, verify and restore of plain full images: the final name never stands for
an unfinished image, the program itself refuses one, and the next run works."""

import suite
from console import capture_text, restore_text, verify_text
from run_model import Scene, sweep_capture_kills
from suite import require
from sweep import Expected, sweep_kills

DISK = Scene((), ("a",), ("b",), ("c",))
IMAGE = Scene(("a.vrnx",), ("a", "a"), ("b", "b"), ("c", "c"), ("d", "d"), chunk_size=4096, behind=4096)


def verified(machine, _result, name, finished):
    outcome = machine.run("verify", "--in", name)
    require(outcome.status == (0 if finished else 1),
            f"the program {'refuses' if finished else 'takes'} {name}\n{outcome.describe()}")


class KillSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def sweep_reader(self, arguments, text, least):
        sweep_kills(self, IMAGE.reading, arguments, Expected(0, text),
                    lambda machine, _result, _call: IMAGE.expect_files(machine), least=least)

    def test_capture(self):
        sweep_capture_kills(self, DISK, ["capture", "--disk", "1", "--out", "new.vrnx"],
                            capture_text(1, DISK.size, "new.vrnx"), 40, look=verified)

    def test_verify(self):
        self.sweep_reader(["verify", "--in", "a.vrnx"], verify_text("a.vrnx", IMAGE.size, 4096), 40)

    def test_restore(self):
        self.sweep_reader(["restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES"],
                          restore_text("a.vrnx", 2, IMAGE.size, 4096, larger=True), 50)


if __name__ == "__main__":
    suite.main()
