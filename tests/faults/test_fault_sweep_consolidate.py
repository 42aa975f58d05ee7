"""Each call of a consolidation failing in turn, and the process killed at each: what is said, and which file is left.

The course of a run is written down once, by hand and step by step: what stands on the console, what lies in the output,
and what comes of a failure of each call. A call that is not in the account has no failure that anybody looks at; the
sweep holds the account against the log of the healthy run, so that none is forgotten.
"""

import os
import tempfile
from collections import Counter, defaultdict
from dataclasses import dataclass
from typing import Callable, Optional

import suite
from consolidate_runs import (ALREADY_THERE, BAD_HASH, BAD_TAG, NO_OUTPUT, NO_PATHS, UNREADABLE, WRITE_FAILED,
                              consolidate_text, consolidated_line, plain_full_image)
from console import fatal, fatal_status, meter, meter_run, verify_failed, verifying_line
from image import build_image, is_accepted, reference_plain_bytes
from incremental import missing_base, other_base
from machine import SETTINGS, Machine, pattern
from sweep import SAMPLE, Expected, sweep_faults, sweep_kills

CHUNK = 4096
PASSWORD = b"password"
OUT = "out.vrnx"
# Their failures have no consequence: what they release stays, and a length that could not be had counts as 0.
UNEXAMINED = {"BCryptCloseAlgorithmProvider", "BCryptDestroyKey", "BCryptDestroyHash", "BCryptGetProperty"}
# What a digest alone calls. A run that derives keys takes long, so these are swept where there are none.
DIGEST = {"BCryptCreateHash", "BCryptHashData", "BCryptFinishHash", "BCryptDestroyHash"}
# What a key and what is sealed under it call.
SEAL = {"BCryptOpenAlgorithmProvider", "BCryptDeriveKeyPBKDF2", "BCryptSetProperty", "BCryptGenerateSymmetricKey",
        "BCryptGenRandom", "BCryptEncrypt", "BCryptDecrypt", "BCryptDestroyKey", "WriteFile"}


@dataclass
class Step:
    """A call whose failure comes out: as an end of the run, or as a chunk that the verification counts."""

    kind: str
    shown_at: int                             # where in the account it shows; behind the step itself for a wrong digest
    stdout: str
    stderr: Optional[Callable] = None         # stderr(fault)
    content: Optional[Callable] = None        # content(fault) of the output, None for no output
    bad_chunk: Optional[int] = None           # the verification counts this chunk and goes on
    unsealed: bool = True                     # it was unsealed, and its digest is what differs


class Account:
    """One run: the chain, the options, and its steps in the order of the program's promises."""

    def __init__(self, *, chunks=3, sealed=(False,), encrypt=False):
        self.sealed, self.encrypt, self.count = sealed, encrypt, chunks
        self.size = chunks * CHUNK - 1000
        self.names = [f"link{place}.vrnx" for place in range(len(sealed))]
        self.top = len(sealed) - 1
        # Link 1 changes chunk 1, link 2 chunk 0; what is left is always a reference.
        self.disks = [pattern(self.size, "disk")]
        self.stored_in = [0] * chunks
        for link in range(1, len(sealed)):
            index = {1: 1, 2: 0}[link]
            changed = bytearray(self.disks[-1])
            changed[index * CHUNK:index * CHUNK + 100] = pattern(100, f"link {link}")
            self.disks.append(bytes(changed))
            self.stored_in[index] = link
        self.plain = self.disks[-1]
        self.arguments = ["consolidate", "--in", self.names[-1], "--out", OUT]
        if encrypt or any(sealed):
            self.arguments += ["--password-file", "password"]
        if encrypt:
            self.arguments.append("--encrypt")
        self.files = self.build_chain()
        self.steps = defaultdict(list)
        self.position = 0
        self.stdout = ""
        self.content = None  # what the output holds now; None: there is none
        self.tell()

    def build_chain(self):
        """The images by name. They are built once and copied, since deriving a key takes long."""
        images = {"password": PASSWORD}
        with tempfile.TemporaryDirectory(prefix="vornix-chain-") as folder:
            for link, name in enumerate(self.names):
                builder = build_image(os.path.join(folder, name), self.disks[link], chunk_size=CHUNK, epoch=77,
                                      seed=name,
                                      password=PASSWORD if self.sealed[link] else None,
                                      base=os.path.join(folder, self.names[link - 1]) if link else None)
                images[name] = builder.to_bytes()
        return images

    def make(self, folder):
        machine = Machine(folder, default=False)
        for name, content in self.files.items():
            machine.write(name, content)
        return machine

    # --- The account ---

    def step(self, kind, message=None, *, status=False, stderr=None, content=None, shown_at=None, stdout=None,
             bad_chunk=None,
             unsealed=True):
        """`message` is that of a fatal end; `stderr` is given where there is more to it."""
        self.position += 1
        if stderr is None and message is not None:
            if status:
                def stderr(fault):
                    return fatal_status(message, fault.status)
            else:
                def stderr(fault):
                    return fatal(message) if fault.error is None else fatal(message, fault.error)
        left = self.content
        self.steps[kind].append(Step(kind, self.position if shown_at is None else shown_at,
                                     self.stdout if stdout is None else stdout, stderr,
                                     (lambda fault: left) if content is None else content, bad_chunk, unsealed))

    def harmless(self, kind):
        """A call whose failure nobody looks at, of a kind that has others."""
        self.position += 1
        self.steps[kind].append(None)

    def sha256(self, **wrong):
        """A digest; `wrong` tells what comes of a wrong one, nothing where it is not held against anything."""
        self.step("BCryptOpenAlgorithmProvider", "BCryptOpenAlgorithmProvider(SHA256)", status=True)
        self.step("BCryptCreateHash", "BCryptCreateHash", status=True)
        for kind in ("BCryptHashData", "BCryptFinishHash"):
            if wrong:
                self.step(kind, **wrong)
            else:
                self.harmless(kind)

    def key(self):
        self.step("BCryptOpenAlgorithmProvider", "BCryptOpenAlgorithmProvider(HMAC-SHA256)", status=True)
        self.step("BCryptDeriveKeyPBKDF2", "BCryptDeriveKeyPBKDF2", status=True)
        self.step("BCryptOpenAlgorithmProvider", "BCryptOpenAlgorithmProvider(AES)", status=True)
        self.step("BCryptSetProperty", "BCryptSetProperty(GCM)", status=True)
        self.step("BCryptGenerateSymmetricKey", "BCryptGenerateSymmetricKey", status=True)

    def random(self):
        self.step("BCryptOpenAlgorithmProvider", "BCryptOpenAlgorithmProvider(RNG)", status=True)
        self.step("BCryptGenRandom", "BCryptGenRandom", status=True)

    def head(self, name, digest_shown_at=None, sealed=False):
        """The opening of an image up to its key. A wrong digest shows only where a pin is held against it."""
        self.step("CreateFileW", stderr=lambda fault: f"could not open image file: {name}\n"
                  + fatal("could not open image file", fault.error))
        self.step("ReadFile", "could not read image header - file is truncated or not a .vrnx image")
        self.step("GetFileSizeEx", "image is truncated before its chunk table")
        self.step("ReadFile", "could not read chunk table - image is truncated")
        if digest_shown_at is None:
            self.sha256()
        else:
            self.sha256(stderr=lambda fault: other_base(name)
                        + fatal("base image does not match the one pinned in the thin image"), shown_at=digest_shown_at)
        if sealed:
            self.key()

    def opening(self, link):
        """An image of the chain and all that lies below it."""
        # A base is opened whole before its digest is compared: the one below a base comes out first.
        self.head(self.names[link], None if link == self.top else 900 + link, self.sealed[link])
        if link == 0:
            return
        self.step("SetFilePointerEx", "thin image has no valid trailer - file is truncated")
        self.step("ReadFile", "thin image has no valid trailer - file is truncated")
        self.step("SetFilePointerEx", "could not read thin image trailer")
        self.step("ReadFile", "could not read thin image trailer")
        base = self.names[link - 1]
        self.step("GetFileAttributesA", stderr=lambda fault: missing_base(base)
                  + fatal("base image of a thin image not found", fault.error))
        self.opening(link - 1)
        self.harmless("SetFilePointerEx")
        self.harmless("SetFilePointerEx")

    def tell(self):
        self.step("_fullpath", NO_PATHS)
        self.step("_fullpath", NO_PATHS)
        self.harmless("GetFileAttributesA")  # a failed look for the output finds none
        # What is wrong with the digest of link k shows at 900 + k: behind all openings, the lowest link first.
        self.opening(self.top)
        self.position = 1000
        if self.encrypt:
            self.random()
            self.key()
        self.step("CreateFileW", NO_OUTPUT)
        self.content = b""
        self.folding()
        self.closing()
        self.verification()

    # --- What the output holds, as a plain one has it; of a sealed one only its length and its zeros can be foretold --

    @property
    def start(self):
        return 64 + 72 * self.count

    def partial(self, written):
        return bytes(self.start) + self.plain[:written] if written else b""

    def start_written(self, header, table, at=0, shifted=False):
        """The file with this much of header and table written, from `at` on; `shifted`: with no room kept for them."""
        data = bytearray(self.plain if shifted else bytes(self.start) + self.plain)
        start = plain_full_image(self.plain, CHUNK)[:self.start]
        written = start[:header] + start[64:64 + table]
        at = len(data) if at is None else at
        data[at:at + len(written)] = written
        return bytes(data)

    def folding(self):
        verified = 2000  # where the closing verification stands in the account
        # With no room kept for header and table, the chunks come to lie at the start, and the start over them.
        self.step("SetFilePointerEx", stderr=lambda fault: fatal("image chunk data extends past end of file"),
                  content=lambda fault: self.start_written(64, 72 * self.count, shifted=True), shown_at=verified,
                  stdout=self.folded())
        for index in range(self.count):
            self.stdout = meter_run(self.size, CHUNK, upto=index)
            self.content = self.partial(index * CHUNK)
            self.step("SetFilePointerEx", UNREADABLE)
            self.step("ReadFile", UNREADABLE)
            if self.sealed[self.stored_in[index]]:
                self.step("BCryptDecrypt", stderr=lambda fault: fatal(BAD_TAG))
            for _ in range(self.stored_in[index], self.top + 1):
                self.sha256(stderr=lambda fault: fatal(BAD_HASH))
            if self.encrypt:
                self.random()
                self.step("BCryptEncrypt", "BCryptEncrypt", status=True)
            self.step("WriteFile", WRITE_FAILED, content=lambda fault, index=index: self.partial(
                index * CHUNK + fault.effect.get("transferred", 0)))

    def folded(self):
        return meter_run(self.size, CHUNK) + "\n" + consolidated_line(OUT)

    def closing(self):
        """The writes of the start, at which nobody looks: the verification finds what went wrong with them."""
        self.stdout = self.folded()
        table = 72 * self.count
        self.position = 1990
        no_magic = "not a recognized Vornix image (bad magic/version)"
        self.step("SetFilePointerEx", stderr=lambda fault: fatal(no_magic), shown_at=2000,
                  content=lambda fault: self.start_written(64, table, at=None))

        def lost_header(fault):
            # What follows a header of which nothing or a half was written takes its place.
            done = fault.effect.get("transferred", 0)
            return self.start_written(done, done if fault.lasting else table)

        self.step("WriteFile", shown_at=2000, content=lost_header, stderr=lambda fault: fatal(
            "image has invalid encryption/KDF parameters" if "transferred" in fault.effect else no_magic))
        self.step("WriteFile", shown_at=2001,
                  stderr=lambda fault: fatal("image chunk table has an invalid offset or length"),
                  content=lambda fault: self.start_written(64, fault.effect.get("transferred", 0)))
        self.content = self.start_written(64, table)
        # A handle that was not closed keeps others from the file.
        self.step("CloseHandle", shown_at=2000, stderr=lambda fault: f"could not open image file: {OUT}\n"
                  + fatal("could not open image file", 32))
        self.harmless("CloseHandle")

    def verification(self):
        self.position = 2100
        self.head(OUT, sealed=self.encrypt)
        self.stdout += verifying_line(OUT, self.count, self.size)
        self.step("_aligned_malloc", "out of memory allocating aligned I/O buffer")
        before = self.stdout
        for index in range(self.count):
            self.stdout = before + meter_run(self.size, CHUNK, upto=index)
            self.step("ReadFile", "could not read chunk data - image is truncated")
            if self.encrypt:
                self.step("BCryptDecrypt", bad_chunk=index, unsealed=False)
            self.sha256(bad_chunk=index)
        self.harmless("CloseHandle")
        self.verifying = before

    # --- The oracle ---

    def clean(self):
        return Expected(0, consolidate_text(OUT, self.size, CHUNK), "", self.check(self.content))

    def oracle(self, fault):
        hits = [self.steps[call.kind][call.occurrence] for call in fault.hits if call.kind not in UNEXAMINED]
        ends = [step for step in hits if step is not None and step.bad_chunk is None]
        if ends:
            first = min(ends, key=lambda step: step.shown_at)
            return Expected(1, first.stdout, first.stderr(fault), self.check(first.content(fault)))
        bad = {step.bad_chunk: step.unsealed for step in hits if step is not None}
        return self.verdict(bad) if bad else self.clean()

    def verdict(self, bad):
        """A verification that counted these chunks; a chunk that was not unsealed does not move the meter."""
        text, looks = self.verifying, 0
        for index in range(self.count):
            if index in bad:
                what = "HASH MISMATCH" if bad[index] else "AUTHENTICATION FAILED (corrupt or tampered)"
                text += f"\n  chunk {index} (disk offset {index * CHUNK}): {what}\n"
            if bad.get(index, True) and index in (0, self.count - 1):
                looks += 1
                text += meter(min((index + 1) * CHUNK, self.size), self.size, looks)
        return Expected(1, text + "\n", verify_failed(len(bad), self.count), self.check(self.content))

    def check(self, content):
        def look(machine, result):
            self.expect_inputs(machine)
            self.expect_output(machine, content)
        return look

    def expect_inputs(self, machine):
        """The chain is as it was, and no file has come or gone but the output."""
        others = [name for name in machine.files() if name != OUT]
        if others != sorted(self.files):
            raise AssertionError(f"other files: {others}")
        for name, content in self.files.items():
            if machine.read(name) != content:
                raise AssertionError(f"{name} was changed")

    def expect_output(self, machine, content):
        if machine.exists(OUT) != (content is not None):
            raise AssertionError("there is an output" if content is None else "there is no output")
        if content is None:
            return
        actual, path = machine.read(OUT), machine.path(OUT)
        complete = content == self.content
        if is_accepted(path) != complete:
            raise AssertionError("an unfinished file passes for an image" if not complete
                                 else "a good image does not open")
        if len(actual) != len(content):
            raise AssertionError(f"an output of {len(actual)} bytes where {len(content)} were expected")
        if not self.encrypt:
            if actual != content:
                raise AssertionError(f"the output differs: {suite.first_difference(actual, content)}")
        elif complete:
            if reference_plain_bytes(path, PASSWORD) != self.plain:
                raise AssertionError("the sealed output stands for another disk")
        elif not any(content[:self.start]) and any(actual[:self.start]):
            raise AssertionError("the start of the output is not zero")


class Sweeps(suite.Scenario):
    recorded = False

    def sweep(self, account, kinds=None):
        # The account knows every call of the healthy run.
        def look(machine, result):
            counted = Counter(line["call"] for line in result.log)
            for kind in ("exit", "GetTickCount64", *UNEXAMINED):
                counted.pop(kind, None)
            self.assertEqual(counted, Counter({kind: len(steps) for kind, steps in account.steps.items()}))
            clean.check(machine, result)

        clean = account.clean()
        runs = sweep_faults(self, account.make, account.arguments,
                            Expected(clean.status, clean.stdout, clean.stderr, look), account.oracle, kinds)
        self.assertGreaterEqual(runs, SAMPLE if self.settings.sampled else 21)

    def test_of_a_full_image(self):
        self.sweep(Account())

    def test_of_a_plain_chain(self):
        self.sweep(Account(sealed=(False, False, False)))

    def test_that_seals_a_plain_image(self):
        account = Account(chunks=2, encrypt=True)
        self.sweep(account, None if SETTINGS.long else {*account.steps, *UNEXAMINED} - DIGEST)

    def test_that_unseals_a_mixed_chain(self):
        self.sweep(Account(sealed=(False, True)))

    def test_that_seals_a_sealed_chain_anew(self):
        self.sweep(Account(chunks=2, sealed=(True, True), encrypt=True), None if SETTINGS.long else SEAL)


class Kills(suite.Scenario):
    """Whatever the moment, the process leaves no file that passes for an image before it is one."""

    recorded = False

    def sweep(self, account):
        def after(machine, result, call):
            account.expect_inputs(machine)
            lines = result.calls("WriteFile")
            torn = call.line["length"] // 2 if call.kind == "WriteFile" else 0
            created = bool(result.calls("CreateFileW", path=OUT))
            if machine.exists(OUT) != created:
                raise AssertionError("there is an output" if not created else "there is no output")
            if not created:
                return
            data = [line for line in lines if line["offset"] >= account.start]
            starts = [line for line in lines if line["offset"] < account.start]
            path = machine.path(OUT)
            if is_accepted(path) != (len(starts) == 2):
                raise AssertionError("an unfinished file passes for an image, or a finished one does not")
            if not starts:
                actual = machine.read(OUT)
                half = actual[:account.start] if call.line.get("offset") == 0 else b""
                if any(actual[len(half):account.start]):
                    raise AssertionError("the start is not zero")
                count = sum(line["length"] for line in data)
                if len(actual) < count or len(actual) > account.start + count + torn:
                    raise AssertionError(f"{len(actual)} bytes after {count} of chunk data")
                if not account.encrypt and actual[account.start:account.start + count] != account.plain[:count]:
                    raise AssertionError("the chunk data differ")

        def again(machine, call):
            if not machine.exists(OUT):
                return clean
            held = machine.read(OUT)

            def look(machine, result):
                if machine.read(OUT) != held:
                    raise AssertionError("the output was touched")
                if account.encrypt and not SETTINGS.long:
                    return
                os.remove(machine.path(OUT))
                third = machine.run(*account.arguments)
                if third.status != clean.status or third.stdout != clean.stdout.encode():
                    raise AssertionError(f"the run after the removal\n{third.describe()}")
                clean.check(machine, third)
            return Expected(1, "", fatal(ALREADY_THERE), look)

        clean = account.clean()
        runs = sweep_kills(self, account.make, account.arguments, clean, after, again)
        self.assertGreaterEqual(runs, SAMPLE if self.settings.sampled else 21)

    def test_of_a_plain_chain(self):
        self.sweep(Account(sealed=(False, False)))

    def test_that_seals(self):
        self.sweep(Account(chunks=2, encrypt=True))


if __name__ == "__main__":
    suite.main()
