"""Disks that fail: sectors that cannot be read or written, once or for good, and caches that lose what they took.

The failing sectors are QEMU's; a request that touches one comes back to the kernel as an error of the medium. Whatever
fails, the run says so and ends with status 1, and nothing that is called an image is none.
"""

import os

import computer_suite
import image
import suite
from disks import MIB, Disk
from machine import pattern

SIZE = 9 * MIB  # three chunks, the last one short
PLACES = {"first": 0, "middle": SIZE // 1024, "last": SIZE // 512 - 1}
IMAGES = 40 * MIB
READ_FAILS = WRITE_FAILS = 1117  # an I/O device error
FLUSHES = 40  # that fail, where they fail for good; no run makes as many


class MediumErrors(computer_suite.Story):
    long = True

    def failing(self, name, size, what, sector=None, once=False, armed=False, contents=b""):
        """A disk where requests of a kind ("read", "write" or "flush") fail: those that touch the sector, or all of
        them, the first one only or each. `armed`: only after something was written, since a system that starts
        reads."""
        event = {"read": "read_aio", "write": "write_aio", "flush": "flush_to_disk"}[what]
        rule = f'[inject-error]\nevent = "{event}"\nerrno = "5"\n'
        rule += f'sector = "{sector}"\n' if sector is not None else ""
        rule += 'once = "on"\n' if once else ""
        if armed:
            rule = '[set-state]\nevent = "write_aio"\nstate = "1"\nnew_state = "2"\n' + rule + 'state = "2"\n'
        config = os.path.join(self.folder, f"{name}.errors")
        with open(config, "w", encoding="ascii") as file:
            file.write(rule)
        return Disk(size, contents=contents, filters=[("blkdebug", {"config": config})])

    @staticmethod
    def arm(computer, device):
        computer.succeed(f"dd if=/dev/zero of=/dev/{device} bs=4096 count=1 seek=100 oflag=direct")

    def test_the_source_cannot_be_read(self):
        rows = [(place, once) for place in PLACES for once in (True, False)]
        disks = [self.failing(f"source{number}", SIZE + number * 4096, "read", PLACES[place], once, armed=True,
                              contents=pattern(SIZE, "source")) for number, (place, once) in enumerate(rows)]
        target = Disk(12 * MIB)
        computer = self.computer(*disks, target, programs=["dd"])
        troubles = []
        for (place, once), disk in zip(rows, disks):
            for command, said in (
                    ("capture --disk {0} --out /tmp/a.vrnx", "ReadFile from source disk failed mid-capture"),
                    ("clone --from {0} --to {1} --confirm YES", "read from the source disk failed")):
                if once and command.startswith("clone"):
                    continue  # it has failed once
                self.arm(computer, computer.device(disk))
                result = computer.run("rm -f /tmp/a.vrnx*; vornix "
                                      + command.format(computer.number(disk), computer.number(target)))
                if once and place != "first" and result.status == 0:
                    # What was read ahead is read again where it could not be had; then nothing is missing.
                    if not self.is_image_of(computer, disk):
                        troubles.append(f"{place}, once: a success, and no image of the disk: {result}")
                    continue
                if result.status != 1 or said not in result.errors or f"={READ_FAILS})" not in result.errors:
                    troubles.append(f"{place}, once: {once}: {result}")
                if computer.run("[ -e /tmp/a.vrnx ]").status == 0:
                    troubles.append(f"{place}, once: {once}: an image bears the final name")
        self.count("error of the medium", "source: reads fail at the first, a middle and the last sector",
                   "9 runs", troubles)

    def is_image_of(self, computer, disk):
        """Whether /tmp/a.vrnx is an image of what the disk holds, for the second reader as well."""
        path = os.path.join(self.folder, "a.vrnx")
        with open(path, "wb") as file:
            file.write(computer.run("cat /tmp/a.vrnx").stdout)
        return (computer.run("vornix verify --in /tmp/a.vrnx").status == 0 and image.check_image(path) == []
                and image.reference_plain_bytes(path) == disk.bytes())

    def with_image(self, *disks):
        """A computer with these disks, and an image of SIZE bytes in its memory."""
        source = Disk(SIZE, contents=pattern(SIZE, "source"))
        computer = self.computer(source, *disks, memory=384)
        number = computer.number(source)
        self.expect_success(computer.run(f"vornix capture --disk {number} --out /tmp/a.vrnx"), "Capture complete")
        return computer, number

    def test_the_target_cannot_be_written(self):
        rows = [(place, once) for place in PLACES for once in (True, False)]
        disks = [self.failing(f"target{number}", SIZE + (number + 1) * 4096, "write", PLACES[place], once)
                 for number, (place, once) in enumerate(rows)]
        computer, source = self.with_image(*disks)
        troubles, tried = [], 0
        for (place, once), disk in zip(rows, disks):
            number = computer.number(disk)
            for command, said in (
                    (f"restore --in /tmp/a.vrnx --disk {number}", "WriteFile to target disk failed mid-restore"),
                    (f"clone --from {source} --to {number}", "write to the target disk failed")):
                if once and command.startswith("clone"):
                    continue
                tried += 1
                result = computer.run(f"vornix {command} --confirm YES")
                # Two writes go on beside the program: what fails in them it meets at a later write, or the end does.
                unseen = f"PhysicalDrive{number} (/dev/{computer.device(disk)}): not everything that was written"
                expected = [f"FATAL: {words}" for words in ([said] if place == "first" else [said, unseen])]
                if (result.status != 1 or not result.errors.splitlines()[-1].startswith(tuple(expected))
                        or f"={WRITE_FAILS})" not in result.errors or "complete" in result.text):
                    troubles.append(f"{place}, once: {once}: {result}")
            if once:  # what has failed once works the next time, from the start
                tried += 1
                result = computer.run(f"vornix restore --in /tmp/a.vrnx --disk {number} --confirm YES")
                if result.status != 0 or disk.bytes()[:SIZE] != pattern(SIZE, "source"):
                    troubles.append(f"{place}, a second time: {result}")
        self.count("error of the medium", "target: writes fail at the first, a middle and the last sector",
                   f"{tried} runs", troubles)

    def test_only_the_flush_of_the_target_says_that_it_has_lost_what_it_took(self):
        disks = [self.failing(f"target{number}", SIZE + (number + 1) * 4096, "flush", once=once)
                 for number, once in enumerate((True, False, True, False))]
        computer, source = self.with_image(*disks)
        troubles = []
        for place, disk in enumerate(disks):
            number = computer.number(disk)
            command = (f"restore --in /tmp/a.vrnx --disk {number}" if place < 2
                       else f"clone --from {source} --to {number} --verify")
            result = computer.run(f"vornix {command} --confirm YES")
            if result.status != 1 or not result.errors.startswith("FATAL: "):
                troubles.append(f"disk {place}: {result}")
        self.count("error of the medium", "target: the flush fails, once and for good", "4 runs", troubles)

    def test_the_target_does_not_read_back(self):
        disk = self.failing("target", SIZE + 4096, "read", PLACES["middle"], armed=True)
        computer, source = self.with_image(disk)
        result = computer.run(f"vornix clone --from {source} --to {computer.number(disk)} --confirm YES --verify")
        troubles = [] if result.status == 1 and "verify: read from target failed" in result.errors else [result]
        self.count("error of the medium", "target: what was written cannot be read back", "1 run", troubles)

    # --- The disk with the images, under a device-mapper table that is exchanged while it is mounted ---

    def with_mapped_images(self):
        """A computer with a source, and a mounted file system on a mapped disk, with a full image on it."""
        self.source, self.images = Disk(SIZE, contents=pattern(SIZE, "source")), Disk(IMAGES)
        computer = self.computer(self.source, self.images, Disk(SIZE + 4096), memory=384,
                                 programs=["mkfs.ext4", "dmsetup"], modules=["ext4", "dm_mod", "dm_flakey"])
        self.number, self.device = computer.number(self.source), computer.device(self.images)
        computer.succeed(f"echo '{self.linear()}' | dmsetup create images && mkfs.ext4 -q /dev/mapper/images && "
                         "mount /dev/mapper/images /mnt")
        self.expect_success(computer.run(f"vornix capture --disk {self.number} --out /mnt/a.vrnx"), "Capture complete")
        computer.succeed("sync")
        return computer

    def linear(self, start=0, end=IMAGES // 512):
        return f"{start} {end - start} linear /dev/{self.device} {start}"

    @staticmethod
    def exchange(computer, table):
        computer.succeed(f"dmsetup suspend --noflush --nolockfs images && printf '{table}\\n' | dmsetup load images && "
                         "dmsetup resume images && echo 3 > /proc/sys/vm/drop_caches")

    def test_an_image_cannot_be_read(self):
        computer = self.with_mapped_images()
        target = computer.number(computer.disks[2])
        on_disk, troubles, tried = self.images.bytes(), [], 0
        for place, sector in PLACES.items():
            # The sector of the disk is found by what it holds.
            wanted = pattern(SIZE, "source")[sector * 512:(sector + 1) * 512]
            at = on_disk.index(wanted) // 512
            self.exchange(computer, f"{self.linear(0, at)}\\n{at} 1 error\\n{self.linear(at + 1)}")
            for command in ("verify --in /mnt/a.vrnx", "consolidate --in /mnt/a.vrnx --out /tmp/b.vrnx",
                            f"restore --in /mnt/a.vrnx --disk {target} --confirm YES"):
                tried += 1
                result = computer.run(f"echo 3 > /proc/sys/vm/drop_caches; rm -f /tmp/b.vrnx; vornix {command}")
                # The first sector shares its page with the header.
                said = "could not read image header" if place == "first" else "could not read chunk data"
                if result.status != 1 or said not in result.errors or "(GetLastError=23)" not in result.errors:
                    troubles.append(f"{place}: {result}")
                if computer.run("vornix verify --in /tmp/b.vrnx").status == 0:
                    troubles.append(f"{place}: what is left of the consolidation verifies")
        self.exchange(computer, self.linear())
        self.expect_success(computer.run("vornix verify --in /mnt/a.vrnx"), "Verify OK")
        self.count("error of the medium", "image: reads fail at the first, a middle and the last sector",
                   f"{tried} runs", troubles)

    def test_an_image_cannot_be_written(self):
        troubles, names = [], ("b.vrnx", "c.vrnx", "d.vrnx")
        computer = self.with_mapped_images()
        for name, command in zip(names, (f"capture --disk {self.number} --out /mnt/b.vrnx",
                                         f"capture --disk {self.number} --base /mnt/a.vrnx --thin --out /mnt/c.vrnx",
                                         "consolidate --in /mnt/a.vrnx --out /mnt/d.vrnx")):
            self.exchange(computer, f"0 {IMAGES // 512} flakey /dev/{self.device} 0 0 100000 1 error_writes")
            result = computer.run(f"vornix {command}")
            if result.status != 1 or "FATAL: " not in result.errors:
                troubles.append(f"{name}: {result}")
            # The disk is a good one again, as after a loose cable; the file system has to be brought back.
            self.exchange(computer, self.linear())
            computer.succeed("umount /mnt; mount /dev/mapper/images /mnt")
            if computer.run(f"[ ! -e /mnt/{name} ] || ! vornix verify --in /mnt/{name}").status != 0:
                troubles.append(f"{name}: the run failed, and what is left verifies")
            self.expect_success(computer.run("vornix verify --in /mnt/a.vrnx"), "Verify OK")
        self.count("error of the medium", "image: no write reaches the disk", f"{len(names)} runs", troubles)

    def fail_flushes(self, computer, disk, count):
        """Lets that many flushes of a disk fail from now on. The disk has a node "good" between itself and its file."""
        self.nodes += 1
        error = {"event": "flush_to_disk", "errno": 5, "once": True}
        computer.qmp("blockdev-add", **{"driver": "blkdebug", "node-name": f"bad{self.nodes}", "image": "good",
                                        "inject-error": [error] * count})
        self.put_before(computer, disk, f"bad{self.nodes}")

    def put_before(self, computer, disk, node):
        computer.qmp("blockdev-reopen", options=[{"driver": "raw", "node-name": disk.id, "file": node,
                                                  "discard": "unmap"}])

    def make_good(self, computer, disk):
        """A disk that flushes again. QEMU does so itself at each attempt, and uses up a failure with it."""
        for attempt in range(FLUSHES + 1):
            try:
                self.put_before(computer, disk, "good")
                return
            except AssertionError:
                if attempt == FLUSHES:
                    raise

    def test_only_the_flush_of_the_image_disk_says_that_it_has_lost_what_it_took(self):
        troubles, tried, self.nodes = [], 0, 0
        source = Disk(SIZE, contents=pattern(SIZE, "source"))
        images = Disk(IMAGES, filters=[("raw", {"node-name": "good"})])
        computer = self.computer(source, images, memory=384, programs=["mkfs.ext4"], modules=["ext4"])
        number, mount = computer.number(source), f"mount /dev/{computer.device(images)} /mnt"
        computer.succeed(f"mkfs.ext4 -q /dev/{computer.device(images)} && {mount}")
        self.expect_success(computer.run(f"vornix capture --disk {number} --out /mnt/a.vrnx"), "Capture complete")
        for count in (1, FLUSHES):
            for command in (f"capture --disk {number} --out /mnt/b.vrnx",
                            f"capture --disk {number} --base /mnt/a.vrnx --thin --out /mnt/b.vrnx",
                            "consolidate --in /mnt/a.vrnx --out /mnt/b.vrnx"):
                tried += 1
                computer.succeed("sync")
                self.fail_flushes(computer, images, count)
                result = computer.run(f"vornix {command}")
                if result.status != 1 or not result.errors.startswith("FATAL: ") or "complete" in result.text:
                    troubles.append(f"{count} flushes: {result}")
                # The disk is a good one again; the file system, which has stopped, has to be brought back.
                self.make_good(computer, images)
                computer.succeed(f"umount /mnt; {mount}")
                if computer.run("[ ! -e /mnt/b.vrnx ] || ! vornix verify --in /mnt/b.vrnx").status != 0:
                    troubles.append(f"{count} flushes: {command} failed, and what is left verifies")
                self.expect_success(computer.run("vornix verify --in /mnt/a.vrnx"), "Verify OK")
                computer.succeed("rm -f /mnt/b.vrnx*")
        self.count("error of the medium", "image: the flush fails, once and for good", f"{tried} runs", troubles)


if __name__ == "__main__":
    suite.main()
