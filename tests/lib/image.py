"""The second reader and the builder of the image format.

An independent account of the file format: it shares no code with the program, so that an image which both accept was
understood twice. It reads and writes full and thin images, sealed or plain, of any chunk size, and its builder lets
every field be overridden, so that each broken image can be made with one cause. It is not for speed: a whole table is
held as Python objects.

As a command:

    python3 image.py check FILE [--password-file F]         every structural rule and every chunk; says what is wrong
    python3 image.py plain FILE OUT [--password-file F]     the disk that the image stands for
"""

import argparse
import ctypes
import ctypes.util
import functools
import hashlib
import os
import struct
import sys
from dataclasses import dataclass

MAGIC = b"VRNXDSK2"
TRAILER_MAGIC = b"VRNXBASE"
MAX_CHUNK_SIZE = 0x4000000
MAX_CHUNK_COUNT = 3728270
MAX_CHAIN = 65
MAX_PASSWORD_FILE = 1048576

HEADER = struct.Struct("<8sIQIIQB7s16sI")
RECORD = struct.Struct("<QI32s12s16s")
assert HEADER.size == 64 and RECORD.size == 72


class ImageError(Exception):
    """The file breaks a rule of the format; the text says which."""


# --- AES-256-GCM ----------------------------------------------------------------------------------------------------

_EVP_CTRL_AEAD_SET_IVLEN = 0x9
_EVP_CTRL_AEAD_GET_TAG = 0x10
_EVP_CTRL_AEAD_SET_TAG = 0x11


@functools.cache
def _crypto():
    library = ctypes.CDLL(ctypes.util.find_library("crypto") or "libcrypto.so.3")
    library.EVP_CIPHER_CTX_new.restype = ctypes.c_void_p
    library.EVP_CIPHER_CTX_free.argtypes = [ctypes.c_void_p]
    library.EVP_aes_256_gcm.restype = ctypes.c_void_p
    init = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_char_p, ctypes.c_char_p]
    update = [ctypes.c_void_p, ctypes.c_char_p, ctypes.POINTER(ctypes.c_int), ctypes.c_char_p, ctypes.c_int]
    final = [ctypes.c_void_p, ctypes.c_char_p, ctypes.POINTER(ctypes.c_int)]
    for way in ("Encrypt", "Decrypt"):
        getattr(library, f"EVP_{way}Init_ex").argtypes = init
        getattr(library, f"EVP_{way}Update").argtypes = update
        getattr(library, f"EVP_{way}Final_ex").argtypes = final
    library.EVP_CIPHER_CTX_ctrl.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_void_p]
    return library


def _require(result):
    if result != 1:
        raise RuntimeError("libcrypto call failed")


def _transform(way, key, nonce, data, finish):
    """The data through one message of the cipher, and what `finish(library, context, final)` makes of its end."""
    library = _crypto()
    init, update, final = (getattr(library, f"EVP_{way}{step}") for step in ("Init_ex", "Update", "Final_ex"))
    context = library.EVP_CIPHER_CTX_new()
    try:
        out, count = ctypes.create_string_buffer(len(data) + 16), ctypes.c_int()
        _require(init(context, library.EVP_aes_256_gcm(), None, None, None))
        _require(library.EVP_CIPHER_CTX_ctrl(context, _EVP_CTRL_AEAD_SET_IVLEN, len(nonce), None))
        _require(init(context, None, None, key, nonce))
        _require(update(context, out, ctypes.byref(count), data, len(data)))
        done = out.raw[:count.value]
        return done, finish(library, context, lambda: final(context, out, ctypes.byref(count)))
    finally:
        library.EVP_CIPHER_CTX_free(context)


def seal(key, nonce, plain):
    """AES-256-GCM without additional data: (stored bytes, 16-byte tag)."""
    def take_tag(library, context, final):
        tag = ctypes.create_string_buffer(16)
        _require(final())
        _require(library.EVP_CIPHER_CTX_ctrl(context, _EVP_CTRL_AEAD_GET_TAG, 16, tag))
        return tag.raw
    return _transform("Encrypt", key, nonce, plain, take_tag)


def unseal(key, nonce, tag, stored):
    """The plain bytes, or None where the tag does not authenticate them."""
    def hold_against(library, context, final):
        expected = ctypes.create_string_buffer(tag, 16)
        _require(library.EVP_CIPHER_CTX_ctrl(context, _EVP_CTRL_AEAD_SET_TAG, 16, expected))
        return final() == 1
    plain, is_authentic = _transform("Decrypt", key, nonce, stored, hold_against)
    return plain if is_authentic else None


def trim_password(content):
    """A password file's content to the password: line ends at the very end go, nothing else."""
    if len(content) > MAX_PASSWORD_FILE:
        raise ImageError("password file is too large")
    password = content.rstrip(b"\r\n")
    if not password:
        raise ImageError("password file is empty")
    return password


@functools.lru_cache(maxsize=4096)  # it takes longer than all else that is done with an image
def derive_key(password, salt, iterations):
    return hashlib.pbkdf2_hmac("sha256", password, salt, iterations, 32)


# --- The records ----------------------------------------------------------------------------------------------------

@dataclass
class Header:
    disk_size: int
    chunk_size: int
    chunk_count: int
    magic: bytes = MAGIC
    version: int = 2
    sector_size: int = 512
    encrypted: int = 0
    epoch: int = 0  # 56 bits
    salt: bytes = bytes(16)
    kdf_iterations: int = 0

    def pack(self):
        return HEADER.pack(self.magic, self.version, self.disk_size, self.sector_size, self.chunk_size,
                           self.chunk_count, self.encrypted, self.epoch.to_bytes(7, "little"), self.salt,
                           self.kdf_iterations)

    @staticmethod
    def unpack(data):
        magic, version, disk, sector, chunk, count, encrypted, epoch, salt, iterations = HEADER.unpack(data)
        return Header(disk, chunk, count, magic, version, sector, encrypted, int.from_bytes(epoch, "little"), salt,
                      iterations)

    def plain_length(self, index):
        return min(self.chunk_size, self.disk_size - index * self.chunk_size)


@dataclass
class Record:
    disk_offset: int
    stored_length: int
    hash: bytes
    nonce: bytes = bytes(12)
    tag: bytes = bytes(16)

    def pack(self):
        return RECORD.pack(self.disk_offset, self.stored_length, self.hash, self.nonce, self.tag)


@dataclass
class Trailer:
    base_name: bytes
    base_digest: bytes
    magic: bytes = TRAILER_MAGIC
    name_length: int = None  # None: as the name has it
    total_length: int = None  # None: as the name has it

    def pack(self):
        name_length = len(self.base_name) if self.name_length is None else self.name_length
        total = len(self.base_name) + 48 if self.total_length is None else self.total_length
        head = self.magic + struct.pack("<I", name_length)
        return head + self.base_name + self.base_digest + struct.pack("<I", total)


def chunk_count_of(disk_size, chunk_size):
    return (disk_size - 1) // chunk_size + 1


# --- The builder ----------------------------------------------------------------------------------------------------

class ImageBuilder:
    """A valid image in memory, open to any change before it is written.

    `plain` is the disk. With `password` (the trimmed bytes) the chunks are sealed; salt and nonces are fixed values
    derived from `seed`, so that a built image is the same in every run. With `base`, the path of an image, the image is
    thin: `references` lists the chunk indexes that refer to the base; None means every chunk whose hash is equal there.

    Change `header`, `records`, `stored` (one bytes object a chunk; empty for a reference), `gap` (bytes between chunk
    data and trailer), `trailer` and `tail` (bytes behind everything) at will; nothing is recomputed from them.
    """

    def __init__(self, plain, *, chunk_size=4096, sector_size=512, epoch=0, password=None, iterations=100000, salt=None,
                 base=None, base_name=None, references=None, seed="image"):
        count = chunk_count_of(len(plain), chunk_size)
        self.header = Header(len(plain), chunk_size, count, sector_size=sector_size, epoch=epoch)
        self.key = None
        if password is not None:
            self.header.encrypted = 1
            self.header.kdf_iterations = iterations
            self.header.salt = hashlib.sha256(f"salt {seed}".encode()).digest()[:16] if salt is None else salt
            self.key = derive_key(password, self.header.salt, iterations)
        base_hashes, self.trailer = None, None
        if base is not None:
            self.header.version = 3
            base_header, base_records = read_table(base)
            base_hashes = [record.hash for record in base_records]
            name = os.fsencode(os.path.basename(base)) if base_name is None else base_name
            self.trailer = Trailer(name, digest_of(base))
        self.records, self.stored, self.gap, self.tail = [], [], b"", b""
        for index in range(count):
            chunk = plain[index * chunk_size:(index + 1) * chunk_size]
            record = Record(index * chunk_size, len(chunk), hashlib.sha256(chunk).digest())
            refer = False
            if base_hashes is not None:
                refer = base_hashes[index] == record.hash if references is None else index in references
            if refer:
                record.stored_length, data = 0, b""
            elif self.key is not None:
                record.nonce = hashlib.sha256(f"nonce {seed} {index}".encode()).digest()[:12]
                data, record.tag = seal(self.key, record.nonce, chunk)
            else:
                data = chunk
            self.records.append(record)
            self.stored.append(data)

    def head(self):
        """Header and table: what the image digest covers."""
        return self.header.pack() + b"".join(record.pack() for record in self.records)

    def digest(self):
        return hashlib.sha256(self.head()).digest()

    def data_offset(self, index):
        """Where chunk `index` begins in the file."""
        return 64 + 72 * len(self.records) + sum(len(data) for data in self.stored[:index])

    def to_bytes(self):
        trailer = b"" if self.trailer is None else self.trailer.pack()
        return self.head() + b"".join(self.stored) + self.gap + trailer + self.tail

    def write(self, path):
        with open(path, "wb") as file:
            file.write(self.to_bytes())
        return path


def build_image(path, plain, **options):
    """Writes a valid image of `plain` to `path`; the options are those of ImageBuilder. Gives the builder."""
    builder = ImageBuilder(plain, **options)
    builder.write(path)
    return builder


def write_sparse_image(path, chunk_count, *, chunk_size=512, header=None, data=True):
    """A full plain image of an all-zero disk, whatever its size: the table is written, the data are a hole."""
    head = header or Header(chunk_count * chunk_size, chunk_size, chunk_count)
    zero_hash = hashlib.sha256(bytes(chunk_size)).digest()
    rest = RECORD.pack(0, chunk_size, zero_hash, bytes(12), bytes(16))[8:]
    with open(path, "wb") as file:
        file.write(head.pack())
        pack, step = struct.Struct("<Q").pack, 65536
        for first in range(0, chunk_count, step):
            last = min(first + step, chunk_count)
            file.write(b"".join([pack(index * chunk_size) + rest for index in range(first, last)]))
        if data:
            file.truncate(64 + 72 * chunk_count + chunk_size * chunk_count)
    return path


# --- The reader -----------------------------------------------------------------------------------------------------

def read_header(path):
    with open(path, "rb") as file:
        data = file.read(64)
    if len(data) != 64:
        raise ImageError("shorter than a header")
    return Header.unpack(data)


def read_table(path):
    """(header, records) as they stand, with no check but that the bytes are there."""
    header = read_header(path)
    if header.chunk_count > MAX_CHUNK_COUNT:
        raise ImageError("impossible chunk count")
    with open(path, "rb") as file:
        file.seek(64)
        table = file.read(72 * header.chunk_count)
    if len(table) != 72 * header.chunk_count:
        raise ImageError("truncated before the end of its table")
    return header, [Record(*fields) for fields in RECORD.iter_unpack(table)]


def digest_of(path):
    """The image digest: SHA-256 of header and table."""
    header, _ = read_table(path)
    with open(path, "rb") as file:
        return hashlib.sha256(file.read(64 + 72 * header.chunk_count)).digest()


class Image:
    """An opened image with its chain; every structural rule has been held against it.

    Raises ImageError with the broken rule. `password` is the trimmed password or None: a sealed image then opens, and
    only the reading of a sealed chunk fails.
    """

    def __init__(self, path, password=None, depth=0):
        if depth >= MAX_CHAIN:
            raise ImageError("chain of more than 65 images")
        self.path = path
        self.file_size = os.path.getsize(path)
        header = self.header = read_header(path)
        self._check_header(header)
        self.header, self.records = read_table(path)
        self.digest = digest_of(path)
        self._walk_table()
        self.key = None
        if header.encrypted and password is not None:
            self.key = derive_key(password, header.salt, header.kdf_iterations)
        self.trailer, self.base = None, None
        if header.version == 3:
            self._read_trailer()
            self._open_base(password, depth)

    @staticmethod
    def _check_header(header):
        if header.magic != MAGIC or header.version not in (2, 3):
            raise ImageError("bad magic or version")
        if header.disk_size == 0:
            raise ImageError("disk size 0")
        if header.sector_size < 512 or header.sector_size & (header.sector_size - 1):
            raise ImageError(f"sector size {header.sector_size}")
        if not header.sector_size <= header.chunk_size <= MAX_CHUNK_SIZE or header.chunk_size % header.sector_size:
            raise ImageError(f"chunk size {header.chunk_size}")
        if header.encrypted > 1:
            raise ImageError(f"encrypted {header.encrypted}")
        if header.encrypted == 1 and not 100000 <= header.kdf_iterations <= 10000000:
            raise ImageError(f"{header.kdf_iterations} iterations in a sealed image")
        if header.encrypted == 0 and header.kdf_iterations != 0:
            raise ImageError("iterations in a plain image")
        if header.chunk_count != chunk_count_of(header.disk_size, header.chunk_size):
            raise ImageError("chunk count does not follow from disk and chunk size")
        if header.chunk_count > MAX_CHUNK_COUNT:
            raise ImageError("impossible chunk count")

    def _walk_table(self):
        position = 64 + 72 * self.header.chunk_count
        self.offsets = []
        for index, record in enumerate(self.records):
            if record.disk_offset != index * self.header.chunk_size:
                raise ImageError(f"record {index}: disk offset {record.disk_offset}")
            refers = record.stored_length == 0 and self.header.version == 3
            if record.stored_length != self.header.plain_length(index) and not refers:
                raise ImageError(f"record {index}: stored length {record.stored_length}")
            self.offsets.append(position)
            position += record.stored_length
        self.data_end = position
        if position > self.file_size:
            raise ImageError("chunk data extend past the end of the file")

    def _read_trailer(self):
        if self.file_size < self.data_end + 48:
            raise ImageError("no room for a trailer")
        with open(self.path, "rb") as file:
            file.seek(self.file_size - 4)
            total, = struct.unpack("<I", file.read(4))
            if not 48 <= total <= 4096 or total > self.file_size - self.data_end:
                raise ImageError(f"trailer length {total}")
            file.seek(self.file_size - total)
            data = file.read(total)
        name_length, = struct.unpack_from("<I", data, 8)
        if data[:8] != TRAILER_MAGIC or name_length + 48 != total or name_length == 0:
            raise ImageError("malformed trailer")
        name, digest = data[12:12 + name_length], data[12 + name_length:44 + name_length]
        self.trailer = Trailer(name, digest, data[:8], name_length, total)
        if any(byte in self.trailer.base_name for byte in b"\\/:"):
            raise ImageError("trailer names a base outside the folder")

    def _open_base(self, password, depth):
        path = os.path.join(os.path.dirname(self.path), os.fsdecode(self.trailer.base_name))
        if not os.path.exists(path):
            raise ImageError(f"base image is missing: {path}")
        self.base = Image(path, password, depth + 1)
        if self.base.digest != self.trailer.base_digest:
            raise ImageError(f"base image {path} is not the one pinned")
        for name in ("disk_size", "chunk_size", "chunk_count"):
            if getattr(self.header, name) != getattr(self.base.header, name):
                raise ImageError(f"base of another {name}")

    def is_reference(self, index):
        return self.records[index].stored_length == 0

    def stored_bytes(self, index):
        with open(self.path, "rb") as file:
            file.seek(self.offsets[index])
            data = file.read(self.records[index].stored_length)
        if len(data) != self.records[index].stored_length:
            raise ImageError(f"chunk {index}: truncated")
        return data

    def chunk(self, index):
        """The plain bytes of one chunk, checked on every level of the chain."""
        record = self.records[index]
        if self.is_reference(index):
            plain = self.base.chunk(index)
        else:
            plain = self.stored_bytes(index)
            if self.header.encrypted:
                if self.key is None:
                    raise ImageError("sealed, and no password given")
                plain = unseal(self.key, record.nonce, record.tag, plain)
                if plain is None:
                    raise ImageError(f"chunk {index}: authentication failed")
        if hashlib.sha256(plain).digest() != record.hash:
            raise ImageError(f"chunk {index}: hash mismatch")
        return plain

    def chunks(self):
        for index in range(len(self.records)):
            yield self.chunk(index)


def reference_plain_bytes(path, password=None):
    """The whole disk that the image at `path` stands for. Raises ImageError where the image is not good."""
    return b"".join(Image(path, password).chunks())


def is_accepted(path, password=None):
    """Whether this reader takes the file for an image (structure and chain; chunks are not read)."""
    try:
        Image(path, password)
        return True
    except (ImageError, OSError):
        return False


def check_image(path, password=None, disk=None):
    """What is wrong with the image, as a list of texts; empty when nothing is.

    Stricter than a reader has to be: it also holds the file against what a writer promises: no byte more than needed,
    zero nonces and tags where nothing is sealed, a zero salt in a plain image, no nonce used twice. `disk` is the open
    file of the disk that the image was made of, where its bytes are to be compared as well.
    """
    try:
        image = Image(path, password)
    except (ImageError, OSError) as error:
        return [str(error)]
    problems = []
    header = image.header
    expected_size = image.data_end + (image.trailer.total_length if image.trailer else 0)
    if image.file_size != expected_size:
        problems.append(f"file of {image.file_size} bytes where {expected_size} are used")
    if header.encrypted == 0 and header.salt != bytes(16):
        problems.append("salt in a plain image")
    if header.encrypted == 1 and header.salt == bytes(16):
        problems.append("zero salt in a sealed image")
    seen = {}
    for index, record in enumerate(image.records):
        if header.encrypted == 0 or record.stored_length == 0:
            if record.nonce != bytes(12) or record.tag != bytes(16):
                problems.append(f"chunk {index}: nonce or tag where nothing is sealed")
        elif record.nonce in seen:
            problems.append(f"chunk {index}: nonce of chunk {seen[record.nonce]} used again")
        else:
            seen[record.nonce] = index
        try:
            plain = image.chunk(index)
        except (ImageError, OSError) as error:
            problems.append(str(error))
            continue
        if disk is not None:
            disk.seek(index * header.chunk_size)
            if plain != disk.read(len(plain)):
                problems.append(f"chunk {index}: other bytes than the disk's")
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)
    for command, names in (("check", ["file"]), ("plain", ["file", "out"])):
        added = commands.add_parser(command)
        for name in [*names, "--password-file"]:
            added.add_argument(name)
    arguments = parser.parse_args()
    password = None
    try:
        if arguments.password_file:
            with open(arguments.password_file, "rb") as file:
                password = trim_password(file.read())
        if arguments.command == "plain":
            image = Image(arguments.file, password)
            with open(arguments.out, "wb") as out:
                for chunk in image.chunks():
                    out.write(chunk)
            return 0
        problems = check_image(arguments.file, password)
    except (ImageError, OSError) as error:
        problems = [str(error)]
    if problems:
        for problem in problems:
            print(f"{arguments.file}: {problem}", file=sys.stderr)
        return 1
    image = Image(arguments.file, password)
    references = sum(1 for index in range(len(image.records)) if image.is_reference(index))
    kind = ("sealed" if image.header.encrypted else "plain") + (" thin" if image.base else " full")
    print(f"{arguments.file}: good {kind} image, {len(image.records)} chunks of {image.header.chunk_size} bytes, "
          f"{references} references")
    return 0


if __name__ == "__main__":
    sys.exit(main())
