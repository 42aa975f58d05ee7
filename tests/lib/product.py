"""Runs of the program itself, vornix or vornix.exe, on the host: no described machine stands between.

A Product is a Machine without disks, so that a suite writes its files and states its expectations as elsewhere. What
the host's clock decides, the rate of the meter, is set to 0.0 in what a run is held against; `raw` has the bytes as
they came. No disk that the host may have is ever named: ABSENT and the numbers behind it stand for none.
"""

import re
import subprocess

from console import meter_run
from machine import Machine, Result, run_to_files

ABSENT = "9999"

RATE = re.compile(rb"\([0-9]+\.[0-9] MiB/s\)")


def without_rates(data):
    return RATE.sub(b"(0.0 MiB/s)", data)


def product_meter(disk_size, chunk_size, upto=None):
    """The meter lines of a loop over the chunks, as console.meter_run has them, at a rate of 0.0."""
    return meter_run(disk_size, chunk_size, step=0, upto=upto)


class Product(Machine):
    """A work folder, and runs of the program in it."""

    def __init__(self, folder, **options):
        super().__init__(folder, default=False, **options)

    def start(self, *arguments, environment=None, timeout=300, **streams):
        """Runs the program with the streams as given to subprocess.run; gives what that gives."""
        # A locale of its own, since the host's decides under Wine which bytes an argument beyond ASCII has.
        settled = {**self.settings.environment(), "LC_ALL": "C.UTF-8", **(environment or {})}
        return subprocess.run([*self.settings.runner, self.settings.program, *arguments], cwd=self.work,
                              stdin=subprocess.DEVNULL, env=settled, timeout=timeout, check=False, **streams)

    def run(self, *arguments, timeout=300, description=None):
        # No run of the program prints nothing and ends with 1.
        status, *raw = run_to_files(
            lambda stdout, stderr: self.start(*arguments, timeout=timeout, stdout=stdout, stderr=stderr).returncode,
            lambda: self.settings.windows)
        result = Result(list(arguments), status, *map(without_rates, raw), [], {}, self.settings.windows, self.folder)
        result.raw = raw[0]
        self.runs.append(result)
        return result
