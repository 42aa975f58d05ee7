#!/usr/bin/env python3
"""Holds src/ to standard C++20, as a compiler that knows no extension of gcc or clang would take it.

Clang reads every source against the headers of Windows with every extension of the language an error. What the program
may not use is tried first, so that a check that has gone blind is seen. Words that no compiler counts among its
extensions (attributes, builtins) are a rule of test_style.py.

Needs clang and the Windows compiler, whose headers it takes; without them it is skipped. Closes with the line that
./check adds up.
"""

import concurrent.futures
import glob
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import suite

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))

CLANG = "clang++"
WINDOWS_COMPILER = "x86_64-w64-mingw32-g++-posix"
MODE = ["--target=x86_64-w64-windows-gnu", "-std=c++20", "-nostdinc++", "-D_WIN32_WINNT=0x0A00",
        "-D__USE_MINGW_ANSI_STDIO=1", "-I" + os.path.join(ROOT, "src"), "-Werror", "-pedantic-errors", "-Wall",
        "-Wextra", "-Wgnu", "-Wlanguage-extension-token", "-Wmicrosoft", "-Wc++2b-extensions"]

# Each is an extension that one of the two compilers of the project takes when it is not told otherwise.
EXTENSIONS = {
    "an array of a length that is not constant": "int f(int n) { int a[n]; return a[0]; }",
    "a condition without its middle": "int f(int n) { return n ?: 3; }",
    "statements in an expression": "int f() { return ({ int a = 3; a; }); }",
    "an array of no elements": "struct A { int a[0]; };",
    "a range of cases": "int f(int n) { switch (n) { case 1 ... 3: return 1; default: return 0; } }",
    "the address of a label": "bool f() { void* p = &&end; end: return p == nullptr; }",
    "a structure without a name": "struct A { struct { int b; }; };",
    "typeof": "int a; typeof(a) b;",
    "a designator of the old form": "struct A { int b; }; A a = {b: 1};",
    "an imaginary number": "auto a = 1.0i;",
    "a pointer to void that is counted up": "void* f(void* p) { return p + 1; }",
    "a function as a pointer to data": "void f(); void* a = static_cast<void*>(f);",
    "a literal operator of a string's letters":
        "template <class T, T... C> int operator\"\"_a(); int b = \"c\"_a;",
    "a long of eight bytes": "static_assert(sizeof(long) == 8);",
}


def system_headers():
    """The folders in which the Windows compiler looks for the headers of C++ and of Windows, not those of its own."""
    said = subprocess.run([WINDOWS_COMPILER, "-xc++", "-E", "-v", os.devnull], capture_output=True, text=True,
                          check=True)
    listed = re.search(r"^#include <\.\.\.>.*?\n(.*?)^End of search list", said.stderr, re.M | re.S)
    folders = [os.path.normpath(line.strip()) for line in listed.group(1).splitlines()]
    return [folder for folder in folders if "c++" in folder.split(os.sep) or folder.endswith("mingw32/include")]


class Reader:
    """Clang with the headers of the program read once and kept, since they are nearly all of what it has to read."""

    def __init__(self, folder, sources, *flags):
        self.flags = [*MODE, *flags] + [word for place in system_headers() for word in ("-isystem", place)]
        names = set()
        for source in sources:
            with open(source, encoding="utf-8") as file:
                names.update(re.findall(r"^#include (<[^>]+>)", file.read(), re.M))
        names.remove("<windows.h>")  # the others of Windows stand on it
        first = os.path.join(folder, "headers.h")
        with open(first, "w", encoding="utf-8") as file:
            file.write("".join(f"#include {name}\n" for name in ["<windows.h>", *sorted(names)]))
        self.headers = os.path.join(folder, "headers.pch")
        self.run("-xc++-header", first, "-o", self.headers, check=True)

    def run(self, *arguments, check=False):
        return subprocess.run([CLANG, *self.flags, *arguments], capture_output=True, text=True, check=check)

    def read(self, source):
        return self.run("-include-pch", self.headers, "-fsyntax-only", source)


@unittest.skipUnless(shutil.which(CLANG) and shutil.which(WINDOWS_COMPILER), "needs clang and the Windows compiler")
class Dialect(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="vornix-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.sources = sorted(glob.glob(os.path.join(ROOT, "src", "*", "*.cpp")))
        self.headers = glob.glob(os.path.join(ROOT, "src", "*", "*.h"))

    def read_all(self, sources, *flags):
        reader = Reader(self.folder, self.sources + self.headers, *flags)
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            return dict(zip(sources, pool.map(reader.read, sources)))

    def test_an_extension_is_seen_and_the_program_uses_none(self):
        tried = {}
        for number, (title, text) in enumerate(EXTENSIONS.items()):
            tried[os.path.join(self.folder, f"extension{number}.cpp")] = title
            with open(os.path.join(self.folder, f"extension{number}.cpp"), "w", encoding="utf-8") as file:
                file.write(text + "\n")
        self.assertGreater(len(self.sources), 20)
        read = self.read_all([*tried, *self.sources])
        self.assertEqual([title for source, title in tried.items() if read[source].returncode == 0], [],
                         "extensions that went by unseen")
        self.expect_clean(read, self.sources)

    def expect_clean(self, read, sources):
        troubles = [read[source].stderr for source in sources if read[source].returncode != 0]
        self.assertEqual(troubles, [], "\n".join(troubles))

    def test_what_is_there_for_another_compiler_alone_is_read_too(self):
        sources = glob.glob(os.path.join(ROOT, "platform", "windows", "*_msvc.cpp"))
        self.assertNotEqual(sources, [])
        self.expect_clean(self.read_all(sources, "-fms-extensions", "-Wno-language-extension-token"), sources)


if __name__ == "__main__":
    suite.main()
