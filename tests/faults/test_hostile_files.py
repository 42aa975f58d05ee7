"""A hostile place for images, with real files: no room, no right to write, files that change under the run, a second
run.

What has no room gets a file system of its own that is as small as the case wants it. A run is held at a known place by
a password file that is a pipe: the program waits at it with the image open and its table read, and goes on when the
test has done its damage. Natively, and where file systems can be mounted.
"""

import json
import os
import signal
import subprocess
import time

import suite
from console import fatal
from image import ImageBuilder, build_image, check_image, is_accepted, reference_plain_bytes
from machine import pattern

PAGE = 4096
CHUNK = 4096
COUNT = 12
SIZE = COUNT * CHUNK
MIB4 = 0x400000
PASSWORD = b"correct horse"
KEY = ["--password-file", "password"]
DISK_FULL = 112
WRITE_PROTECTED = 19
SHARING_VIOLATION = 32
TRUNCATED = "could not read chunk data - image is truncated"


class Hostile(suite.Scenario):
    recorded = False

    def setUp(self):
        super().setUp()
        if self.settings.windows:
            self.skipTest("file systems are mounted natively only")

    def mounted(self, machine, name, options):
        """A folder of the work folder with a file system of its own in it."""
        path = machine.path(name)
        os.makedirs(path, exist_ok=True)
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", options, "none", path], capture_output=True, check=False)
        if done.returncode != 0:
            self.skipTest(f"no file system can be mounted here: {done.stderr.decode().strip()}")
        self.addCleanup(subprocess.run, ["umount", "-l", path], check=False, capture_output=True)
        return path

    def resize(self, path, pages):
        for name in os.listdir(path):
            os.remove(os.path.join(path, name))
        subprocess.run(["mount", "-o", f"remount,size={pages * PAGE}", path], check=True, capture_output=True)


class NoRoom(Hostile):
    def fill(self, machine, pages, message, *arguments, password=None):
        """The command with more and more room, until there is enough; how often there was not."""
        place = self.mounted(machine, "small", f"size={PAGE}")
        out, failures = os.path.join(place, "new.vrnx"), 0
        for count in pages:
            self.resize(place, count)
            result = machine.run(*arguments, "--out", "small/new.vrnx")
            if result.status == 0:
                self.assertEqual(check_image(out, password), [])
                return failures
            failures += 1
            # Header and table lie in the page where the first chunk begins, so that it is never they that lack room.
            self.assertEqual((result.status, result.stderr), (1, fatal(message, DISK_FULL).encode()), result.describe())
            for name in os.listdir(place):
                self.assertFalse(is_accepted(os.path.join(place, name), password), f"{name} with {count} pages")
        return self.fail("there was never enough room")

    def test_consolidate_at_every_page(self):
        machine = self.machine(default=False)
        build_image(machine.path("a.vrnx"), pattern(SIZE, "image"), chunk_size=CHUNK)
        failures = self.fill(machine, range(1, COUNT + 4), "WriteFile failed while consolidating (disk full?)",
                             "consolidate", "--in", "a.vrnx")
        self.assertGreaterEqual(failures, COUNT)

    def test_sealed_consolidate(self):
        machine = self.machine(default=False)
        machine.write("password", PASSWORD)
        build_image(machine.path("a.vrnx"), pattern(SIZE, "image"), chunk_size=CHUNK)
        failures = self.fill(machine, range(1, COUNT + 4, 4), "WriteFile failed while consolidating (disk full?)",
                             "consolidate", "--in", "a.vrnx", "--encrypt", *KEY, password=PASSWORD)
        self.assertGreaterEqual(failures, 2)

    def test_capture(self):
        machine = self.machine(source=pattern(MIB4 + 8 * PAGE, "source"))
        pages = [1, 2, 500, *range(MIB4 // PAGE - 1, MIB4 // PAGE + 12)]
        failures = self.fill(machine, pages, "WriteFile to image file failed mid-capture (disk full?)",
                             "capture", "--disk", "1")
        self.assertGreaterEqual(failures, 10)

    def test_a_folder_that_may_not_be_written(self):
        machine = self.machine(source=pattern(4096, "source"))
        self.mounted(machine, "sealed", "size=64k")
        build_image(machine.path("sealed/a.vrnx"), pattern(SIZE // 4, "image"))
        subprocess.run(["mount", "-o", "remount,ro", machine.path("sealed")], check=True)
        for arguments in (["capture", "--disk", "1"], ["consolidate", "--in", "sealed/a.vrnx"]):
            result = machine.run(*arguments, "--out", "sealed/new.vrnx")
            self.assertEqual((result.status, result.stderr), (1, fatal(
                "could not create output image file", WRITE_PROTECTED).encode()), result.describe())
        self.assertEqual(machine.run("verify", "--in", "sealed/a.vrnx").status, 0)
        self.assertEqual(os.listdir(machine.path("sealed")), ["a.vrnx"])


class Changing(Hostile):
    """Runs that are held while they read the password, with the image open."""

    def held(self, machine, damage, *arguments):
        """The run, with `damage()` done at the pipe. Gives status, standard output and standard error."""
        os.mkfifo(machine.path("password"))
        machine.write_home("machine.json", json.dumps(machine.description).encode())
        run = subprocess.Popen([self.settings.bench, os.path.join("..", "machine"), *arguments, *KEY], cwd=machine.work,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=self.settings.environment())
        with open(machine.path("password"), "wb") as pipe:  # waits until the program is there
            damage()
            pipe.write(PASSWORD)
        stdout, stderr = run.communicate(timeout=120)
        os.remove(machine.path("password"))
        return run.returncode, stdout.decode(), stderr.decode()

    def sealed(self):
        machine = self.machine(source=pattern(SIZE, "source"), target=pattern(SIZE, "target"))
        builder = build_image(machine.path("a.vrnx"), pattern(SIZE, "image"), password=PASSWORD)
        return machine, builder

    def test_an_image_that_becomes_shorter(self):
        for chunk, rest in ((0, 0), (0, 1), (5, 0), (COUNT - 1, CHUNK - 1)):
            with self.subTest(chunk=chunk, rest=rest):
                machine, builder = self.sealed()
                end = builder.data_offset(chunk) + rest

                def cut(machine=machine, end=end):
                    os.truncate(machine.path("a.vrnx"), end)
                status, _, stderr = self.held(machine, cut, "verify", "--in", "a.vrnx")
                self.assertEqual((status, TRUNCATED in stderr), (1, True), stderr)
                builder.write(machine.path("a.vrnx"))
                status, _, stderr = self.held(machine, cut, "restore", "--in", "a.vrnx", "--disk", "2", "--confirm",
                                              "YES")
                self.assertEqual(status, 1)
                self.assertIn("could not read chunk data from image - restore aborted", stderr)
                whole = pattern(SIZE, "image")[:chunk * CHUNK]
                self.expect_disk(machine, 2, whole + pattern(SIZE, "target")[len(whole):])
                builder.write(machine.path("a.vrnx"))
                status, _, stderr = self.held(machine, cut, "consolidate", "--in", "a.vrnx", "--out", "new.vrnx")
                self.assertEqual((status, "could not read chunk data from image (truncated?)" in stderr), (1, True))
                self.assertFalse(is_accepted(machine.path("new.vrnx")))

    def test_an_image_that_becomes_longer(self):
        machine, _ = self.sealed()

        def grow():
            with open(machine.path("a.vrnx"), "ab") as file:
                file.write(bytes(100000))
        status, stdout, _ = self.held(machine, grow, "verify", "--in", "a.vrnx")
        self.assertEqual((status, "Verify OK" in stdout), (0, True))

    def test_a_chunk_that_changes_behind_the_open(self):
        machine, builder = self.sealed()
        status, stdout, stderr = self.held(machine, lambda: machine.flip("a.vrnx", builder.data_offset(7) + 9),
                                           "restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES")
        self.assertEqual((status, "chunk 7 failed authentication" in stderr), (1, True), stdout)
        whole = pattern(SIZE, "image")[:7 * CHUNK]
        self.expect_disk(machine, 2, whole + pattern(SIZE, "target")[len(whole):])

    def test_a_table_that_changes_behind_the_open_is_not_read_again(self):
        machine, _ = self.sealed()

        def wipe():
            machine.patch("a.vrnx", 0, bytes(64 + 72 * COUNT))
        status, stdout, _ = self.held(machine, wipe, "verify", "--in", "a.vrnx")
        self.assertEqual((status, "Verify OK" in stdout), (0, True))

    def test_an_output_that_appears_before_the_work_file_is_made(self):
        machine, _ = self.sealed()
        status, _, stderr = self.held(machine, lambda: machine.write("new.vrnx", b"someone's"),
                                      "capture", "--disk", "1", "--out", "new.vrnx", "--encrypt")
        self.assertEqual((status, "refusing to overwrite an existing output image" in stderr), (1, True))
        self.assertEqual(machine.read("new.vrnx"), b"someone's")
        self.assertFalse(machine.exists("new.vrnx.partial"))

    def test_an_output_of_a_consolidation_that_appears_meanwhile(self):
        machine, _ = self.sealed()
        status, _, stderr = self.held(machine, lambda: machine.write("new.vrnx", b"someone's"),
                                      "consolidate", "--in", "a.vrnx", "--out", "new.vrnx")
        self.assertEqual((status, "could not create output image file" in stderr), (1, True))
        self.assertEqual(machine.read("new.vrnx"), b"someone's")


class TwoAtOnce(Hostile):
    @staticmethod
    def has_size(machine, name, size):
        try:
            return os.path.getsize(machine.path(name)) >= size
        except FileNotFoundError:
            return False

    def start_and_hold(self, machine, at_size, *arguments):
        """The run, stopped while its work file has `at_size` bytes at least; a machine that is too quick for that gets
        another chance."""
        machine.write_home("machine.json", json.dumps(machine.description).encode())
        for _ in range(10):
            run = subprocess.Popen([self.settings.bench, os.path.join("..", "machine"), *arguments], cwd=machine.work,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=self.settings.environment())
            while not self.has_size(machine, "new.vrnx.partial", at_size) and run.poll() is None:
                time.sleep(0.0005)
            run.send_signal(signal.SIGSTOP)
            if self.has_size(machine, "new.vrnx.partial", at_size):
                return run
            run.send_signal(signal.SIGCONT)
            run.communicate(timeout=120)
            os.remove(machine.path("new.vrnx"))
        return self.fail("the first run was over each time before it could be held")

    def test_a_second_capture_to_the_same_output_is_refused_and_the_first_one_ends_well(self):
        machine = self.machine(source=64 * 1048576)
        machine.description.pop("calls")
        arguments = ["capture", "--disk", "1", "--out", "new.vrnx"]
        first = self.start_and_hold(machine, 1, *arguments)
        try:
            second = machine.run(*arguments)
        finally:
            first.send_signal(signal.SIGCONT)
        self.assertEqual((second.status, second.stderr), (1, fatal(
            "could not create output image file", SHARING_VIOLATION).encode()))
        _, stderr = first.communicate(timeout=120)
        self.assertEqual((first.returncode, stderr), (0, b""))
        self.assertEqual(reference_plain_bytes(machine.path("new.vrnx")), bytes(64 * 1048576))

    def test_of_two_captures_that_begin_at_once_one_gives_its_image_and_the_other_touches_nothing_of_it(self):
        disks = {1: pattern(16 * 1048576, "first"), 2: pattern(16 * 1048576, "second")}
        machine = self.machine(source=disks[1], target=disks[2])
        machine.description.pop("calls")
        # Held as soon as the work file is there, which may be before the run has claimed it for itself.
        first = self.start_and_hold(machine, 0, "capture", "--disk", "1", "--out", "new.vrnx")
        try:
            second = machine.run("capture", "--disk", "2", "--out", "new.vrnx")
        finally:
            first.send_signal(signal.SIGCONT)
        first.communicate(timeout=120)
        self.assertEqual({first.returncode, second.status}, {0, 1})
        self.assertEqual(reference_plain_bytes(machine.path("new.vrnx")), disks[1 if first.returncode == 0 else 2])

    def test_a_second_consolidation_to_the_same_output_is_refused_and_leaves_it_alone(self):
        machine = self.machine(default=False)
        build_image(machine.path("a.vrnx"), pattern(SIZE, "image"))
        machine.write("new.vrnx", ImageBuilder(pattern(SIZE, "another")).to_bytes())
        result = machine.run("consolidate", "--in", "a.vrnx", "--out", "new.vrnx")
        self.assertEqual((result.status, b"--out already exists" in result.stderr), (1, True))
        self.assertEqual(reference_plain_bytes(machine.path("new.vrnx")), pattern(SIZE, "another"))


class Names(Hostile):
    def test_a_name_has_to_leave_room_for_the_work_name(self):
        longest = 255 - len(".partial")
        for length in (longest, longest + 1, 255, 256):
            machine = self.machine(source=pattern(4096, "source"))
            result = machine.run("capture", "--disk", "1", "--out", "n" * length)
            self.assertEqual(result.status, 0 if length == longest else 1)
            self.assertEqual(len(machine.files()), 1 if length == longest else 0)


if __name__ == "__main__":
    suite.main()
