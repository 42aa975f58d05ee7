"""What a snapshot session prints, and how its part of a log is read. The lines are put together independently of the
program; those of one failure alone stand in the suite that provokes it.
"""

from console import gib

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


def begun(volumes, *, writers="", reported=0, failed=0, ranges=None):
    """All that a session prints at its beginning; `volumes` as (number, start, length) each, in their order. `writers`
    are the lines of the failed ones."""
    return (GATHERING + "".join(snapshotting(*volume) for volume in volumes) + FREEZING + writers
            + writers_reported(reported, failed) + snapshotted(len(volumes) if ranges is None else ranges))


def session_calls(result):
    """The names of the calls to the service and to COM, in their order."""
    return [line["call"] for line in result.log if line["call"] in SESSION_CALLS or line["call"].startswith("IVss")]


def short_names(calls):
    """The same without the names of the interfaces, for lists that are to be read."""
    return [call.removeprefix("IVssBackupComponents::").replace("IVssAsync::", "async ") for call in calls]
