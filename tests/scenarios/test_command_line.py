"""The command line: which words are commands, how options are found and converted, what gives the usage text before
anything is touched, and how a run ends."""

import shlex

import suite
from console import RESTORE_UNCONFIRMED, USAGE, capture_text, fatal, source_line
from machine import pattern

SMALL = 4096


class CommandLine(suite.Scenario):
    def small(self, **options):
        return self.machine(source=pattern(SMALL, "source"), **options)

    def expect_usage(self, machine, *arguments):
        result = self.expect(machine.run(*arguments), 1, USAGE)
        self.assertEqual([line["call"] for line in result.log], ["exit"], "usage touches nothing")

    def expect_thrown(self, machine, *arguments):
        result = self.expect_abnormal(machine.run(*arguments))
        self.assertEqual(result.log, [], "the conversion comes before everything else")


class Words(CommandLine):
    def test_what_is_no_command_gives_the_usage_text(self):
        machine = self.small()
        options = ("--disk", "1", "--out", "x", "--in", "x", "--from", "1", "--to", "2")
        for arguments in ((), *[(word,) for word in ("help", "--help", "-h", "", "listdisks", "capture ", "--disk")],
                          # Words match with case, and come first.
                          *[(word, *options) for word in ("CAPTURE", "List-Disks", "Capture", "Verify", "Restore",
                                                          "Clone", "Consolidate")],
                          ("--disk", "1", "capture", "--out", "x")):
            with self.subTest(arguments=arguments):
                self.expect_usage(machine, *arguments)
        self.assertEqual(machine.files(), [])

    def test_list_disks_reads_no_option(self):
        machine = self.small()
        machine.description["disks"] = []
        self.expect(machine.run("list-disks", "--disk", "abc", "--nonsense"), 0, "")

    def test_unknown_arguments_are_ignored(self):
        machine = self.small()
        result = machine.run("capture", "stray", "--bogus", "--disk", "1", "7", "--out", "x", "--also-bogus")
        self.expect(result, 0, capture_text(1, SMALL, "x"))


class Required(CommandLine):
    def test_each_command_that_lacks_an_option_gives_the_usage_text(self):
        machine = self.small()
        for command in (
                "capture", "capture --disk 1", "capture --out x", "capture --disk 1 --out ''",
                "capture --out x --disk", "capture --disk 0 --out x --encrypt",
                "capture --disk 0 --out x --encrypt --password-file",
                "capture --disk 0 --out x --encrypt --password-file ''",
                "verify", "verify --password-file p", "verify --in ''", "verify --in",
                "restore --confirm YES", "restore --in x --confirm YES", "restore --disk 2 --confirm YES",
                "clone --confirm YES", "clone --from 1 --confirm YES", "clone --to 1 --confirm YES",
                "consolidate", "consolidate --in a", "consolidate --out b"):
            with self.subTest(command):
                self.expect_usage(machine, *shlex.split(command))

    def test_consolidate_with_encrypt_and_no_password_file_reaches_the_command(self):
        result = self.small().run("consolidate", "--in", "a.vrnx", "--out", "b.vrnx", "--encrypt")
        self.expect(result, 1, "", "could not open image file: a.vrnx\n" + fatal("could not open image file", 2))

    def test_restore_with_another_word_than_yes_is_refused_and_no_usage_error(self):
        machine = self.small()
        for word in ("yes", "Yes", "YES ", "YE", "Y", ""):
            result = machine.run("restore", "--in", "x", "--disk", "1", "--confirm", word)
            self.expect(result, 1, "", RESTORE_UNCONFIRMED)
        self.expect(machine.run("restore", "--in", "x", "--disk", "1"), 1, "", RESTORE_UNCONFIRMED)


class Values(CommandLine):

    def test_an_output_path_that_reads_vss_is_a_path_and_turns_the_flag_on(self):
        machine = self.small()
        size = len(machine.disk_bytes(0))
        result = machine.run("capture", "--disk", "0", "--out", "--vss")
        self.assertEqual(result.status, 0)
        text = result.stdout.decode()
        self.assertTrue(text.startswith(source_line(0, size)))
        self.assertNotIn("NOTE:", text)
        self.assertTrue(text.endswith("\nCapture complete: --vss\n"))
        self.expect_good_image(machine, "--vss", machine.disk_bytes(0))

    def test_incremental_is_another_name_of_base_which_wins_unless_it_is_empty(self):
        for options in (("--incremental", "base.vrnx"), ("--INCREMENTAL", "base.vrnx"),
                        ("--base", "", "--incremental", "base.vrnx"),
                        ("--incremental", "other.vrnx", "--base", "base.vrnx")):
            result = self.small().run("capture", "--disk", "1", "--out", "x", *options)
            with self.subTest(options=options):
                self.assertTrue(result.stdout.decode().endswith("Incremental mode: base image base.vrnx\n"))
                self.expect(result, 1, result.stdout,
                            "could not open image file: base.vrnx\n" + fatal("could not open image file", 2))


class Numbers(CommandLine):
    def test_a_disk_number_that_is_no_number_ends_the_process_abnormally(self):
        machine = self.small()
        for text in ("abc", "", " ", "-", "+", "- 3", "x1", "--out"):
            self.expect_thrown(machine, "capture", "--out", "x", "--disk", text, "end")
        self.assertEqual(machine.files(), [])

    def test_the_conversion_comes_before_the_check_of_other_options(self):
        machine = self.small()
        self.expect_thrown(machine, "capture", "--disk", "abc")
        self.expect_thrown(machine, "restore", "--disk", "abc")
        self.expect_thrown(machine, "clone", "--from", "abc")
        self.expect_thrown(machine, "clone", "--to", "abc")
        self.expect_thrown(machine, "clone", "--from", "-5", "--to", "abc")

    def test_a_number_out_of_range_ends_the_process_abnormally(self):
        machine = self.small()
        for text in ("99999999999", "2147483648", "-2147483649", "9" * 40):
            self.expect_thrown(machine, "capture", "--out", "x", "--disk", text)
            self.expect_thrown(machine, "restore", "--in", "x", "--disk", text)
            self.expect_thrown(machine, "clone", "--from", text, "--to", "1")

    def test_a_negative_number_gives_the_usage_text(self):
        machine = self.small()
        for text in ("-2", "-1", "-2147483648", " -7x"):
            self.expect_usage(machine, "capture", "--out", "x", "--disk", text)
            self.expect_usage(machine, "restore", "--in", "x", "--disk", text)
            self.expect_usage(machine, "clone", "--from", "1", "--to", text)


class Ends(CommandLine):

    def test_a_fatal_end_closes_no_handle_and_deletes_no_file(self):
        machine = self.small()
        machine.add_fault("WriteFile", error=112)
        result = machine.run("capture", "--disk", "1", "--out", "x")
        self.assertEqual(result.status, 1)
        opened = {line["handle"] for line in result.calls("CreateFileW", ok=True)}
        closed = {line["handle"] for line in result.calls("CloseHandle")}
        left = [line["path"] for line in result.calls("CreateFileW", ok=True) if line["handle"] not in closed]
        self.assertEqual(left, [r"\\.\PhysicalDrive1", "x.partial"])
        self.assertEqual(closed - opened, set())
        self.assertEqual(machine.files(), ["x.partial"])


if __name__ == "__main__":
    suite.main()
