#!/usr/bin/env python3
"""Runs one fuzz target as a test: its seeds and then a fixed number of further inputs, from a fixed start.

    run_fuzz_target.py TARGET FOUND SEEDS RUNS

New inputs of interest go to FOUND, never to SEEDS. With VORNIX_LONG set the target runs for five minutes instead.
Prints how many inputs were tried and how much of the program they reached, and closes with the line that ./check adds
up.
"""

import os
import re
import subprocess
import sys

SECONDS_OF_A_LONG_RUN = 300


def main():
    target, found, seeds, runs = sys.argv[1:5]
    name = os.path.basename(target)
    seed_count = len(os.listdir(seeds))
    length = [f"-max_total_time={SECONDS_OF_A_LONG_RUN}"] if os.environ.get("VORNIX_LONG") else [f"-runs={runs}"]
    command = [target, *length, "-seed=1", "-max_len=8192", "-rss_limit_mb=1024", "-timeout=20",
               f"-artifact_prefix={found}/", "-print_final_stats=1", found, seeds]
    run = subprocess.run(command, capture_output=True, text=True, errors="replace", check=False)
    tried = re.search(r"stat::number_of_executed_units: *(\d+)", run.stderr)
    covered = re.findall(r"cov: (\d+) ft: (\d+)", run.stderr)
    tried_count = int(tried.group(1)) if tried else 0
    good = run.returncode == 0 and tried_count > seed_count
    if not good:
        print(run.stderr[-6000:])
        print(f"{name}: ended with status {run.returncode}")
    print(f"{name}: {tried_count} inputs, {seed_count} of them seeds; "
          f"{covered[-1][0] if covered else 0} edges and {covered[-1][1] if covered else 0} features reached")
    print(f"{1 if good else 0} passed, {0 if good else 1} failed, 0 skipped")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
