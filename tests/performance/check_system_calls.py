#!/usr/bin/env python3
"""Counts the system calls of the registry's operations against system_call_budgets.txt."""

import re
import subprocess
import sys
import tempfile
from collections import Counter
from pathlib import Path

import budgets

CALL = re.compile(r"^(\w+)\(")


def calls_between_marks(trace):
    """The lines of strace's output between the two marks, without signals."""
    lines = trace.splitlines()
    begin, end = (
        next(i for i, line in enumerate(lines) if line.startswith(f'write(-1, "{mark}"'))
        for mark in ("begin", "end"))
    return [line for line in lines[begin + 1:end] if CALL.match(line)]


def trace(programs, operation):
    """The calls of one operation, which has an empty registry to itself; None when it is skipped.

    strace follows no child, so what other processes do is not counted. It stands outside, since
    isolate hides home folders, and one of those may be where this build is.
    """
    with tempfile.TemporaryDirectory() as folder:
        output = Path(folder) / "trace"
        run = subprocess.run(
            ["strace", "-o", output, programs / "isolate", programs / "measured_operation",
             operation], stderr=subprocess.PIPE, text=True, check=False)
        if run.returncode == budgets.SKIPPED:
            print(f"{operation:28} skipped: {run.stderr.strip()}")
            return None
        if run.returncode != 0:
            sys.exit(f"{operation} failed:\n{run.stderr}")
        return calls_between_marks(output.read_text())


def main():
    arguments = budgets.read_arguments(__doc__)
    listing = subprocess.run([arguments.programs / "measured_operation"],
                             stdout=subprocess.PIPE, text=True, check=True)
    operations = listing.stdout.split()
    traces = {operation: trace(arguments.programs, operation)
              for operation in arguments.subjects or operations}
    counts = {operation: len(calls) for operation, calls in traces.items() if calls is not None}

    def details(operation):
        by_name = Counter(CALL.match(line)[1] for line in traces[operation])
        yield ", ".join(f"{name} {count}" for name, count in by_name.most_common())
        if arguments.subjects:
            yield from traces[operation]

    table = budgets.Table(Path(__file__).with_name("system_call_budgets.txt"))
    return budgets.conclude(table, counts, operations, arguments, details)


sys.exit(main())
