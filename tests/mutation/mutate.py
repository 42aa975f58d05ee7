"""Breaks the program in one small place at a time and looks whether a test notices.

    tests/run tests/mutation/mutate.py --sample 40 --seed 1         forty mutants of src/, drawn by a seed
    tests/run tests/mutation/mutate.py --file src/image/paths.cpp   every mutant of a file or folder
    tests/run tests/mutation/mutate.py --untried                    those that the record has not yet
    tests/run tests/mutation/mutate.py --lived                      those that lived, before tests of every suite
    tests/run tests/mutation/mutate.py --list                       what there is to draw from
    tests/run tests/mutation/mutate.py --check                      the record alone: no survivor without a reason, no
                                                                    reason that nothing needs

A mutant is one change of one line: a condition negated, a comparison shifted, && for ||, plus for minus, a constant one
higher, true for false, a call left out. All of them are built at once, into a copy of the sources in build/mutation in
which each place asks the environment whether it is the one that is broken (mutant.inc). So a mutant costs the tests
that it is put before and no build. What a compiler must know beforehand cannot ask, such as the length of an array;
those mutants are built one by one, and one that does not compile is none.

Each test is run once as it is, and notes the places that it comes to. A mutant is then put before the tests that come
to its place: the programs of tests first, then the suites that concern its file, and in each the quickest test first;
the first that fails, and fails again, kills it. What was tried is kept in record.txt beside this file, by the text of
its line and not by its number, and survivors.txt has the reason of each that lived: what a test cannot see. A mutant
that lives without a reason is a test that is missing; then the exit status is 1.

The platform opens disks, and a mutant of it may open another one than its test meant. So all this runs where the disks
of the machine cannot be opened: root gets a mount namespace in which their nodes lead nowhere and /run is empty, which
leaves the loop devices of the tests.
"""

import argparse
import collections
import concurrent.futures
import hashlib
import importlib.util
import json
import os
import random
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import traceback
import unittest

from mutants import mutants_of, switched

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
WORK = os.path.join(ROOT, "build", "mutation")
TREE, BUILD = os.path.join(WORK, "tree"), os.path.join(WORK, "build")
ASLEEP = os.path.join(HERE, "mutant.inc")
PLACES, REACHED = os.path.join(WORK, "places.json"), os.path.join(WORK, "reached.json")
RECORD, REASONS = os.path.join(HERE, "record.txt"), os.path.join(HERE, "survivors.txt")
SCOPES = ("src/", "platform/linux/")
PROGRAMS = {"src/": ["vornix-unit-tests", "vornix-observed-unit-tests"], "platform/linux/": ["vornix-contract-tests"]}
TARGETS = {"src/": ["vornix", "vornix-bench", "vrnx", *PROGRAMS["src/"]],
           "platform/linux/": ["vornix", "vornix-bench", "vornix-disks", "vrnx", *PROGRAMS["platform/linux/"]]}
NONE, LIVED = "none", "lived"

# The suites that concern a folder or file, in the order in which they are asked; the longest match counts. Behind them
# come all others that reach the place.
SUITES = {
    "src/": ["capture", "restore", "verify", "clone", "thin_chains", "consolidate"],
    "src/cli/": ["command_line", "disks", "meter", "verify", "restore", "clone", "capture"],
    "src/commands/capture.cpp": ["capture", "tracker", "releases", "snapshot_reads", "incremental_capture",
                                 "sealed_images", "snapshot_session"],
    "src/commands/clone.cpp": ["clone"],
    "src/commands/consolidate.cpp": ["consolidate", "thin_chains"],
    "src/commands/incremental_capture.cpp": ["incremental_capture"],
    "src/commands/restore.cpp": ["restore", "sealed_images"],
    "src/commands/verify.cpp": ["verify", "sealed_images", "thin_chains"],
    "src/crypto/": ["password_file", "releases", "sealed_images", "verify"],
    "src/disk/": ["disks", "releases", "clone", "restore", "capture"],
    "src/image/": ["chunk_retrieval", "thin_chains", "verify", "image_open", "consolidate", "sealed_images", "restore"],
    "src/snapshot/": ["volume_extents", "releases", "snapshot_reads", "snapshot_session"],
    "src/tracker/": ["tracker", "incremental_capture"],
    "platform/linux/": ["process", "block_devices", "product"],
    "platform/linux/disks_tool/": ["disks_tool"],
}
# The suites of faults/ that are asked about survivors alone, since each test of theirs is hundreds of runs. And those
# of scenarios/ that are not asked at all: they go at length where others have been, look at the optimised code, or need
# a build that is not there.
FAULTS = ("fault_sweep_", "fault_matrix", "no_write_", "hostile_")
LEFT_OUT = {"interop", "generations_story", "page_commands", "secret_wiping"}

# What a test may take: time of a processor for each process, in multiples of what it took as it is and so much more,
# and so many looks at it by whoever waits for it, likewise: a busy machine is slow, and one that somebody has stopped
# for a while looks at nothing.
TIMES, PROCESSOR_SECONDS, PAUSE = 5, 10, 0.02
TIMES_WAITED, SECONDS_WAITED = 10, 20
# So long all of its processes may sleep, likewise: they wait for each other.
TIMES_ASLEEP, SECONDS_ASLEEP = 3, 4
# A test of a program that takes no more than so many seconds is run with others.
QUICK = 0.5
# How long a mutant is put before further tests, in seconds that these took as they are; and with --lived.
PATIENCE, PATIENCE_WITH_SURVIVORS = 25, 250


def files_in(scope):
    names = subprocess.run(["git", "ls-files", scope], cwd=ROOT, capture_output=True, text=True, check=True).stdout
    return [name for name in names.split() if name.endswith(".cpp")]


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if not os.path.exists(path) or read(path) != text:
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)


def quiet(*command, **options):
    return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False, **options)


# --- The build that has all of them ---------------------------------------------------------------------------------

def copy_sources(but=()):
    """Copies the sources that git knows, as they stand, but for these paths."""
    names = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, capture_output=True, check=True).stdout.split(b"\0")
    for name in map(os.fsdecode, filter(None, names)):
        source, copy = os.path.join(ROOT, name), os.path.join(TREE, name)
        if name in but or not os.path.isfile(source):
            continue
        with open(source, "rb") as file:
            content = file.read()
        if os.path.exists(copy):
            with open(copy, "rb") as file:
                if file.read() == content:
                    continue
        os.makedirs(os.path.dirname(copy), exist_ok=True)
        shutil.copy(source, copy)


def errors_in(path, command):
    """The lines and columns at which the compiler will not have the file of the copy."""
    words = [word for word in shlex.split(command) if word != "-c"]
    words = words[:words.index("-o")] + words[words.index("-o") + 2:]
    done = subprocess.run([*words, "-fsyntax-only", "-fmax-errors=0", "-fno-diagnostics-show-caret"], cwd=BUILD,
                          capture_output=True, text=True, check=False)
    pattern = re.compile(rf"^{re.escape(os.path.join(TREE, path))}:(\d+):(\d+): +(?:error|required from here)", re.M)
    found = sorted({(int(line), int(column)) for line, column in pattern.findall(done.stderr)})
    if done.returncode != 0 and not found:
        sys.exit(f"{path} does not compile:\n{done.stderr}")
    return found


def culprits(text, errors):
    """The numbers of the mutants that stand at these places of a text: for each the one that begins nearest in front
    of it on its line, or else somewhere near."""
    lines, guilty = text.split("\n"), set()
    for line, column in errors:
        here = [(match.start(), int(match.group(1))) for match in re.finditer(r"mutation::Is\((\d+)\)", lines[line])]
        before = [number for start, number in here if start < column]
        if before:
            guilty.add(before[-1])
        elif here:
            guilty.add(here[0][1])
        else:
            around = "\n".join(lines[max(0, line - 4):line + 4])
            guilty.update(int(number) for number in re.findall(r"mutation::Is\((\d+)\)", around))
    return guilty


def make_switched(path, first, commands):
    """The text of a file with its mutants in it, numbered from `first`, and those that are in it. Takes out one after
    the other that the compiler will not have."""
    mutants = list(mutants_of(ROOT, path))
    chosen = dict(enumerate(mutants, first))
    while True:
        text, inside = switched(read(os.path.join(ROOT, path)), chosen)
        chosen = {number: chosen[number] for number in inside}
        write(os.path.join(TREE, path), f'#include "{WORK}/mutant.h"\n' + text)
        errors = errors_in(path, commands[os.path.join(TREE, path)])
        if not errors:
            return len(mutants), {number: mutant.name for number, mutant in chosen.items()}
        guilty = culprits(f"\n\n{text}", errors) & set(chosen)
        if not guilty:
            sys.exit(f"{path} does not compile at {errors}, and no mutant is near")
        for number in guilty:
            del chosen[number]


def build(folder, targets):
    done = subprocess.run(["cmake", "--build", folder, "--parallel", "2", "--target", *targets], check=False,
                          capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"the copy does not build:\n{done.stdout[-3000:]}")


def prepare(targets):
    """Builds all mutants at once. Gives number to name of those that could be built like that."""
    paths = [path for scope in SCOPES for path in files_in(scope)]
    stamp = hashlib.sha256("".join(read(os.path.join(ROOT, path)) for path in
                                   [*paths, os.path.join(HERE, "mutants.py"), ASLEEP]).encode())
    if os.path.exists(PLACES):
        known = json.loads(read(PLACES))
        if known["stamp"] == stamp.hexdigest():
            copy_sources(but=paths)
            build(BUILD, targets)
            return {int(number): name for number, name in known["places"].items()}
    copy_sources()
    write(os.path.join(WORK, "mutant.h"), read(ASLEEP))
    subprocess.run(["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                    "-DCMAKE_CXX_FLAGS=-O0 -g0 -w -Wno-narrowing", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"],
                   stdout=subprocess.DEVNULL, check=True)
    commands = {entry["file"]: entry["command"] for entry in
                json.loads(read(os.path.join(BUILD, "compile_commands.json")))}
    places, starts, at = {}, {}, 0
    for path in paths:
        starts[path] = at
        at += len(list(mutants_of(ROOT, path)))
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        for path, (count, inside) in zip(paths, pool.map(lambda path: make_switched(path, starts[path], commands),
                                                         paths)):
            print(f"{path}: {len(inside)} of {count} in one build", flush=True)
            places.update(inside)
    if os.path.exists(REACHED):
        os.remove(REACHED)
    write(PLACES, json.dumps({"stamp": stamp.hexdigest(), "places": places}))
    build(BUILD, targets)
    return places


# --- The tests ------------------------------------------------------------------------------------------------------

class Test:
    """Something that passes or fails: a method of a suite, or a test of a program."""

    def __init__(self, name, suite, run, program=None):
        self.name, self.suite, self.run, self.program = name, suite, run, program


def program_test(suite, path, names):
    """These tests of a program, in one run."""
    arguments = [path, "--gtest_brief=1", "--gtest_fail_fast", f"--gtest_filter={':'.join(names)}"]
    return Test(f"{suite} {':'.join(names)}", suite, lambda: quiet(*arguments).returncode == 0, path)


def tests_of_program(name, build):
    """The tests of a program, each by itself."""
    path = os.path.join(build, "tests", name)
    group = ""
    listed = subprocess.run([path, "--gtest_list_tests"], capture_output=True, text=True, check=True).stdout
    for line in listed.splitlines():
        word = line.split("#")[0].strip()
        if line.startswith("  "):
            yield program_test(name, path, [group + word])
        elif word.endswith("."):
            group = word


def method_test(suite, method):
    def run():
        result = unittest.TestResult()
        method.run(result)
        return not (result.failures or result.errors or result.unexpectedSuccesses)
    return Test(f"test_{suite}.py {type(method).__name__}.{method._testMethodName}", f"test_{suite}.py", run)


def methods_in(tests):
    for test in tests:
        if isinstance(test, unittest.TestSuite):
            yield from methods_in(test)
        else:
            yield test


def load_tests(build, suites=None):
    """The tests of the programs and the scenarios, of these suites or of all, on the executables of this build."""
    os.environ |= {"VORNIX_BUILD": build, "VORNIX": os.path.join(build, "vornix"), "VRNX": os.path.join(build, "vrnx"),
                   "VORNIX_BENCH": os.path.join(build, "vornix-bench")}
    tests = [test for scope in SCOPES for name in PROGRAMS[scope] if suites is None or name in suites
             for test in tests_of_program(name, build)]
    for folder in ("scenarios", "faults"):
        place = os.path.join(ROOT, "tests", folder)
        for file in sorted(os.listdir(place)):
            name = file.removeprefix("test_").removesuffix(".py")
            if not file.startswith("test_") or name in LEFT_OUT or suites is not None and file not in suites or (
                    folder == "faults" and not name.startswith(FAULTS)):
                continue
            spec = importlib.util.spec_from_file_location(f"suite_{name}", os.path.join(place, file))
            module = importlib.util.module_from_spec(spec)
            spec.loader.exec_module(module)
            tests += [method_test(name, method)
                      for method in methods_in(unittest.defaultTestLoader.loadTestsFromModule(module))]
    return tests


def work_of(session):
    """What the processes of a session have done so far, or None where one of them is at work."""
    spent = 0
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            fields = read(f"/proc/{name}/stat").rpartition(")")[2].split()
        except OSError:
            continue  # has ended
        if int(fields[3]) == session:
            if fields[0] not in "SZ":
                return None
            spent += sum(map(int, fields[11:15]))
    return spent


def run_test(test, environment, folder, usual_seconds):
    """Whether the test passes, in a process of its own and with a folder for what it leaves. None where it did not
    end."""
    pid = os.fork()
    if pid == 0:
        try:
            os.setsid()
            limit = round(TIMES * usual_seconds) + PROCESSOR_SECONDS
            resource.setrlimit(resource.RLIMIT_CPU, (limit, limit + 5))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            os.environ |= environment
            os.environ["TMPDIR"] = tempfile.tempdir = folder
            nowhere = os.open(os.devnull, os.O_RDWR)
            os.dup2(nowhere, 1)
            os.dup2(nowhere, 2)
            os._exit(0 if test.run() else 1)
        except BaseException:
            os._exit(1)
    status, work, asleep = None, None, 0
    for look in range(round((TIMES_WAITED * usual_seconds + SECONDS_WAITED) / PAUSE)):
        ended, code = os.waitpid(pid, os.WNOHANG)
        if ended:
            status = code == 0
            break
        if look % round(1 / PAUSE) == 0:
            before, work = work, work_of(pid)
            asleep = asleep + 1 if work is not None and work == before else 0
            if asleep > TIMES_ASLEEP * usual_seconds + SECONDS_ASLEEP:
                break
        time.sleep(PAUSE)
    try:
        os.killpg(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    if status is None:
        os.waitpid(pid, 0)
    return status


def side_by_side(jobs, work, items):
    """What `work` gives for each item, as (item, text) in the order in which they end, each in a process of its own."""
    waiting, running = collections.deque(items), {}
    while waiting or running:
        while waiting and len(running) < jobs:
            item = waiting.popleft()
            folder = tempfile.mkdtemp(prefix="vornix-mutant-")
            pid = os.fork()
            if pid == 0:
                try:
                    write(os.path.join(folder, "result"), work(item, folder))
                except Exception:
                    traceback.print_exc()
                finally:
                    sys.stderr.flush()
                    os._exit(0)
            running[pid] = item, folder
        pid, _ = os.wait()
        item, folder = running.pop(pid)
        text = read(os.path.join(folder, "result"))
        shutil.rmtree(folder, ignore_errors=True)
        yield item, text


def look_where_tests_go(tests, jobs):
    """For each test that passes: how long it took, and the numbers of the places that it came to."""
    known = json.loads(read(REACHED)) if os.path.exists(REACHED) else {}

    def work(test, folder):
        reached = os.path.join(folder, "reached")
        with open(reached, "wb") as file:
            file.truncate(8192)
        os.chmod(reached, 0o666)
        os.chmod(folder, 0o755)
        start = time.monotonic()
        passed = run_test(test, {"MUTANTS_REACHED": reached}, folder, 200)
        seconds = time.monotonic() - start
        with open(reached, "rb") as file:
            numbers = [number for number, byte in enumerate(file.read()) if byte]
        return json.dumps([seconds, numbers] if passed else None)
    for test, text in side_by_side(jobs, work, [test for test in tests if test.name not in known]):
        known[test.name] = json.loads(text)
        if known[test.name] is None:
            print(f"is not asked, since it fails on the program as it is: {test.name}", flush=True)
        if len(known) % 20 == 0 or test is tests[-1]:
            write(REACHED, json.dumps(known))
    write(REACHED, json.dumps(known))
    return known


def order_for(path, number, tests, reached, is_thorough):
    """The tests that come to a place, in the order in which they are asked: those of the suites that concern it, or in
    turn one of each suite that there is."""
    fitting = max((place for place in SUITES if path.startswith(place)), key=len)
    ranks = {f"test_{name}.py": rank for rank, name in enumerate(SUITES[fitting])}
    ranks |= {name: -1 for scope in SCOPES for name in PROGRAMS[scope] if path.startswith(scope)}
    those = sorted((test for test in tests if reached.get(test.name) and number in reached[test.name][1]),
                   key=lambda test: reached[test.name][0])
    if is_thorough:
        turns, place_of = collections.Counter(), {}
        for test in those:
            place_of[test], turns[test.suite] = turns[test.suite], turns[test.suite] + 1
        return sorted(those, key=place_of.get)
    return sorted(those, key=lambda test: ranks.get(test.suite, 99))


def in_runs(ordered, seconds_of):
    """The tests as they are run, each with the time it takes: the quick ones of a program in one run, for most of what
    such a test takes is the start of the program."""
    runs, quick = [], collections.defaultdict(list)
    for test in ordered:
        if test.program is None or seconds_of(test) > QUICK:
            runs.append((test, seconds_of(test)))
            continue
        if not quick[test.program]:
            runs.append((test.suite, test.program))
        quick[test.program].append(test.name.split(" ")[1])
    return [(program_test(*one, quick[one[1]]), 3 * QUICK) if one[1] in quick else one for one in runs]


def judge_mutant(ordered, environment, folder, seconds_of, patience):
    """The suite that notices the mutant, or that it lived."""
    spent = 0
    for test, seconds in in_runs(ordered, seconds_of):
        # At least one of each, whatever it takes.
        if spent > patience:
            break
        passed = run_test(test, environment, folder, seconds)
        if passed is None:
            return f"{test.suite}, which did not end"
        # One that fails now and then, on a busy machine, has noticed nothing.
        if not passed and not run_test(test, environment, folder, seconds):
            return test.suite
        spent += seconds
    return LIVED


# --- Those that cannot be switched ----------------------------------------------------------------------------------

def try_alone(mutant, path, tests, reached, targets, patience):
    """What becomes of a mutant that is built by itself, among files whose mutants all sleep."""
    copy = os.path.join(TREE, path)
    switched_text = read(copy)
    write(copy, mutant.text())
    try:
        if quiet("cmake", "--build", BUILD, "--target", *targets).returncode != 0:
            return NONE
        with tempfile.TemporaryDirectory(prefix="vornix-mutant-", ignore_cleanup_errors=True) as folder:
            return judge_mutant(tests, {}, folder, lambda test: reached[test.name][0], patience)
    finally:
        write(copy, switched_text)


# --- The disks of the machine ---------------------------------------------------------------------------------------

# Puts nodes that lead nowhere, since their file system has no devices, in the place of those given, and an empty folder
# in that of /run; then becomes the program behind them.
_APART = """mount -t tmpfs none /run && mkdir /run/nodes && mount -t tmpfs -o nodev none /run/nodes || exit 1
while [ "$1" != -- ]; do
    mknod "/run/nodes/$(basename "$1")" b 1 1 && mount --bind "/run/nodes/$(basename "$1")" "$1" || exit 1
    shift
done
shift
exec "$@"
"""


def go_apart():
    """Starts this script anew where it cannot open the disks of the machine, save loop devices and memory."""
    if os.geteuid() != 0 or os.environ.get("MUTATION_IS_APART"):
        return
    nodes = [f"/dev/{name.replace('!', '/')}" for name in os.listdir("/sys/class/block")
             if not name.startswith(("loop", "ram", "zram"))]
    os.environ["MUTATION_IS_APART"] = "1"
    os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", "sh", "-c", _APART, "sh",
                          *filter(os.path.exists, nodes), "--", sys.executable, *sys.argv])


# --- The record -----------------------------------------------------------------------------------------------------

def read_record():
    """What became of the mutants that were tried, without those whose line is gone."""
    record = dict(line.strip().split(" :: ")[::-1] for line in read(RECORD).splitlines() if not line.startswith("#"))
    known = {mutant.name for scope in SCOPES for path in files_in(scope) for mutant in mutants_of(ROOT, path)}
    return {name: end for name, end in record.items() if name in known}


def write_record(record):
    with open(RECORD, "w", encoding="utf-8") as file:
        file.write("# What became of each mutant that was tried: `end :: name`, one a line.\n")
        file.writelines(f"{end} :: {name}\n" for name, end in sorted(record.items()))


def read_reasons():
    """Lines of `name :: reason`."""
    reasons = {}
    for line in filter(str.strip, read(REASONS).splitlines()):
        if not line.startswith("#"):
            name, _, reason = line.strip().partition(" :: ")
            reasons[name] = reason
    return reasons


def judge(record):
    """The problems of the record: survivors without a reason, and reasons without a survivor."""
    reasons = read_reasons()
    lived = {name for name, end in record.items() if end == LIVED}
    explained = {name for name, reason in reasons.items() if reason}
    problems = [f"lived, and no reason is given: {name}" for name in sorted(lived - explained)]
    problems += [f"has a reason and is no survivor: {name}" for name in sorted(set(reasons) - lived)]
    return problems


def choose(arguments, record):
    """The mutants to try, as (path, mutant)."""
    chosen = [(path, mutant) for scope in arguments.file or ["src/"] for path in files_in(scope)
              for mutant in mutants_of(ROOT, path)]
    if arguments.untried:
        chosen = [(path, mutant) for path, mutant in chosen if mutant.name not in record]
    if arguments.lived:
        chosen = [(path, mutant) for path, mutant in chosen if record.get(mutant.name) == LIVED]
    if arguments.sample is not None:
        chosen = random.Random(arguments.seed).sample(chosen, min(arguments.sample, len(chosen)))
    return chosen


def try_all(chosen, record, arguments):
    def keep(name, end):
        print(f"{end}: {name}", flush=True)
        record[name] = end
        write_record(record)
    targets = sorted({target for path, _ in chosen for scope in SCOPES if path.startswith(scope)
                      for target in TARGETS[scope]})
    numbers = {name: number for number, name in prepare(targets).items()}
    # Where a place is not one of theirs, the suites of other places seldom are the ones that notice.
    suites = None if arguments.lived else {name for path, _ in chosen for name in suites_for(path)}
    tests = load_tests(BUILD, suites)
    reached = look_where_tests_go(tests, arguments.jobs)
    together = [(path, mutant) for path, mutant in chosen if mutant.name in numbers]

    def work(item, folder):
        path, mutant = item
        number = numbers[mutant.name]
        os.chmod(folder, 0o755)
        return judge_mutant(order_for(path, number, tests, reached, arguments.lived), {"MUTANT": str(number)}, folder,
                            lambda test: reached[test.name][0], arguments.patience)
    for (_, mutant), end in side_by_side(arguments.jobs, work, together):
        keep(mutant.name, end)
    alone = [(path, mutant) for path, mutant in chosen if mutant.name not in numbers]
    if alone and not arguments.together:
        for path, mutant in alone:
            ordered = [test for name in suites_for(path) for test in tests
                       if test.suite == name and reached[test.name] is not None]
            keep(mutant.name, try_alone(mutant, path, ordered, reached, targets, arguments.patience))
        build(BUILD, targets)


def suites_for(path):
    fitting = max((place for place in SUITES if path.startswith(place)), key=len)
    return [name for scope in SCOPES for name in PROGRAMS[scope] if path.startswith(scope)] + [
        f"test_{name}.py" for name in SUITES[fitting]]


def main():
    parser = argparse.ArgumentParser(description="Mutates the program and runs its tests.")
    parser.add_argument("--file", action="append", help="a file or folder of the program; src/ when absent")
    parser.add_argument("--sample", type=int, help="how many mutants to draw; all when absent")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=2, help="how many are tried at a time")
    parser.add_argument("--untried", action="store_true", help="only those that the record does not have")
    parser.add_argument("--lived", action="store_true", help="only those that lived, and before every test")
    parser.add_argument("--together", action="store_true", help="leave out those that need a build of their own")
    parser.add_argument("--list", action="store_true", help="name the mutants and do nothing")
    parser.add_argument("--patience", type=int, help="how long a mutant is put before further tests, in seconds that "
                        "these took as they are; 25 when absent, and 250 with --lived")
    parser.add_argument("--check", action="store_true", help="judge the record and do nothing else")
    arguments = parser.parse_args()
    if arguments.patience is None:
        arguments.patience = PATIENCE_WITH_SURVIVORS if arguments.lived else PATIENCE
    if not arguments.check and not arguments.list:
        go_apart()
    record = read_record()
    if not arguments.check:
        chosen = choose(arguments, record)
        if arguments.list:
            print("\n".join(mutant.name for _, mutant in chosen))
            sys.exit(0)
        try_all(chosen, record, arguments)
    problems = judge(record)
    for problem in problems:
        print(problem)
    ends = collections.Counter(end if end in (NONE, LIVED) else "killed" for end in record.values())
    print(f"{len(record)} mutants tried: {ends['killed']} killed, {ends[LIVED]} lived, {ends[NONE]} are none")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
