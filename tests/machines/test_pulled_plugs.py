"""Plugs are pulled while the program works: of the source, the target, and the disk with the images.

The disks are slowed down, so that a run lasts for seconds and a plug can be pulled when the program says how far it is.
The run has to end by itself, with status 1 and a last error, and nothing bears the name of an image that is none.
"""

import re
import subprocess
import time

import computer_suite
import suite
from disks import MIB, Disk
from image import reference_plain_bytes
from machine import pattern

SIZE = 13 * MIB  # four chunks, of which each takes two seconds
SLOW = ["-object", "throttle-group,id=slow,x-bps-total=2097152"]
MOMENTS = (0, 1, 30, 90)  # percent that the meter has reached at least
PATIENCE = 600  # seconds until a run counts as one that does not end

# What is pulled: the kind of disk, which of the three, the command.
CASES = {
    "source of a capture": ("virtio-blk", "source", "capture --disk {source} --out /mnt/new.vrnx"),
    "source of a capture, USB": ("usb", "source", "capture --disk {source} --out /mnt/new.vrnx"),
    "image disk of a capture": ("virtio-blk", "images", "capture --disk {source} --out /mnt/new.vrnx"),
    "target of a restore": ("virtio-scsi 512", "target", "restore --in /mnt/old.vrnx --disk {target} --confirm YES"),
    "image disk of a restore": ("virtio-blk", "images", "restore --in /mnt/old.vrnx --disk {target} --confirm YES"),
    "source of a clone": ("virtio-scsi 512", "source", "clone --from {source} --to {target} --confirm YES"),
    "target of a clone": ("virtio-blk", "target", "clone --from {source} --to {target} --confirm YES"),
    "image disk of a consolidation": ("virtio-blk", "images", "consolidate --in /mnt/old.vrnx --out /mnt/new.vrnx"),
}


class PulledPlugs(computer_suite.Story):
    long = True

    def prepared(self):
        """The bytes of a disk with a file system that has the image old.vrnx on it."""
        source, images = Disk(SIZE, contents=pattern(SIZE, "source")), Disk(48 * MIB)
        computer = self.computer(source, images, modules=["ext4"], programs=["mkfs.ext4"])
        device = computer.device(images)
        computer.succeed(f"mkfs.ext4 -q /dev/{device} && mount /dev/{device} /mnt && "
                         f"vornix capture --disk {computer.number(source)} --out /mnt/old.vrnx && umount /mnt")
        computer.stop()
        return images.bytes()

    def pulled(self, case, moment, images_bytes):
        """One run with a plug pulled at a moment: what is not as it should be, as lines."""
        kind, role, command = CASES[case]
        slow = [("throttle", {"throttle-group": "slow"})]
        disks = {"source": Disk(SIZE, contents=pattern(SIZE, "source")), "target": Disk(SIZE + 4096),
                 "images": Disk(48 * MIB, contents=images_bytes)}
        disks[role].kind, disks[role].filters = kind, slow
        computer = self.computer(*disks.values(), modules=["ext4"], arguments=SLOW)
        computer.succeed(f"mount /dev/{computer.device(disks['images'])} /mnt")
        numbers = {name: computer.number(disk) for name, disk in disks.items()}
        computer.succeed(f"(vornix {command.format(**numbers)} > /run/said 2> /run/failed; echo $? > /run/ended) "
                         "> /dev/null 2>&1 &")
        self.wait_for_meter(computer, moment)
        if computer.run("[ -e /run/ended ]").status == 0:
            return []  # over before the plug could be pulled, since the meter tells of few places; not counted
        self.pulls += 1
        computer.unplug(disks[role])
        deadline = time.monotonic() + PATIENCE
        while computer.run("[ -e /run/ended ]").status != 0:
            if time.monotonic() > deadline:
                return [f"{case} at {moment} %: does not end: {computer.succeed('cat /run/said /run/failed')}"]
            time.sleep(0.2)
        status, said = computer.succeed("cat /run/ended").strip(), computer.succeed("cat /run/failed /run/said")
        troubles = []
        if status == "0" and role == "images" and command.startswith("restore"):
            # All of the image was in memory when its disk went; then all of it has to be on the target.
            if disks["target"].bytes()[:SIZE] != pattern(SIZE, "source"):
                troubles.append(f"{case} at {moment} %: a success, and the target holds other bytes")
        elif status != "1" or not re.search(r"FATAL: .*\(GetLastError=[1-9]", said):
            troubles.append(f"{case} at {moment} %: status {status}: {said[-600:]}")
        computer.run("sync")
        computer.stop()
        return troubles + self.trouble_on(disks["images"], f"{case} at {moment} %")

    @staticmethod
    def wait_for_meter(computer, moment):
        """Until the meter shows so many percent; the run may be over by then."""
        while True:
            shown = computer.succeed("cat /run/said; [ ! -e /run/ended ] || echo over")
            percents = [float(text) for text in re.findall(r"([0-9.]+)%", shown)]
            if "over" in shown or (percents and percents[-1] >= moment) or (not moment and "disk" in shown.lower()):
                return
            time.sleep(0.05)

    def trouble_on(self, images, where):
        """Looks for the new name on the disk with the images, brought back as after a pulled plug."""
        subprocess.run(["e2fsck", "-p", images.file], capture_output=True, check=False)
        listed = subprocess.run(["debugfs", "-R", "ls -p /", images.file], capture_output=True, text=True, check=False)
        names = re.findall(r"^/[0-9]+/[0-7]+/[0-9]+/[0-9]+/([^/]+)/", listed.stdout, flags=re.M)
        if "old.vrnx" not in names:
            return [f"{where}: the old image is gone: {listed.stdout}{listed.stderr}"]
        if "new.vrnx" not in names:
            return []
        path = f"{self.folder}/new.vrnx"
        subprocess.run(["debugfs", "-R", f"dump /new.vrnx {path}", images.file], capture_output=True, check=True)
        verified = subprocess.run([self.settings.program, "verify", "--in", path], capture_output=True, check=False)
        # The plug may have been pulled when all was written and only the last look at it was missing.
        if verified.returncode == 0 and reference_plain_bytes(path) != pattern(SIZE, "source"):
            return [f"{where}: what is left verifies, and is another disk"]
        return []

    def plug_is_pulled(self, case):
        images_bytes, self.pulls = self.prepared(), 0
        troubles = [trouble for moment in MOMENTS for trouble in self.pulled(case, moment, images_bytes)]
        self.assertGreater(self.pulls, 1)
        self.count("pulled plug", case, f"{self.pulls} moments", troubles)

    def test_the_source_of_a_capture(self):
        self.plug_is_pulled("source of a capture")

    def test_the_source_of_a_capture_over_usb(self):
        self.plug_is_pulled("source of a capture, USB")

    def test_the_image_disk_of_a_capture(self):
        self.plug_is_pulled("image disk of a capture")

    def test_the_target_of_a_restore(self):
        self.plug_is_pulled("target of a restore")

    def test_the_image_disk_of_a_restore(self):
        self.plug_is_pulled("image disk of a restore")

    def test_the_source_of_a_clone(self):
        self.plug_is_pulled("source of a clone")

    def test_the_target_of_a_clone(self):
        self.plug_is_pulled("target of a clone")

    def test_the_image_disk_of_a_consolidation(self):
        self.plug_is_pulled("image disk of a consolidation")


if __name__ == "__main__":
    suite.main()
