#!/usr/bin/env python3
"""Changes the engine in one place at a time and asks the tests whether they notice.

    scripts/mutate.py [--limit N] [--minutes M] [--seed N] [--jobs N] [--folders store,writer,manager] [--kinds ...]

All mutants of a source are compiled in at once, in a copy of the tree under build/mutants, and one
is woken for each run. A mutant is put to those tests alone that come by it, quickest first, up to
the first that fails, for a limited time. The coefficient tables are mutated in the compiler: their
static_asserts are what guards them. Mutants in scripts/mutation/equivalent.txt change nothing that
anybody could see and are counted apart. Ends with 1 when a coefficient or a state check survives, or
more than a tenth of the mutants of store, writer and manager do.
"""
import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import random
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "scripts" / "mutation"))
import mutants as mutation  # noqa: E402

WORK = ROOT / "build" / "mutants"
TREE = WORK / "tree"
BUILD = WORK / "build"
# The programs that test a folder; one whose name is not here is tested by those of its users too.
PROGRAMS = {
    "store": ["store/vorrel_store_tests", "store/vorrel_store_memory_tests", "pipeline/vorrel_pipeline_tests"],
    "writer": ["writer/vorrel_writer_tests"],
    "manager": ["manager/vorrel_manager_tests", "manager/vorrel_manager_memory_tests", "manager/vorrel_realtime_tests"],
    "pipeline": ["pipeline/vorrel_pipeline_tests", "pipeline/vorrel_pipeline_memory_tests", "manager/vorrel_manager_tests"],
    "device": ["device/vorrel_device_tests"],
}
# Of these folders only the sources with state checks.
ONLY = {
    "pipeline": ["RecThread.cpp", "ConvertThread.cpp", "ThreadBase.cpp"],
    "device": ["CoreAudioManager.cpp"],
}
COUNTED = ("store", "writer", "manager")  # the folders of which nine in ten are to be noticed
STATE_CHECKS = re.compile(r"(VorrelManager\w*|SaveThread|RecThread|ConvertThread|ThreadBase|TemporaryData|TemporaryFile"
                          r"|CoreAudioManager)\.cpp$")
TABLES = ["src/convert/GainTables.h", "src/convert/DsdTables.h"]
FLOAT = re.compile(r"-?\d+\.\d+(?:e-?\d+)?F?")


def write_if_changed(path, text):
    if not path.exists() or path.read_text() != text:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)


def copy_tree(mutated):
    """The sources as they are, but for those that carry mutants, without touching what has not changed."""
    for folder in ("CMakeLists.txt", "src", "include", "tests", "cmake", "packaging", "docs", "apps", "fuzz"):
        source = ROOT / folder
        for path in [source] if source.is_file() else source.rglob("*"):
            name = path.relative_to(ROOT)
            target = TREE / name
            if path.is_file() and str(name) not in mutated and \
                    not (target.exists() and target.read_bytes() == path.read_bytes()):
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(path, target)


def instrument(folders):
    instrumenter = mutation.Instrumenter()
    constants = mutation.constants_of(path.read_text() for path in (ROOT / "src").rglob("*") if path.suffix in (".h", ".cpp"))
    for folder in folders:
        for path in sorted((ROOT / "src" / folder).glob("*.cpp")):
            if folder in ONLY and path.name not in ONLY[folder]:
                continue
            name = str(path.relative_to(ROOT))
            write_if_changed(TREE / name, instrumenter.file(name, path.read_text(), constants))
    return instrumenter.mutants


def build(programs, jobs):
    flags = f"-O1 -w -I{ROOT}/scripts/mutation"
    options = TREE / "cmake/BuildOptions.cmake"  # every test program gets the trace
    options.write_text(options.read_text().replace("${arg_SOURCES})", f"${{arg_SOURCES}} {ROOT}/scripts/mutation/MutantTrace.cpp)"))
    configure = ["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None", f"-DCMAKE_CXX_FLAGS={flags}",
                 "-DVORREL_ALSA=OFF", "-DVORREL_TEST_FOLDERS=store;pipeline;writer;device;manager"]
    if shutil.which("ccache"):
        configure.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
    subprocess.run(configure, check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["ninja", f"-j{jobs}", "-C", BUILD, *(pathlib.Path(program).name for program in programs)], check=True)


def limit():
    """What a mutant may take: one that writes or allocates for ever must not take the machine with it."""
    resource.setrlimit(resource.RLIMIT_FSIZE, (256 << 20, 256 << 20))
    resource.setrlimit(resource.RLIMIT_AS, (6 << 30, 6 << 30))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def run_tests(program, options, seconds, **extra):
    """Runs a test program with a temporary directory of its own. @return its exit code."""
    environment = {name: value for name, value in os.environ.items() if not name.startswith("VORREL_")}
    with tempfile.TemporaryDirectory(dir=WORK, ignore_cleanup_errors=True) as directory:
        try:
            return subprocess.run([BUILD / "tests" / program, "--gtest_brief=1", *options], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL, cwd=directory, timeout=seconds, preexec_fn=limit,
                                  env={**environment, "TMPDIR": directory, **extra}).returncode
        finally:
            unmount(directory)


def unmount(directory):
    """A test that was ended in the middle may leave a small volume behind."""
    for line in pathlib.Path("/proc/mounts").read_text().splitlines():
        point = line.split()[1]
        if point.startswith(directory + "/"):
            subprocess.run(["umount", "-l", point], check=False, stderr=subprocess.DEVNULL)


def trace(program):
    """For each mutant the tests of `program` that come by it, quickest first."""
    path = WORK / (pathlib.Path(program).name + ".trace")
    path.unlink(missing_ok=True)
    run_tests(program, [], 600, VORREL_MUTANT_TRACE=str(path))
    tests = collections.defaultdict(list)
    failed = 0
    for line in path.read_text().splitlines():
        name, passed, milliseconds, *numbers = line.split()
        if passed == "0":
            failed += 1  # not on this machine, or not today: it proves nothing
            continue
        for number in numbers:
            tests[int(number)].append((int(milliseconds), name))
    if failed:
        print(f"{program}: {failed} tests skipped or failing without a mutant are left out")
    return {number: sorted(reaching) for number, reaching in tests.items()}


def noticed(mutant, reached, seconds):
    """The program or the limit that noticed it; None when nothing did; "" when nothing comes by it."""
    come_by = False
    for program in PROGRAMS[mutant.file.split("/")[1]]:
        tests = reached[program].get(mutant.number, [])
        if not tests:
            continue
        come_by = True
        # A filter of bounded length, the quickest tests first.
        for at in range(0, len(tests), 200):
            part = tests[at:at + 200]
            try:
                code = run_tests(program, ["--gtest_fail_fast", "--gtest_filter=" + ":".join(name for _, name in part)],
                                 seconds + 2 * sum(milliseconds for milliseconds, _ in part) / 1000, VORREL_MUTANT=str(mutant.number))
            except subprocess.TimeoutExpired:
                return "time limit"
            if code != 0:
                return program
    return None if come_by else ""


def slipped(text):
    """A number with one digit changed: the last one, in single precision the seventh, the last that always counts."""
    mantissa, exponent, rest = text.partition("e")
    start = next((index for index, digit in enumerate(mantissa) if digit in "123456789"), len(mantissa) - 1)
    digits = [index for index in range(start, len(mantissa)) if mantissa[index].isdigit()]
    at = digits[min(len(digits), 7) - 1] if text.endswith("F") else digits[-1]
    return mantissa[:at] + str((int(mantissa[at]) + 1) % 10) + mantissa[at + 1:] + exponent + rest


def try_table(name, jobs):
    """Changes one digit of every coefficient of a table. @return (all, those that compile)."""
    source = (ROOT / name).read_text()
    code = mutation.blanked(source)
    spans = [(m.start(), mutation.closing(code, m.end() - 1))
             for m in re.finditer(r"constexpr std::array<[^=]*Half = \{", code)]
    places = [m for start, end in spans for m in FLOAT.finditer(code, start, end)]

    def compiles(place):
        text = source[:place.start()] + slipped(place.group()) + source[place.end():]
        run = subprocess.run(["c++", "-std=c++20", "-fsyntax-only", "-w", f"-I{ROOT}/src", "-x", "c++", "-"],
                             input=text.encode(), stderr=subprocess.DEVNULL)
        return run.returncode == 0

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        survivors = [place.group() for place, survives in zip(places, pool.map(compiles, places)) if survives]
    return len(places), survivors


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--limit", type=int, default=0, help="try so many mutants, drawn by the seed (default: all)")
    parser.add_argument("--minutes", type=float, default=0, help="begin no mutant after so long (default: no limit)")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--seconds", type=float, default=10, help="for one mutant, beside twice its tests' own")
    parser.add_argument("--folders", default=",".join(PROGRAMS))
    parser.add_argument("--kinds", default="", help="of comparison,constant,condition,case,result (default: all)")
    parser.add_argument("--state-checks", action="store_true", help="state checks alone")
    parser.add_argument("--no-tables", action="store_true")
    parser.add_argument("--list", action="store_true", help="list the mutants and end")
    arguments = parser.parse_args()
    folders = arguments.folders.split(",")

    WORK.mkdir(parents=True, exist_ok=True)
    found = instrument(folders)
    copy_tree({mutant.file for mutant in found})
    equivalent = {line.split(" -- ")[0].strip() for line in (ROOT / "scripts/mutation/equivalent.txt").read_text().splitlines()
                  if line and not line.startswith("#")}
    # Of lines that a file has more than once, "[2]" behind the line names the second.
    counts = collections.Counter()
    known = set()
    for mutant in found:
        counts[mutant.key] += 1
        if {mutant.key, f"{mutant.key} [{counts[mutant.key]}]"} & equivalent:
            known.add(mutant.number)
    if arguments.kinds:
        found = [mutant for mutant in found if mutant.kind in arguments.kinds.split(",")]
    if arguments.state_checks:
        found = [mutant for mutant in found if is_state_check(mutant)]
    if arguments.list:
        for mutant in found:
            print(f"{mutant.number} {mutant.file}:{mutant.line} {mutant.key}")
        return 0

    ok = True
    if not arguments.no_tables:
        for name in TABLES:
            count, survivors = try_table(name, arguments.jobs)
            print(f"{name}: {count} coefficients, {len(survivors)} unnoticed {' '.join(survivors)}", flush=True)
            ok = ok and count > 0 and not survivors

    programs = list(dict.fromkeys(program for folder in folders for program in PROGRAMS[folder]))
    build(programs, arguments.jobs)
    reached = {program: trace(program) for program in programs}

    # In an order drawn by the seed, so that those before a limit stand for all; of all of them, so
    # that the sample stays when one more is known to be equivalent.
    order = list(found)
    random.Random(arguments.seed).shuffle(order)
    tried = [mutant for mutant in order if mutant.number not in known]
    left_out = len(found) - len(tried)
    tried = tried[:arguments.limit] if arguments.limit else tried
    end = time.monotonic() + 60 * arguments.minutes if arguments.minutes else float("inf")

    def attempt(mutant):
        return noticed(mutant, reached, arguments.seconds) if time.monotonic() < end else "not tried"

    results = []
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        for mutant, program in zip(tried, pool.map(attempt, tried)):
            if program == "not tried":
                continue
            results.append((mutant, program))
            if not program:
                how = "not come by" if program == "" else "unnoticed"
                check = "STATE CHECK " if is_state_check(mutant) else ""
                print(f"{check}{how}: {mutant.file}:{mutant.line}: {mutant.kind} {mutant.detail}: {mutant.text}", flush=True)

    print(f"{len(found)} mutants, {left_out} of them equivalent, {len(results)} tried (seed {arguments.seed})")
    for title, belongs in [(folder, lambda mutant, folder=folder: mutant.file.split("/")[1] == folder) for folder in folders] + \
            [("store, writer, manager", lambda mutant: mutant.file.split("/")[1] in COUNTED), ("state checks", is_state_check)]:
        of = [program for mutant, program in results if belongs(mutant)]
        if of:
            killed = sum(bool(program) for program in of)
            print(f"{title}: {killed} of {len(of)} noticed ({100 * killed / len(of):.1f} %)")
            ok = ok and not (title == "state checks" and killed < len(of)) and \
                not (title == "store, writer, manager" and killed < 0.9 * len(of))
    (WORK / "results.json").write_text(json.dumps([{**vars(mutant), "by": program} for mutant, program in results], indent=1))
    return 0 if ok else 1


def is_state_check(mutant):
    """A comparison, condition or case on which a function leaves at once; not the handing on of a callee's error."""
    return mutant.guard and mutant.kind not in ("constant", "result") and "VrError error =" not in mutant.text and \
        STATE_CHECKS.search(mutant.file) is not None


if __name__ == "__main__":
    sys.exit(main())
