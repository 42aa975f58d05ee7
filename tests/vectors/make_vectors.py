#!/usr/bin/env python3
"""Makes the committed image files anew, good and bad: tests/run tests/vectors/make_vectors.py

Each bad file has one cause, is named for it, and stands in expectations.json with the exit status of a verification and
the line that it ends with on standard error. A good one stands there with the SHA-256 of its plain disk. Of the folder
`chain`, a chain of 66 images, only the upper two have expectations: the longest chain that there is, and one too long.
"""

import hashlib
import json
import os
import shutil
import sys

import image

HERE = os.path.dirname(os.path.abspath(__file__))

CHUNK = 512
PLAIN = b"A" * CHUNK + b"B" * CHUNK + b"C" * 300 + bytes(100)
CHANGED = PLAIN[:CHUNK] + b"b" * CHUNK + PLAIN[2 * CHUNK:]
PASSWORD = b"correct horse"

GEOMETRY = "image header has invalid disk/sector/chunk geometry"
KEY_PARAMETERS = "image has invalid encryption/KDF parameters"
COUNT = "image header has an impossible chunk count"
TABLE = "image chunk table has an invalid offset or length"
TRUNCATED_TRAILER = "thin image has no valid trailer - file is truncated"
MALFORMED_TRAILER = "thin image trailer is malformed"
ESCAPE = "thin image trailer names a base outside its folder - refusing"
FAILED = "Verify FAILED - {} of 3 chunks did not match. Do not trust this image for restore."

expectations = {}


def write(name, content, message=None, sealed=False, plain=None):
    """One file; `message` is what its verification ends with. A good image has none, and `plain`, its disk."""
    with open(os.path.join(HERE, name), "wb") as file:
        file.write(content)
    expectations[name] = {"status": 0 if message is None else 1, "message": message, "sealed": sealed,
                          "plain_sha256": None if plain is None else hashlib.sha256(plain).hexdigest()}


def good(name, plain, change=None, chunk_size=CHUNK, **options):
    builder = image.ImageBuilder(plain, chunk_size=chunk_size, **options)
    if change:
        change(builder)
    write(name, builder.to_bytes(), sealed="password" in options, plain=plain)


def bad(name, message, change, *, cut=None, **options):
    builder = image.ImageBuilder(PLAIN if "base" not in options else CHANGED, chunk_size=CHUNK, seed=name, **options)
    change(builder)
    content = builder.to_bytes()
    write(name, content if cut is None else content[:cut], message, sealed="password" in options)


def header(**fields):
    def change(builder):
        for field, value in fields.items():
            setattr(builder.header, field, value)
    return change


def record(index, **fields):
    def change(builder):
        for field, value in fields.items():
            setattr(builder.records[index], field, value)
    return change


def trailer(**fields):
    def change(builder):
        for field, value in fields.items():
            setattr(builder.trailer, field, value)
    return change


def flip_stored(index):
    def change(builder):
        data = builder.stored[index]
        builder.stored[index] = bytes([data[0] ^ 1]) + data[1:]
    return change


def make_good():
    base = os.path.join(HERE, "full.vrnx")
    good("full.vrnx", PLAIN)
    good("full-with-epoch.vrnx", PLAIN, epoch=0x0123456789ABCD)
    good("full-one-chunk.vrnx", PLAIN[:100])
    good("full-4096-sectors.vrnx", PLAIN, chunk_size=4096, sector_size=4096)
    good("full-with-tail.vrnx", PLAIN,
         lambda builder: setattr(builder, "tail", b"bytes behind the chunk data are ignored"))
    good("sealed.vrnx", PLAIN, password=PASSWORD)
    good("thin.vrnx", CHANGED, base=base)
    good("thin-all-references.vrnx", PLAIN, base=base)
    good("thin-no-reference.vrnx", PLAIN, base=base, references=())
    good("thin-with-gap.vrnx", CHANGED,
         lambda builder: setattr(builder, "gap", b"bytes before the trailer are ignored" * 20), base=base)
    good("thin-over-thin.vrnx", PLAIN, base=os.path.join(HERE, "thin.vrnx"))
    good("thin-sealed-over-plain.vrnx", CHANGED, base=base, password=PASSWORD)
    good("thin-sealed-over-sealed.vrnx", CHANGED, base=os.path.join(HERE, "sealed.vrnx"), password=PASSWORD,
         seed="other salt")


def make_chain():
    """The longest chain and one image more: each stores anew one of the three chunks of the one below it."""
    os.makedirs(os.path.join(HERE, "chain"), exist_ok=True)
    base, plain = None, PLAIN
    for number in range(1, 67):
        name = f"chain/{number:02}.vrnx"
        if number == 66:
            write(name, image.ImageBuilder(plain, chunk_size=CHUNK, base=base).to_bytes(),
                  "image chain is too deep (or loops back on itself)")
        else:
            good(name, plain, chunk_size=CHUNK, base=base)
            if number < 65:
                del expectations[name]
        base = os.path.join(HERE, name)
        begin = number % 3 * CHUNK
        plain = plain[:begin] + bytes([number]) * len(plain[begin:begin + CHUNK]) + plain[begin + CHUNK:]


def make_bad_full():
    bad("bad-empty.vrnx", "could not read image header - file is truncated or not a .vrnx image", header(), cut=0)
    bad("bad-63-bytes.vrnx", "could not read image header - file is truncated or not a .vrnx image", header(), cut=63)
    bad("bad-header-alone.vrnx", "image is truncated before its chunk table", header(), cut=64)
    bad("bad-no-data.vrnx", "image chunk data extends past end of file", header(), cut=64 + 72 * 3)
    bad("bad-last-byte-missing.vrnx", "image chunk data extends past end of file", header(), cut=-1)
    write("bad-zeros.vrnx", bytes(200), "not a recognized Vornix image (bad magic/version)")
    bad("bad-magic.vrnx", "not a recognized Vornix image (bad magic/version)", header(magic=b"VRNXDSK1"))
    bad("bad-version-1.vrnx", "not a recognized Vornix image (bad magic/version)", header(version=1))
    bad("bad-version-4.vrnx", "not a recognized Vornix image (bad magic/version)", header(version=4))
    bad("bad-disk-size-0.vrnx", GEOMETRY, header(disk_size=0))
    bad("bad-sector-size-256.vrnx", GEOMETRY, header(sector_size=256))
    bad("bad-sector-size-768.vrnx", GEOMETRY, header(sector_size=768))
    bad("bad-chunk-below-sector.vrnx", GEOMETRY, header(sector_size=1024))
    bad("bad-chunk-above-64-mib.vrnx", GEOMETRY, header(chunk_size=0x4000200))
    bad("bad-chunk-no-whole-sectors.vrnx", GEOMETRY, header(chunk_size=700))
    bad("bad-encrypted-2.vrnx", KEY_PARAMETERS, header(encrypted=2))
    bad("bad-iterations-in-plain.vrnx", KEY_PARAMETERS, header(kdf_iterations=1))
    bad("bad-iterations-99999.vrnx", KEY_PARAMETERS, header(kdf_iterations=99999), password=PASSWORD)
    bad("bad-iterations-10000001.vrnx", KEY_PARAMETERS, header(kdf_iterations=10000001), password=PASSWORD)
    bad("bad-count-2.vrnx", COUNT, header(chunk_count=2))
    bad("bad-count-4.vrnx", COUNT, header(chunk_count=4))
    bad("bad-count-beyond-limit.vrnx", COUNT, header(disk_size=3728271 * CHUNK, chunk_count=3728271))
    bad("bad-disk-offset.vrnx", TABLE, record(1, disk_offset=513))
    bad("bad-stored-length.vrnx", TABLE, record(1, stored_length=511))
    bad("bad-reference-in-full.vrnx", TABLE, record(1, stored_length=0))
    bad("bad-data.vrnx", FAILED.format(1), flip_stored(1))
    bad("bad-hash.vrnx", FAILED.format(1), record(2, hash=bytes(32)))


def make_bad_sealed():
    bad("bad-sealed-data.vrnx", FAILED.format(1), flip_stored(0), password=PASSWORD)
    bad("bad-sealed-tag.vrnx", FAILED.format(1), record(0, tag=bytes(16)), password=PASSWORD)
    bad("bad-sealed-nonce.vrnx", FAILED.format(1), record(0, nonce=bytes(12)), password=PASSWORD)
    bad("bad-sealed-hash.vrnx", FAILED.format(1), record(0, hash=bytes(32)), password=PASSWORD)
    bad("bad-sealed-salt.vrnx", FAILED.format(3), header(salt=bytes(16)), password=PASSWORD)


def make_bad_thin():
    base = os.path.join(HERE, "full.vrnx")
    bad("bad-trailer-missing.vrnx", TRUNCATED_TRAILER, header(), base=base, cut=64 + 72 * 3 + CHUNK)
    bad("bad-trailer-length-47.vrnx", TRUNCATED_TRAILER, trailer(total_length=47), base=base)
    bad("bad-trailer-length-4097.vrnx", TRUNCATED_TRAILER, trailer(total_length=4097), base=base)
    bad("bad-trailer-magic.vrnx", MALFORMED_TRAILER, trailer(magic=b"VRNXBASF"), base=base)
    bad("bad-trailer-name-length.vrnx", MALFORMED_TRAILER, trailer(name_length=8), base=base)
    bad("bad-trailer-no-name.vrnx", MALFORMED_TRAILER, trailer(base_name=b""), base=base)
    bad("bad-trailer-backslash.vrnx", ESCAPE, trailer(base_name=b"..\\full.vrnx"), base=base)
    bad("bad-trailer-slash.vrnx", ESCAPE, trailer(base_name=b"../full.vrnx"), base=base)
    bad("bad-trailer-colon.vrnx", ESCAPE, trailer(base_name=b"C:full.vrnx"), base=base)
    bad("bad-base-missing.vrnx", "base image of a thin image not found", trailer(base_name=b"nowhere.vrnx"), base=base)
    bad("bad-base-longest-name.vrnx", "base image of a thin image not found", trailer(base_name=b"x" * 4048), base=base)
    bad("bad-base-digest.vrnx", "base image does not match the one pinned in the thin image",
        trailer(base_digest=bytes(32)), base=base)
    bad("bad-loop.vrnx", "image chain is too deep (or loops back on itself)", trailer(base_name=b"bad-loop.vrnx"),
        base=base)
    other = os.path.join(HERE, "full-one-chunk.vrnx")
    bad("bad-base-geometry.vrnx", "base image geometry differs from the thin image",
        trailer(base_name=b"full-one-chunk.vrnx", base_digest=image.digest_of(other)), base=base)
    bad("bad-thin-hash.vrnx", "chunk failed its hash check (corrupt image or base)", record(0, hash=bytes(32)),
        base=base)


def main():
    for name in os.listdir(HERE):
        if name.endswith(".vrnx"):
            os.remove(os.path.join(HERE, name))
    shutil.rmtree(os.path.join(HERE, "__pycache__"), ignore_errors=True)
    with open(os.path.join(HERE, "password.txt"), "wb") as file:
        file.write(PASSWORD + b"\n")
    make_good()
    make_chain()
    make_bad_full()
    make_bad_sealed()
    make_bad_thin()
    with open(os.path.join(HERE, "expectations.json"), "w", encoding="utf-8") as file:
        json.dump(expectations, file, indent=1)
        file.write("\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
