"""Captures over a base: the tracker's bitmap, the console's lines, and what a run read according to its log.

For the suites of incremental captures and of chains. The lines are put together independently of the program; nothing
here judges a run by itself.
"""

import hashlib
import struct

from console import NO_TRACKER, meter_run, source_line, verify_text
from image import read_table
from machine import pattern

MIB4 = 0x400000
DEVICE = "\\\\.\\Wendrel"

REASON_NO_TRACKER = "no change tracker for this disk"
REASON_NO_EPOCH = "base image has no epoch (captured without the tracker)"
REASON_NO_PREVIOUS = "driver holds no previous epoch (reboot/reload since the base image)"
REASON_NOT_LATEST = "base image is not the most recent committed image"
REASON_GAP = "tracker saw an untracked write (gap) since the base image"
COMMIT_WARNING = "WARNING: tracker COMMIT failed - the next capture will be a full one.\n"


# --- The bitmap -----------------------------------------------------------------------------------------------------

def set_bits(count, *bits):
    """A bitmap of `count` bytes with these bits set, as the tracker's file has it."""
    data = bytearray(count)
    for bit in bits:
        data[bit // 8] |= 1 << bit % 8
    return data.hex()


def bits_of(offset, length, shift):
    return range(offset >> shift, (offset + length - 1 >> shift) + 1)


def bitmap_bytes(disk_length, shift):
    """How many bytes a bitmap needs for the whole disk."""
    return (disk_length - 1 >> shift) // 8 + 1


def marked(disk_length, shift, *ranges):
    """A bitmap for the whole disk in which the (offset, length) ranges are marked, as the tracker's file has it."""
    bits = [bit for offset, length in ranges for bit in bits_of(offset, length, shift)]
    return set_bits(bitmap_bytes(disk_length, shift), *bits)


# --- The console ----------------------------------------------------------------------------------------------------

def tracker_line(disk, epoch, gap=False):
    return f"Change tracker: disk {disk} epoch {epoch:X}{' (GAP - untracked write seen)' if gap else ''}\n"


def base_line(path):
    return f"Incremental mode: base image {path}\n"


def proof_line(epoch):
    return f"  --base: base epoch {epoch:X} matches tracker; unchanged chunks will be copied from the base image.\n"


def compared_line(reason):
    return (f"  --base: cannot prove what changed ({reason}) - reading every chunk and comparing hashes with the base "
            "(no driver needed; slower to read, still a small file).\n")


def fallback_line(reason):
    return f"  --base: cannot prove what changed ({reason}) - doing a FULL capture (correct, just slower).\n"


def thin_complete(out, chunks, references, read):
    return (f"Capture complete (thin): {out}  (stored {chunks - references} of {chunks} chunks, {references} are "
            f"references to the base; read from disk: {read})\n")


def copy_complete(out, read, copied):
    return f"Capture complete: {out} (Read from disk: {read}, Copied from base: {copied} chunks)\n"


def full_complete(out):
    return f"Capture complete: {out}\n"


def incremental_text(length, base, settled, complete, *, disk=1, tracker=NO_TRACKER, sector_size=512, chunk=MIB4,
                     warning=""):
    """A whole successful capture over a base: `settled` is the line on the mode, `complete` the last one."""
    return (source_line(disk, length, sector_size) + tracker + base_line(base) + settled
            + meter_run(length, chunk) + "\n" + warning + complete)


def thin_verify_text(path, base, disk_size, chunk_size):
    """A whole verification of a good thin image."""
    return verify_text(path, disk_size, chunk_size, base=base)


def missing_base(path):
    return (f"This is a thin (incremental) image; its base image is missing: {path}\n"
            "Keep every image of a chain in the same folder.\n")


def other_base(path):
    return f"Base image {path} is not the one this image was made against (it was modified or replaced).\n"


# --- The log --------------------------------------------------------------------------------------------------------

def chunks_read(result, disk=1, chunk=MIB4):
    """The indexes of the chunks that were read from a disk, in the order of the reads."""
    return [line["offset"] // chunk for line in result.calls("ReadFile", path=f"PhysicalDrive{disk}")]


def data_reads(machine, result, name):
    """The reads of an image file that touched its chunk data, by the file as it stands now."""
    _, records = read_table(machine.path(name))
    start = 64 + 72 * len(records)
    end = start + sum(record.stored_length for record in records)
    return [line for line in result.calls("ReadFile", path=name)
            if line["path"] == name and line["offset"] < end and line["offset"] + line["length"] > start]


def tracker_calls(result):
    """The run's dealings with the driver: (call, code, bytes in, bytes out, ok) each."""
    return [(line["call"], line.get("code"), line.get("in"), line.get("out"), line["ok"])
            for line in result.calls(path="Wendrel")]


# --- Disks that cost little -------------------------------------------------------------------------------------------

def hollow(length, seed):
    """A chunk; a large one has bytes of its own at both ends, and what lies between is a hole."""
    if length < MIB4:
        return pattern(length, seed)
    return pattern(512, f"{seed} begin") + bytes(length - 1024) + pattern(512, f"{seed} end")


def hollow_disk(size, seed):
    """A disk of hollow chunks, each with another content."""
    return b"".join(hollow(min(MIB4, size - at), f"{seed} {at}") for at in range(0, size, MIB4))


def write_hollow(path, data):
    """Writes a file with holes for its zeros."""
    block, zeros = 65536, bytes(65536)
    with open(path, "wb") as file:
        for at in range(0, len(data), block):
            part = data[at:at + block]
            if part != zeros[:len(part)]:
                file.seek(at)
                file.write(part)
        file.truncate(len(data))


# --- Sectors that describe themselves -------------------------------------------------------------------------------

SECTOR = 512


def sector(generation, number):
    """A sector that says of itself which one it is and of which generation, closed by a checksum."""
    body = struct.pack("<QQ", generation, number) * 31
    return body + hashlib.sha256(body).digest()[:16]


def describe_sector(data):
    """What a sector says of itself."""
    if len(data) != SECTOR:
        return f"{len(data)} bytes and no sector"
    if hashlib.sha256(data[:-16]).digest()[:16] != data[-16:]:
        return "no sector of a generation, or a torn one" if any(data) else "zeros"
    generation, number = struct.unpack_from("<QQ", data)
    return f"sector {number} of generation {generation}"


def first_wrong_sector(actual, expected):
    """What is wrong with the first sector that differs, in words; None where the disks are equal."""
    if actual == expected:
        return None
    if len(actual) != len(expected):
        return f"{len(actual)} bytes where {len(expected)} were expected"
    wrong = [at for at in range(0, len(expected), SECTOR) if actual[at:at + SECTOR] != expected[at:at + SECTOR]]
    at = wrong[0]
    return (f"{len(wrong)} sectors differ; place {at // SECTOR} holds {describe_sector(actual[at:at + SECTOR])} where "
            f"{describe_sector(expected[at:at + SECTOR])} belongs")
