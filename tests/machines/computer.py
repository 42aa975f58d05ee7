"""A whole virtual computer: QEMU without acceleration, a kernel of Debian, real drivers, and disks that are files here.

    with Computer(folder, [Disk(8 * MIB), Disk(9 * MIB, "nvme")]) as computer:
        result = computer.run("vornix list-disks")

There is no network and no screen. Commands go over a virtio channel and come back with their status and both streams;
QEMU itself is reached through its own protocol (`qmp`), for plugs that are pulled. Every process is ended by its own
id, and ends with the one that started it, whatever becomes of that.
"""

import base64
import json
import os
import re
import select
import shutil
import socket
import subprocess
import time
from dataclasses import dataclass

import kernel as kernels
from kernel import Missing
from ramdisk import RamDisk

QEMU = "qemu-system-x86_64"
# Seconds until a computer counts as dead. None of them takes a tenth of it on a machine that does nothing else.
BOOT_TIMEOUT = 600
COMMAND_TIMEOUT = 900

CHANNEL_MODULES = ("virtio_pci", "virtio_console")


def reason_to_skip():
    """Why no computer can run here, or None."""
    for tool in (QEMU, "cpio", "setpriv"):
        if shutil.which(tool) is None:
            return f"there is no {tool} here"
    try:
        kernels.fetch(kernels.CLOUD)
    except Missing as missing:
        return str(missing)
    return None


@dataclass
class Result:
    command: str
    status: int
    stdout: bytes
    stderr: bytes

    @property
    def text(self):
        return self.stdout.decode("utf-8", "replace")

    @property
    def errors(self):
        return self.stderr.decode("utf-8", "replace")

    def __str__(self):
        return f"$ {self.command}\nstatus {self.status}\n{self.text}{self.errors}"


class Dead(AssertionError):
    """The computer does not answer any more."""


class Channel:
    """A stream to the computer, or to QEMU."""

    def __init__(self):
        self.ours, self.theirs = socket.socketpair()
        self.buffer = b""

    def send(self, data):
        self.ours.sendall(data)

    def _fill(self, deadline):
        ready = select.select([self.ours], [], [], max(0, deadline - time.monotonic()))[0]
        data = self.ours.recv(65536) if ready else b""
        if not data:
            raise Dead("the connection has ended" if ready else "no answer in time")
        self.buffer += data

    def line(self, timeout):
        deadline = time.monotonic() + timeout
        while b"\n" not in self.buffer:
            self._fill(deadline)
        line, _, self.buffer = self.buffer.partition(b"\n")
        return line

    def exactly(self, length, timeout):
        deadline = time.monotonic() + timeout
        while len(self.buffer) < length:
            self._fill(deadline)
        data, self.buffer = self.buffer[:length], self.buffer[length:]
        return data

    def close(self):
        self.ours.close()


class Computer:
    """A computer that is switched on by `with`, or by start().

    folder     an empty folder that exists; receives the disks' files and the log of the console
    disks      what is plugged in at the start
    kernel     kernel.CLOUD or kernel.FULL; None: the first where every disk is of a kind that it knows
    modules    inserted at the start, beside those of the disks
    programs   of this system, to be there as well; files: names and contents
    arguments  of QEMU, beside
    firmware   None: the kernel and the RAM disk are loaded by QEMU; otherwise a computer that boots from its disks by
               itself, with these arguments of QEMU for its firmware, and without an agent
    """

    translated = 128  # MiB for what QEMU keeps of translated programs
    patience = COMMAND_TIMEOUT

    # pylint: disable-next=too-many-arguments
    def __init__(self, folder, disks=(), *, kernel=None, modules=(), programs=(), files=None, memory=256, arguments=(),
                 libraries=(), firmware=None, more_modules=()):
        self.folder, self.disks, self.memory = folder, list(disks), memory
        self.arguments, self.firmware = list(arguments), firmware
        self.console = os.path.join(folder, "console.txt")
        self.process = self.channel = self.qmp_channel = None
        for number, disk in enumerate(self.disks):
            disk.create(folder, number)
        self.boot = []
        if firmware is None:
            known = all(disk.in_cloud_kernel for disk in self.disks)
            self.kernel = kernels.fetch(kernel or (kernels.CLOUD if known else kernels.FULL))
            self._make_ram_disk(modules, more_modules, programs, libraries, files or {})

    def _make_ram_disk(self, modules, more_modules, programs, libraries, files):
        content = os.path.join(self.folder, "ramdisk")
        made = RamDisk(content, self.kernel)
        wanted = [*CHANNEL_MODULES, *(name for disk in self.disks for name in disk.modules), *modules]
        made.add_modules(*dict.fromkeys(wanted))
        made.add_modules_for_later(*more_modules)
        for program in programs:
            made.add_program(program)
        for library in libraries:
            made.add_library(library)
        for name, contents in files.items():
            made.add_file(name, contents, 0o755)
        archive = os.path.join(self.folder, "ramdisk.cpio")
        made.pack(archive)
        shutil.rmtree(content)
        # On a busy machine a tick may come later than the kernel has patience for, which it takes for a broken timer.
        self.boot = ["-kernel", self.kernel.image, "-initrd", archive,
                     "-append", "console=ttyS0 quiet panic=-1 random.trust_cpu=on no_timer_check"]

    def hardware(self):
        """The command that starts QEMU, without what it is reached through."""
        command = ["setpriv", "--pdeathsig", "KILL", QEMU, "-accel", f"tcg,tb-size={self.translated}", "-machine", "pc",
                   "-cpu", "max", "-m", str(self.memory), "-smp", "1", "-nodefaults", "-no-user-config",
                   "-display", "none", "-no-reboot",
                   *(self.firmware or []), *self.boot]
        controllers = [disk.controller() for disk in self.disks]
        for controller in {made["id"]: made for made in controllers if made}.values():
            command += ["-device", json.dumps(controller)]
        for place, disk in enumerate(self.disks):
            if disk.kind == "sd-card":
                command += ["-device", json.dumps({"driver": "sdhci-pci", "id": f"{disk.id}-reader"})]
            command += disk.arguments(controllers[:place].count(disk.controller()))
        return command + self.arguments

    def _channels(self, channel, qmp):
        arguments = ["-serial", f"file:{self.console}",
                     "-chardev", f"socket,id=qmp,fd={qmp}", "-mon", "chardev=qmp,mode=control"]
        if self.firmware is None:
            arguments += ["-chardev", f"socket,id=channel,fd={channel}", "-device", "virtio-serial-pci",
                          "-device", "virtserialport,chardev=channel"]
        return arguments

    def start(self):
        self.channel, self.qmp_channel = Channel(), Channel()
        descriptors = [self.channel.theirs.fileno(), self.qmp_channel.theirs.fileno()]
        with open(os.path.join(self.folder, "qemu.txt"), "wb") as said:
            # pylint: disable-next=consider-using-with
            self.process = subprocess.Popen([*self.hardware(), *self._channels(*descriptors)], stdin=subprocess.DEVNULL,
                                            stdout=said, stderr=said, pass_fds=descriptors)
        for channel in (self.channel, self.qmp_channel):
            channel.theirs.close()
        try:
            self.qmp_channel.line(BOOT_TIMEOUT)
            self.qmp("qmp_capabilities")
            self._wait_until_started()
        except BaseException:
            trouble = self.diagnosis()
            self.stop()
            print(trouble)
            raise
        return self

    def _wait_until_started(self):
        if self.firmware is None and self.channel.line(BOOT_TIMEOUT) != b"ready":
            raise Dead("the agent says something else")

    def stop(self):
        """Switches it off as a pulled plug does."""
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        for channel in (self.channel, self.qmp_channel):
            if channel is not None:
                channel.close()

    def wait_for_end(self, timeout=COMMAND_TIMEOUT):
        """Waits until the computer has switched itself off."""
        self.process.wait(timeout)

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()

    def diagnosis(self):
        """The end of what QEMU and the console said."""
        text = ""
        for name in (os.path.join(self.folder, "qemu.txt"), self.console):
            if os.path.exists(name):
                with open(name, encoding="utf-8", errors="replace") as file:
                    text += file.read()[-2000:]
        return text

    # --- Commands ---

    def send(self, command):
        """Sends a command and does not wait for it; `answer` has to follow before the next one."""
        self.channel.send(base64.b64encode(command.encode()) + b"\n")

    def answer(self, command="", timeout=None):
        timeout = timeout or self.patience
        try:
            status, out, errors = map(int, self.channel.line(timeout).split())
            return Result(command, status, self.channel.exactly(out, timeout), self.channel.exactly(errors, timeout))
        except (Dead, ValueError) as trouble:
            raise Dead(f"{command}: {trouble}\n{self.diagnosis()}") from trouble

    def run(self, command, timeout=None):
        """Runs a command of the shell."""
        self.send(command)
        return self.answer(command, timeout)

    def succeed(self, command, timeout=None):
        """Runs a command that has to succeed; gives its standard output."""
        result = self.run(command, timeout)
        if result.status != 0:
            raise AssertionError(str(result))
        return result.text

    # --- Disks ---

    def device(self, disk):
        """The name of a disk in the computer, such as vda; waits until the kernel has found it."""
        found = self.succeed(
            f"for i in $(seq 300); do for d in /sys/block/*; do read -r s < $d/size; [ $s != {disk.size // 512} ] || "
            "{ echo ${d##*/}; exit; }; done; sleep 0.1; done")
        if not found:
            raise AssertionError(f"the computer does not find its {disk.kind} of {disk.size} bytes")
        return found.strip()

    def settle(self):
        """Waits until every disk is there; of a floppy drive the kernel does not know what is in it."""
        for disk in self.disks:
            if disk.kind != "floppy":
                self.device(disk)

    def numbers(self):
        """The disk numbers by device name, as the page says they are given: hardware in the order of the device
        numbers, then loop devices that hold something."""
        listed = self.succeed("for d in /sys/block/*; do read -r n < $d/dev; read -r s < $d/size; "
                              'echo "${d##*/} ${n%:*} ${n#*:} $s"; done')
        hardware, attached = [], []
        for name, major, minor, size in (line.split() for line in listed.splitlines()):
            if re.match(r"(ram|zram|dm-|md|sr|fd|nullb)", name):
                continue
            if re.match(r"(loop|nbd)", name):
                if int(size):
                    attached.append((int(major), int(minor), name))
            else:
                hardware.append((int(major), int(minor), name))
        return {name: number for number, (_, _, name) in enumerate(sorted(hardware) + sorted(attached))}

    def number(self, disk):
        return self.numbers()[self.device(disk)]

    # --- QEMU ---

    def qmp(self, command, **arguments):
        """Asks QEMU itself; events that come meanwhile are passed over."""
        self.qmp_channel.send(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        while True:
            reply = json.loads(self.qmp_channel.line(COMMAND_TIMEOUT))
            if "return" in reply:
                return reply["return"]
            if "error" in reply:
                raise AssertionError(f"QEMU on {command}: {reply['error']['desc']}")

    def plug(self, disk, number):
        """Adds a disk while the computer runs."""
        disk.create(self.folder, number)
        self.qmp("blockdev-add", **disk.block_node())
        self.qmp("device_add", **disk.device())
        self.disks.append(disk)

    def unplug(self, disk):
        """Pulls the plug of a disk; the kernel learns of it at once and may take a while."""
        self.qmp("device_del", id=f"{disk.id}-device")
