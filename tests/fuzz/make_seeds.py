#!/usr/bin/env python3
"""Makes the committed inputs of the fuzz targets anew: tests/run tests/fuzz/make_seeds.py

Each is one valid case or one cause of a refusal, and is named for it.
"""

import os
import shutil
import struct
import sys
import tempfile

import image

HERE = os.path.dirname(os.path.abspath(__file__))

CHUNK = 512
PLAIN = bytes(range(256)) * 2 + bytes(CHUNK) + b"end of the disk" * 20
FUZZ_PASSWORD = b"pw"


def write_seed(target, name, content):
    folder = os.path.join(HERE, "seeds", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as file:
        file.write(content)


def stretch(content):
    return struct.pack("<H", len(content)) + content


def image_seed(name, *images, wishes=0):
    write_seed("image", name, bytes([wishes, len(images) - 1]) + b"".join(stretch(content) for content in images))


def fuzz_key(salt):
    """The cheap derivation of the targets' world."""
    return bytes(FUZZ_PASSWORD[i % len(FUZZ_PASSWORD)] ^ salt[i % 16] for i in range(32))


def make_image_seeds():
    true_derivation = image.derive_key
    image.derive_key = lambda password, salt, iterations: fuzz_key(salt)
    changed = PLAIN[:CHUNK] + b"x" * CHUNK + PLAIN[2 * CHUNK:]
    with tempfile.TemporaryDirectory() as folder:
        def path(name):
            return os.path.join(folder, name)

        full = image.build_image(path("1"), PLAIN, chunk_size=CHUNK)
        image_seed("full_plain", full.to_bytes())
        sealed = image.ImageBuilder(PLAIN, chunk_size=CHUNK, password=FUZZ_PASSWORD)
        image_seed("full_sealed", sealed.to_bytes())
        image_seed("sealed_without_password", sealed.to_bytes(), wishes=2)
        thin = image.build_image(path("0"), changed, chunk_size=CHUNK, base=path("1"))
        image_seed("thin_over_full", thin.to_bytes(), full.to_bytes(), wishes=1)
        image_seed("thin_without_base", thin.to_bytes())
        image_seed("thin_over_replaced_base", thin.to_bytes(),
                   image.ImageBuilder(changed, chunk_size=CHUNK).to_bytes())
        sealed.write(path("1"))
        image_seed("sealed_thin_over_sealed",
                   image.ImageBuilder(changed, chunk_size=CHUNK, base=path("1"), password=FUZZ_PASSWORD).to_bytes(),
                   sealed.to_bytes(), wishes=1)
        loop = image.ImageBuilder(changed, chunk_size=CHUNK, base=path("1"), base_name=b"0")
        image_seed("names_itself", loop.to_bytes())
        full.write(path("2"))
        middle = image.build_image(path("1"), changed, chunk_size=CHUNK, base=path("2"))
        top = image.ImageBuilder(changed[:CHUNK] + PLAIN[CHUNK:], chunk_size=CHUNK, base=path("1"))
        image_seed("chain_of_three", top.to_bytes(), middle.to_bytes(), full.to_bytes(), wishes=1)

        def broken(name, change, **options):
            builder = image.ImageBuilder(PLAIN, chunk_size=CHUNK, **options)
            change(builder)
            image_seed(name, builder.to_bytes())

        broken("bad_magic", lambda b: setattr(b.header, "magic", b"VRNXDSK1"))
        broken("bad_version", lambda b: setattr(b.header, "version", 4))
        broken("disk_size_0", lambda b: setattr(b.header, "disk_size", 0))
        broken("sector_size_768", lambda b: setattr(b.header, "sector_size", 768))
        broken("chunk_size_too_large", lambda b: setattr(b.header, "chunk_size", 0x4000200))
        broken("chunk_count_off_by_one", lambda b: setattr(b.header, "chunk_count", 4))
        broken("encrypted_2", lambda b: setattr(b.header, "encrypted", 2))
        broken("iterations_in_plain", lambda b: setattr(b.header, "kdf_iterations", 1))
        broken("wrong_offset", lambda b: setattr(b.records[1], "disk_offset", 1))
        broken("wrong_length", lambda b: setattr(b.records[1], "stored_length", 511))
        broken("reference_in_full_image", lambda b: setattr(b.records[1], "stored_length", 0))
        broken("wrong_hash", lambda b: setattr(b.records[1], "hash", bytes(32)))
        broken("wrong_tag", lambda b: setattr(b.records[1], "tag", bytes(16)), password=FUZZ_PASSWORD)
        broken("data_cut_short", lambda b: b.stored.pop())
        image_seed("header_cut_short", full.to_bytes()[:63])
        image_seed("table_cut_short", full.to_bytes()[:100])
        image_seed("nothing", b"")
    image.derive_key = true_derivation


def make_trailer_seeds():
    def seed(name, trailer, gap=b"", data_end=0):
        write_seed("trailer", name, struct.pack("<H", data_end) + gap + trailer.pack())

    digest = bytes(range(32))
    seed("good", image.Trailer(b"base.vrnx", digest))
    seed("good_behind_gap", image.Trailer(b"base.vrnx", digest), gap=b"gap", data_end=1)
    seed("separator", image.Trailer(b"..\\base", digest))
    seed("colon", image.Trailer(b"C:base", digest))
    seed("empty_name", image.Trailer(b"", digest))
    seed("longest_name", image.Trailer(b"n" * 4048, digest))
    seed("bad_magic", image.Trailer(b"base", digest, magic=b"VRNXBASF"))
    seed("name_length_off", image.Trailer(b"base", digest, name_length=5))
    seed("total_length_47", image.Trailer(b"base", digest, total_length=47))


def make_other_seeds():
    for name, words in {"value": ["capture", "--out", "x"], "last": ["capture", "--disk"], "flag_as_value":
                        ["capture", "--out", "--thin"], "value_like_a_default": ["--out", "\x01none", "--disk", "one"],
                        "number": [" -12abc", "99999999999", "+3"]}.items():
        write_seed("options", name, "\0".join(["vornix", *words]).encode())
    for name, (repeats, content) in {"plain": (0, b"secret\r\n"), "line_ends_only": (3, b"\r\n"), "empty": (0, b""),
                                     "zero_byte": (0, b"a\0b\n"), "at_the_limit": (4095, b"p" * 256),
                                     "too_large": (4096, b"p" * 256)}.items():
        write_seed("password", name, struct.pack("<H", repeats) + content)

    def status(bitmap_bytes, shift=16, active=1, extent=1 << 20):
        return struct.pack("<IIQQIIQII", active, 1, 16, 17, 0, 0, extent, shift, bitmap_bytes)

    def tracker_seed(name, offset, length, first, second):
        write_seed("tracker", name, struct.pack("<QI", offset, length) + stretch(first) + stretch(second))

    tracker_seed("clear_range", 0, 0x40000, status(2), status(2) + b"\0\xff")
    tracker_seed("set_bit", 0x80000, 0x10000, status(2), status(2) + b"\0\x01")
    tracker_seed("beyond_the_bitmap", 0x100000, 1, status(2), status(2) + b"\0\0")
    tracker_seed("empty_bitmap", 0, 1, status(0), status(0))
    tracker_seed("inactive", 0, 1, status(2, active=0), status(2))
    tracker_seed("shift_64", 5, 3, status(1, shift=64), status(1, shift=64) + b"\x01")
    tracker_seed("second_disagrees", 0, 1, status(2), status(200, shift=3) + b"\0\0")

    def volume(name, extents):
        reply = struct.pack("<II", len(extents), 0) + b"".join(struct.pack("<IIQQ", disk, 0, start, length)
                                                               for disk, start, length in extents)
        return bytes([len(name)]) + name + b"\x01" + stretch(reply)

    def volume_seed(name, offset, length, *volumes):
        head = bytes([1]) + struct.pack("<Q", offset)[:6] + struct.pack("<I", length)
        write_seed("volumes", name, head + b"".join(volumes))

    volume_seed("one", 1 << 20, 4096, volume(b"v", [(1, 1 << 20, 1 << 22)]))
    volume_seed("two", 1 << 20, 1 << 22, volume(b"v", [(1, 1 << 20, 1 << 21)]), volume(b"w", [(1, 3 << 20, 1 << 21)]))
    volume_seed("spanned", 1 << 20, 4096, volume(b"v", [(1, 1 << 20, 1 << 22), (2, 0, 1 << 20)]))
    volume_seed("elsewhere", 1 << 20, 4096, volume(b"v", [(2, 1 << 20, 1 << 22)]))
    # A volume that cannot be opened has no extents; one whose name begins like the tracker's device can.
    tracker_name = b"\\\\.\\Wendrel\0"
    volume_seed("no_reply", 0, 512, bytes([len(tracker_name)]) + tracker_name + b"\x01" + stretch(b""))
    volume_seed("ten_extents", 0, 512, volume(b"v", [(1, i << 20, 1 << 20) for i in range(10)]))


def main():
    shutil.rmtree(os.path.join(HERE, "seeds"), ignore_errors=True)
    make_image_seeds()
    make_trailer_seeds()
    make_other_seeds()
    return 0


if __name__ == "__main__":
    sys.exit(main())
