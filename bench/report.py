#!/usr/bin/env python3
"""Runs the benchmarks together and writes the results.

report.py BUILD_FOLDER [--rounds N] [--page FILE] [--only ROW]

A round runs each program once, so that the sides of a row run close together in time. The result is
the median over the rounds of the ratios within a round. The table is written to standard output, to
BUILD_FOLDER/bench.json, and between the markers of a page if one is given.
"""
import argparse
import json
import os
import platform
import re
import statistics
import subprocess
import sys

PROGRAMS = ["notify", "table", "trace", "task", "shared_table", "router", "start", "kernel"]
RECORDED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "recorded")

# What a side is called, and the Debian package that brings it.
PEERS = {
    "Boost.Signals2": "libboost1.81-dev", "sigc++": "libsigc++-2.0-dev", "Qt 5": "qtbase5-dev",
    "tsl::robin_map": "robin-map-dev", "boost::unordered_flat_map": "libboost1.81-dev",
    "absl::flat_hash_map": "libabsl-dev", "spdlog ring buffer": "libspdlog-dev",
    "fmt": "libfmt-dev", "libevent": "libevent-dev", "libuv": "libuv1-dev", "asio": "libasio-dev",
    "LMDB": "liblmdb-dev", "Boost.Interprocess": "libboost1.81-dev", "TDB": "libtdb-dev",
    "Signals2, spdlog, LMDB": "libboost1.81-dev libspdlog-dev liblmdb-dev",
    "LTTng-UST": "liblttng-ust-dev lttng-tools", "FRR zebra": "frr",
}


def nanoseconds(time):
    for unit, size in (("ms", 1e6), ("µs", 1e3)):
        if time >= size:
            return f"{time / size:.3g} {unit}"
    return f"{time:.2f} ns" if time < 10 else f"{time:.3g} ns"


# Aims. Each has a text and measured(row): (value, what it must not exceed). A row passes within a
# tolerance, since timings of a few nanoseconds move by code layout alone.

class Ratio:
    """At most `factor` of another side, or of the best of several."""
    def __init__(self, factor, *sides, name=None):
        self.factor, self.sides, self.name = factor, sides, name or sides[0]

    def text(self):
        return f"at most {self.factor} × {self.name}"

    def measure(self, row):
        ratios = [r for r in (row.ratio("ours", side) for side in self.sides) if r]
        return (f"{max(ratios):.2f} ×", max(ratios) / self.factor) if ratios else None


class Faster:
    """At least `factor` as fast as another side."""
    def __init__(self, factor, side):
        self.factor, self.side = factor, side

    def text(self):
        return f"at least {self.factor} × faster than {self.side}"

    def measure(self, row):
        ratio = row.ratio(self.side, "ours")
        return (f"{ratio:.1f} × faster", self.factor / ratio) if ratio else None


class Absolute:
    def __init__(self, limit, per=""):
        self.limit, self.per = limit, per

    def text(self):
        return f"at most {nanoseconds(self.limit)}{self.per}"

    def measure(self, row):
        return nanoseconds(row.median("ours")), row.median("ours") / self.limit


class Above:
    def __init__(self, limit, side):
        self.limit, self.side = limit, side

    def text(self):
        return f"at most {self.limit} ns over {self.side}"

    def measure(self, row):
        over = statistics.median(a - b for a, b in zip(row.times["ours"], row.times[self.side]))
        return f"{over:.2f} ns over", over / self.limit


class NoAllocation:
    def text(self):
        return "no allocation"

    def measure(self, row):
        return f"{row.allocations:.0f} allocations", 2 if row.allocations > 0.01 else 0


MAPS = ["tsl::robin_map", "boost::unordered_flat_map", "absl::flat_hash_map", "std::unordered_map"]

ROWS = [
    ("set", "set, nobody subscribed", [Ratio(1.1, "limit")]),
    ("set-equal", "set, equal value", [Ratio(1.1, "limit")]),
    ("notify-1", "set and notify, 1 subscriber", [Ratio(2.5, "limit"), Faster(10, "Boost.Signals2")]),
    ("notify-8", "set and notify, 8 subscribers", [Ratio(1.5, "limit"), Faster(6, "Boost.Signals2")]),
    ("subscribe", "subscribe and unsubscribe", [NoAllocation(), Absolute(5)]),
    ("lookup-128", "keyed lookup, path key, 128 entries", [Ratio(1.1, *MAPS, name="best peer")]),
    ("lookup-1023", "keyed lookup, path key, 1023 entries", [Ratio(1.1, *MAPS, name="best peer")]),
    ("insert", "insert, an entry of 1023", [Ratio(1.1, *MAPS, name="best peer")]),
    ("churn", "remove one, insert another, of 1023", [Ratio(1.1, *MAPS, name="best peer")]),
    ("walk", "walk, an entry", [Absolute(4, " an entry")]),
    ("trace-off", "trace, level off", [Above(0.5, "limit")]),
    ("trace-stamped", "trace, handler entry with its stamp", [Ratio(1.1, "limit")]),
    ("trace-decision", "trace, a decision", [Absolute(2)]),
    ("read-104", "shared-memory read, 104 B", [Ratio(1.2, "limit")]),
    ("read-4096", "shared-memory read, 4 KB", [Ratio(1.1, "limit")]),
    ("contended-104", "the same, 104 B, a writer flat out", [Ratio(1.5, "limit")]),
    ("contended-4096", "the same, 4 KB, a writer flat out", [Ratio(1.5, "limit")]),
    ("write-104", "shared-memory write, 104 B", [Ratio(1.25, "limit")]),
    ("write-4096", "shared-memory write, 4 KB", [Ratio(1.25, "limit")]),
    ("changes-1023", "a change of 16 among 1023", [Absolute(3, " a change")]),
    ("changes-4092", "a change of 16 among 4092", [Absolute(3, " a change")]),
    ("pointer", "counted pointer copy", [Absolute(1)]),
    ("task", "task posted and run", [Ratio(3, "limit")]),
    ("timer", "timer re-armed", [Absolute(5)]),
    ("show", "show answer of 128 paths", [Ratio(5, "limit"), Faster(100, "dprintf by field")]),
    ("event", "one event, end to end, with full trace",
     [Absolute(90), Faster(7, "Signals2, spdlog, LMDB")]),
    ("event-untraced", "the same, untraced", [Absolute(60)]),
    ("interface", "a WAN interface fails: 32 of 128 paths, 1023 keys", [Absolute(150_000)]),
    ("container", "container switched on at full size", []),
    ("start", "start at full size, configuration read to all published", [Absolute(5_000_000)]),
    ("kernel", "a route change with 128 tracked next hops, kernel to published",
     [Absolute(200_000), Faster(50, "FRR zebra")]),
]


class Row:
    def __init__(self, key):
        self.key, self.times, self.allocations = key, {}, 0

    def add(self, side, result):
        wall = "manual_time" in result["name"] or "real_time" in result["name"]
        time = result["real_time" if wall else "cpu_time"]
        assert result["time_unit"] == "ns"
        self.times.setdefault(side, []).append(time / result.get("units", 1))
        if side == "ours":
            self.allocations = result.get("allocations", 0)

    def median(self, side):
        return statistics.median(self.times[side])

    def ratio(self, side, other):
        if side not in self.times or other not in self.times:
            return None
        pairs = zip(self.times[side], self.times[other])
        return statistics.median(a / b for a, b in pairs)

    def tolerance(self):
        return 1.25 if self.median("ours") < 20 else 1.1


def run(folder, rounds, only):
    rows, left_out, shortest = {}, {}, "0.01" if rounds < 5 else "0.02"
    for number in range(rounds):
        print(f"round {number + 1} of {rounds}", file=sys.stderr, flush=True)
        for program in PROGRAMS:
            command = [os.path.join(folder, "bench", "bench_" + program), "--benchmark_format=json",
                       "--benchmark_min_time=" + shortest]
            if only:
                command.append(f"--benchmark_filter=^{only}/")
            if program == "trace":
                command.insert(0, RECORDED)
            out = subprocess.run(command, check=True, capture_output=True, text=True).stdout
            if not out:
                continue
            for result in json.loads(out)["benchmarks"]:
                key, side = result["name"].split("/")[:2]
                if not result.get("error_occurred"):
                    rows.setdefault(key, Row(key)).add(side, result)
                elif result["error_message"].startswith("omitted: "):
                    left_out[f"{key}/{side}"] = result["error_message"].removeprefix("omitted: ")
                else:
                    sys.exit(f"{result['name']}: {result['error_message']}")
    return rows, left_out


def table(rows):
    lines = ["| row | ours | limit | peers | aim | measured | |", "| --- | --- | --- | --- | --- | --- | --- |"]
    report = []
    for key, title, aims in ROWS:
        row = rows.get(key)
        if not row:
            continue
        peers = [f"{side} {nanoseconds(row.median(side))}"
                 for side in row.times if side not in ("ours", "limit")]
        measured, verdicts = [], []
        for aim in aims:
            result = aim.measure(row)
            measured.append(result[0] if result else "not measured")
            verdicts.append("—" if not result
                            else "passes" if result[1] <= row.tolerance() else "**misses**")
        limit = nanoseconds(row.median("limit")) if "limit" in row.times else ""
        lines.append("| " + " | ".join([
            title, nanoseconds(row.median("ours")), limit, ", ".join(peers),
            "; ".join(aim.text() for aim in aims), "; ".join(measured), "; ".join(verdicts)]) + " |")
        report.append({"row": key, "title": title,
                       "medians_ns": {side: row.median(side) for side in row.times},
                       "ratios_of_ours": {side: row.ratio("ours", side)
                                          for side in row.times if side != "ours"},
                       "aims": [aim.text() for aim in aims], "measured": measured,
                       "verdicts": [v.strip("*") for v in verdicts]})
    return lines, report


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        model = re.search(r"model name\s*: (.*)", info.read())
    with open("/etc/os-release", encoding="utf-8") as info:
        system = re.search(r'PRETTY_NAME="(.*)"', info.read())
    compiler = subprocess.run(["c++", "--version"], capture_output=True, text=True, check=True)
    return {"cpu": model.group(1) if model else platform.machine(), "cores": os.cpu_count(),
            "system": system.group(1) if system else platform.system(),
            "kernel": platform.release(), "compiler": compiler.stdout.splitlines()[0],
            "load_before": os.getloadavg()[0]}


def versions(rows):
    """The peers' package versions, and the sides that did not take part."""
    present = {side for row in rows.values() for side in row.times}
    found, missing = {}, {}
    for side, packages in PEERS.items():
        for package in packages.split():
            if side not in present:
                missing[side] = packages
                continue
            shown = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package],
                                   capture_output=True, text=True, check=False).stdout
            found[package] = shown or "not from a package"
    return found, missing


def write_page(path, section, lines):
    """Replaces what is between the section's markers in a page."""
    with open(path, encoding="utf-8") as page:
        text = page.read()
    begin, end = f"<!-- {section}: begin -->\n", f"<!-- {section}: end -->"
    head, rest = text.split(begin)
    tail = rest.split(end)[1]
    with open(path, "w", encoding="utf-8") as page:
        page.write(head + begin + "\n".join(lines) + "\n" + end + tail)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder")
    parser.add_argument("--rounds", type=int, default=15)
    parser.add_argument("--page")
    parser.add_argument("--only", help="one row, by its key")
    arguments = parser.parse_args()

    about = machine()
    rows, left_out = run(arguments.folder, arguments.rounds, arguments.only)
    lines, report = table(rows)
    packages, missing = versions(rows)
    lines = [f"{about['cores']} cores of {about['cpu']}; {about['system']}; {about['compiler']}; "
             f"{arguments.rounds} rounds; load before the run {about['load_before']:.1f}.", ""] + lines
    if missing and not arguments.only:
        lines += ["", "Not installed: " + ", ".join(f"{s} ({p})" for s, p in missing.items()) + "."]
    if left_out:
        lines += ["", *(f"Omitted, {side}: {reason}." for side, reason in left_out.items())]
    print("\n".join(lines))
    with open(os.path.join(arguments.folder, "bench.json"), "w", encoding="utf-8") as out:
        json.dump({"machine": about, "packages": packages, "missing": missing, "left_out": left_out,
                   "rows": report}, out, indent=2)
    if arguments.page:
        write_page(arguments.page, "bench", lines)


if __name__ == "__main__":
    main()
