"""Runs of vrnx, the command that reads images without restoring them, and what its documents look like."""

import json
import os
import subprocess

import suite
from machine import Machine, Result, run_to_files

GOOD, DAMAGED, USAGE, FAILED = 0, 1, 2, 3

# The members of each object of each document, in their order. What stands behind a name is that of the objects in it.
SCHEMAS = {
    "info": {
        "": ["schema_version", "path", "version", "disk_size", "sector_size", "chunk_size", "chunk_count", "encrypted",
             "kdf_iterations", "salt", "epoch", "digest", "file_size", "chunks", "base", "chain", "problems"],
        "chunks": ["stored", "references", "zero"],
        "base": ["name", "digest", "path", "state"],
        "chain": ["path", "digest", "version", "encrypted", "chunks_used"],
    },
    "list": {
        "": ["schema_version", "folder", "images"],
        "images": ["path", "kind", "digest", "disk_size", "base", "needed_by", "deletable", "state", "reason"],
    },
    "check": {
        "": ["schema_version", "images"],
        "images": ["path", "result", "chunks", "checked", "bad", "message"],
        "bad": ["chunk", "disk_offset", "length", "image", "cause"],
    },
    "diff": {
        "": ["schema_version", "disk_size", "ranges", "changed_chunks", "changed_bytes"],
        "ranges": ["offset", "length"],
    },
}


def parse_document(command, content):
    """A document as data. Raises AssertionError where it is not of the form that its page fixes."""
    schema = SCHEMAS[command]
    document = json.loads(content, object_pairs_hook=lambda pairs: dict_of_unique(pairs))
    hold_against(schema, "", document)
    assert document["schema_version"] == 1
    assert content.endswith(b"}\n"), content[-20:]
    return document


def dict_of_unique(pairs):
    made = dict(pairs)
    assert len(made) == len(pairs), f"a member stands twice: {pairs}"
    return made


def hold_against(schema, name, value):
    if isinstance(value, dict):
        assert list(value) == schema[name], f"{name or 'document'}: {list(value)}"
        for member, content in value.items():
            hold_against(schema, member, content)
    elif isinstance(value, list):
        for item in value:
            hold_against(schema, name, item)
    else:
        assert value is None or isinstance(value, (bool, int, str)), f"{name}: {value!r}"


class Vrnx(Machine):
    """A work folder, and runs of vrnx in it."""

    def __init__(self, folder, **options):
        super().__init__(folder, default=False, **options)

    def start(self, *arguments, environment=None, timeout=600, cwd=None, prefix=(), **streams):
        """Runs vrnx with the streams as given to subprocess.run; gives what that gives."""
        settled = {**self.settings.environment(leaks=True), "LC_ALL": "C.UTF-8", **(environment or {})}
        streams.setdefault("stdin", subprocess.DEVNULL)
        command = [*prefix, *self.settings.runner, self.settings.vrnx, *arguments]
        return subprocess.run(command, cwd=cwd or self.work, env=settled, timeout=timeout, check=False, **streams)

    def run(self, *arguments, timeout=600, description=None, **options):
        """Runs vrnx; gives the Result."""
        # No run of vrnx prints nothing and ends with 1.
        status, *streams = run_to_files(
            lambda stdout, stderr: self.start(*arguments, timeout=timeout, stdout=stdout, stderr=stderr,
                                              **options).returncode,
            lambda: self.settings.windows)
        result = Result(list(arguments), status, *streams, [], {}, self.settings.windows, self.folder)
        self.runs.append(result)
        return result

    def document(self, command, *arguments, status=GOOD):
        """The document of a run that ends with this status."""
        result = self.run(command, *arguments, "--json")
        assert result.status == status, f"status {result.status} where {status} was expected"
        return parse_document(command, result.stdout)


class VrnxScenario(suite.Scenario):
    """A test of vrnx with work folders of its own."""

    recorded = False

    def vrnx(self):
        made = Vrnx(os.path.join(self.folder, f"m{len(self.machines) + 1}"))
        self.machines.append(made)
        return made

    def expect_failure(self, result, status, *words):
        """The status, nothing on standard output, and a message with these words on standard error."""
        self.assertEqual((result.status, result.stdout), (status, b""), result.describe())
        self.assertTrue(result.stderr.startswith(b"vrnx: ") and result.stderr.endswith(b"\n"), result.describe())
        for word in words:
            self.assertIn(word, result.stderr.decode("utf-8", "surrogateescape"), result.describe())
        return result
