"""What a snapshot session prints, and how its part of a log is read. The lines are put together independently of the
program; those of one failure alone stand in the suite that provokes it.
"""

from console import gib
from suite import require, require_equal

# The shadow copy service's own codes, and those of the platform that the session tells apart.
ASYNC_PENDING = 0x00042309
ASYNC_FINISHED = 0x0004230A
ASYNC_CANCELLED = 0x0004230B
OBJECT_NOT_FOUND = 0x80042308
E_FAIL = 0x80004005

GATHERING = "  --vss: gathering writer metadata...\n"
FREEZING = "  --vss: asking writers to prepare and freeze...\n"

SESSION_CALLS = ("CoInitializeEx", "CoInitializeSecurity", "CoUninitialize", "CreateVssBackupComponents",
                 "VssFreeSnapshotProperties", "SysFreeString")


def volume_name(number):
    """The name of a volume as an enumeration gives it."""
    return device_of(number) + "\\"


def device_of(number):
    """The same without the backslash at its end: what is opened, and what messages show."""
    return "\\\\?\\Volume{7e5c1a00-9b44-4d0e-8a61-%012d}" % number


def shadow_path(number):
    """What the shadow device of the `number`-th volume that was added opens under, where nothing else is said."""
    return "\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy%d" % number


def fall_back(reason, status):
    return f"  --vss: {reason} (0x{status:08X}) - reading live instead (crash-consistent only).\n"


def step_failed(step, *, wait=0, status=ASYNC_FINISHED):
    return f"    {step} did not complete successfully (wait=0x{wait:08X}, status=0x{status:08X})\n"


def snapshotting(number, start, length):
    return f"  --vss: snapshotting volume {device_of(number)} (disk offset {start}, {gib(length)} GiB) ...\n"


def writers_reported(count, failed=0):
    return f"  --vss: {count} VSS writer(s) reported, {failed} failed.\n"


def writer_failed(name, state, failure):
    return (f"    WARNING: VSS writer '{name}' failed (state {state}, hr=0x{failure:08X})"
            " - that application's data is crash-consistent only.\n")


def snapshotted(count):
    return (f"  --vss: {count} volume(s) snapshotted via IVssBackupComponents; anything outside those ranges"
            " (partition tables, unpartitioned space) reads live.\n")


def not_deleted(status):
    return (f"  --vss: WARNING: could not delete the snapshot set (0x{status:08X})"
            " - it is still listed under Win32_ShadowCopy and must be removed by hand.\n")


def begun(volumes):
    """All that a session prints at its beginning; `volumes` as (number, start, length) each, in their order."""
    return (GATHERING + "".join(snapshotting(*volume) for volume in volumes) + FREEZING + writers_reported(0)
            + snapshotted(len(volumes)))


def session_calls(result):
    """The names of the calls to the service and to COM, in their order."""
    return [line["call"] for line in result.log if line["call"] in SESSION_CALLS or line["call"].startswith("IVss")]


def short_names(calls):
    """The same without the names of the interfaces, for lists that are to be read."""
    return [call.removeprefix("IVssBackupComponents::").replace("IVssAsync::", "async ") for call in calls]


def check_session(result, why=""):
    """Raises AssertionError unless what a run that came to its end began with the service was ended, in the order in
    which that may be done, and nothing twice: whatever went wrong."""
    def count(call, **fields):
        return len(result.calls(call, **fields))

    def expect(actual, expected, what):
        require_equal(actual, expected, f"{why}: {what}")

    components = "IVssBackupComponents::"
    places = {line["call"]: place for place, line in enumerate(result.log)}  # the last of each
    for begin, end in (("CoInitializeEx", "CoUninitialize"), ("CreateVssBackupComponents", components + "Release")):
        expect(count(end), count(begin, status="0x00000000"), f"ends of {begin}")
    expect(count("IVssAsync::Release"), count("IVssAsync::Wait"), "releases of steps that were waited for")
    shadows = [(place, line) for place, line in enumerate(result.log) if "ShadowCopy" in line.get("path", "")]
    opened = [place for place, line in shadows if line["call"] == "CreateFileW" and line["ok"]]
    expect(sum(line["call"] == "CloseHandle" for _, line in shadows), len(opened), "shadow devices that were closed")
    has_set = count(components + "GatherWriterStatus") == 1  # the first thing that is done with one
    expect(count(components + "DeleteSnapshots"), has_set, "sets that were deleted")
    told = count(components + "AbortBackup"), count(components + "BackupComplete")
    if not has_set:
        expect((opened, told), ([], (0, 0)), "shadows, and what the writers were told, without a set")
        return
    require(max([place for place, _ in shadows], default=-1) < places[components + "DeleteSnapshots"],
            f"{why}: a shadow device outlived its set")
    deleted = int(result.calls(components + "DeleteSnapshots")[0]["status"], 16)
    expect(b"WARNING: could not delete the snapshot set" in result.stdout,
           deleted & 0x80000000 != 0 and deleted != OBJECT_NOT_FOUND, "whether a set that is left is told of")
    # A capture is told of before its image gets its name, which may fail; and where its end fails, it is aborted.
    may_be = [(0, 1), (1, 1)] if result.status == 0 or "MoveFileExW" in places else [(1, 0)]
    require(told in may_be, f"{why}: the writers were told {told}")
