#!/usr/bin/env python3
"""Mutation tests: plants the small faults of a list one at a time in a copy of the project, builds and runs the tests
of the release preset for the fault's folder, and prints which faults survive. Fails when one survives that the
list gives no reason for, when one with a reason is caught after all, when one does not build, and when the text of one
does not stand exactly once in its file.

Usage: scripts/mutate.py [--only WORD] [--jobs N] [--resume] [--check]
  --only WORD  only the faults whose file, text or replacement contains the word
  --jobs N     so many faults at a time, each in a copy of its own (default: 2)
  --resume     keep what a former run found, as long as project and fault are the same
  --check      only check that the text of every fault stands exactly once in its file

The list, tests/mutation/faults, says how a fault is written down. Run scripts/test.sh first: it installs what is needed.
With ccache, a run after the first compiles little.
"""

import argparse
import asyncio
import contextlib
import dataclasses
import hashlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

PROJECT = pathlib.Path(__file__).resolve().parent.parent
LIST = pathlib.Path("tests/mutation/faults")
WORK = PROJECT / "build/mutation"


class Failure(Exception):
    """One line for the user."""


@dataclasses.dataclass(frozen=True)
class Room:
    """Folders or files, what is built to judge them, and the tests that do: only those that judge alike every time. The
    first room that a file is in counts."""
    folders: tuple
    targets: tuple
    tests: str


COMMANDS = ("quopa", "make_capture", "telling_bus")
READERS = COMMANDS + ("fuzz_quopa_text", "fuzz_quopa_capture", "campaign")
ROOMS = (
    Room(("runtime/", "bus/", "packages/", "include/"),
         ("drix_fib6", "drix_fib6_by_each", "drix_fib6_by_shuffles", "test_codec", "test_send", "test_binding", "campaign",
          "fuzz_round_trip"),
         r"Codec|Images|Send|Binding|campaign\.(each_|shuffles_)?sample|codec\.by|fuzz\.(seeds|by|replay_round_trip)|"
         r"abi\.shared"),
    Room(("trace/",), ("quopa_trace", "traced", "walk_trace"),
         r"trace\.(calls|loaded|ring|children|process)"),
    Room(("capture/",), READERS + ("test_capture",), r"Capture|quopa\.(calls|captures)|fuzz\.replay_quopa"),
    Room(("inspect/", "describe/"), READERS + ("test_inspect", "foreign", "tables", "fuzz_round_trip"),
         r"Catalog|Compatibility|Json|Labels|Printable|Walk|inspect\.|campaign\.sample|"
         r"quopa\.(commands|calls|captures|tables)|"
         r"fuzz\.replay_(quopa|round_trip)"),
    Room(("tools/quopa/selection.cpp",) + tuple(f"tools/quopa/commands/{name}.cpp" for name in (
        "trace", "stats", "compare", "replay")), COMMANDS, r"quopa\.(calls|captures)"),
    Room(tuple(f"tools/quopa/{name}.cpp" for name in (
        "arrivals", "entry", "tellings", "commands/table", "commands/history", "commands/diff")),
         COMMANDS + ("tables",), r"quopa\.(calls|tables)"),
    Room(("tools/quopa/",), READERS + ("foreign",),
         r"inspect\.foreign|quopa\.(commands|calls|captures|dissector)|fuzz\.replay_quopa"),
    Room(("platform/nats/",), ("test_platform",), r"BusCluster"),
    Room(("platform/",), ("test_platform", "bus_kills"), r"Bus|Services|bus\.kills$"),
)


@dataclasses.dataclass
class Fault:
    """A line group of the list."""
    file: str
    text: str = ""
    replacement: str = ""
    expected: str = "caught"
    reason: str = ""

    def __str__(self):
        def one_line(text):
            return " ".join(text.split("\n")).strip()[:100]
        return f"{self.file}: {one_line(self.text)} -> {one_line(self.replacement)}"

    @property
    def key(self):
        return hashlib.sha1("\n".join((self.file, self.text, self.replacement)).encode()).hexdigest()[:16]

    @property
    def room(self):
        return next((room for room in ROOMS if self.file.startswith(room.folders)), None)

    def planted(self, content):
        if not self.text or content.count(self.text) != 1:
            raise Failure(f"not exactly once in {self.file}: {self.text}")
        return content.replace(self.text, self.replacement)


def read_list():
    faults, fault = [], None
    for number, line in enumerate(LIST.read_text(encoding="utf-8").split("\n"), 1):
        mark, rest = line[:2], line[2:]
        if line.startswith("#"):
            continue
        if not line:
            fault = None
        elif mark not in ("- ", "+ ", "? "):
            fault = Fault(line)
            faults.append(fault)
            if not os.path.isfile(line) or fault.room is None:
                raise Failure(f"{LIST}:{number}: no such file, or none that tests are known for: {line}")
        elif fault is None:
            raise Failure(f"{LIST}:{number}: no file before this line")
        elif mark == "- ":
            fault.text += ("\n" if fault.text else "") + rest
        elif mark == "+ ":
            fault.replacement += ("\n" if fault.replacement else "") + rest
        else:
            fault.expected, _, fault.reason = rest.partition(": ")
            if fault.expected not in ("survives", "refused"):
                raise Failure(f"{LIST}:{number}: {fault.expected}?")
    return faults


def project_files():
    """What git knows or would add."""
    git = ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", "--deduplicate"]
    names = subprocess.run(git, check=True, capture_output=True, text=True).stdout
    return [name for name in names.split("\0") if os.path.isfile(name)]


class Results:
    """What became of which fault, kept in a file from the moment it is known."""

    def __init__(self, resume):
        project = hashlib.sha1()
        for name in project_files():
            if name != str(LIST):
                project.update(name.encode() + b"\0" + pathlib.Path(name).read_bytes())
        self.path = WORK / "results"
        lines = self.path.read_text(encoding="utf-8").split("\n") if resume and self.path.exists() else []
        if lines[:1] != [project.hexdigest()]:
            lines = [project.hexdigest(), ""]
            self.path.write_text("\n".join(lines), encoding="utf-8")
        self.found = dict(line.split() for line in lines[1:-1])

    def add(self, fault, result):
        self.found[fault.key] = result
        with open(self.path, "a", encoding="utf-8") as file:
            file.write(f"{fault.key} {result}\n")


class Copy:
    """A copy of the project to plant faults in, and its build folder."""

    def __init__(self, number, rooms):
        self.rooms = rooms
        self.folder = WORK / str(number)
        self.tree = self.folder / "tree"
        self.build_folder = self.tree / "build/release"
        self.log = self.folder / "log"
        self.tree.mkdir(parents=True, exist_ok=True)
        self.write_tree()

    async def run(self, *command):
        # Compiled alike wherever it stands, so that all share what a compiler cache has.
        environment = os.environ | {"CCACHE_BASEDIR": str(self.tree)}
        with open(self.log, "w", encoding="utf-8") as log:
            process = await asyncio.create_subprocess_exec(*command, cwd=self.tree, env=environment, stdout=log,
                                                           stderr=log, start_new_session=True)
            try:
                return await process.wait() == 0
            except asyncio.CancelledError:
                process.terminate()  # which ninja hands on to its compilers
                await process.wait()
                raise
            finally:  # also what a test leaves behind
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(process.pid, signal.SIGKILL)

    async def build(self, rooms, jobs=1):
        targets = dict.fromkeys(target for room in rooms for target in room.targets)
        return await self.run("ninja", "-C", self.build_folder, "-j", str(jobs), *targets)

    async def passes(self, rooms):
        tests = "^(" + "|".join(room.tests for room in rooms) + ")"
        return await self.run("ctest", "--test-dir", self.build_folder, "-R", tests, "--stop-on-failure",
                              "--no-tests=error", "--timeout", "60", "--output-on-failure")

    def write_tree(self):
        """Makes the copy like the project; what differs gets a new time and so is built again."""
        files = set(project_files())
        for name in files:
            copy = self.tree / name
            if not copy.exists() or copy.read_bytes() != pathlib.Path(name).read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(name, copy)
        for top in self.tree.iterdir():
            for path in [] if top.name == "build" else [top, *top.rglob("*")]:
                if not path.is_dir() and str(path.relative_to(self.tree)) not in files:
                    path.unlink()

    async def prepare(self, jobs):
        options = ["-DDRIX_BUILD_EXAMPLES=OFF", "-DDRIX_WARNINGS_AS_ERRORS=OFF", "-DDRIX_JOIN_SOURCES=OFF", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]
        if shutil.which("ccache"):
            options += [f"-DCMAKE_{language}_COMPILER_LAUNCHER=ccache" for language in ("C", "CXX")]
        if not await self.run("cmake", "--preset", "release", *options):
            raise Failure(f"does not configure, see {self.log}")
        if not await self.build(self.rooms, jobs):
            raise Failure(f"does not build, see {self.log}")
        if not await self.passes(self.rooms):
            raise Failure(f"the tests fail without a fault, see {self.log}")

    async def judge(self, fault):
        """Returns what becomes of a fault."""
        file = self.tree / fault.file
        content = file.read_text(encoding="utf-8")
        file.write_text(fault.planted(content), encoding="utf-8")
        try:
            if not await self.build([fault.room]):
                # A crash while tests are listed is a test that fails.
                refused = re.search("error:|undefined reference", self.log.read_text(errors="replace"))
                return "refused" if refused else "caught"
            return "survives" if await self.passes([fault.room]) else "caught"
        finally:
            file.write_text(content, encoding="utf-8")


async def judge_all(faults, jobs, results):
    rooms = list(dict.fromkeys(fault.room for fault in faults))
    left = iter([(number, fault) for number, fault in enumerate(faults, 1) if fault.key not in results.found])
    preparing = asyncio.Lock()  # one copy after the other, so that a compiler cache has it for the second

    async def work_off(copy):
        async with preparing:
            await copy.prepare(jobs)
        for number, fault in left:
            start = time.monotonic()
            result = await copy.judge(fault)
            results.add(fault, result)
            print(f"{number:3}/{len(faults)} {time.monotonic() - start:4.0f} s  {result:8} {fault}", flush=True)

    copies = [Copy(job, rooms) for job in range(jobs)]
    await asyncio.gather(*map(work_off, copies))


class Options(argparse.ArgumentParser):
    """Help and errors as all scripts have them."""

    def format_help(self):
        return __doc__

    def error(self, message):
        print(f"mutate.py: {message} (see mutate.py --help)", file=sys.stderr)
        sys.exit(2)


def main():
    options = Options(allow_abbrev=False)
    options.add_argument("--only", default="")
    options.add_argument("--jobs", type=int, choices=range(1, 65), metavar="N", default=2)
    options.add_argument("--resume", action="store_true")
    options.add_argument("--check", action="store_true")
    options = options.parse_args()

    start = time.monotonic()
    faults = [fault for fault in read_list()
              if any(options.only in part for part in (fault.file, fault.text, fault.replacement))]
    for fault in faults:
        fault.planted(pathlib.Path(fault.file).read_text(encoding="utf-8"))
    if not faults:
        raise Failure(f"no fault contains {options.only}")
    print(f"mutate.py: {len(faults)} faults", flush=True)
    if options.check:
        return

    WORK.mkdir(parents=True, exist_ok=True)
    results = Results(options.resume)
    asyncio.run(judge_all(faults, options.jobs, results))
    survivors = wrong = 0
    for fault in faults:
        result = results.found[fault.key]
        survivors += result == "survives"
        if result != fault.expected:
            wrong += 1
            print(f"mutate.py: {result}, not {fault.expected}: {fault.file}: {fault.text} -> {fault.replacement}")
        elif result == "survives":
            print(f"survives: {fault}: {fault.reason}")
    print(f"mutate.py: {len(faults)} faults, {survivors} survive, {wrong} not as the list says, "
          f"in {time.monotonic() - start:.0f} s")
    sys.exit(wrong != 0)


if __name__ == "__main__":
    os.chdir(PROJECT)
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    try:
        main()
    except Failure as failure:
        sys.exit(f"mutate.py: {failure}")
