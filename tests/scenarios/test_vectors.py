"""The committed image files: the program and the second reader say of each what stands in its expectations."""

import filecmp
import hashlib
import json
import os
import shutil
import subprocess
import sys

import image
import suite
from machine import CHECKOUT, SETTINGS

VECTORS = os.path.join(CHECKOUT, "tests", "vectors")

with open(os.path.join(VECTORS, "expectations.json"), encoding="utf-8") as file:
    EXPECTATIONS = json.load(file)


def files_in(folder):
    """The vectors and what belongs to them, the chain's with their folder."""
    return sorted(prefix + name for prefix in ("", "chain/") for name in os.listdir(os.path.join(folder, prefix))
                  if name.endswith((".vrnx", ".json", ".txt")))


def verify(name):
    """The real program over one file, run beside it: (status, last line of standard error)."""
    run = SETTINGS.run(SETTINGS.program, "verify", "--in", name, "--password-file", "password.txt", cwd=VECTORS)
    lines = run.stderr.decode().splitlines()
    return run.returncode, lines[-1] if lines else ""


class Vectors(suite.Scenario):
    recorded = False

    def expect_verdict(self, name):
        expected = EXPECTATIONS[name]
        status, line = verify(name)
        self.assertEqual(status, expected["status"], f"{name}: {line}")
        if expected["message"] is None:
            self.assertEqual(line, "", name)
        elif expected["message"].startswith("Verify FAILED"):
            self.assertEqual(line, expected["message"], name)
        else:
            self.assertTrue(line.startswith(f"FATAL: {expected['message']} (GetLastError="), f"{name}: {line}")

    def test_the_program_accepts_every_good_file(self):
        for name, expected in EXPECTATIONS.items():
            if expected["status"] == 0:
                self.expect_verdict(name)

    def test_the_program_refuses_every_bad_file_for_its_one_cause(self):
        for name, expected in EXPECTATIONS.items():
            if expected["status"] != 0:
                self.expect_verdict(name)

    def test_the_second_reader_says_the_same(self):
        for name, expected in EXPECTATIONS.items():
            path = os.path.join(VECTORS, name)
            try:
                image.reference_plain_bytes(path, b"correct horse")
                good = True
            except image.ImageError:
                good = False
            self.assertEqual(good, expected["status"] == 0, name)

    def test_the_files_are_what_their_description_makes(self):
        again = os.path.join(self.folder, "tests", "vectors")
        shutil.copytree(os.path.join(CHECKOUT, "tests", "lib"), os.path.join(self.folder, "tests", "lib"))
        os.makedirs(again)
        shutil.copy(os.path.join(VECTORS, "make_vectors.py"), again)
        subprocess.run([sys.executable, os.path.join(again, "make_vectors.py")], check=True)
        made = files_in(again)
        self.assertEqual(made, files_in(VECTORS))
        _, differing, missing = filecmp.cmpfiles(again, VECTORS, made, shallow=False)
        self.assertEqual((differing, missing), ([], []))

    def test_every_file_has_an_expectation(self):
        files = {name for name in files_in(VECTORS) if name.endswith(".vrnx") and not name.startswith("chain/")}
        self.assertEqual(files, {name for name in EXPECTATIONS if not name.startswith("chain/")})

    def test_the_plain_disk_of_every_good_file_has_its_hash(self):
        for name, expected in EXPECTATIONS.items():
            plain_hash = None
            if expected["status"] == 0:
                plain = image.reference_plain_bytes(os.path.join(VECTORS, name), b"correct horse")
                plain_hash = hashlib.sha256(plain).hexdigest()
            self.assertEqual(plain_hash, expected["plain_sha256"], name)


if __name__ == "__main__":
    suite.main()
