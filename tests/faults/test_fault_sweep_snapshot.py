"""capture --vss with each of its calls failing in turn, alone and with --encrypt, --base and --thin.

What must hold: no failure inside the snapshot session ever fails the capture, and the image verifies; a fatal failure
later on still ends and deletes the set, once. Lines, statuses, the whole sequence of calls, the image, the base, the
disk and the tracker's state are held against the account of the same run in tests/lib/capture_account.py.
"""

import hashlib
import os
import random

import suite
from capture_account import CHUNK, Account
from console import verify_text
from image import build_image, check_image, derive_key, is_accepted, read_table, unseal
from machine import SETTINGS, Machine, pattern
from snapshot import volume_name
from sweep import INFALLIBLE_CALLS, Expected, calls_of, effects_of, sweep_faults

REST = 8192
SIZE = CHUNK + REST  # a chunk that is read live and a short one that a shadow device serves
PASSWORD = b"correct horse"
OUT = "a.vrnx"
BASE = "base.vrnx"
BASE_EPOCH = 0x21
BITS = (SIZE - 1 >> 16) + 1

LIVE = pattern(SIZE, "source")
FROZEN = pattern(REST, "frozen")
BEFORE = LIVE[:CHUNK] + pattern(REST, "before")  # what the base holds

# The calls that only a session makes, by how their names begin.
# Swept where nothing is sealed.
HASHING = ("BCryptCreateHash", "BCryptHashData", "BCryptFinishHash", "BCryptDestroyHash")
SESSION = ("Co", "CreateVss", "VssFree", "SysFree", "IVss", "FindFirst", "FindNext", "FindVolume")


def build_machine(folder):
    """A disk of two chunks with two volumes on it. The one inside the first chunk serves nothing, the other one serves
    the second chunk; a third volume lies on another disk. One of the two writers failed."""
    machine = Machine(folder, source=512, target=bytes(512))
    machine.add_volume(volume_name(1), [(1, CHUNK, REST)], shadow_contents=FROZEN)
    machine.add_volume(volume_name(2), [(1, 65536, 1048576)])
    machine.add_volume(volume_name(3), [(2, 0, 512)])
    machine.shadow_service([("Registry Writer", 1, 0), ("Database Writer", 8, 0x800423F4)])
    return machine


def add_tracker(machine):
    """A tracker that proves what changed since the base: only the second chunk."""
    marked = bytearray((BITS + 7) // 8)
    marked[CHUNK >> 19] |= 1 << (CHUNK >> 16) % 8
    machine.tracker([{"number": 1, "has_previous_epoch": 1, "previous_epoch": BASE_EPOCH,
                      "current_epoch": BASE_EPOCH + 1, "bitmap": marked.hex()}])


def key_of(line):
    """A line of the log as the account has it."""
    moves = line["call"] in ("SetFilePointerEx", "ReadFile", "WriteFile")
    return line["call"], line.get("path"), line.get("offset") if moves else None


def expect_one_end_of_the_session(result):
    """Whatever happened: what was begun is ended, and nothing twice."""
    calls = [line["call"] for line in result.log]
    count = {name: calls.count("IVssBackupComponents::" + name) for name in (
        "AbortBackup", "BackupComplete", "DeleteSnapshots", "Release", "GatherWriterStatus")}
    set_exists = count["GatherWriterStatus"] == 1  # the first thing that is done once there is a set
    created = result.calls("CreateVssBackupComponents", status="0x00000000")
    initialised = result.calls("CoInitializeEx", status="0x00000000")
    if count["DeleteSnapshots"] != set_exists or count["Release"] != len(created):
        raise AssertionError(f"set created: {set_exists}, components: {len(created)}, calls: {count}")
    if calls.count("CoUninitialize") != len(initialised):
        raise AssertionError(f"{len(initialised)} initialisations and {calls.count('CoUninitialize')} ends of COM")
    died = result.status == 1 and "MoveFileExW" not in calls
    if set_exists and died and (count["AbortBackup"], count["BackupComplete"]) != (1, 0):
        raise AssertionError(f"the writers were not told that a capture failed: {count}")
    if not set_exists and count["AbortBackup"] + count["BackupComplete"]:
        raise AssertionError(f"the writers were told of a set that was never made: {count}")
    if set_exists:
        end = max(place for place, name in enumerate(calls) if name.endswith("DeleteSnapshots"))
        shadows = [place for place, line in enumerate(result.log) if "ShadowCopy" in line.get("path", "")]
        if shadows and max(shadows) > end:
            raise AssertionError("a shadow device outlived its set")


class SnapshotFaults(suite.Scenario):
    recorded = False

    def setUp(self):
        super().setUp()
        self.template = None

    def make(self, folder):
        machine = build_machine(folder)
        if self.with_tracker:
            add_tracker(machine)
        # The large files of all runs are one; a run that changed one would be found out.
        if self.template is None:
            machine.set_disk_bytes(1, LIVE)
        else:
            os.remove(machine.disk_path(1))
            os.link(self.template.disk_path(1), machine.disk_path(1))
        if self.base is not None and self.template is None:
            build_image(machine.path(BASE), BEFORE, chunk_size=CHUNK, epoch=BASE_EPOCH)
        elif self.base is not None:
            os.link(self.template.path(BASE), machine.path(BASE))
        if self.encrypt:
            machine.write("password.txt", PASSWORD + b"\r\n")
        return machine

    def account(self, faults):
        """The account of the run with these faults, on a machine of the same contents that is never run."""
        template = object.__new__(Machine)
        template.__dict__ = {**self.template.__dict__, "description": {**self.template.description, "faults": faults},
                             "disk_bytes": lambda number: LIVE}
        return Account(template, OUT, encrypt=self.encrypt, base=self.base, thin=self.thin).run()

    def expected(self, faults, verify=False):
        account = self.account(faults)
        return Expected(account.status, account.stdout, account.stderr,
                        lambda machine, result: self.check(account, machine, result, verify))

    def check(self, account, machine, result, verify):
        made = [key_of(line) for line in result.log]
        if made != account.calls:
            at = next((place for place, pair in enumerate(zip(made, account.calls)) if pair[0] != pair[1]),
                      min(len(made), len(account.calls)))
            wanted = account.calls[at:at + 6]
            raise AssertionError(f"calls from {at} on: {made[at:at + 6]} where {wanted} were expected")
        expect_one_end_of_the_session(result)
        self.assertTrue(machine.disk_bytes(1) == LIVE, "the source was written")
        if self.base is not None:
            self.assertTrue(hashlib.sha256(machine.read(BASE)).digest() == self.base_digest, "the base was changed")
        if self.with_tracker:
            now = machine.tracker_disk(1)
            committed = BASE_EPOCH + 1 if account.committed else BASE_EPOCH
            self.assertEqual((now["previous_epoch"], now["current_epoch"]), (committed, committed + 1))
        kept = {name for name in (BASE if self.base else None, "password.txt" if self.encrypt else None) if name}
        self.assertEqual(set(machine.files()), kept | ({account.image_name} if account.image_name else set()))
        self.check_image(account, machine)
        if verify and account.published and account.sound and self.whole(account):
            machine.clear_faults()
            again = machine.run("verify", "--in", OUT)
            if (again.status, again.stdout) != (0, verify_text(OUT, SIZE, CHUNK).encode()):
                raise AssertionError(f"the image does not verify: {again.describe()}")

    def check_image(self, account, machine):
        if account.image_name is None:
            return
        path = machine.path(account.image_name)
        content = machine.read(account.image_name)
        self.assertEqual(len(content), len(account.work.content), "length of the image")
        if account.work.foreseeable and not account.encrypt:
            self.assertTrue(content == bytes(account.work.content), "the image's bytes")
        finished = account.status == 0 or ("MoveFileExW", None, None) in account.calls
        if not finished:
            self.assertEqual(content[:64], bytes(len(content[:64])), "an unfinished file passes for an image")
        elif account.sound and self.whole(account):
            self.assertEqual(check_image(path, PASSWORD if self.encrypt else None), [])
            # The chunks were just found to be what their hashes say.
            plain = account.plain()
            self.assertEqual([record.hash for record in read_table(path)[1]],
                             [hashlib.sha256(plain[at:at + CHUNK]).digest() for at in range(0, SIZE, CHUNK)])
        elif not account.sound and account.encrypt and is_accepted(path, PASSWORD):
            self.check_sealed_chunks(account, path)

    def whole(self, account):
        """Whether header and table came to the file in full, by the account."""
        head = account.header.pack() + b"".join(record.pack() for record in account.records)
        return bytes(account.work.content[:len(head)]) == head

    def check_sealed_chunks(self, account, path):
        """An image whose hashes went wrong unnoticed still holds the bytes that were read."""
        header, records = read_table(path)
        key = derive_key(PASSWORD, header.salt, header.kdf_iterations)
        self.assertEqual([record.hash for record in records], [record.hash for record in account.records])
        with open(path, "rb") as file:
            file.seek(64 + 72 * len(records))
            plain = b"".join(unseal(key, record.nonce, record.tag, file.read(record.stored_length))
                             for record in records)
        self.assertTrue(plain == account.plain(), "the bytes in the sealed chunks")

    def arguments(self):
        options = ["capture", "--disk", "1", "--out", OUT, "--vss"]
        if self.encrypt:
            options += ["--encrypt", "--password-file", "password.txt"]
        if self.base is not None:
            options += ["--base", self.base]
        return options + (["--thin"] if self.thin else [])

    def prepare(self, *, encrypt=False, base=None, thin=False, tracker=False):
        self.encrypt, self.base, self.thin, self.with_tracker = encrypt, base, thin, tracker
        self.template = None
        self.template = self.make(os.path.join(self.folder, f"template{len(os.listdir(self.folder))}"))
        if base is not None:
            self.base_digest = hashlib.sha256(self.template.read(BASE)).digest()

    def sweep(self, leave_out=(), verify=False, **options):
        self.prepare(**options)
        kinds = {name for name, _, _ in self.account([]).calls} - set(leave_out)
        self.session_faults = 0

        def oracle(fault):
            expected = self.expected([fault.entry()], verify)
            if fault.call.kind.startswith(SESSION) or "Volume" in fault.call.path or "ShadowCopy" in fault.call.path:
                # Said a second time, without the account: only the reads of a shadow device are no part of the session.
                if fault.call.kind not in ("ReadFile", "SetFilePointerEx") and not fault.lasting:
                    self.assertEqual((expected.status, expected.stderr), (0, ""), fault)
                    self.session_faults += 1
            return expected

        count = sweep_faults(self, self.make, self.arguments(), self.expected([]), oracle, kinds)
        if not SETTINGS.sampled:
            self.assertGreater(self.session_faults, 50)
        return count

    # --- The sweeps ---

    def test_a_capture_with_each_call_failing(self):
        self.sweep(verify=True)

    def test_a_sealed_capture_with_each_call_failing(self):
        self.sweep(encrypt=True, leave_out=HASHING)

    def test_a_tracked_copy_with_each_call_failing(self):
        self.sweep(base=BASE, tracker=True)

    def test_a_compared_thin_capture_with_each_call_failing(self):
        self.sweep(base=BASE, thin=True)

    def test_a_tracked_thin_capture_with_each_call_failing(self):
        self.sweep(base=BASE, thin=True, tracker=True)

    def test_several_calls_failing_in_one_run(self):
        """Faults that meet each other: a fall-back and a fatal failure behind it, a failed end of a failed run."""
        if SETTINGS.sampled:
            self.skipTest("chosen at random; the native build runs them")
        for seed in range(60):
            chosen = random.Random(seed)
            self.prepare(encrypt=chosen.random() < 0.2, tracker=chosen.random() < 0.5,
                         **chosen.choice([{}, {"base": BASE}, {"base": BASE, "thin": True}]))
            self.run_with_several(chosen, seed)

    def run_with_several(self, chosen, seed):
        machine = self.make(os.path.join(self.folder, f"run{seed}"))
        self.machines.append(machine)
        clean = [{"call": name, "length": 4096} for name, _, _ in self.account([]).calls]
        calls = [call for call in calls_of(clean) if call.kind not in INFALLIBLE_CALLS]
        kinds = chosen.sample(sorted({call.kind for call in calls}), 4)
        for kind in kinds:
            call = chosen.choice([call for call in calls if call.kind == kind])
            _, effect = chosen.choice(effects_of(call))
            machine.add_fault(kind, skip=call.occurrence, times=chosen.choice([1, 2, 1000]), **effect)
        expected = self.expected(machine.description["faults"])
        result = self.expect(machine.run(*self.arguments()), expected.status, expected.stdout, expected.stderr)
        expected.check(machine, result)
        machine.remove()
        self.machines.remove(machine)


if __name__ == "__main__":
    suite.main()
