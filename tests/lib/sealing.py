"""What the suites of sealed images share: the password, and the texts of bad chunks by the reader that meets them."""

from console import fatal, meter_run

PASSWORD = b"correct horse battery staple"

NEEDS_PASSWORD = "this image is encrypted - pass --password-file"
PASSWORD_UNREADABLE = "could not open password file"
PASSWORD_TOO_LARGE = "password file is too large"
PASSWORD_EMPTY = "password file is empty"

# The reader of single chunks, which follows thin references and serves the consolidation.
CHUNK_UNAUTHENTIC = fatal("chunk failed authentication (corrupt or tampered image)")
CHUNK_MISMATCH = fatal("chunk failed its hash check (corrupt image or base)")


def verify_unauthentic(index, chunk_size=4096):
    return f"\n  chunk {index} (disk offset {index * chunk_size}): AUTHENTICATION FAILED (corrupt or tampered)\n"


def verify_mismatch(index, chunk_size=4096):
    return f"\n  chunk {index} (disk offset {index * chunk_size}): HASH MISMATCH\n"


def restore_unauthentic(index):
    return (f"\nFATAL: chunk {index} failed authentication (corrupt/tampered image) - restore aborted, "
            "target disk left partially written.\n")


def consolidate_text(out, disk_size, chunk_size, verify):
    """A whole successful consolidation; `verify` is what the verification at its end prints."""
    return (meter_run(disk_size, chunk_size) + f"\nConsolidated: {out} (self-contained full image, verifying...)\n"
            + verify)


def blocks(data, size=16):
    """The aligned blocks of the data, as a set: what two stretches have in common shows in the intersection."""
    return {data[at:at + size] for at in range(0, len(data) - size + 1, size)}
