"""vornix-disks on real loop devices: the numbers of vornix with what stands behind them.

Needs Linux, root, loop devices and mount namespaces; otherwise each test is skipped. The tool sees the test's own
devices and no other disk.
"""

import json
import os
import shutil
import subprocess
import time

import suite
from loop_device import LoopDevice
from loop_disks import LoopDisks, LoopScenario
from machine import SETTINGS

SIZE = 16 * 1048576


class DisksTool(LoopScenario):
    def setUp(self):
        super().setUp()
        if shutil.which("mke2fs") is None:
            self.skipTest("there is no mke2fs here")

    def attach(self, size=SIZE, sector_size=512):
        return super().attach(bytes(size), sector_size)

    def report(self):
        """What --json says."""
        done = self.disks.run_tool("--json")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        document = json.loads(done.stdout.decode("ascii"))
        self.assertEqual(list(document)[0], "schema_version")
        self.assertEqual(document["schema_version"], 1)
        return document

    def disk(self, device):
        found, = (disk for disk in self.report()["disks"] if disk["node"] == device)
        return found

    def table(self):
        done = self.disks.run_tool()
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return done.stdout

    def users(self, device):
        """Who uses it, but for this process, which holds each device that it made."""
        return [user for user in self.disk(device)["used_by"] if f"(process {os.getpid()})" not in user["what"]]

    def expect_unused(self, device):
        """Whoever lists the machine's devices has each of them open for a moment."""
        for _ in range(100):
            disk = self.disk(device)
            if not self.users(device) and (disk["used_by"] or not disk["in_use"]):
                return
            time.sleep(0.05)
        self.fail(self.users(device))

    def make_file_system(self, device, label=b"data"):
        subprocess.run([b"mke2fs", b"-q", b"-F", b"-L", label, device.encode()], check=True, capture_output=True)

    def test_numbers_are_those_of_vornix_and_stay(self):
        devices = [self.attach(), self.attach(SIZE, 4096), self.attach()]
        numbers = {device: self.disks.number(device) for device in devices}
        report = self.report()
        self.assertEqual({disk["node"]: disk["number"] for disk in report["disks"]}, numbers)
        self.assertTrue(all(disk["number_kept"] and disk["listed"] for disk in report["disks"]))
        self.assertEqual([self.disk(devices[1])[key] for key in ("size", "sector_size")], [SIZE, 4096])
        self.disks.detach(devices[0])
        report = self.report()
        self.assertEqual({disk["node"]: disk["number"] for disk in report["disks"]},
                         {device: numbers[device] for device in devices[1:]})
        self.assertEqual(report["numbers"]["gone"], [numbers[devices[0]]])
        self.assertIn(f"Numbers of disks that are gone: {numbers[devices[0]]}.\n".encode(), self.table())
        self.assertIn(f"PhysicalDrive{numbers[devices[1]]} ".encode(), self.disks.run("list-disks").stdout)

    def test_file_system_with_its_label_and_where_it_is_mounted(self):
        device = self.attach()
        self.make_file_system(device, "März".encode())
        disk = self.disk(device)
        content, = disk["contents"]
        self.assertEqual((content["type"], content["label"], content["size"]), ("ext2", "März", SIZE))
        self.expect_unused(device)
        for locale, label in ("C.UTF-8", "März"), ("C", "M?rz"):
            done = subprocess.run(self.disks.tool_command(), env={**SETTINGS.environment(), "LC_ALL": locale},
                                  capture_output=True, check=True)
            self.assertIn(f'ext2 "{label}"'.encode(), done.stdout)
        place = self.mount(device, name="a place")
        disk = self.disk(device)
        self.assertEqual(disk["contents"][0]["mount_points"], [place])
        self.assertTrue(disk["in_use"])
        self.assertIn({"kind": "mount", "what": place}, disk["used_by"])
        self.assertNotIn("kernel", [user["kind"] for user in disk["used_by"]])
        self.assertIn(f"mounted at {place}".encode(), self.table())
        LoopDisks.unmount(place, device)
        self.expect_unused(device)

    def test_label_that_a_terminal_would_obey_is_only_shown(self):
        device = self.attach()
        self.make_file_system(device, b"\x1b[31m\xff\x07x")
        self.assertEqual(self.disk(device)["contents"][0]["label"], "\x1b[31m\ufffd\x07x")
        table = self.table()
        self.assertIn(b"[31m", table)
        self.assertFalse(set(table) & (set(range(32)) - {10} | {0x7F, 0xFF}), table)

    def test_users_that_lsblk_does_not_know_are_named(self):
        device = self.attach()
        with open(device, "rb") as opened, subprocess.Popen(["sleep", "1000"], stdin=opened) as holder:
            users = self.users(device)
            holder.kill()
        self.assertIn({"kind": "process", "what": f"sleep (process {holder.pid})"}, users)
        self.expect_unused(device)
        above = LoopDevice(device)
        try:
            self.assertIn({"kind": "loop", "what": above.path}, self.disk(device)["used_by"])
        finally:
            above.detach()

    def test_claim_that_nobody_is_seen_to_hold_counts_as_use(self):
        """The tool runs among processes of its own, where it sees none of those that have the device open."""
        device = self.attach()
        command = self.disks.tool_command("--json")

        def look():
            done = subprocess.run(["unshare", "--pid", "--fork", "--mount-proc", *command], capture_output=True,
                                  env=SETTINGS.environment(), check=True)
            found, = (disk for disk in json.loads(done.stdout)["disks"] if disk["node"] == device)
            return found["in_use"], found["used_by"]

        handle = os.open(device, os.O_RDONLY | os.O_EXCL)
        try:
            self.assertEqual(look(), (True, [{"kind": "kernel", "what": "claimed by the kernel"}]))
        finally:
            os.close(handle)
        for _ in range(100):  # whoever lists the machine's devices claims each of them for a moment
            if look() == (False, []):
                return
            time.sleep(0.05)
        self.fail(look())

    def test_disk_that_does_not_open_is_shown_with_the_reason(self):
        device, other = self.attach(), self.attach()
        number = self.disks.number(device)
        # Its name leads to something else, in a folder of nodes of the tool's own.
        nodes = os.path.join(self.folder, "dev")
        os.mkdir(nodes)
        with open(os.path.join(nodes, os.path.basename(device)), "wb"):
            pass
        command = self.disks.tool_command("--json")
        command[-2:-2] = ["sh", "-c", 'mount --bind "$0" /dev && exec "$@"', nodes]
        done = subprocess.run(command, capture_output=True, env=SETTINGS.environment(), check=False)
        disks = {disk["node"]: disk for disk in json.loads(done.stdout)["disks"]}
        self.assertEqual((disks[device]["number"], disks[device]["listed"]), (number, False))
        self.assertEqual(disks[device]["not_opened"], "no device behind the node")
        self.assertEqual(disks[other]["not_opened"], "No such file or directory")

    def test_list_that_lsblk_does_not_give_is_missed(self):
        self.attach()
        fake = os.path.join(self.folder, "lsblk")
        for script, error in (("echo '{\"blockdevices\": []}'; exit 1", "lsblk failed"),
                              ("echo '{\"blockdevices\": []}'; kill -9 $$", "lsblk failed"),
                              ("echo []", "lsblk printed something else than a list of devices")):
            with self.subTest(script=script):
                with open(fake, "w", encoding="ascii") as file:
                    file.write(f"#!/bin/sh\n{script}\n")
                os.chmod(fake, 0o755)
                command = self.disks.tool_command("--json")
                command[-2:-2] = ["sh", "-c", 'mount --bind "$0" "$1" && shift && exec "$@"', fake,
                                  shutil.which("lsblk")]
                done = subprocess.run(command, capture_output=True, env=SETTINGS.environment(), check=False)
                self.assertEqual((done.returncode, done.stderr), (1, f"vornix-disks: {error}\n".encode()))
                document = json.loads(done.stdout)
                self.assertEqual((document["error"], len(document["disks"])), (error, 1))

    def test_where_numbers_are_ranks_it_says_so_and_why(self):
        self.attach()
        os.symlink("/nowhere", os.path.join(self.disks.run_folder, "vornix"))
        disk, = self.report()["disks"]
        self.assertEqual((disk["number"], disk["number_kept"]), (0, False))
        self.assertIn("/run/vornix", self.report()["numbers"]["why_ranks"])
        self.assertIn(b"Only ranks, which change when disks come and go: 0 (/run/vornix ", self.table())

    def test_damaged_numbers_are_said_and_given_anew(self):
        device = self.attach()
        self.disks.number(device)
        with open(self.disks.registry, "ab") as file:
            file.write(b"more\n")
        done = self.disks.run_tool("--json")
        self.assertEqual(done.returncode, 0)
        self.assertIn(b"/run/vornix/disks were damaged", done.stderr)
        self.assertIsNotNone(json.loads(done.stdout)["numbers"]["damage"])
        self.assertIsNone(self.report()["numbers"]["damage"])

    def test_no_disks_at_all(self):
        self.assertEqual(self.table(), b"No disks.\n")
        self.assertEqual(self.report()["disks"], [])

    def test_command_line(self):
        for arguments, status in (("--help",), 0), (("--version",), 0), (("--jsn",), 2), (("--json", "x"), 2):
            done = self.disks.run_tool(*arguments)
            self.assertEqual(done.returncode, status)
            self.assertEqual(bool(done.stdout), status == 0)
            self.assertEqual(done.stderr.startswith(b"usage: vornix-disks"), status == 2)

    def test_lost_output_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            done = subprocess.run(self.disks.tool_command("--version"), stdout=full, stderr=subprocess.PIPE,
                                  check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"the output was lost", done.stderr)


if __name__ == "__main__":
    suite.main()
