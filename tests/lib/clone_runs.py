"""What a clone does and prints, block by block, for the suites of that command.

Put together independently of the program: nothing here judges a run.
"""

import functools

import machine
from console import gib, meter

BLOCK = 4194304

COMPLETE = "Clone complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n"
SYSTEM_SOURCE_NOTE = ("NOTE: the source is the running system disk - it is read live (crash-consistent, not a VSS "
                      "snapshot).\n")
READ_FAILED = "read from the source disk failed - clone aborted, target left partially written"
WRITE_FAILED = "write to the target disk failed - clone aborted, target left partially written"
VERIFY_SOURCE_FAILED = "verify: read from source failed"
VERIFY_TARGET_FAILED = "verify: read from target failed"

# Megabytes of the same few patterns are wanted by many tests.
pattern = functools.lru_cache(maxsize=64)(machine.pattern)


def blocks_of(length):
    """The blocks of a disk as (offset, bytes), the last one cut to what remains."""
    return [(offset, min(BLOCK, length - offset)) for offset in range(0, length, BLOCK)]


def sector_note(source, target):
    return (f"NOTE: sector sizes differ ({source} -> {target}); "
            "a raw clone between different sector sizes may not boot.\n")


def cloning_line(source, target, length):
    return f"Cloning PhysicalDrive{source} -> PhysicalDrive{target} ({gib(length)} GiB)\n"


def block_meters(length, *, upto=None, silent=(), step=1.0):
    """The meter lines of one pass over the blocks, on a clock that gains `step` seconds at each look. `upto` leaves off
    before that block; `silent` names blocks that print nothing."""
    text, looks = "", 0
    for index, (offset, count) in enumerate(blocks_of(length)[:upto]):
        if index not in silent:
            looks += 1
            text += meter(offset + count, length, looks * step)
    return text


def copy_text(source, target, length, notes="", upto=None):
    """Everything up to the end of the copy pass, or up to a block in the midst of it."""
    end = "\n" if upto is None else ""
    return notes + cloning_line(source, target, length) + block_meters(length, upto=upto) + end


def verify_text(length, silent=(), upto=None):
    """The verify pass, or its beginning up to a block."""
    end = "\nVerify OK.\n" if upto is None else ""
    return "Verifying the copy...\n" + block_meters(length, silent=silent, upto=upto) + end


def clone_text(source, target, length, *, notes="", verify=False, silent=()):
    """A whole successful clone."""
    return (copy_text(source, target, length, notes) + (verify_text(length, silent) if verify else "") + COMPLETE)
