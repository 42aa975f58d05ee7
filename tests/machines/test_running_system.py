"""What the system runs from, and what is in use otherwise, is found and never written.

The computer's root moves from memory onto disks that are partitioned, joined, encrypted and mirrored; then a restore
and a clone try every disk that has a part in it. Each of them is refused, and not a byte of the disk is another one.
"""

import computer_suite
import suite
from disks import MIB, Disk
from kernel import FULL
from machine import pattern

PARTITION = "echo '2048,,L' | sfdisk -q /dev/{0}; "
VOLUME = "lvm vgcreate -q -y vg {devices} > /dev/null; lvm lvcreate -q -y -n root -l 100%FREE vg > /dev/null; "
ACTIVATE = "lvm vgchange -q -a y vg > /dev/null; lvm vgmknodes; "
LUKS = ("echo secret | cryptsetup -q luksFormat --type luks1 --pbkdf-force-iterations 1000 {device} -; "
        "echo secret | cryptsetup open --key-file - {device} open; ")
# A little after the last write to an array the kernel notes on its disks that it is clean, unless it is told not to.
RAID = ("mdadm --create /dev/md0 --quiet --run --assume-clean --metadata=1.2 --level={level} --raid-devices={n} "
        "{devices}; echo 0 > /sys/block/md0/md/safe_mode_delay; ")
EXT4 = "mkfs.ext4 -q {0} && mount {0} /new"

# What the root lies on: how many disks, and the commands that mount it at /new; {0}, {1} and {2} are the disks.
ROOTS = {
    "a partition": (1, PARTITION + "mkfs.ext4 -q /dev/{0}1 && mount /dev/{0}1 /new"),
    "a volume over two disks": (2, VOLUME.replace("{devices}", "/dev/{0} /dev/{1}") + ACTIVATE
                                + EXT4.replace("{0}", "/dev/vg/root")),
    "an encrypted disk": (1, LUKS.replace("{device}", "/dev/{0}") + EXT4.replace("{0}", "/dev/mapper/open")),
    "a mirror": (2, RAID.replace("{level}", "1").replace("{n}", "2").replace("{devices}", "/dev/{0} /dev/{1}")
                 + EXT4.replace("{0}", "/dev/md0")),
    "a RAID 5": (3, RAID.replace("{level}", "5").replace("{n}", "3").replace("{devices}", "/dev/{0} /dev/{1} /dev/{2}")
                 + EXT4.replace("{0}", "/dev/md0")),
    "a volume in an encrypted mirror": (
        2, RAID.replace("{level}", "1").replace("{n}", "2").replace("{devices}", "/dev/{0} /dev/{1}")
        + LUKS.replace("{device}", "/dev/md0") + VOLUME.replace("{devices}", "/dev/mapper/open") + ACTIVATE
        + EXT4.replace("{0}", "/dev/vg/root")),
    "btrfs on two disks": (2, "mkfs.btrfs -q -f -d raid1 -m raid1 /dev/{0} /dev/{1} && "
                              "btrfs device scan > /dev/null && mount -t btrfs /dev/{0} /new"),
    "a loop device on another file system": (
        1, "mkfs.ext4 -q /dev/{0} && mkdir /host && mount /dev/{0} /host && truncate -s 96M /host/root.img && "
           "losetup /dev/loop0 /host/root.img && mkfs.ext4 -q /dev/loop0 && mount /dev/loop0 /new && "
           "mkdir /new/host && mount --move /host /new/host"),
    "an overlay": (
        2, "mkfs.ext4 -q /dev/{0} && mkfs.ext4 -q /dev/{1} && mkdir /low /high && mount /dev/{0} /low && "
           "mount /dev/{1} /high && mkdir /high/u /high/w && "
           "mount -t overlay -o lowerdir=/low,upperdir=/high/u,workdir=/high/w root /new && "
           "mkdir /new/low /new/high && mount --move /low /new/low && mount --move /high /new/high"),
}
# What has a disk in use, without being a root.
USES = {
    "swap": "mkswap /dev/{0} > /dev/null && swapon /dev/{0}",
    "an active volume group": VOLUME.replace("{devices}", "/dev/{0}") + ACTIVATE + "[ -e /dev/vg/root ]",
    "an assembled array": RAID.replace("{level}", "1").replace("{n}", "1 --force").replace("{devices}", "/dev/{0}")
                          + "[ -e /dev/md0 ]",
    "an open container": LUKS.replace("{device}", "/dev/{0}") + "[ -e /dev/mapper/open ]",
    "a mounted partition": PARTITION + "mkfs.ext4 -q /dev/{0}1 && mount -r /dev/{0}1 /mnt",
    "a partition mounted in another namespace":
        PARTITION + "mkfs.ext4 -q /dev/{0}1 && mkdir -p /aside && "
        "(unshare -m sh -c 'mount -r /dev/{0}1 /aside && touch /run/mounted && sleep 100000' > /dev/null 2>&1 &) && "
        "while [ ! -e /run/mounted ]; do sleep 0.1; done; ! grep -q /aside /proc/mounts",
    "a multipath map": "dmsetup create paths --table \"0 $(cat /sys/block/{0}/size) multipath 0 0 1 1 "
                       "round-robin 0 1 1 /dev/{0} 1\"",
}
PROGRAMS = ("mkfs.ext4", "mkfs.btrfs", "btrfs", "lvm", "mdadm", "cryptsetup", "dmsetup", "sfdisk")
MODULES = ("ext4", "btrfs", "loop", "overlay", "dm_mod", "dm_crypt", "xts", "dm_multipath", "dm_round_robin", "raid1",
           "raid456", "algif_skcipher")
LVM = b"activation { udev_sync = 0 udev_rules = 0 }\ndevices { obtain_device_list_from_udev = 0 }\n"
SMALL = 5 * MIB
BLOCK = 4096
# The refusal of a disk that is in use, at its opening. The kernel would refuse the first write to some of them as well,
# with the same last error: that is too late to be called a refusal.
EXCLUSIVELY = "exclusively for writing (GetLastError=32)"


class RunningSystem(computer_suite.Story):
    long = True

    def computer_with(self, *disks):
        """A computer with everything that makes stacks, a small disk, and an image of it in memory."""
        self.small = Disk(SMALL, contents=pattern(SMALL))
        computer = self.computer(*disks, self.small, kernel=FULL, memory=512, modules=MODULES, programs=PROGRAMS,
                                 libraries=["libgcc_s.so.1"], files={"/etc/lvm/lvm.conf": LVM, "/etc/fstab": b""})
        computer.succeed(f"mkdir -p /new && vornix capture --disk {computer.number(self.small)} --out /run/a.vrnx")
        return computer

    @staticmethod
    def move_root(computer):
        """Copies the system to /new and makes that the root, and has the kernel take its hands from every file system:
        what it prepares and notes there by itself would be taken for the program's."""
        computer.succeed("cp -a /bin /etc /init /lib /lib64 /root /sbin /usr /new && cd /new && "
                         "mkdir -p dev proc sys run tmp mnt")
        computer.run("!for d in dev proc sys run tmp; do mount --move /$d /new/$d; done\n"
                     "exec switch_root /new /init --again")
        computer.succeed("sync; mount -o remount,ro / 2> /dev/null; sync; [ ! -e /modules ]")
        computer.succeed("echo u > /proc/sysrq-trigger; for i in $(seq 600); do "
                         "! dmesg | grep -q 'Emergency Remount complete' || break; sleep 0.1; done; "
                         "dmesg | grep 'Emergency Remount complete' && sync")

    def refused(self, computer, number, disk, said):
        """A restore and a clone onto a disk: what is not as it should be, as lines."""
        troubles, before = [], disk.bytes()
        for command in (f"restore --in /run/a.vrnx --disk {number} --confirm YES",
                        f"clone --from {computer.number(self.small)} --to {number} --confirm YES"):
            result = computer.run(f"vornix {command}")
            if result.status != 1 or not any(words in result.errors for words in said):
                troubles.append(str(result))
        computer.succeed("sync")
        after = disk.bytes()
        changed = [at for at in range(0, len(before), BLOCK) if after[at:at + BLOCK] != before[at:at + BLOCK]]
        if changed:
            troubles.append(f"disk {number} was written: {len(changed)} blocks from {changed[0]} to {changed[-1]}")
        return troubles

    def root_is_kept(self, name):
        count, make = ROOTS[name]
        disks = [Disk((128 + 2 * number) * MIB) for number in range(count)]
        free = Disk(8 * MIB, contents=pattern(8 * MIB, "free"))
        computer = self.computer_with(*disks, free)
        devices = [computer.device(disk) for disk in disks]
        numbers = {disk: computer.number(disk) for disk in (*disks, free)}
        self.assertNotIn("system disk", computer.succeed("vornix list-disks"), "a root in memory is on no disk")
        computer.succeed(make.format(*devices))
        self.move_root(computer)
        marked = [line for line in computer.succeed("vornix list-disks").splitlines() if "system disk" in line]
        troubles = [] if [line.split()[0] for line in marked] in (
            [[f"PhysicalDrive{numbers[disk]}"] for disk in disks]) else [f"marked are {marked}"]
        for disk in disks:
            troubles += self.refused(computer, numbers[disk], disk, ("running from", "(GetLastError=32)"))
        # What is not in use can be written all the same.
        done = computer.run(f"vornix restore --in /run/a.vrnx --disk {numbers[free]} --confirm YES")
        if done.status != 0 or free.bytes() != pattern(SMALL) + pattern(8 * MIB, "free")[SMALL:]:
            troubles.append(str(done))
        self.count("root", name, f"{2 * count} attempts", troubles)

    def test_the_root_on_a_partition(self):
        self.root_is_kept("a partition")

    def test_the_root_on_a_volume_over_two_disks(self):
        self.root_is_kept("a volume over two disks")

    def test_the_root_on_an_encrypted_disk(self):
        self.root_is_kept("an encrypted disk")

    def test_the_root_on_a_mirror(self):
        self.root_is_kept("a mirror")

    def test_the_root_on_a_raid_5(self):
        self.root_is_kept("a RAID 5")

    def test_the_root_on_a_volume_in_an_encrypted_mirror(self):
        self.root_is_kept("a volume in an encrypted mirror")

    def test_the_root_on_btrfs_on_two_disks(self):
        self.root_is_kept("btrfs on two disks")

    def test_the_root_on_a_loop_device_on_another_file_system(self):
        self.root_is_kept("a loop device on another file system")

    def test_the_root_on_an_overlay(self):
        self.root_is_kept("an overlay")

    def disk_in_use_is_kept(self, name):
        disk = Disk(40 * MIB)
        computer = self.computer_with(disk)
        number = computer.number(disk)
        computer.succeed(USES[name].format(computer.device(disk)))
        computer.succeed("sync")
        self.count("in use", name, "2 attempts", self.refused(computer, number, disk, (EXCLUSIVELY,)))

    def test_swap(self):
        self.disk_in_use_is_kept("swap")

    def test_an_active_volume_group(self):
        self.disk_in_use_is_kept("an active volume group")

    def test_an_assembled_array(self):
        self.disk_in_use_is_kept("an assembled array")

    def test_an_open_container(self):
        self.disk_in_use_is_kept("an open container")

    def test_a_mounted_partition(self):
        self.disk_in_use_is_kept("a mounted partition")

    def test_a_partition_mounted_in_another_namespace(self):
        self.disk_in_use_is_kept("a partition mounted in another namespace")

    def test_a_multipath_map(self):
        self.disk_in_use_is_kept("a multipath map")


if __name__ == "__main__":
    suite.main()
