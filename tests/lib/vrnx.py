"""libvrnx as Python sees it: the declarations of reader/include/vrnx.h for ctypes, and nothing of the format.

The library is that of the build under test; it needs one for this system, so not that of the Windows build.
"""

import ctypes
import os

from machine import SETTINGS

NO_LEVEL = 2**32 - 1
NO_PASSWORD, LENIENT, ALONE, EXAMINE = 1, 2, 4, 8
CACHE_NONE = 2**32 - 1
NOT_CHECKED = -1
OK = 0
(ERROR_USAGE, ERROR_MEMORY, ERROR_OPEN, ERROR_FILE_READ, ERROR_CRYPTO, ERROR_PASSWORD_NEEDED,
 ERROR_PASSWORD) = range(1, 8)
(REFUSED_CHAIN_LENGTH, REFUSED_NO_HEADER, REFUSED_NOT_AN_IMAGE, REFUSED_GEOMETRY, REFUSED_SEAL_PARAMETERS,
 REFUSED_CHUNK_COUNT, REFUSED_TABLE_TRUNCATED, REFUSED_TABLE_ENTRY, REFUSED_DATA_TRUNCATED, REFUSED_NO_TRAILER,
 REFUSED_TRAILER_MALFORMED, REFUSED_BASE_NAME, REFUSED_BASE_MISSING, REFUSED_BASE_REPLACED,
 REFUSED_BASE_GEOMETRY) = range(32, 47)
CHUNK_READ, CHUNK_AUTHENTICATION, CHUNK_HASH, CHUNK_ENTRY, CHUNK_NO_BASE = range(64, 69)
(KNOWN_VERSION, KNOWN_GEOMETRY, KNOWN_SEAL, KNOWN_EPOCH, KNOWN_DIGEST, KNOWN_TABLE,
 KNOWN_BASE_NAME) = (1 << bit for bit in range(7))
(BASE_NONE, BASE_GOOD, BASE_MISSING, BASE_REPLACED, BASE_REFUSED, BASE_INCOMPLETE, BASE_UNKNOWN) = range(7)

u8, u32, u64, i32 = ctypes.c_uint8, ctypes.c_uint32, ctypes.c_uint64, ctypes.c_int32


class Error(ctypes.Structure):
    _fields_ = [("code", i32), ("system_error", i32), ("chunk", u64), ("disk_offset", u64), ("length", u32),
                ("level", u32), ("text", ctypes.c_char * 5120)]


class Options(ctypes.Structure):
    _fields_ = [("flags", u32), ("cache_chunks", u32), ("password", ctypes.c_char_p),
                ("password_length", ctypes.c_size_t),
                ("password_file", ctypes.c_char_p)]


class Info(ctypes.Structure):
    _fields_ = [("disk_size", u64), ("chunk_count", u64), ("sector_size", u32), ("chunk_size", u32),
                ("level_count", u32), ("problem_count", u32)]


class Layer(ctypes.Structure):
    _fields_ = [("path", ctypes.c_char_p), ("base_name", ctypes.POINTER(ctypes.c_char)), ("base_path", ctypes.c_char_p),
                ("file_size", u64), ("disk_size", u64), ("chunk_count", u64), ("epoch", u64), ("base_name_length", u32),
                ("known", u32), ("version", u32), ("sector_size", u32), ("chunk_size", u32), ("kdf_iterations", u32),
                ("salt", u8 * 16), ("digest", u8 * 32), ("base_digest", u8 * 32), ("encrypted", u8), ("unfinished", u8),
                ("base_state", u8), ("pinned", u8), ("reserved", u8 * 4)]


class Chunk(ctypes.Structure):
    _fields_ = [("disk_offset", u64), ("file_offset", u64), ("length", u32), ("level", u32), ("verdict", i32),
                ("reference", u8), ("bad_entry", u8), ("zero", u8), ("reserved", u8), ("hash", u8 * 32)]


def _load():
    library = ctypes.CDLL(os.path.join(SETTINGS.build, "libvrnx.so.0"))
    pointer, size, error = ctypes.c_void_p, ctypes.c_size_t, ctypes.POINTER(Error)
    for name, result, arguments in (
            ("vrnx_library_version", ctypes.c_char_p, []),
            ("vrnx_code_text", ctypes.c_char_p, [ctypes.c_int]),
            ("vrnx_open", ctypes.c_int,
             [ctypes.c_char_p, ctypes.POINTER(Options), size, ctypes.POINTER(pointer), error]),
            ("vrnx_close", None, [pointer]),
            ("vrnx_get_info", ctypes.c_int, [pointer, ctypes.POINTER(Info), size]),
            ("vrnx_get_layer", ctypes.c_int, [pointer, u32, ctypes.POINTER(Layer), size]),
            ("vrnx_get_problem", ctypes.c_int, [pointer, u32, error]),
            ("vrnx_get_chunk", ctypes.c_int, [pointer, u64, ctypes.POINTER(Chunk), size]),
            ("vrnx_check_chunk", ctypes.c_int, [pointer, u64, error]),
            ("vrnx_read", ctypes.c_int, [pointer, pointer, u64, size, error]),
            ("vrnx_prove_chunk", ctypes.c_int, [pointer, u64, ctypes.c_char_p, size, error]),
            ("vrnx_heal_chunk", ctypes.c_int, [pointer, u64, pointer, pointer, error])):
        function = getattr(library, name)
        function.restype, function.argtypes = result, arguments
    return library


SHARED_OBJECT = _load()


class VrnxError(Exception):
    """What the library said; `error` is its whole description."""

    def __init__(self, error):
        super().__init__(error.text.decode("utf-8", "surrogateescape"))
        self.error, self.code = error, error.code


def _require(code, error):
    if code != error.code:
        raise AssertionError(f"returned {code}, described as {error.code}")
    if code != OK:
        raise VrnxError(error)


class Image:
    """An open image. Everything that fails raises VrnxError."""

    def __init__(self, path, flags=0, password=None, password_file=None, cache_chunks=0):
        options = Options(flags, cache_chunks, password, len(password or b""),
                          None if password_file is None else os.fsencode(password_file))
        handle, error = ctypes.c_void_p(), Error()
        _require(SHARED_OBJECT.vrnx_open(os.fsencode(path), ctypes.byref(options), ctypes.sizeof(options),
                                   ctypes.byref(handle), ctypes.byref(error)), error)
        self.handle = handle
        self.info = Info()
        assert SHARED_OBJECT.vrnx_get_info(handle, ctypes.byref(self.info), ctypes.sizeof(Info)) == OK
        self.disk_size, self.chunk_size = self.info.disk_size, self.info.chunk_size
        self.chunk_count = self.info.chunk_count

    def close(self):
        SHARED_OBJECT.vrnx_close(self.handle)
        self.handle = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def layer(self, level=0):
        layer = Layer()
        assert SHARED_OBJECT.vrnx_get_layer(self.handle, level, ctypes.byref(layer), ctypes.sizeof(Layer)) == OK
        return layer

    def layers(self):
        return [self.layer(level) for level in range(self.info.level_count)]

    def base_name(self, level=0):
        layer = self.layer(level)
        return layer.base_name[:layer.base_name_length] if layer.base_name else None

    def problems(self):
        problems = []
        for number in range(self.info.problem_count):
            problem = Error()
            assert SHARED_OBJECT.vrnx_get_problem(self.handle, number, ctypes.byref(problem)) == OK
            problems.append(problem)
        return problems

    def chunk(self, number):
        chunk = Chunk()
        assert SHARED_OBJECT.vrnx_get_chunk(self.handle, number, ctypes.byref(chunk), ctypes.sizeof(Chunk)) == OK
        return chunk

    def check(self, number):
        error = Error()
        _require(SHARED_OBJECT.vrnx_check_chunk(self.handle, number, ctypes.byref(error)), error)

    def bad_chunks(self):
        """{number: code} of all chunks whose check fails."""
        bad = {}
        for number in range(self.chunk_count):
            try:
                self.check(number)
            except VrnxError as failure:
                bad[number] = failure.code
        return bad

    def read(self, offset, length):
        buffer, error = ctypes.create_string_buffer(length), Error()
        _require(SHARED_OBJECT.vrnx_read(self.handle, buffer, offset, length, ctypes.byref(error)), error)
        return buffer.raw[:length]

    def prove(self, number, data):
        error = Error()
        _require(SHARED_OBJECT.vrnx_prove_chunk(self.handle, number, data, len(data), ctypes.byref(error)), error)

    def heal(self, number, donor):
        length, error = self.chunk(number).length, Error()
        buffer = ctypes.create_string_buffer(length)
        _require(SHARED_OBJECT.vrnx_heal_chunk(self.handle, number, donor.handle, buffer, ctypes.byref(error)), error)
        return buffer.raw[:length]
