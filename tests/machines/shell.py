#!/usr/bin/env python3
"""A shell in a whole computer, on this terminal.

    tests/run tests/machines/shell.py                            three disks: virtio, NVMe and SCSI with 4 KiB sectors
    tests/run tests/machines/shell.py 64:usb 64:ahci 128:nvme    disks of so many MiB and such kinds

The program lies in /bin, the kernel's modules for the disks are loaded; `poweroff -f`, or Ctrl-A X, ends it. The disks
are gone afterwards.
"""

import subprocess
import sys
import tempfile

import computer
from disks import MIB, Disk


def main():
    reason = computer.reason_to_skip()
    if reason:
        sys.exit(f"No computer can run here: {reason}.")
    wanted = sys.argv[1:] or ["64:virtio-blk", "64:nvme", "96:virtio-scsi 4096"]
    disks = [Disk(int(size) * MIB, kind) for size, _, kind in (text.partition(":") for text in wanted)]
    with tempfile.TemporaryDirectory(prefix="vornix-") as folder:
        made = computer.Computer(folder, disks, modules=["ext4"], programs=["mkfs.ext4", "lsblk"])
        command = made.hardware()
        command[command.index("-append") + 1] += " shell=yes"
        subprocess.run([*command, "-serial", "mon:stdio"], check=False)


if __name__ == "__main__":
    main()
