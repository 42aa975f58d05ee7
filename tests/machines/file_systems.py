"""The file systems that images are kept on, and how a system that starts after a lost power brings them back.

They are written in a computer, by the kernel of Debian. They are brought back here, thousands of times, by what this
system has for it: its kernel where that knows the file system, and otherwise programs that read it without a kernel.
"""

import os
import shutil
import subprocess
from dataclasses import dataclass, replace

import kernel
from disks import MIB
from loop_device import LoopDevice


@dataclass
class FileSystem:
    """How one is made here, mounted in a computer, and brought back here.

    repair, back: commands of the shell that repair the file system in the file $D and then show its content in the
    folder $M, as a start of the system does; the last one of `back` has to succeed. Where that names the loop device
    $L, it is one over the file. tools: what they need.
    """

    name: str
    make: str
    mount: str
    module: str
    repair: str
    back: str
    tools: tuple
    size: int = 48 * MIB
    modules: tuple = ()
    programs: tuple = ()
    packages: tuple = ()
    full: int = 0  # entries that its folder has from the start
    names_in_two: bool = False  # old and new name change in two writes, between which the file has both

    def create(self, path):
        """Makes a file of the file system's size and the file system in it."""
        with open(path, "wb") as file:
            file.truncate(self.size)
        subprocess.run([*self.make.split(), path], check=True, capture_output=True)
        for number in range(self.full):
            subprocess.run(["mcopy", "-i", path, "/dev/null", f"::F{number}"], check=True, capture_output=True)

    def reason_to_skip(self):
        """Why this system cannot make it or bring it back, or None. Raises kernel.Missing as well."""
        for tool in (self.make.split()[0], *self.tools):
            if shutil.which(tool) is None:
                return f"there is no {tool} here"
        for package in self.packages:
            kernel.unpacked(package)
        if "$L" in self.back and os.geteuid() != 0:
            return "only root can mount"
        with open("/proc/filesystems", encoding="ascii") as file:
            if "mount -t" in self.back and self.module not in file.read().split():
                return f"the kernel of this system does not know {self.module}"
        return None

    def bring_back(self, path, into):
        """Brings back the file system in the file, in a mount namespace that ends with the process, and copies its
        files into the empty folder. Gives what was printed if that fails, otherwise None."""
        folder = into + ".mounted"
        os.makedirs(folder, exist_ok=True)
        places = {**os.environ, "D": path, "M": folder}
        repaired = subprocess.run(["sh", "-c", self.repair], capture_output=True, text=True, check=False, env=places)
        loop = LoopDevice(path) if "$L" in self.back else None
        try:
            places["L"] = loop.path if loop else ""
            script = f"{self.back} || exit 4\ncp $M/*.vrnx* {into}/ 2> /dev/null\numount $M 2> /dev/null\nexit 0\n"
            done = subprocess.run(["unshare", "--mount", "sh", "-c", script], capture_output=True, text=True,
                                  check=False, env=places)
        finally:
            if loop:
                loop.detach()
        return repaired.stdout + repaired.stderr + done.stdout + done.stderr if done.returncode else None


# Unpacked and not installed, since its library and the newer one of that name do not go together.
EXFAT = ("LD_LIBRARY_PATH={0}/libfuse2/lib/x86_64-linux-gnu {0}/exfat-fuse/sbin/mount.exfat-fuse -o ro $L $M"
         .format(kernel.STORE))

VFAT = FileSystem(
    "vfat", "mkfs.fat -F 32", "mount -t vfat", "vfat",
    "fsck.fat -a $D", "rm -f $M/*; mdir -i $D :: && { mcopy -n -i $D '::*.vrnx*' $M; true; }",
    ("fsck.fat", "mcopy", "mdir"), modules=("nls_cp437", "nls_ascii", "nls_utf8", "nls_iso8859-1"))

FILE_SYSTEMS = {made.name: made for made in (
    FileSystem("ext4 ordered", "mkfs.ext4 -q -F", "mount -t ext4 -o data=ordered", "ext4",
               "e2fsck -p $D", "mount -t ext4 $L $M", ("e2fsck",)),
    FileSystem("ext4 writeback", "mkfs.ext4 -q -F", "mount -t ext4 -o data=writeback", "ext4",
               "e2fsck -p $D", "mount -t ext4 $L $M", ("e2fsck",)),
    # There the sync of a folder brings a name to the disk, and leaves it in the disk's cache.
    FileSystem("ext4 without a journal", "mkfs.ext4 -q -F -O ^has_journal", "mount -t ext4", "ext4",
               "e2fsck -p $D", "mount -t ext4 $L $M", ("e2fsck",)),
    FileSystem("xfs", "mkfs.xfs -q -f", "mount -t xfs", "xfs", "", "mount -t xfs $L $M", (), size=300 * MIB),
    FileSystem("btrfs", "mkfs.btrfs -q -f", "mount -t btrfs", "btrfs", "", "mount -t btrfs $L $M", (),
               size=128 * MIB),
    VFAT,
    # The entries of base.vrnx begin with the last one of a sector: the sync of the file brings the other one alone.
    # What thin.vrnx was before lies in another sector than what it becomes; of a file with both names the repair keeps
    # the first, and leaves an empty file under the second.
    replace(VFAT, name="vfat, a name in two sectors", full=12, names_in_two=True),
    FileSystem("exfat", "mkfs.exfat", "mount -t exfat", "exfat", "fsck.exfat -p $D", EXFAT, ("fsck.exfat",),
               modules=("nls_utf8",), packages=("exfat-fuse", "libfuse2")),
    # The kernel of Debian 12 does not write NTFS; its recovery media do so with this.
    FileSystem("ntfs-3g", "mkfs.ntfs -q -F -f", "ntfs-3g", "fuse", "ntfsfix -d $D", "ntfs-3g -o ro $D $M",
               ("ntfsfix", "ntfs-3g"), programs=("ntfs-3g",)),
)}
