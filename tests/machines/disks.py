"""The disks of a computer: their files here, and what QEMU is told of them.

A kind of disk is a controller and a device on it. Each disk of a computer has a size of its own, by which it is found
again in the computer, whatever the kernel calls it.
"""

import json
import os

MIB = 1048576

# Controllers that disks of a kind need; one of each in a computer.
_CONTROLLERS = {
    "virtio-scsi": {"driver": "virtio-scsi-pci", "id": "virtio-scsi"},
    "nvme": {"driver": "nvme", "id": "nvme", "serial": "nvme"},
    "ahci": {"driver": "ich9-ahci", "id": "ahci"},
    "usb": {"driver": "qemu-xhci", "id": "usb"},
    "floppy": {"driver": "isa-fdc", "id": "fdc"},
}

# Kind: controller or None, properties of the device, kernel modules, whether Debian's cloud kernel knows it.
KINDS = {
    "virtio-blk": (None, {"driver": "virtio-blk-pci"}, ("virtio_blk",), True),
    "virtio-blk 4096": (None, {"driver": "virtio-blk-pci", "logical_block_size": 4096, "physical_block_size": 4096},
                        ("virtio_blk",), True),
    "virtio-scsi 512": ("virtio-scsi", {"driver": "scsi-hd", "bus": "virtio-scsi.0"}, ("virtio_scsi", "sd_mod"), True),
    "virtio-scsi 4096": ("virtio-scsi", {"driver": "scsi-hd", "bus": "virtio-scsi.0", "logical_block_size": 4096,
                                         "physical_block_size": 4096}, ("virtio_scsi", "sd_mod"), True),
    "virtio-scsi 512e": ("virtio-scsi", {"driver": "scsi-hd", "bus": "virtio-scsi.0", "logical_block_size": 512,
                                         "physical_block_size": 4096}, ("virtio_scsi", "sd_mod"), True),
    "nvme": ("nvme", {"driver": "nvme-ns", "bus": "nvme"}, ("nvme",), True),
    "ahci": ("ahci", {"driver": "ide-hd", "bus": "ahci.{port}"}, ("ahci", "sd_mod"), False),
    "usb": ("usb", {"driver": "usb-storage", "bus": "usb.0"}, ("xhci_pci", "usb_storage", "sd_mod"), False),
    "sd-card": (None, {"driver": "sd-card"}, ("sdhci_pci", "mmc_block"), False),
    "floppy": ("floppy", {"driver": "floppy", "bus": "floppy-bus.0"}, ("floppy",), False),
    "cd-rom": ("ahci", {"driver": "ide-cd", "bus": "ahci.{port}"}, ("ahci", "sr_mod"), False),
}


class Disk:
    """One disk. `file` holds its bytes; it is sparse, and as large as the disk.

    kind: one of KINDS. `filters` are the names of what stands between the disk and its file, nearest to the disk first,
    each a pair of a driver of QEMU and its options: ("blkdebug", {"config": path}).
    """

    def __init__(self, size, kind="virtio-blk", contents=b"", read_only=False, filters=(), **properties):
        self.size, self.kind, self.contents = size, kind, contents
        self.read_only, self.filters, self.properties = read_only, list(filters), properties
        self.id = self.file = None

    def create(self, folder, number):
        """Makes the file, unless the disk has one that somebody else made."""
        self.id = f"disk{number}"
        if self.file is None:
            self.file = os.path.join(folder, f"{self.id}.img")
            with open(self.file, "wb") as file:
                file.truncate(self.size)
                file.write(self.contents)

    @property
    def modules(self):
        return KINDS[self.kind][2]

    @property
    def in_cloud_kernel(self):
        return KINDS[self.kind][3]

    def controller(self):
        name = KINDS[self.kind][0]
        return _CONTROLLERS[name] if name else None

    def block_node(self):
        """The chain of nodes, as QEMU's -blockdev and its command blockdev-add take it."""
        node = {"driver": "file", "filename": self.file, "auto-read-only": False, "read-only": self.read_only,
                "discard": "unmap", "cache": {"no-flush": True}}
        for driver, options in reversed(self.filters):
            inner = "image" if driver == "blkdebug" else "file"
            node = {"driver": driver, inner: node, "read-only": self.read_only, **options}
        return {"driver": "raw", "node-name": self.id, "file": node, "read-only": self.read_only, "discard": "unmap"}

    def device(self, port=0):
        """The device, as QEMU's -device and its command device_add take it."""
        shape = dict(KINDS[self.kind][1], id=f"{self.id}-device", drive=self.id)
        if "bus" in shape:
            shape["bus"] = shape["bus"].format(port=port)
        if shape["driver"] in ("virtio-blk-pci", "scsi-hd"):
            shape["serial"] = self.id
        return {**shape, **self.properties}

    def arguments(self, port):
        return ["-blockdev", json.dumps(self.block_node()), "-device", json.dumps(self.device(port))]

    def bytes(self):
        with open(self.file, "rb") as file:
            return file.read()
