"""A disk over many incremental images, some sealed and some plain, and the one full image that they are folded into.

The images of a chain are made by the second writer, with chunks small enough for many of them, and by the program's own
captures. Whatever the chain, folding it must not change what a restore brings back.
"""

import os
import random

import suite
from consolidate_runs import consolidate_text, plain_full_image
from console import restore_text, verify_text
from image import Image, build_image, digest_of, read_header, read_table
from machine import pattern

PASSWORD = b"a password for all of them"
CAPTURE_CHUNK = 0x400000


def changed(generator, plain, chunk_size):
    """The disk after a day's work: a few stretches hold other bytes, wherever they begin and end."""
    disk = bytearray(plain)
    for _ in range(generator.randint(0, 4)):
        at = generator.randrange(len(disk))
        count = min(generator.randint(1, 3 * chunk_size), len(disk) - at)
        disk[at:at + count] = generator.randbytes(count)
    return bytes(disk)


class FoldingStory(suite.Scenario):
    recorded = False  # logs of thousands of lines, which say nothing that those of the shorter scenarios do not

    def prepared(self, size):
        machine = self.machine(default=False)
        machine.add_disk(0, pattern(4096, "system"))
        machine.system_volume([(0, 512, 512)])
        machine.add_disk(2, size)
        machine.write("password", PASSWORD + b"\n")
        return machine

    def built_chain(self, machine, generator, plain, links, **options):
        """A full image and thin ones over it, each sealed or not as it comes; gives the top's name and disk."""
        base, top, chunk_size = None, None, options["chunk_size"]
        for link in range(links):
            name = f"{link:02}.vrnx"
            # Now and then an image stores what it could refer to, as one does that the tracker could not help.
            references = base and {
                at // chunk_size for at in range(0, len(plain), chunk_size)
                if plain[at:at + chunk_size] == top[at:at + chunk_size] and generator.random() < 0.97}
            build_image(machine.path(name), plain, password=PASSWORD if generator.random() < 0.5 else None,
                        seed=f"{link} {plain[:8]}", base=base and machine.path(base), references=references,
                        epoch=generator.randrange(1 << 56), **options)
            base, top = name, plain
            plain = changed(generator, plain, chunk_size)
        return base, top

    def restored(self, machine, name, size, chunk_size, *options):
        """What a restore of the image brings back."""
        machine.set_disk_bytes(2, size)
        self.expect(machine.run("restore", "--in", name, "--disk", "2", "--confirm", "YES", *options), 0,
                    restore_text(name, 2, size, chunk_size))
        return machine.disk_bytes(2)

    def expect_fold(self, machine, top, plain, out, encrypt):
        """Folds the chain below `top` and holds the result against it in every respect."""
        chain_header, chain_records = read_table(machine.path(top))
        size, chunk_size = chain_header.disk_size, chain_header.chunk_size
        before = {name: machine.read(name) for name in machine.files()}
        password = ("--password-file", "password")
        self.expect(machine.run("consolidate", "--in", top, "--out", out, *password,
                                *(["--encrypt"] if encrypt else [])),
                    0, consolidate_text(out, size, chunk_size))
        for name, content in before.items():
            self.expect_file(machine, name, content)
        self.assertEqual(set(machine.files()) - set(before), {out})

        header, records = read_table(machine.path(out))
        self.assertEqual([record.hash for record in records], [record.hash for record in chain_records])
        self.assertEqual([record.disk_offset for record in records],
                         [record.disk_offset for record in chain_records])
        self.assertNotIn(0, [record.stored_length for record in records])
        self.assertEqual((header.version, header.epoch, header.sector_size), (2, 0, chain_header.sector_size))
        self.assertEqual(os.path.getsize(machine.path(out)), 64 + 72 * len(records) + size)  # and so no trailer
        self.assertNotEqual(digest_of(machine.path(out)), digest_of(machine.path(top)))
        self.expect_good_image(machine, out, plain, PASSWORD)
        if not encrypt:
            self.expect_file(machine, out, plain_full_image(plain, chunk_size, header.sector_size))

        self.assertTrue(self.restored(machine, top, size, chunk_size, *password) == plain, "the restore of the chain")
        # The folded image needs nothing beside it, and a plain one no password.
        alone = self.prepared(size)
        alone.write("moved.vrnx", machine.read(out))
        options = password if encrypt else ()
        self.assertTrue(self.restored(alone, "moved.vrnx", size, chunk_size, *options) == plain,
                        "the restore of the folded image")
        self.expect(alone.run("verify", "--in", "moved.vrnx", *options), 0, verify_text("moved.vrnx", size, chunk_size))

    def fold_built_chain(self, seed, ways=(False, True)):
        generator = random.Random(seed)
        chunk_size = generator.choice([512, 1536, 4096])
        size = generator.randint(33, 70) * chunk_size - generator.randrange(0, chunk_size, 512)
        machine = self.prepared(size)
        top, plain = self.built_chain(machine, generator, generator.randbytes(size), 20, chunk_size=chunk_size)
        sealed = [read_header(machine.path(f"{link:02}.vrnx")).encrypted for link in range(20)]
        self.assertIn(0, sealed)
        self.assertIn(1, sealed)
        # The chain is a real one: chunks of the top lie in several of its images.
        opened = Image(machine.path(top))
        self.assertGreater(len({self.depth_of(opened, index) for index in range(len(opened.records))}), 5)
        for encrypt in ways:
            self.expect_fold(machine, top, plain, f"folded{encrypt}.vrnx", encrypt)

    @staticmethod
    def depth_of(image, index):
        depth = 0
        while image.is_reference(index):
            image, depth = image.base, depth + 1
        return depth

    def test_a_random_chain_of_twenty_becomes_one_plain_image(self):
        self.fold_built_chain("first", ways=(False,))

    def test_a_random_chain_of_twenty_becomes_one_sealed_image(self):
        self.fold_built_chain("second", ways=(True,))

    def test_more_random_chains_of_twenty(self):
        if self.settings.sampled:
            self.skipTest("two chains are enough where every start of the program takes long")
        for seed in range(4):
            self.fold_built_chain(seed)

    def captured_chain(self, links, seed):
        """The program's own captures of a disk that changes between them."""
        generator = random.Random(seed)
        size = 2 * CAPTURE_CHUNK + 1536
        plain = generator.randbytes(size)
        machine = self.prepared(size)
        machine.add_disk(1, plain)
        base = None
        for link in range(links):
            name = f"{link:02}.vrnx"
            sealed = link % 3 == 1 if link < 3 else generator.random() < 0.3
            options = ["--base", base, "--thin"] if base else []
            options += ["--encrypt"] if sealed else []
            result = machine.run("capture", "--disk", "1", "--out", name, "--password-file", "password", *options)
            self.assertEqual(result.status, 0, result.describe())
            base, top = name, plain
            if generator.random() < 0.8:
                at = generator.choice([0, CAPTURE_CHUNK, 2 * CAPTURE_CHUNK]) + generator.randrange(1024)
                data = generator.randbytes(generator.randint(1, 512))
                plain = plain[:at] + data + plain[at + len(data):]
                machine.set_disk_bytes(1, plain)
        self.expect_fold(machine, base, top, "folded.vrnx", False)
        self.expect_fold(machine, base, top, "sealed.vrnx", True)
        # A capture of the same disk without a base, in a machine without a tracker, is the very same file.
        machine.set_disk_bytes(1, top)
        self.assertEqual(machine.run("capture", "--disk", "1", "--out", "full.vrnx").status, 0)
        self.expect_file(machine, "folded.vrnx", machine.read("full.vrnx"))

    def test_captures_of_a_changing_disk_become_one_image(self):
        self.captured_chain(5 if self.settings.sampled else 20, "captures")

    def test_a_plain_full_image_without_an_epoch_comes_out_byte_for_byte(self):
        for seed in range(3 if self.settings.windows else 12):
            generator = random.Random(f"full {seed}")
            chunk_size = generator.choice([512, 1024, 4096, 66560])
            size = generator.randint(1, 5 * chunk_size)
            machine = self.prepared(size)
            plain = generator.randbytes(size)
            builder = build_image(machine.path("full.vrnx"), plain, chunk_size=chunk_size)
            self.expect(machine.run("consolidate", "--in", "full.vrnx", "--out", "copy.vrnx"), 0,
                        consolidate_text("copy.vrnx", size, chunk_size))
            self.expect_file(machine, "copy.vrnx", builder.to_bytes())
            self.assertEqual(digest_of(machine.path("copy.vrnx")), digest_of(machine.path("full.vrnx")))

    def test_a_fold_is_sealed_unsealed_and_folded_again_without_a_change(self):
        generator = random.Random("to and fro")
        plain = generator.randbytes(40 * 512 - 7)
        machine = self.prepared(len(plain))
        top, plain = self.built_chain(machine, generator, plain, 6, chunk_size=512)
        names = [top, "1.vrnx", "2.vrnx", "3.vrnx", "4.vrnx"]
        for source, out, encrypt in zip(names, names[1:], (False, True, True, False)):
            self.expect(machine.run("consolidate", "--in", source, "--out", out, "--password-file", "password",
                                    *(["--encrypt"] if encrypt else [])), 0,
                        consolidate_text(out, len(plain), 512))
            self.expect_good_image(machine, out, plain, PASSWORD)
        self.expect_file(machine, "4.vrnx", machine.read("1.vrnx"))


if __name__ == "__main__":
    suite.main()
