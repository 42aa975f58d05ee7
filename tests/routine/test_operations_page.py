#!/usr/bin/env python3
"""Runs the operator's handbook: its sessions in their order, as one story, with the real tools that they name.

A block marked `console` is a session; behind the prompt `# ` stands what is typed. One shell takes all of it. Of
`vornix` and `vrnx` the page shows what they print, which is compared byte for byte (of a line that rewrites itself
the last state); of other tools it shows nothing, and they have to succeed. `vornix` is the program on a described
machine, so that its disk can be one that nobody has to give; the folders of the page are folders of the test.

    tests/run tests/routine/test_operations_page.py --update      writes what the programs print into the page
"""

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

import suite
from machine import CHECKOUT, SETTINGS, Machine, pattern

PAGE = os.path.join(CHECKOUT, "docs", "operations.md")
FENCE = re.compile(r"^( *)```console\n(.*?)^\1```$", re.M | re.S)
MIB = 1048576
SIZE = 32 * MIB
LETTER = b"Dear Ben,\nthe backup worked.\n"
OWN = ("vornix", "vrnx")
BAD_CHUNKS = (2, 6)  # of the eight; neither is zeros
DIGEST = re.compile(r"\b[0-9a-f]{64}\b")  # a file system is never made twice the same

# Folders of the page, each with the folder of the test that stands for it.
PLACES = {"/mnt/backup": "backup", "/mnt/offsite": "offsite", "/mnt/disk": "disk", "/mnt/files": "files",
          "/root": "root", "/dev/sdX": "sdX"}
TOOLS = ("nbdkit", "nbdfuse", "nbdcopy", "qemu-img", "losetup", "fusermount3", "debugfs", "jq", "par2", "ddrescuelog",
         "sfdisk", "sgdisk", "mke2fs", "e2fsck", "resize2fs", "qemu-system-x86_64")

# A virtual machine without a screen, in which nothing runs: it says what its disk is, and ends.
QEMU = """#!/bin/bash
while [ $# -gt 0 ]; do
    case $1 in
        -accel) shift ;;
        -bios) [ ! -e "$2" ] || words+=("$1" "$2"); shift ;;
        *) words+=("$1") ;;
    esac
    shift
done
printf 'info block\\nquit\\n' | {qemu} "${{words[@]}}" -m 64 -S -display none -monitor stdio | grep -q 'nbd.*(raw)'
"""

LOSETUP = """#!/bin/sh
device=$({losetup} "$@") || exit
[ -n "$device" ] || exit 0
echo "$device"
name=${{device#/dev/}}
[ -e "/sys/class/block/${{name}}p1" ] || partx --add "$device" 2> /dev/null
for path in /sys/class/block/"$name"p*; do
    node=/dev/${{path##*/}}
    [ ! -e "$path/dev" ] || [ -e "$node" ] || mknod "$node" b $(tr : " " < "$path/dev")
done
"""


def why_not():
    """What the story lacks here; empty where it can be told."""
    if os.geteuid() != 0:
        return "only root attaches and mounts"
    missing = [name for name in TOOLS if shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin:/sbin") is None]
    if missing:
        return "not installed: " + ", ".join(missing)
    for name in ("vrnx", "nbdkit-vrnx-plugin.so"):
        if not os.path.exists(os.path.join(SETTINGS.build, name)):
            return f"{name} was not built"
    if not os.path.exists("/dev/fuse") or not os.path.exists("/dev/loop-control"):
        return "no /dev/fuse, or no loop devices"
    return ""


def make_disk(path, folder):
    """A disk with a GPT and one partition, whose ext4 holds a letter."""
    tree = os.path.join(folder, "tree")
    os.makedirs(os.path.join(tree, "home", "ana"))
    with open(os.path.join(tree, "home", "ana", "letter.txt"), "wb") as file:
        file.write(LETTER)
    with open(os.path.join(tree, "home", "ana", "film"), "wb") as file:
        file.write(pattern(12 * MIB, "film"))
    part = os.path.join(folder, "part")
    subprocess.run(["mke2fs", "-q", "-q", "-t", "ext4", "-U", "7c1d6c0e-3b0f-4a53-9b9e-0d6a4f6c1e11", "-E",
                    "hash_seed=7c1d6c0e-3b0f-4a53-9b9e-0d6a4f6c1e12", "-d", tree, part, "29M"], check=True,
                   env=os.environ | {"E2FSPROGS_FAKE_TIME": "1700000000"})
    with open(path, "wb") as file:
        file.truncate(SIZE)
    table = ("label: gpt\nlabel-id: 7C1D6C0E-3B0F-4A53-9B9E-0D6A4F6C1E13\n"
             "start=2048, size=59392, uuid=7C1D6C0E-3B0F-4A53-9B9E-0D6A4F6C1E14\n")
    subprocess.run(["sfdisk", "-q", path], input=table, text=True, check=True)
    with open(part, "rb") as source, open(path, "r+b") as disk:
        disk.seek(MIB)
        shutil.copyfileobj(source, disk)


class Shell:
    """One bash that takes the command lines of the page."""

    def __init__(self, folder, build):
        self.folder = folder
        self.identity = None
        for place in ("backup", "offsite", "root"):
            os.makedirs(os.path.join(folder, place))
        self.make_machine()
        tools = os.path.join(folder, "bin")
        os.makedirs(tools)
        with open(os.path.join(tools, "vornix"), "w", encoding="utf-8") as file:
            file.write(f'#!/bin/sh\nexec "{SETTINGS.bench}" "{self.machine.path("../machine")}" "$@"\n')
        # nbdkit finds a plugin by its name in one folder only; the page's one is that of an installed package.
        with open(os.path.join(tools, "nbdkit"), "w", encoding="utf-8") as file:
            file.write('#!/bin/bash\nfor word; do\n'
                       f'    [ "$word" != vrnx ] || word={build}/nbdkit-vrnx-plugin.so\n'
                       f'    words+=("$word")\ndone\nexec {shutil.which("nbdkit")} "${{words[@]}}"\n')
        # Not every kernel scans for partitions, and in a container nobody makes their nodes.
        with open(os.path.join(tools, "losetup"), "w", encoding="utf-8") as file:
            file.write(LOSETUP.format(losetup=shutil.which("losetup")))
        os.symlink(os.path.join(build, "vrnx"), os.path.join(tools, "vrnx"))
        with open(os.path.join(tools, "qemu-system-x86_64"), "w", encoding="utf-8") as file:
            file.write(QEMU.format(qemu=shutil.which("qemu-system-x86_64")))
        for name in ("vornix", "nbdkit", "losetup", "qemu-system-x86_64"):
            os.chmod(os.path.join(tools, name), 0o755)
        environment = os.environ | {"PATH": f"{tools}:{os.environ['PATH']}:/usr/sbin:/sbin", "LC_ALL": "C",
                                    "LD_LIBRARY_PATH": build}
        self.bash = subprocess.Popen(["bash"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                     env=environment, cwd=folder)

    def make_machine(self):
        self.machine = Machine(os.path.join(self.folder, "m"), default=False)
        self.machine.ticks(1000, 200)
        self.machine.add_disk(0, MIB)
        self.machine.system_volume([(0, 0, 512)])
        disk = os.path.join(self.folder, "disk.img")
        make_disk(disk, self.folder)
        with open(disk, "rb") as file:
            self.machine.add_disk(1, file.read())
        self.machine.write_home("machine.json", json.dumps(self.machine.description).encode())
        images = os.path.join(self.folder, PLACES["/mnt/backup"])
        base = None
        for day, name in enumerate(("data-full.vrnx", "data-mon.vrnx", "data-tue.vrnx")):
            if base:
                self.machine.poke_disk(1, (20 + 4 * day) * MIB, pattern(4096, name))
            over = ["--base", os.path.join(images, base), "--thin"] if base else []
            done = self.machine.run("capture", "--disk", "1", "--out", os.path.join(images, name), *over)
            assert done.status == 0, done.describe()
            base = name

    def place(self, line):
        for name, folder in PLACES.items():
            line = line.replace(name, os.path.join(self.folder, folder))
        return line

    def type(self, line):
        """Types a line; gives its status, and what it printed as a screen shows it in the end."""
        out = os.path.join(self.folder, "screen")
        self.bash.stdin.write(f"( exit $status ); {{ {self.place(line)}\n}} > {out} 2>&1 < /dev/null\nstatus=$?\n"
                              "echo $status\n")
        self.bash.stdin.flush()
        status = int(self.bash.stdout.readline())
        with open(out, encoding="utf-8", newline="") as file:
            text = file.read()
        for name, folder in PLACES.items():
            text = text.replace(os.path.join(self.folder, folder), name)
        return status, [part.rpartition("\r")[2].rstrip() for part in text.rstrip("\n").split("\n")] if text else []

    def end(self):
        """Ends the shell, and takes away what a story that broke off left attached."""
        self.bash.communicate(timeout=60)
        for place in ("files", "disk"):
            subprocess.run(["umount", "-l", os.path.join(self.folder, place)], capture_output=True, check=False)


def parse(body, indent):
    """The lines that are typed, each with what the page shows behind it."""
    typed = []
    for line in body.splitlines():
        line = line[len(indent):]
        if line.startswith("# "):
            typed.append((line[2:], []))
        else:
            typed[-1][1].append(line)
    return typed


def is_own(line):
    return line.split()[0] in OWN or line == "echo $?"


def damage(*chunks, place="backup"):
    """A drive with images loses a sector in the stored bytes of chunks."""
    def change(shell):
        with open(os.path.join(shell.folder, place, "data-new.vrnx"), "r+b") as file:
            for chunk in chunks:
                file.seek(-SIZE + chunk * 4 * MIB + 4096, os.SEEK_END)
                file.write(bytes(byte ^ 0xFF for byte in pattern(512)))
    return change


def has_letter(test, shell):
    path = os.path.join(shell.folder, "root", "letter.txt")
    with open(path, "rb") as file:
        test.assertEqual(file.read(), LETTER)
    os.remove(path)


def is_the_disk(*name):
    def look(test, shell):
        with open(os.path.join(shell.folder, *name), "rb") as file:
            test.assertTrue(file.read() == shell.machine.disk_bytes(1), name)
    return look


def differs_in_the_bad_chunks(test, shell):
    with open(os.path.join(shell.folder, "root", "rest.raw"), "rb") as file:
        rest = file.read()
    disk = shell.machine.disk_bytes(1)
    for chunk in range(SIZE // (4 * MIB)):
        part = slice(chunk * 4 * MIB, (chunk + 1) * 4 * MIB)
        test.assertTrue(rest[part] == (bytes(4 * MIB) if chunk in BAD_CHUNKS else disk[part]), f"chunk {chunk}")


def is_the_smaller_disk(test, shell):
    """A table that no tool complains of, and behind it the file system with the letter."""
    disk = os.path.join(shell.folder, "sdX")
    test.assertEqual(os.path.getsize(disk), 22 * MIB)
    said = subprocess.run(["sgdisk", "-v", disk], capture_output=True, text=True, check=True).stdout
    test.assertIn("No problems found", said)
    part = os.path.join(shell.folder, "part")
    with open(disk, "rb") as source, open(part, "wb") as file:
        source.seek(MIB)
        file.write(source.read(20 * MIB))
    test.assertEqual(subprocess.run(["e2fsck", "-fn", part], capture_output=True, check=False).returncode, 0)
    letter = subprocess.run(["debugfs", "-R", "cat /home/ana/letter.txt", part], capture_output=True, check=True).stdout
    test.assertEqual(letter, LETTER)


def table(shell):
    """What sfdisk says of the disk in the page's place of a real one."""
    said = subprocess.run(["sfdisk", "--json", os.path.join(shell.folder, "sdX")], capture_output=True, check=True)
    return json.loads(said.stdout)["partitiontable"]


def attach_larger_disk(shell):
    """The restored disk is larger than the one in the image."""
    with open(os.path.join(shell.folder, "sdX"), "r+b") as file:
        file.truncate(SIZE + 16 * MIB)


def fills_the_larger_disk(test, shell):
    partition, = table(shell)["partitions"]
    test.assertEqual(partition["start"], 2048)
    test.assertGreater(partition["start"] + partition["size"], (SIZE + 15 * MIB) // 512)
    said = subprocess.run(["sgdisk", "-v", os.path.join(shell.folder, "sdX")], capture_output=True, text=True,
                          check=True).stdout
    test.assertIn("No problems found", said)


def remember_identity(shell):
    shell.identity = table(shell)


def has_another_identity(test, shell):
    now, before = table(shell), shell.identity
    test.assertNotEqual(now["id"], before["id"])
    test.assertNotEqual(now["partitions"][0]["uuid"], before["partitions"][0]["uuid"])
    test.assertEqual(now["partitions"][0]["size"], before["partitions"][0]["size"])


EXPORT = "vrnx export /mnt/backup/data-new.vrnx"
BEFORE = {"vrnx check /mnt/backup/data-new.vrnx": damage(*BAD_CHUNKS),
          "cd /mnt/offsite && par2 repair -q -q data-new.vrnx.par2": damage(5, place="offsite"),
          "sgdisk -e /dev/sdX": attach_larger_disk,
          "sgdisk -G /dev/sdX": remember_identity}
AFTER = {"cp /mnt/files/home/ana/letter.txt /root/": has_letter,
         "debugfs -R 'dump /home/ana/letter.txt /root/letter.txt' /root/partition.img": has_letter,
         f"{EXPORT} /mnt/backup/data.raw": is_the_disk("backup", "data.raw"),
         f"{EXPORT} /root/healed.raw --from /mnt/offsite/data-new.vrnx": is_the_disk("root", "healed.raw"),
         "dd if=/root/healed.raw of=/dev/sdX bs=4M conv=fsync status=none": is_the_disk("sdX"),
         f"{EXPORT} /root/rest.raw --salvage /root/rest.map": differs_in_the_bad_chunks,
         "echo ', +' | sfdisk -q -N 1 /dev/sdX": fills_the_larger_disk,
         "sgdisk -G /dev/sdX": has_another_identity,
         "dd if=/root/cut.raw of=/dev/sdX bs=4M conv=fsync status=none": is_the_smaller_disk}


def read_page():
    with open(PAGE, encoding="utf-8") as file:
        return file.read()


class Handbook(suite.Scenario):
    recorded = False

    def test_each_session_shows_what_happens(self):
        reason = why_not()
        if reason:
            self.skipTest(reason)
        shell = Shell(self.folder, SETTINGS.build)
        self.addCleanup(shell.end)
        told = set()
        for fence in FENCE.finditer(read_page()):
            lines = parse(fence.group(2), fence.group(1))
            for number, (line, shown) in enumerate(lines):
                if line in BEFORE:
                    BEFORE[line](shell)
                status, screen = shell.type(line)
                if is_own(line):
                    self.assertEqual([DIGEST.sub("DIGEST", part) for part in screen],
                                     [DIGEST.sub("DIGEST", part) for part in shown], line)
                else:
                    self.assertEqual(shown, [], f"the page shows what another tool prints: {line}")
                looked_at = number + 1 < len(lines) and lines[number + 1][0] == "echo $?"
                if not looked_at:
                    self.assertEqual(status, 0, "\n".join([line, *screen]))
                if line in AFTER:
                    AFTER[line](self, shell)
                told.add(line)
        self.assertEqual(set(BEFORE) | set(AFTER), told & (set(BEFORE) | set(AFTER)), "a line that is not on the page")

    def test_what_is_left_of_a_chain_that_is_being_deleted_is_good(self):
        """In the order of the page, wherever it is interrupted."""
        names, = re.findall(r"^ *# rm (/mnt/backup/data-.*)$", read_page(), re.M)
        names = [os.path.basename(name) for name in names.split()]
        machine = self.machine(source=pattern(9 * MIB, "data"))
        chain = ["data-full.vrnx", "data-mon.vrnx", "data-tue.vrnx"]
        self.assertEqual(sorted(names), chain)
        for name, base in zip(chain, [None, *chain]):
            over = ["--base", base, "--thin"] if base else []
            self.assertEqual(machine.run("capture", "--disk", "1", "--out", name, *over).status, 0)
        for gone in range(len(names)):
            os.remove(machine.path(names[gone]))
            for name in names[gone + 1:]:
                done = machine.run("verify", "--in", name)
                self.assertEqual(done.status, 0, done.describe())

    def test_other_sectors_go_unnoticed_but_for_an_end_that_fills_none(self):
        """What the page warns of: the program restores from sectors of 512 onto such of 4096 without a word."""
        machine = self.machine(source=pattern(9 * MIB, "data"))
        machine.add_disk(4, 9 * MIB, sector_size=4096)
        self.assertEqual(machine.run("capture", "--disk", "1", "--out", "even.vrnx").status, 0)
        done = machine.run("restore", "--in", "even.vrnx", "--disk", "4", "--confirm", "YES")
        self.assertEqual((done.status, done.stderr), (0, b""), done.describe())
        self.assertNotIn(b"sector", done.stdout)
        self.expect_disk(machine, 4, machine.disk_bytes(1))
        machine.add_disk(5, pattern(9 * MIB + 512, "odd"))
        machine.add_disk(6, 10 * MIB, sector_size=4096)
        self.assertEqual(machine.run("capture", "--disk", "5", "--out", "odd.vrnx").status, 0)
        done = machine.run("restore", "--in", "odd.vrnx", "--disk", "6", "--confirm", "YES")
        self.assertEqual(done.status, 1, done.describe())
        self.assertIn(b"WriteFile to target disk failed", done.stderr)

    def test_the_lines_for_windows(self):
        """The virtual disk in place of the real one: what was restored onto zeros with --skip-zero is the disk."""
        line, = re.findall(r"^    vornix (restore .*--skip-zero)$", read_page(), re.M)
        machine = self.machine(source=pattern(9 * MIB, "data") + bytes(12 * MIB))
        machine.add_disk(4, 40 * MIB)
        self.assertEqual(machine.run("capture", "--disk", "1", "--out", "data-full.vrnx").status, 0)
        done = machine.run(*line.replace("E:\\backup\\", "").split())
        self.assertEqual(done.status, 0, done.describe())
        self.assertEqual(machine.disk_bytes(4)[:21 * MIB], machine.disk_bytes(1))


def update():
    with tempfile.TemporaryDirectory() as folder:
        shell = Shell(folder, SETTINGS.build)

        def renewed(fence):
            indent, body = fence.groups()
            text = ""
            for line, _ in parse(body, indent):
                if line in BEFORE:
                    BEFORE[line](shell)
                status, screen = shell.type(line)
                print(f"{status:3} {line}", *([] if is_own(line) else screen), sep="\n      ")
                text += "".join(f"{indent}{part}".rstrip() + "\n"
                                for part in ["# " + line, *(screen if is_own(line) else [])])
            return f"{indent}```console\n{text}{indent}```"

        page = FENCE.sub(renewed, read_page())
        shell.end()
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(page)


if __name__ == "__main__":
    if sys.argv[1:] == ["--update"]:
        update()
    else:
        suite.main()
