"""The initial RAM disk that a computer boots into: busybox, modules, the program, what a case needs, and the agent that
takes its commands.

Only what is asked for is in it, with the libraries that it is linked with. It is not compressed: for a computer without
a processor of its own, unpacking takes longer than reading.
"""

import os
import re
import shutil
import subprocess

from kernel import Missing
from machine import SETTINGS

HERE = os.path.dirname(os.path.abspath(__file__))
BUSYBOX = "/bin/busybox"
SEARCH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"


def libraries_of(program):
    """The shared libraries of an executable, and its loader; empty for one that is linked statically."""
    done = subprocess.run(["ldd", program], capture_output=True, text=True, check=False)
    missing = re.search(r"(\S+) => not found", done.stdout)
    if missing:
        raise Missing(f"{program} lacks its library {missing.group(1)}")
    return re.findall(r"^\s*(?:\S+ => )?(/\S+) \(", done.stdout, flags=re.M)


def own_programs():
    """The programs of the build under test that there are."""
    return [path for path in (SETTINGS.program, os.path.join(SETTINGS.build, "vornix-disks")) if os.path.exists(path)]


def pack_folder(folder, target):
    """Writes the archive that the kernel unpacks at its start."""
    names = sorted(os.path.relpath(os.path.join(place, name), folder)
                   for place, folders, files in os.walk(folder) for name in folders + files)
    with open(target, "wb") as file:
        subprocess.run(["cpio", "--quiet", "--create", "--format=newc", "--owner=0:0"], cwd=folder, stdout=file,
                       input="".join(name + "\n" for name in names).encode(), check=True)


class RamDisk:
    """What the RAM disk holds, gathered in a folder."""

    def __init__(self, folder, kernel):
        self.folder, self.kernel = folder, kernel
        for name in ("bin", "dev", "proc", "sys", "run", "tmp", "mnt", "etc", "lib", "root"):
            os.makedirs(os.path.join(folder, name))
        for name, target in (("sbin", "bin"), ("usr", "."), ("lib64", "lib")):
            os.symlink(target, os.path.join(folder, name))
        if not os.path.exists(BUSYBOX) or libraries_of(BUSYBOX):
            raise Missing("there is no busybox here that needs no library")
        shutil.copy(BUSYBOX, self.path("bin/busybox"))
        self.add_program("dash")  # the shell of busybox prefers its own commands to any other of their names
        os.symlink("dash", self.path("bin/sh"))
        shutil.copy(os.path.join(HERE, "agent.sh"), self.path("init"))
        os.chmod(self.path("init"), 0o755)
        os.symlink("/proc/self/mounts", self.path("etc/mtab"))
        for program in own_programs():
            self.add_program(program, strip=True)

    def path(self, name):
        return os.path.join(self.folder, name.lstrip("/"))

    def add_file(self, name, contents, mode=0o644):
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        with open(self.path(name), "wb") as file:
            file.write(contents)
        os.chmod(self.path(name), mode)

    def _add_at_its_place(self, source):
        if not os.path.exists(self.path(source)):
            os.makedirs(os.path.dirname(self.path(source)), exist_ok=True)
            shutil.copy(source, self.path(source))

    def add_program(self, program, strip=False):
        """An executable, by its name or its path, and its libraries. It takes the place of busybox' one of that
        name."""
        path = program if "/" in program else shutil.which(program, path=SEARCH)
        if path is None or not os.path.exists(path):
            raise Missing(f"there is no {program} here")
        target = self.path(os.path.join("bin", os.path.basename(program)))
        if strip and shutil.which("strip"):
            subprocess.run(["strip", "-o", target, path], check=True)
        else:
            shutil.copy(path, target)
        for library in libraries_of(path):
            self._add_at_its_place(library)

    def add_library(self, pattern):
        """A library that is only loaded when it is needed, and that no list of libraries names."""
        done = subprocess.run(["ldconfig", "-p"], capture_output=True, text=True, check=False,
                              env={"PATH": SEARCH})
        found = re.findall(rf"^\s*{pattern} .* => (\S+)$", done.stdout, flags=re.M)
        if not found:
            raise Missing(f"there is no {pattern} here")
        self._add_at_its_place(found[0])

    def add_modules(self, *names):
        """Modules that the agent inserts before it takes its first command, in this order."""
        with open(self.path("modules"), "a", encoding="ascii") as file:
            file.write("".join(line + "\n" for line in self.add_modules_for_later(*names)))

    def add_modules_for_later(self, *names):
        """Modules that lie in /lib/modules; gives their names there in the order in which they can be inserted."""
        inserted = []
        for path in self.kernel.module_files(*names):
            name = os.path.join("lib/modules", os.path.basename(path))
            if not os.path.exists(self.path(name)):
                os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
                shutil.copy(path, self.path(name))
            inserted.append("/" + name)
        return inserted

    def pack(self, target):
        pack_folder(self.folder, target)
