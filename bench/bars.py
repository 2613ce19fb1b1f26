#!/usr/bin/python3
"""Draws the main rows of the benchmarks' tables as bars, bars-records.svg and bars-vectors.svg.

Usage: bars.py [--check] TABLES FOLDER
  TABLES    Markdown with the tables that tables.py prints, such as docs/performance.md
  FOLDER    where the pictures are written
  --check   draws nothing, but fails when a picture in FOLDER shows other figures than the tables
"""

import re
import sys


def bars(row, columns):
    """Returns {name of a bar: (row, column)} for {name: column}."""
    return {name: (row, column) for name, column in columns.items()}


def write_and_read(what, row):
    """Two panels, each a heading and its bars: the library between the floor and its peers."""
    peers = ("Cap'n Proto", "Protocol Buffers")
    return [(heading, bars(row, {"memcpy": "copy compact", "plain": f"plain {verb}", "library": operation}
                           | {peer: f"{peer} {verb}" for peer in peers}))
            for heading, verb, operation in ((f"Pack {what}", "write", "pack"), ("Decode it", "read", "decode"))]


SINGLE, VECTORS, ROUTE = "korBrokerFib6.ipv6Fwd", "100 vectors in turn", "fib6Sync.ipv6FwdUpdateMsg"

PICTURES = {
    "bars-records.svg": [
        *write_and_read("a record without zeros", f"{SINGLE}, 100000 in turn"),
        *write_and_read("a record that is half zero", f"{SINGLE}, half zero, 100000 in turn"),
        ("Pack and send one of a batch",
         bars(f"{ROUTE}, 100000 in turn", {"memcpy": "copy fixed", "plain": "plain write"})
         | bars(ROUTE, {"library, 1 a call": "sendsingle", "8 a call": "batch of 8", "256 a call": "batch of 256"})),
        ("Decode it", bars(f"{ROUTE}, 100000 in turn",
                           {"memcpy": "copy fixed", "plain": "plain read", "library": "fixed decode"})),
    ],
    "bars-vectors.svg": [
        *write_and_read("an element without zeros", f"1000 elements, 0 % zero, one shape, {VECTORS}"),
        *write_and_read("one half zero, one shape", f"1000 elements, 50 % zero, one shape, {VECTORS}"),
        *write_and_read("one half zero, random shapes", f"1000 elements, 50 % zero, random shapes, {VECTORS}"),
    ],
}

# On a card of their own, which is dark where the page is.
INK, CARD, DARK = "#1f2328", "#f6f8fa", {"#1f2328": "#e6edf3", "#f6f8fa": "#161b22"}
LIBRARY, FLOOR, PEER = "#1f77d0", "#8b949e", "#e08a3c"
COLOURS = {"memcpy": FLOOR, "plain": FLOOR, "Cap'n Proto": PEER, "Protocol Buffers": PEER}


def read_tables(name):
    """Returns {(row, column): figure as it stands there}."""
    figures = {}
    columns = []
    with open(name, encoding="utf-8") as file:
        for line in file:
            row, *cells = (cell.strip() for cell in line.strip().strip("|").split("|"))
            if not line.startswith("|"):
                columns = []
            elif columns:
                figures |= {(row, column): figure for column, figure in zip(columns, cells)}
            else:
                columns = cells
    return figures


def draw(panels, tables, name):
    import matplotlib  # only here: checking does without

    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "bars", "font.sans-serif": ["DejaVu Sans"],
                                "text.color": INK, "ytick.color": INK})
    from matplotlib import pyplot

    figure, grid = pyplot.subplots(len(panels) // 2, 2, sharex="row", figsize=(8.4, 4.4), facecolor=CARD)
    figure.subplots_adjust(left=0.145, right=0.94, top=0.93, bottom=0.01, wspace=0.58, hspace=0.32)
    for axes, (heading, places) in zip(grid.flat, panels):
        shown = [tables[place] for place in places.values()]
        drawn = axes.barh(list(places), [float(figure) for figure in shown], height=0.72, clip_on=False,
                          color=[COLOURS.get(bar, LIBRARY) for bar in places])
        axes.bar_label(drawn, shown, padding=4, fontsize=9)
        axes.set_title(f"{heading}, ns", loc="left", fontsize=10, fontweight="bold")
        axes.set_ylim(4.6, -0.6)  # as high with fewer bars
        axes.tick_params(length=0, labelsize=9)
        axes.get_xaxis().set_visible(False)
        axes.set_frame_on(False)
    figure.savefig(name, metadata={key: None for key in ("Date", "Creator", "Format", "Type")})

    dark = "".join(f'[style*="{light}"] {{fill: {colour} !important}} ' for light, colour in DARK.items())
    with open(name, "r+", encoding="utf-8") as file:
        text = file.read().replace("</style>", f"\n   @media (prefers-color-scheme: dark) {{{dark}}}</style>", 1)
        text = re.sub(r' transform="rotate\(-0 [^"]*"', "", text)
        text = re.sub(r"\d+\.\d\d+", lambda number: f"{float(number[0]):.1f}", text)
        file.seek(0)
        file.truncate()
        file.write(re.sub(r"\s*\n(?=[Lz])", " ", text).replace('z\n"', 'z"'))


def main():
    arguments = sys.argv[1:]
    if arguments and arguments[0] in ("-h", "--help"):
        print(__doc__)
        return
    check = arguments[:1] == ["--check"]
    if len(arguments) != 2 + check:
        sys.exit(__doc__)
    tables = read_tables(arguments[-2])
    for name, panels in PICTURES.items():
        path = f"{arguments[-1]}/{name}"
        if not check:
            draw(panels, tables, path)
            continue
        with open(path, encoding="utf-8") as file:
            shown = re.findall(r">(\d+\.\d)</text>", file.read())
        if shown != [tables[place] for _, places in panels for place in places.values()]:
            sys.exit(f"{path} shows other figures than {arguments[-2]}: run bench/bars.py")


if __name__ == "__main__":
    main()
