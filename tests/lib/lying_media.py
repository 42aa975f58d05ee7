"""Media that fail: block devices of the kernel whose errors a test switches on and off, and files whose close fails.

A lying disk is a plugin of nbdkit (tests/media/lying_disk.cpp) that nbdfuse shows as a file and a loop device as a
disk: what the program, the file system and the kernel do with it is what they do with any disk. `durable` is the file
that holds what is left of it when the power goes.
"""

import atexit
import contextlib
import os
import shutil
import subprocess
import sys
import tempfile
import time

import loop_device
import loop_disks
from machine import SETTINGS

IN_NAMESPACE = "VORNIX_IN_NAMESPACE_OF_ITS_OWN"
PATIENCE = 60  # seconds, for what is done at once on a machine that is not busy


def plugin(name):
    return os.path.join(SETTINGS.build, "tests", name)


def reason_to_skip():
    """Why no test with lying disks can run here, or None."""
    reason = loop_disks.reason_to_skip()
    if reason:
        return reason
    for tool in ("nbdkit", "nbdfuse", "mkfs.ext4"):
        if shutil.which(tool) is None:
            return f"there is no {tool} here"
    if not os.path.exists(plugin("lying_disk.so")):
        return "the lying disk was not built"
    try:
        os.close(os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC))
    except OSError:
        return "there is no /dev/fuse here"
    return None


def enter_namespace():
    """Goes on in a mount namespace of the suite's own: no other test's namespace then keeps a mount of these alive."""
    if IN_NAMESPACE not in os.environ and reason_to_skip() is None:
        os.environ[IN_NAMESPACE] = "1"
        os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", sys.executable, *sys.argv])


def run(*arguments, **options):
    return subprocess.run(list(map(str, arguments)), check=True, capture_output=True, text=True, **options)


def wait_until(condition, what):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(what)
        time.sleep(0.005)


class LyingDisk:
    """A disk of `size` bytes, all zero. `device` is its block device."""

    def __init__(self, size):
        self.folder = tempfile.mkdtemp(prefix="vornix-lying-")
        self.durable, self.control, self.state, self.point = (
            os.path.join(self.folder, name) for name in ("durable", "control", "state", "point"))
        os.mkdir(self.point)
        with open(self.durable, "wb") as file:
            file.truncate(size)
        self.count = 0
        self.loop = None
        self.server = subprocess.Popen(
            ["nbdfuse", self.point, "--command", "nbdkit", "-s", plugin("lying_disk.so"), f"durable={self.durable}",
             f"control={self.control}", f"state={self.state}"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        atexit.register(self.close)
        shown = os.path.join(self.point, "nbd")
        wait_until(lambda: os.path.exists(shown) or self.server.poll() is not None, "nbdfuse shows nothing")
        if self.server.poll() is not None:
            raise OSError(f"nbdfuse ended with status {self.server.returncode}")
        self.loop = loop_device.LoopDevice(shown, direct_io=True)
        self.device = self.loop.path

    def close(self):
        atexit.unregister(self.close)
        if self.loop and self.loop.is_ours:
            subprocess.run(["umount", self.device], capture_output=True, check=False)
            with contextlib.suppress(TimeoutError):
                self.loop.detach()
        subprocess.run(["fusermount3", "-u", self.point], capture_output=True, check=False)
        try:
            self.server.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.server.kill()
            self.server.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def tell(self, fault, argument):
        """What goes wrong from the next request on; see the head of the plugin."""
        self.count += 1
        with open(self.control + ".next", "w", encoding="ascii") as file:
            file.write(f"{self.count} {fault} {argument}\n")
        os.rename(self.control + ".next", self.control)

    def counts(self):
        """Writes, flushes and faults since the last `tell`."""
        return self._state()[:3]

    def reads(self):
        """Reads since the last `tell`."""
        return self._state()[3]

    def _state(self):
        with open(self.state, encoding="ascii") as file:
            count, *counts = map(int, file.read().split())
        return counts if count == self.count else [0, 0, 0, 0]

    def load(self, path):
        """Makes the file's bytes those of the disk, and nothing goes wrong any more. Nobody may use the disk."""
        self.tell("load", path)
        with open(self.device, "rb", buffering=0) as device:
            os.posix_fadvise(device.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
            device.read(4096)
        wait_until(lambda: os.path.exists(self.state) and self.is_heard(), "the plugin does not listen")

    def is_heard(self):
        with open(self.state, encoding="ascii") as file:
            return int(file.read().split()[0]) == self.count

    def take_durable(self, path):
        """What is on the medium at this moment."""
        shutil.copyfile(self.durable, path)


def unmount(point, device):
    loop_disks.LoopDisks.unmount(point, device)
