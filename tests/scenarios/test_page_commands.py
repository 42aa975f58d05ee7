#!/usr/bin/env python3
"""Runs what the pages show: each command line of the guide and the manual page, in its order, on a described machine.

A block marked `console` is a session: behind the prompt `C:\\> ` or `# ` stands what is typed, below it what the
program prints. A page is one story in one folder, from its first session to its last; what happens between two command
lines (files change, a disk is taken offline, the computer is started from other media) stands in BEFORE, what has to be
true behind one in AFTER. Of the meter, which rewrites its line, a page shows the last state. The number behind a
failure that is no failure of a system call means nothing and is not compared; all else is, byte for byte.

A command line that has to fail is followed by a look at its status; any other has to end with 0.

    tests/run tests/scenarios/test_page_commands.py --update      writes what the program prints into the guide
"""

import os
import re
import shlex
import subprocess
import sys
import tempfile

import suite
from incremental import marked
from machine import CHECKOUT, SETTINGS, Machine, pattern

GUIDE = os.path.join("docs", "users-guide.md")
MANUAL = os.path.join("man", "vornix.8")
MIB = 1048576
DATA_SIZE = 32 * MIB

PROMPT = re.compile(r"(C:\\> |# )(.*)")
FENCE = re.compile(r"^( *)```(\w*)\n(.*?)^\1```$", re.M | re.S)
STATUS_LINES = ("echo %ERRORLEVEL%", "echo $?")

# The folders of the pages, and the folder beside the described machine that each stands for.
PLACES = {"E:\\backup\\": "backup", "C:\\backup\\": "backup", "/mnt/backup/": "backup",
          "C:\\secret\\": "secret", "/root/": "secret"}


def read(path):
    with open(os.path.join(CHECKOUT, path), encoding="utf-8") as file:
        return file.read()


# --- The machine of the guide -----------------------------------------------------------------------------------------

def make_machine(folder):
    """A computer whose system disk has an EFI partition and C:, with a data disk, a spare one and the drive E:."""
    machine = Machine(folder, default=False)
    machine.ticks(1000, 200)
    machine.add_disk(0, pattern(24 * MIB, "system"))
    machine.add_disk(1, pattern(20 * MIB, "data") + bytes(DATA_SIZE - 20 * MIB))
    machine.add_disk(2, DATA_SIZE, in_use=True)
    machine.add_disk(3, 0, length=1000204886016)
    machine.system_volume([(0, 9 * MIB, 14 * MIB)])
    name = "\\\\?\\Volume{%s-90c4-4a3e-b3a5-0c8f2d1b7a11}\\"
    machine.add_volume(name % "0f6a1c2e", [(0, MIB, 8 * MIB)], supported=False)
    machine.add_volume(name % "5b9e4d70", [(0, 9 * MIB, 14 * MIB)])
    machine.shadow_service([("System Writer", 1, "0x0"), ("Registry Writer", 1, "0x0"), ("WMI Writer", 1, "0x0")])
    for place in PLACES.values():
        os.makedirs(machine.path(place), exist_ok=True)
    machine.write(os.path.join("secret", "password.txt"), b"correct horse battery staple\r\n")
    machine.write(os.path.join("secret", "other.txt"), b"wrong horse\r\n")
    return machine


def change_files(*offsets):
    """Somebody works on the data disk."""
    def change(machine):
        for offset in offsets:
            machine.poke_disk(1, offset * MIB, pattern(4096, f"change {offset}"))
    return change


def take_spare_offline(machine):
    machine.disk(2)["in_use"] = False


def start_recovery_media(machine):
    """The computer runs from the drive E:, which has the letter C: as well."""
    machine.system_volume([(3, MIB, 64 * MIB)])


def start_live_media(machine):
    """Linux runs from memory: what it runs from lies on a disk that is none of the machine's."""
    machine.system_volume([(4294967295, 0, 512)])


def start_from_disk(machine):
    machine.system_volume([(0, 9 * MIB, 14 * MIB)])


def load_tracker(machine):
    machine.tracker([{"number": 1, "has_previous_epoch": 0, "current_epoch": 1,
                      "bitmap": marked(DATA_SIZE, 16, (0, DATA_SIZE))}])


def change_files_under_the_tracker(machine):
    change_files(22)(machine)
    state = machine.tracker_disk(1)
    state["bitmap"] = marked(DATA_SIZE, 16, (22 * MIB, 4096))
    machine.tracker([state])


def restart_computer(machine):
    """The driver begins anew: all is marked, and there is no epoch before this one."""
    load_tracker(machine)
    machine.tracker([machine.tracker_disk(1) | {"current_epoch": 9}])


def unload_tracker(machine):
    machine.description.pop("tracker")


def rename(old, new):
    def move(machine):
        os.rename(machine.path(os.path.join("backup", old)), machine.path(os.path.join("backup", new)))
    return move


def both(*events):
    def run(machine):
        for event in events:
            event(machine)
    return run


# --- What has to be true behind a command line ------------------------------------------------------------------------

def disks_are_equal(test, machine):
    test.expect_disk(machine, 2, machine.disk_bytes(1))


def images_are_equal(first, second):
    def compare(test, machine):
        test.expect_file(machine, os.path.join("backup", second), machine.read(os.path.join("backup", first)))
    return compare


def stands_for_the_data_disk(name, password=None):
    def compare(test, machine):
        test.expect_good_image(machine, os.path.join("backup", name), machine.disk_bytes(1), password)
    return compare


# Both are keyed by the command line as the page has it and the how-manieth time it stands there.
RESTORE_DATA = r"vornix restore --in E:\backup\data-full.vrnx --disk 2 --confirm YES"
BEFORE = {
    (RESTORE_DATA, 2): take_spare_offline,
    ("vornix list-disks", 2): start_recovery_media,
    ("vornix list-disks", 3): start_live_media,
    (r"vornix capture --disk 2 --out E:\backup\drill.vrnx", 1): start_from_disk,
    (r"vornix capture --disk 1 --base E:\backup\data-full.vrnx --thin --out E:\backup\data-mon.vrnx", 1):
        change_files(5, 6),
    (r"vornix capture --disk 1 --base E:\backup\data-mon.vrnx --thin --out E:\backup\data-tue.vrnx", 1):
        change_files(13, 25),
    (r"vornix capture --disk 1 --out E:\backup\week2-full.vrnx", 1): load_tracker,
    (r"vornix capture --disk 1 --base E:\backup\week2-full.vrnx --thin --out E:\backup\week2-mon.vrnx", 1):
        change_files_under_the_tracker,
    (r"vornix capture --disk 1 --base E:\backup\week2-mon.vrnx --thin --out E:\backup\week2-tue.vrnx", 1):
        restart_computer,
    (r"vornix verify --in E:\backup\data-tue.vrnx", 2): both(unload_tracker, rename("data-mon.vrnx", "monday.vrnx")),
    (r"vornix verify --in E:\backup\data-tue.vrnx", 3): rename("monday.vrnx", "data-mon.vrnx"),
}
AFTER = {
    (RESTORE_DATA, 2): disks_are_equal,
    (r"vornix capture --disk 2 --out E:\backup\drill.vrnx", 1): images_are_equal("data-full.vrnx", "drill.vrnx"),
    (r"vornix capture --disk 1 --base E:\backup\data-mon.vrnx --thin --out E:\backup\data-tue.vrnx", 1):
        stands_for_the_data_disk("data-tue.vrnx"),
    (r"vornix capture --disk 1 --base E:\backup\week2-mon.vrnx --thin --out E:\backup\week2-tue.vrnx", 1):
        stands_for_the_data_disk("week2-tue.vrnx"),
    (r"vornix clone --from 1 --to 2 --confirm YES --verify", 1): disks_are_equal,
    (r"vornix capture --disk 1 --encrypt --password-file C:\secret\password.txt --out E:\backup\sealed.vrnx", 1):
        stands_for_the_data_disk("sealed.vrnx", b"correct horse battery staple"),
}


# --- Running ----------------------------------------------------------------------------------------------------------

def split_line(line):
    """The arguments of a command line of a page, quotation marks taken as a shell does and backslashes left alone."""
    return shlex.split(line.replace("\\", "\\\\"))


def place_argument(machine, argument):
    """An argument with the folder of the page replaced by the one that stands for it."""
    for shown, place in PLACES.items():
        if argument.startswith(shown):
            return machine.absolute(os.path.join(place, argument[len(shown):]))
    return argument


def place_output(machine, text, arguments):
    """What the program printed, with the folders of the command line back in it."""
    for shown, place in PLACES.items():
        if any(argument.startswith(shown) for argument in arguments):
            text = text.replace(machine.absolute(os.path.join(place, "x"))[:-1], shown)
    return text


def shown_lines(result, machine, arguments):
    """Both streams as a console has them in the end: of a line that is rewritten its last state."""
    text = (result.stdout + result.stderr).decode()
    lines = [line.rpartition("\r")[2].rstrip() for line in place_output(machine, text, arguments).split("\n")]
    while lines and not lines[-1]:
        lines.pop()
    return lines


def without_meaningless_numbers(lines):
    return [re.sub(r"^(FATAL: .*\(GetLastError=)\d+\)$", r"\1...)", line) for line in lines]


def blocks(page):
    """The fenced blocks of a page: (language, content without the indentation of its block)."""
    for indent, language, body in FENCE.findall(page):
        yield language, re.sub(f"(?m)^{indent}", "", body)


def parse_session(body):
    """The steps of a session: (prompt, what is typed, [what is shown below it])."""
    steps = []
    for line in body.splitlines():
        match = PROMPT.match(line)
        if match:
            steps.append((match.group(1), match.group(2), []))
        else:
            steps[-1][2].append(line)
    return steps


class Story:
    """One page from top to bottom; gives what each step of it shows."""

    def __init__(self, machine):
        self.machine = machine
        self.counts = {}
        self.status = 0

    def step(self, line, test=None):
        """Does what is typed and gives the lines that it shows; `test` judges what AFTER holds for it."""
        if line in STATUS_LINES:
            status, self.status = self.status, 0
            return [str(status)]
        if self.status != 0:
            raise AssertionError(f"the command line before {line!r} ended with {self.status}, and nobody looked")
        program, *arguments = split_line(line)
        if program != "vornix":
            raise AssertionError(f"nobody has said what {line!r} does")
        self.counts[line] = self.counts.get(line, 0) + 1
        key = (line, self.counts[line])
        BEFORE.get(key, lambda machine: None)(self.machine)
        result = self.machine.run(*(place_argument(self.machine, argument) for argument in arguments))
        self.status = result.status
        if test is not None and key in AFTER:
            AFTER[key](test, self.machine)
        return shown_lines(result, self.machine, arguments)


class Guide(suite.Scenario):
    recorded = False

    def not_every_time_under_wine(self):
        if SETTINGS.windows and not SETTINGS.long:
            self.skipTest("some fifty runs, each a start of Wine: under VORNIX_LONG")

    def test_each_session_shows_what_the_program_prints(self):
        self.not_every_time_under_wine()
        story = Story(make_machine(self.folder))
        self.machines.append(story.machine)
        lines = 0
        for language, body in blocks(read(GUIDE)):
            for _, line, shown in parse_session(body) if language == "console" else []:
                printed = story.step(line, self)
                self.assertEqual(without_meaningless_numbers(shown), without_meaningless_numbers(printed), line)
                lines += 1
        self.assertEqual(story.status, 0, "the last command line failed, and nobody looked")
        self.assertGreater(lines, 30)
        told = set(BEFORE) | set(AFTER)
        self.assertEqual({key for key in told if story.counts.get(key[0], 0) < key[1]}, set(),
                         "told of lines not there")

    def test_no_command_line_of_the_guide_goes_untried(self):
        guide = read(GUIDE)
        tried = {line for language, body in blocks(guide) if language == "console"
                 for _, line, _ in parse_session(body)}
        outside = FENCE.sub("", guide)
        self.assertNotRegex(outside, r"(?m)^ {4,}(\S*[\\/])?vornix(\.exe)? ", "a command line that is in no session")
        for code in re.findall(r"`([^`\n]+)`", outside):
            if re.match(r"(\S*[\\/])?vornix(\.exe)? ", code):
                self.assertIn(code, tried)


class Acceptance(suite.Scenario):
    """The trials that packaging/windows/acceptance.ps1 makes on a real Windows, on a machine that is described
    alike."""

    recorded = False
    SCRIPT = os.path.join("packaging", "windows", "acceptance.ps1")
    TRIAL = re.compile(r'''^ +Step ('[^']*'|\$\w+) (\d) ['"]([^'"]*)['"] `\n +"([^"]*)"$'''
                       r"|^ +Test-Same '([^']*)' \"\$Work\\([^\"]*)\" \"\$Work\\([^\"]*)\"$", re.M)
    NUMBERS = {"systemDisk": "0", "source": "1", "target": "2"}

    def take_offline(self, machine):
        machine.disk(2)["in_use"] = False

    def break_copy(self, machine):
        broken = bytearray(machine.read("full.vrnx"))
        broken[len(broken) // 2] ^= 1
        machine.write("broken.vrnx", bytes(broken))

    def test_each_trial_goes_as_the_script_expects(self):
        if SETTINGS.windows and not SETTINGS.long:
            self.skipTest("some thirty runs, each a start of Wine: under VORNIX_LONG")
        machine = make_machine(self.folder)
        self.machines.append(machine)
        machine.add_volume("\\\\?\\Volume{5b9e4d70-90c4-4a3e-b3a5-0c8f2d1b7a12}\\", [(1, MIB, 24 * MIB)])
        for name in ("password.txt", "other.txt"):
            machine.write(name, machine.read(os.path.join("secret", name)))
        events = {"a disk that is offline is captured": self.take_offline, "what changed is captured": change_files(5),
                  "one inverted bit is found": self.break_copy}
        runs = 0
        for title, status, text, line, same, first, second in self.TRIAL.findall(read(self.SCRIPT)):
            with self.subTest(title or same):
                if same:
                    self.expect_file(machine, second, machine.read(first))
                    continue
                events.pop(title.strip("'"), lambda machine: None)(machine)
                text, line = (re.sub(r"\$(\w+)", lambda match: self.NUMBERS.get(match[1], match[0]), part)
                              for part in (text, line))
                arguments = [word.removeprefix("$Work\\") for word in line.split(" ")]
                result = machine.run(*arguments)
                self.assertEqual(result.status, int(status), result.describe())
                self.assertIn(text.encode(), result.stdout + result.stderr, result.describe())
                self.assertNotIn("$", "".join(arguments))
                runs += 1
        self.assertEqual(events, {})
        self.assertGreater(runs, 25)
        written = {call["path"] for result in machine.runs for call in result.calls("WriteFile")
                   if "PhysicalDrive" in call["path"]}
        self.assertEqual(len(written), 1, written)

    def test_the_script_runs_the_program_nowhere_else(self):
        script = read(self.SCRIPT)
        self.assertEqual(len(re.findall(r"^ +Step ", script, re.M)) + len(re.findall(r"^ +Test-Same ", script, re.M)),
                         len(self.TRIAL.findall(script)))
        self.assertEqual(re.findall(r"& \$Vornix (.*?)[ )]", script), ["@arguments", "list-disks"])


class ManualPage(suite.Scenario):
    recorded = False

    def test_each_example_does_what_it_says(self):
        if SETTINGS.windows:
            self.skipTest("the page of the Linux package")
        page = read(MANUAL).replace("\\-", "-")
        lines = re.findall(r"^# (.*)$", page.split(".SH EXAMPLES", 1)[1], flags=re.M)
        story = Story(make_machine(self.folder))
        self.machines.append(story.machine)
        take_spare_offline(story.machine)
        for line in lines:
            story.step(line)
            self.assertEqual(story.status, 0, line)
        self.assertGreater(len(lines), 4)

    def test_every_option_of_the_program_is_told(self):
        page = read(MANUAL).replace("\\-", "-")
        source = read("src/cli/command_line.cpp")
        for option in set(re.findall(r'"(--[a-z-]+)"', source)) - {"--incremental"}:
            self.assertIn(option, page)


class Contributing(suite.Scenario):
    """The commands of CONTRIBUTING.md that do not build; the rest of them is what ./check does."""

    recorded = False

    def test_the_machine_of_ones_own_shows_its_fault(self):
        if SETTINGS.windows:
            self.skipTest("a script for Linux")
        script, = (body for language, body in blocks(read("CONTRIBUTING.md")) if language == "sh")
        script = script.replace("/tmp/machine", self.folder).replace("build/linux/vornix-bench", SETTINGS.bench)
        done = subprocess.run(["sh", "-c", script], cwd=CHECKOUT, capture_output=True, text=True, check=False,
                              env=SETTINGS.environment())
        self.assertEqual((done.returncode, done.stderr),
                         (0, "FATAL: ReadFile from source disk failed mid-capture - image "
                                                          "is incomplete, do not trust it (GetLastError=23)\n"))
        self.assertIn('"transferred":0,"ok":false,"error":23}\n', done.stdout)

    def test_the_narrowed_suites_have_tests_of_that_name(self):
        lines = re.findall(r"tests/run (tests/\S+\.py) -k (\w+)", read("CONTRIBUTING.md") + read("tests/README.md"))
        self.assertGreater(len(lines), 2)
        for suite_path, word in lines:
            done = subprocess.run(["tests/run", suite_path, "--list", "-k", word], cwd=CHECKOUT,
                                  capture_output=True, text=True, check=True,
                                  env={name: value for name, value in os.environ.items() if name != "PYTHONPATH"})
            self.assertIn(word, done.stdout, suite_path)


def update():
    """Writes into the guide what the program prints."""
    def renewed(block):
        indent, language, _ = block.groups()
        if language != "console":
            return block.group(0)
        (_, body), = blocks(block.group(0))
        lines = ["```console"]
        for prompt, line, _ in parse_session(body):
            lines += [prompt + line, *story.step(line)]
        return "\n".join((indent + line).rstrip() for line in [*lines, "```"])

    with tempfile.TemporaryDirectory() as folder:
        story = Story(make_machine(folder))
        page = FENCE.sub(renewed, read(GUIDE))
    with open(os.path.join(CHECKOUT, GUIDE), "w", encoding="utf-8") as file:
        file.write(page)


if __name__ == "__main__":
    if sys.argv[1:] == ["--update"]:
        update()
    else:
        suite.main()
