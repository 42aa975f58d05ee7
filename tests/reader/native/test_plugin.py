"""nbdkit-vrnx-plugin under nbdkit itself, with the clients that people use, and the examples of its manual page.

The image is one of a small disk with a partition table and an ext4 file system, in a chain of two. Natively.
"""

import contextlib
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import time

import loop_disks
import suite
from image import build_image
from machine import CHECKOUT, SETTINGS, pattern

PLUGIN = os.path.join(SETTINGS.build, "nbdkit-vrnx-plugin.so")
PAGE = os.path.join(CHECKOUT, "man", "nbdkit-vrnx-plugin.1")
PASSWORD = b"correct horse"
CHUNK = 65536
MIB = 1 << 20
DISK_SIZE = 12 * MIB + 5 * 512
PARTITION = MIB
PARTITION_SIZE = 10 * MIB
HOSTNAME = b"saved-from-the-image\n"
TOOLS = ("nbdkit", "nbdinfo", "nbdcopy", "qemu-img", "nbdfuse", "debugfs", "mkfs.ext4")

def boot_sector():
    """It writes itself to sector 1 of the disk, says so on the first serial port and ends the machine. 16-bit code,
    assembled by hand; the packet for INT 13h lies at 7C50h, the text at 7C60h."""
    code = bytearray()
    code += b"\x31\xc0\x8e\xd8\x8e\xc0"          # xor ax, ax; mov ds, ax; mov es, ax
    code += b"\xb4\x43\xb0\x00\xbe\x50\x7c\xcd\x13"  # mov ah, 43h; mov al, 0; mov si, 7C50h; int 13h
    code += b"\x72\x0e"                          # jc end
    code += b"\xbe\x60\x7c"                      # mov si, 7C60h
    code += b"\xba\xf8\x03"                      # mov dx, 3F8h
    code += b"\xac\x84\xc0\x74\x03\xee\xeb\xf8"  # next: lodsb; test al, al; jz end; out dx, al; jmp next
    code += b"\xba\xf4\x00\xb0\x01\xee"          # end: mov dx, 0F4h; mov al, 1; out dx, al
    code += b"\xf4\xeb\xfd"                      # hlt; jmp
    sector = bytearray(512)
    sector[:len(code)] = code
    sector[0x50:0x60] = b"\x10\x00\x01\x00\x00\x7c\x00\x00" + (1).to_bytes(8, "little")
    sector[0x60:0x60 + 14] = b"booted, wrote\n"
    return bytes(sector)


def make_disk(folder):
    """The bytes of a disk with one partition, on it a file system with /etc/hostname."""
    tree = os.path.join(folder, "tree")
    os.makedirs(os.path.join(tree, "etc"))
    with open(os.path.join(tree, "etc", "hostname"), "wb") as file:
        file.write(HOSTNAME)
    system = os.path.join(folder, "system")
    subprocess.run(["mkfs.ext4", "-q", "-b", "1024", "-d", tree, "-E", "lazy_itable_init=0", system,
                    str(PARTITION_SIZE // 1024)], check=True, capture_output=True)
    disk = bytearray(DISK_SIZE)
    disk[:512] = boot_sector()
    disk[446:462] = bytes([0x80, 0, 0, 0, 0x83, 0, 0, 0]) + (PARTITION // 512).to_bytes(4, "little") \
        + (PARTITION_SIZE // 512).to_bytes(4, "little")
    disk[510:512] = b"\x55\xaa"
    with open(system, "rb") as file:
        disk[PARTITION:PARTITION + PARTITION_SIZE] = file.read()
    disk[-512:] = pattern(512, "end of the disk")
    return bytes(disk)


def examples():
    """The examples of the page, as their lines."""
    with open(PAGE, encoding="utf-8") as file:
        blocks = re.findall(r"^\.EX\n(.*?)^\.EE$", file.read(), re.S | re.M)
    return [block.replace("\\-", "-").splitlines() for block in blocks]


class Plugin(suite.Scenario):
    recorded = False

    def setUp(self):
        super().setUp()
        missing = [tool for tool in TOOLS if shutil.which(tool) is None and not os.path.exists(f"/usr/sbin/{tool}")]
        if missing:
            self.skipTest(f"not installed: {', '.join(missing)}")
        if "sanitize" in SETTINGS.build:
            self.skipTest("nbdkit is not sanitized and loads no plugin that is")
        self.disk = make_disk(self.folder)
        first = bytearray(self.disk)
        first[5 * CHUNK:6 * CHUNK] = pattern(CHUNK, "once")
        first[-512:] = bytes(512)
        build_image(self.path("sunday.vrnx"), bytes(first), chunk_size=CHUNK)
        self.thin = build_image(self.path("monday.vrnx"), self.disk, chunk_size=CHUNK, base=self.path("sunday.vrnx"))
        build_image(self.path("sealed.vrnx"), self.disk, chunk_size=CHUNK, password=PASSWORD)
        with open(self.path("password"), "wb") as file:
            file.write(PASSWORD + b"\r\n")
        # nbdkit finds the plugin by its name where it is installed; here by a command of the same name in front.
        os.mkdir(self.path("bin"))
        # Where somebody else, as whom a test runs it, reaches it and the library beside it.
        plugin = shutil.copy(PLUGIN, self.path("bin"))
        shutil.copy(os.path.join(SETTINGS.build, "libvrnx.so.0"), self.path("bin"))
        with open(self.path("bin/nbdkit"), "w", encoding="utf-8") as file:
            file.write(f"""#!/bin/bash
for word; do
    [ "$word" = vrnx ] && word={plugin}
    words+=("$word")
done
exec {shutil.which("nbdkit")} "${{words[@]}}"
""")
        os.chmod(self.path("bin/nbdkit"), 0o755)

    def path(self, name):
        return os.path.join(self.folder, name)

    def run_lines(self, *lines, timeout=300, before=()):
        """A few lines of shell in the folder of the images."""
        environment = {**os.environ, "PATH": f"{self.path('bin')}:{os.environ['PATH']}:/usr/sbin:/sbin",
                       "TMPDIR": self.folder}
        return subprocess.run([*before, "bash", "-ec", "\n".join(lines)], cwd=self.folder, env=environment,
                              capture_output=True, check=False, timeout=timeout)

    def expect_lines(self, *lines, **options):
        run = self.run_lines(*lines, **options)
        self.assertEqual(run.returncode, 0, run.stderr.decode(errors="replace"))
        return run.stdout

    def read_file(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()


class Serving(Plugin):
    def test_a_copy_is_the_disk_with_holes(self):
        for image in ("monday.vrnx", "sealed.vrnx password-file=password", "monday.vrnx cache=0", "image=monday.vrnx"):
            for connections in (1, 4):
                self.expect_lines(f"rm -f copy; nbdkit -U - vrnx {image} "
                                  f"--run 'nbdcopy --connections={connections} \"$uri\" copy'")
                self.assertTrue(self.read_file("copy") == self.disk, image)
        self.assertLess(os.stat(self.path("copy")).st_blocks * 512, DISK_SIZE)

    def test_zero_chunks_are_holes(self):
        extents = json.loads(self.expect_lines("nbdkit -U - vrnx monday.vrnx --run 'nbdinfo --map --json \"$uri\"'"))
        zeros = bytes(CHUNK)
        expected = []
        for offset in range(0, DISK_SIZE, CHUNK):
            part = self.disk[offset:offset + CHUNK]
            kind = 3 if part == zeros[:len(part)] else 0
            if expected and expected[-1][2] == kind:
                expected[-1][1] += len(part)
            else:
                expected.append([offset, len(part), kind])
        self.assertGreater(len(expected), 3)
        merged = []
        for extent in extents:  # a client may get them in pieces
            if merged and merged[-1][2] == extent["type"]:
                merged[-1][1] += extent["length"]
            else:
                merged.append([extent["offset"], extent["length"], extent["type"]])
        self.assertEqual(merged, expected)

    def test_what_a_client_is_told(self):
        told = self.expect_lines("nbdkit -U - vrnx monday.vrnx --run 'nbdinfo --json \"$uri\"'")
        info = json.loads(told)["exports"][0]
        self.assertEqual(info["export-size"], DISK_SIZE)
        self.assertTrue(info["is_read_only"] and info["can_multi_conn"])
        self.assertEqual((info["block_size_minimum"], info["block_size_preferred"]), (1, CHUNK))
        told = self.expect_lines("nbdkit vrnx --dump-plugin").decode().splitlines()
        self.assertIn("thread_model=parallel", told)
        self.assertIn("magic_config_key=image", told)

    def test_requests_of_any_alignment(self):
        chance = random.Random("requests")
        wanted = [(chance.randrange(PARTITION + 200000), chance.randint(1, 3000)) for _ in range(60)]
        wanted += [(number * CHUNK - 700, 1400) for number in range(1, 20)] + [(DISK_SIZE - 1000, 1000)]
        with self.server("monday.vrnx", "cache=2") as socket:
            commands = [word for offset, length in wanted for word in ("-c", f"read -v {offset} {length}")]
            done = subprocess.run(["qemu-io", "-r", "-f", "raw", *commands, f"nbd+unix:///?socket={socket}"],
                                  capture_output=True, text=True, check=False, timeout=300)
        answers = re.split(r"^read .*$", done.stdout, flags=re.M)[:-1]
        self.assertEqual(len(answers), len(wanted), done.stderr)
        for (offset, length), answer in zip(wanted, answers):
            dump = "".join(re.findall(r"^[0-9a-f]{8,}:  ((?:[0-9a-f]{2} ){1,16})", answer, flags=re.M))
            self.assertTrue(bytes.fromhex(dump) == self.disk[offset:offset + length], (offset, length))

    @contextlib.contextmanager
    def server(self, *arguments, before=()):
        """An nbdkit of the test's own, and its socket; what it says is in the file `log`."""
        socket = self.path("socket")
        with open(self.path("log"), "wb") as log:
            command = [*before, self.path("bin/nbdkit"), "-f", "-U", socket, "vrnx", *arguments]
            process = subprocess.Popen(command, cwd=self.folder, stderr=log)
        try:
            while not os.path.exists(socket):
                self.assertIsNone(process.poll(), self.read_file("log"))
                time.sleep(0.02)
            self.process = process
            yield socket
        finally:
            process.send_signal(signal.SIGTERM)
            process.wait(60)

    def test_a_bad_chunk_is_an_error_that_names_it_and_the_others_are_served(self):
        bad = DISK_SIZE // CHUNK  # the last; monday stores it, and it is not zeros
        self.assertNotEqual(self.thin.records[bad].stored_length, 0)
        content = bytearray(self.read_file("monday.vrnx"))
        content[self.thin.data_offset(bad)] ^= 1
        with open(self.path("monday.vrnx"), "wb") as file:
            file.write(content)
        with self.server("monday.vrnx") as socket:
            uri = f"nbd+unix:///?socket={socket}"
            reads = ["-c", f"read {bad * CHUNK + 512} 512", "-c", "read 0 512"]
            done = subprocess.run(["qemu-io", "-r", "-f", "raw", *reads, uri], capture_output=True, check=False,
                                  timeout=300)
            self.assertIn(b"read failed: Input/output error", done.stdout + done.stderr)
            self.assertIn(b"read 512/512 bytes at offset 0", done.stdout)
        lines = [line for line in self.read_file("log").decode().splitlines() if "chunk" in line]
        text = f"{self.path('monday.vrnx')}: chunk {bad} (disk offset {bad * CHUNK}): hash mismatch"
        self.assertEqual([line.split("error: ")[-1] for line in lines], [text])

    def test_a_refused_image_starts_no_server(self):
        for arguments, text in (("", "which image?"), ("nowhere.vrnx", "could not open image file"),
                                ("sealed.vrnx", "encrypted, and no password"),
                                ("sealed.vrnx password-file=nowhere", "could not read password file"),
                                ("monday.vrnx cache=some", "cache"),
                                ("monday.vrnx colour=red", "unknown parameter colour"),
                                ("monday.vrnx image=sunday.vrnx", "given twice"),
                                ("password", "could not read image header")):
            run = self.run_lines(f"nbdkit -U - vrnx {arguments} --run true")
            self.assertNotEqual(run.returncode, 0, arguments)
            self.assertIn(text, run.stderr.decode(), arguments)

    def test_paths_are_those_of_the_folder_of_the_start(self):
        """A server that goes into the background is in another folder then."""
        self.expect_lines("nbdkit -U socket -P pid vrnx sealed.vrnx password-file=password",
                          'nbdcopy "nbd+unix:///?socket=socket" copy', 'kill "$(cat pid)"')
        self.assertTrue(self.read_file("copy") == self.disk)

    def test_nobody_dumps_or_looks_at_the_process(self):
        os.chmod(self.folder, 0o777)
        with self.server("sealed.vrnx", "password-file=password", before=self.as_somebody()) as socket:
            subprocess.run(["nbdinfo", f"nbd+unix:///?socket={socket}"], check=True, capture_output=True)
            # What /proc has of a process that cannot be dumped belongs to root, whosever the process is.
            self.assertEqual(os.stat(f"/proc/{self.process.pid}/environ").st_uid, 0)
            with subprocess.Popen([*self.as_somebody(), "cat"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as other:
                other.stdin.write(b"there\n")
                other.stdin.flush()
                self.assertEqual(other.stdout.readline(), b"there\n")
                self.assertNotEqual(os.stat(f"/proc/{other.pid}/environ").st_uid, 0)
        self.assertNotIn(PASSWORD, self.read_file("log"))

    @staticmethod
    def as_somebody():
        return ["setpriv", "--reuid=65534", "--clear-groups"] if os.geteuid() == 0 else []


class Examples(Plugin):
    """Each example of the manual page, as it stands there."""

    def example(self, word):
        found = [lines for lines in examples() if any(word in line for line in lines)]
        self.assertEqual(len(found), 1, word)
        return found[0]

    def mount_example(self, word):
        """Runs an example that mounts, in a mount namespace of its own: no other test keeps a mount of it alive."""
        reason = loop_disks.reason_to_skip()
        if reason:
            self.skipTest(reason)
        try:
            os.close(os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC))
        except OSError:
            self.skipTest("there is no /dev/fuse here")
        self.expect_lines(*self.example(word), before=("unshare", "--mount", "--propagation", "private"))
        self.assertEqual(self.read_file("hostname"), HOSTNAME)

    def test_every_example_is_run(self):
        words = ("nbdinfo", "nbdcopy", "qemu-img", "debugfs", "loop", "qemu-system")
        self.assertEqual([next(word for word in words if any(word in line for line in lines)) for lines in examples()],
                         list(words))

    def test_nbdinfo(self):
        self.assertIn(f"export-size: {DISK_SIZE}".encode(), self.expect_lines(*self.example("nbdinfo")))

    def test_nbdcopy(self):
        self.expect_lines(*self.example("nbdcopy"))
        self.assertTrue(self.read_file("monday.raw") == self.disk)

    def test_conversion(self):
        self.expect_lines(*self.example("qemu-img"))
        for name, kind in (("sealed.qcow2", "qcow2"), ("sealed.vhdx", "vhdx")):
            self.expect_lines(f"qemu-img convert -f {kind} -O raw {name} raw")
            self.assertTrue(self.read_file("raw")[:DISK_SIZE] == self.disk, kind)

    def test_one_file_out_of_a_partition(self):
        self.mount_example("debugfs")

    def test_a_mounted_file_system(self):
        self.mount_example("loop")

    def test_a_boot_that_writes_leaves_the_image_as_it_is(self):
        if not SETTINGS.long:
            self.skipTest("a virtual machine boots with --long only")
        if shutil.which("qemu-system-x86_64") is None:
            self.skipTest("no qemu-system-x86_64")
        names = ("monday.vrnx", "sunday.vrnx")
        before = [hashlib.sha256(self.read_file(name)).digest() for name in names]
        line, = self.example("qemu-system")
        self.assertTrue(line.endswith("'"))
        # What a person would see in a window goes to a file, and the machine can be ended from within.
        line = line[:-1] + (" -display none -serial file:serial -no-reboot "
                            "-device isa-debug-exit,iobase=0xf4 || test $? = 3'")
        self.expect_lines(line, timeout=1200)
        self.assertEqual(self.read_file("serial"), b"booted, wrote\n")
        self.assertEqual([hashlib.sha256(self.read_file(name)).digest() for name in names], before)


if __name__ == "__main__":
    suite.main()
