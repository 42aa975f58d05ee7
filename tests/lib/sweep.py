"""Sweeps: one command, and each call that it makes of its platform failing in turn.

A sweep runs its command once on a healthy machine, reads the log of calls, and then runs it again on a fresh machine
for each call of that log and each way in which that call can fail: once, and from then on. What must happen then is
said by the suite, in an oracle written by hand from what the program promises; the sweep has no opinion of its own.

    def oracle(fault):                              # a Fault
        for call in fault.hits:                     # the calls of the clean run that are hit, in order
            if call.kind == "CreateFileW" and call.path == r"\\\\.\\PhysicalDrive1":
                return Expected(1, "", fatal("could not open source disk ...", fault.error))
            ...                                     # a call whose result is left unexamined: look at the next hit
        return CLEAN

    sweep_faults(self, make, ["capture", "--disk", "1", "--out", "a.vrnx"], CLEAN, oracle)

`make(folder)` gives a fresh Machine in `folder`. An Expected may carry `check(machine, result)`, which looks at disks
and files and raises AssertionError. `sweep_kills` ends the process at each call in turn instead.
"""

import concurrent.futures
import os
import shutil
import tempfile
import traceback
from collections import Counter
from dataclasses import dataclass, field
from typing import Callable, Optional

import counts
import image
import suite
from machine import SETTINGS
from suite import require, require_equal

# Last errors and statuses that nothing else in a run gives, so that a message which shows them shows this fault.
INJECTED_ERROR = 1117
INJECTED_NTSTATUS = 0xC0000001
INJECTED_HRESULT = 0x80004005

LASTING = 1000000  # `times` of a fault that goes on from its call to the end of the run
SAMPLE = 3         # runs of one sweep under Wine and the sanitizers: the first, one amid, the last

LAST_ERROR_CALLS = {
    "CreateFileW", "ReadFile", "WriteFile", "SetFilePointerEx", "GetFileSizeEx", "DeviceIoControl", "CloseHandle",
    "GetFileAttributesA", "MoveFileExW", "FindFirstVolumeW", "FindNextVolumeW", "FindVolumeClose"}
NULL_CALLS = {"_aligned_malloc", "_fullpath"}
# Nothing that these do can fail: they give a value or nothing at all.
INFALLIBLE_CALLS = {"GetTickCount64", "CoUninitialize", "SysFreeString", "VssFreeSnapshotProperties", "exit",
                    "IVssBackupComponents::Release", "IVssAsync::Release"}
ASYNC_CALLS = {"IVssBackupComponents::" + name for name in (
    "GatherWriterMetadata", "PrepareForBackup", "DoSnapshotSet", "GatherWriterStatus", "BackupComplete")}
ASYNC_PENDING = 0x00042309


@dataclass
class Call:
    """One call of the clean run."""

    index: int       # its place in the log, from 0
    kind: str        # its name
    occurrence: int  # how many calls of that name came before it
    line: dict       # its line in the log

    @property
    def path(self):
        return self.line.get("path", "")

    def __str__(self):
        return f"{self.kind} #{self.occurrence} ({self.path})" if self.path else f"{self.kind} #{self.occurrence}"


@dataclass
class Fault:
    """One run of a sweep: which call is hit, and how."""

    call: Call
    variant: str     # "error", "short", "short with error", "status", "null", "null async", "async status"
    effect: dict     # the effect as the description has it
    lasting: bool    # from this call on, and not this call alone
    hits: list       # the calls of the clean run that it would hit

    @property
    def error(self):
        """The last error that the fault leaves, or None where it leaves none of its own."""
        return self.effect.get("error")

    @property
    def status(self):
        return int(self.effect["status"], 16) if "status" in self.effect else None

    def entry(self):
        return {"call": self.call.kind, "skip": self.call.occurrence, "times": LASTING if self.lasting else 1,
                **self.effect}

    def __str__(self):
        return f"{self.call}: {self.variant}{' from then on' if self.lasting else ''}"


@dataclass
class Expected:
    """What a run must show, byte for byte, and what it must leave behind."""

    status: int = 0
    stdout: str = ""
    stderr: str = ""
    check: Optional[Callable] = None  # check(machine, result): raises AssertionError
    meaning: str = field(default="", compare=False)  # a word on why, shown with a failure


@dataclass
class Judged:
    """In place of an Expected: `check` says by itself what is right, status and streams included."""

    check: Callable
    meaning: str = ""


def calls_of(log):
    """The log as Call objects, the closing `exit` line left out."""
    seen, calls = Counter(), []
    for index, line in enumerate(log):
        if line["call"] == "exit":
            continue
        calls.append(Call(index, line["call"], seen[line["call"]], line))
        seen[line["call"]] += 1
    return calls


def effects_of(call):
    """The ways in which this call can fail, as (variant, effect)."""
    if call.kind in INFALLIBLE_CALLS:
        return []
    if call.kind in NULL_CALLS:
        return [("null", {"null": True})]
    if call.kind in LAST_ERROR_CALLS:
        effects = [("error", {"error": INJECTED_ERROR})]
        if call.kind in ("ReadFile", "WriteFile"):
            half = call.line["length"] // 2
            effects += [("short", {"transferred": half}),
                        ("short with error", {"transferred": half, "error": INJECTED_ERROR})]
        return effects
    if call.kind.startswith("BCrypt"):
        return [("status", {"status": f"0x{INJECTED_NTSTATUS:08X}"})]
    effects = [("status", {"status": f"0x{INJECTED_HRESULT:08X}"})]
    if call.kind in ASYNC_CALLS:
        effects.append(("null async", {"null_async": True}))
    if call.kind == "IVssAsync::QueryStatus":
        effects.append(("async status", {"async_status": f"0x{ASYNC_PENDING:08X}"}))
    return effects


def faults_of(log):
    """Every fault of a sweep over this clean log."""
    calls = calls_of(log)
    faults = []
    for call in calls:
        later = [other for other in calls if other.kind == call.kind and other.index >= call.index]
        for variant, effect in effects_of(call):
            faults.append(Fault(call, variant, effect, False, [call]))
            if len(later) > 1:
                faults.append(Fault(call, variant, effect, True, later))
    return faults


def sample(items, limit):
    """All items, or about `limit` of them spread evenly, the first and the last among them."""
    if limit is None or len(items) <= limit:
        return items
    return [items[round(place * (len(items) - 1) / (limit - 1))] for place in range(limit)]


def _limit(limit=None):
    """How many runs a sweep may have: where runs are sampled anyway, the caller's own limit only makes them fewer."""
    if not SETTINGS.sampled:
        return limit
    return SAMPLE if limit is None else min(limit, SAMPLE)


def _count(test, kind, clean_result, tried, possible, least):
    counts.count(test, kind, len(calls_of(clean_result.log)), len(tried), len(possible))
    test.assertGreaterEqual(len(tried), min(least, SAMPLE) if SETTINGS.sampled else least)


def _judge(expected, machine, result):
    """The text of what is wrong with the run, or None."""
    problems = []
    compared = not isinstance(expected, Judged)
    if compared and result.status != expected.status:
        problems.append(f"status {result.status} where {expected.status} was expected")
    for name in ("stdout", "stderr") if compared else ():
        actual, wanted = getattr(result, name), getattr(expected, name)
        if not suite.matches(actual, wanted):
            problems.append(f"{name} differs\n    expected {suite.as_bytes(wanted)!r}\n    actual   {actual!r}")
    if expected.check is not None and not problems:
        try:
            expected.check(machine, result)
        except AssertionError as error:
            problems.append(f"state: {error}")
        except Exception:  # the check itself broke on what it found
            problems.append(traceback.format_exc())
    return "\n".join(problems) if problems else None


def _in_fresh_folder(make, body):
    folder = tempfile.mkdtemp(prefix="vornix-sweep-")
    try:
        return body(make(folder))
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def _run_all(test, items, body):
    """Runs body(item) for each, two at a time; a text that it gives is a failure."""
    def guarded(item):
        try:
            return body(item)
        except Exception:  # the oracle has no word on it, or broke: a failure of this run and not the end of the sweep
            return f"{item}\n{traceback.format_exc()}"

    jobs = int(os.environ.get("VORNIX_JOBS") or 2)
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        texts = [text for text in pool.map(guarded, items) if text]
    if texts:
        shown = "\n\n".join(texts[:5])
        test.fail(f"{len(texts)} of {len(items)} runs of the sweep went wrong; the first:\n{shown}")


def _judge_image(machine, result, third_reader=True):
    """What the other readers hold against the image of a run that succeeded on a machine without faults, or None. The
    third one looks at one image of a sweep and not at each: they are alike, and the second one looks at all."""
    trouble = suite.trouble_with_made_image(machine, result, third_reader)
    return f"the other readers on the image: {trouble}" if trouble else None


def _judge_image_under_fault(machine, result):
    """The same for a run with a fault: results that are left unexamined may leave a file that is no image, but one that
    every reader takes, chunk by chunk, has to be the right one. A failed run leaves none, but for a consolidation that
    failed while it read its image back."""
    out = suite.option(result.arguments, "--out")
    read_back = result.status != 0 and result.arguments[0] == "consolidate"
    if out is None or read_back or not os.path.exists(machine.host_path(out)):
        return None
    trouble = "an image was left that every reader takes, although the run failed"
    if result.status == 0:
        trouble = _judge_image(machine, result, third_reader=False)
    if trouble is None:
        return None
    password_file, password = suite.option(result.arguments, "--password-file"), None
    if password_file is not None:
        password = image.trim_password(machine.read(password_file))
    return None if image.check_image(machine.host_path(out), password) else trouble


def clean_run(test, make, arguments, expected):
    """The run on the healthy machine, asserted; gives its Result and the machine's disks and files afterwards."""
    def body(machine):
        result = machine.run(*arguments)
        problem = _judge(expected, machine, result) or _judge_image(machine, result)
        if problem:
            test.fail(f"the clean run of the sweep went wrong\n{problem}\n{result.describe()}")
        return result, {disk["number"]: machine.disk_bytes(disk["number"]) for disk in machine.description["disks"]}
    return _in_fresh_folder(make, body)


def sweep_faults(test, make, arguments, clean, oracle, limit=None, made=None, least=0):
    """The fault sweep; `clean` is the Expected of the healthy machine, and `made` what `clean_run` gave where the
    caller has asked it already. There are at most `limit` runs, and at least `least` unless they are sampled."""
    result, _ = made or clean_run(test, make, arguments, clean)
    possible = faults_of(result.log)
    faults = sample(possible, _limit(limit))
    test.assertTrue(faults, "the clean run made no call that can fail")

    def body(fault):
        def run(machine):
            machine.add_fault(**fault.entry())
            expected = oracle(fault)
            outcome = machine.run(*arguments)
            problem = _judge(expected, machine, outcome) or _judge_image_under_fault(machine, outcome)
            meaning = f" ({expected.meaning})" if expected.meaning else ""
            return f"{fault}{meaning}\n{problem}\n{outcome.describe()}" if problem else None
        return _in_fresh_folder(make, run)

    _run_all(test, faults, body)
    _count(test, "faults", result, faults, possible, least)


def _expect_writes_as_logged(machine, result, initial, final, torn):
    """Every disk holds what it held, with the logged writes on it and nothing else.

    The bytes of a write are those that the clean run left there. `torn` is how many bytes of the killed call may have
    been written behind the last logged position; None where the killed call was no transfer.
    """
    written = {number: [] for number in initial}
    for line in result.calls("WriteFile"):
        for number in initial:
            if line["path"].endswith(f"PhysicalDrive{number}"):
                written[number].append((line["offset"], line["transferred"]))
    if torn is not None:
        number, offset, count = torn
        written[number].append((offset, count))
    for number, before in initial.items():
        expected = bytearray(before)
        for offset, count in written[number]:
            expected[offset:offset + count] = final[number][offset:offset + count]
        require_equal(machine.disk_bytes(number), expected, f"disk {number} after the kill")


def sweep_kills(test, make, arguments, clean, after=None, again=None, limit=None, made=None, least=0):
    """The kill sweep: the process ends at each call of the clean run in turn; transfers also half-way.

    After each kill: status 137, nothing on standard error, standard output a beginning of the clean one, the log what
    the clean run had logged up to there, and on each disk exactly the logged writes. Then `after(machine, result,
    call)` looks at the files (the fault is gone from the machine by then), and `again(machine, call)` gives the
    Expected of the same command run once more on the machine as the kill left it (absent: that of the clean run). The
    rest is as of a fault sweep.
    """
    clean_result, final = made or clean_run(test, make, arguments, clean)
    initial = _in_fresh_folder(make, lambda machine: {
        disk["number"]: machine.disk_bytes(disk["number"]) for disk in machine.description["disks"]})
    kills = []
    for call in calls_of(clean_result.log):
        kills.append((call, {"kill": True}))
        if call.kind in ("ReadFile", "WriteFile") and call.line["length"] > 1:
            kills.append((call, {"kill": True, "transferred": call.line["length"] // 2}))
    possible, kills = kills, sample(kills, _limit(limit))

    def body(kill):
        call, effect = kill

        def run(machine):
            machine.add_fault(call.kind, skip=call.occurrence, **effect)
            result = machine.run(*arguments)
            torn = None
            if call.kind == "WriteFile" and "transferred" in effect:
                for number in initial:
                    if call.path.endswith(f"PhysicalDrive{number}"):
                        torn = (number, call.line["offset"], effect["transferred"])
            try:
                require_equal(result.status, 137, "status")
                require_equal(result.stderr, b"", "stderr")
                require(clean_result.stdout.startswith(result.stdout), "stdout is no beginning of the clean run's")
                require_equal(result.sequence(), clean_result.sequence()[:call.index], "the log up to the kill")
                _expect_writes_as_logged(machine, result, initial, final, torn)
                machine.clear_faults()
                if after is not None:
                    after(machine, result, call)
                expected = clean if again is None else again(machine, call)
                second = machine.run(*arguments)
                problem = _judge(expected, machine, second) or _judge_image(machine, second, third_reader=False)
                require(not problem, f"the run after the kill:\n{problem}\n{second.describe()}")
            except AssertionError as error:
                return f"killed at {call} {effect}\n{error}\n{result.describe()}"
            return None

        return _in_fresh_folder(make, run)

    _run_all(test, kills, body)
    _count(test, "kills", clean_result, kills, possible, least)
