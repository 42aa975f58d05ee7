"""Computers that start from the recovery medium, and the medium itself.

    with RescuedComputer(folder, medium.iso(), [Disk(26 * MIB, "ahci")]) as computer:
        computer.run("vornix list-disks")

All that is reached of such a computer is its serial line, as an administrator would: what runs there is the shell that
the medium opens.
"""

import base64
import glob
import os
import re
import select
import shutil
import subprocess
import threading
import time

import kernel
from computer import Computer, Dead, Result
from disks import Disk
from machine import CHECKOUT

MAKE = os.path.join(CHECKOUT, "packaging", "make-recovery-medium")
APT_CACHE = os.path.join(kernel.STORE, "apt-archives")
EFI = "/usr/share/ovmf/OVMF.fd"
# What it is made by.
TOOLS = ("mmdebstrap", "tar2sqfs", "grub-mkimage", "xorriso", "mformat", "dpkg-buildpackage", "dh")
# Seconds until it counts as dead. A tenth of it is enough for a machine that does nothing else.
BOOT_TIMEOUT = 3000
ANSWER_TIMEOUT = 1800

# The end of what a kernel says that takes a late tick for a timer that does not work, and stands still. On a busy
# machine a tick may be that late. The kernels of other computers are told not to look; the medium is that of its users.
LATE_TIMER = "end Kernel panic - not syncing: IO-APIC + timer doesn't work"
STARTS = 5

PROMPT = r"root@vornix-recovery:~# "
READY = "READY> "


def reason_to_skip():
    """Why the medium can neither be made here nor started, or None."""
    if not os.environ.get("VORNIX_MEDIUM"):
        if os.geteuid() != 0:
            return "the recovery medium is made by root"
        for tool in TOOLS:
            if shutil.which(tool) is None:
                return f"there is no {tool} here"
    return None


def make(folder, *, umask=-1, **environment):
    """Makes the medium into the folder; gives its path. It is made of the packages in the folder that VORNIX_PACKAGES
    names, or of some that are made for it."""
    packages = os.environ.get("VORNIX_PACKAGES")
    options = ["--packages", packages] if packages else []
    done = subprocess.run([MAKE, "--cache", APT_CACHE, *options, folder], capture_output=True, text=True, check=False,
                          stdin=subprocess.DEVNULL, env={**os.environ, **environment}, umask=umask)
    if done.returncode != 0:
        raise AssertionError(done.stdout + done.stderr)
    return glob.glob(os.path.join(folder, "vornix-recovery-*.iso"))[0]


_made_once = []
_making = threading.Lock()  # the tests of a suite run side by side


def iso():
    """The medium that this run of the suite is about: that which VORNIX_MEDIUM names, or one that is made now."""
    named = os.environ.get("VORNIX_MEDIUM")
    if named:
        return named
    folder = os.path.join(kernel.STORE, "recovery-medium")
    with _making, kernel.locked("recovery-medium"):
        if not _made_once:
            shutil.rmtree(folder, ignore_errors=True)
            os.makedirs(folder)
            _made_once.append(make(folder))
    return _made_once[0]


class RescuedComputer(Computer):
    """A computer that starts from the medium, by its own firmware, and is used over its serial line.

    medium     the path of the ISO file
    disks      those of the computer, beside the medium
    drive      "cd-rom", or "usb": a stick that can be written to and pulled
    firmware   "bios" or "efi"
    entry      of the boot menu
    """

    translated = 512  # a whole system runs many programs
    patience = ANSWER_TIMEOUT

    # pylint: disable-next=too-many-arguments
    def __init__(self, folder, medium, disks=(), *, drive="cd-rom", firmware="bios", entry=0, arguments=(),
                 memory=1536):
        self.medium = Disk(os.path.getsize(medium), drive, read_only=drive == "cd-rom", bootindex=0)
        self.medium.file, self.entry = medium, entry
        if drive == "usb":
            self.medium.file = os.path.join(folder, "stick.img")
            subprocess.run(["cp", "--reflink=auto", medium, self.medium.file], check=True)
        super().__init__(folder, [self.medium, *disks], memory=memory, arguments=["-device", "VGA", *arguments],
                         firmware=["-bios", EFI] if firmware == "efi" else [])
        self.greeting = ""

    def _channels(self, channel, qmp):
        return ["-chardev", f"socket,id=console,fd={channel},logfile={self.console}", "-serial", "chardev:console",
                "-chardev", f"socket,id=qmp,fd={qmp}", "-mon", "chardev=qmp,mode=control"]

    def _wait_until_started(self):
        for start in range(STARTS):
            if start:
                # Firmware that has run before resets once more by itself. From the menu on a reset is the end again.
                self.qmp("set-action", reboot="reset")
                self.qmp("system_reset")
            self.expect("automatically in", BOOT_TIMEOUT)
            if start:
                self.qmp("set-action", reboot="shutdown")
            # One key, and no sequence: under EFI two drivers read from the same line.
            self.type("\x0e" * self.entry + "\r")
            self.greeting = self.expect(f"{PROMPT}|{re.escape(LATE_TIMER)}", BOOT_TIMEOUT)
            if not self.greeting.endswith(LATE_TIMER):
                break
        else:
            raise Dead(f"{STARTS} starts, and each of them: {LATE_TIMER}")
        # A terminal that gives back what it was given, and a shell that has no keys of its own. That a computer stood
        # still for a while, which the kernel would tell every terminal, is its host's doing.
        self.type("echo 0 > /proc/sys/kernel/watchdog; dmesg -n 1; kill -s RTMIN+21 1; "
                  "stty -echo -opost; export PS1='REA''DY> '; exec dash\n")
        self.expect(READY)

    # --- As somebody at the keyboard ---

    def type(self, text):
        self.channel.send(text.encode())

    def expect(self, pattern, timeout=ANSWER_TIMEOUT):
        """Waits until the screen shows this; gives what was shown up to its end."""
        deadline = time.monotonic() + timeout
        while True:
            shown = self.channel.buffer.decode("latin-1")
            found = re.search(pattern, shown)
            if found:
                self.channel.buffer = self.channel.buffer[found.end():]
                return shown[:found.end()].encode("latin-1").decode("utf-8", "replace")
            if not select.select([self.channel.ours], [], [], max(0, deadline - time.monotonic()))[0]:
                raise Dead(f"it does not say {pattern!r}; it said {shown[-2000:]!r}")
            data = self.channel.ours.recv(65536)
            if not data:
                raise Dead(f"it is gone before it says {pattern!r}; it said {shown[-2000:]!r}")
            self.channel.buffer += data

    def converse(self, command, *exchange, timeout=ANSWER_TIMEOUT):
        """Types a command, and what belongs to each question that it asks: pairs of what to wait for and what to type.
        Status, and what was shown; one stream, as on any terminal."""
        self.type(command + "; echo @@$?\n")
        shown = ""
        for question, reply in exchange:
            shown += self.expect(question, timeout)
            self.type(reply + "\n")
        shown += self.expect(r"@@\d+\n", timeout)
        self.expect(READY)
        text, status = re.fullmatch(r"(.*)@@(\d+)\n", shown, flags=re.S).groups()
        return Result(command, int(status), text.encode(), b"")

    # --- Commands ---

    def send(self, command):
        encoded = base64.b64encode(command.encode()).decode()
        for start in range(0, len(encoded), 3000):  # a line of the terminal has 4095 characters
            self.type(f"echo {encoded[start:start + 3000]} >> /run/encoded\n")
        self.type('base64 -d /run/encoded > /run/command; rm /run/encoded; '
                  'bash /run/command > /run/stdout 2> /run/stderr < /dev/null; '
                  'echo "@@$? $(stat -c %s /run/stdout) $(stat -c %s /run/stderr)"; cat /run/stdout /run/stderr\n')

    def answer(self, command="", timeout=None):
        timeout = timeout or self.patience
        try:
            status, out, errors = map(int, re.search(r"@@(.*)\n", self.expect(r"@@.*\n", timeout)).group(1).split())
            result = Result(command, status, self.channel.exactly(out, timeout), self.channel.exactly(errors, timeout))
            self.expect(READY)
        except (Dead, ValueError) as trouble:
            raise Dead(f"{command}: {trouble}\n{self.diagnosis()}") from trouble
        return result

    def power_off(self):
        """Ends it as its user does, and waits."""
        self.type("poweroff\n")
        self.wait_for_end(ANSWER_TIMEOUT)
