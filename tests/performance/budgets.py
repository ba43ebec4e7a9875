"""Tables of budgets, and what the checks against them have in common.

A table is a text file of lines "subject budget"; a line that begins with # is a comment. The line
"tolerance P" allows what is counted to differ from the budget by P percent, either way.

A budget that is higher than need be fails as well as one that is exceeded: whoever makes something
cheaper lowers the budget, so that nobody spends the difference unseen.
"""

import argparse
import os
import re
import sys
from pathlib import Path

SKIPPED = 77
LINE = re.compile(r"^(\S+)(\s+)(\d+)\s*$")


class Table:
    def __init__(self, path):
        self.path = path
        self.lines = path.read_text().splitlines()
        self.tolerance = 0
        self.budgets = {}
        for line in self.lines:
            match = LINE.match(line)
            if match and match[1] == "tolerance":
                self.tolerance = int(match[3])
            elif match:
                self.budgets[match[1]] = int(match[3])
            elif line and not line.startswith("#"):
                sys.exit(f"{path.name}: neither a budget nor a comment: {line}")

    def judge(self, subject, counted):
        """What is wrong with the budget of this subject; nothing when it is right."""
        budget = self.budgets.get(subject)
        if budget is None:
            return "has no budget in the table"
        allowed = budget * self.tolerance / 100
        if counted > budget + allowed:
            return f"takes more than its budget of {budget}"
        if counted < budget - allowed:
            return f"takes less than its budget of {budget}: lower the budget in the table"
        return None

    def update(self, counts, all_subjects):
        """Writes these counts into the file; those of new subjects come last."""
        width = max(map(len, all_subjects))
        lines = []
        for line in self.lines:
            match = LINE.match(line)
            if match and match[1] in counts:
                line = f"{match[1]}{match[2]}{counts[match[1]]}"
            if not match or match[1] in {"tolerance", *all_subjects}:
                lines.append(line)
        lines += [f"{subject.ljust(width)}  {count}" for subject, count in counts.items()
                  if subject not in self.budgets]
        self.path.write_text("\n".join(lines) + "\n")


def read_arguments(description):
    root = Path(__file__).resolve().parents[2]
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--programs", type=Path, default=root / "build/default/tests",
                        help="the folder of the built test programs")
    parser.add_argument("--update", action="store_true",
                        help="write what is counted into the table instead of judging it")
    parser.add_argument("subjects", nargs="*", help="count only these, and show the details")
    return parser.parse_args()


def conclude(table, counts, all_subjects, arguments, details):
    """Prints every count, and judges it or writes it into the table; returns the exit status.

    `details` gives the lines that explain a subject's count.
    """
    failures = 0
    for subject, counted in counts.items():
        wrong = None if arguments.update else table.judge(subject, counted)
        failures += wrong is not None
        print(f"{subject:28}{counted:8}" + (f"  FAILED: {wrong}" if wrong else ""))
        if wrong or arguments.subjects:
            for line in details(subject):
                print(f"    {line}")
    if arguments.update:
        table.update(counts, all_subjects)
        return os.EX_OK
    for subject in table.budgets:
        if subject not in all_subjects:
            failures += 1
            print(f"{subject}  FAILED: is in the table, but nothing counts it")
    if failures:
        print(f"{failures} budgets of {table.path.name} do not hold; its first lines say what to do.")
        return 1
    return os.EX_OK if counts else SKIPPED
