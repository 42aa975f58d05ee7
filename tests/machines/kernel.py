"""The kernels that the computers boot: Debian's own, fetched and unpacked into build/machines, never installed.

A kernel that was fetched once is used for as long as the folder stays. What cannot be fetched is a Missing, whose text
is the reason why the tests that need it are skipped.
"""

import contextlib
import fcntl
import functools
import glob
import os
import re
import shutil
import subprocess
import tempfile

from machine import CHECKOUT

STORE = os.path.join(CHECKOUT, "build", "machines")
CLOUD = "cloud-amd64"  # 27 MB: virtio and NVMe
FULL = "amd64"  # 71 MB: every bus that a computer has


class Missing(Exception):
    """What a computer is made of cannot be had here."""


@contextlib.contextmanager
def locked(name):
    """Held by one process at a time; the suites run side by side and share what they fetch and make."""
    os.makedirs(STORE, exist_ok=True)
    with open(os.path.join(STORE, name + ".lock"), "w", encoding="ascii") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        yield


class Kernel:
    """An unpacked kernel: `image` to boot, and the modules that belong to it."""

    def __init__(self, folder):
        self.folder = folder
        self.image = glob.glob(os.path.join(folder, "boot", "vmlinuz-*"))[0]
        self.version = os.path.basename(self.image).removeprefix("vmlinuz-")

    def module_files(self, *names):
        """The files of these modules and of all that they need, in the order in which they have to be inserted."""
        files = []
        for name in names:
            done = subprocess.run(["modprobe", "-d", self.folder, "-S", self.version, "--show-depends", name],
                                  capture_output=True, text=True, check=False)
            if done.returncode != 0:
                raise Missing(f"the kernel {self.version} has no module {name}")
            for path in re.findall(r"^insmod (\S+)", done.stdout, flags=re.M):
                if path not in files:
                    files.append(path)
        return files


def _apt(command, *arguments, own_lists=False, folder=None):
    options = []
    if own_lists:  # lists of packages beside those of the system, which may be none or old ones
        state, cache = os.path.join(STORE, "apt", "state"), os.path.join(STORE, "apt", "cache")
        for path in (os.path.join(state, "lists", "partial"), os.path.join(cache, "archives", "partial")):
            os.makedirs(path, exist_ok=True)
        options = ["-o", f"Dir::State={state}", "-o", f"Dir::Cache={cache}", "-o", "APT::Sandbox::User="]
    return subprocess.run([command, *options, *arguments], cwd=folder, capture_output=True, text=True, check=False,
                          stdin=subprocess.DEVNULL)


def _download(package, folder):
    """Fetches a package, or the one that it stands for, into the folder. Whether that succeeded, and what apt said."""
    done = None
    for own_lists in (False, True):
        if own_lists:
            _apt("apt-get", "update", own_lists=True)
        shown = _apt("apt-cache", "show", "--no-all-versions", package, own_lists=own_lists)
        real = re.search(r"^Depends: (linux-image-\S+)", shown.stdout, flags=re.M)
        done = _apt("apt-get", "download", real.group(1) if real else package, own_lists=own_lists, folder=folder)
        if done.returncode == 0:
            return True, ""
    return False, (done.stderr.strip() or "nothing").splitlines()[-1]


def unpacked(package):
    """The folder of a Debian package that is unpacked and not installed; the first call fetches it."""
    folder = os.path.join(STORE, package)
    with locked("packages"):
        if os.path.isdir(folder):
            return folder
        for tool in ("apt-get", "dpkg"):
            if shutil.which(tool) is None:
                raise Missing(f"there is no {tool} here to fetch {package} with")
        with tempfile.TemporaryDirectory(dir=STORE) as work:
            fetched, said = _download(package, work)
            if not fetched:
                raise Missing(f"{package} cannot be fetched: {said}")
            new = os.path.join(work, "new")
            subprocess.run(["dpkg", "-x", *glob.glob(os.path.join(work, "*.deb")), new], check=True)
            for version in glob.glob(os.path.join(new, "lib", "modules", "*")):
                subprocess.run(["depmod", "-b", new, os.path.basename(version)], check=True)
            os.rename(new, folder)
    return folder


@functools.lru_cache(maxsize=None)
def fetch(kind):
    """The kernel CLOUD or FULL. Raises Missing."""
    for tool in ("depmod", "modprobe"):
        if shutil.which(tool, path=os.environ.get("PATH", "") + ":/sbin:/usr/sbin") is None:
            raise Missing(f"there is no {tool} here")
    return Kernel(unpacked(f"linux-image-{kind}"))
