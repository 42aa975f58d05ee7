"""That secrets are overwritten: in the code that the compilers make of it, and in the memory of a running capture.

What the routines that hold a secret do with it step by step is looked at by the unit tests beside observed_calls.h.
Here it is what an optimiser makes of the overwriting, in a place where nothing else would keep it, and in the objects
as built; and whether anything else in a whole run has kept a copy.
"""

import json
import os
import re
import shutil
import signal
import subprocess
import time

import suite
from image import derive_key
from machine import CHECKOUT, pattern

PROBE = """
#include "crypto/secure_wipe.h"

void Fill(uint8_t* secret);
void FillString(std::string& secret);

void ProbeStack() {
    uint8_t secret[32];
    Fill(secret);
    vornix::WipeBytes(secret, sizeof(secret));
}

void ProbeHeap() {
    uint8_t* secret = new uint8_t[32];
    Fill(secret);
    vornix::WipeBytes(secret, 32);
    delete[] secret;
}

void ProbeString() {
    std::string secret;
    FillString(secret);
    vornix::WipeString(secret);
}

void ProbeWithoutCare() {
    uint8_t secret[32];
    Fill(secret);
    for (uint8_t& byte : secret) {
        byte = 0;
    }
}
"""

ZERO_BYTE_STORED = re.compile(r"\bmovb\s+\$(?:0x)?0,\s*[-\w]*\(")


def routines(assembler):
    """The text of each routine, by its mangled name."""
    found, name = {}, None
    for line in assembler.splitlines():
        label = re.match(r"(?:[0-9a-f]+ <)?(_Z\w+)(?:>)?:", line)
        if label:
            name = label.group(1)
            found[name] = []
        elif name is not None:
            found[name].append(line)
    return {name: "\n".join(lines) for name, lines in found.items()}


class GeneratedCode(suite.Scenario):
    def routine(self, found, name):
        matching = [text for mangled, text in found.items() if name in mangled]
        self.assertEqual(len(matching), 1, f"{name} in {sorted(found)}")
        return matching[0]

    def compile(self, compiler, level):
        source = os.path.join(self.folder, "probe.cpp")
        with open(source, "w", encoding="utf-8") as file:
            file.write(PROBE)
        done = subprocess.run([compiler, "-std=c++20", level, "-DNDEBUG", "-fstack-protector-strong",
                               "-I", os.path.join(CHECKOUT, "src"), "-S", "-o", "-", source], capture_output=True,
                              text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        return routines(done.stdout)

    def check_compiler(self, compiler):
        if shutil.which(compiler) is None:
            self.skipTest(f"there is no {compiler} here")
        for level in ("-O2", "-O3", "-Os"):
            found = self.compile(compiler, level)
            for name, filled in (("ProbeStack", "Fill"), ("ProbeHeap", "Fill"), ("ProbeString", "FillString")):
                _, _, behind = self.routine(found, name).partition(filled)
                self.assertRegex(behind, ZERO_BYTE_STORED, f"{compiler} {level}: {name} leaves its secret")
            # So an optimiser that takes away what it can was at work, and its doing would have been seen.
            _, _, behind = self.routine(found, "ProbeWithoutCare").partition("Fill")
            self.assertNotRegex(behind, ZERO_BYTE_STORED, f"{compiler} {level}")
            self.assertNotIn("memset", behind, f"{compiler} {level}")

    def test_no_level_of_gcc_takes_the_overwriting_away(self):
        self.check_compiler("x86_64-w64-mingw32-g++-posix" if self.settings.windows else "g++")

    def test_no_level_of_clang_takes_the_overwriting_away(self):
        if self.settings.windows:
            self.skipTest("this build is none of clang's")
        self.check_compiler("clang++")

    def disassembled(self, unit):
        path = os.path.join(self.settings.build, "CMakeFiles", "vornix_program.dir", "src", "crypto",
                            unit + (".obj" if self.settings.windows else ".o"))
        if not os.path.exists(path):
            self.skipTest(f"the objects of the build are not beside it: {path}")
        tool = "x86_64-w64-mingw32-objdump" if self.settings.windows else "objdump"
        done = subprocess.run([tool, "-dr", "--no-show-raw-insn", path], capture_output=True, text=True, check=True)
        return routines(done.stdout)

    def test_the_key_is_built_and_then_both_secrets_are_overwritten(self):
        text = self.routine({name: text for name, text in self.disassembled("key_derivation.cpp").items()
                             if not name.endswith("cold")}, "DeriveChunkKey")
        before, built, behind = text.partition("ChunkKeyC1EPKh")
        self.assertTrue(built)
        self.assertNotRegex(before, ZERO_BYTE_STORED)
        overwriting, _, _ = behind.partition("_ZdlPv")  # where the password's memory is given back
        self.assertGreaterEqual(len(ZERO_BYTE_STORED.findall(overwriting)), 2, text)

    def test_a_refused_password_is_overwritten_behind_the_closing_of_its_file(self):
        found = self.disassembled("password_file.cpp")
        text = "\n".join(text for name, text in found.items() if "ReadPasswordFile" in name)
        # The file is closed on two roads to a failure: too large, and nothing left of it once it was trimmed.
        endings = [piece.partition("fclose")[2] for piece in text.split("5FatalEPK") if "fclose" in piece]
        self.assertEqual(len(endings), 2, text)
        for ending in endings:
            self.assertRegex(ending, ZERO_BYTE_STORED)


def memory_of(process):
    """What the process may write to: (address, name of the mapping, bytes) of each region that is there."""
    regions = []
    with open(f"/proc/{process}/maps", encoding="utf-8") as maps:
        for line in maps:
            fields = line.split(maxsplit=5)
            first, last = (int(text, 16) for text in fields[0].split("-"))
            if "w" in fields[1]:
                regions.append((first, last - first, fields[5].strip() if len(fields) > 5 else ""))
    if sum(length for _, length, _ in regions) > 1 << 32:
        return None
    with open(f"/proc/{process}/mem", "rb", buffering=0) as memory:
        found = []
        for address, length, name in regions:
            memory.seek(address)
            try:
                found.append((address, name, memory.read(length)))
            except OSError:  # a page of the kernel's own
                continue
    return found


class Memory(suite.Scenario):
    """A capture is stopped in the middle of its chunks, and all its memory is searched."""

    recorded = False  # it is stopped wherever it just is

    # In a string of this length the bytes from 32768 on were never anywhere else in the string's life, since it grew to
    # its last storage before they came; and the file's own buffer has been filled with later ones since.
    LENGTH = 40000
    PROBED = range(33000, 36000, 125)

    def stopped(self, password):
        """A capture --encrypt that has sealed its first chunks: its memory, and the key that it derived."""
        machine = self.machine(source=1 << 30, target=bytes(512))
        machine.poke_disk(1, 0, pattern(0x400000, "source") * 4)
        machine.write("password", password)
        machine.write_home("machine.json", json.dumps(machine.description).encode())
        log = os.path.join(machine.home, "calls.jsonl")
        process = subprocess.Popen([self.settings.bench, "../machine", "capture", "--disk", "1", "--out", "a.vrnx",
                                    "--encrypt", "--password-file", "password"], cwd=machine.work,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            deadline = time.monotonic() + 60
            lines = ""
            while lines.count('"BCryptEncrypt"') < 2:
                self.assertIsNone(process.poll(), "the capture has ended before it could be stopped")
                self.assertLess(time.monotonic(), deadline)
                time.sleep(0.002)
                if os.path.exists(log):
                    with open(log, encoding="utf-8") as file:
                        lines = file.read()
            process.send_signal(signal.SIGSTOP)
            self.assertTrue(os.WIFSTOPPED(os.waitpid(process.pid, os.WUNTRACED)[1]))
            try:
                memory = memory_of(process.pid)
            except PermissionError:
                self.skipTest("only root sees the memory of a run that holds a key")
        finally:
            process.kill()
            process.wait()
        if memory is None:
            self.skipTest("the memory of a sanitized process is too large to be searched")
        derivation = next(json.loads(line) for line in lines.splitlines() if "BCryptDeriveKeyPBKDF2" in line)
        return memory, derive_key(password, bytes.fromhex(derivation["salt"]), derivation["iterations"])

    def test_nothing_of_the_password_is_left(self):
        if self.settings.windows:
            self.skipTest("the process would be Wine's, which keeps copies of its own")
        password = pattern(self.LENGTH - 1, "password") + b"."
        memory, key = self.stopped(password)
        # The search finds what is there: the disk's bytes, and the key in its object.
        chunk = pattern(0x400000, "source")[1000:1032]
        self.assertTrue(any(chunk in data for _, _, data in memory))
        self.assertTrue(any(key in data for _, _, data in memory))

        for at in self.PROBED:
            for address, name, data in memory:
                place = data.find(password[at:at + 16])
                self.assertEqual(place, -1, f"byte {at} of the password at {address + place:#x} {name}")


if __name__ == "__main__":
    suite.main()
