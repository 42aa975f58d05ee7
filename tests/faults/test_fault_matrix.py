"""The cells of the fault and kill matrices that have no account of their own: sealed captures over a base, captures
with snapshots, sealed chains, runs of more than 32 chunks, and the death of every mode that no other sweep kills.

The suites beside this one foretell every byte of a run under a fault. Here one table says of each call which message
its failure brings; where the call's result is left unexamined, no more is said than what has to hold after any failure:

- the status is 0 or 1, and with 1 there is a report; standard output is that of the healthy run up to there;
- after 1 there is no image of the final name; after 0 the image is the right one, or does not verify;
- base images and the source are what they were, and no file is there that does not belong;
- the target holds what the log says was written, each byte at its place, and nothing else;
- the tracker's epoch was committed only behind the last write of the image;
- a failure within a snapshot session fails no capture, and the session that was begun is ended, once: what each such
  failure prints is for test_snapshot_session.py, and that the image holds the bytes of the shadow exactly where the
  shadow was read is looked at here.
"""

import os
import tempfile
import threading

import suite
import sweep
from console import exclusive_failure, fatal, fatal_status
from image import build_image, check_image, reference_plain_bytes
from incremental import marked
from machine import (DRIVE_GEOMETRY_EX, LENGTH_INFO, TRACKER_COMMIT, UPDATE_PROPERTIES, VOLUME_DISK_EXTENTS, Machine,
                     pattern)
from snapshot import check_session, volume_name
from suite import require, require_equal

MIB4 = 0x400000
SOURCE = pattern(MIB4 + 8192, "source")  # two chunks of a capture
BEFORE = SOURCE[:MIB4] + pattern(8192, "before")  # what the base holds
FROZEN = pattern(8192, "frozen")  # what the shadow serves of the second chunk
SMALL = 1024
MANY = pattern(33 * SMALL + 512, "many")  # 34 chunks, so that the meter moves in the middle
MANY_BEFORE = pattern(SMALL, "first") + MANY[SMALL:33 * SMALL] + pattern(512, "last")
PASSWORD = b"correct horse"
EPOCH = 0x21

CRYPTO = {"BCryptCreateHash": "BCryptCreateHash", "BCryptGenRandom": "BCryptGenRandom",
          "BCryptDeriveKeyPBKDF2": "BCryptDeriveKeyPBKDF2", "BCryptSetProperty": "BCryptSetProperty(GCM)",
          "BCryptGenerateSymmetricKey": "BCryptGenerateSymmetricKey", "BCryptEncrypt": "BCryptEncrypt"}
# What a failure of these changes is nothing that anybody sees.
WITHOUT_EFFECT = {"GetTickCount64", "BCryptGetProperty", "BCryptDestroyHash", "BCryptDestroyKey",
                  "BCryptCloseAlgorithmProvider"}
CONTROL = {LENGTH_INFO: "IOCTL_DISK_GET_LENGTH_INFO failed",
           DRIVE_GEOMETRY_EX: "IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed",
           VOLUME_DISK_EXTENTS: "IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed"}
READS = {"header": "could not read image header - file is truncated or not a .vrnx image",
         "table": "could not read chunk table - image is truncated",
         "length": "thin image has no valid trailer - file is truncated",
         "trailer": "could not read thin image trailer",
         "chunk": "could not read chunk data from image (truncated?)"}
NEXT_CHUNK = {"verify": "could not read chunk data - image is truncated",
              "consolidate": "could not read chunk data - image is truncated",
              "restore": "could not read chunk data from image - restore aborted, target disk left partially written"}


# Calls that only a snapshot session makes, by how their names and paths begin.
SESSION = ("Co", "CreateVss", "VssFree", "SysFree", "IVss", "FindFirst", "FindNext", "FindVolume")
SESSION_PATHS = ("\\\\?\\Volume", "\\\\?\\GLOBALROOT")


KEPT = tempfile.TemporaryDirectory(prefix="vornix-matrix-")
LINKING = threading.Lock()


# --- The cells ------------------------------------------------------------------------------------------------------

class Cell:
    """One command in one mode. `prepare(machine)` makes its files; `disk` is what its image or its target has to
    hold."""

    def __init__(self, arguments, prepare, disk, *, source=None, target=None, tracker=False, volumes=False):
        self.arguments, self.prepare, self.disk = arguments.split(), prepare, disk
        self.source, self.target, self.tracker, self.volumes = source, target, tracker, volumes
        self.shared = {}  # contents that never change, one file for all the machines of a sweep; a change is found out
        self.out = suite.option(self.arguments, "--out")
        self.sealed_out = "--encrypt" in self.arguments
        self.password = PASSWORD if "--password-file" in self.arguments else None

    @property
    def command(self):
        return self.arguments[0]

    def make(self, folder):
        machine = Machine(folder, default=False)
        machine.add_disk(0, bytes(65536))
        machine.system_volume([(0, 4096, 8192)])
        if self.source is not None:
            machine.add_disk(1, 0)
            self.link(machine.disk_path(1), self.source)
        if self.target is not None:
            machine.add_disk(2, self.target)
        if self.tracker:
            machine.tracker([{"number": 1, "has_previous_epoch": 1, "previous_epoch": EPOCH, "current_epoch": EPOCH + 1,
                              "bitmap": marked(len(self.source), 16, (MIB4, 8192))}])
        if self.volumes:
            # One serves the second chunk, one lies inside the first and serves nothing, one is on another disk.
            machine.add_volume(volume_name(1), [(1, MIB4, 8192)], shadow_contents=FROZEN)
            machine.add_volume(volume_name(2), [(1, 65536, 1048576)])
            machine.add_volume(volume_name(3), [(0, 0, 512)])
            machine.shadow_service([("Registry Writer", 1, 0), ("Database Writer", 8, 0x800423F4)])
        if not self.shared:
            if self.password is not None:
                machine.write("password", PASSWORD)
            self.prepare(machine)
            self.shared.update((name, machine.read(name)) for name in machine.files())
        for name, content in self.shared.items():
            self.link(machine.path(name), content)
        return machine

    def link(self, path, content):
        """Makes a file of this content, the same one for all the machines of the cell."""
        kept = os.path.join(KEPT.name, f"{id(self)}-{os.path.basename(path)}")
        with LINKING:
            if not os.path.exists(kept):
                with open(kept, "wb") as file:
                    file.write(content)
        if os.path.exists(path):
            os.remove(path)
        os.link(kept, path)

    def disk_read_by(self, result):
        """What the image of a run has to hold: the second chunk as the shadow has it where that was read."""
        shadow = result.calls("ReadFile", path="ShadowCopy", ok=True)
        return self.disk if self.volumes and shadow else self.source if self.volumes else self.disk


def nothing(_machine):
    pass


def base_of_source(epoch=EPOCH, **options):
    return lambda machine: build_image(machine.path("base.vrnx"), BEFORE, chunk_size=MIB4, epoch=epoch, **options)


def many(**options):
    return lambda machine: build_image(machine.path("a.vrnx"), MANY, chunk_size=SMALL, **options)


def many_chain(password=None):
    """A thin image of 34 chunks that stores the first and the last."""
    def prepare(machine):
        base = machine.path("base.vrnx")
        build_image(base, MANY_BEFORE, chunk_size=SMALL, password=password, seed="base")
        build_image(machine.path("a.vrnx"), MANY, chunk_size=SMALL, password=password, base=base, seed="thin")
    return prepare


def capture(options, prepare=nothing, **fields):
    disk = SOURCE[:MIB4] + FROZEN if fields.get("volumes") else SOURCE
    return Cell(f"capture --disk 1 --out new.vrnx {options}", prepare, disk, source=SOURCE, **fields)


def restore(options, prepare):
    return Cell(f"restore --in a.vrnx --disk 2 --confirm YES {options}", prepare, MANY,
                target=pattern(len(MANY) + 1024, "target"))


KEY = "--password-file password"
SEALED_BASE = base_of_source(password=PASSWORD)
CELLS = {
    "capture under the work name": Cell("capture --disk 1 --out new.partial", nothing, SOURCE, source=SOURCE),
    "capture sealed, tracked copy": capture(f"--base base.vrnx --encrypt {KEY}", SEALED_BASE, tracker=True),
    "capture sealed, fallback": capture(f"--base base.vrnx --encrypt {KEY}", SEALED_BASE),
    "capture sealed, thin tracked": capture(f"--base base.vrnx --thin --encrypt {KEY}", SEALED_BASE, tracker=True),
    "capture sealed, thin compared": capture(f"--base base.vrnx --thin --encrypt {KEY}", SEALED_BASE),
    "capture with snapshots": capture("--vss", volumes=True),
    "capture with snapshots, sealed": capture(f"--vss --encrypt {KEY}", volumes=True),
    "capture with snapshots, tracked copy": capture("--vss --base base.vrnx", base_of_source(), volumes=True,
                                                    tracker=True),
    "capture with snapshots, thin compared": capture("--vss --base base.vrnx --thin", base_of_source(), volumes=True),
    "capture with snapshots, thin tracked": capture("--vss --base base.vrnx --thin", base_of_source(), volumes=True,
                                                    tracker=True),
    "verify of 34 chunks": Cell("verify --in a.vrnx", many(), MANY),
    "verify of a sealed chain of 34 chunks": Cell(f"verify --in a.vrnx {KEY}", many_chain(PASSWORD), MANY),
    "restore of 34 chunks": restore("", many()),
    "restore of 34 chunks, zeros left out": restore("--skip-zero", many()),
    "restore of a thin chain of 34 chunks": restore("", many_chain()),
    "restore of a sealed chain of 34 chunks": restore(KEY, many_chain(PASSWORD)),
    "consolidate of 34 chunks": Cell("consolidate --in a.vrnx --out new.vrnx", many_chain(), MANY),
}
# The death of these is tried here; the others die in the suites beside this one, or are like one that dies.
DIE_ALIKE = ("capture with snapshots, sealed", "capture with snapshots, tracked copy",
             "capture with snapshots, thin compared")
KILLED = {
    **{name: cell for name, cell in CELLS.items() if name not in DIE_ALIKE},
    "list-disks": Cell("list-disks", nothing, None, source=bytes(512)),
    "capture over a base, fallback": capture("--base base.vrnx", base_of_source()),
    "verify of a thin chain": Cell("verify --in a.vrnx", many_chain(), MANY),
    "verify sealed": Cell(f"verify --in a.vrnx {KEY}", many(password=PASSWORD), MANY),
    "restore sealed": restore(KEY, many(password=PASSWORD)),
    "consolidate, sealed to plain": Cell(f"consolidate --in a.vrnx --out new.vrnx {KEY}", many_chain(PASSWORD), MANY),
    "consolidate, sealed anew": Cell(f"consolidate --in a.vrnx --out new.vrnx --encrypt {KEY}", many_chain(PASSWORD),
                                     MANY),
    "clone": Cell("clone --from 1 --to 2 --confirm YES --verify", nothing, SOURCE, source=SOURCE,
                  target=pattern(len(SOURCE), "target")),
}


def of_a_session(call):
    """Whether only a snapshot session makes this call; the reads of its shadow devices are the capture's own."""
    return call.kind.startswith(SESSION) or (
        call.path.startswith(SESSION_PATHS) and call.kind not in ("ReadFile", "SetFilePointerEx"))


# --- What a failure brings ------------------------------------------------------------------------------------------

class Reading:
    """Follows the calls of a healthy run, so as to know what each transfer of an image is for."""

    def __init__(self, cell):
        self.cell = cell
        self.opened = {}  # path of an image to what its last transfer was

    def message(self, call):
        """What the failure of this call brings: a message; None for nothing at all; False where it is unexamined."""
        kind, path, line = call.kind, call.path, call.line
        if kind in WITHOUT_EFFECT or of_a_session(call):
            return None
        if kind in CRYPTO:
            return CRYPTO[kind]
        if kind == "BCryptOpenAlgorithmProvider":
            hmac = "HMAC-" if line["flags"] == "0x00000008" else ""
            return f"BCryptOpenAlgorithmProvider({hmac}{line['algorithm']})"
        if kind == "_aligned_malloc":
            return "out of memory allocating aligned I/O buffer"
        if kind == "_fullpath":
            return "could not resolve image paths"
        if kind == "MoveFileExW":
            return "could not atomically publish completed image"
        if kind == "GetFileSizeEx":
            return "image is truncated before its chunk table"
        if kind == "DeviceIoControl":
            return CONTROL.get(line["code"], None if line["code"] == UPDATE_PROPERTIES else False)
        if kind == "CreateFileW":
            return self.open_message(path, line)
        if path.endswith(".vrnx") or path.endswith(".partial"):
            return self.transfer_message(kind, path, line)
        if kind == "ReadFile":
            return "ReadFile from source disk failed mid-capture - image is incomplete, do not trust it"
        if kind == "SetFilePointerEx" and self.cell.command == "capture":
            return "SetFilePointerEx on source failed mid-capture"
        if kind == "WriteFile":
            return ("WriteFile to target disk failed mid-restore - target disk left partially written, do not boot it "
                    "yet")
        return None if kind == "CloseHandle" else False

    def open_message(self, path, line):
        if "PhysicalDrive1" in path:
            return "could not open source disk for raw read (run as Administrator?)"
        if "PhysicalDrive2" in path:
            return exclusive_failure(2, sweep.INJECTED_ERROR)
        if path.endswith("C:"):
            return "could not open C: to determine the system disk number"
        if "Wendrel" in path:
            return False
        if line["access"] == "0x40000000":
            return "could not create output image file"
        self.opened[path] = "open"
        return f"could not open image file: {path}\n" + fatal("could not open image file", sweep.INJECTED_ERROR)

    def transfer_message(self, kind, path, line):
        if kind == "WriteFile":
            if line["offset"] < self.data_start():
                return False
            if line["length"] == 48 + len("base.vrnx"):
                return "could not write thin image trailer"
            return ("WriteFile failed while consolidating (disk full?)" if self.cell.command == "consolidate"
                    else "WriteFile to image file failed mid-capture (disk full?)")
        if kind == "ReadFile":
            if line["offset"] == 0:
                return READS["header"]
            if line["offset"] == 64:
                return READS["table"]
            if line["length"] == 4 or line["length"] == 48 + len("base.vrnx"):
                return READS["length" if line["length"] == 4 else "trailer"]
            top = path == (suite.option(self.cell.arguments, "--in") or "")
            if self.cell.command == "consolidate":
                return NEXT_CHUNK["consolidate"] if path == self.cell.out else READS["chunk"]
            return NEXT_CHUNK[self.cell.command] if top else READS["chunk"]
        # A seek is for a trailer, for a chunk of a base, or one whose failure the next transfer shows.
        return False

    def data_start(self):
        return 64 + 72 * ((len(self.cell.disk) - 1) // (MIB4 if self.cell.command == "capture" else SMALL) + 1)


def expected_report(cell, fault):
    """The report that the fault has to bring, "" where it brings none, None where this account leaves it open."""
    reading = Reading(cell)
    for call in fault.hits:
        message = reading.message(call)
        if message is None:
            continue
        if message is False or call.kind == "BCryptDecrypt":
            return None
        if "\n" in message:
            return message
        if fault.status is not None:
            return fatal_status(message, fault.status)
        return fatal(message) if fault.error is None else fatal(message, fault.error)
    return ""


# --- What holds after any failure -----------------------------------------------------------------------------------

def is_whole_image(cell, machine, name):
    """Whether every reader takes the file as it stands, with all its chunks."""
    return check_image(machine.path(name), cell.password) == []


def check_image_of(cell, machine, name, disk):
    require_equal(reference_plain_bytes(machine.path(name), cell.password), disk, f"what {name} stands for")


def check_files(cell, machine):
    """No file but those that belong, and bases as they were. Gives the names of what the run made."""
    for name, content in cell.shared.items():
        require_equal(machine.read(name), content, name)
    made = sorted(set(machine.files()) - set(cell.shared))
    require(set(made) <= ({cell.out, f"{cell.out}.partial"} if cell.out else set()), f"files {made}")
    if cell.source is not None:
        require_equal(machine.disk_bytes(1), cell.source, "source")
    return made


def check_tracker(cell, machine, result):
    if not cell.tracker:
        return
    commits = result.calls("DeviceIoControl", code=TRACKER_COMMIT, ok=True)
    previous = machine.tracker_disk(1)["previous_epoch"]
    require_equal(previous, EPOCH + 1 if commits else EPOCH, "epoch")
    if commits:
        # Whether header and table reached the file is left unexamined; that they were written first is not.
        writes = result.calls("WriteFile", path=cell.out)
        require(len(writes) >= 3 and writes[-1]["n"] < commits[0]["n"],
                "the tracker was told of an image before its last write")


def check_target(cell, machine, result):
    """Every byte that the log says was written is the right one for its place; every other is what it was."""
    if cell.target is None:
        return
    expected = bytearray(cell.target)
    for line in result.calls("WriteFile", path="PhysicalDrive2"):
        offset, end = line["offset"], line["offset"] + line["transferred"]
        expected[offset:end] = cell.disk[offset:end]
    require_equal(machine.disk_bytes(2), expected, "target")
    if result.status == 0:
        require_equal(expected[:len(cell.disk)], cell.disk, "the target of a run that succeeded")


def check_after_fault(cell, fault, report, clean_stdout):
    def check(machine, result):
        require_equal(result.status, 1 if result.stderr else 0, f"status with the report {result.stderr!r}")
        if report is not None:
            require(suite.matches(result.stderr, report), f"report {result.stderr!r} where {report!r} was expected")
            require(any(map(of_a_session, fault.hits)) or clean_stdout.startswith(result.stdout),
                    f"stdout is no beginning of the healthy run's: {result.stdout!r}")
        made = check_files(cell, machine)
        if fault.call.kind != "SetFilePointerEx":  # a target that was not moved is written elsewhere
            check_target(cell, machine, result)
        check_tracker(cell, machine, result)
        if cell.volumes:
            check_session(result)
        require(cell.command != "capture" or result.status == 0 or "new.vrnx" not in made,
                "a failed capture left an image of the final name")
        # A consolidation that fails while it reads its image back has finished it all the same.
        if cell.out in made and (result.status == 0 or cell.command == "consolidate"):
            if is_whole_image(cell, machine, cell.out):
                check_image_of(cell, machine, cell.out, cell.disk_read_by(result))
            else:
                require(result.status == 1 or report is None and cell.command != "consolidate",
                        "the run succeeded and left no image")
    return check


def healthy_run(test, cell):
    """The run of the cell with nothing in its way, as `sweep.clean_run` gives it."""
    def check(_machine, result):
        require_equal((result.status, result.stderr), (0, b""), "status and report of the healthy run")
    return sweep.clean_run(test, cell.make, cell.arguments, sweep.Judged(check))


class FaultMatrix(suite.Scenario):
    recorded = False

    def sweep(self, name, limit=None):
        cell = CELLS[name]
        made = healthy_run(self, cell)
        healthy = made[0]

        def oracle(fault):
            report = expected_report(cell, fault)
            # Status and streams are looked at by the check, which knows what is left open.
            return sweep.Judged(check_after_fault(cell, fault, report, healthy.stdout))

        sweep.sweep_faults(self, cell.make, cell.arguments, None, oracle, least=limit or 60,
                           limit=None if self.settings.long else limit, made=made)


class KillMatrix(suite.Scenario):
    recorded = False

    def kill(self, name, limit=None):
        cell = KILLED[name]

        def after(machine, result, call):
            made = check_files(cell, machine)
            check_tracker(cell, machine, result)
            table = result.calls("WriteFile", path=cell.out, offset=64) if cell.out else []
            for file in made:
                require_equal(is_whole_image(cell, machine, file), bool(table), f"whether {file} is taken for an image")
                if table:
                    check_image_of(cell, machine, file, cell.disk)
            require(table or cell.command != "capture" or "new.vrnx" not in made,
                    "an unfinished capture has the final name")
            # What is in the way of the same run again is refused, and nothing is done to it.
            if cell.out == "new.vrnx" and "new.vrnx" in made:
                before = machine.read("new.vrnx")
                refused = machine.run(*cell.arguments)
                require(refused.status == 1 and b"refusing to overwrite" in refused.stderr,
                        f"the file in the way was not refused\n{refused.describe()}")
                require_equal(machine.read("new.vrnx"), before, "the file in the way")
                os.remove(machine.path("new.vrnx"))

        def again(machine, call):
            def check(machine, second):
                require_equal((second.status, second.stderr), (0, b""), "status and report of the run after the kill")
                check_files(cell, machine)
                check_target(cell, machine, second)
                if cell.out is not None:
                    check_image_of(cell, machine, cell.out, cell.disk)
            return sweep.Judged(check)

        sweep.sweep_kills(self, cell.make, cell.arguments, None, after, again, least=limit or 16,
                          limit=None if self.settings.long else limit, made=healthy_run(self, cell))


# Where a key is derived a run takes a tenth of a second, and 34 chunks make two thousand runs of a command, most of
# them alike: these are sampled unless time is given.
SEALED_SAMPLES = {"sweep": 16, "kill": 6}  # a kill takes three runs
MANY_SAMPLE = 40


ONE_CELL_IN = 3  # under Wine and the sanitizers, where a run costs several times as much


def add_tests(cls, cells, method):
    for name, cell in list(cells.items())[::ONE_CELL_IN if suite.SETTINGS.sampled else 1]:
        limit = SEALED_SAMPLES[method] if cell.password is not None else MANY_SAMPLE if cell.disk is MANY else None

        def test(self, name=name, limit=limit):
            getattr(self, method)(name, limit)
        setattr(cls, "test_" + name.replace(",", "").replace("-", "_").replace(" ", "_"), test)


add_tests(FaultMatrix, CELLS, "sweep")
add_tests(KillMatrix, KILLED, "kill")

if __name__ == "__main__":
    suite.main()
