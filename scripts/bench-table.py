#!/usr/bin/env python3
"""Makes one table of what the benchmarks have measured.

    bench-table.py [--json] RESULT.json...

The results are what Google Benchmark's programs write. Their benchmarks are called
subject/operation/entries[/variant...]: the subject is who did it (the registry, the floor, a peer),
the entries are those of other processes that were there meanwhile.

The table has a row for each operation and number of entries, and a column for each subject: the
median of its times in microseconds. The ratio is the registry's time over the floor's: the median
of the ratios of each pass, in which the two followed each other. Below it stands what the registry
is to reach, what it has reached, and how long each subject shows the record of a publisher that was
killed.
"""

import argparse
import json
import platform
import re
import statistics
import sys

SUBJECTS = ["registry", "floor", "monitor", "redis", "dbus", "sqlite", "lmdb", "etcd"]
MICROSECONDS = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}

# What Google Benchmark adds to names by itself.
HOW_IT_WAS_RUN = re.compile(r"/(real_time|process_time|manual_time"
                            r"|(iterations|repeats|min_time):[^/]+)")

# Operations that are reported elsewhere than in the table.
NOT_TIMES = ["cost", "costShared", "killed", "appearance", "death", "memory", "throughput"]


class Results:
    """What was measured of each benchmark, in the order of the passes, by its name."""

    def __init__(self, documents):
        self.runs = {}
        self.errors = {}
        for document in documents:
            for run in document["benchmarks"]:
                self._add(HOW_IT_WAS_RUN.sub("", run.get("run_name", run["name"])), run)

    def _add(self, name, run):
        if run.get("error_occurred"):
            self.errors[name] = run.get("error_message", "")
        elif run.get("run_type", "iteration") == "iteration":
            self.runs.setdefault(name, []).append(run)

    def values(self, name, counter=None):
        """One value for each pass: the time in microseconds, or a counter."""
        runs = self.runs.get(name, [])
        if counter is None:
            return [run["real_time"] * MICROSECONDS[run["time_unit"]] for run in runs]
        return [run[counter] for run in runs if counter in run]

    def median(self, name, counter=None):
        values = self.values(name, counter)
        return statistics.median(values) if values else None

    def ratio(self, name, other, counter=None):
        """Of benchmarks that every pass has."""
        pairs = zip(self.values(name, counter), self.values(other, counter))
        ratios = [value / base for value, base in pairs if base]
        return statistics.median(ratios) if ratios else None


# --- the table


def rows(results):
    """(operation, entries, variant) of all that was timed, in the order of the operations."""
    found = dict.fromkeys(map(row_of, results.runs))
    operations = list(dict.fromkeys(operation for operation, _, _ in found))
    timed = [row for row in found if row[0] not in NOT_TIMES]
    return sorted(timed, key=lambda row: (operations.index(row[0]), row[2], row[1]))


def row_of(name):
    _, operation, entries, *variant = [*name.split("/"), "0"][:max(3, name.count("/") + 1)]
    return operation, int(entries), "/".join(variant)


def benchmark_name(subject, row):
    operation, entries, variant = row
    return "/".join(part for part in (subject, operation, str(entries or ""), variant) if part)


def table(results):
    lines = []
    for row in rows(results):
        line = dict(zip(("operation", "entries", "variant"), row))
        for subject in SUBJECTS:
            line[subject] = results.median(benchmark_name(subject, row))
        line["ratio"] = results.ratio(benchmark_name("registry", row), benchmark_name("floor", row))
        lines.append(line)
    return lines


# --- the goals


def per_entry(results, operation, many, few):
    ratio = results.ratio(f"registry/{operation}/{many}", f"registry/{operation}/{few}")
    return ratio and ratio * few / many


def goals(results):
    """(what, what it may be at most or at least, what it is) of each goal."""

    def floor_ratio(row):
        return results.ratio(f"registry/{row}", f"floor/{row}")

    def peer_ratio(row, peer):
        own, others = (results.median(f"{subject}/{row}") for subject in ("registry", peer))
        return own / others if own and others else None

    def growth(operation, entries):
        return results.ratio(f"registry/{operation}/{entries}", f"registry/{operation}/1")

    record = "registry/publishAndWithdrawRecord/1"
    two = results.ratio("registry/find/100/processes:2", "registry/find/100/processes:1",
                        "items_per_second")
    cost = "registry/cost/100"
    return [
        ("publish and withdraw, 1 entry, over the floor", "<=", 1.3,
         floor_ratio("publishAndWithdraw/1")),
        ("publish and withdraw, 1000 entries, over the floor", "<=", 1.15,
         floor_ratio("publishAndWithdraw/1000")),
        ("publish and withdraw with a hint, 1 entry, over without", "<=", 1.12,
         results.ratio(f"{record}/withHint", f"{record}/withoutHint")),
        ("find, 1 entry, over the floor", "<=", 1.3, floor_ratio("find/1")),
        ("find, 1000 entries, over the floor", "<=", 1.3, floor_ratio("find/1000")),
        ("find of one key, 1000 entries over 1", "<=", 1.3, growth("findAgain", 1000)),
        ("find of one key, 10000 entries over 1", "<=", 1.3, growth("findAgain", 10000)),
        ("list, 1000 entries, over the floor", "<=", 1.3, floor_ratio("list/1000")),
        *((f"find of one key, {entries} entries, over Redis", "<=", 1,
           peer_ratio(f"findAgain/{entries}", "redis")) for entries in (1, 80, 1000, 10000)),
        *((f"find of each key, {entries} entries, over Redis", "<=", 1,
           peer_ratio(f"find/{entries}", "redis")) for entries in (1, 80, 1000, 10000)),
        ("find, 500 entries, over D-Bus", "<=", 1, peer_ratio("find/500", "dbus")),
        ("find through a group, 1 entry, over a private find", "<=", 3,
         results.ratio("registry/findShared/1", "registry/find/1")),
        ("list through a group, per entry, 2000 entries over 50", "<=", 1.5,
         per_entry(results, "listShared", 2000, 50)),
        ("find, 100 entries, throughput of 2 processes over 1", ">=", 1.7, two),
        ("look-ups that see a killed publisher, for how many seconds", "<=", 0,
         results.median("registry/killed/1", "visible_s")),
        ("descriptors of an endpoint", "<=", 1, results.median(cost, "descriptors")),
        ("mapped pages of an endpoint", "<=", 1, results.median(cost, "mapped_pages")),
        ("heap of an endpoint, in bytes", "<=", 1024, results.median(cost, "heap_bytes")),
        ("start-up with the library linked, over Boost.Log alone", "<=", 1.05,
         floor_ratio("startUp")),
    ]


def verdict(sign, limit, measured):
    if measured is None:
        return "not measured"
    is_met = measured <= limit if sign == "<=" else measured >= limit
    return "met" if is_met else "missed"


def judged_goals(results):
    return [{"goal": what, "limit": f"{sign} {limit}", "measured": measured,
             "verdict": verdict(sign, limit, measured)}
            for what, sign, limit, measured in goals(results)]


# --- the records of killed publishers


def staleness(results):
    """For how many seconds a killed publisher's record is seen, or "for ever", by subject."""
    found = {}
    for subject in SUBJECTS:
        name = f"{subject}/killed/1"
        if results.median(name, "for_ever"):
            found[subject] = "for ever"
        elif name in results.runs:
            found[subject] = results.median(name, "visible_s")
    return found


# --- monitors


def monitors(results):
    """How soon a monitor reports, in microseconds by the number of entries, and what it takes."""
    report = {}
    for what in ("appearance", "death"):
        found = {}
        for name in results.runs:
            subject, operation, entries, *_ = [*name.split("/"), ""]
            if (subject, operation) == ("monitor", what):
                found[int(entries)] = {percentile: results.median(name, percentile)
                                       for percentile in ("p50_us", "p99_us")}
        report[what] = dict(sorted(found.items()))
    report["bytes_per_entry"] = results.median("monitor/memory/10000", "heap_bytes")
    for counter in ("events_per_second", "publications_per_second"):
        report[counter] = results.median("monitor/throughput/8", counter)
    return report


# --- printing


def number(value):
    if value is None:
        return "-"
    if isinstance(value, str):
        return value
    return f"{value:.0f}" if value >= 100 else f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def print_columns(lines):
    widths = [max(map(len, column)) for column in zip(*lines)]
    for first, *others in lines:
        cells = [cell.rjust(width) for cell, width in zip(others, widths[1:])]
        print("  ".join([first.ljust(widths[0]), *cells]).rstrip())


def print_table(lines):
    columns = ["registry", "floor", "ratio"] + SUBJECTS[2:]
    cells = [["microseconds", "entries"] + columns]
    for line in lines:
        operation = " ".join([line["operation"], *line["variant"].split("/")]).rstrip()
        entries = str(line["entries"] or "")
        cells.append([operation, entries] + [number(line[column]) for column in columns])
    print_columns(cells)


def print_goals(judged):
    print()
    print_columns([["what the registry is to reach", "goal", "measured", ""]] +
                  [[goal["goal"], goal["limit"], number(goal["measured"]), goal["verdict"]]
                   for goal in judged])


def print_staleness(seconds):
    if seconds:
        print("\nA killed publisher's record is still seen for")
    for subject, value in seconds.items():
        print(f"  {subject:<8}  {value if isinstance(value, str) else f'{value:.3g} s'}")


def print_monitors(report):
    for what in ("appearance", "death"):
        for entries, times in report[what].items():
            print(f"\nfrom {what} to its report, {entries} entries: "
                  f"median {number(times['p50_us'])} us, 99 % {number(times['p99_us'])} us", end="")
    if report["bytes_per_entry"]:
        print(f"\na watched entry takes {number(report['bytes_per_entry'])} bytes of heap")
    if report["events_per_second"]:
        print(f"\n8 processes that publish and withdraw: {number(report['events_per_second'])} "
              f"events of {number(report['publications_per_second'])} publications a second")


def print_errors(errors):
    for name, message in errors.items():
        print(f"not measured: {name}: {message}", file=sys.stderr)


def machine(documents):
    context = documents[0]["context"]
    return {"date": context.get("date"), "cores": context.get("num_cpus"),
            "mhz": context.get("mhz_per_cpu"),
            "system": f"{platform.system()} {platform.release()}"}


def read(path):
    """What one program has measured; None where it had nothing to measure, or failed."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    try:
        return json.loads(text) if text else None
    except ValueError:
        print(f"{path}: the benchmarks did not come to their end", file=sys.stderr)
        return None


def main():
    parser = argparse.ArgumentParser(description="Makes one table of Google Benchmark's results.")
    parser.add_argument("--json", action="store_true", help="print one JSON document instead")
    parser.add_argument("results", nargs="+")
    arguments = parser.parse_args()

    documents = [document for document in map(read, arguments.results) if document]
    if not documents:
        sys.exit("nothing was measured")
    results = Results(documents)
    report = {"machine": machine(documents), "table": table(results),
              "goals": judged_goals(results), "killed_publisher_seen_s": staleness(results), "monitors": monitors(results),
              "errors": results.errors}
    if arguments.json:
        json.dump(report, sys.stdout, indent=2)
        print()
        return
    print("{date}, {cores} cores of {mhz} MHz, {system}\n".format(**report["machine"]))
    print_table(report["table"])
    print_goals(report["goals"])
    print_staleness(report["killed_publisher_seen_s"])
    print_monitors(report["monitors"])
    print_errors(results.errors)


if __name__ == "__main__":
    main()
