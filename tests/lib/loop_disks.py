"""Loop devices as the only disks that the native program sees.

Disks are addressed by number, and a number is a place in a list that changes whenever anybody attaches or detaches a
device. A test that writes to a disk must not depend on who else does so meanwhile. So the program is run in a mount
namespace of its own, where the list of block devices holds the devices of the test alone: they are disks 0, 1, ... in
the order of their device numbers, and no other disk can be reached at all. Everything else is the kernel's.
"""

import errno
import os
import shutil
import subprocess
import time

from machine import SETTINGS

# Hides the host's list of block devices behind the folder given first, then becomes the program.
_IN_NAMESPACE = 'mount --bind "$0" /sys/block && exec "$@"'


def reason_to_skip():
    """Why no test with loop devices can run here, or None."""
    if SETTINGS.windows:
        return "block devices are the native build's"
    if os.geteuid() != 0:
        return "only root can attach loop devices"
    for tool in ("losetup", "unshare", "mount"):
        if shutil.which(tool) is None:
            return f"there is no {tool} here"
    if subprocess.run(["losetup", "--find"], capture_output=True, check=False).returncode != 0:
        return "no loop device can be had here"
    probe = ["unshare", "--mount", "--propagation", "private", "sh", "-c", _IN_NAMESPACE, "/sys/block", "true"]
    if subprocess.run(probe, capture_output=True, check=False).returncode != 0:
        return "no mount namespace can be had here"
    return None


class LoopDisks:
    """The loop devices of one test. `folder` receives their files and the list that the program sees."""

    def __init__(self, folder):
        self.folder = folder
        self.devices = []
        self.list = os.path.join(folder, "block")
        os.mkdir(self.list)

    def attach(self, contents, sector_size=512, scan_partitions=False):
        """A device over a file of these bytes; gives its path. Raises OSError where the kernel has none of that
        kind."""
        path = os.path.join(self.folder, f"device{len(self.devices)}.img")
        with open(path, "wb") as file:
            file.write(contents)
        command = ["losetup", "--find", "--show", "--sector-size", str(sector_size)]
        done = subprocess.run(command + (["--partscan"] if scan_partitions else []) + [path], capture_output=True,
                              text=True,
                              check=False)
        if done.returncode != 0:
            raise OSError(f"no loop device with sectors of {sector_size} bytes: {done.stderr.strip()}")
        device = done.stdout.strip()
        self.devices.append(device)
        name = os.path.basename(device)
        os.symlink(os.path.realpath(f"/sys/block/{name}"), os.path.join(self.list, name))
        return device

    @staticmethod
    def unmount(place, device):
        """Unmounts, and waits until the device is nobody's any more: a mount namespace that another test made meanwhile
        holds a copy of the mount for as long as its program runs."""
        subprocess.run(["umount", place], check=True)
        for _ in range(600):
            try:
                os.close(os.open(device, os.O_RDWR | os.O_EXCL))
                return
            except OSError as error:
                if error.errno != errno.EBUSY:
                    raise
                time.sleep(0.05)
        raise TimeoutError(f"{device} is still in use")

    def detach_all(self):
        for device in self.devices:
            subprocess.run(["umount", device], capture_output=True, check=False)
            subprocess.run(["losetup", "--detach", device], capture_output=True, check=False)

    def number(self, device):
        """The disk's number among those attached so far."""
        return sorted(self.devices, key=lambda path: os.stat(path).st_rdev).index(device)

    def command(self, *arguments):
        return ["unshare", "--mount", "--propagation", "private", "sh", "-c", _IN_NAMESPACE, self.list,
                SETTINGS.program,
                *map(str, arguments)]

    def run(self, *arguments):
        """Runs vornix with these devices as its disks; gives what subprocess.run gives."""
        return subprocess.run(self.command(*arguments), cwd=self.folder, capture_output=True, stdin=subprocess.DEVNULL,
                              env=SETTINGS.environment(), timeout=300, check=False)
