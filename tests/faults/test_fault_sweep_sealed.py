"""Each call of capture --encrypt and of verify and restore of a sealed image failing in turn, and the capture killed at
each: what keys, nonces and tags add to the plain runs, and that nothing of password or disk ever lies open."""

import json
import os

import suite
from console import NO_TRACKER, capture_text, restore_text, source_line, verify_text
from run_model import Capture, Restore, Scene, Verify, sweep_capture_kills, sweep_model
from sealing import PASSWORD
from suite import require

DISK = Scene((), ("a",), ("b",))
IMAGE = Scene(("a.vrnx",), ("a", "a"), ("b", "b"), ("c", "c"), chunk_size=4096, sealed=("a.vrnx",))
CAPTURE = ["capture", "--disk", "1", "--out", "new.vrnx", "--encrypt", "--password-file", "password"]
VERIFY = ["verify", "--in", "a.vrnx", "--password-file", "password"]
RESTORE = ["restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES", "--password-file", "password"]
TEXTS = {"capture": capture_text(1, DISK.size, "new.vrnx"), "verify": verify_text("a.vrnx", IMAGE.size, 4096),
         "restore": restore_text("a.vrnx", 2, IMAGE.size, 4096)}


class FaultSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def test_capture(self):
        sweep_model(self, DISK.capturing(), CAPTURE, lambda fault: Capture(DISK, fault, seal=True), TEXTS["capture"],
                    110)

    def test_verify(self):
        sweep_model(self, IMAGE.reading, VERIFY, lambda fault: Verify(IMAGE, fault), TEXTS["verify"], 95)

    def test_restore(self):
        sweep_model(self, IMAGE.reading, RESTORE, lambda fault: Restore(IMAGE, fault), TEXTS["restore"], 85)

    def make(self, arguments, name):
        machine = (DISK.capturing() if arguments is CAPTURE else IMAGE.reading)(os.path.join(self.folder, name))
        self.machines.append(machine)
        return machine

    def test_the_report_carries_whatever_status_the_call_gave(self):
        # The words of each primitive that ends a run, under statuses of its own: (arguments, call, skip, report).
        cases = [(CAPTURE, "BCryptOpenAlgorithmProvider", 0, "BCryptOpenAlgorithmProvider(RNG)"),
                 (CAPTURE, "BCryptGenRandom", 0, "BCryptGenRandom"),
                 (CAPTURE, "BCryptOpenAlgorithmProvider", 1, "BCryptOpenAlgorithmProvider(HMAC-SHA256)"),
                 (CAPTURE, "BCryptDeriveKeyPBKDF2", 0, "BCryptDeriveKeyPBKDF2"),
                 (CAPTURE, "BCryptOpenAlgorithmProvider", 2, "BCryptOpenAlgorithmProvider(AES)"),
                 (CAPTURE, "BCryptSetProperty", 0, "BCryptSetProperty(GCM)"),
                 (CAPTURE, "BCryptGenerateSymmetricKey", 0, "BCryptGenerateSymmetricKey"),
                 (CAPTURE, "BCryptOpenAlgorithmProvider", 3, "BCryptOpenAlgorithmProvider(SHA256)"),
                 (CAPTURE, "BCryptCreateHash", 0, "BCryptCreateHash"),
                 (CAPTURE, "BCryptOpenAlgorithmProvider", 4, "BCryptOpenAlgorithmProvider(RNG)"),
                 (CAPTURE, "BCryptGenRandom", 1, "BCryptGenRandom"),
                 (CAPTURE, "BCryptEncrypt", 0, "BCryptEncrypt"),
                 (VERIFY, "BCryptOpenAlgorithmProvider", 1, "BCryptOpenAlgorithmProvider(HMAC-SHA256)"),
                 (VERIFY, "BCryptDeriveKeyPBKDF2", 0, "BCryptDeriveKeyPBKDF2"),
                 (VERIFY, "BCryptOpenAlgorithmProvider", 2, "BCryptOpenAlgorithmProvider(AES)"),
                 (RESTORE, "BCryptSetProperty", 0, "BCryptSetProperty(GCM)"),
                 (RESTORE, "BCryptGenerateSymmetricKey", 0, "BCryptGenerateSymmetricKey")]
        for place, (arguments, call, skip, report) in enumerate(cases):
            status = 0xC0000100 + place if place % 3 else 0x80000001 + place
            machine = self.make(arguments, str(place))
            machine.add_fault(call, skip=skip, status=f"0x{status:08X}")
            result = machine.run(*arguments)
            self.assertEqual((result.status, result.stderr.decode()),
                             (1, f"FATAL: {report} (NTSTATUS 0x{status:08X})\n"))

    def test_a_status_that_is_no_failure_ends_nothing(self):
        # Of the calls that release something, so that the run misses nothing that a call should have given.
        for arguments in (CAPTURE, VERIFY, RESTORE):
            machine = self.make(arguments, arguments[0])
            for call in ("BCryptDestroyHash", "BCryptDestroyKey", "BCryptCloseAlgorithmProvider"):
                machine.add_fault(call, times=1000, status="0x40000001")
            self.expect(machine.run(*arguments), 0, TEXTS[arguments[0]])


class KillSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def test_capture(self):
        def nothing_lies_open(machine, result, name, _finished):
            seen = json.dumps(result.log).encode() + result.stdout + machine.read(name)
            for secret in (PASSWORD, DISK.disk[100:132], DISK.disk[-100:-68]):
                require(secret not in seen, "password or disk lies open in what the run left")

        sweep_capture_kills(self, DISK, CAPTURE, TEXTS["capture"], 65, look=nothing_lies_open,
                            refused_text=source_line(1, DISK.size) + NO_TRACKER)


if __name__ == "__main__":
    suite.main()
