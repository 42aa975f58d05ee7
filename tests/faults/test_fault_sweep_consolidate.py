"""Each call of a consolidation failing in turn, and the process killed at each: what is said, and which file is left,
over plain and sealed chains, with what the closing verification makes of a start that was not written."""

import os

import suite
from consolidate_runs import ALREADY_THERE, consolidate_text
from console import fatal
from image import is_accepted
from run_model import OUT, Consolidate, Scene, sweep_model
from suite import require, require_equal
from sweep import Expected, sweep_kills

LINKS = ("link0.vrnx", "link1.vrnx", "link2.vrnx")


def scene(*chunks, sealed=()):
    """Each chunk by its content in each link; the disk is as the last one has it."""
    return Scene(LINKS[:len(chunks[0])], *[(*seeds, seeds[-1]) for seeds in chunks], short=3096, chunk_size=4096,
                 sealed=sealed)


FULL = scene("a", "b", "c")
PAIR = scene("aa", "bB", "cc")
CHAIN = scene("aaA", "bBB", "ccc")
MIXED = scene("aa", "bB", "cc", sealed=LINKS[1:])
TO_SEAL = scene("a", "b")
SEALED = scene("aa", "bB", sealed=LINKS)


def arguments_of(scene, seal):
    sealed = any(builder.header.encrypted for builder in scene.images.values())
    return ["consolidate", "--in", scene.top, "--out", OUT,
            *(["--password-file", "password"] if seal or sealed else []), *(["--encrypt"] if seal else [])]


class Sweeps(suite.Scenario):
    recorded = False

    def sweep(self, scene, seal=False):
        sweep_model(self, scene.reading, arguments_of(scene, seal), lambda fault: Consolidate(scene, fault, seal=seal),
                    consolidate_text(OUT, scene.size, scene.chunk_size), 21)

    def test_of_a_full_image(self):
        self.sweep(FULL)

    def test_of_a_plain_chain(self):
        self.sweep(CHAIN)

    def test_that_seals_a_plain_image(self):
        self.sweep(TO_SEAL, True)

    def test_that_unseals_a_mixed_chain(self):
        self.sweep(MIXED)

    def test_that_seals_a_sealed_chain_anew(self):
        self.sweep(SEALED, True)


class Kills(suite.Scenario):
    """Whatever the moment, the process leaves no file that passes for an image before it is one."""

    recorded = False

    def sweep(self, scene, seal=False):
        def after(machine, result, call):
            lines = result.calls("WriteFile")
            torn = call.line["length"] // 2 if call.kind == "WriteFile" else 0
            created = bool(result.calls("CreateFileW", path=OUT))
            scene.expect_files(machine, *([OUT] if created else []))
            if not created:
                return
            data = [line for line in lines if line["offset"] >= scene.table_end]
            starts = [line for line in lines if line["offset"] < scene.table_end]
            require_equal(is_accepted(machine.path(OUT)), len(starts) == 2, "whether the file passes for an image")
            if not starts:
                actual = machine.read(OUT)
                half = actual[:scene.table_end] if call.line.get("offset") == 0 else b""
                require(not any(actual[len(half):scene.table_end]), "the start is not zero")
                count = sum(line["length"] for line in data)
                require(count <= len(actual) <= scene.table_end + count + torn,
                        f"{len(actual)} bytes after {count} of chunk data")
                if not seal:
                    require_equal(actual[scene.table_end:scene.table_end + count], scene.disk[:count], "chunk data")

        def again(machine, call):
            if not machine.exists(OUT):
                return clean
            held = machine.read(OUT)

            def look(machine, result):
                require_equal(machine.read(OUT), held, "the output")
                os.remove(machine.path(OUT))
                third = machine.run(*arguments)
                require((third.status, third.stdout) == (clean.status, clean.stdout.encode()),
                        f"the run after the removal\n{third.describe()}")
                clean.check(machine, third)
            return Expected(1, "", fatal(ALREADY_THERE), look)

        clean, arguments = Consolidate(scene, seal=seal).run().expected(), arguments_of(scene, seal)
        sweep_kills(self, scene.reading, arguments, clean, after, again, least=21)

    def test_of_a_plain_chain(self):
        self.sweep(PAIR)

    def test_that_seals(self):
        self.sweep(TO_SEAL, seal=True)


if __name__ == "__main__":
    suite.main()
