"""The progress meter: its line, when it is printed, and what it counts."""

import suite
from console import capture_text, restore_text, verify_text, verifying_line
from image import build_image
from machine import pattern

MIB = 1048576


class Meter(suite.Scenario):
    def verify(self, machine, size, chunk_size=4096):
        build_image(machine.path("a.vrnx"), pattern(size, "image"), chunk_size=chunk_size)
        return machine.run("verify", "--in", "a.vrnx")


class Line(Meter):
    def test_counts_are_cut_to_mebibytes_and_shares_padded_to_six_places(self):
        for size, chunk_size, lines in (
                (10000, 4096, "\r   40.96%  0 / 0 MiB  (0.0 MiB/s)   \r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n"),
                (2 * MIB - 512, MIB, "\r   50.01%  1 / 1 MiB  (1.0 MiB/s)   \r  100.00%  1 / 1 MiB  (1.0 MiB/s)   \n"),
                (32 * 4096, 4096, "\r    3.12%  0 / 0 MiB  (0.0 MiB/s)   \r  100.00%  0 / 0 MiB  (0.1 MiB/s)   \n")):
            count = (size - 1) // chunk_size + 1
            with self.subTest(size=size):
                self.expect(self.verify(self.machine(), size, chunk_size), 0,
                            verifying_line("a.vrnx", count, size) + lines
                            + f"Verify OK - all {count} chunks match their recorded hash.\n")


class Rate(Meter):
    def test_the_rate_is_the_mean_since_the_start_once_a_tenth_of_a_second_is_over(self):
        for case, step, start, half, whole in (
                ("within a tenth of a second", 50, 1000, "0.0", "0.0"),
                ("at exactly a tenth of a second", 100, 1000, "0.0", "40.0"),
                ("behind a tenth of a second", 101, 1000, "39.6", "39.6"),
                ("the mean since the start", 3000, 1000, "1.3", "1.3"),
                ("a clock that stands still", 0, 1000, "0.0", "0.0"),
                ("a clock that is far along", 1000, 0xFFFFFFFFFFFF0000, "4.0", "4.0")):
            machine = self.machine()
            machine.ticks(start, step)
            with self.subTest(case):
                self.expect(self.verify(machine, 8 * MIB, 4 * MIB), 0, verifying_line("a.vrnx", 2, 8 * MIB)
                            + f"\r   50.00%  4 / 8 MiB  ({half} MiB/s)   \r  100.00%  8 / 8 MiB  ({whole} MiB/s)   \n"
                            "Verify OK - all 2 chunks match their recorded hash.\n")


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
