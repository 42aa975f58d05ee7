"""The packages: what is in them, and that the Debian package installs into a fresh root, runs there and goes again.

Needs both builds, and root for the installation; what cannot be done here is skipped and counted.
"""

import atexit
import hashlib
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
import zipfile

import suite

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))

BUILT = all(os.path.exists(os.path.join(ROOT, "build", path)) for path in ("windows/vornix.exe", "linux/vornix"))


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


MOMENT = "1700000000"  # the time that the packages of this suite bear


def make_packages(**environment):
    """Makes the packages in a folder of their own: their paths by name without version, vornix.zip, vornix.deb..."""
    folder = tempfile.mkdtemp()
    atexit.register(shutil.rmtree, folder)
    made = run(os.path.join(ROOT, "packaging", "make-packages"), folder, env={**os.environ, **environment})
    if made.returncode != 0:
        raise AssertionError(made.stdout + made.stderr)
    return {re.split("[-_][0-9]", name)[0] + os.path.splitext(name)[1]: os.path.join(folder, name)
            for name in os.listdir(folder)}


made_once = []
making = threading.Lock()  # the tests of a suite run side by side


def packages():
    """The packages, made for the first test that asks."""
    with making:
        if not made_once:
            made_once.append(make_packages(SOURCE_DATE_EPOCH=MOMENT))
    return made_once[0]


def files_of_checkout():
    """The paths of what belongs to the project: what git tracks, or everything that is no product of a build."""
    listed = run("git", "ls-files", "-z", cwd=ROOT)
    if listed.returncode == 0:
        return [path for path in listed.stdout.split("\0") if path and os.path.exists(os.path.join(ROOT, path))]
    paths = []
    for folder, folders, names in os.walk(ROOT):
        folders[:] = [name for name in folders if name not in ("build", ".git", "__pycache__")]
        paths += [os.path.relpath(os.path.join(folder, name), ROOT) for name in names]
    return paths


def copy_of_checkout(folder):
    """The project in another folder, committed there at the moment of the packages of this suite."""
    for path in files_of_checkout():
        os.makedirs(os.path.dirname(os.path.join(folder, path)), exist_ok=True)
        shutil.copy(os.path.join(ROOT, path), os.path.join(folder, path))
    author = {**os.environ, "GIT_CONFIG_GLOBAL": os.devnull, "GIT_COMMITTER_DATE": f"{MOMENT} +0200"}
    for who in ("AUTHOR", "COMMITTER"):
        author |= {f"GIT_{who}_NAME": "A", f"GIT_{who}_EMAIL": "a@invalid"}
    for command in (["init"], ["add", "--all"], ["commit", "--message", "a copy"]):
        done = run("git", "-C", folder, *command, env=author)
        if done.returncode != 0:
            raise AssertionError(done.stderr)


@unittest.skipUnless(BUILT, "needs the Linux and the Windows build")
class Packages(unittest.TestCase):
    def setUp(self):
        self.packages = packages()
        self.zip, self.deb = self.packages["vornix.zip"], self.packages["vornix.deb"]
        self.debs = [path for path in self.packages.values() if path.endswith(".deb")]

    def test_the_archive_holds_the_executable_the_pages_and_right_checksums(self):
        with zipfile.ZipFile(self.zip) as archive:
            contents = {os.path.basename(name): archive.read(name) for name in archive.namelist()}
        self.assertEqual(set(contents), {"vornix.exe", "vrnx.exe", "acceptance.ps1", "vornix-backup.ps1", "README.md",
                                         "CHANGELOG.md",
                                         "users-guide.md", "operations.md", "image-format.md", "routine-windows.md",
                                         "vrnx-json.md", "SHA256SUMS"})
        sums = dict(reversed(line.split()) for line in contents["SHA256SUMS"].decode().splitlines())
        self.assertEqual(sums, {name: hashlib.sha256(data).hexdigest() for name, data in contents.items()
                                if name != "SHA256SUMS"})

    @unittest.skipUnless(os.environ.get("VORNIX_LONG"), "builds everything once more: under VORNIX_LONG")
    @unittest.skipUnless(shutil.which("git"), "needs git")
    def test_a_checkout_in_another_folder_gives_the_same_bytes(self):
        environment = {name: value for name, value in os.environ.items() if name != "SOURCE_DATE_EPOCH"}
        with tempfile.TemporaryDirectory() as folder:
            elsewhere = os.path.join(folder, "a checkout with a longer name")
            copy_of_checkout(elsewhere)
            made = run(os.path.join(elsewhere, "packaging", "make-packages"), folder, env=environment)
            self.assertEqual((made.returncode, made.stderr), (0, ""), made.stdout)
            for first in self.packages.values():
                with open(first, "rb") as a, open(os.path.join(folder, os.path.basename(first)), "rb") as b:
                    self.assertEqual(hashlib.sha256(a.read()).digest(), hashlib.sha256(b.read()).digest(),
                                     os.path.basename(first))

    def test_no_path_of_the_checkout_is_in_the_executables(self):
        with zipfile.ZipFile(self.zip) as archive:
            programs = [name for name in archive.namelist() if name.endswith(".exe")]
            self.assertEqual(len(programs), 2)
            for name in programs:
                self.assertNotIn(ROOT.encode(), archive.read(name), name)
        with tempfile.TemporaryDirectory() as root:
            for package in self.debs:
                run("dpkg-deb", "-x", package, root)
            for folder, _, names in os.walk(root):
                for path in (os.path.join(folder, name) for name in names):
                    with open(path, "rb") as file:
                        self.assertNotRegex(file.read(), re.escape(ROOT.encode()) + rb"(?![-\w])", path)
            self.assertTrue(os.path.exists(os.path.join(root, "usr/sbin/vornix")))

    @unittest.skipUnless(shutil.which("lintian"), "needs lintian")
    def test_debian_s_own_checker_finds_no_error(self):
        said = run("lintian", "--fail-on", "error", "--allow-root", *self.debs)
        self.assertEqual(said.returncode, 0, said.stdout + said.stderr)

    def test_what_the_debian_package_needs_is_found_and_not_listed_by_hand(self):
        needed = run("dpkg-deb", "--field", self.deb, "Depends").stdout
        for library in ("libc6 (>= ", "libssl3 (>= ", "libstdc++6 (>= "):
            self.assertIn(library, needed)
        with open(os.path.join(ROOT, "packaging", "debian", "control"), encoding="utf-8") as file:
            self.assertNotRegex(file.read(), r"(?m)^Depends:.*lib(c6|ssl|stdc)")

    def test_the_version_is_one_everywhere(self):
        def found(pattern, *path):
            with open(os.path.join(ROOT, *path), encoding="utf-8") as file:
                return re.search(pattern, file.read(), re.M)[1]
        version = found(r"^project\(vornix VERSION ([0-9.]+)", "CMakeLists.txt")
        self.assertEqual(found(r"^vornix \(([0-9.]+)-\d+\)", "packaging", "debian", "changelog"), version)
        self.assertEqual(found(r"^## ([0-9.]+)$", "CHANGELOG.md"), version)
        self.assertEqual(found(r'^\.TH .*"Vornix ([0-9.]+)"', "man", "vornix.8"), version)

    @unittest.skipUnless(hasattr(os, "geteuid") and os.geteuid() == 0, "installing needs root")
    def test_the_debian_package_installs_into_a_fresh_root_runs_there_and_goes_again(self):
        with tempfile.TemporaryDirectory() as root:
            # The least that dpkg needs of a system, and what the program is linked with.
            for path in ("var/lib/dpkg/info", "var/lib/dpkg/updates", "var/lib/dpkg/triggers"):
                os.makedirs(os.path.join(root, path))
            open(os.path.join(root, "var/lib/dpkg/status"), "w", encoding="utf-8").close()
            with open(os.path.join(root, "var/lib/dpkg/arch"), "w", encoding="utf-8") as file:
                file.write("amd64\n")
            installed = run("dpkg", f"--root={root}", "--force-depends", "--force-script-chrootless", "-i", self.deb)
            self.assertEqual(installed.returncode, 0, installed.stderr)
            binary = os.path.join(root, "usr/sbin/vornix")
            libraries = run("ldd", binary).stdout
            for line in libraries.splitlines():
                path = next((word for word in line.split() if word.startswith("/")), None)
                if path is not None:
                    os.makedirs(root + os.path.dirname(path), exist_ok=True)
                    shutil.copy(path, root + path)
            usage = run("chroot", root, "/usr/sbin/vornix")
            self.assertEqual((usage.returncode, usage.stderr), (1, ""))
            self.assertTrue(usage.stdout.startswith("Vornix - whole-physical-disk raw sector-level imaging.\n"))
            for page in ("usr/share/man/man8/vornix.8.gz", "usr/share/doc/vornix/users-guide.md"):
                self.assertTrue(os.path.exists(os.path.join(root, page)), page)
            removed = run("dpkg", f"--root={root}", "--purge", "vornix")
            self.assertEqual(removed.returncode, 0, removed.stderr)
            for gone in ("usr/sbin/vornix", "usr/share/man/man8/vornix.8.gz", "usr/share/doc/vornix"):
                self.assertFalse(os.path.exists(os.path.join(root, gone)), gone)


if __name__ == "__main__":
    sys.exit(suite.main())
