"""What a disk may hold after its power is lost, out of the log of its writes.

The log is that of QEMU's driver blklogwrites, which has the format of the kernel's dm-log-writes: a sector with magic
number, version, number of entries and sector size, then for each request a sector with its place, length and flags, and
the data. A disk with a volatile cache keeps what it was told before the last flush, and of what came after it any part.
So a moment of a lost power is a place in the log, and a choice among the writes since the flush before that place.
"""

import random
import struct
from dataclasses import dataclass

MAGIC = 0x6A736677736872
FLUSH, FUA, DISCARD = 1, 2, 4
SECTOR = 512
PIECE = 4096  # a write that is lost in part is lost in pieces of this size
BLOCK = 65536  # the unit in which a replay knows what of a disk was ever written
MARK = b"this far the program has come: "


def mark_bytes(name):
    """A sector that says in the log, between its other writes, that something has happened."""
    return (MARK + name.encode()).ljust(SECTOR, b"\n")


@dataclass
class Write:
    offset: int
    data: bytes


@dataclass
class Entry:
    """One request: writes nothing where `write` is None. `mark`: the name of what had happened by then."""

    write: Write | None
    flush: bool
    durable: bool
    mark: str | None


def read_log(path):
    with open(path, "rb") as file:
        log = file.read()
    if any(log[:SECTOR]):  # which QEMU writes with the first flush
        magic, version, _, sector_size = struct.unpack_from("<QQQI", log)
        if (magic, version, sector_size) != (MAGIC, 1, SECTOR):
            raise AssertionError(f"{path} is no log of writes")
    entries, at = [], SECTOR
    while at + SECTOR <= len(log):
        sector, sectors, flags = struct.unpack_from("<QQQ", log, at)
        at += SECTOR
        if flags & DISCARD:
            data = bytes(sectors * SECTOR)
        else:
            data = log[at:at + sectors * SECTOR]
            at += len(data)
        mark = data[len(MARK):].strip().decode() if data.startswith(MARK) else None
        write = Write(sector * SECTOR, data) if data and mark is None else None
        entries.append(Entry(write, bool(flags & FLUSH), bool(flags & FUA), mark))
    return entries


@dataclass
class State:
    """A disk after power was lost behind `cut` entries of the log; `kept` says what it kept of the unflushed writes,
    and `marks` what had happened by then."""

    cut: int
    kept: str
    marks: list
    writes: list


class Replay:
    """Every state of a disk that began with these bytes; one after the other, in the order of the log."""

    def __init__(self, start, entries, seed):
        self.durable, self.entries, self.seed = bytearray(start), entries, seed
        self.kept = 0  # how many writes are in it
        self.used = {at // BLOCK for at in range(0, len(start), BLOCK) if any(start[at:at + BLOCK])}

    def _keep(self, write):
        self.kept += 1
        end = write.offset + len(write.data)
        self.durable[write.offset:end] = write.data
        self.used.update(range(write.offset // BLOCK, (end - 1) // BLOCK + 1))

    def states(self, subsets):
        """Behind each write, and behind each mark, since more is promised then: all of what was not flushed, none of it
        (once between two flushes), and `subsets` drawn parts of it, every other one with torn writes."""
        pending, marks, without = [], [], None
        for cut, entry in enumerate(self.entries, 1):
            if entry.flush:
                for kept in pending:
                    self._keep(kept)
                pending = []
            if entry.mark is not None:
                marks.append(entry.mark)
            if entry.write and entry.durable:
                pending = [kept for kept in pending if not _within(kept, entry.write)]
                self._keep(entry.write)
            elif entry.write:
                pending.append(entry.write)
            elif entry.mark is None:
                continue
            if without != (self.kept, len(marks)):
                without = (self.kept, len(marks))
                yield State(cut, "none", list(marks), [])
            if pending:
                yield State(cut, "all", list(marks), list(pending))
                for number in range(subsets if len(pending) > 1 else subsets // 2):
                    drawn = random.Random(f"{self.seed} {cut} {number}")
                    torn = len(pending) == 1 or number % 2
                    yield State(cut, f"part {number}", list(marks), _part(drawn, pending, torn))

    def build(self, state, path):
        """Makes a file that is the disk in this state."""
        with open(path, "wb") as file:
            file.truncate(len(self.durable))
            for block in sorted(self.used):
                file.seek(block * BLOCK)
                file.write(self.durable[block * BLOCK:(block + 1) * BLOCK])
            for write in state.writes:
                file.seek(write.offset)
                file.write(write.data)

    def holds(self, state, expected):
        """Whether the disk in this state begins with these bytes."""
        disk = bytearray(self.durable[:len(expected)])
        for write in state.writes:
            if write.offset < len(disk):
                data = write.data[:len(disk) - write.offset]
                disk[write.offset:write.offset + len(data)] = data
        return disk == expected


def _within(write, other):
    """Whether a later write covers the earlier one whole, so that nothing of it is left to be lost."""
    return other.offset <= write.offset and write.offset + len(write.data) <= other.offset + len(other.data)


def _part(drawn, pending, torn):
    """Of the unflushed writes those that a random choice keeps, whole or in pieces, in their order."""
    if not torn:
        return [write for write in pending if drawn.random() < 0.5]
    return [Write(write.offset + at, write.data[at:at + PIECE]) for write in pending
            for at in range(0, len(write.data), PIECE) if drawn.random() < 0.5]
