"""The pieces of console text that many scenarios share, put together independently of the program.

Texts that belong to one command stand whole in the suite of that command. This is for the usage text, the report of a
fatal failure, the meter line and sizes.
"""

# Stands for a number that means nothing: the last error of a failure that is no failure of a system call.
ANY_NUMBER = "\u2039any number\u203a"

USAGE = (
    "Vornix - whole-physical-disk raw sector-level imaging.\n"
    "\n"
    "  vornix list-disks\n"
    "  vornix capture --disk N --out PATH [--base PATH [--thin]] [--vss] [--encrypt --password-file PATH]\n"
    "  vornix verify  --in PATH [--password-file PATH]\n"
    "  vornix restore --in PATH --disk N --confirm YES [--password-file PATH]\n"
    "  vornix clone --from N --to M --confirm YES [--verify]   (disk straight onto disk)\n"
    "  vornix consolidate --in PATH --out PATH [--password-file PATH [--encrypt]]  (thin chain -> one full image)\n"
    "\n"
    "Run as Administrator. See README.md for the crash-consistency and\n"
    "destructive-restore notes before using this on a real disk.\n"
)


def fatal(message, error=ANY_NUMBER):
    """The report of a failure with the last error; without `error` its number is meaningless and any will do."""
    return f"FATAL: {message} (GetLastError={error})\n"


def fatal_status(message, status):
    """The report of a failed primitive of cryptography; `status` as an unsigned number."""
    return f"FATAL: {message} (NTSTATUS 0x{status:08X})\n"


def gib(count):
    """A byte count as the console shows it, without the unit."""
    return "%.2f" % (count * 2.0 ** -30)


def meter(done, total, seconds):
    """One meter line, `seconds` after the start of the loop."""
    percentage = 0.0 if total == 0 else done * 100.0 / total
    rate = 0.0 if seconds <= 0.1 else done / 1048576.0 / seconds
    return "\r  %6.2f%%  %d / %d MiB  (%.1f MiB/s)   " % (percentage, done >> 20, total >> 20, rate)


def meter_run(disk_size, chunk_size, *, step=1.0, upto=None, silent=()):
    """The meter lines of a loop over the chunks of a disk: first chunk, every 32nd, last.

    `step` is how many seconds the clock of the machine gains at each look. `upto` leaves off before that chunk;
    `silent` names chunks that print nothing though it would be their turn.
    """
    count = (disk_size - 1) // chunk_size + 1 if disk_size else 0
    text, looks = "", 0
    for index in range(count if upto is None else upto):
        if (index % 32 == 0 or index == count - 1) and index not in silent:
            looks += 1
            text += meter(min((index + 1) * chunk_size, disk_size), disk_size, looks * step)
    return text


# --- What whole runs print ------------------------------------------------------------------------------------------

NO_TRACKER = ("Change tracker: not available for this disk (Wendrel not loaded/attached)"
              " - image carries no epoch.\n")
SYSTEM_DISK_NOTE = (
    "NOTE: this is the currently booted system disk and -vss was not given - reading it live\n"
    "      is crash-consistent only (see the file header comment). Proceeding anyway.\n")
LARGER_TARGET_NOTE = (
    "NOTE: target disk is larger than the image's source disk. The restored GPT's backup\n"
    "      header (stored at the end of the ORIGINAL disk size) will sit before the end of\n"
    "      this larger disk - Windows generally repairs this automatically on next boot/\n"
    "      diskpart rescan, but treat the extra space as unallocated until you've confirmed\n"
    "      that repair happened. This is a known limitation of restoring to a differently\n"
    "      sized disk, not specific to this tool.\n")
RESTORE_COMPLETE = "Restore complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n"


RESTORE_UNCONFIRMED = "Refusing: restore is destructive (overwrites the ENTIRE target disk). Pass --confirm YES.\n"


def exclusive_failure(disk, error):
    """What a target disk that cannot be had for itself brings."""
    return (f"Could not open disk {disk} exclusively for writing (GetLastError={error}).\n"
            "This almost always means a volume on it is still mounted/in use.\n"
            f"Take it offline first: diskpart > select disk {disk} > offline disk\n")


def captured_chunk(sector_size):
    """The chunk size of a capture: 4 MiB, up to the next whole sector."""
    return -(-0x400000 // sector_size) * sector_size


def source_line(disk, length, sector_size=512):
    chunk = captured_chunk(sector_size)
    count = (length - 1) // chunk + 1 if length else 0
    return (f"Source: PhysicalDrive{disk}  Size: {gib(length)} GiB  SectorSize: {sector_size}"
            f"  Chunks: {count} ({chunk} bytes each)\n")


def capture_text(disk, length, out, *, sector_size=512, system=False, tracker=NO_TRACKER, step=1.0):
    """A whole successful full capture without a base."""
    return (source_line(disk, length, sector_size) + (SYSTEM_DISK_NOTE if system else "") + tracker
            + meter_run(length, captured_chunk(sector_size), step=step) + f"\nCapture complete: {out}\n")


def verifying_line(path, chunks, disk_size):
    return f"Verifying {path}  ({chunks} chunks, {gib(disk_size)} GiB source disk)\n"


def verify_text(path, disk_size, chunk_size, *, step=1.0, base=None):
    """A whole verification of a good image; of a thin one over `base`."""
    count = (disk_size - 1) // chunk_size + 1
    return (verifying_line(path, count, disk_size) + (f"  thin image: chain continues with {base}\n" if base else "")
            + meter_run(disk_size, chunk_size, step=step)
            + f"\nVerify OK - all {count} chunks match their recorded hash.\n")


def verify_failed(bad, chunks):
    return f"Verify FAILED - {bad} of {chunks} chunks did not match. Do not trust this image for restore.\n"


def restoring_line(path, disk, chunks, disk_size):
    return f"Restoring {path} -> PhysicalDrive{disk} ({chunks} chunks, {gib(disk_size)} GiB)\n"


def restore_text(path, disk, disk_size, chunk_size, *, larger=False, step=1.0):
    """A whole successful restore."""
    count = (disk_size - 1) // chunk_size + 1
    return ((LARGER_TARGET_NOTE if larger else "") + restoring_line(path, disk, count, disk_size)
            + meter_run(disk_size, chunk_size, step=step) + "\n" + RESTORE_COMPLETE)
