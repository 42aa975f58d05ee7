"""The frame of a scenario suite: assertions on runs, recordings, and the runner.

A suite is a file of Scenario classes that ends with `suite.main()`. It prints nothing but failures, each with the whole
context of its runs, what was skipped and why, and as its last line `N passed, N failed, N skipped`; its exit status is
1 when anything failed.

    tests/run tests/scenarios/test_verify.py               all of it
    tests/run tests/scenarios/test_verify.py -k hash       the tests whose name contains "hash"
    tests/run tests/scenarios/test_verify.py --list        the names

With VORNIX_RECORD=FOLDER each test leaves a normalised account of its runs in FOLDER/<suite>/<test>.json, for the
comparison of two builds. VORNIX_JOBS says how many tests run at a time (2 when absent). With VORNIX_TEST_FILES=FOLDER
the suites on described machines have their files there.
"""

import argparse
import concurrent.futures
import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import traceback
import unittest

import image
from console import ANY_NUMBER
from machine import SETTINGS, Machine

ANY_NUMBER_BYTES = ANY_NUMBER.encode()

FOLDER_OF_SUITE = os.path.basename(os.path.dirname(os.path.abspath(sys.argv[0])))
if FOLDER_OF_SUITE in ("scenarios", "faults", "reader") and os.environ.get("VORNIX_TEST_FILES"):
    tempfile.tempdir = os.environ["VORNIX_TEST_FILES"]


def as_bytes(text):
    return text if isinstance(text, bytes) else text.encode()


def matches(actual, expected):
    """Whether the bytes are those expected, where ANY_NUMBER stands for any decimal number."""
    parts = [re.escape(part) for part in as_bytes(expected).split(ANY_NUMBER_BYTES)]
    return re.fullmatch(rb"[0-9]+".join(parts), actual, re.DOTALL) is not None


class Scenario(unittest.TestCase):
    """One test on described machines of its own.

    `self.folder` is empty at the start and gone at the end. `self.machine()` makes a machine in it.
    """

    maxDiff = None
    recorded = True  # False: the suite's runs are too many or too sampled to be compared between builds

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="vornix-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.machines = []

    def tearDown(self):
        record_folder = os.environ.get("VORNIX_RECORD")
        if record_folder and self.recorded:
            write_recording(record_folder, self)

    def skipTest(self, reason):
        self.recorded = False
        super().skipTest(reason)

    @property
    def settings(self):
        return SETTINGS

    def machine(self, **options):
        made = Machine(os.path.join(self.folder, f"m{len(self.machines) + 1}"), **options)
        made.onlooker = self.judge_made_image
        made.leaks = True
        self.machines.append(made)
        return made

    # --- Assertions on runs ---

    def expect(self, result, status=0, stdout="", stderr=""):
        """Status, standard output and standard error of a run, byte for byte (ANY_NUMBER for a number that means
        nothing). Gives the result back."""
        problems = []
        if result.status != status:
            problems.append(f"status {result.status} where {status} was expected")
        for name, actual, expected in (("stdout", result.stdout, stdout), ("stderr", result.stderr, stderr)):
            if not matches(actual, expected):
                problems.append(f"{name} differs\n    expected {as_bytes(expected)!r}\n    actual   {actual!r}")
            elif ANY_NUMBER_BYTES in as_bytes(expected):
                result.meaningless.append((name, as_bytes(expected)))
        if problems:
            self.fail("\n".join(problems))
        return result

    def expect_abnormal(self, result):
        """The run ended as by an uncaught exception, with nothing printed."""
        self.assertTrue(result.abnormal, result.describe())
        return self.expect(result, self.settings.abnormal_status)

    def expect_disk(self, machine, number, expected):
        """The bytes of a disk, without a dump of them where they differ."""
        require_equal(machine.disk_bytes(number), expected, f"disk {number}")

    def expect_file(self, machine, name, expected):
        require_equal(machine.read(name), expected, name)

    def expect_good_image(self, machine, name, plain, password=None):
        """The second reader finds nothing wrong with the image, and it stands for exactly these bytes."""
        self.assertEqual(image.check_image(machine.path(name), password), [], name)
        require_equal(image.reference_plain_bytes(machine.path(name), password), plain, f"what {name} stands for")

    @staticmethod
    def leave_unjudged(machine, why):
        """The images that are made from here on are no good ones, and `why` says what the scenario knows of that."""
        assert why
        machine.onlooker = None

    def judge_made_image(self, machine, result):
        """What every run of a scenario has to go through: see `trouble_with_made_image`."""
        trouble = trouble_with_made_image(machine, result)
        if trouble:
            self.fail(f"the other readers on the image of this run: {trouble}\n{result.describe()}")

    def failure_context(self):
        return "\n".join(result.describe() for machine in self.machines for result in machine.runs)


# Calls whose results a capture leaves unexamined: with a fault in one of them a run may succeed without an image.
UNEXAMINED_CALLS = {"WriteFile", "SetFilePointerEx", "CloseHandle", "BCryptHashData", "BCryptFinishHash"}


def option(arguments, name):
    """The value of an option as the program finds it: the first of that name, in any case; None where there is none."""
    lowered = [str(argument).lower() if not isinstance(argument, bytes) else os.fsdecode(argument).lower()
               for argument in arguments]
    return next((arguments[at + 1] for at in range(1, len(arguments) - 1) if lowered[at] == name), None)


def disk_number(text):
    """The number that the program takes a text for: white space, a sign and the digits that begin it."""
    return int(re.match(r"\s*[+-]?\d+", text)[0])


def trouble_with_made_image(machine, result, third_reader=True):
    """What the other readers hold against the image that a successful run has left, as a text; None where nothing.

    Every capture and every consolidation of every scenario goes through here. Where nothing changes the disk meanwhile
    and none of it is read from a shadow, the image has to stand for the very bytes of the disk.
    """
    arguments = result.arguments
    if result.status != 0 or not arguments or arguments[0] not in ("capture", "consolidate"):
        return None
    faults = result.description.get("faults", [])
    if any(fault["call"] in UNEXAMINED_CALLS for fault in faults):
        return None
    path = machine.host_path(option(arguments, "--out"))
    password_file = option(arguments, "--password-file")
    password = None
    if password_file is not None and os.path.isfile(machine.host_path(password_file)):
        with open(machine.host_path(password_file), "rb") as file:
            password = image.trim_password(file.read())
    flags = {str(argument).lower() for argument in arguments}
    if arguments[0] == "consolidate" or "--vss" in flags or any({"poke", "flip"} & fault.keys() for fault in faults):
        problems = image.check_image(path, password)
    else:
        disk = machine.disk(disk_number(option(arguments, "--disk")))
        with open(os.path.join(machine.home, disk["file"]), "rb") as file:
            problems = image.check_image(path, password, file)
    if problems:
        return "; ".join(problems[:5])
    return trouble_by_third_reader(machine, path, password_file) if third_reader else None


def trouble_by_third_reader(machine, path, password_file):
    """What vrnx check has against an image that the second reader takes for good, where the build has vrnx."""
    if not os.path.exists(machine.settings.third_reader):
        return None
    command = [machine.settings.third_reader, "check", "--jobs", "1", "--", path]
    if password_file is not None:
        command[2:2] = ["--password-file", machine.host_path(password_file)]
    # Memory that is lost shows in its own suites; to look for it here takes as long as the rest.
    done = subprocess.run(command, capture_output=True, env=machine.settings.environment(), check=False)
    if done.returncode == 0:
        return None
    return f"vrnx check gives {done.returncode}: {done.stdout[:2000]!r} {done.stderr[:2000]!r}"


def first_difference(actual, expected):
    if len(actual) != len(expected):
        return f"{len(actual)} bytes where {len(expected)} were expected"
    at = next(index for index, pair in enumerate(zip(actual, expected)) if pair[0] != pair[1])
    return f"at {at}: {actual[at:at + 16].hex()} where {expected[at:at + 16].hex()} was expected"


def require(holds, text):
    if not holds:
        raise AssertionError(text)


def require_equal(actual, expected, what):
    """Raises where they differ: bytes without a dump of them."""
    if actual != expected:
        is_data = isinstance(expected, (bytes, bytearray))
        raise AssertionError(f"{what}: " + (first_difference(actual, expected) if is_data else
                                            f"{actual}\n    where this was expected: {expected}"))


# --- Recordings -----------------------------------------------------------------------------------------------------

MASKED_FIELDS = {
    "BCryptEncrypt": ["nonce"],
    "BCryptDecrypt": ["nonce"],
    "BCryptDeriveKeyPBKDF2": ["salt"],
    "_fullpath": ["result"],
}


def _mask_folder(text, folder):
    forms = [folder, "Z:" + folder.replace("/", "\\"), "Z:" + folder, "z:" + folder.replace("/", "\\")]
    for form in sorted(forms, key=len, reverse=True):
        text = text.replace(form, "<folder>")
    if text.startswith("<folder>"):  # a path and nothing else
        return text.replace("\\", "/")
    if "<folder>" not in text:
        return text
    return re.sub(r"\\(work)\\", r"/\1/", text.replace("<folder>\\m", "<folder>/m"))


def _normal_stream(name, result, folder):
    data = result.stdout if name == "stdout" else result.stderr
    for stream, expected in result.meaningless:
        if stream == name:
            data = expected
    return _mask_folder(data.decode("utf-8", "backslashreplace"), folder)


def _normal_log(log, folder):
    lines = []
    for line in log:
        copy = {key: _mask_folder(value, folder) if isinstance(value, str) else value for key, value in line.items()}
        for name in MASKED_FIELDS.get(line["call"], []):
            if name in copy:
                copy[name] = "*"
        lines.append(copy)
    return lines


def _normal_file(path, randomised):
    """A file as comparable text: its hash, or for an image with random salt and nonces what it says without them."""
    try:
        header, records = image.read_table(path)
    except (image.ImageError, OSError):
        header = None
    size = os.path.getsize(path)
    if header is None or header.magic != image.MAGIC:
        return f"{size} bytes" if randomised else f"{size} bytes sha256 {_hash_file(path)}"
    if header.encrypted == 0 and header.version == 2:
        return f"{size} bytes sha256 {_hash_file(path)}"
    header.salt = bytes(16)
    rest = hashlib.sha256(header.pack())
    for record in records:
        rest.update(record.pack()[:44])
    return f"{size} bytes, image without salt, nonces and pin sha256 {rest.hexdigest()}"


def _hash_file(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while block := file.read(1048576):
            digest.update(block)
    return digest.hexdigest()


def write_recording(record_folder, test):
    """The normalised account of a test: every run with its streams and log, every file, every disk."""
    account = []
    for made in test.machines:
        randomised = any(str(argument).lower() == "--encrypt" for result in made.runs for argument in result.arguments)
        runs = []
        for result in made.runs:
            status = "abnormal" if result.abnormal and result.status in (3, -6, 134) else result.status
            runs.append({
                "arguments": [_mask_folder(str(argument), test.folder) for argument in result.arguments],
                "status": status,
                "stdout": _normal_stream("stdout", result, test.folder),
                "stderr": _normal_stream("stderr", result, test.folder),
                "log": _normal_log(result.log, test.folder),
            })
        files = {}
        for name in made.files():
            path = made.path(name)
            files[name] = "folder" if os.path.isdir(path) else _normal_file(path, randomised)
        # A scenario may have left a description that no machine can be made of.
        for disk in made.description["disks"]:
            path = disk.get("file")
            if isinstance(path, str) and os.path.exists(os.path.join(made.home, path)):
                files[f"disk {disk.get('number')}"] = _hash_file(os.path.join(made.home, path))
        tracker = made.description.get("tracker")
        if isinstance(tracker, str) and os.path.exists(os.path.join(made.home, tracker)):
            with open(os.path.join(made.home, tracker), encoding="utf-8", errors="replace") as file:
                text = file.read()
            try:
                files["tracker"] = json.loads(text)
            except ValueError:
                files["tracker"] = text
        account.append({"runs": runs, "files": files})
    keep_account(record_folder, test, account)


def keep_account(record_folder, test, account):
    suite_name = os.path.splitext(os.path.basename(sys.argv[0]))[0]
    folder = os.path.join(record_folder, suite_name)
    os.makedirs(folder, exist_ok=True)
    name = f"{type(test).__name__}.{test._testMethodName}.json"
    with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
        json.dump(account, file, indent=1, sort_keys=True)


def note_left_out(test):
    """In place of an account: this build left the test out on purpose."""
    record_folder = os.environ.get("VORNIX_RECORD")
    if record_folder:
        keep_account(record_folder, test, None)


# --- The runner -----------------------------------------------------------------------------------------------------

def _flatten(tests):
    for test in tests:
        if isinstance(test, unittest.TestSuite):
            yield from _flatten(test)
        else:
            yield test


def _run_one(test):
    result = unittest.TestResult()
    try:
        test.run(result)
    except Exception:  # the frame itself broke: a failure like any other
        result.errors.append((test, traceback.format_exc()))
    return test, result


class WineSession:
    """Keeps one Wine session up for as long as the suite runs.

    The server of Wine otherwise goes seconds after its last client and comes with the next one, and a run that meets it
    on its way out fails without a word. A client that waits for input holds it. Without Wine this does nothing.
    """

    def __init__(self, settings=SETTINGS):
        self.settings, self.client = settings, None

    def __enter__(self):
        runner = self.settings.runner
        if runner and os.path.basename(runner[0]).startswith("wine"):
            self.client = subprocess.Popen([*runner, "cmd"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                           stderr=subprocess.DEVNULL, env=self.settings.environment())
        return self

    def __exit__(self, *_):
        if self.client is not None:
            self.client.stdin.close()
            try:
                self.client.wait(30)
            except subprocess.TimeoutExpired:
                self.client.kill()
                self.client.wait()


class RememberedKeys:
    """A folder in which the described machines of this suite keep the keys that they derive, and one salt for all that
    they seal, where the suite wants that: see bench/remembered_keys.h."""

    def __init__(self, one_salt, settings=SETTINGS):
        self.one_salt, self.windows = one_salt, settings.windows
        self.folder = tempfile.TemporaryDirectory(prefix="vornix-keys-")

    def __enter__(self):
        name = self.folder.name
        os.environ["VORNIX_BENCH_KEYS"] = "Z:" + name.replace("/", "\\") if self.windows else name
        if self.one_salt:
            os.environ["VORNIX_BENCH_SALT"] = "same"

    def __exit__(self, *_):
        del os.environ["VORNIX_BENCH_KEYS"]
        os.environ.pop("VORNIX_BENCH_SALT", None)
        self.folder.cleanup()


# Where a run costs several times as much, under Wine and the sanitizers, one in so many tests of a long suite of
# scenarios, or of vrnx, is run, unless VORNIX_LONG is set: all of them run natively, and neighbours differ in what they
# expect more than in what they ask of the compiler and the system. What Windows itself has a say in runs under Wine all
# the same.
SAMPLED_ONE_IN = 3
LONG_SUITE = 12
WINDOWS_HAS_A_SAY = re.compile(
    r"ascii|backslash|_case_|colon|console|drive|folder|handle|librar|_name|overwrite|partial|path|separator|slash|utf")


def of_this_build(tests, settings=SETTINGS, script=None):
    """The tests that this build runs, and those that it leaves out."""
    folder = os.path.basename(os.path.dirname(os.path.abspath(script or sys.argv[0])))
    if not settings.sampled or folder not in ("scenarios", "reader") or len(tests) < LONG_SUITE:
        return tests, []
    run, left_out = [], []
    for number, test in enumerate(tests):
        windows_own = settings.windows and WINDOWS_HAS_A_SAY.search(test.id().rpartition(".")[2])
        (run if number % SAMPLED_ONE_IN == 0 or windows_own else left_out).append(test)
    return run, left_out


def main(one_salt=FOLDER_OF_SUITE == "faults"):
    """Runs the tests of the file that was started, and ends the process. `one_salt`: for suites that make the same runs
    hundreds of times, and ask no salt to be another than the one before."""
    parser = argparse.ArgumentParser(description="Runs this suite.")
    parser.add_argument("-k", metavar="TEXT", action="append", help="only tests whose name contains TEXT")
    parser.add_argument("--list", action="store_true", help="print the names of the tests")
    arguments = parser.parse_args()
    tests = list(_flatten(unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"])))
    left_out = []
    if arguments.k:
        tests = [test for test in tests if any(text in test.id() for text in arguments.k)]
    else:
        tests, left_out = of_this_build(tests)
    if arguments.list:
        print("\n".join(test.id().removeprefix("__main__.") for test in tests))
        sys.exit(0)
    jobs = int(os.environ.get("VORNIX_JOBS") or 2)
    passed = failed = skipped = 0
    for test in left_out:
        note_left_out(test)
        skipped += 1
        print(f"skipped {test.id().removeprefix('__main__.')}: one scenario in three is run here, all with VORNIX_LONG",
              flush=True)
    with WineSession(), RememberedKeys(one_salt), concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for test, result in pool.map(_run_one, tests):
            troubles = result.failures + result.errors
            if troubles or result.unexpectedSuccesses:
                failed += 1
                for where, text in troubles:
                    print(f"FAILED {where.id().removeprefix('__main__.')}\n{text}", flush=True)
                if isinstance(test, Scenario) and hasattr(test, "machines"):
                    print(test.failure_context() + "\n", flush=True)
            elif result.skipped:
                skipped += 1
                print(f"skipped {test.id().removeprefix('__main__.')}: {result.skipped[0][1]}", flush=True)
            else:
                passed += 1
    if not tests:
        print("no test of that name")
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    sys.exit(1 if failed or not tests else 0)
