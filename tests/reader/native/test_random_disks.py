"""Random disks in random images, read at random places through the library, vrnx export and nbdcopy.

A disk's size is no multiple of anything; sectors are of 512 or 4096 bytes; chains are as long as 65 images, plain and
sealed ones mixed, sealed with different salts. What is read has to be the bytes of the disk. Some images are built by
tests/lib/image.py, with any size of a chunk, others captured by the program on a described machine.

Each disk follows from its seed, which stands in the text of a failure: VORNIX_SEED=SEED runs that one alone.
"""

import os
import random
import shutil
import subprocess
import unittest

import suite
import vrnx
from image import build_image
from machine import SETTINGS, Machine

PASSWORD = b"correct horse"
PLUGIN = os.path.join(SETTINGS.build, "nbdkit-vrnx-plugin.so")
SEED = os.environ.get("VORNIX_SEED")
LONGEST_CHAIN = 65


def seeds(kind, few, many):
    """The seeds of a test: a few, or many in the long run, or the one that is asked for."""
    made = [f"{kind} {number}" for number in range(many if SETTINGS.long else few)]
    if SEED is None:
        return made
    if not SEED.startswith(kind):
        raise unittest.SkipTest(f"another seed is asked for: {SEED}")
    return [SEED]


def random_disk(chance, size, unit):
    """Random bytes with runs of zeros, some of them whole units."""
    plain = bytearray(chance.randbytes(size))
    for _ in range(chance.randint(0, 6)):
        begin = chance.choice((chance.randrange(size), chance.randrange(0, size, unit)))
        end = min(size, begin + chance.choice((unit, 2 * unit, chance.randint(1, 4 * unit))))
        plain[begin:end] = bytes(end - begin)
    return plain


def change_disk(chance, plain, unit):
    """A few writes to a disk: new bytes, zeros, or what another place holds."""
    for _ in range(chance.randint(0, 3)):
        begin = chance.randrange(len(plain))
        length = min(len(plain) - begin, chance.randint(1, 2 * unit))
        source = chance.randrange(len(plain) - length + 1)
        plain[begin:begin + length] = chance.choice((chance.randbytes(length), bytes(length),
                                                     bytes(plain[source:source + length])))


class RandomDisks(suite.Scenario):
    recorded = False

    def setUp(self):
        super().setUp()
        self.served = "sanitize" not in SETTINGS.build  # nbdkit is not, and loads no plugin that is
        missing = [tool for tool in ("nbdkit", "nbdcopy") if shutil.which(tool) is None]
        if self.served and missing:
            self.skipTest(f"not installed: {', '.join(missing)}")

    def empty_folder(self):
        shutil.rmtree(self.folder)
        os.mkdir(self.folder)
        with open(self.path("password"), "wb") as file:
            file.write(PASSWORD + b"\n")

    def path(self, name):
        return os.path.join(self.folder, name)

    def build(self, chance, depth):
        """A chain by the builder of the tests: its topmost image, and the disk."""
        sector = chance.choice((512, 4096))
        chunk = sector * chance.randint(1, 9)
        plain = random_disk(chance, chance.randint(1, 40 * chunk), chunk)
        salts = [chance.randbytes(16), chance.randbytes(16)]
        base = None
        for level in range(depth):
            if level > 0:
                change_disk(chance, plain, chunk)
            sealed = {"password": PASSWORD, "salt": chance.choice(salts)} if chance.random() < 0.5 else {}
            base = build_image(self.path(f"{level}.vrnx"), bytes(plain), chunk_size=chunk, sector_size=sector,
                               seed=f"{depth} {level}", base=base and self.path(f"{level - 1}.vrnx"), **sealed)
        return self.path(f"{depth - 1}.vrnx"), bytes(plain)

    def capture(self, chance, depth):
        """A chain by the program: its topmost image, and the disk."""
        sector = chance.choice((512, 4096))
        unit = 4 << 20
        plain = random_disk(chance, sector * chance.randint(1, 3 * unit // sector), unit)
        machine = Machine(self.path("m"), source=bytes(plain), sector_size=sector)
        self.machines.append(machine)
        machine.write("password", PASSWORD + b"\n")
        for level in range(depth):
            options = ["--password-file", "password"] if chance.random() < 0.5 else []
            if level > 0:
                change_disk(chance, plain, unit)
                machine.set_disk_bytes(1, bytes(plain))
                options += ["--base", f"{level - 1}.vrnx", "--thin"]
            result = machine.run("capture", "--disk", "1", "--out", f"{level}.vrnx", *options)
            self.assertEqual(result.status, 0, result.stderr)
        return machine.path(f"{depth - 1}.vrnx"), bytes(plain)

    def ranges(self, chance, size, count):
        for _ in range(count):
            offset = chance.randrange(size)
            yield offset, chance.randint(1, min(size - offset, chance.choice((1, 100, 5000, size))))

    def read_everywhere(self, seed, chance, path, plain, depth):
        def expect(got, offset, length, way):
            self.assertTrue(got == plain[offset:offset + length], f"seed '{seed}': {way}, {length} bytes at {offset}")

        size = len(plain)
        cache = chance.choice((0, 1, 2, vrnx.CACHE_NONE))
        with vrnx.Image(path, password=PASSWORD, cache_chunks=cache) as opened:
            self.assertEqual((opened.info.level_count, opened.disk_size), (depth, size), seed)
            for offset, length in self.ranges(chance, size, 60):
                expect(opened.read(offset, length), offset, length, f"the library with a cache of {cache}")
        for out in ("out.img", "-"):
            done = subprocess.run([SETTINGS.vrnx, "export", path, out, "--password-file", "password"], cwd=self.folder,
                                  capture_output=True, check=False)
            self.assertEqual((done.returncode, done.stderr), (0, b""), seed)
            expect(done.stdout if out == "-" else self.take("out.img"), 0, size, f"vrnx export {out}")
        if self.served:
            for offset, length in [(0, size), *self.ranges(chance, size, 4)]:
                # Requests of nbdcopy are never smaller than 4 KiB; small ones lie across chunks of most sizes.
                options = [f"--connections={chance.randint(1, 4)}", f"--request-size={chance.choice((4096, 65536))}"]
                done = subprocess.run(
                    ["nbdkit", "-U", "-", "--filter=offset", PLUGIN, path, "password-file=password",
                     f"cache={chance.choice((0, 1, 8))}", f"offset={offset}", f"range={length}",
                     "--run", f'nbdcopy {" ".join(options)} "$uri" copy.img'],
                    cwd=self.folder, capture_output=True, check=False)
                self.assertEqual(done.returncode, 0, (seed, done.stderr))
                expect(self.take("copy.img"), offset, length, f"nbdcopy {options}")

    def take(self, name):
        with open(self.path(name), "rb") as file:
            content = file.read()
        os.remove(self.path(name))
        return content

    def try_seed(self, seed, make, depth):
        chance = random.Random(seed)
        self.empty_folder()
        depth = depth or chance.choice((1, 2, 2, 3, 5, 8))
        path, plain = make(chance, depth)
        self.read_everywhere(seed, chance, path, plain, depth)

    def test_built_images(self):
        for seed in seeds("built", 16, 400):
            self.try_seed(seed, self.build, None)

    def test_built_chains_of_65_images(self):
        for seed in seeds("chain", 1, 10):
            self.try_seed(seed, self.build, LONGEST_CHAIN)

    def test_captured_images(self):
        for seed in seeds("captured", 3, 60):
            self.try_seed(seed, self.capture, None)


if __name__ == "__main__":
    suite.main()
