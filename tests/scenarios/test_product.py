"""The product itself, vornix and vornix.exe, on the host: everything that needs no disk, and what it says where there
is none. The same expectations hold for both builds.

The described machine tells of each rule in all its cases. Here is shown that what it is linked into is the product, and
what it stands in front of: the arguments, paths and streams of the real system.
"""

import os
import resource
import subprocess
import tempfile

import suite
from console import USAGE, fatal, verifying_line
from consolidate_runs import consolidated_line, plain_full_image
from image import build_image
from incremental import missing_base
from machine import pattern
from product import ABSENT, Product, product_meter
from sealing import NEEDS_PASSWORD, PASSWORD, PASSWORD_EMPTY, PASSWORD_UNREADABLE

CHUNK = 4096
SIZE = 2 * CHUNK + 512
PLAIN = pattern(SIZE, "plain")
NEWER = PLAIN[:CHUNK] + pattern(SIZE - CHUNK, "newer")
COUNT = 3

SAME_FILE = fatal("--out must differ from --in")
ALREADY_THERE = fatal("--out already exists - refusing to overwrite an image")
NO_SOURCE = fatal("could not open source disk for raw read (run as Administrator?)", 2)


def unopened(path, error=2):
    return f"could not open image file: {path}\n" + fatal("could not open image file", error)


def verify_text(path, base=None, size=SIZE, chunk=CHUNK):
    count = (size - 1) // chunk + 1
    return (verifying_line(path, count, size) + (f"  thin image: chain continues with {base}\n" if base else "")
            + product_meter(size, chunk) + f"\nVerify OK - all {count} chunks match their recorded hash.\n")


def consolidate_text(out):
    return product_meter(SIZE, CHUNK) + "\n" + consolidated_line(out) + verify_text(out)


class ProductRuns(suite.Scenario):
    def product(self):
        made = Product(os.path.join(self.folder, f"m{len(self.machines) + 1}"))
        self.machines.append(made)
        return made

    def prepared(self):
        """A product with a plain image, a sealed one, thin ones over both, and the password."""
        product = self.product()
        build_image(product.path("full.vrnx"), PLAIN)
        build_image(product.path("thin.vrnx"), NEWER, base=product.path("full.vrnx"))
        build_image(product.path("sealed.vrnx"), PLAIN, password=PASSWORD)
        build_image(product.path("both.vrnx"), NEWER, base=product.path("sealed.vrnx"), password=PASSWORD, seed="both")
        product.write("password", PASSWORD + b"\r\n")
        return product

    def expect_each(self, product, status, stdout, stderr, *runs):
        for arguments in runs:
            with self.subTest(arguments=arguments):
                self.expect(product.run(*arguments), status, stdout, stderr)


class CommandLine(ProductRuns):
    def test_what_is_not_enough_for_a_command_gives_the_usage_text(self):
        product = self.product()
        self.expect_each(
            product, 1, USAGE, "", (), ("help",), ("--help",), ("CAPTURE", "--disk", "0", "--out", "x"), ("capture ",),
            ("--disk", ABSENT, "capture", "--out", "x"), ("capture",), ("capture", "--disk", ABSENT),
            ("capture", "--out", "x"), ("capture", "--disk", ABSENT, "--out", ""), ("capture", "--out", "x", "--disk"),
            ("capture", "--disk", ABSENT, "--out", "x", "--encrypt"), ("capture", "--disk", "-2", "--out", "x"),
            ("verify",), ("verify", "--in"), ("restore", "--in", "x", "--confirm", "YES"),
            ("restore", "--disk", ABSENT, "--confirm", "YES"), ("clone", "--from", ABSENT), ("clone", "--to", "1"),
            ("clone", "--from", "-5", "--to", "1"), ("consolidate", "--in", "a"), ("consolidate", "--out", "b"))
        self.assertEqual(product.files(), [])

    def test_a_number_that_is_none_ends_the_process_with_nothing_printed(self):
        product = self.product()
        for arguments in (("capture", "--out", "x", "--disk", "abc"), ("capture", "--out", "x", "--disk", "", "end"),
                          ("capture", "--out", "x", "--disk", "99999999999"), ("capture", "--disk", "-"),
                          ("restore", "--disk", "abc"), ("clone", "--from", "abc"), ("clone", "--to", "2147483648")):
            with self.subTest(arguments=arguments):
                self.expect_abnormal(product.run(*arguments))
        self.assertEqual(product.files(), [])

    def test_options_are_found_as_on_the_described_machine(self):
        product = self.prepared()
        good = verify_text("full.vrnx")
        self.expect_each(product, 0, good, "", ("verify", "--IN", "full.vrnx"),
                         ("verify", "--In", "full.vrnx", "--in", "no"),
                         ("verify", "stray", "--bogus", "--in", "full.vrnx", "--skip-zero"))
        self.expect(product.run("verify", "--in", "--password-file", "p"), 1, "", unopened("--password-file"))

    def test_arguments_reach_the_program_as_they_were_given(self):
        product = self.prepared()
        for name in ("two words.vrnx", " blank in front.vrnx", "quote's.vrnx", "50%.vrnx", "a&b(c);d.vrnx", "-.vrnx"):
            os.link(product.path("full.vrnx"), product.path(name))
            with self.subTest(name=name):
                self.expect(product.run("verify", "--in", name), 0, verify_text(name))


class NoDisk(ProductRuns):
    def test_a_source_that_is_not_there(self):
        product = self.prepared()
        before = product.files()
        self.expect_each(
            product, 1, "", NO_SOURCE, ("capture", "--disk", ABSENT, "--out", "new.vrnx"),
            ("capture", "--disk", ABSENT + "th", "--out", "new.vrnx", "--vss"),
            ("capture", "--disk", ABSENT, "--out", "new.vrnx", "--encrypt", "--password-file", "password"),
            ("capture", "--disk", ABSENT, "--out", "new.vrnx", "--base", "full.vrnx", "--thin"),
            ("capture", "--disk", "2147483647", "--out", "full.vrnx"))
        for source, target in (("9999", "9998"), ("2147483647", "9998")):
            self.expect(product.run("clone", "--from", source, "--to", target, "--confirm", "YES", "--verify"), 1, "",
                        f"Could not open source PhysicalDrive{source} (GetLastError=2)\n")
        self.assertEqual(product.files(), before)

    def test_a_restore_without_its_target_ends_with_the_program_s_own_words(self):
        product = self.prepared()
        before = {name: product.read(name) for name in product.files()}
        result = product.run("restore", "--in", "full.vrnx", "--disk", ABSENT, "--confirm", "YES")
        self.assertEqual((result.status, result.stdout), (1, b""))
        self.assertRegex(result.stderr.decode(), f"^Could not open disk {ABSENT} exclusively for writing "
                                                 r"\(GetLastError=2\)\.\n")
        self.assertEqual({name: product.read(name) for name in product.files()}, before)


class Images(ProductRuns):
    def test_good_images_of_every_kind_are_good(self):
        product = self.prepared()
        self.expect(product.run("verify", "--in", "full.vrnx"), 0, verify_text("full.vrnx"))
        self.expect(product.run("verify", "--in", "thin.vrnx"), 0, verify_text("thin.vrnx", "full.vrnx"))
        self.expect(product.run("verify", "--in", "sealed.vrnx", "--password-file", "password"), 0,
                    verify_text("sealed.vrnx"))
        self.expect(product.run("verify", "--in", "both.vrnx", "--password-file", "password"), 0,
                    verify_text("both.vrnx", "sealed.vrnx"))

    def test_what_is_no_image_is_refused(self):
        product = self.prepared()
        product.write("empty", b"")
        product.write("zeros", bytes(4096))
        product.write("cut", product.read("full.vrnx")[:-1])
        product.write("empty password", b"\r\n")
        os.mkdir(product.path("folder"))
        for arguments, error in (
                (("--in", "missing.vrnx"), unopened("missing.vrnx")),
                (("--in", "missing/full.vrnx"), unopened("missing/full.vrnx", 3)),
                (("--in", "folder"), unopened("folder", 5)),
                (("--in", "empty"), fatal("could not read image header - file is truncated or not a .vrnx image")),
                (("--in", "zeros"), fatal("not a recognized Vornix image (bad magic/version)")),
                (("--in", "cut"), fatal("image chunk data extends past end of file")),
                (("--in", "sealed.vrnx"), fatal(NEEDS_PASSWORD)),
                (("--in", "both.vrnx"), fatal(NEEDS_PASSWORD)),
                (("--in", "sealed.vrnx", "--password-file", "missing"), fatal(PASSWORD_UNREADABLE)),
                (("--in", "sealed.vrnx", "--password-file", "empty password"), fatal(PASSWORD_EMPTY))):
            with self.subTest(arguments=arguments):
                self.expect(product.run("verify", *arguments), 1, "", error)

    def test_chains_fold_into_full_images(self):
        product = self.prepared()
        self.expect(product.run("consolidate", "--in", "thin.vrnx", "--out", "a.vrnx"), 0, consolidate_text("a.vrnx"))
        self.expect_file(product, "a.vrnx", plain_full_image(NEWER, CHUNK))
        self.expect(product.run("consolidate", "--in", "both.vrnx", "--out", "b.vrnx", "--password-file", "password"),
                    0,
                    consolidate_text("b.vrnx"))
        self.expect_file(product, "b.vrnx", plain_full_image(NEWER, CHUNK))
        self.expect(product.run("consolidate", "--in", "both.vrnx", "--out", "c.vrnx", "--password-file", "password",
                                "--encrypt"), 0, consolidate_text("c.vrnx"))
        self.expect_good_image(product, "c.vrnx", NEWER, PASSWORD)


class Paths(ProductRuns):
    def test_ways_to_an_image(self):
        product = self.prepared()
        os.mkdir(product.path("sub"))
        for path in ("./thin.vrnx", "sub/../thin.vrnx", "sub/.././thin.vrnx", product.absolute("thin.vrnx")):
            with self.subTest(path=path):
                self.expect(product.run("verify", "--in", path), 0, verify_text(path, "full.vrnx"))


class HostPaths(ProductRuns):
    """What a path means is the system's matter, and so each build has tests of its own and others that spell the names
    as its system does."""

    recorded = False

    def windows(self):
        if not self.settings.windows:
            self.skipTest("paths of Windows")
        return self.prepared()

    def linux(self):
        if self.settings.windows:
            self.skipTest("paths of Linux")
        return self.prepared()

    def test_the_limit_is_that_of_the_whole_path_and_not_of_what_was_typed(self):
        product = self.linux()
        typed = "./" * 150 + "new.vrnx"
        self.expect(product.run("consolidate", "--in", "thin.vrnx", "--out", typed), 0, consolidate_text(typed))
        self.expect_file(product, "new.vrnx", plain_full_image(NEWER, CHUNK))

    def test_either_separator_and_any_case_lead_to_a_file(self):
        product = self.windows()
        os.mkdir(product.path("sub"))
        os.link(product.path("full.vrnx"), product.path("sub/full.vrnx"))
        whole = product.absolute("sub/full.vrnx")
        for path in ("sub\\full.vrnx", ".\\sub/full.vrnx", "SUB\\Full.VRNX", whole, whole.replace("\\", "/"),
                     whole[2:], "z" + whole[1:], "\\\\?\\" + whole):
            with self.subTest(path=path):
                self.expect(product.run("verify", "--in", path), 0, verify_text(path))

    def test_a_drive_without_a_separator_means_its_current_folder(self):
        product = self.windows()
        self.expect(product.run("verify", "--in", "Z:full.vrnx"), 0, verify_text("Z:full.vrnx"))
        self.expect(product.run("consolidate", "--in", "thin.vrnx", "--out", "z:Thin.vrnx"), 1, "", SAME_FILE)
        self.expect(product.run("consolidate", "--in", "thin.vrnx", "--out", "z:full.vrnx"), 1, "", ALREADY_THERE)
        self.expect(product.run("consolidate", "--in", "thin.vrnx", "--out", "z:new.vrnx"), 0,
                    consolidate_text("z:new.vrnx"))
        self.expect_file(product, "new.vrnx", plain_full_image(NEWER, CHUNK))
        # The folder of such a path is empty, so that a base is looked for in the current folder of the run.
        self.expect(product.run("verify", "--in", "z:thin.vrnx"), 0, verify_text("z:thin.vrnx", "full.vrnx"))

    def test_a_base_is_looked_for_behind_the_last_separator_of_either_kind(self):
        product = self.windows()
        os.mkdir(product.path("sub"))
        os.rename(product.path("thin.vrnx"), product.path("sub/thin.vrnx"))
        for path in ("sub\\thin.vrnx", "sub/thin.vrnx", ".\\sub/thin.vrnx", "./sub\\thin.vrnx"):
            with self.subTest(path=path):
                self.expect(product.run("verify", "--in", path), 1, "", missing_base(path.replace("thin", "full"))
                            + fatal("base image of a thin image not found"))

    def test_a_backslash_and_a_colon_are_part_of_a_name(self):
        product = self.linux()
        for name in ("sub\\full.vrnx", "Z:full.vrnx"):
            os.link(product.path("full.vrnx"), product.path(name))
            self.expect(product.run("verify", "--in", name), 0, verify_text(name))
        self.expect(product.run("verify", "--in", "FULL.vrnx"), 1, "", unopened("FULL.vrnx"))

    # A letter beyond ASCII on Windows: the byte that the program gets for it, and the character that this byte makes
    # when it is widened.
    LETTER, WIDENED = b"\xe4", "\uffe4"

    def as_bytes(self, text):
        return self.LETTER.join(part.encode() for part in text.split("\u00e4"))

    def test_beyond_ascii_a_file_is_opened_under_its_widened_name(self):
        product, widened = self.windows(), self.WIDENED
        os.rename(product.path("full.vrnx"), product.path("\u00e4.vrnx"))
        self.expect(product.run("verify", "--in", "\u00e4.vrnx"), 1, "", self.as_bytes(unopened("\u00e4.vrnx")))
        os.rename(product.path("\u00e4.vrnx"), product.path(widened + ".vrnx"))
        self.expect(product.run("verify", "--in", "\u00e4.vrnx"), 0, self.as_bytes(verify_text("\u00e4.vrnx")))

    def test_beyond_ascii_existence_is_tested_under_the_name_as_typed(self):
        product, widened = self.windows(), self.WIDENED
        consolidate = ("consolidate", "--in", "thin.vrnx", "--out", "\u00e4.vrnx")
        product.write("\u00e4.vrnx", b"here already")
        self.expect(product.run(*consolidate), 1, "", ALREADY_THERE)
        os.rename(product.path("\u00e4.vrnx"), product.path(widened + ".vrnx"))
        self.expect(product.run(*consolidate), 1, "", fatal("could not create output image file", 80))
        os.remove(product.path(widened + ".vrnx"))
        self.expect(product.run(*consolidate), 0, self.as_bytes(consolidate_text("\u00e4.vrnx")))
        self.expect_file(product, widened + ".vrnx", plain_full_image(NEWER, CHUNK))
        self.assertFalse(product.exists("\u00e4.vrnx"))

    def test_beyond_ascii_a_base_is_looked_for_and_opened_under_two_names(self):
        product, widened = self.windows(), self.WIDENED
        build_image(product.path("top.vrnx"), NEWER, base=product.path("full.vrnx"),
                    base_name=self.LETTER + b".vrnx")
        os.rename(product.path("full.vrnx"), product.path(widened + ".vrnx"))
        self.expect(product.run("verify", "--in", "top.vrnx"), 1, "", self.as_bytes(
            missing_base("\u00e4.vrnx") + fatal("base image of a thin image not found")))
        product.write("\u00e4.vrnx", b"something of that name")
        self.expect(product.run("verify", "--in", "top.vrnx"), 0,
                    self.as_bytes(verify_text("top.vrnx", "\u00e4.vrnx")))

    def test_a_name_beyond_ascii_is_that_file_and_a_chain_over_it_opens(self):
        product = self.linux()
        # UTF-8, a letter of an older encoding, and bytes that are letters in none.
        for name in ("M\u00e4rz.vrnx", os.fsdecode(b"M\xe4rz.vrnx"), os.fsdecode(b"\x80\xff\xfe.vrnx")):
            with self.subTest(name=os.fsencode(name)):
                text = consolidate_text("@").encode().replace(b"@", os.fsencode(name))
                self.expect(product.run("consolidate", "--in", "thin.vrnx", "--out", name), 0, text)
                self.expect_file(product, name, plain_full_image(NEWER, CHUNK))
                build_image(product.path("top.vrnx"), PLAIN, base=product.path(name), base_name=os.fsencode(name))
                text = verify_text("top.vrnx", "@").encode().replace(b"@", os.fsencode(name))
                self.expect(product.run("verify", "--in", "top.vrnx"), 0, text)
                self.expect(product.run("consolidate", "--in", "thin.vrnx", "--out", name), 1, "", ALREADY_THERE)
                os.remove(product.path(name))


class Streams(ProductRuns):
    """What a redirected file and a pipe receive."""

    def damaged_chain(self, chunk):
        """A chain whose base is damaged in one chunk, where a verification of the top ends fatally."""
        product = self.prepared()
        build_image(product.path("top.vrnx"), PLAIN, base=product.path("full.vrnx"))
        product.flip("full.vrnx", 64 + COUNT * 72 + chunk * CHUNK)
        return product

    TOLD = verifying_line("top.vrnx", COUNT, SIZE) + "  thin image: chain continues with full.vrnx\n"
    END = "FATAL: chunk failed its hash check (corrupt image or base) (GetLastError=0)\n"

    def test_the_meter_is_these_bytes_and_lines_end_with_a_line_feed_alone(self):
        product = self.prepared()
        self.expect(product.run("verify", "--in", "full.vrnx"), 0, verify_text("full.vrnx"))
        rate = rb"\([0-9]+\.[0-9] MiB/s\)   "
        self.assertRegex(product.runs[-1].raw, rb"^Verifying full\.vrnx  \(3 chunks, 0\.00 GiB source disk\)\n"
                         + rb"\r   47\.06%  0 / 0 MiB  " + rate + rb"\r  100\.00%  0 / 0 MiB  " + rate
                         + rb"\nVerify OK - all 3 chunks match their recorded hash\.\n$")

    def test_a_fatal_end_keeps_what_was_printed_in_a_file_and_in_a_pipe(self):
        product = self.damaged_chain(0)  # before the first state of the meter hands on what stands before it
        self.expect(product.run("verify", "--in", "top.vrnx"), 1, self.TOLD, self.END)
        done = product.start("verify", "--in", "top.vrnx", stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (1, self.TOLD.encode(), self.END.encode()))

    def test_a_report_stands_behind_the_meter_that_was_printed_before_it(self):
        product = self.damaged_chain(1)
        with tempfile.TemporaryFile() as both:
            done = product.start("verify", "--in", "top.vrnx", stdout=both, stderr=both)
            both.seek(0)
            text = both.read().decode()
        self.assertEqual(done.returncode, 1)
        self.assertTrue(text.startswith("Verifying top.vrnx"), text)
        self.assertTrue(text.endswith("MiB/s)   " + self.END), text)

    def test_an_abnormal_end_keeps_what_was_printed(self):
        self.recorded = False
        if self.settings.windows or os.path.basename(self.settings.build) == "sanitize":
            self.skipTest("memory is limited here in a way that only a native process without a sanitizer lives with")
        product = self.product()
        large = 64 << 20
        build_image(product.path("large.vrnx"), pattern(512, "small"), chunk_size=large)
        # Room for one buffer of the size of a chunk and not for the second.
        limit = large + (48 << 20)
        with tempfile.TemporaryFile() as stdout, tempfile.TemporaryFile() as stderr:
            done = product.start("verify", "--in", "large.vrnx", stdout=stdout, stderr=stderr,
                                 preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit)))
            stdout.seek(0)
            stderr.seek(0)
            self.assertEqual((done.returncode, stdout.read(), stderr.read()),
                             (self.settings.abnormal_status, verifying_line("large.vrnx", 1, 512).encode(), b""))

    def test_a_reader_that_goes_away_does_not_end_the_run(self):
        product = self.prepared()
        reading, writing = os.pipe()
        os.close(reading)
        try:
            done = product.start("consolidate", "--in", "thin.vrnx", "--out", "a.vrnx", stdout=writing,
                                 stderr=subprocess.DEVNULL)
        finally:
            os.close(writing)
        self.assertEqual(done.returncode, 0)
        self.expect_file(product, "a.vrnx", plain_full_image(NEWER, CHUNK))


if __name__ == "__main__":
    suite.main()
