"""What a consolidation prints and what file it must leave, for the suites of that command.

Put together independently of the program: nothing here judges a run.
"""

import hashlib

from console import meter_run, verifying_line
from image import Header, Record, chunk_count_of

ALREADY_THERE = "--out already exists - refusing to overwrite an image"
NO_PATHS = "could not resolve image paths"
NO_OUTPUT = "could not create output image file"
SEALED_INPUT = "this image is encrypted - pass --password-file"
WRITE_FAILED = "WriteFile failed while consolidating (disk full?)"
BAD_HASH = "chunk failed its hash check (corrupt image or base)"
BAD_TAG = "chunk failed authentication (corrupt or tampered image)"
UNREADABLE = "could not read chunk data from image (truncated?)"


def consolidated_line(out):
    return f"Consolidated: {out} (self-contained full image, verifying...)\n"


def folded_text(out, disk_size, chunk_size):
    """Everything up to the closing verification."""
    return meter_run(disk_size, chunk_size) + "\n" + consolidated_line(out)


def verified_text(out, disk_size, chunk_size, upto=None, silent=()):
    """The closing verification, or its beginning up to a chunk."""
    count = chunk_count_of(disk_size, chunk_size)
    end = f"\nVerify OK - all {count} chunks match their recorded hash.\n" if upto is None else ""
    return verifying_line(out, count, disk_size) + meter_run(disk_size, chunk_size, upto=upto, silent=silent) + end


def consolidate_text(out, disk_size, chunk_size):
    """A whole successful consolidation."""
    return folded_text(out, disk_size, chunk_size) + verified_text(out, disk_size, chunk_size)


def plain_full_image(plain, chunk_size, sector_size=512):
    """The one file that a consolidation to a plain image can write for a disk of these bytes."""
    count = chunk_count_of(len(plain), chunk_size)
    header = Header(len(plain), chunk_size, count, sector_size=sector_size)
    chunks = [plain[index * chunk_size:(index + 1) * chunk_size] for index in range(count)]
    table = [Record(index * chunk_size, len(chunk), hashlib.sha256(chunk).digest())
             for index, chunk in enumerate(chunks)]
    return header.pack() + b"".join(record.pack() for record in table) + plain


def unfinished_image(plain, chunk_size, written):
    """The plain output of a run that ended with `written` bytes of chunk data in it."""
    return bytes(64 + 72 * chunk_count_of(len(plain), chunk_size)) + plain[:written] if written else b""
