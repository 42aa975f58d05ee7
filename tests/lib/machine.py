"""A described machine in a temporary folder, and runs of the program on it.

A Machine holds the description as plain data (`machine.description`, the content of machine.json), the files behind it,
and a work folder in which the program runs, so that image paths in a scenario are bare names. Nothing here judges a
run; that is for the suites.

The builds are found through the environment:

    VORNIX_BUILD    the build folder; build/linux in the checkout when absent
    VORNIX_BENCH    vornix-bench or vornix-bench.exe; in VORNIX_BUILD when absent
    VORNIX          vornix or vornix.exe; in VORNIX_BUILD when absent
    VRNX            vrnx or vrnx.exe; in VORNIX_BUILD when absent
    VORNIX_RUNNER   what starts them, e.g. "wine"; nothing when absent
    VORNIX_LONG     not empty: no sampling of sweeps, and the slow scenarios run too
"""

import functools
import hashlib
import json
import os
import select
import shlex
import shutil
import subprocess
import tempfile
from dataclasses import dataclass, field

CHECKOUT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

ACCESS_READ = "0x80000000"
ACCESS_WRITE = "0x40000000"
ACCESS_READ_WRITE = "0xC0000000"
FLAG_NO_BUFFERING = "0x20000000"

LENGTH_INFO = "0x0007405C"
DRIVE_GEOMETRY_EX = "0x000700A0"
VOLUME_DISK_EXTENTS = "0x00560000"
UPDATE_PROPERTIES = "0x00070140"
TRACKER_ATTACH = "0x8C7D2004"
TRACKER_QUERY = "0x8C7D2008"
TRACKER_COMMIT = "0x8C7D200C"

# How often a run is begun under Wine before it counts as one that does not start.
WINE_STARTS = 4


def run_to_files(run, gave_up):
    """What `run(stdout, stderr)` gives, which prints to these files, and what they then hold. Files and not pipes: what
    Wine starts in the background on the way inherits the streams and lives longer than the run, so that the end of a
    pipe would be long in coming. Where Wine gave up before the first instruction of the program, as it does now and
    then on a busy machine (status 1 and not a byte on either stream, and `gave_up()`), nothing was changed, and the run
    is made again."""
    for _ in range(WINE_STARTS):
        with tempfile.TemporaryFile() as stdout, tempfile.TemporaryFile() as stderr:
            status = run(stdout, stderr)
            stdout.seek(0)
            stderr.seek(0)
            ended = status, stdout.read(), stderr.read()
        if ended != (1, b"", b"") or not gave_up():
            break
    return ended


class Settings:
    """Which executables run, and how."""

    def __init__(self, environment=os.environ):
        self.build = environment.get("VORNIX_BUILD") or os.path.join(CHECKOUT, "build", "linux")
        self.runner = shlex.split(environment.get("VORNIX_RUNNER", ""))
        if self.runner and "/" in self.runner[0]:
            self.runner[0] = os.path.abspath(self.runner[0])  # the runs have a current folder of their own
        suffix = ".exe" if self.runner else ""
        self.bench = environment.get("VORNIX_BENCH") or os.path.join(self.build, "vornix-bench" + suffix)
        self.program = environment.get("VORNIX") or os.path.join(self.build, "vornix" + suffix)
        self.vrnx = environment.get("VRNX") or os.path.join(self.build, "vrnx" + suffix)
        self.build, self.bench, self.program, self.vrnx = map(
            os.path.abspath, (self.build, self.bench, self.program, self.vrnx))
        self.windows = self.bench.endswith(".exe")
        self.long = bool(environment.get("VORNIX_LONG"))
        # Images are files like any other: the vrnx of this system looks at those of the Windows build too.
        self.third_reader = self.vrnx
        if self.vrnx.endswith(".exe"):
            self.third_reader = os.path.join(os.path.dirname(os.path.dirname(self.vrnx)), "linux", "vrnx")
        # Where a run costs several times as much, the sweeps try a sample of their occurrences.
        self.sampled = not self.long and (self.windows or os.path.basename(self.build) == "sanitize")
        # How an uncaught exception ends the process: SIGABRT, or the status that the Windows build gives itself.
        self.abnormal_status = 3 if self.windows else -6

    def environment(self, leaks=False):
        """The environment of a run: the caller's, with what keeps Wine silent and a sanitizer's finding plain. `leaks`:
        whether memory that nothing points to any more at the end is a finding."""
        environment = dict(os.environ)
        environment.setdefault("WINEDEBUG", "-all")
        # Their default exit status, 1, would pass for a refusal of the program. Freed memory is held back from use for
        # a while so that a late use of it shows; to hold back all of a run's costs a third of a sealed one.
        for name, extra in (("ASAN_OPTIONS", f"exitcode=86:detect_leaks={int(leaks)}:quarantine_size_mb=16"),
                            ("UBSAN_OPTIONS", "exitcode=86:halt_on_error=1")):
            options = environment.get(name, "")
            environment[name] = f"{extra}:{options}" if options else extra
        return environment


    def run(self, executable, *arguments, cwd, environment=None, timeout=300, gave_up=lambda: True):
        """Runs one of the build's executables; gives what subprocess.run gives. `gave_up`: as for run_to_files; the
        programs of the project hardly ever end with 1 and no word."""
        command = [*self.runner, executable, *arguments]
        settled = {**self.environment(), **(environment or {})}

        def run(stdout, stderr):
            return wait_for(subprocess.Popen(command, cwd=cwd, stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr,
                                             env=settled), timeout)
        return subprocess.CompletedProcess(command, *run_to_files(run, lambda: self.windows and gave_up()))


SETTINGS = Settings()


def wait_for(process, timeout):
    """The status of a process that ends within `timeout` seconds. As `Popen.wait` does it, but that one looks for the
    end at ever longer intervals, which for runs of this length is as much again as the run."""
    try:
        descriptor = os.pidfd_open(process.pid)
    except OSError:  # an old kernel, or one that is imitated
        descriptor = None
    try:
        if descriptor is None or select.select([descriptor], [], [], timeout)[0]:
            return process.wait(timeout)
        raise subprocess.TimeoutExpired(process.args, timeout)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        raise
    finally:
        if descriptor is not None:
            os.close(descriptor)


@functools.lru_cache(maxsize=32)  # nearly every machine begins with the same disks
def pattern(size, seed="disk"):
    """Bytes that do not repeat and do not compress, the same for the same seed."""
    return hashlib.shake_128(str(seed).encode()).digest(size)


# Calls that give back what another one gave out. Where one of them is made to fail, that much is lost.
RELEASING_CALLS = {"BCryptCloseAlgorithmProvider", "BCryptDestroyHash", "BCryptDestroyKey", "CloseHandle",
                   "FindVolumeClose"}


def loses_memory(description):
    """Whether a fault of a description keeps something from being given back."""
    faults = description.get("faults") if isinstance(description, dict) else None
    return isinstance(faults, list) and any(isinstance(fault, dict) and fault.get("call") in RELEASING_CALLS
                                            for fault in faults)


def number_in_description(value):
    """A number of a description, which may be written as a string such as "0x10"."""
    return int(value, 0) if isinstance(value, str) else value


@dataclass
class Result:
    """One run: what it was, how it ended, what it printed, and its log as parsed lines."""

    arguments: list
    status: int
    stdout: bytes
    stderr: bytes
    log: list
    description: dict
    windows: bool = False
    folder: str = ""
    meaningless: list = field(default_factory=list)  # (stream name, text) as a scenario accepted it

    @property
    def abnormal(self):
        """Ended as by an uncaught exception: neither by a return of the program nor by its own exit."""
        return self.status not in (0, 1)

    def calls(self, name=None, path=None, **fields):
        """The log's lines of one call, narrowed by a substring of `path` and by exact values of other fields."""
        found = []
        for line in self.log:
            if name is not None and line["call"] != name:
                continue
            if path is not None and path not in line.get("path", ""):
                continue
            if any(line.get(key) != value for key, value in fields.items()):
                continue
            found.append(line)
        return found

    def sequence(self, *names):
        """The names of the calls in their order, all of them or only those given."""
        return [line["call"] for line in self.log if not names or line["call"] in names]

    def describe(self):
        """The whole context of the run, for the reader of a failed scenario."""
        lines = [
            "  arguments:   " + " ".join(shlex.quote(os.fsdecode(argument)) for argument in self.arguments),
            "  description: " + json.dumps(self.description),
            f"  status:      {self.status}",
            f"  stdout:      {self.stdout!r}",
            f"  stderr:      {self.stderr!r}",
        ]
        shown = self.log[-30:]
        lines.append(f"  log:         {len(self.log)} calls" + (f", the last {len(shown)}:" if shown else ""))
        lines += ["    " + json.dumps(line) for line in shown]
        return "\n".join(lines)


class Machine:
    """The description of one machine and its files.

    `folder` becomes the home of both: `folder/machine` holds machine.json and what it names, `folder/work` is the
    current folder of the runs. With `default` the machine has disk 0 (the system disk, C: on it), disk 1 (the source)
    and disk 2 (the target, as large as the source), a clock that gains one second at each look, and a log of calls;
    without it, the clock and the log only.
    """

    SOURCE_SIZE = 9 * 1048576 + 512  # three chunks of a capture, the last one short

    def __init__(self, folder, *, default=True, source=None, target=None, sector_size=512, settings=None):
        self.settings = settings or SETTINGS
        self.folder = os.path.abspath(folder)
        self.home = os.path.join(self.folder, "machine")
        self.work = os.path.join(self.folder, "work")
        os.makedirs(self.home, exist_ok=True)
        os.makedirs(self.work, exist_ok=True)
        self.runs = []
        self.onlooker = None  # called with the machine and each of its results
        self.leaks = False  # whether the leak sanitizer looks at the end of each run; it takes a sixth longer then
        self.description = {"disks": [], "calls": "calls.jsonl"}
        self.ticks(1000, 1000)
        if default:
            source = pattern(self.SOURCE_SIZE, "source") if source is None else source
            self.add_disk(0, pattern(1048576, "system"))
            self.add_disk(1, source, **({} if sector_size == 512 else {"sector_size": sector_size}))
            if target is None:
                target = pattern(source if isinstance(source, int) else len(source), "target")
            self.add_disk(2, target, **({} if sector_size == 512 else {"sector_size": sector_size}))
            self.system_volume([(0, 65536, 524288)])

    # --- Disks ---

    def add_disk(self, number, contents, **fields):
        """Adds or replaces a disk. `contents`: its bytes, or a size for one that is all zero (a sparse file)."""
        self.description["disks"] = [disk for disk in self.description["disks"] if disk["number"] != number]
        disk = {"number": number, "file": f"disk{number}.img", **fields}
        self.description["disks"].append(disk)
        self.set_disk_bytes(number, contents)
        return disk

    def disk(self, number):
        """The description of a disk, to be changed at will."""
        return next(disk for disk in self.description["disks"] if number_in_description(disk["number"]) == number)

    def remove_disk(self, number):
        self.description["disks"] = [disk for disk in self.description["disks"] if disk["number"] != number]

    def disk_path(self, number):
        return os.path.join(self.home, self.disk(number)["file"])

    def disk_bytes(self, number):
        with open(self.disk_path(number), "rb") as file:
            return file.read()

    def set_disk_bytes(self, number, contents):
        with open(self.disk_path(number), "wb") as file:
            if isinstance(contents, int):
                file.truncate(contents)
            else:
                file.write(contents)

    def poke_disk(self, number, offset, data):
        """Changes bytes of a disk between two runs, as a system in use does."""
        with open(self.disk_path(number), "r+b") as file:
            file.seek(offset)
            file.write(data)

    # --- The rest of the description ---

    def system_volume(self, extents):
        """C: as (disk, start, length) each; None takes it away."""
        if extents is None:
            self.description.pop("system_volume", None)
        else:
            self.description["system_volume"] = {"extents": self._extents(extents)}

    @staticmethod
    def _extents(extents):
        return [{"disk": disk, "start": start, "length": length} for disk, start, length in extents]

    def add_volume(self, name, extents, *, shadow=None, shadow_contents=None, **fields):
        """A volume; `extents` as (disk, start, length) each. `shadow` is the object of that name in the description;
        `shadow_contents` are frozen bytes that differ from the disk, put into a file of their own."""
        volume = {"name": name, "extents": self._extents(extents), **fields}
        volumes = self.description.setdefault("volumes", [])
        if shadow is not None or shadow_contents is not None:
            volume["shadow"] = dict(shadow or {})
        if shadow_contents is not None:
            file_name = f"shadow{len(volumes) + 1}.img"
            self.write_home(file_name, shadow_contents)
            volume["shadow"]["file"] = file_name
        volumes.append(volume)
        return volume

    def shadow_service(self, writers=()):
        """The snapshot library is installed; `writers` as (name, state, failure) each."""
        self.description["shadow_service"] = {
            "writers": [{"name": name, "state": state, "failure": failure} for name, state, failure in writers]}

    def tracker(self, disks, **fields):
        """The tracking driver is loaded; `disks` are its records of disks, as in the tracker file."""
        self.description["tracker"] = "tracker.json"
        self.write_home("tracker.json", json.dumps({**fields, "disks": disks}).encode())

    def tracker_disk(self, number):
        """What the driver's file says of a disk now."""
        with open(os.path.join(self.home, "tracker.json"), encoding="utf-8") as file:
            return next(disk for disk in json.load(file)["disks"] if disk["number"] == number)

    def ticks(self, start, step):
        self.description["ticks"] = {"start": start, "step": step}

    def add_fault(self, call, **effect):
        """One more entry of `faults`, tried after those before it."""
        self.description.setdefault("faults", []).append({"call": call, **effect})

    def clear_faults(self):
        self.description.pop("faults", None)

    # --- Files ---

    def path(self, name):
        """The host's path of a file in the work folder."""
        return os.path.join(self.work, name)

    def absolute(self, name):
        """An absolute path of a file in the work folder, in the form that the program takes."""
        path = self.path(name)
        return "Z:" + path.replace("/", "\\") if self.settings.windows else path

    def write(self, name, data):
        with open(self.path(name), "wb") as file:
            file.write(data)

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def exists(self, name):
        return os.path.exists(self.path(name))

    def patch(self, name, offset, data):
        """Overwrites bytes of a file in the work folder."""
        with open(self.path(name), "r+b") as file:
            file.seek(offset)
            file.write(data)

    def flip(self, name, offset):
        """Inverts one byte of a file in the work folder."""
        with open(self.path(name), "r+b") as file:
            file.seek(offset)
            byte = file.read(1)[0]
            file.seek(offset)
            file.write(bytes([byte ^ 0xFF]))

    def files(self):
        """The names in the work folder, sorted; folders and what is in them included."""
        names = []
        for folder, folders, files in os.walk(self.work):
            relative = os.path.relpath(folder, self.work)
            names += [os.path.normpath(os.path.join(relative, name)) for name in folders + files]
        return sorted(names)

    def write_home(self, name, data):
        """A file that the description names."""
        with open(os.path.join(self.home, name), "wb") as file:
            file.write(data)

    def host_path(self, argument):
        """The host's path of a file as the program opens what an argument names, in either build's way of writing."""
        if not self.settings.windows:
            return os.path.join(self.work, os.fsdecode(argument))
        text = "".join(chr(byte if byte < 0x80 else 0xFF00 + byte) for byte in os.fsencode(argument))
        return os.path.join(self.work, text.removeprefix("Z:").replace("\\", "/"))

    # --- Runs ---

    def run(self, *arguments, timeout=300, description=None):
        """Runs the program on the machine as described now; gives the Result.

        `description` replaces machine.json for this run: a dict, bytes as they stand, or None for the machine's own.
        """
        used = self.description if description is None else description
        content = used if isinstance(used, bytes) else json.dumps(used).encode()
        self.write_home("machine.json", content)
        if not os.path.exists(self.settings.bench):
            raise FileNotFoundError(f"no such executable: {self.settings.bench} (VORNIX_BENCH, VORNIX_BUILD)")
        log_path = self._log_path(used)
        if log_path is not None and os.path.exists(log_path):
            os.remove(log_path)
        environment = self.settings.environment(leaks=self.leaks and not loses_memory(used))
        # The described machine makes the log's file before the program starts; without a log, what ends with 1 and not
        # a word is taken for Wine.
        done = self.settings.run(self.settings.bench, os.path.join("..", "machine"), *arguments, cwd=self.work,
                                 environment=environment, timeout=timeout,
                                 gave_up=lambda: log_path is None or not os.path.exists(log_path))
        log = self._read_log(used)
        result = Result(list(arguments), done.returncode, done.stdout, done.stderr, log,
                        json.loads(json.dumps(used)) if isinstance(used, dict) else {"content": repr(used)},
                        self.settings.windows, self.folder)
        self.runs.append(result)
        if self.onlooker is not None:
            self.onlooker(self, result)
        return result

    def _log_path(self, description):
        name = description.get("calls") if isinstance(description, dict) else None
        return os.path.join(self.home, name) if isinstance(name, str) else None

    def _read_log(self, description):
        path = self._log_path(description)
        if path is None or not os.path.exists(path):
            return []
        with open(path, "rb") as file:
            return [json.loads(line) for line in file.read().splitlines()]

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)
