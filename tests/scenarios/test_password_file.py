"""The password file: which of its bytes are the password, what is refused, and at which place of a run it is read."""

import os

import suite
from console import (NO_TRACKER, capture_text, fatal, fatal_status, source_line, verify_failed, verify_text,
                     verifying_line)
from image import ImageBuilder, build_image
from machine import pattern
from sealing import NEEDS_PASSWORD, PASSWORD_EMPTY, PASSWORD_TOO_LARGE, PASSWORD_UNREADABLE, verify_unauthentic

LIMIT = 1048576


class Password(suite.Scenario):
    def image(self, password, **options):
        """A fresh machine with a.vrnx of one chunk, sealed under this password."""
        machine = self.machine(default=False)
        build_image(machine.path("a.vrnx"), pattern(512, "image"), chunk_size=512, password=password, **options)
        return machine

    def verify(self, machine, content=None, name="password"):
        if content is not None:
            machine.write(name, content)
        return machine.run("verify", "--in", "a.vrnx", "--password-file", name)

    def expect_opens(self, machine, content):
        self.expect(self.verify(machine, content), 0, verify_text("a.vrnx", 512, 512))

    def expect_wrong(self, machine, content):
        self.expect(self.verify(machine, content), 1,
                    verifying_line("a.vrnx", 1, 512) + verify_unauthentic(0, 512) + "\n", verify_failed(1, 1))

    def source(self):
        return self.machine(source=pattern(512, "source"), target=bytes(512))

    def capture(self, machine, *options, password="password"):
        return machine.run("capture", "--disk", "1", "--out", "a.vrnx", "--encrypt", "--password-file", password,
                           *options)


class Bytes(Password):
    RULES = (
        # (what is said of the file, the password, files that open the image, files that do not)
        ("every run of line ends at the end goes", b"secret",
         [b"secret" + end for end in (b"", b"\n", b"\r\n", b"\r", b"\n\n", b"\n\r", b"\r\n\r\n", b"\n\n\r\r\n\r")], []),
        ("so do those on both sides of a read block", b"s" * 250,
         [b"s" * 250 + end for end in (b"\r\n" * 20, b"\n" * 6, b"\r\n" * 3000)], []),
        ("a blank or tab before the line end stays", b"secret", [],
         [b"secret \r\n", b"secret\t\n", b"secret \n", b"secret\n ", b"secret\n\t\n"]),
        ("a blank before the line end is of the password", b"secret ", [b"secret \r\n"], []),
        ("a tab before the line end is of the password", b"secret\t", [b"secret\t\n"], []),
        ("a line end before a blank is of the password", b"secret\n ", [b"secret\n "], []),
        ("what stands in front stays", b"secret", [], [b" secret", b"\tsecret", b"\nsecret", b"\r\nsecret\n"]),
        ("a line end in front is of the password", b"\r\nsecret", [b"\r\nsecret\r\n"], []),
        ("a blank in front is of the password", b" secret", [b" secret\n"], []),
        ("a blank alone is a password", b" ", [b" \n"], []),
        ("line ends in the middle stay as they are", b"two\r\nlines", [b"two\r\nlines\r\n"], [b"two\nlines\r\n"]),
        ("a lone line feed in the middle too", b"two\nlines", [b"two\nlines"], []),
        # A zero byte alone would prove nothing: the keyed hash fills a short password up with zeros.
        ("other bytes that end a line elsewhere stay", b"secret", [],
         [b"secret" + end for end in (b"\x0b", b"\x0c", b"\x1a", b"\x85", b"\n\x00", b"\xe2\x80\xa8")]),
        ("a zero byte ends nothing", b"before\x00after", [b"before\x00after\n"], [b"before\x00other\n", b"before"]),
        ("zero bytes are a password", b"\x00\x00", [b"\x00\x00\r\n"], []),
        ("an end of file character ends nothing", b"before\x1aafter", [b"before\x1aafter\n"], []),
        *[(f"a byte order mark {mark.hex()} is of the password", mark + b"secret", [mark + b"secret\n"], [b"secret\n"])
          for mark in (b"\xef\xbb\xbf", b"\xff\xfe", b"\xfe\xff")],
        ("no character set is assumed", bytes(range(256)), [bytes(range(256))], []),
        ("broken UTF-8 is a password", b"\xff\xc3\x28\x80", [b"\xff\xc3\x28\x80\n"], []),
        ("nothing is normalised", "\u00e9".encode(), ["\u00e9".encode()], ["e\u0301".encode()]),
        ("case counts", b"Secret", [b"Secret"], [b"secret"]))

    def test_each_rule_on_the_bytes_of_a_password(self):
        for rule, password, opening, wrong in self.RULES:
            machine = self.image(password)
            with self.subTest(rule):
                for content in opening:
                    self.expect_opens(machine, content)
                for content in wrong:
                    self.expect_wrong(machine, content)

    def test_passwords_round_the_size_of_a_read_block(self):
        for size in (1, 255, 256, 257, 511, 512, 513, 4097):
            password = pattern(size - 1, "password") + b"."
            machine = self.image(password)
            self.expect_opens(machine, password + b"\n")
            self.expect_wrong(machine, password[:-1] + b"!")


class Limits(Password):
    def expect_accepted(self, content):
        """The password is taken as far as the derivation, which fails there: a large one takes it too long."""
        machine = self.image(b"secret")
        machine.add_fault("BCryptDeriveKeyPBKDF2", status="0xC0000001")
        self.expect(self.verify(machine, content), 1, "", fatal_status("BCryptDeriveKeyPBKDF2", 0xC0000001))

    def test_the_largest_file_is_accepted(self):
        self.expect_accepted(b"x" * LIMIT)
        self.expect_accepted(b"x" * (LIMIT - 1) + b"\n")
        self.expect_accepted(b"x" * (LIMIT - 1))
        self.expect_opens(self.image(b"secret"), b"secret" + b"\n" * (LIMIT - 6))

    def test_the_largest_password_opens(self):
        if self.settings.windows:
            self.skipTest("Wine hashes the whole password anew in each iteration")
        password = pattern(LIMIT - 1, "password") + b"."
        self.expect_opens(self.image(password), password)
        self.expect_opens(self.image(password[1:]), password[1:] + b"\n")

    def test_one_byte_more_is_refused_even_if_it_is_a_line_end(self):
        machine = self.image(b"secret")
        for content in (b"x" * (LIMIT + 1), b"x" * LIMIT + b"\n", b"secret" + b"\n" * (LIMIT - 5),
                        b"x" * (LIMIT + 255), b"x" * (LIMIT + 256), b"x" * (3 * LIMIT), b"\n" * (LIMIT + 1)):
            result = self.expect(self.verify(machine, content), 1, "", fatal(PASSWORD_TOO_LARGE))
            self.assertEqual(result.calls("BCryptDeriveKeyPBKDF2"), [])

    def test_a_file_of_nothing_is_empty(self):
        machine = self.image(b"secret")
        for content in (b"", b"\n", b"\r\n", b"\r", b"\n\n\r\n", b"\n" * 256, b"\r\n" * 500, b"\n" * LIMIT):
            result = self.expect(self.verify(machine, content), 1, "", fatal(PASSWORD_EMPTY))
            self.assertEqual(result.calls("BCryptDeriveKeyPBKDF2"), [])


class Unreadable(Password):
    def test_a_missing_file_or_folder_is_told_with_its_error(self):
        machine = self.image(b"secret")
        os.mkdir(machine.path("folder"))
        for name, error in (("missing", 2), ("missing/password", 3), ("folder", 5)):
            self.expect(self.verify(machine, name=name), 1, "",
                        f"FATAL: could not open password file (GetLastError={error})\n")

    def test_it_is_found_through_any_path(self):
        machine = self.image(b"secret")
        os.mkdir(machine.path("folder"))
        machine.write("folder/password", b"secret")
        for name in ("folder/password", "./folder/../folder/password", machine.absolute("folder/password")):
            self.expect(self.verify(machine, name=name), 0, verify_text("a.vrnx", 512, 512))
        self.expect_file(machine, "folder/password", b"secret")


class Place(Password):
    """Where in a run the password file comes to light."""

    def test_a_plain_image_does_not_look_at_it(self):
        machine = self.machine(default=False)
        build_image(machine.path("a.vrnx"), pattern(512, "image"), chunk_size=512)
        os.mkdir(machine.path("folder"))
        machine.write("empty", b"")
        for name in ("missing", "folder", "empty"):
            result = self.expect(self.verify(machine, name=name), 0, verify_text("a.vrnx", 512, 512))
            self.assertEqual(result.calls("BCryptDeriveKeyPBKDF2"), [])

    def test_a_sealed_image_without_one_is_refused(self):
        machine = self.image(b"secret")
        for options in ([], ["--password-file", ""], ["--password-file"]):
            result = self.expect(machine.run("verify", "--in", "a.vrnx", *options), 1, "",
                                 fatal("this image is encrypted - pass --password-file"))
            self.assertEqual(result.calls("BCryptDeriveKeyPBKDF2"), [])
        self.assertEqual(NEEDS_PASSWORD, "this image is encrypted - pass --password-file")

    def test_it_comes_before_the_trailer_of_a_thin_image(self):
        machine = self.image(b"secret")
        os.rename(machine.path("a.vrnx"), machine.path("base.vrnx"))
        builder = ImageBuilder(pattern(512, "image"), chunk_size=512, password=b"secret",
                               base=machine.path("base.vrnx"))
        builder.trailer.magic = b"VRNXBASF"
        builder.write(machine.path("a.vrnx"))
        self.expect(self.verify(machine, name="missing"), 1, "", fatal(PASSWORD_UNREADABLE, 2))
        self.expect(self.verify(machine, b"secret"), 1, "", fatal("thin image trailer is malformed"))

    def test_a_capture_draws_its_salt_before_it_reads_the_password(self):
        for content, message in ((None, PASSWORD_UNREADABLE), (b"", PASSWORD_EMPTY), (b"\n", PASSWORD_EMPTY),
                                 (b"x" * (LIMIT + 1), PASSWORD_TOO_LARGE)):
            machine = self.source()
            if content is not None:
                machine.write("password", content)
            report = fatal(message) if content is not None else fatal(message, 2)
            result = self.expect(self.capture(machine), 1, source_line(1, 512) + NO_TRACKER, report)
            self.assertEqual([line["length"] for line in result.calls("BCryptGenRandom")], [16])
            self.assertEqual(result.calls("BCryptDeriveKeyPBKDF2") + result.calls("GetFileAttributesA"), [])
            self.assertEqual(machine.files(), [] if content is None else ["password"])

    def test_it_is_read_before_the_target_of_a_restore_is_opened(self):
        machine = self.image(b"secret")
        machine.add_disk(0, bytes(65536))
        machine.system_volume([(0, 4096, 8192)])
        machine.add_disk(2, pattern(512, "target"))
        machine.write("empty", b"\n")
        for name, report in (("missing", fatal(PASSWORD_UNREADABLE, 2)), ("empty", fatal(PASSWORD_EMPTY))):
            result = machine.run("restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES", "--password-file",
                                 name)
            self.expect(result, 1, "", report)
            self.assertEqual(result.calls("CreateFileW", path="PhysicalDrive"), [])
        self.expect_disk(machine, 2, pattern(512, "target"))


class Derivation(Password):
    def test_a_captured_image_opens_with_the_trimmed_password(self):
        machine = self.source()
        machine.write("password", b"\xef\xbb\xbf two words \r\n\r\n")
        self.expect(self.capture(machine), 0, capture_text(1, 512, "a.vrnx"))
        self.expect_good_image(machine, "a.vrnx", pattern(512, "source"), b"\xef\xbb\xbf two words ")
        self.expect(self.verify(machine, b"\xef\xbb\xbf two words "), 0, verify_text("a.vrnx", 512, 0x400000))


if __name__ == "__main__":
    suite.main()
