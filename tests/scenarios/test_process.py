"""The process that the product is: what it does about streams that were closed, names of devices in place of images,
signals, output that does not arrive, and secrets in its memory; on Windows, where its libraries come from.

Runs of vornix itself. What needs a disk has loop devices of its own, and is skipped where there can be none.
"""

import contextlib
import fcntl
import os
import pathlib
import re
import resource
import shutil
import signal
import stat
import struct
import subprocess
import tempfile
import termios
import time

import suite
from console import fatal
from consolidate_runs import plain_full_image
from image import build_image
from loop_disks import LoopDisks, reason_to_skip
from machine import CHECKOUT, SETTINGS, pattern
from product import ABSENT, Product
from sealing import PASSWORD

CHUNK = 4096
PLAIN = pattern(3 * CHUNK, "plain")
METER = rb"\r  [ 0-9]{3}\.[0-9]{2}%  [0-9]+ / [0-9]+ MiB  \([0-9]+\.[0-9] MiB/s\)   "
HEADER_SHORT = "could not read image header - file is truncated or not a .vrnx image"
NOT_MADE = "could not create output image file"


def lost(reason):
    return f"vornix: part of the output was lost: {reason}\n"


def wait_for(condition, seconds=60):
    """Waits until the condition gives something true, and gives that."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise TimeoutError("what was waited for did not come")
        time.sleep(0.005)


class Native(suite.Scenario):
    """The process of Linux."""

    recorded = False

    def setUp(self):
        super().setUp()
        if self.settings.windows:
            self.skipTest("this is how a process of Linux is started and ended")

    def product(self):
        made = Product(os.path.join(self.folder, f"m{len(self.machines) + 1}"))
        self.machines.append(made)
        build_image(made.path("full.vrnx"), PLAIN)
        return made

    def disks(self):
        reason = reason_to_skip()
        if reason:
            self.skipTest(reason)
        disks = LoopDisks(self.folder)
        self.addCleanup(disks.detach_all)
        return disks

    def attach(self, disks, contents):
        """A loop device over a file of these bytes; gives its path."""
        for _ in range(20):
            try:
                return disks.attach(contents)
            except OSError as error:
                # Between the choice of a free device and its use another process may take it.
                reason = str(error)
                time.sleep(0.1)
        self.skipTest(reason)

    def start(self, command, **options):
        """A process that ends with the test at the latest."""
        settled = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.PIPE,
                   "env": {**self.settings.environment(), "LC_ALL": "C.UTF-8"}, **options}
        process = subprocess.Popen(command, **settled)

        def end():
            if process.returncode is None:
                process.kill()
                with contextlib.suppress(ChildProcessError):
                    process.wait()
            if process.stderr is not None:
                process.stderr.close()
        self.addCleanup(end)
        return process

    def waiting_for_its_password(self, program, folder, **options):
        """A run that has read a part of its password and waits for the rest."""
        build_image(os.path.join(folder, "sealed.vrnx"), PLAIN, password=PASSWORD)
        return self.waiting_with([program, "verify", "--in", "sealed.vrnx"], folder, **options)

    def waiting_with(self, command, folder, **options):
        """The same of any command."""
        pipe = os.path.join(folder, f"password{len(os.listdir(folder))}")
        os.mkfifo(pipe)
        os.chmod(pipe, 0o666)
        process = self.start([*command, "--password-file", pipe], cwd=folder, **options)

        def opened():
            try:
                return os.open(pipe, os.O_WRONLY | os.O_NONBLOCK)
            except OSError:
                return None
        writing = wait_for(opened)
        self.addCleanup(os.close, writing)
        os.write(writing, PASSWORD)
        return process


class Limits(Native):
    def test_a_file_that_grows_beyond_the_limit_of_its_size_is_a_failed_write(self):
        product = self.product()

        def limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (2 * CHUNK, 2 * CHUNK))
        for output, told in ("/dev/null", ""), ("/dev/full", lost("an earlier write failed")):
            with self.subTest(output=output), open(output, "wb") as stream:
                done = product.start("consolidate", "--in", "full.vrnx", "--out", f"{len(told)}.vrnx", stdout=stream,
                                     stderr=subprocess.PIPE, preexec_fn=limit)
                self.assertEqual((done.returncode, done.stderr.decode()), (
                    1, "FATAL: WriteFile failed while consolidating (disk full?) (GetLastError=112)\n" + told))


class StandardStreams(Native):
    def test_no_stream_that_is_closed_ends_up_in_an_image(self):
        product = self.product()
        for closed in ((0,), (1,), (2,), (0, 1), (0, 2), (1, 2), (0, 1, 2)):
            def close(closed=closed):
                for stream in closed:
                    os.close(stream)
            with self.subTest(closed=closed):
                done = product.start("consolidate", "--in", "full.vrnx", "--out", "out.vrnx", preexec_fn=close,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                self.assertEqual(done.returncode, 0)
                self.expect_file(product, "out.vrnx", plain_full_image(PLAIN, CHUNK))
                os.remove(product.path("out.vrnx"))

    def test_a_stream_that_is_closed_leads_nowhere(self):
        product = self.product()
        process = self.waiting_for_its_password(SETTINGS.program, product.work, stderr=None,
                                                preexec_fn=lambda: [os.close(stream) for stream in range(3)])
        for stream, access in ((0, os.O_RDONLY), (1, os.O_WRONLY), (2, os.O_WRONLY)):
            try:
                leads_to = os.readlink(f"/proc/{process.pid}/fd/{stream}")
            except PermissionError:
                self.skipTest("only root sees the streams of a run that may hold a key")
            self.assertEqual(leads_to, "/dev/null")
            with open(f"/proc/{process.pid}/fdinfo/{stream}", encoding="ascii") as file:
                flags = int(re.search(r"flags:\s*([0-7]+)", file.read()).group(1), 8)
            self.assertEqual(flags & os.O_ACCMODE, access)

    def test_a_stream_that_is_open_stays_what_it_is(self):
        process = self.waiting_for_its_password(SETTINGS.program, self.folder, stdout=subprocess.PIPE,
                                                preexec_fn=lambda: os.close(0))
        streams = pathlib.Path(f"/proc/{process.pid}/fd")
        try:
            names = [stream.name for stream in streams.iterdir() if os.readlink(stream) == "/dev/null"]
        except PermissionError:
            self.skipTest("only root sees the streams of a run that may hold a key")
        process.stdout.close()
        self.assertEqual(names, ["0"])


class DevicesInPlaceOfFiles(Native):
    # Each kind of name that Windows keeps for devices, and what an open of it says here, whether it is to be there or
    # to be made.
    KINDS = ((rf"\\.\PhysicalDrive{ABSENT}", 2), (rf"\\.\PhysicalDrive{ABSENT}\x", 2), (r"\\.\PhysicalDrive", 2),
             (r"\\.\x", 2), (r"\\.\Wendrel", 2), (r"\\.\CON", 2), (r"\\.\C:\a.vrnx", 2), (r"\\.", 2),
             ("\\\\.\\", 2),
             ("\\\\?\\", 2), (r"\\?\C:\a.vrnx", 2), (r"\\?\Volume{11111111-2222-3333-4444-555555555555}", 2),
             (r"\\?\GLOBALROOT\Device\Harddisk0\Partition0", 2), (r"\\?\UNC\server\share\a.vrnx", 2),
             (r"\\.\GLOBALROOT\Device\HarddiskVolumeShadowCopy1", 2))
    SYSTEM_VOLUME = (r"\\.\C:", r"\\.\c:", r"\\?\C:")

    def expect_fatal(self, run, message=None, error=None):
        """The run has ended with a report, of any text and any error where none is given."""
        self.assertEqual(run.status, 1, run.describe())
        text = ".*" if message is None else re.escape(message)
        number = "[0-9]+" if error is None else error
        self.assertRegex(run.stderr.decode().splitlines()[-1], rf"^FATAL: {text} \(GetLastError={number}\)$",
                         run.describe())

    def test_a_name_of_a_device_is_no_image(self):
        product = self.product()
        product.write("password", PASSWORD)
        before = product.files()
        for name, error in (*self.KINDS, *((name, 87) for name in self.SYSTEM_VOLUME)):
            with self.subTest(name=name):
                unread = ("could not open image file", 2) if error == 2 else (HEADER_SHORT, error)
                self.expect_fatal(product.run("verify", "--in", name), *unread)
                self.expect_fatal(product.run("restore", "--in", name, "--disk", ABSENT, "--confirm", "YES"), *unread)
                self.expect_fatal(product.run("consolidate", "--in", name, "--out", "out.vrnx"), *unread)
                self.expect_fatal(product.run("consolidate", "--in", "full.vrnx", "--encrypt", "--password-file", name,
                                              "--out", "out.vrnx"), "could not open password file")
                if name != r"\\.":
                    # That one is the name of a file like any other.
                    self.expect_fatal(product.run("consolidate", "--in", "full.vrnx", "--out", name), NOT_MADE, error)
                self.assertEqual(product.files(), before)

    def test_a_capture_makes_no_device_and_has_none_for_a_base(self):
        for name, _ in (*self.KINDS, *((name, 87) for name in self.SYSTEM_VOLUME), (r"\\.\PhysicalDrive2", 0)):
            if name == r"\\.":
                continue
            with self.subTest(name=name):
                machine = self.machine()
                disk = machine.disk_bytes(2)
                self.expect_fatal(machine.run("capture", "--disk", "1", "--out", name), NOT_MADE, 2)
                self.expect_fatal(machine.run("capture", "--disk", "1", "--out", "a.vrnx", "--base", name, "--thin"))
                run = machine.run("capture", "--disk", "1", "--out", "a.vrnx", "--encrypt", "--password-file", name)
                self.expect_fatal(run, "could not open password file")
                self.assertEqual(machine.files(), [])
                self.expect_disk(machine, 2, disk)

    def test_a_disk_is_no_image_and_stays_as_it_is(self):
        disks = self.disks()
        content = pattern(1 << 20, "disk")
        names = [rf"\\.\PhysicalDrive{number}" for number in range(2)]
        devices = [self.attach(disks, content) for _ in names]
        build_image(os.path.join(self.folder, "full.vrnx"), PLAIN)
        before = sorted(os.listdir(self.folder))
        for arguments, message in (
                (("verify", "--in", names[1]), fatal(HEADER_SHORT, 87)),
                (("consolidate", "--in", "full.vrnx", "--out", names[1]), fatal(NOT_MADE, 87)),
                (("capture", "--disk", "0", "--out", names[1]), fatal(NOT_MADE, 2)),
                (("consolidate", "--in", names[0], "--out", names[1]), fatal(HEADER_SHORT, 87))):
            with self.subTest(arguments=arguments):
                done = disks.run(*arguments)
                self.assertEqual((done.returncode, done.stderr.decode()), (1, message))
                self.assertEqual(sorted(os.listdir(self.folder)), before)
                for device in devices:
                    with open(device, "rb") as file:
                        self.assertEqual(file.read(), content)


class Interrupted(Native):
    # So many chunks that their meter does not fit into the smallest pipe, and the run has to wait for a reader.
    COUNT = 20000
    LARGE = pattern(COUNT * 512, "large")

    def stalled(self, command, folder, **options):
        """A run that waits for somebody to read its output: the process and the pipe."""
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        room = fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
        process = self.start(command, cwd=folder, stdout=writing, **options)
        os.close(writing)
        longest_line = 50

        def is_full():
            self.assertIsNone(process.poll(), "the run has ended before it could be interrupted")
            count, = struct.unpack("i", fcntl.ioctl(reading, termios.FIONREAD, bytes(4)))
            return count > room - longest_line
        wait_for(is_full)
        return process, reading

    def consolidation(self, **options):
        product = self.product()
        build_image(product.path("large.vrnx"), self.LARGE, chunk_size=512)
        return product, *self.stalled([SETTINGS.program, "consolidate", "--in", "large.vrnx", "--out", "out.vrnx"],
                                      product.work, **options)

    @staticmethod
    def rest(reading):
        data = b""
        while True:
            piece = os.read(reading, 65536)
            if not piece:
                return data
            data += piece

    def test_what_was_printed_arrives_and_a_line_says_what_is_left(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number=number):
                _, process, reading = self.consolidation()
                process.send_signal(number)
                time.sleep(0.3)
                self.assertIsNone(process.poll(), "it waits for its reader for a while")
                output = self.rest(reading)
                self.assertEqual(process.stderr.read().decode(),
                                 f"INTERRUPTED: ended by {number.name}; the file out.vrnx is left unfinished\n")
                self.assertEqual(process.wait(60), -number)
                self.assertRegex(output, b"^(" + METER + b")+$")

    def test_a_run_whose_output_nobody_reads_is_interrupted_too(self):
        product, process, _ = self.consolidation()
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(60), -signal.SIGTERM)
        self.assertEqual(process.stderr.read().decode(),
                         "INTERRUPTED: ended by SIGTERM; the file out.vrnx is left unfinished\n")
        with open(product.path("out.vrnx"), "rb") as file:
            self.assertEqual(file.read(64), bytes(64))
        self.assertEqual(product.run("verify", "--in", "out.vrnx").status, 1)

    def test_a_second_signal_ends_the_run_at_once(self):
        _, process, _ = self.consolidation()
        # Both wait while the process is stopped, so that the second one is there when the first is looked at.
        process.send_signal(signal.SIGSTOP)
        process.send_signal(signal.SIGTERM)
        process.send_signal(signal.SIGINT)
        process.send_signal(signal.SIGCONT)
        self.assertIn(process.wait(60), (-signal.SIGTERM, -signal.SIGINT))
        self.assertEqual(process.stderr.read(), b"")

    def test_a_signal_that_is_ignored_stays_so(self):
        product, process, reading = self.consolidation(preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        process.send_signal(signal.SIGHUP)
        self.rest(reading)
        self.assertEqual((process.wait(60), process.stderr.read()), (0, b""))
        self.expect_file(product, "out.vrnx", plain_full_image(self.LARGE, 512))

    def test_a_run_that_has_made_nothing_says_so(self):
        product = self.product()
        process = self.waiting_for_its_password(SETTINGS.program, product.work)
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(60), -signal.SIGINT)
        self.assertEqual(process.stderr.read(), b"INTERRUPTED: ended by SIGINT; nothing is left unfinished\n")

    def test_what_was_printed_before_a_wait_arrives_from_the_first_process_of_a_container_too(self):
        disks = self.disks()
        self.attach(disks, bytes(1 << 20))
        command = disks.command("capture", "--disk", "0", "--out", "a.vrnx", "--encrypt")
        for around, status in ((), -signal.SIGTERM), (("unshare", "--pid", "--fork"), 128 + signal.SIGTERM):
            with self.subTest(around=around):
                process = self.waiting_with([*around, *command], self.folder, stdout=subprocess.PIPE)
                children = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text(encoding="ascii")
                os.kill(int(children) if around else process.pid, signal.SIGTERM)
                with process.stdout:
                    self.assertRegex(process.stdout.read(), b"^Source: PhysicalDrive0 ")
                self.assertEqual(process.stderr.read(), b"INTERRUPTED: ended by SIGTERM; nothing is left unfinished\n")
                self.assertEqual(process.wait(60), status)

    def test_a_run_that_is_done_leaves_nothing_unfinished(self):
        product = self.product()
        printed = len(product.run("consolidate", "--in", "full.vrnx", "--out", "1.vrnx").raw)
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        # All has room but the end of the last line, which is handed on when the run is over.
        os.write(writing, bytes(fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096) - printed + 20))
        process = self.start([SETTINGS.program, "consolidate", "--in", "full.vrnx", "--out", "2.vrnx"],
                             cwd=product.work, stdout=writing)
        os.close(writing)
        place = pathlib.Path(f"/proc/{process.pid}/wchan")
        try:
            wait_for(lambda: "pipe_write" in place.read_text(encoding="ascii"))
        except (TimeoutError, PermissionError):
            self.assertIsNone(process.poll(), "it waits for room in the pipe")
            self.skipTest("this kernel does not show what a process waits for")
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(60), -signal.SIGTERM)
        self.assertEqual(process.stderr.read(), b"INTERRUPTED: ended by SIGTERM; nothing is left unfinished\n")
        self.expect_file(product, "2.vrnx", plain_full_image(PLAIN, CHUNK))

    def test_a_capture_leaves_its_partial_file_and_publishes_nothing(self):
        disks = self.disks()
        self.attach(disks, pattern(1 << 20, "mebibyte") * 512)
        process = self.start(disks.command("capture", "--disk", "0", "--out", "a.vrnx"), cwd=self.folder)
        wait_for(lambda: os.path.exists(os.path.join(self.folder, "a.vrnx.partial")))
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(60), -signal.SIGTERM)
        self.assertEqual(process.stderr.read(),
                         b"INTERRUPTED: ended by SIGTERM; the file a.vrnx.partial is left unfinished\n")
        self.assertFalse(os.path.exists(os.path.join(self.folder, "a.vrnx")))

    def test_a_restore_says_which_disk_is_partly_written(self):
        disks = self.disks()
        device = self.attach(disks, bytes(len(self.LARGE)))
        build_image(os.path.join(self.folder, "large.vrnx"), self.LARGE, chunk_size=512)
        process, reading = self.stalled(
            disks.command("restore", "--in", "large.vrnx", "--disk", "0", "--confirm", "YES"), self.folder)
        process.send_signal(signal.SIGINT)
        self.rest(reading)
        self.assertEqual(process.stderr.read().decode(),
                         f"INTERRUPTED: ended by SIGINT; the disk PhysicalDrive0 ({device}) is left partly written\n")
        self.assertEqual(process.wait(60), -signal.SIGINT)


class LostOutput(Native):
    def run_to(self, command, folder, path="/dev/full"):
        with open(path, "wb") as output:
            done = subprocess.run(command, cwd=folder, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.PIPE,
                                  env={**self.settings.environment(), "LC_ALL": "C.UTF-8"}, timeout=300, check=False)
        return done.returncode, done.stderr.decode()

    def run_to_nobody(self, command, folder):
        reading, writing = os.pipe()
        os.close(reading)
        try:
            return self.run_to(command, folder, f"/dev/fd/{writing}")
        finally:
            os.close(writing)

    def test_a_run_keeps_the_status_of_its_work_and_tells_of_the_loss(self):
        product = self.product()
        full = lost("No space left on device")
        for arguments, status, report in (
                (("verify", "--in", "full.vrnx"), 0, ""),
                (("consolidate", "--in", "full.vrnx", "--out", "out.vrnx"), 0, ""),
                (("verify", "--in", "none"), 1, "could not open image file: none\n"
                                                + fatal("could not open image file", 2)),
                ((), 1, "")):
            with self.subTest(arguments=arguments):
                told = "" if arguments == ("verify", "--in", "none") else full
                self.assertEqual(self.run_to([SETTINGS.program, *arguments], product.work), (status, report + told))
        self.expect_file(product, "out.vrnx", plain_full_image(PLAIN, CHUNK))

    def test_a_reader_that_goes_away_is_told_of_where_there_was_other_work(self):
        product = self.product()
        self.assertEqual(self.run_to_nobody([SETTINGS.program, "verify", "--in", "full.vrnx"], product.work),
                         (0, lost("Broken pipe")))

    def test_a_list_that_does_not_arrive_is_a_failure(self):
        disks = self.disks()
        self.attach(disks, bytes(1 << 20))
        command = disks.command("list-disks")
        self.assertEqual(self.run_to(command, self.folder), (1, lost("No space left on device")))
        self.assertEqual(self.run_to(command, self.folder, "/dev/null"), (0, ""))
        # As with any other tool that lists: whoever has seen enough is not told of the rest.
        self.assertEqual(self.run_to_nobody(command, self.folder), (-signal.SIGPIPE, ""))


class Secrets(Native):
    NOBODY = 65534

    def another_user(self):
        """What makes a process an unprivileged user's with core files, where this one may do that."""
        def prepare():
            most = resource.getrlimit(resource.RLIMIT_CORE)[1]
            resource.setrlimit(resource.RLIMIT_CORE, (most, most))
            if os.geteuid() == 0:
                os.setgroups([])
                os.setgid(self.NOBODY)
                os.setuid(self.NOBODY)
        return prepare

    def is_readable(self, process):
        """Whether another process of the same user may look into the memory of this one."""
        done = subprocess.run(["sh", "-c", f": < /proc/{process.pid}/mem"], stderr=subprocess.DEVNULL,
                              preexec_fn=self.another_user(), check=False)
        return done.returncode == 0

    def leaves_a_core(self, process):
        process.send_signal(signal.SIGABRT)
        _, status = os.waitpid(process.pid, 0)
        process.returncode = -signal.SIGABRT
        self.assertTrue(os.WIFSIGNALED(status) and os.WTERMSIG(status) == signal.SIGABRT, status)
        return os.WCOREDUMP(status)

    def test_nobody_sees_the_memory_of_a_run_that_has_read_of_a_password(self):
        limits = resource.getrlimit(resource.RLIMIT_CORE)
        if os.geteuid() != 0 and limits[1] == 0:
            self.skipTest("this user may have no core files")
        folder = tempfile.mkdtemp(dir=self.folder)
        for path in (self.folder, folder):
            os.chmod(path, 0o777)
        # Where the build lies, another user may not look.
        program = shutil.copy(SETTINGS.program, folder)
        other = self.start(["sleep", "1000"], cwd=folder, preexec_fn=self.another_user())
        # Not by the link to its executable, which root of a container may not read.
        wait_for(lambda: pathlib.Path(f"/proc/{other.pid}/cmdline").read_bytes().startswith(b"sleep"))
        process = self.waiting_for_its_password(program, folder, preexec_fn=self.another_user())
        may_read, may_dump = self.is_readable(other), self.leaves_a_core(other)
        if not may_read and not may_dump:
            self.skipTest("no memory of any process is seen by another here, nor left in a core file")
        self.assertFalse(self.is_readable(process))
        self.assertFalse(self.leaves_a_core(process))


class Permissions(Native):
    def test_an_image_is_its_owner_s_alone(self):
        product = self.product()
        for mask in (0, 0o022, 0o077):
            done = product.start("consolidate", "--in", "full.vrnx", "--out", f"{mask}.vrnx", stdout=subprocess.DEVNULL,
                                 preexec_fn=lambda mask=mask: os.umask(mask))
            self.assertEqual(done.returncode, 0)
            self.assertEqual(stat.S_IMODE(os.stat(product.path(f"{mask}.vrnx")).st_mode), 0o600)


class Libraries(suite.Scenario):
    """Libraries that lie beside the executable are not loaded, whatever their names."""

    recorded = False
    COMPILER = "x86_64-w64-mingw32-gcc"
    # What runs when the library is loaded leaves a trace; the exports are there for a loader that insists on them.
    SOURCE = """
__declspec(dllimport) int CreateDirectoryA(const char* path, void* security);
int DllMain(void* instance, unsigned reason, void* reserved) {
    CreateDirectoryA("planted", 0);
    return 1;
}
"""

    def setUp(self):
        super().setUp()
        if not self.settings.windows:
            self.skipTest("libraries that are looked for beside the executable are Windows' own")
        if shutil.which(self.COMPILER) is None:
            self.skipTest(f"there is no {self.COMPILER} here")

    def plant(self, name, folder):
        with open(os.path.join(CHECKOUT, "platform", "windows", name + ".def"), encoding="utf-8") as file:
            exports = file.read().split("EXPORTS\n")[1].split()
        source = os.path.join(folder, name + ".c")
        with open(source, "w", encoding="ascii") as file:
            file.write(self.SOURCE + "".join(f"__declspec(dllexport) int {export}(void) {{ return -1; }}\n"
                                             for export in exports))
        subprocess.run([self.COMPILER, "-shared", "-o", os.path.join(folder, name + ".dll"), source], check=True)

    def run_beside(self, name, executable, *arguments):
        """Runs the executable with a planted library beside it, which Wine is told to prefer to its own. Gives what
        subprocess.run gives, and whether the library was loaded."""
        folder = tempfile.mkdtemp(dir=self.folder)
        self.plant(name, folder)
        program = shutil.copy(executable, folder)
        build_image(os.path.join(folder, "full.vrnx"), PLAIN)
        done = self.settings.run(program, *arguments, cwd=folder, environment={"WINEDLLOVERRIDES": f"{name}=n,b"})
        return done, os.path.exists(os.path.join(folder, "planted"))

    def test_a_planted_library_for_cryptography_is_not_loaded(self):
        done, is_loaded = self.run_beside("bcrypt", SETTINGS.program, "verify", "--in", "full.vrnx")
        self.assertFalse(is_loaded)
        self.assertEqual((done.returncode, done.stderr), (0, b""), done.stdout)

    def test_a_planted_library_for_snapshots_is_not_loaded(self):
        tests = os.path.join(SETTINGS.build, "tests", "vornix-unit-tests.exe")
        if not os.path.exists(tests):
            self.skipTest(f"there is no {tests}")
        done, is_loaded = self.run_beside("vssapi", tests, "--gtest_filter=CreateComponentsGuarded*")
        self.assertFalse(is_loaded)
        self.assertEqual(done.returncode, 0, done.stdout)

    def test_an_argument_with_wildcards_stays_what_was_typed(self):
        product = Product(os.path.join(self.folder, "wild"))
        self.machines.append(product)
        build_image(product.path("full.vrnx"), PLAIN)
        self.expect(product.run("verify", "--in", "f*.vrnx"), 1, "",
                    "could not open image file: f*.vrnx\n" + fatal("could not open image file", 123))


if __name__ == "__main__":
    suite.main()
