"""The Debian package and the tests of disks in a bare Debian, entered by chroot and as a container would be.

The tree is made by mmdebstrap from the sources that apt has here. What runs in it: the installed package's `list-disks`
and `vornix-disks`, and those contract tests that say which disks there are and which is the system's. The whole of
./check there takes longer than a test may. Needs root, mmdebstrap, Debian's archive, and VORNIX_LONG.
"""

import atexit
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

import suite

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
CONTRACT_TESTS = os.path.join(ROOT, "build", "linux", "tests", "vornix-contract-tests")
OF_DISKS = "Linux*Disk*:LinuxNumbers*:LinuxSystemVolume*:LinuxOtherRoots*:LinuxLsblk*:LinuxCleanText*"


def reason_to_skip():
    if not os.environ.get("VORNIX_LONG"):
        return "takes minutes; ./check --long runs it"
    if os.geteuid() != 0:
        return "only root can make a root folder"
    for tool in ("mmdebstrap", "chroot", "unshare", "setpriv"):
        if shutil.which(tool) is None:
            return f"there is no {tool} here"
    if not sources_of_apt():
        return "apt has no sources here"
    if not os.path.exists(CONTRACT_TESTS):
        return "needs the Linux build"
    return None


def sources_of_apt():
    return [path for pattern in ("sources.list", "sources.list.d/*.list", "sources.list.d/*.sources")
            for path in glob.glob(os.path.join("/etc/apt", pattern)) if os.path.getsize(path)]


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL, check=False, **options)


made_once = []
making = threading.Lock()  # the tests of a suite run side by side


def bare_debian():
    """A folder with a bare Debian in which the package is installed by apt, made for the first test that asks."""
    with making:
        if not made_once:
            folder = tempfile.mkdtemp(dir="/var/tmp")
            atexit.register(shutil.rmtree, folder)
            packed = run(os.path.join(ROOT, "packaging", "make-packages"), folder)
            if packed.returncode != 0:
                raise AssertionError(packed.stdout + packed.stderr)
            package, = glob.glob(os.path.join(folder, "vornix_*.deb"))
            root = os.path.join(folder, "root")
            made = run("mmdebstrap", "--variant=minbase", "--include=e2fsprogs",
                       f"--customize-hook=copy-in {package} /root",
                       "--customize-hook=chroot \"$1\" sh -c 'apt-get install --yes --no-install-recommends "
                       "/root/vornix_*.deb'", "bookworm", root, *sources_of_apt())
            if made.returncode != 0:
                raise AssertionError(made.stderr[-4000:])
            shutil.copy(CONTRACT_TESTS, os.path.join(root, "root", "contract-tests"))
            made_once.append(root)
    return made_once[0]


# The kernel's folders as a rescue shell binds them into a changed root, in a namespace that goes with the command. $0:
# the root; what follows is the command.
IN_CHROOT = ('for name in proc sys dev; do mount --rbind /$name "$0/$name"; done && mount -t tmpfs none "$0/run" '
             '&& exec chroot "$0" "$@"')
# A container: an overlay of its own over the tree, processes of its own, no devices but the harmless ones, read-only
# /sys, few privileges.
IN_CONTAINER = '''
mount -t tmpfs none /mnt && mkdir /mnt/upper /mnt/work /mnt/root &&
mount -t overlay overlay -o "lowerdir=$0,upperdir=/mnt/upper,workdir=/mnt/work" /mnt/root && cd /mnt/root &&
mount -t proc proc proc && mount --rbind /sys sys && mount -o remount,bind,ro sys && mount -t tmpfs none dev &&
for node in null zero full random urandom; do touch dev/$node && mount --bind /dev/$node dev/$node; done &&
ln -s /proc/self/fd dev/fd &&
exec chroot . setpriv --bounding-set=-sys_admin,-sys_rawio,-mknod,-sys_ptrace,-sys_module \\
    --inh-caps=-sys_admin,-sys_rawio,-mknod,-sys_ptrace,-sys_module "$@"
'''


class ChangedRoot(unittest.TestCase):
    def setUp(self):
        reason = reason_to_skip()
        if reason:
            self.skipTest(reason)
        self.root = bare_debian()

    def chroot(self, *command):
        return run("unshare", "--mount", "--propagation", "private", "sh", "-c", IN_CHROOT, self.root, *command)

    def container(self, *command):
        return run("unshare", "--mount", "--pid", "--fork", "--propagation", "private", "sh", "-c", IN_CONTAINER,
                   self.root, *command)

    def expect_shown(self, enter):
        """The installed programs run, and agree about the disks."""
        shown = enter("/usr/sbin/vornix-disks", "--json")
        self.assertEqual((shown.returncode, shown.stderr), (0, ""))
        disks = json.loads(shown.stdout)["disks"]
        self.assertTrue(enter("/usr/sbin/vornix-disks").stdout)
        listed = enter("/usr/sbin/vornix", "list-disks")
        self.assertEqual((listed.returncode, listed.stderr), (0, ""))
        return disks, listed.stdout

    def expect_tests_pass(self, enter):
        done = enter("/root/contract-tests", "--gtest_brief=1", f"--gtest_filter={OF_DISKS}")
        self.assertEqual(done.returncode, 0, done.stdout[-6000:] + done.stderr[-2000:])
        self.assertRegex(done.stdout.splitlines()[-1], r"^[1-9][0-9]* passed, 0 failed")

    def test_changed_root_knows_the_disk_of_the_system(self):
        disks, _ = self.expect_shown(self.chroot)
        here = os.stat(self.root).st_dev
        whole = os.path.realpath(f"/sys/dev/block/{os.major(here)}:{os.minor(here)}")
        if os.path.exists(os.path.join(whole, "partition")):
            whole = os.path.dirname(whole)
        if not os.path.exists(whole) or os.listdir(os.path.join(whole, "slaves")):
            self.skipTest("the tree lies on no disk, or on a composed device")
        marked = [disk["node"] for disk in disks if disk["system"]]
        self.assertIn(f"/dev/{os.path.basename(whole)}", marked)

    def test_tests_of_disks_pass_in_a_changed_root(self):
        self.expect_tests_pass(self.chroot)

    def test_container_is_shown_what_it_may_see(self):
        disks, listed = self.expect_shown(self.container)
        self.assertEqual(listed, "")  # nothing opens
        self.assertTrue(all(disk["not_opened"] for disk in disks), disks)

    def test_tests_of_disks_pass_in_a_container(self):
        self.expect_tests_pass(self.container)


if __name__ == "__main__":
    sys.exit(suite.main())
