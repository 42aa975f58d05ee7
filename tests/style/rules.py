"""The rules that the text of the project keeps, each a function over a tree of files.

A tree is a dictionary from paths (relative to the root, with slashes) to texts, so that a rule can be tried on a tree
of three lines as well as on the project. A rule gives the list of its problems, each a line `path: what is wrong`.
Layout is clang-format's business and no rule's here.
"""

import ast
import fnmatch
import os
import re

from cpp_text import without_comments_and_strings

CPP = (".cpp", ".h")

# Which folders of src/ a file of a folder may include, beside its own.
LOWER_ROOMS = {
    "cli": set(),
    "disk": {"cli"},
    "crypto": {"cli"},
    "image": {"cli", "disk", "crypto"},
    "tracker": {"cli", "disk"},
    "snapshot": {"cli", "disk"},
    "commands": {"cli", "disk", "crypto", "image", "tracker", "snapshot"},
}
# What the rooms above may take from the front end; the rest of it is main's.
FRONT_END_FOR_ALL = {"cli/fatal.h", "cli/progress.h"}
# What a room keeps for itself.
PRIVATE_HEADERS = {"crypto/cng.h"}
# The files that choose the command, and so see every room.
DISPATCHERS = {"src/cli/command_line.cpp", "src/cli/main.cpp"}

STANDARD_HEADERS = set("""
    algorithm array bit cerrno charconv cinttypes climits compare concepts cstddef cstdint cstdio cstdlib cstring cwchar
    exception functional initializer_list iterator limits map memory new numeric optional set span stdexcept string
    string_view tuple type_traits utility variant vector""".split())

SYSTEM_MACROS = re.compile(
    r"^\s*#\s*(?:if|ifdef|ifndef|elif)\b.*"
    r"\b(?:_?WIN(?:32|64)|_WIN32_WINNT|__linux__|__linux|__unix__|__MINGW\w*|_MSC_VER|__APPLE__|__CYGWIN__)", re.M)

COMPILER_WORDS = re.compile(
    r"\b(?:__attribute__|__builtin_\w+|__extension__|__typeof__|__int128|__asm__|__asm|asm|__PRETTY_FUNCTION__|__GNUC__"
    r"|__clang__|__declspec|__forceinline|__try|__except)\b"
    r"|\[\[\s*(?:gnu|clang|msvc)\s*::|^[ ]*#\s*pragma\s+(?!once\b|pack\()\w+", re.M)

# Names that only mingw-w64's headers of Windows have, in the form that each takes there.
STARTS_ON_WINDOWS = {"platform/windows/runtime_start.cpp", "reader/cli/port_windows.cpp"}
MINGW_NAMES = re.compile(r"\b(?:L?P?WINBOOL|__MINGW\w+|__mingw\w+|MINGW_\w+|_dowildcard)\b")

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)
MAX_FUNCTION_LINES = 100


def read_tree(root):
    """The project's own text files; what builds and tools leave behind is none of it."""
    tree = {}
    for folder, subfolders, names in os.walk(root):
        inside = os.path.relpath(folder, root).replace(os.sep, "/")
        if inside == ".":
            subfolders[:] = [name for name in subfolders if name not in ("build", ".git", ".cache", ".vscode", ".idea")]
        subfolders[:] = [name for name in subfolders if name != "__pycache__"]
        for name in names:
            path = name if inside == "." else f"{inside}/{name}"
            with open(os.path.join(folder, name), "rb") as file:
                content = file.read()
            if b"\0" in content:
                continue  # a corpus of images, not text
            try:
                tree[path] = content.decode()
            except UnicodeDecodeError:
                continue
    return tree


def of_kind(tree, folder, endings=CPP):
    """The files in a folder and below with such an ending, in a fixed order."""
    return [(path, tree[path]) for path in sorted(tree) if path.startswith(folder) and path.endswith(endings)]


def includes(text):
    return INCLUDE.findall(text)


# --- The rooms -----------------------------------------------------------------------------------------------------


def program_sees_only_itself_and_windows(tree):
    """src/ includes its own files, the standard library and the SDK; no platform, no bench, no POSIX, no OpenSSL."""
    sdk = {path.removeprefix("platform/sdk/") for path in tree if path.startswith("platform/sdk/")}
    problems = []
    for path, text in of_kind(tree, "src/"):
        for bracket, name in includes(text):
            if bracket == "<" and name not in STANDARD_HEADERS | sdk:
                problems.append(f"{path}: <{name}> is neither of the standard library nor of the Windows SDK")
            elif bracket == '"' and f"src/{name}" not in tree:
                problems.append(f'{path}: "{name}" is no file of src/, by its path from there')
    return problems


def rooms_look_downwards(tree):
    """A room of src/ includes itself and the rooms below it; nobody but the dispatch sees a command."""
    problems = []
    for path, text in of_kind(tree, "src/"):
        room = path.split("/")[1]
        if room not in LOWER_ROOMS:
            problems.append(f"{path}: lies in a folder of src/ that the rule of the rooms does not know")
        if path in DISPATCHERS or room not in LOWER_ROOMS:
            continue
        for bracket, name in includes(text):
            target = name.split("/")[0]
            if bracket == "<" or target == room:
                continue
            if target not in LOWER_ROOMS[room] or name in PRIVATE_HEADERS:
                problems.append(f"{path}: {room}/ may not see {name}")
            elif target == "cli" and name not in FRONT_END_FOR_ALL:
                problems.append(f"{path}: of the front end only {', '.join(sorted(FRONT_END_FOR_ALL))} are for {room}/")
    return problems


def no_circles_in_the_program(tree):
    """Units of src/ (a header and its source) do not include each other in a circle."""
    def unit(path):
        return os.path.splitext(path)[0]
    graph = {}
    for path, text in of_kind(tree, "src/"):
        targets = {unit(f"src/{name}") for bracket, name in includes(text) if bracket == '"'}
        graph.setdefault(unit(path), set()).update(targets - {unit(path)})
    problems, done = [], set()

    def visit(node, trail):
        if node in trail:
            problems.append(f"{node}: includes itself by way of {' -> '.join(trail[trail.index(node):] + [node])}")
            return
        if node in done:
            return
        for target in sorted(graph.get(node, ())):
            visit(target, trail + [node])
        done.add(node)
    for node in sorted(graph):
        visit(node, [])
    return problems


def other_rooms_keep_apart(tree):
    """The platform knows nothing of bench/, and libcrypto stays in platform/linux, in the reader's port and its tests,
    and in the benchmarks' floor program."""
    problems = []
    for path, text in of_kind(tree, ""):
        for bracket, name in includes(text):
            if path.startswith("platform/") and "bench" in name.split("/"):
                problems.append(f"{path}: the platform may not see {name}")
            if name.startswith("openssl/") and not path.startswith(("platform/linux/", "benchmarks/", "reader/lib/",
                                                                         "tests/reader/", "tests/fuzz/fuzz_reader_")):
                problems.append(f"{path}: {name} is not for this folder")
    return problems


def nothing_is_left_out_for_users(tree):
    """What benchmarks have built without a part of the platform, no preset, package or check builds."""
    return [f"{path}: VORNIX_WITHOUT is for benchmarks alone" for path in sorted(tree)
            if "VORNIX_WITHOUT" in tree[path]
            and path not in ("CMakeLists.txt", "CONTRIBUTING.md", "platform/linux/left_out.h")
            and not path.startswith(("benchmarks/", "docs/", "tests/style/"))]


def reader_keeps_to_itself(tree):
    """reader/ and the rest see nothing of each other, and of the system's headers only its ports and its plugin do."""
    problems = []
    for path, text in of_kind(tree, ""):
        for bracket, name in includes(text):
            if path.startswith(("src/", "platform/", "bench/")) and ("reader" in name.split("/") or name == "vrnx.h"):
                problems.append(f"{path}: {name} is the reader's")
            if not path.startswith("reader/"):
                continue
            beside = path.rsplit("/", 1)[0] + "/" + name
            if bracket == '"' and beside not in tree and f"reader/include/{name}" not in tree:
                problems.append(f'{path}: "{name}" is no file of its folder of reader/, nor the library\'s header')
            may_see_the_system = path.startswith("reader/nbdkit/") or path.split("/")[-1].startswith("port_")
            if bracket == "<" and not may_see_the_system and re.match(
                    r"(?:sys|openssl|linux)/|(?:unistd|fcntl|windows|bcrypt|dirent|termios|poll|io)\.h$", name):
                problems.append(f"{path}: <{name}> is for a port alone")
    return problems


def no_system_switches_in_the_program(tree):
    """An operating system shows in which file is compiled, never inside src/ or reader/."""
    return [f"{path}:{text.count(chr(10), 0, match.start()) + 1}: asks for the operating system"
            for folder in ("src/", "reader/") for path, text in of_kind(tree, folder)
            for match in SYSTEM_MACROS.finditer(text)]


def program_uses_no_words_of_one_compiler(tree):
    """src/ holds none of the words that only some compilers know: no attribute of gcc's form, no builtin, no assembly.

    The extensions of the language itself are test_dialect.py's to find."""
    return [f"{path}:{text.count(chr(10), 0, match.start()) + 1}: {match.group()} is not every compiler's"
            for path, text in ((path, without_comments_and_strings(text)) for path, text in of_kind(tree, "src/"))
            for match in COMPILER_WORDS.finditer(text)]


def sdk_names_are_those_of_every_sdk(tree):
    """Windows is called by the names that Microsoft publishes; mingw-w64's own stand where its start is set up."""
    return [f"{path}:{text.count(chr(10), 0, match.start()) + 1}: {match.group()} is a name of mingw-w64 alone"
            for path, text in ((path, without_comments_and_strings(text)) for path, text in of_kind(tree, ""))
            if path not in STARTS_ON_WINDOWS for match in MINGW_NAMES.finditer(text)]


def headers_are_used(tree):
    """A header that nobody includes is dead."""
    included = {os.path.basename(name) for _, text in of_kind(tree, "", CPP + (".def",)) for _, name in includes(text)}
    return [f"{path}: nobody includes it" for path, _ in of_kind(tree, "", (".h",))
            if os.path.basename(path) not in included]


# --- The calls of the platform -------------------------------------------------------------------------------------


def rows_of_calls(tree):
    """The rows of platform/calls.def as (header, kind, name)."""
    text = without_line_comments(tree.get("platform/calls.def", ""))
    return re.findall(r'VORNIX_CALL\(\s*"([^"]+)"\s*,\s*(\w+)\s*,[^,]+,\s*\w+\s*,\s*(\w+)\s*,', text)


def without_line_comments(text):
    return re.sub(r"//[^\n]*", "", text)


def name_in_source(name):
    """The call as sources write it: the SDK wraps the two entry points of the snapshot library in inline functions."""
    return name.removesuffix("Internal")


def mentions(texts, word):
    return any(re.search(rf"\b{re.escape(word)}\b", text) for text in texts)


def is_defined(texts, name):
    """Whether a function body of that name stands in one of the texts."""
    return any(re.search(rf"\b{re.escape(name)}\s*\([^;{{}}]*\)\s*(?:noexcept\s*)?\{{", text) for text in texts)


def calls_are_answered_everywhere(tree):
    """Each row of calls.def is declared, used, answered by Linux and by the machine, and has a contract test."""
    code = {folder: [without_comments_and_strings(text) for _, text in of_kind(tree, folder)]
            for folder in ("src/", "platform/linux/", "bench/", "tests/contract/")}
    # The one routine of the program that each platform has to write for itself.
    guard = [without_comments_and_strings(tree.get(f"platform/{system}/create_components_guarded.cpp", ""))
             for system in ("linux", "windows")]
    problems = []
    rows = rows_of_calls(tree)
    if not rows:
        return ["platform/calls.def: no row could be read"]
    for header, kind, name in rows:
        def complain(what):
            problems.append(f"platform/calls.def: {name} {what}")
        if kind not in ("SWAPPED", "SHARED"):
            complain(f"has the unknown kind {kind}")
        if not mentions([tree.get(f"platform/sdk/{header}", "")], name):
            complain(f"is not declared in platform/sdk/{header}")
        if not mentions(code["src/"] + guard, name_in_source(name)):
            complain("is not used by the program")
        if not is_defined(code["platform/linux/"], f"Linux{name}"):
            complain(f"has no answer Linux{name} in platform/linux/")
        if kind == "SWAPPED" and not is_defined(code["bench/"], f"Bench{name}"):
            complain(f"has no answer Bench{name} in bench/")
        if kind == "SHARED" and is_defined(code["bench/"], f"Bench{name}"):
            complain(f"is SHARED, and yet Bench{name} stands in bench/")
        if not (mentions(code["tests/contract/"], name_in_source(name)) or mentions(code["tests/contract/"], name)):
            complain("has no contract test")
    names = [name for _, _, name in rows]
    for name in sorted({name for name in names if names.count(name) > 1}):
        problems.append(f"platform/calls.def: {name} has more than one row")
    for folder, prefix in (("platform/linux/", "Linux"), ("bench/", "Bench")):
        for path, text in of_kind(tree, folder):
            for name in re.findall(rf"\b(?:WINAPI|__cdecl)\s+{prefix}(\w+)\s*\(", without_comments_and_strings(text)):
                if name not in names:
                    problems.append(f"{path}: {prefix}{name} answers a call that has no row in platform/calls.def")
    return problems


def table_of_calls_is_true(tree):
    """The table in platform/README.md has one line a row of calls.def, and names the files where the answers stand."""
    table = {}
    for line in tree.get("platform/README.md", "").splitlines():
        cells = [cell.strip().replace("`", "") for cell in line.strip().strip("|").split("|")]
        if line.startswith("|") and len(cells) >= 5 and re.fullmatch(r"\w+", cells[0]) and cells[0] != "call":
            table[cells[0]] = cells[1:]
    problems = []
    rows = rows_of_calls(tree)
    for header, kind, name in rows:
        cells = table.get(name) or table.get(name_in_source(name))
        if cells is None:
            problems.append(f"platform/README.md: no line for {name}")
            continue
        if header not in cells[0]:
            problems.append(f"platform/README.md: {name} is declared in {header}, not in {cells[0]}")
        for folder, prefix, cell in (("platform/linux/", "Linux", cells[1]), ("bench/", "Bench", cells[2]),
                                     ("tests/contract/", "", cells[3])):
            if prefix == "Bench" and kind == "SHARED":
                if ".cpp" in cell:
                    problems.append(f"platform/README.md: {name} is SHARED, and yet a file of bench/ is named")
                continue
            files = re.findall(r"[\w./]+\.cpp", cell)
            if not files:
                problems.append(f"platform/README.md: {name}: no file of {folder} is named")
            for file in files:
                text = tree.get(folder + os.path.basename(file))
                word = prefix + name
                if text is None:
                    problems.append(f"platform/README.md: {name}: there is no {folder}{os.path.basename(file)}")
                elif not (mentions([text], word) or mentions([text], prefix + name_in_source(name))):
                    problems.append(f"platform/README.md: {name}: {word} is not in {folder}{os.path.basename(file)}")
    known = {name for _, _, name in rows} | {name_in_source(name) for _, _, name in rows}
    problems += [f"platform/README.md: {name} has no row in platform/calls.def" for name in table if name not in known]
    return problems


# --- The text ------------------------------------------------------------------------------------------------------

# Put together here, so that this file is not the first to break its own rule.
BANNED = re.compile(r"\b(" + "|".join(("TO" + "DO", "FIX" + "ME", "XX" + "X", "HA" + "CK")) + r")\b")


def columns_of(tree, path):
    """How many columns the lines of a file may have by .editorconfig, where the last section that fits decides; or
    None."""
    columns = None
    for pattern, body in re.findall(r"^\[(.+)\]\n([^\[]*)", tree.get(".editorconfig", ""), re.M):
        start, _, rest = pattern.partition("{")
        names, _, end = rest.partition("}")
        setting = re.search(r"^max_line_length = (\w+)$", body, re.M)
        if setting and any(fnmatch.fnmatch(os.path.basename(path), start + name + end) for name in names.split(",")):
            columns = None if setting.group(1) == "off" else int(setting.group(1))
    return columns


def no_leftovers(tree):
    """No notes to self, tabs, trailing blanks, carriage returns; each file ends with one line feed."""
    problems = []
    for path in sorted(tree):
        text = tree[path]
        columns = columns_of(tree, path)
        for number, line in enumerate(text.split("\n"), 1):
            banned = BANNED.search(line)
            if banned:
                problems.append(f"{path}:{number}: {banned.group(1)}")
            if "\t" in line:
                problems.append(f"{path}:{number}: a tab")
            if line != line.rstrip():
                problems.append(f"{path}:{number}: trailing blanks")
            if columns and len(line) > columns:
                problems.append(f"{path}:{number}: longer than {columns} columns")
        if text and (not text.endswith("\n") or text.endswith("\n\n")):
            problems.append(f"{path}: does not end with exactly one line feed")
    return problems


def files_begin_with_a_comment(tree):
    """A source file opens with what it is."""
    def opens_well(path, text):
        if path.endswith(CPP):
            return text.startswith(("//", "/*"))
        if path.endswith(".py"):
            return re.match(r'(#![^\n]*\n)?"""\S', text)
        if path.endswith(".def"):
            return text.startswith(("//", ";"))
        return re.match(r"#\s?[^!\s]", text.split("\n", 1)[1] if text.startswith("#!") else text)
    commented = CPP + (".def", ".py", ".cmake", "CMakeLists.txt", ".sh", ".in", ".clang-tidy", ".clang-format")
    return [f"{path}: does not open with a comment that says what it is" for path in sorted(tree)
            if (path.endswith(commented) or tree[path].startswith("#!")) and not opens_well(path, tree[path])]


def functions(text):
    """The function definitions of a C++ text as (name, first line, last line, body without comments and strings)."""
    code = without_comments_and_strings(text)
    found, stack, start = [], [], 0
    for index, character in enumerate(code):
        if character == "{":
            head = code[start:index].strip()
            head = re.sub(r"^\s*(?:#[^\n]*\n\s*)+", "", head)
            match = re.search(r"([\w:~]+|operator\s*\S+)\s*\(", head)
            is_function = (match and head.endswith((")", "const", "noexcept", "override", "final", "try"))
                           or match and re.search(r"\)\s*(?::|->|noexcept|const)[^=;]*$", head))
            is_other = re.match(
                r"(?:if|for|while|switch|else|do|catch|try|return|namespace|class|struct|enum|union)\b", head)
            if is_function and not is_other and not any(kind for kind, *_ in stack):
                stack.append((True, match.group(1), code.count("\n", 0, code.index(match.group(), start)) + 1, index))
            else:
                stack.append((False, "", 0, index))
            start = index + 1
        elif character == "}":
            if stack:
                kind, name, first, opened = stack.pop()
                if kind:
                    found.append((name, first, code.count("\n", 0, index) + 1, code[opened:index + 1]))
            start = index + 1
        elif character == ";":
            start = index + 1
    return found


def functions_fit_a_reader(tree):
    """No function of src/ or reader/ is longer than a reader's patience."""
    return [f"{path}:{first}: {name} has {last - first + 1} lines, {MAX_FUNCTION_LINES} are the most"
            for folder in ("src/", "reader/") for path, text in of_kind(tree, folder)
            for name, first, last, _ in functions(text)
            if last - first + 1 > MAX_FUNCTION_LINES]


# --- Names ---------------------------------------------------------------------------------------------------------

CONSTANT = re.compile(r"\bconstexpr\s[\w:<>,*&\s]*?[\s*&](\w+)\s*(?:\[[^\]]*\]\s*)?[={]")
# What follows Windows follows its names as well.
CONSTANT_NAME = re.compile(r"(?!k[A-Z])[a-z][a-zA-Z0-9]*|IOCTL_\w+")
MEMBER = re.compile(r"^\s*(?!friend|using|return|struct|class|enum)(?:[\w:<>,&*]+\s+)+[&*]*(?:\w+::\*)?(\w+)"
                    r"(?:\s*=[^;]*|\{[^;]*\})?;\s*$")


def constants_have_plain_names(tree):
    """A constant is called largestChunk: no prefix, no capitals."""
    return [f"{path}: the constant {name} is not named like the others"
            for path, text in of_kind(tree, "") if not path.startswith("platform/sdk/")
            for name in CONSTANT.findall(without_comments_and_strings(text)) if not CONSTANT_NAME.fullmatch(name)]


def private_members_end_in_an_underscore(tree):
    """A private member is called access_, so that a method's line says whose a name is; a record's fields are not."""
    problems = []
    for path, text in of_kind(tree, ""):
        depth, classes = 0, []  # of each class around the line: its depth, and whether what comes is private
        for number, line in enumerate(without_comments_and_strings(text).split("\n"), 1):
            label = re.match(r"\s*(public|protected|private):", line)
            if label and classes:
                classes[-1][1] = label.group(1) == "private"
            member = MEMBER.match(line)
            if (member and classes and classes[-1] == [depth, True] and "constexpr" not in line
                    and not re.fullmatch(r"[a-z]\w*_", member.group(1))):
                problems.append(f"{path}:{number}: the private member {member.group(1)} has no underscore behind it")
            head = re.match(r"\s*(class|struct)\s[^;()]*\{", line)
            depth += line.count("{") - line.count("}")
            if head:
                classes.append([depth, head.group(1) == "class"])
            while classes and depth < classes[-1][0]:
                classes.pop()
    return problems


# --- The tests -----------------------------------------------------------------------------------------------------

GTEST_ASSERTION = re.compile(r"\b(?:EXPECT_|ASSERT_|ADD_FAILURE\b|FAIL\s*\(|static_assert\b)")
GTEST_MACROS = ("TEST", "TEST_F", "TEST_P", "TYPED_TEST")


def gtest_bodies_assert(tree):
    """Each GoogleTest body asserts something, itself or through a function of the tests that does."""
    bodies = [(path, *function) for path, text in of_kind(tree, "tests/") for function in functions(text)]
    asserting = close_over_calls({name for _, name, _, _, body in bodies if GTEST_ASSERTION.search(body)},
                                 [(name, set(re.findall(r"(\w+)\s*(?:<[^<>;]*>)?\s*\(", body)))
                                  for _, name, _, _, body in bodies if name not in GTEST_MACROS])
    problems = []
    for path, name, first, _, body in bodies:
        calls = set(re.findall(r"(\w+)\s*(?:<[^<>;]*>)?\s*\(", body))
        if name in GTEST_MACROS and not GTEST_ASSERTION.search(body) and not calls & (asserting - set(GTEST_MACROS)):
            problems.append(f"{path}:{first}: a test without an assertion")
    return problems


def close_over_calls(names, functions_and_calls):
    """The names, and those of all functions that call one of them, directly or not."""
    closed = set(names)
    while True:
        more = {name for name, calls in functions_and_calls if calls & closed} - closed
        if not more:
            return closed
        closed |= more


def suites_find_their_modules_by_the_runner(tree):
    """No script of the tests patches the path of its modules: tests/run and ctest set it, in one place each."""
    return [f"{path}:{node.lineno}: patches the path of its modules, which tests/run sets"
            for path, text in of_kind(tree, "tests/", (".py",)) for node in ast.walk(ast.parse(text, path))
            if isinstance(node, ast.Attribute) and node.attr == "path" and getattr(node.value, "id", "") == "sys"]


def suites_leave_starting_to_their_settings(tree):
    """No suite puts Wine before a program by itself: what lib/ starts is started again where Wine gave up."""
    return [f"{path}:{node.lineno}: starts the runner by itself; Settings.run does it"
            for path, text in of_kind(tree, "tests/", (".py",)) if not path.startswith("tests/lib/")
            for node in ast.walk(ast.parse(text, path))
            if isinstance(node, ast.Starred) and getattr(node.value, "attr", "") == "runner"]


def python_calls(function):
    return {node.func.attr if isinstance(node.func, ast.Attribute) else getattr(node.func, "id", "")
            for node in ast.walk(function) if isinstance(node, ast.Call)}


def python_asserts(function):
    """Whether the function asserts in its own lines: unittest's methods, an assert, or a raised AssertionError."""
    if any(isinstance(node, ast.Assert) for node in ast.walk(function)):
        return True
    if any(isinstance(node, ast.Raise) and node.exc is not None and "AssertionError" in ast.dump(node.exc)
           for node in ast.walk(function)):
        return True
    return any(re.match(r"assert[A-Z]", name) or name == "fail" for name in python_calls(function))


def python_tests_assert(tree):
    """Each test method of the Python suites asserts something, itself or through a function of the tests that does."""
    definitions = [(path, node) for path, text in of_kind(tree, "tests/", (".py",))
                   for node in ast.walk(ast.parse(text, path)) if isinstance(node, ast.FunctionDef)]
    helpers = [node for _, node in definitions if not node.name.startswith("test_")]
    asserting = close_over_calls({node.name for node in helpers if python_asserts(node)},
                                 [(node.name, python_calls(node)) for node in helpers])
    # What only prepares a test, or ends it early, proves nothing, whatever it calls on its way.
    asserting -= {"setUp", "tearDown", "main", "skipTest"}
    return [f"{path}:{node.lineno}: {node.name} asserts nothing" for path, node in definitions
            if node.name.startswith("test_") and not python_asserts(node) and not python_calls(node) & asserting]
