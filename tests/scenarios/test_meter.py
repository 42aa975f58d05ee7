"""The progress meter: its line, when it is printed, and what it counts."""

import suite
from console import NO_TRACKER, capture_text, restore_text, source_line, verify_text, verifying_line
from image import build_image
from machine import pattern

MIB = 1048576


class Meter(suite.Scenario):
    def verify(self, machine, size, chunk_size=4096):
        build_image(machine.path("a.vrnx"), pattern(size, "image"), chunk_size=chunk_size)
        return machine.run("verify", "--in", "a.vrnx")


class Line(Meter):
    def test_the_line_begins_with_a_carriage_return_and_ends_in_three_blanks(self):
        machine = self.machine()
        self.expect(machine.run("capture", "--disk", "1", "--out", "x"), 0,
                    source_line(1, machine.SOURCE_SIZE) + NO_TRACKER +
                    "\r   44.44%  4 / 9 MiB  (4.0 MiB/s)   \r  100.00%  9 / 9 MiB  (4.5 MiB/s)   \n"
                    "Capture complete: x\n")

    def test_counts_below_one_mebibyte_print_as_0(self):
        machine = self.machine()
        self.expect(self.verify(machine, 10000), 0,
                    verifying_line("a.vrnx", 3, 10000) +
                    "\r   40.96%  0 / 0 MiB  (0.0 MiB/s)   \r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n"
                    "Verify OK - all 3 chunks match their recorded hash.\n")

    def test_counts_of_mebibytes_are_cut_and_not_rounded(self):
        machine = self.machine()
        self.expect(self.verify(machine, 2 * MIB - 512, MIB), 0,
                    verifying_line("a.vrnx", 2, 2 * MIB - 512) +
                    "\r   50.01%  1 / 1 MiB  (1.0 MiB/s)   \r  100.00%  1 / 1 MiB  (1.0 MiB/s)   \n"
                    "Verify OK - all 2 chunks match their recorded hash.\n")

    def test_a_small_share_is_padded_to_six_places(self):
        machine = self.machine()
        self.expect(self.verify(machine, 32 * 4096), 0,
                    verifying_line("a.vrnx", 32, 32 * 4096) +
                    "\r    3.12%  0 / 0 MiB  (0.0 MiB/s)   \r  100.00%  0 / 0 MiB  (0.1 MiB/s)   \n"
                    "Verify OK - all 32 chunks match their recorded hash.\n")


class Rate(Meter):
    def first_line(self, step, start=1000):
        machine = self.machine()
        machine.ticks(start, step)
        result = self.verify(machine, 8 * MIB, 4 * MIB)
        self.assertEqual(result.status, 0)
        return result.stdout.decode().split("\n")[1].split("\r")[1:]

    def test_within_a_tenth_of_a_second_the_rate_is_0(self):
        self.assertEqual(self.first_line(50), ["   50.00%  4 / 8 MiB  (0.0 MiB/s)   ",
                                               "  100.00%  8 / 8 MiB  (0.0 MiB/s)   "])

    def test_at_exactly_a_tenth_of_a_second_the_rate_is_0(self):
        self.assertEqual(self.first_line(100), ["   50.00%  4 / 8 MiB  (0.0 MiB/s)   ",
                                                "  100.00%  8 / 8 MiB  (40.0 MiB/s)   "])

    def test_behind_a_tenth_of_a_second_the_rate_is_shown(self):
        self.assertEqual(self.first_line(101), ["   50.00%  4 / 8 MiB  (39.6 MiB/s)   ",
                                                "  100.00%  8 / 8 MiB  (39.6 MiB/s)   "])

    def test_the_rate_is_the_mean_since_the_start(self):
        self.assertEqual(self.first_line(3000), ["   50.00%  4 / 8 MiB  (1.3 MiB/s)   ",
                                                 "  100.00%  8 / 8 MiB  (1.3 MiB/s)   "])

    def test_a_clock_that_stands_still_gives_the_rate_0(self):
        self.assertEqual(self.first_line(0), ["   50.00%  4 / 8 MiB  (0.0 MiB/s)   ",
                                              "  100.00%  8 / 8 MiB  (0.0 MiB/s)   "])

    def test_the_clock_may_be_far_along(self):
        self.assertEqual(self.first_line(1000, start=0xFFFFFFFFFFFF0000), ["   50.00%  4 / 8 MiB  (4.0 MiB/s)   ",
                                                                           "  100.00%  8 / 8 MiB  (4.0 MiB/s)   "])


class Turns(Meter):
    def test_verify_prints_on_the_first_every_32nd_and_the_last_chunk(self):
        machine = self.machine()
        result = self.expect(self.verify(machine, 70 * 4096), 0, verify_text("a.vrnx", 70 * 4096, 4096))
        lines = result.stdout.decode().split("\r")[1:]
        self.assertEqual([line[:9] for line in lines], ["    1.43%", "   47.14%", "   92.86%", "  100.00%"])
        self.assertEqual(len(result.calls("GetTickCount64")), 1 + 4, "one look before the loop, one a line")

    def test_a_last_chunk_that_is_a_32nd_too_prints_once(self):
        machine = self.machine()
        result = self.expect(self.verify(machine, 33 * 4096), 0, verify_text("a.vrnx", 33 * 4096, 4096))
        self.assertEqual(result.stdout.count(b"\r"), 2)

    def test_a_single_chunk_prints_once(self):
        machine = self.machine()
        result = self.expect(self.verify(machine, 512), 0, verify_text("a.vrnx", 512, 4096))
        self.assertEqual(result.stdout.count(b"\r"), 1)

    def test_restore_prints_on_the_first_every_32nd_and_the_last_chunk(self):
        machine = self.machine(source=bytes(512), target=bytes(65 * 4096))
        build_image(machine.path("a.vrnx"), pattern(65 * 4096, "image"))
        result = machine.run("restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES")
        self.expect(result, 0, restore_text("a.vrnx", 2, 65 * 4096, 4096))
        self.assertEqual(result.stdout.count(b"\r"), 3)

    def test_capture_prints_on_the_first_every_32nd_and_the_last_chunk(self):
        size = 33 * 4 * MIB + 512
        machine = self.machine(source=size, target=bytes(512))
        result = machine.run("capture", "--disk", "1", "--out", "x")
        self.expect(result, 0, capture_text(1, size, "x"))
        lines = result.stdout.decode().split("\r")[1:]
        self.assertEqual([line[:9] for line in lines], ["    3.03%", "  100.00%", "  100.00%"])

    def test_time_that_passes_brings_no_further_line(self):
        machine = self.machine()
        machine.ticks(0, 3600000)
        self.expect(self.verify(machine, 31 * 4096), 0, verify_text("a.vrnx", 31 * 4096, 4096, step=3600.0))

    def test_the_line_shows_at_once(self):
        machine = self.machine()
        build_image(machine.path("a.vrnx"), pattern(3 * 4096, "image"))
        machine.add_fault("ReadFile", path="a.vrnx", skip=3, kill=True)  # behind header, table and the first chunk
        result = machine.run("verify", "--in", "a.vrnx")
        self.expect(result, 137, verifying_line("a.vrnx", 3, 3 * 4096) + "\r   33.33%  0 / 0 MiB  (0.0 MiB/s)   ")


if __name__ == "__main__":
    suite.main()
