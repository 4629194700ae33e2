#!/usr/bin/env python3
"""Plants the faults of plant_faults.tsv and finds out which ones the tests catch.

  plant_faults.py run --out now.tsv [--build DIR] [--jobs 2] [--only 3,7-9] [--tests-from REVISION]
  plant_faults.py check                       which anchors are found, which are gone
  plant_faults.py compare before.tsv now.tsv  faults that were caught and escape now; status 1 if any

`run` copies the tree to DIR/tree and plants all faults at once. Each is a branch that the
environment variable LUMORA_FAULT selects by number, so that one build serves for all of them. Each
test runs alone without a fault, which also shows whose places it reaches. Then the tests of its
room that reach a fault run with it, until one catches it: a failed test, a crash or a hang.
Tests that fail without a fault are reported and left out. --tests-from takes tests/ and fuzz/ from
another revision, which shows what its tests find in today's sources.

The list has a row for each fault: number, file, anchor, replacement, reason; TESTS has the tests.
The anchor is a piece of code with the part to replace between « and ». It is found by its words:
spaces, comments and a `ka::` more or less do not matter, nor does the file when only one has it. A
part that ends in a semicolon is a statement, any other part is an expression. A fault whose anchor
is found no longer is "gone", one that does not compile "unbuildable". Most rows were made by
fault_candidates.py, those up to 99 by hand.
"""
import argparse
import bisect
import collections
import concurrent.futures
import io
import os
import pathlib
import re
import resource
import signal
import subprocess
import sys
import tarfile
import tempfile
import time

from fault_list import MARKS, ROOT, Place, all_sources, locate, numbers_of, read_list, render

# Whose tests should catch the faults of a room: programs <name>_test and <name>_*_test; `replay` is
# that of the fuzz targets' seeds.
TESTS = {"lib": ["lib", "msg", "mem", "db", "tools", "replay"], "msg": ["msg", "db", "lib", "mem"],
         "mem": ["mem", "msg", "db", "lib"], "db": ["db"], "img": ["img", "replay", "docs", "peers"],
         "tools": ["tools", "docs"], "include": ["img", "lib"]}
HEADER = "lumora_planted_fault.h"
# Set before anything else that a file initialises; inline variables are one for the whole program.
# Places of faults that are reached leave marks in a file where LUMORA_MARKS names one.
SWITCH = """#pragma once
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>
inline int lumora_planted_fault = 0;
inline unsigned char lumora_no_marks[%d];
inline unsigned char* lumora_marks = lumora_no_marks;
static const bool lumora_reads_fault = [] {
  if (const char* const text = getenv("LUMORA_FAULT")) lumora_planted_fault = atoi(text);
  const char* const name = getenv("LUMORA_MARKS");
  if (!name || lumora_marks != lumora_no_marks) return true;
  const int file = open(name, O_RDWR | O_CLOEXEC);
  const int access = PROT_READ | PROT_WRITE;
  void* const marks = mmap(nullptr, sizeof lumora_no_marks, access, MAP_SHARED, file, 0);
  if (marks != MAP_FAILED) lumora_marks = static_cast<unsigned char*>(marks);
  if (file >= 0) close(file);
  return true;
}();
#define LUMORA_FAULT(number) (lumora_marks[number] = 1, lumora_planted_fault == number)
""" % MARKS
MEMORY = 16 << 30  # bytes that a test program may map
DISK = 20 << 30    # bytes that a file may have

Result = collections.namedtuple("Result", "number file status program test seconds reason")

# --- Planting --------------------------------------------------------------------------------------

def put(path, content):
    """Writes a file unless it is so already: what has not changed is not built again."""
    if not path.is_file() or path.read_bytes() != content:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)


class Planter:
    """Writes the sources of the rooms with the faults planted, and drops those that do not compile."""

    def __init__(self, tree, sources, places):
        self.tree, self.sources, self.places = tree, sources, places

    def write(self):
        put(self.tree / HEADER, SWITCH.encode())
        for name in self.sources:
            self.write_file(name)

    def write_file(self, name):
        text = self.sources[name].text
        places = [place for place in self.places if place.file == name]
        include = f'#include "{self.tree / HEADER}"\n' if places else ""
        if places and name.startswith("include/"):  # for programs in C as well
            include = f"#ifdef __cplusplus\n{include}#endif\n"
        include += "#line 1\n" if places else ""
        put(self.tree / name, (include + render(text, places, 0, len(text))).encode())

    def drop(self, name, lines):
        """Drops the faults on lines that do not compile; returns their numbers."""
        text = self.sources[name].text
        starts = [0] + [match.end() for match in re.finditer("\n", text)]
        lost = []
        for place in self.places:
            first, last = bisect.bisect(starts, place.start), bisect.bisect(starts, place.end)
            if place.file == name and any(first <= line <= last for line in lines):
                lost.append(place)
        self.places = [place for place in self.places if place not in lost]
        return [place.fault.number for place in lost]


def copy_tree(tree, sources, tests_from):
    """Copies all but the sources that the planter writes, and removes what is there no longer."""
    def git(*arguments):
        return subprocess.run(["git", *arguments], cwd=ROOT, check=True, capture_output=True).stdout

    names = git("ls-files", "-co", "--exclude-standard").decode().splitlines()
    kept = {name for name in names if (ROOT / name).is_file()}
    contents = {name: (ROOT / name).read_bytes() for name in kept - sources.keys()}
    mode = {name for name in kept if os.access(ROOT / name, os.X_OK)}
    if tests_from:
        contents = {name: content for name, content in contents.items()
                    if not name.startswith(("tests/", "fuzz/"))}
        with tarfile.open(fileobj=io.BytesIO(git("archive", tests_from, "tests", "fuzz"))) as archive:
            for member in archive.getmembers():
                if member.isfile():
                    contents[member.name] = archive.extractfile(member).read()
                    mode |= {member.name} if member.mode & 0o100 else set()
    for path in list(tree.rglob("*")) if tree.exists() else []:
        name = str(path.relative_to(tree))
        if path.is_file() and name not in contents and name not in sources and name != HEADER:
            path.unlink()
    for name, content in contents.items():
        put(tree / name, content)
        if name in mode:
            (tree / name).chmod(0o755)


ERROR = re.compile(r"^(\S+?):(\d+):\d+: (?:(?:fatal )?error:|note: in expansion of macro)", re.M)


def build(planter, folder, options):
    """Builds; faults that do not compile are dropped. Returns their numbers."""
    flags = "-O1 -DNDEBUG -w"  # those of Release are the project's own
    subprocess.run(["cmake", "-G", "Ninja", "-S", planter.tree, "-B", folder,
                    "-DCMAKE_BUILD_TYPE=RelWithDebInfo", f"-DCMAKE_CXX_FLAGS_RELWITHDEBINFO={flags}",
                    "-DLUMORA_WERROR=OFF", "-DLUMORA_BENCH=OFF", "-DLUMORA_INSTALL=OFF",
                    *options.cmake], check=True, stdout=subprocess.DEVNULL)
    lost = []
    for _ in range(8):
        run = subprocess.run(["cmake", "--build", folder, f"-j{options.jobs}", "--", "-k", "0"],
                             capture_output=True, text=True)
        if run.returncode == 0:
            return lost
        wrong = collections.defaultdict(set)
        for file, line in ERROR.findall(run.stdout + run.stderr):
            path = pathlib.Path(os.path.normpath(folder / file))
            name = os.path.relpath(path, planter.tree)
            if name in planter.sources:
                wrong[name].add(int(line))
        dropped = []
        for name, lines in wrong.items():
            dropped += planter.drop(name, lines)
            planter.write_file(name)
        if not dropped:
            sys.exit(run.stdout[-4000:] + run.stderr[-4000:])
        print("do not compile:", *dropped, flush=True)
        lost += dropped
    sys.exit("no build without errors")


# --- Running ---------------------------------------------------------------------------------------

class Tests:
    """The tests of all programs, and which of them reach the place of which fault."""

    def __init__(self, tree, programs, rooms):
        self.tree, self.programs = tree, programs
        self.of = {room: self.list(room) for room in rooms}  # (program, test or None)
        self.reached = {}                                    # numbers of faults

    def list(self, room):
        if room == "replay":  # of the seeds of the fuzz targets
            return [(program, None) for program in sorted(self.programs.glob("fuzz_replay_*"))]
        result = []
        programs = [*self.programs.glob(f"{room}_test"), *self.programs.glob(f"{room}_*_test")]
        for program in sorted(programs):
            text = subprocess.run([program, "--gtest_list_tests"], check=True, stdout=subprocess.PIPE,
                                  text=True).stdout
            suite = ""
            for line in text.splitlines():
                name = line.split("#")[0].strip()
                if not line.startswith(" "):
                    suite = name
                elif not re.search(r"(^|[./])DISABLED_", suite + name):
                    result.append((program, suite + name))
        if not result:
            sys.exit(f"no test programs of {room}")
        return result

    def command(self, program, tests):
        if tests == [None]:
            corpus = self.tree / "fuzz/corpus"
            own = corpus / program.name.removeprefix("fuzz_replay_")
            return [program, *([own] if own.is_dir() else filter(pathlib.Path.is_dir, corpus.iterdir()))]
        return [program, "--gtest_fail_fast", "--gtest_filter=" + ":".join(tests)]

    def try_one(self, test, seconds):
        with tempfile.NamedTemporaryFile() as marks:
            marks.truncate(MARKS)
            failure = run_program(self.command(test[0], [test[1]]), 0, seconds, LUMORA_MARKS=marks.name)
            self.reached[test] = {i for i, mark in enumerate(marks.read()) if mark}
        return failure

    def try_all(self, pool, seconds):
        """Runs all tests without a fault, each alone. Those that fail then are left out."""
        tests = sorted({test for tests in self.of.values() for test in tests}, key=str)
        for test, failure in zip(tests, pool.map(lambda test: self.try_one(test, seconds), tests)):
            if failure:
                print("fails without a fault:", test[0].name, failure, flush=True)
                self.reached[test] = set()
        return len(tests)

    def runs_for(self, fault):
        """The commands that run what reaches a fault, a program each."""
        runs = {}
        for room in TESTS[room_of(fault.file).split("/")[0]]:
            for program, test in self.of[room]:
                if fault.number in self.reached[program, test]:
                    runs.setdefault(program, []).append(test)
        return [self.command(program, tests) for program, tests in runs.items()]


def limit():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (DISK, DISK))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def run_program(command, number, seconds, **more):
    """Empty when it passes, else the test that failed and how."""
    with tempfile.TemporaryDirectory(prefix="fault_") as scratch, tempfile.TemporaryFile() as out:
        environment = dict(os.environ, LC_ALL="C", TMPDIR=scratch, TEST_TMPDIR=scratch,
                           LUMORA_FAULT=str(number), **more)
        process = subprocess.Popen(command, cwd=scratch, stdin=subprocess.DEVNULL, stdout=out,
                                   stderr=subprocess.STDOUT, env=environment, start_new_session=True,
                                   preexec_fn=limit)
        try:
            status = process.wait(seconds)
        except subprocess.TimeoutExpired:
            status = "hang"
        try:
            os.killpg(process.pid, signal.SIGKILL)  # and what it started
        except ProcessLookupError:
            pass
        process.wait()
        if status == 0:
            return ""
        size = out.seek(0, os.SEEK_END)
        out.seek(max(0, size - 200_000))
        text = out.read().decode(errors="replace")
    failed = re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", text, re.M)
    running = re.findall(r"^\[ RUN      \] (\S+)", text, re.M)
    if status != "hang" and failed:
        return failed[0]
    how = "hang" if status == "hang" else f"signal {-status}" if status < 0 else f"status {status}"
    return f"{running[-1] if running else '-'} ({how})"


def try_fault(fault, tests, seconds):
    begin = time.time()
    runs = tests.runs_for(fault)
    for command in runs:
        if test := run_program(command, fault.number, seconds):
            return "caught", command[0].name, test, time.time() - begin
    return "escaped", "-", "-" if runs else "not reached", time.time() - begin


def run(options):
    begin = time.time()
    folder = options.build.resolve()
    tree = folder / "tree"
    faults = read_list()
    sources = all_sources(ROOT)
    copy_tree(tree, sources, options.tests_from)
    found = {fault.number: locate(fault, sources) for fault in faults}
    planter = Planter(tree, sources, [place for place in found.values() if isinstance(place, Place)])
    planter.write()
    unbuildable = build(planter, folder / "out", options)
    print(f"built after {time.time() - begin:.0f} s", flush=True)
    tests = Tests(tree, folder / "out/bin", dict.fromkeys(sum(TESTS.values(), [])))
    planted = {place.fault.number for place in planter.places}
    if options.only:
        faults = [fault for fault in faults if fault.number in numbers_of(options.only)]
    results = []
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        count = tests.try_all(pool, options.timeout)
        print(f"{count} tests without a fault after {time.time() - begin:.0f} s", flush=True)
        tries = {fault.number: pool.submit(try_fault, fault, tests, options.timeout)
                 for fault in faults if fault.number in planted}
        for fault in faults:
            status, program, test, seconds = "gone", "-", "-", 0.0
            if fault.number in planted:
                status, program, test, seconds = tries[fault.number].result()
            elif fault.number in unbuildable:
                status = "unbuildable"
            results.append(Result(fault.number, fault.file, status, program, test, f"{seconds:.1f}",
                                  fault.reason))
            print(*results[-1][:5], flush=True)
            write_results(options.out, results)
    print(summary(results), f"\n{time.time() - begin:.0f} s")


def room_of(file):
    parts = file.split("/")
    return "/".join(parts[:-1])


def summary(results):
    table = collections.defaultdict(collections.Counter)
    for result in results:
        for room in (room_of(result.file), "all"):
            table[room][result.status] += 1
    kinds = ["caught", "escaped", "gone", "unbuildable"]
    lines = ["room\t" + "\t".join(kinds)]
    for room, counts in table.items():
        lines.append("\t".join([room, *(str(counts[kind]) for kind in kinds)]))
    return "\n".join(lines)


def write_results(path, results):
    rows = ["\t".join(map(str, result)) + "\n" for result in [Result._fields, *results]]
    path.write_text("".join(rows))


def read_results(path):
    rows = [Result(*line.split("\t")) for line in path.read_text().splitlines()[1:]]
    return {int(row.number): row for row in rows}


def compare(options):
    before, now = read_results(options.before), read_results(options.now)
    lost = 0
    for number, row in before.items():
        status = now[number].status if number in now else "missing"
        if row.status == "caught" and status != "caught":
            lost += status == "escaped"
            print(status, number, row.file, row.reason, f"was caught by {row.test}", sep="\t")
        if row.status == "escaped" and status == "caught":
            print("caught now", number, row.file, row.reason, sep="\t")
    print(f"{lost} faults were caught before and escape now")
    return 1 if lost else 0


def check(_):
    sources = all_sources(ROOT)
    places = []
    for fault in read_list():
        place = locate(fault, sources)
        if isinstance(place, Place):
            places.append(place)
        else:
            print(f"{fault.number}\t{fault.file}\t{place or 'gone'}\t{fault.anchor}")
    for name in {place.file for place in places}:
        text = sources[name].text
        render(text, [place for place in places if place.file == name], 0, len(text))
    print(len(places), "anchors are found")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(required=True)
    one = commands.add_parser("run")
    one.add_argument("--out", type=pathlib.Path, required=True)
    one.add_argument("--build", type=pathlib.Path, default=ROOT / "build/faults")
    one.add_argument("--jobs", type=int, default=2)
    one.add_argument("--only")
    one.add_argument("--tests-from")
    one.add_argument("--timeout", type=int, default=60, help="seconds of a test program")
    one.add_argument("--cmake", action="append", default=[], help="more arguments for cmake")
    one.set_defaults(action=run)
    one = commands.add_parser("check")
    one.set_defaults(action=check)
    one = commands.add_parser("compare")
    one.add_argument("before", type=pathlib.Path)
    one.add_argument("now", type=pathlib.Path)
    one.set_defaults(action=compare)
    options = parser.parse_args()
    sys.exit(options.action(options))


if __name__ == "__main__":
    main()
