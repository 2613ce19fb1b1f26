#!/usr/bin/env python3
"""Prints the results of the benchmarks as Markdown: tables of medians, then ratios against the aims.

Usage: tables.py NAME=FILE[,FILE]...   a build's name and what Google Benchmark wrote for it; the first one is shown

Cases are named table/row/column. A figure is the median of all repetitions in CPU time, in nanoseconds for a record, or
for an element of a vector; page faults are counted.
"""

import json
import re
import statistics
import sys

# Rows of so few records that a branch predictor learns them; no aim is set for these.
LEARNED = re.compile(r", 16 (vectors )?in turn$")

# The library's own operations, which builds are compared by.
OPERATIONS = ("fixed build", "fixed decode", "pack", "decode", "sendsingle", "sendbatch", "build", "batch of ")


def read_results(files):
    """Returns {table: {row: {column: nanoseconds}}} in the order in which the cases were registered."""
    repetitions = {}
    for file_number, name in enumerate(files):
        with open(name, encoding="utf-8") as file:
            for run in json.load(file)["benchmarks"]:
                if run["run_type"] == "iteration":
                    key = re.sub(r"/iterations:.*", "", run["run_name"])
                    entry = repetitions.setdefault(key, [(file_number, run["family_index"]), []])
                    entry[1].append(1e9 / run["items_per_second"])
    tables = {}
    for name, (_, figures) in sorted(repetitions.items(), key=lambda item: item[1][0]):
        table, row, column = name.split("/")
        tables.setdefault(table, {}).setdefault(row, {})[column] = statistics.median(figures)
    return tables


def print_table(heading, columns, rows):
    print(f"\n| {heading} | " + " | ".join(columns) + " |")
    print("|---|" + "--:|" * len(columns))
    for name, cells in rows:
        print(f"| {name} | " + " | ".join(cells) + " |")


def print_medians(tables):
    for table, rows in tables.items():
        if table == "fixed-length types":
            print_fixed(rows)
            continue
        groups = {}  # rows with the same columns share a table
        for row, figures in rows.items():
            groups.setdefault(tuple(figures), []).append((row, [f"{figure:.1f}" for figure in figures.values()]))
        for columns, lines in groups.items():
            print_table(table if table.startswith("page faults") else f"{table}, ns", columns, lines)


def ratios(rows, above, below):
    """The ratio of two columns in each row that has both, as pairs of ratio and row."""
    return [(figures[above] / figures[below], row) for row, figures in rows.items()
            if above in figures and below in figures]


def print_fixed(rows):
    def line(name, pairs):
        values = sorted(pairs)
        return name, [f"{values[0][0]:.2f}", f"{statistics.median(v for v, _ in values):.2f}", f"{values[-1][0]:.2f}",
                      values[-1][1], f"{sum(v for v, _ in values):.0f}" if " : " not in name else ""]

    lines = [line(column + ", ns", [(figures[column], row) for row, figures in rows.items()])
             for column in ("copy fixed", "fixed build", "fixed decode")]
    lines += [line(f"{column} : copy fixed", ratios(rows, column, "copy fixed"))
              for column in ("fixed build", "fixed decode")]
    print_table(f"all {len(rows)} types of fixed length", ("minimum", "median", "maximum", "the maximum's type", "sum"),
                lines)


def matching(rows, *words):
    return {row: figures for row, figures in rows.items() if all(word in row for word in words)}


def long(rows):
    return {row: figures for row, figures in rows.items() if int(row.split()[0]) >= 64}


def peer_ratios(rows, peer):
    return ratios(rows, peer + " write", "pack") + ratios(rows, peer + " read", "decode")


class Aims:
    """Collects figures beside what they should be."""

    def __init__(self):
        self.lines = []

    def add(self, aim, pairs, limit, at_least=False, middle=False):
        if not pairs:
            return
        if middle:
            worst, row = statistics.median(value for value, _ in pairs), ""
        else:
            worst, row = (min if at_least else max)(pairs)
        met = worst >= limit if at_least else worst <= limit
        sign = ">=" if at_least else "<="
        missed = sum((value < limit) if at_least else (value > limit) for value, _ in pairs)
        share = "" if middle else f"{len(pairs) - missed} of {len(pairs)}"
        self.lines.append((aim, [f"{sign} {limit}", f"{worst:.2f}", row, share, "met" if met else "**missed**"]))


def compare_builds(tables, other):
    """Ratios other : tables of the library's operations in every row."""
    pairs = []
    for table, rows in tables.items():
        for row, figures in rows.items():
            for column, figure in figures.items():
                if column.startswith(OPERATIONS) and column in other.get(table, {}).get(row, {}):
                    pairs.append((other[table][row][column] / figure, f"{row}, {column}"))
    return pairs


def print_aims(builds):
    tables = next(iter(builds.values()))
    aims = Aims()
    fixed = tables.get("fixed-length types", {})
    for column, limit in (("fixed build", 1.5), ("fixed decode", 2.0)):
        pairs = ratios(fixed, column, "copy fixed")
        aims.add(f"{column} : copy fixed, median of all types", pairs, limit, middle=True)
        aims.add(f"{column} : copy fixed, every type", pairs, 4.0)

    vectors = {row: figures for row, figures in tables.get("vectors", {}).items() if not LEARNED.search(row)}
    random_shapes = matching(vectors, "random shapes")
    shaped = {row: figures for row, figures in vectors.items() if row not in random_shapes}
    one_shape = {row: figures for row, figures in shaped.items() if "one shape" in row or "1 shared shape," in row}
    few_shapes = {row: figures for row, figures in shaped.items() if re.search(", (4|16) shared shapes,", row)}
    for operation, plain in (("decode", "plain read"), ("pack", "plain write")):
        what = f"{operation} : {plain}, vectors"
        aims.add(f"{what} of one shape, 16 elements", ratios(matching(one_shape, "16 elements"), operation, plain), 1.2)
        aims.add(f"{what} of one shape, from 64 elements on", ratios(long(one_shape), operation, plain), 1.0)
        aims.add(f"{what} of 4 and 16 shapes, from 64 elements on", ratios(long(few_shapes), operation, plain), 1.6)
    aims.add("decode : plain read, vectors of random shapes, from 64 elements on",
             ratios(long(random_shapes), "decode", "plain read"), 1.9)
    aims.add("pack : plain write, vectors of random shapes, from 64 elements on",
             ratios(long(random_shapes), "pack", "plain write"), 2.2)
    aims.add("sendbatch : pack, vectors from 64 elements on", ratios(long(vectors), "sendbatch", "pack"), 1.1)
    sends = tables.get("sends", {})
    owning = {row: figures for row, figures in sends.items() if "Msg, " in row or "bytes" in row}
    largest = {row: {"build": figures["build"], "batch": list(figures.values())[-1]} for row, figures in owning.items()}
    aims.add("sendbatch : pack, other types that own memory", ratios(largest, "batch", "build"), 1.1)

    singles = {row: figures for row, figures in tables.get("single records", {}).items() if not LEARNED.search(row)}
    aims.add("Cap'n Proto : library, single records", peer_ratios(singles, "Cap'n Proto"), 4.0, at_least=True)
    aims.add("Cap'n Proto : library, vectors of all but random shapes", peer_ratios(shaped, "Cap'n Proto"), 1.0,
             at_least=True)
    aims.add("Protocol Buffers : library, single records and vectors of random shapes",
             peer_ratios(singles | random_shapes, "Protocol Buffers"), 8.0, at_least=True)
    aims.add("Protocol Buffers : library, vectors of other shapes", peer_ratios(shaped, "Protocol Buffers"), 5.0,
             at_least=True)

    first = next(iter(builds))
    for name, other in builds.items():
        if name != first:
            aims.add(f"{name} : {first}, every operation", compare_builds(tables, other),
                     1.25 if name.startswith("clang") else 1.05)
    print_table("ratio", ("aim", "worst", "where", "rows that meet it", ""), aims.lines)


def print_builds(builds):
    """The same figures from different compilers, for the rows that show most."""
    lines = []
    first = next(iter(builds.values()))
    for table, rows in first.items():
        if table not in ("single records", "vectors"):
            continue
        for row, figures in rows.items():
            if LEARNED.search(row) or (table == "vectors" and not row.startswith("1000 ")):
                continue
            for column in figures:
                if column.startswith(OPERATIONS):
                    lines.append((f"{row}, {column}", [f"{build[table][row][column]:.1f}" for build in builds.values()]))
    if len(builds) > 1:
        print_table("ns", tuple(builds), lines)


def main():
    if len(sys.argv) < 2 or sys.argv[1] in ("-h", "--help"):
        print(__doc__)
        return
    builds = {}
    for argument in sys.argv[1:]:
        name, files = argument.split("=", 1)
        builds[name] = read_results(files.split(","))
    print_medians(next(iter(builds.values())))
    print_builds(builds)
    print_aims(builds)


if __name__ == "__main__":
    main()
