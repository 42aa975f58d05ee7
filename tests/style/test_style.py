"""Holds the text of the project against the rules in rules.py, and each rule against a tree that breaks it.

    tests/run tests/style/test_style.py

Prints each problem, and closes with a line `N passed, N failed, N skipped`.
"""

import inspect
import os
import sys

import rules

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

ROW = 'VORNIX_CALL("windows.h", SWAPPED, BOOL, WINAPI, CloseHandle, (HANDLE handle), (handle))\n'

# A small tree in which every call is where it belongs.
WHOLE_CALL = {
    "platform/calls.def": ROW,
    "platform/sdk/windows.h": "BOOL WINAPI CloseHandle(HANDLE handle);\n",
    "platform/linux/linux_files.cpp": "BOOL WINAPI LinuxCloseHandle(HANDLE handle) { return TRUE; }\n",
    "bench/bench_files.cpp": "BOOL WINAPI BenchCloseHandle(HANDLE handle) { return TRUE; }\n",
    "tests/contract/files_test.cpp": "TEST(CloseHandle, Closes) { EXPECT_TRUE(CloseHandle(file)); }\n",
    "src/disk/physical_disk.cpp": "void Close() { CloseHandle(device); }\n",
    "platform/README.md": "| call | header | Linux file | bench file | contract test |\n"
                          "| `CloseHandle` | windows.h | `linux_files.cpp` | `bench_files.cpp` | `files_test.cpp` |\n",
}


def changed(path, text):
    """The small tree with one file replaced."""
    return WHOLE_CALL | {path: text}


LONG_FUNCTION = "void Run() {\n" + "    Step();\n" * rules.MAX_FUNCTION_LINES + "}\n"
TAG = "TO" + "DO"
WIDTHS = """[*]
max_line_length = 120

[*.{md,txt}]
max_line_length = off

[CMakeLists.txt]
max_line_length = 120
"""
PATH = "sys" + ".path"

# Each rule with trees that break it, and trees that look like it and do not.
PROOFS = {
    rules.program_sees_only_itself_and_windows: (
        [{"src/disk/a.cpp": "#include <unistd.h>\n"},
         {"src/disk/a.cpp": "#include <openssl/evp.h>\n"},
         {"src/disk/a.cpp": '#include "platform/linux/linux_calls.h"\n', "platform/linux/linux_calls.h": ""},
         {"src/disk/a.cpp": '#include "b.h"\n', "src/disk/b.h": ""}],
        [{"src/disk/a.cpp": '#include <vector>\n#include <windows.h>\n#include "disk/b.h"\n', "src/disk/b.h": "",
          "platform/sdk/windows.h": ""}]),
    rules.rooms_look_downwards: (
        [{"src/disk/a.cpp": '#include "commands/capture.h"\n'},
         {"src/disk/a.cpp": '#include "image/open_image.h"\n'},
         {"src/commands/a.cpp": '#include "cli/options.h"\n'},
         {"src/image/a.cpp": '#include "crypto/cng.h"\n'},
         {"src/cli/progress.cpp": '#include "disk/a.h"\n'},
         {"src/attic/a.cpp": ""}],
        [{"src/cli/command_line.cpp": '#include "commands/capture.h"\n', "src/disk/a.cpp": '#include "cli/fatal.h"\n',
          "src/image/a.cpp": '#include "disk/b.h"\n'}]),
    rules.nothing_is_left_out_for_users: (
        [{"CMakePresets.json": '{ "VORNIX_WITHOUT": "overlap" }\n'},
         {"packaging/debian/rules": "override_dh_auto_configure: ; dh_auto_configure -- -DVORNIX_WITHOUT=exchange\n"}],
        [{"benchmarks/ablation.py": "VORNIX_WITHOUT\n", "CMakeLists.txt": "VORNIX_WITHOUT\n"}]),
    rules.no_circles_in_the_program: (
        [{"src/image/a.h": '#include "image/b.h"\n', "src/image/b.cpp": '#include "image/a.h"\n'}],
        [{"src/image/a.h": '#include "image/b.h"\n', "src/image/a.cpp": '#include "image/a.h"\n'}]),
    rules.other_rooms_keep_apart: (
        [{"platform/linux/a.cpp": '#include "../../bench/machine.h"\n'}, {"bench/a.cpp": "#include <openssl/evp.h>\n"}],
        [{"platform/linux/a.cpp": "#include <openssl/evp.h>\n", "bench/a.cpp": '#include "linux/linux_calls.h"\n'}]),
    rules.reader_keeps_to_itself: (
        [{"src/image/a.cpp": '#include "vrnx.h"\n'}, {"bench/a.cpp": '#include "../reader/lib/image.h"\n'},
         {"reader/lib/a.cpp": '#include "image/open_image.h"\n', "src/image/open_image.h": ""},
         {"reader/cli/a.cpp": '#include "layer.h"\n', "reader/lib/layer.h": ""},
         {"reader/lib/a.cpp": "#include <openssl/evp.h>\n"}, {"reader/cli/a.cpp": "#include <windows.h>\n"}],
        [{"reader/lib/a.cpp": '#include <vector>\n#include "b.h"\n#include "vrnx.h"\n', "reader/lib/b.h": "",
          "reader/include/vrnx.h": "", "reader/lib/port_posix.cpp": "#include <openssl/evp.h>\n#include <unistd.h>\n",
          "reader/nbdkit/a.cpp": "#include <sys/prctl.h>\n"}]),
    rules.no_system_switches_in_the_program: (
        [{"src/disk/a.cpp": "int a;\n#ifdef _WIN32\n"}, {"src/disk/a.h": "#if defined(__linux__)\n"},
         {"reader/lib/a.cpp": "#ifdef _WIN32\n"}],
        [{"src/disk/a.cpp": "#ifdef NDEBUG\n", "platform/linux/a.cpp": "#ifdef __linux__\n"}]),
    rules.program_uses_no_words_of_one_compiler: (
        [{"src/disk/a.cpp": "int a __attribute__((aligned(4)));\n"}, {"src/disk/a.h": "int a = __builtin_clz(b);\n"},
         {"src/disk/a.cpp": "[[gnu::noinline]] void Run();\n"}, {"src/disk/a.cpp": "void Run() { asm(\"nop\"); }\n"},
         {"src/disk/a.cpp": "#pragma GCC diagnostic push\n"}, {"src/disk/a.cpp": "__declspec(noinline) void Run();\n"}],
        [{"src/disk/a.h": "#pragma once\n#pragma pack(push, 1)\n// asm\nconst char* a = \"__builtin_clz\";\n",
          "platform/linux/a.cpp": "int a __attribute__((aligned(4)));\n"}]),
    rules.sdk_names_are_those_of_every_sdk: (
        [{"src/disk/a.cpp": "WINBOOL done = FALSE;\n"}, {"bench/a.h": "void Take(PWINBOOL done);\n"},
         {"platform/windows/a.cpp": "#ifdef __MINGW32__\n"}, {"tests/unit/a.cpp": "__mingw_printf(text);\n"}],
        [{"src/disk/a.cpp": "BOOL done = FALSE; // no WINBOOL\n",
          "platform/windows/runtime_start.cpp": "int _dowildcard = 0;\n"}]),
    rules.headers_are_used: (
        [{"src/disk/a.h": "", "src/disk/b.cpp": "#include <a>\n"}],
        [{"src/disk/a.h": "", "src/disk/b.cpp": '#include "disk/a.h"\n'}]),
    rules.calls_are_answered_everywhere: (
        [{}, changed("platform/calls.def", ROW.replace("SWAPPED", "OTHER")), changed("platform/calls.def", ROW + ROW),
         changed("platform/sdk/windows.h", ""), changed("src/disk/physical_disk.cpp", "// CloseHandle\n"),
         changed("platform/linux/linux_files.cpp", "BOOL LinuxCloseHandle(HANDLE handle);\n"),
         changed("platform/linux/linux_more.cpp", "BOOL WINAPI LinuxLockFile(HANDLE file) { return TRUE; }\n"),
         changed("bench/bench_files.cpp", ""), changed("tests/contract/files_test.cpp", ""),
         changed("platform/calls.def", ROW.replace("SWAPPED", "SHARED"))],
        [WHOLE_CALL]),
    rules.table_of_calls_is_true: (
        [changed("platform/README.md", ""),
         changed("platform/README.md", WHOLE_CALL["platform/README.md"].replace("windows.h", "stdio.h")),
         changed("platform/README.md", WHOLE_CALL["platform/README.md"].replace("linux_files", "linux_disks")),
         changed("platform/README.md", WHOLE_CALL["platform/README.md"].replace("`bench_files.cpp`", "")),
         changed("platform/README.md", WHOLE_CALL["platform/README.md"] + "| `LockFile` | a | b | c | d |\n"),
         changed("tests/contract/files_test.cpp", "")],
        [WHOLE_CALL]),
    rules.no_leftovers: (
        [{"a.cpp": f"// {TAG}: later\n"}, {"a.md": "a\tb\n"}, {"a.md": "a \n"}, {"a.md": "a\r\n"}, {"a.md": "a"},
         {"a.md": "a\n\n"}]
        + [{path: "#" * 121 + "\n", ".editorconfig": WIDTHS}
           for path in ("a.cpp", "a.py", "check", "b/CMakeLists.txt")],
        [{"a.cpp": "/" * 120 + "\n", "a.md": "x" * 200 + "\n", "a.txt": "x" * 200 + "\n", "empty.txt": "",
          ".editorconfig": WIDTHS}]),
    rules.files_begin_with_a_comment: (
        [{"src/a.cpp": "#include <vector>\n"}, {"a.py": "import os\n"}, {"a.cmake": "set(a b)\n"},
         {"check": "#!/bin/sh\nls\n"}, {"src/CMakeLists.txt": "project(a)\n"}],
        [{"src/a.cpp": "// What it is.\n", "reader/include/a.h": "/* What it is. */\n",
          "a.py": '#!/usr/bin/env python3\n"""What it is."""\n',
          "b.py": '"""What it is."""\n', "check": "#!/bin/sh\n# What it is.\n", "README.md": "Text\n"}]),
    rules.constants_have_plain_names: (
        [{"bench/a.cpp": "constexpr DWORD kBlock = 4096;\n"},
         {"src/disk/a.cpp": "constexpr const char* BlockName = name;\n"},
         {"platform/linux/a.cpp": "    static constexpr uint8_t BLOCKS[] = {1};\n"}],
        [{"src/disk/a.cpp": "constexpr std::array<char, 8> imageMagic = {'V'};\n// constexpr int kOld = 1;\n"
                            "constexpr DWORD IOCTL_TRACKER_QUERY = CTL_CODE(1);\nconstexpr int Twice(int n) {\n}\n",
          "platform/sdk/a.h": "constexpr DWORD TRUE = 1;\n"}]),
    rules.private_members_end_in_an_underscore: (
        [{"src/crypto/a.h": "class Key {\npublic:\n    Key();\nprivate:\n    void* Handle = nullptr;\n};\n"},
         {"bench/a.h": "class File {\n    std::vector<uint8_t> bytes;\n};\n"},
         {"bench/a.h": "struct Log {\nprivate:\n    Machine& machine;\n};\n"}],
        [{"src/crypto/a.h": "class Key final : public Object {\npublic:\n    int Count = 0;\n\nprivate:\n"
                            "    struct State {\n        bool Asked = false;\n    };\n    friend class Lock;\n"
                            "    void Release() {\n        int count = 0;\n    }\n    bool Progress::*done_;\n"
                            "    static constexpr int step = 1;\n    const std::map<int, int> states_{};\n};\n"
                            "struct Record {\n    int Offset;\n};\n"}]),
    rules.functions_fit_a_reader: (
        [{"src/cli/a.cpp": LONG_FUNCTION}, {"src/cli/a.cpp": "namespace vornix {\n\n" + LONG_FUNCTION + "\n}\n"},
         {"src/cli/a.h": "class A {\n    " + LONG_FUNCTION.replace("Run()", "Run() const") + "};\n"}],
        [{"src/cli/a.cpp": LONG_FUNCTION.replace("    Step();\n", "", 2),
          "src/cli/b.cpp": "namespace vornix {\n" + "void Run() { Step(); }\n" * 200 + "}\n"}]),
    rules.gtest_bodies_assert: (
        [{"tests/unit/a_test.cpp": "TEST(A, B) {\n    Run();\n}\n"},
         {"tests/unit/a_test.cpp": "void Run() { Step(); }\nTEST(A, B) { Run(); /* EXPECT_TRUE(true) */ }\n"}],
        [{"tests/unit/a_test.cpp": "void Check(int a) { EXPECT_EQ(a, 1); }\nTEST(A, B) { Check(2); }\n"
                                   "TEST_F(C, D) { ASSERT_TRUE(e); }\n"}]),
    rules.suites_find_their_modules_by_the_runner: (
        [{"tests/scenarios/test_a.py": f"import sys\n\n{PATH}.insert(0, 'lib')\nimport suite\n"},
         {"tests/style/test_a.py": f"import sys\n\n{PATH} += ['lib']\n"}],
        [{"tests/scenarios/test_a.py": "import os\n\nimport suite\n\nHERE = os.path.dirname(__file__)\n"}]),
    rules.suites_leave_starting_to_their_settings: (
        [{"tests/scenarios/test_a.py": "run = subprocess.run([*SETTINGS.runner, SETTINGS.program])\n"}],
        [{"tests/scenarios/test_a.py": "settings.runner = VALGRIND\nrun = SETTINGS.run(SETTINGS.program, *names)\n",
          "tests/lib/machine.py": "command = [*self.runner, executable]\n"}]),
    rules.python_tests_assert: (
        [{"tests/scenarios/test_a.py": "def test_a(self):\n    self.machine().run()\n"},
         {"tests/scenarios/test_a.py": "def helper():\n    return 1\n\n\ndef test_a():\n    helper()\n"}],
        [{"tests/scenarios/test_a.py": "def test_a(self):\n    self.expect(1)\n\n\ndef test_b(self):\n    assert 1\n",
          "tests/lib/suite.py": "def expect(self, a):\n    self.fail(a)\n"}]),
}


def main():
    passed = failed = 0

    def conclude(title, problems):
        nonlocal passed, failed
        if problems:
            failed += 1
            print(f"FAILED: {title}")
            for problem in problems:
                print(f"  {problem}")
        else:
            passed += 1

    # A function of one argument, the tree, is a rule, save for the one that only reads rows.
    every_rule = [value for value in vars(rules).values()
                  if inspect.isfunction(value) and list(inspect.signature(value).parameters) == ["tree"]]
    conclude("every rule is proved",
             [rule.__name__ for rule in every_rule if rule not in PROOFS and rule is not rules.rows_of_calls])
    for rule, (bad_trees, good_trees) in PROOFS.items():
        conclude(f"{rule.__name__} finds what it is for",
                 [f"nothing found in {tree}" for tree in bad_trees if not rule(tree)]
                 + [f"{problem} (in {tree})" for tree in good_trees for problem in rule(tree)])

    tree = rules.read_tree(ROOT)
    for rule in PROOFS:
        conclude(rule.__doc__, rule(tree))
    print(f"{passed} passed, {failed} failed, 0 skipped")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
