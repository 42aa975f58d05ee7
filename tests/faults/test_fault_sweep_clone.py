"""Each call of a clone failing in turn, and the process killed at each: what is said, and how far the target was
written.

A clone looks at every result but those of closing a handle and of having the partition table read again. So each fault
has one outcome, which depends on where in the run it strikes, and a number of bytes that were written to the target by
then.
"""

import suite
from clone_runs import (BLOCK, READ_FAILED, SYSTEM_SOURCE_NOTE, VERIFY_SOURCE_FAILED, VERIFY_TARGET_FAILED,
                        WRITE_FAILED, blocks_of, clone_text, cloning_line, copy_text, pattern, sector_note, verify_text)
from console import exclusive_failure, fatal
from machine import Machine
from sweep import SAMPLE, Expected, sweep_faults, sweep_kills

NO_SYSTEM_VOLUME = "could not open C: to determine the system disk number"
NO_EXTENTS = "IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed"
NO_MEMORY = "out of memory allocating aligned I/O buffer"


class Setting:
    """One machine and command line to sweep over."""

    def __init__(self, *, size=BLOCK + 1536, verify=False, target_size=None, sectors=(512, 512), system_source=False,
                 changed=None):
        self.size, self.verify, self.sectors = size, verify, sectors
        self.system_source, self.changed = system_source, changed
        self.target_size = size if target_size is None else target_size
        self.blocks = blocks_of(size)
        self.sector_note = "" if sectors[0] == sectors[1] else sector_note(*sectors)
        self.notes = self.sector_note + (SYSTEM_SOURCE_NOTE if system_source else "")
        self.silent = () if changed is None else (changed,)
        self.arguments = ["clone", "--from", "1", "--to", "2", "--confirm", "YES"] + (["--verify"] if verify else [])

    def make(self, folder):
        machine = Machine(folder, default=False)
        machine.add_disk(0, pattern(4096, "system"))
        machine.add_disk(1, pattern(self.size, "source"), sector_size=self.sectors[0])
        machine.add_disk(2, pattern(self.target_size, "target"), sector_size=self.sectors[1])
        machine.system_volume([(1 if self.system_source else 0, 512, 512)])
        if self.changed is not None:
            # The running system writes to its disk as the verify pass begins.
            machine.add_fault("GetTickCount64", skip=1 + len(self.blocks),
                              poke={"disk": 1, "offset": self.changed * BLOCK + 7, "hex": "0123456789abcdef"})
        return machine

    # --- What must come of a failure ---

    def written(self, count):
        """A check: exactly the first `count` bytes of the target are the source's, and the log has it so."""
        def check(machine, result):
            if sum(line["transferred"] for line in result.calls("WriteFile", path="PhysicalDrive2")) != count:
                raise AssertionError(f"the log does not show {count} bytes written to the target")
            if result.calls("WriteFile", path="PhysicalDrive1") or result.calls("WriteFile", path="PhysicalDrive0"):
                raise AssertionError("a disk was written that is not the target")
            expected = pattern(self.size, "source")[:count] + pattern(self.target_size, "target")[count:]
            actual = machine.disk_bytes(2)
            if actual != expected:
                raise AssertionError(f"the target differs: {suite.first_difference(actual, expected)}")
            # A running system may have changed its own disk; nobody else has.
            if self.changed is None and machine.disk_bytes(1) != pattern(self.size, "source"):
                raise AssertionError("the source was changed")
        return check

    def clean(self):
        return Expected(0, clone_text(1, 2, self.size, notes=self.notes, verify=self.verify, silent=self.silent), "",
                        self.written(self.size))

    def oracle(self, fault):
        for call in fault.hits:
            expected = getattr(self, "at_" + call.kind.strip("_"))(call.occurrence, fault)
            if expected is not None:
                return expected
        return self.clean()  # nothing that was looked at has failed

    @staticmethod
    def report(message, fault):
        return fatal(message) if fault.error is None else fatal(message, fault.error)

    def refused(self, stdout, stderr):
        return Expected(1, stdout, stderr, self.written(0))

    def compared(self, block, stderr):
        """Ended in the verify pass, at this block."""
        return Expected(1, copy_text(1, 2, self.size, self.notes) + verify_text(self.size, self.silent, upto=block),
                        stderr,
                        self.written(self.size))

    def at_CreateFileW(self, occurrence, fault):
        failures = {
            0: ("", fatal(NO_SYSTEM_VOLUME, fault.error)),
            1: ("", f"Could not open source PhysicalDrive1 (GetLastError={fault.error})\n"),
            2: ("", exclusive_failure(2, fault.error)),
            3: (self.sector_note, fatal(NO_SYSTEM_VOLUME, fault.error)),
        }
        if occurrence == 4:  # asked anew where the copy differs
            return self.compared(self.changed, fatal(NO_SYSTEM_VOLUME, fault.error))
        return self.refused(*failures[occurrence])

    def at_DeviceIoControl(self, occurrence, fault):
        length, geometry = "IOCTL_DISK_GET_LENGTH_INFO failed", "IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed"
        if occurrence == 6 and self.changed is not None:
            return self.compared(self.changed, fatal(NO_EXTENTS, fault.error))
        if occurrence >= 6:
            return None  # the partition table is not read again
        message = (NO_EXTENTS, length, geometry, length, geometry, NO_EXTENTS)[occurrence]
        return self.refused(self.sector_note if occurrence == 5 else "", fatal(message, fault.error))

    def at_CloseHandle(self, occurrence, fault):
        return None

    def at_aligned_malloc(self, occurrence, fault):
        return self.refused(self.notes + cloning_line(1, 2, self.size), fatal(NO_MEMORY))

    def at_SetFilePointerEx(self, occurrence, fault):
        block, of_target = divmod(occurrence, 2)
        if block < len(self.blocks):
            return self.copied(block, 0, WRITE_FAILED if of_target else READ_FAILED, fault)
        return self.compared(block - len(self.blocks),
                             self.report(VERIFY_TARGET_FAILED if of_target else VERIFY_SOURCE_FAILED, fault))

    def at_ReadFile(self, occurrence, fault):
        if occurrence < len(self.blocks):
            return self.copied(occurrence, 0, READ_FAILED, fault)
        block, of_target = divmod(occurrence - len(self.blocks), 2)
        return self.compared(block, self.report(VERIFY_TARGET_FAILED if of_target else VERIFY_SOURCE_FAILED, fault))

    def at_WriteFile(self, occurrence, fault):
        return self.copied(occurrence, fault.effect.get("transferred", 0), WRITE_FAILED, fault)

    def copied(self, block, torn, message, fault):
        """Ended in the copy pass, at this block, `torn` bytes of which were written."""
        return Expected(1, copy_text(1, 2, self.size, self.notes, upto=block), self.report(message, fault),
                        self.written(block * BLOCK + torn))


class Sweeps(suite.Scenario):
    recorded = False

    def sweep(self, setting):
        runs = sweep_faults(self, setting.make, setting.arguments, setting.clean(), setting.oracle)
        self.assertGreaterEqual(runs, SAMPLE if self.settings.sampled else 21)

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
    """After each kill the sweep itself holds the target against the logged writes; the run after it copies
    everything."""

    recorded = False

    def sweep(self, setting):
        def after(machine, result, call):
            source = pattern(setting.size, "source")
            if machine.disk_bytes(1) != source:
                raise AssertionError("the source was changed")
            # The log is written before the process ends, so a killed write has no line: what it wrote lies behind.
            count = sum(line["transferred"] for line in result.calls("WriteFile"))
            actual = machine.disk_bytes(2)
            if actual[:count] != source[:count]:
                raise AssertionError("the written blocks are not the source's")
            torn = call.line["length"] // 2 if call.kind == "WriteFile" else 0
            if actual[count + torn:] != pattern(setting.target_size, "target")[count + torn:]:
                raise AssertionError("more was written than the log shows")

        # A clone that comes to its end leaves the same bytes, whatever the kill left.
        runs = sweep_kills(self, setting.make, setting.arguments, setting.clean(), after)
        self.assertGreaterEqual(runs, SAMPLE if self.settings.sampled else 21)

    def test_without_a_comparison(self):
        self.sweep(Setting(target_size=2 * BLOCK))

    def test_with_a_comparison(self):
        self.sweep(Setting(verify=True, sectors=(512, 512)))


if __name__ == "__main__":
    suite.main()
