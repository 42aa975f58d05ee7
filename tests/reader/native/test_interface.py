"""What libvrnx promises to those who compile and link with it: header, symbols, soname, layout, pkg-config file.

    tests/run tests/reader/native/test_interface.py --update     writes the committed description of the interface anew

The description, libvrnx.abi, is made by abidw of the Linux build. Whatever abidiff calls incompatible takes a new
soname.
"""

import os
import re
import shutil
import subprocess
import sys

import suite
from machine import CHECKOUT, SETTINGS

INCLUDE = os.path.join(CHECKOUT, "reader", "include")
HEADER = os.path.join(INCLUDE, "vrnx.h")
MAP = os.path.join(CHECKOUT, "reader", "lib", "libvrnx.map")
PAGE = os.path.join(CHECKOUT, "man", "libvrnx.3")
DESCRIPTION = os.path.join(CHECKOUT, "tests", "reader", "native", "libvrnx.abi")
LIBRARY = os.path.join(SETTINGS.build, "libvrnx.so.0")

WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror", "-Wconversion", "-Wsign-conversion", "-Wshadow", "-Wundef",
            "-Wcast-qual", "-Wpadded"]
USER = """#include "vrnx.h"
int main(void) {
    struct vrnx_open_options options = {0};
    struct vrnx_error error;
    struct vrnx_info info;
    vrnx_image* image = NULL;
    int code = vrnx_open("image", &options, sizeof options, &image, &error);
    if (code != VRNX_ERROR_OPEN || VRNX_IS_REFUSAL(code) || image != NULL || error.text[0] == 0)
        return 1;
    vrnx_close(image);
    return vrnx_get_info(NULL, &info, sizeof info) == VRNX_ERROR_USAGE ? 0 : 2;
}
"""


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


def declared_functions():
    with open(HEADER, encoding="utf-8") as file:
        text = re.sub(r"/\*.*?\*/", "", file.read(), flags=re.S)
    return set(re.findall(r"\b(vrnx_\w+)\s*\((?=[^;{]*\);)", text))


def describe():
    return run("abidw", "--no-show-locs", "--no-corpus-path", "--no-comp-dir-path", "--no-elf-needed",
               "--exported-interfaces-only", LIBRARY)


def compare_with(description):
    return run("abidiff", "--no-show-locs", "--exported-interfaces-only", "--harmless", description, LIBRARY)


class Header(suite.Scenario):
    recorded = False

    def compile(self, compiler, *more):
        if shutil.which(compiler) is None:
            self.skipTest(f"no {compiler}")
        source = os.path.join(self.folder, "user.c")
        with open(source, "w", encoding="utf-8") as file:
            file.write(USER)
        done = run(compiler, "-std=c11", *WARNINGS, "-I", INCLUDE, source, *more)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_a_c11_compiler_takes_it_with_all_warnings(self):
        for compiler in ("gcc", "clang"):
            with self.subTest(compiler):
                self.compile(compiler, "-Wstrict-prototypes", "-Wmissing-prototypes", "-fsyntax-only")

    def test_a_c11_program_links_and_runs(self):
        program = os.path.join(self.folder, "user")
        if "sanitize" in SETTINGS.build:
            self.skipTest("a program that is not sanitized cannot be linked with a library that is")
        self.compile("gcc", "-o", program, "-L", SETTINGS.build, "-lvrnx")
        self.assertEqual(run(program, env={"LD_LIBRARY_PATH": SETTINGS.build}, cwd=self.folder).returncode, 0)
        self.assertIn("libvrnx.so.0", run("readelf", "-d", program).stdout)


class Symbols(suite.Scenario):
    recorded = False

    def test_the_library_shows_what_the_header_declares_and_nothing_else(self):
        functions = declared_functions()
        self.assertGreater(len(functions), 10)
        lines = run("readelf", "--dyn-syms", "--wide", LIBRARY).stdout.splitlines()
        shown = {line.split()[7] for line in lines
                 if re.search(r"\b(FUNC|OBJECT)\s+(GLOBAL|WEAK)\s+DEFAULT\s+\d", line)}
        shown = {name for name in shown if not name.startswith("LIBVRNX_")}
        self.assertEqual(shown, {f"{name}@@LIBVRNX_0" for name in functions})

    def test_the_version_script_lists_them(self):
        with open(MAP, encoding="utf-8") as file:
            self.assertEqual(set(re.findall(r"\b(vrnx_\w+);", file.read())), declared_functions())

    def test_the_soname(self):
        self.assertIn("Library soname: [libvrnx.so.0]", run("readelf", "-d", LIBRARY).stdout)

    def test_the_page_describes_each(self):
        with open(PAGE, encoding="utf-8") as file:
            page = file.read()
        for name in declared_functions():
            self.assertIn(f"{name}", page)

    def test_the_pkg_config_file(self):
        if shutil.which("pkg-config") is None:
            self.skipTest("no pkg-config")
        environment = {**os.environ, "PKG_CONFIG_PATH": SETTINGS.build}
        self.assertEqual(run("pkg-config", "--libs-only-l", "libvrnx", env=environment).stdout.strip(), "-lvrnx")
        version = run("pkg-config", "--modversion", "libvrnx", env=environment).stdout.strip()
        with open(os.path.join(CHECKOUT, "CMakeLists.txt"), encoding="utf-8") as file:
            self.assertIn(f"VERSION {version}", file.read())


class Interface(suite.Scenario):
    recorded = False

    def setUp(self):
        super().setUp()
        if shutil.which("abidiff") is None:
            self.skipTest("no abidiff")
        if "sanitize" in SETTINGS.build:
            self.skipTest("the description is that of the library that is delivered")

    def test_it_is_the_one_described(self):
        done = compare_with(DESCRIPTION)
        self.assertEqual((done.returncode, done.stdout), (0, ""))

    def test_a_change_would_be_noticed(self):
        with open(DESCRIPTION, encoding="utf-8") as file:
            text = file.read()
        for old, new in (("name='disk_offset'", "name='place'"), ("length='5120'", "length='5119'"),
                         ("vrnx_heal_chunk", "vrnx_mend_chunk")):
            other = os.path.join(self.folder, "other.abi")
            self.assertIn(old, text)
            with open(other, "w", encoding="utf-8") as file:
                file.write(text.replace(old, new))
            self.assertNotEqual(compare_with(other).returncode, 0, old)


if __name__ == "__main__":
    if sys.argv[1:] == ["--update"]:
        made = describe()
        if made.returncode != 0:
            sys.exit(made.stderr)
        with open(DESCRIPTION, "w", encoding="utf-8") as out:
            out.write(made.stdout)
    else:
        suite.main()
