"""Each call of a clone failing in turn, and the process killed at each: what is said, and how far the target was
written."""

import suite
from clone_runs import (BLOCK, COMPLETE, READ_FAILED, SYSTEM_SOURCE_NOTE, VERIFY_SOURCE_FAILED, VERIFY_TARGET_FAILED,
                        WRITE_FAILED, blocks_of, clone_text, cloning_line, pattern, sector_note)
from console import exclusive_failure, meter
from machine import Machine
from run_model import Model, sweep_model
from suite import require_equal
from sweep import sweep_kills


class Setting:
    """One machine and command line to sweep over."""

    def __init__(self, *, size=BLOCK + 1536, verify=False, target_size=None, sectors=(512, 512), system_source=False,
                 changed=None):
        self.size, self.verify, self.sectors = size, verify, sectors
        self.system_source, self.changed = system_source, changed
        self.target_size = size if target_size is None else target_size
        self.sector_note = "" if sectors[0] == sectors[1] else sector_note(*sectors)
        self.system_note = SYSTEM_SOURCE_NOTE if system_source else ""
        self.text = clone_text(1, 2, size, notes=self.sector_note + self.system_note, verify=verify,
                               silent=() if changed is None else (changed,))
        self.arguments = ["clone", "--from", "1", "--to", "2", "--confirm", "YES"] + (["--verify"] if verify else [])

    def make(self, folder):
        machine = Machine(folder, default=False)
        machine.add_disk(0, pattern(4096, "system"))
        machine.add_disk(1, pattern(self.size, "source"), sector_size=self.sectors[0])
        machine.add_disk(2, pattern(self.target_size, "target"), sector_size=self.sectors[1])
        machine.system_volume([(1 if self.system_source else 0, 512, 512)])
        if self.changed is not None:
            # The running system writes to its disk as the verify pass begins.
            machine.add_fault("GetTickCount64", skip=1 + len(blocks_of(self.size)),
                              poke={"disk": 1, "offset": self.changed * BLOCK + 7, "hex": "0123456789abcdef"})
        return machine


class Clone(Model):
    """A clone looks at every result but those of closing a handle and of having the partition table read again."""

    def __init__(self, setting, fault=None):
        super().__init__(fault=fault)
        self.setting, self.written = setting, 0

    def perform(self):
        setting = self.setting
        self.system_disk()
        if self.strikes("CreateFileW"):
            self.die(f"Could not open source PhysicalDrive1 (GetLastError={self.fault.error})\n")
        if self.strikes("CreateFileW"):
            self.die(exclusive_failure(2, self.fault.error))
        self.geometry()
        self.geometry()
        self.stdout += setting.sector_note
        self.system_disk()
        self.stdout += setting.system_note + cloning_line(1, 2, setting.size)
        self.buffer()
        self.buffer()
        self.strikes("GetTickCount64")
        for offset, length in blocks_of(setting.size):
            self.fallible("SetFilePointerEx", READ_FAILED)
            self.fallible("ReadFile", READ_FAILED)
            self.fallible("SetFilePointerEx", WRITE_FAILED)
            if self.strikes("WriteFile"):
                self.written += self.fault.effect.get("transferred", 0)
                self.die(self.report(WRITE_FAILED))
            self.written += length
            self.print_meter(offset + length)
        self.stdout += "\n"
        if setting.verify:
            self.compare()
        for call in ("DeviceIoControl", "CloseHandle", "CloseHandle"):
            self.strikes(call)
        self.stdout += COMPLETE

    def compare(self):
        self.stdout += "Verifying the copy...\n"
        self.strikes("GetTickCount64")
        self.meters = 0
        for index, (offset, length) in enumerate(blocks_of(self.setting.size)):
            for message in (VERIFY_SOURCE_FAILED, VERIFY_TARGET_FAILED):
                self.fallible("SetFilePointerEx", message)
                self.fallible("ReadFile", message)
            if index == self.setting.changed:
                self.system_disk()  # asked anew where the copy differs
            else:
                self.print_meter(offset + length)
        self.stdout += "\nVerify OK.\n"

    def print_meter(self, done):
        self.strikes("GetTickCount64")
        self.meters += 1
        self.stdout += meter(done, self.setting.size, self.meters)

    def check(self, machine):
        """Exactly so many bytes of the target are the source's."""
        source = pattern(self.setting.size, "source")
        expected = source[:self.written] + pattern(self.setting.target_size, "target")[self.written:]
        require_equal(machine.disk_bytes(2), expected, "target")
        if self.setting.changed is None:  # a running system may have changed its own disk; nobody else has
            require_equal(machine.disk_bytes(1), source, "source")
        require_equal(machine.disk_bytes(0), pattern(4096, "system"), "a disk that takes no part")


class Sweeps(suite.Scenario):
    recorded = False

    def sweep(self, setting):
        sweep_model(self, setting.make, setting.arguments, lambda fault: Clone(setting, fault), setting.text, 21)

    def test_without_a_comparison(self):
        self.sweep(Setting())

    def test_with_a_comparison(self):
        self.sweep(Setting(verify=True))

    def test_onto_a_larger_target_of_other_sectors(self):
        self.sweep(Setting(size=BLOCK + 8192, target_size=BLOCK + 12288, sectors=(4096, 512)))

    def sweep_running_system(self, changed):
        self.sweep(Setting(size=BLOCK + 8192, target_size=BLOCK + 12288, sectors=(512, 4096), verify=True,
                           system_source=True, changed=changed))

    def test_of_the_running_system_whose_first_block_changes_between_the_passes(self):
        self.sweep_running_system(0)

    def test_of_the_running_system_whose_last_block_changes_between_the_passes(self):
        self.sweep_running_system(1)

    def test_of_a_single_short_block(self):
        self.sweep(Setting(size=1024, verify=True))


class Kills(suite.Scenario):
    """After each kill the sweep itself holds the disks against the logged writes; the run after it copies everything,
    whatever the kill left."""

    recorded = False

    def sweep(self, setting):
        sweep_kills(self, setting.make, setting.arguments, Clone(setting).run().expected(), least=21)

    def test_without_a_comparison(self):
        self.sweep(Setting(target_size=2 * BLOCK))

    def test_with_a_comparison(self):
        self.sweep(Setting(verify=True))


if __name__ == "__main__":
    suite.main()
