#!/usr/bin/env python3
"""Prints the speed table from the JSON files of one benchmark run.

Every figure is the median of its repetitions and is set beside an anchor
measured in the same run, so that a busy machine moves both alike. The table
reports whether each goal is met; it never fails the run over a time. It fails
only when a benchmark did not run, so that a smoke pass proves they all still
work.

    table.py <result.json>...
"""
import json
import statistics
import sys

US = 1e-6
MS = 1e-3

# Figures that wait on a disk or on another process are read in wall-clock
# time; everything else in CPU time, which a busy machine disturbs less.
WALL_CLOCK = ("load/", "xerces_init/", "change/", "write_fsync_rename/", "register_200/",
              "write_fsync_rename_installed/", "first_activation/", "floor/")

# Counters that stand as figures of their own: <counter>/<size>, read from the
# runs of <figure>/<size>.
COUNTERS = {"first_activation": "rss_added"}

MIB = 1 << 20


def base_name(run_name):
    """The name without the library's suffixes: load/10/iterations:20/manual_time
    is load/10."""
    parts = run_name.split("/")
    return "/".join(part for part in parts if ":" not in part and not part.endswith("_time"))


def read_runs(paths):
    """Seconds per iteration of every benchmark, one entry per repetition."""
    runs, errors = {}, []
    for path in paths:
        with open(path, encoding="utf-8") as handle:
            document = json.load(handle)
        for run in document.get("benchmarks", []):
            if run.get("run_type") == "aggregate":
                continue
            name = base_name(run["run_name"])
            if run.get("error_occurred"):
                errors.append(f"{name}: {run.get('error_message', 'failed')}")
                continue
            field = "real_time" if name.startswith(WALL_CLOCK) else "cpu_time"
            scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[run["time_unit"]]
            runs.setdefault(name, []).append(run[field] * scale)
            figure, _, size = name.partition("/")
            counter = COUNTERS.get(figure)
            if counter in run:
                runs.setdefault(f"{counter}/{size}", []).append(run[counter])
    return {name: statistics.median(values) for name, values in runs.items()}, errors


def show_time(seconds):
    if seconds is None:
        return "—"
    for unit, size in (("s", 1.0), ("ms", MS), ("µs", US)):
        if seconds >= size:
            return f"{seconds / size:.3g} {unit}"
    return f"{seconds * 1e9:.3g} ns"


def show_bytes(count):
    for unit, size in (("MiB", MIB), ("KiB", 1 << 10)):
        if abs(count) >= size:
            return f"{count / size:.3g} {unit}"
    return f"{count:.0f} B"


class Row:
    """One figure beside its anchor. A goal is a ratio to the anchor, an
    absolute time, or both; a row without a goal is there for reference."""

    def __init__(self, figure, anchor, ratio_goal=None, time_goal=None):
        self.figure, self.anchor = figure, anchor
        self.ratio_goal, self.time_goal = ratio_goal, time_goal

    def goal_text(self):
        parts = []
        if self.time_goal is not None:
            parts.append("≤ " + show_time(self.time_goal))
        if self.ratio_goal is not None:
            parts.append(f"≤ {self.ratio_goal:g}×")
        return " and ".join(parts) or "—"

    def cells(self, figures):
        value, anchor = figures.get(self.figure), figures.get(self.anchor)
        if value is None:
            return None
        ratio = value / anchor if anchor else None
        checks = []
        if self.ratio_goal is not None:
            checks.append(ratio is not None and ratio <= self.ratio_goal)
        if self.time_goal is not None:
            checks.append(value <= self.time_goal)
        met = ("yes" if all(checks) else "no") if checks else "—"
        return [self.figure, show_time(value), self.anchor or "—", show_time(anchor),
                f"{ratio:.2f}×" if ratio is not None else "—", self.goal_text(), met]


class MemoryRow:
    """Resident memory a figure adds, against a limit; it has no anchor of its
    own, since it is already a difference to one."""

    def __init__(self, figure, limit):
        self.figure, self.limit = figure, limit

    def cells(self, figures):
        value = figures.get(self.figure)
        if value is None:
            return None
        return [self.figure, show_bytes(value), "—", "—", "—", "≤ " + show_bytes(self.limit),
                "yes" if value <= self.limit else "no"]


def rows():
    table = [
        Row("sysstring_alloc_free/8", "malloc_memcpy_free/8", ratio_goal=1.2),
        Row("sysstring_alloc_free/64", "malloc_memcpy_free/64", ratio_goal=1.2),
        Row("sysstring_alloc_free/1024", "malloc_memcpy_free/1024"),
        Row("arena_alloc", "bump_behind_memory_object", ratio_goal=1.2),
        Row("arena_reuse_alloc_free", "arena_alloc", ratio_goal=1.5),
        # The same pair of calls where Free does nothing: what the calls
        # themselves cost.
        Row("arena_reuse_alloc_free", "arena_alloc_free"),
        Row("arena_alloc", "bare_bump"),
    ]
    table += [Row("arena_alloc", f"{allocator}_malloc_free/8") for allocator in ("glibc", "mimalloc", "jemalloc")]
    for size in (10, 1000, 10000):
        large = size == 10000
        # Flat: every size and place within half as much again of ten
        # classes with the target first.
        for place in ("first", "last"):
            table.append(Row(f"activate_{place}/{size}", "activate_first/10", ratio_goal=1.5,
                             time_goal=2 * US if large else None))
        for place in ("first", "last"):
            table.append(Row(f"progid_{place}/{size}", "progid_first/10", time_goal=1 * US if large else None))
    # A figure is not its own anchor: the anchors of flatness stand in the
    # rows of the larger registries.
    table = [row for row in table if row.figure != row.anchor]
    table.append(Row("activate_builtin/10", None))
    table.append(Row("load/10", "xerces_init/10", ratio_goal=1.1))
    table.append(Row("load/10", "bare_parse/10"))
    table.append(Row("load/1000", "bare_parse/1000"))
    table.append(Row("load/10000", "bare_parse/10000", time_goal=50 * MS))
    table.append(Row("change/1000", "write_fsync_rename/1000"))
    table.append(Row("change/10000", "write_fsync_rename/10000", ratio_goal=1.5))
    # An installation of 200 classes: into a registry of ten classes (all
    # but empty), and into a large one beside one careful write of its result.
    table.append(Row("register_200/10", "write_fsync_rename_installed/10", time_goal=50 * MS))
    table.append(Row("register_200/10000", "write_fsync_rename_installed/10000", ratio_goal=3))
    # A fresh process's first activation beside the same object loaded by
    # path, and the memory the registry adds to that process.
    for size in (10, 1000, 10000, 100000):
        table.append(Row(f"first_activation/{size}", f"floor/{size}", ratio_goal=2))
        table.append(MemoryRow(f"rss_added/{size}", MIB))
    return table


def main(paths):
    figures, errors = read_runs(paths)
    header = ["Figure", "Value", "Anchor", "Anchor value", "Ratio", "Goal", "Met"]
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    for row in rows():
        cells = row.cells(figures)
        if cells:
            lines.append("| " + " | ".join(cells) + " |")
    print("\n".join(lines))
    for error in errors:
        print("benchmark failed: " + error, file=sys.stderr)
    return 1 if errors or not figures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
