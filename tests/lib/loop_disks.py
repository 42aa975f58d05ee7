"""Loop devices as the only disks that the native program sees.

Disks are addressed by number, and there are sixteen numbers that mean one disk each until the next boot. A test that
writes to a disk must not depend on who else attaches devices meanwhile, nor use up the machine's numbers. So the
program is run in a mount namespace of its own, where the list of block devices holds the devices of the test alone, no
other disk can be reached at all, and /run is a folder of the test, which has the registry of numbers. Everything else
is the kernel's.
"""

import errno
import itertools
import os
import shutil
import subprocess
import time

import loop_device
import suite
from machine import SETTINGS

# Hides the host's list of block devices behind the folder given first, and /run behind the next, then becomes the
# program.
_IN_NAMESPACE = 'mount --bind "$0" /sys/block && mount --bind "$1" /run && shift && exec "$@"'


def reason_to_skip():
    """Why no test with loop devices can run here, or None."""
    if SETTINGS.windows:
        return "block devices are the native build's"
    for tool in ("unshare", "mount"):
        if shutil.which(tool) is None:
            return f"there is no {tool} here"
    why = loop_device.reason_to_skip()
    if why:
        return why
    probe = ["unshare", "--mount", "--propagation", "private", "sh", "-c", _IN_NAMESPACE, "/sys/block", "/run", "true"]
    if subprocess.run(probe, capture_output=True, check=False).returncode != 0:
        return "no mount namespace can be had here"
    return None


class LoopDisks:
    """The loop devices of one test. `folder` receives their files, the list that the program sees, and its /run."""

    def __init__(self, folder):
        self.folder = folder
        self.devices = {}
        self.list = os.path.join(folder, "block")
        os.mkdir(self.list)
        self.run_folder = os.path.join(folder, "run")
        os.mkdir(self.run_folder, 0o755)
        self._numbers = {}
        self._files = itertools.count()

    def attach(self, contents, sector_size=512, scan_partitions=False):
        """A device over a file of these bytes; gives its path. Raises OSError where the kernel has none of that
        kind."""
        path = os.path.join(self.folder, f"device{next(self._files)}.img")
        with open(path, "wb") as file:
            file.write(contents)
        return self.attach_file(path, sector_size, scan_partitions)

    def attach_file(self, path, sector_size=512, scan_partitions=False):
        """A device over this file; otherwise as `attach`."""
        attached = loop_device.LoopDevice(path, sector_size, scan_partitions)
        self.show(attached.path, attached)
        return attached.path

    def show(self, device, attached=None):
        """Makes a block device one of the program's disks; without `attached` whoever made it takes it away."""
        self.devices[device] = attached
        name = os.path.basename(device)
        os.symlink(os.path.realpath(f"/sys/block/{name}"), os.path.join(self.list, name))

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

    def detach(self, device):
        """Takes the device away, and out of the list that the program sees."""
        self.devices.pop(device).detach()
        os.remove(os.path.join(self.list, os.path.basename(device)))
        self._numbers.pop(device, None)

    def empty(self, device):
        """Takes the device away and leaves it in the list."""
        self.devices.pop(device).detach()

    def exchange(self, device, path):
        """Puts another file behind the device. Gives False where another test has the device by now."""
        return self.devices[device].exchange(path)

    def detach_all(self):
        for device, attached in self.devices.items():
            if attached is None:
                continue
            if attached.is_ours:
                subprocess.run(["umount", device], capture_output=True, check=False)
            attached.detach(wait=False)

    @property
    def registry(self):
        """The path of the registry of numbers that the program keeps here."""
        return os.path.join(self.run_folder, "vornix", "disks")

    def registered(self):
        """The numbers in the registry, by identity: (number, whether its disk is there)."""
        with open(self.registry, encoding="ascii") as file:
            rows = [line.split() for line in file if line.startswith("disk ")]
        return {identity: (int(number), gone == "0") for _, number, gone, identity in rows}

    def number(self, device):
        """The number that the program gave the disk; one that it has not seen yet it is made to look at."""
        if device not in self._numbers:
            status = os.stat(device)
            key = f"{os.major(status.st_rdev)}:{os.minor(status.st_rdev)},"
            looked = self.run("list-disks")
            numbers = [number for identity, (number, is_there) in self.registered().items()
                       if is_there and identity.startswith(key)]
            if len(numbers) != 1:
                raise AssertionError(f"{device} has no number: {looked}")
            self._numbers[device] = numbers[0]
        return self._numbers[device]

    def command(self, *arguments):
        return ["unshare", "--mount", "--propagation", "private", "sh", "-c", _IN_NAMESPACE, self.list,
                self.run_folder, SETTINGS.program, *map(str, arguments)]

    def run(self, *arguments):
        """Runs vornix with these devices as its disks; gives what subprocess.run gives."""
        return self._run(self.command(*arguments))

    def tool_command(self, *arguments):
        tool = os.path.join(os.path.dirname(SETTINGS.program), "vornix-disks")
        return [tool if word == SETTINGS.program else word for word in self.command(*arguments)]

    def run_tool(self, *arguments):
        """The same with vornix-disks."""
        return self._run(self.tool_command(*arguments))

    def _run(self, command):
        return subprocess.run(command, cwd=self.folder, capture_output=True, stdin=subprocess.DEVNULL,
                              env=SETTINGS.environment(), timeout=300, check=False)


class LoopScenario(suite.Scenario):
    """Scenarios on loop devices of their own, which are skipped where there can be none."""

    recorded = False  # natively only

    def setUp(self):
        super().setUp()
        reason = reason_to_skip()
        if reason:
            self.skipTest(reason)
        self.disks = LoopDisks(self.folder)
        self.addCleanup(self.disks.detach_all)

    def attach(self, contents, sector_size=512, **options):
        """A loop device over a file of these bytes; gives its path."""
        try:
            return self.disks.attach(contents, sector_size, **options)
        except OSError as error:
            self.skipTest(str(error))

    def mount(self, device, *options, name="mounted"):
        """Mounts a device in the folder of the test; gives the place."""
        place = os.path.join(self.folder, name)
        os.mkdir(place)
        done = subprocess.run(["mount", *options, device, place], capture_output=True, text=True, check=False)
        if done.returncode != 0:
            self.skipTest(f"nothing can be mounted here: {done.stderr.strip()}")
        return place

    def expect_bytes(self, device, expected):
        with open(device, "rb") as file:
            actual = file.read()
        if actual != expected:
            self.fail(f"{device} differs: {suite.first_difference(actual, expected)}")
