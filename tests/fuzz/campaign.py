#!/usr/bin/env python3
"""Long runs of the fuzz targets, added up over as many evenings as they take.

    tests/fuzz/campaign.py [--minutes N] [--jobs N] [TARGET...]     runs the targets in turn, in slices, for N minutes
    tests/fuzz/campaign.py --update                                 writes the table in docs/reliability.md anew

What is found on the way (inputs that reach something new) stays in the build folder and is where the next slice begins.
CPU time, inputs tried and coverage are added to tests/fuzz/campaign.json after every slice; the first finding ends the
campaign with the input's path and status 1. Needs the build of the preset `fuzz`.
"""

import argparse
import concurrent.futures
import json
import os
import re
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.join(ROOT, "build", "fuzz")
RECORD = os.path.join(HERE, "campaign.json")
PAGE = os.path.join(ROOT, "docs", "reliability.md")
BEGIN, END = "<!-- fuzz campaign -->\n", "<!-- end of fuzz campaign -->\n"
TARGETS = sorted(name.removeprefix("fuzz_").removesuffix(".cpp") for name in os.listdir(HERE)
                 if name.startswith("fuzz_") and name.endswith(".cpp") and name != "fuzz_world.cpp")
SLICE_SECONDS = 120


def read_record():
    with open(RECORD, encoding="utf-8") as file:
        return json.load(file)


def run_slice(target, seconds, seed):
    """One run of a target: (status, its standard error, CPU seconds it took)."""
    found = os.path.join(BUILD, "found", target)
    os.makedirs(found, exist_ok=True)
    command = [os.path.join(BUILD, "tests", f"fuzz_{target}"), f"-max_total_time={seconds}", f"-seed={seed}",
               "-max_len=8192", "-rss_limit_mb=2048", "-timeout=60", f"-artifact_prefix={found}/finding-",
               "-print_final_stats=1", found, os.path.join(HERE, "seeds", target)]
    child = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    errors = child.stderr.read().decode(errors="replace")
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    return child.returncode, errors, usage.ru_utime + usage.ru_stime


def account(record, target, errors, cpu):
    """Adds what a slice says of itself to the record."""
    tried = re.search(r"stat::number_of_executed_units: *(\d+)", errors)
    covered = re.findall(r"cov: (\d+) ft: (\d+)", errors)
    counters = re.search(r"\((\d+) inline 8-bit counters\)", errors)
    entry = record.setdefault(target, {"cpu_seconds": 0, "inputs": 0, "edges": 0, "all_edges": 0, "features": 0})
    entry["cpu_seconds"] = round(entry["cpu_seconds"] + cpu)
    entry["inputs"] += int(tried.group(1))
    entry["edges"] = max(entry["edges"], int(covered[-1][0]))
    entry["features"] = max(entry["features"], int(covered[-1][1]))
    entry["all_edges"] = int(counters.group(1))


def table(record):
    lines = ["| Target | CPU time | Inputs | Edges reached, of those in the program | Features |",
             "|---|---:|---:|---:|---:|"]
    for target, entry in sorted(record.items()):
        lines.append(f"| {target} | {entry['cpu_seconds'] / 3600:.1f} h | {entry['inputs']:,} "
                     f"| {entry['edges']:,} of {entry['all_edges']:,} | {entry['features']:,} |")
    return "\n".join(lines) + "\n"


def update_page():
    with open(PAGE, encoding="utf-8") as file:
        text = file.read()
    before, rest = text.split(BEGIN)
    _, after = rest.split(END)
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(before + BEGIN + table(read_record()) + END + after)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("targets", nargs="*", metavar="TARGET", help=f"of {', '.join(TARGETS)}; all of them when none")
    parser.add_argument("--minutes", type=float, default=60)
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--update", action="store_true")
    arguments = parser.parse_args()
    if arguments.update:
        if not os.path.exists(RECORD):
            sys.exit("campaign.py: no campaign is recorded yet")
        update_page()
        return 0
    record = read_record() if os.path.exists(RECORD) else {}
    end = time.monotonic() + 60 * arguments.minutes
    lock, findings, running = threading.Lock(), [], set()

    def work(_):
        while time.monotonic() < end and not findings:
            with lock:
                # The one that has had least so far, and one at a time: two would write into the same folder.
                free = [target for target in arguments.targets or TARGETS if target not in running]
                target = min(free, key=lambda name: record.get(name, {}).get("cpu_seconds", 0))
                running.add(target)
            status, errors, cpu = run_slice(target, SLICE_SECONDS, time.time_ns() % 2**31)
            with lock:
                running.discard(target)
                if status != 0:
                    findings.append(f"{target}: status {status}\n{errors[-6000:]}")
                    return
                account(record, target, errors, cpu)
                with open(RECORD, "w", encoding="utf-8") as file:
                    json.dump(record, file, indent=1, sort_keys=True)
                    file.write("\n")

    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        list(pool.map(work, range(arguments.jobs)))
    print("\n".join(findings) or table(record), end="")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
