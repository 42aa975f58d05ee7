"""Loop devices that stay their maker's own.

A device is attached through a descriptor that is held from then on, and marked to go with its last one. While it is
held nobody can put another file behind the device's number, so that what is detached is never somebody else's, and
nothing is left behind by a test that is killed.
"""

import errno
import fcntl
import os
import struct
import tempfile
import time

CONTROL = "/dev/loop-control"
# <linux/loop.h>
LOOP_CLR_FD, LOOP_CONFIGURE, LOOP_CTL_GET_FREE = 0x4C01, 0x4C0A, 0x4C82
FLAG_AUTOCLEAR, FLAG_PARTSCAN, FLAG_DIRECT_IO = 4, 8, 16
# What it looks like when another process took the device that was free, or gave one back, in between.
FASTER = (errno.EBUSY, errno.ENXIO, errno.ENOENT, errno.ENODEV)
# struct loop_config: the file, the sector size, a struct loop_info64 of which only the offset and the flags are set,
# and eight numbers that are 0.
CONFIG = struct.Struct("=II 24x Q 20x I 176x 64x")


class LoopDevice:
    """A loop device over a file or another device, from its byte `offset` on. Raises OSError where the kernel has none
    of that kind."""

    def __init__(self, path, sector_size=512, scan_partitions=False, offset=0, direct_io=False):
        self._descriptor = None
        flags = FLAG_AUTOCLEAR | (FLAG_PARTSCAN if scan_partitions else 0) | (FLAG_DIRECT_IO if direct_io else 0)
        with open(path, "r+b") as file, open(CONTROL, "r+b", buffering=0) as control:
            config = CONFIG.pack(file.fileno(), sector_size, offset, flags)
            # Others look for a free device at the same time, and one of them is faster each time.
            for _ in range(1000):
                try:
                    self.path, self._descriptor = open_free(control)
                    fcntl.ioctl(self._descriptor, LOOP_CONFIGURE, config)
                    self._backing = self._backing_file()
                    return
                except OSError as error:
                    if self._descriptor is not None:
                        os.close(self._descriptor)
                        self._descriptor = None
                    if error.errno not in FASTER:
                        raise
                    time.sleep(0.002)
        raise OSError(errno.EBUSY, "no loop device stayed free for long enough")

    @property
    def is_ours(self):
        return self._descriptor is not None

    def detach(self, wait=True):
        """Takes the device away, and waits until whoever looks at it meanwhile has let it go; without `wait` it goes
        then by itself. Later calls do nothing."""
        if self._descriptor is None:
            return
        try:
            fcntl.ioctl(self._descriptor, LOOP_CLR_FD)
        finally:
            os.close(self._descriptor)
            self._descriptor = None
        for _ in range(6000 if wait else 0):
            if self._backing_file() != self._backing:
                return
            time.sleep(0.01)
        if wait:
            raise TimeoutError(f"{self.path} is still in use")

    def _backing_file(self):
        """The file behind the device as the kernel tells it, without opening the device; or None."""
        try:
            with open(f"/sys/block/{os.path.basename(self.path)}/loop/backing_file", encoding="utf-8") as file:
                return file.read().strip()
        except OSError:
            return None

    def exchange(self, path):
        """Puts another file behind the same number. Gives False where somebody else was faster; then it is theirs."""
        self.detach()
        with open(path, "r+b") as file:
            # The kernel may still be tidying up; a file that is not the test's own is somebody else's.
            for _ in range(100):
                descriptor = os.open(self.path, os.O_RDWR | os.O_CLOEXEC)
                try:
                    fcntl.ioctl(descriptor, LOOP_CONFIGURE, CONFIG.pack(file.fileno(), 512, 0, FLAG_AUTOCLEAR))
                    self._descriptor, self._backing = descriptor, self._backing_file()
                    return True
                except OSError as error:
                    os.close(descriptor)
                    if error.errno not in FASTER:
                        raise
                    time.sleep(0.01)
        return False


def open_free(control):
    """A device that was free a moment ago: its path and a descriptor of it."""
    path = f"/dev/loop{fcntl.ioctl(control, LOOP_CTL_GET_FREE)}"
    return path, os.open(path, os.O_RDWR | os.O_CLOEXEC)


def reason_to_skip():
    """Why no loop device can be had here, or None."""
    if os.geteuid() != 0:
        return "only root can attach loop devices"
    try:
        with tempfile.NamedTemporaryFile() as file:
            file.truncate(65536)
            LoopDevice(file.name).detach()
    except OSError as error:
        return f"no loop device can be had here: {error}"
    return None
