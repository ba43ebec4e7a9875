#!/usr/bin/env python3
"""Counts the instructions of what the registry does in a process against instruction_budgets.txt."""

import os
import platform
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import budgets

# The C library chooses its string functions by the processor; so that all machines count the same,
# it is told to take those that every x86-64 has. Words that it does not know do no harm.
BASELINE = "glibc.cpu.hwcaps=-AVX2,-AVX2_Usable,-AVX,-AVX_Fast_Unaligned_Load,-BMI2,-ERMS,-FSRM," \
    "-SSE4_1,-SSE4_2,-SSSE3,-Fast_Unaligned_Copy"

# Callgrind gives every part of its output these two lines.
NAME = re.compile(r"^desc: Trigger: Client Request: (\S+)", re.MULTILINE)
TOTAL = re.compile(r"^(?:summary|totals): (\d+)", re.MULTILINE)


def count_instructions(program):
    """The instructions per call of every function, by its name, in the program's order."""
    with tempfile.TemporaryDirectory() as folder:
        output = Path(folder) / "callgrind"
        run = subprocess.run(
            ["valgrind", "--quiet", "--tool=callgrind", "--vgdb=no", "--instr-atstart=no",
             f"--callgrind-out-file={output}", program],
            env={**os.environ, "GLIBC_TUNABLES": BASELINE}, stdout=subprocess.PIPE, text=True,
            check=True)
        totals = {}
        for part in Path(folder).iterdir():
            text = part.read_text()
            if name := NAME.search(text):
                totals[name[1]] = int(TOTAL.search(text)[1])
    calls = (line.split() for line in run.stdout.splitlines())
    return {name: round(totals[name] / int(count)) for name, count in calls}


def main():
    arguments = budgets.read_arguments(__doc__)
    if platform.machine() != "x86_64":
        print("The budgets are of x86-64's instructions.")
        return budgets.SKIPPED
    counts = count_instructions(arguments.programs / "measured_functions")
    chosen = {name: counts[name] for name in arguments.subjects or counts}
    table = budgets.Table(Path(__file__).with_name("instruction_budgets.txt"))
    return budgets.conclude(table, chosen, list(counts), arguments, lambda subject: [])


sys.exit(main())
