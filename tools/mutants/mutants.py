#!/usr/bin/env python3
"""Plants one small fault at a time and tells which of them the tests next to the code do not notice.

    mutants.py [--files PATTERN ...] [--seed N] [--minutes N] [--system REGEX]

Works in a copy of the committed tree in build/mutants/, never in the checkout. For each fault it rebuilds and runs the
test programs that link the file: those of its own folder first, then the other ones, then the chosen system tests. It
stops at the first one that fails. Which faults are planted, and in which order, follows from the seed alone. The run
ends after the given minutes, which begin after the first build; it judges nothing.
"""

import argparse
import fnmatch
import json
import random
import re
import shutil
import subprocess
import sys
import time
from collections import Counter
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PLACE = ROOT / "build/mutants"
TREE = PLACE / "tree"
BUILD = TREE / "build/dev"
TEST_TIMEOUT = 120  # s; a fault may make a test wait for ever
BUILD_TIMEOUT = 600  # s
UNIT_TESTS = "vlm_unit_and_integration_tests"
SYSTEM_TESTS = set()  # the chosen ones
FASTER_LINKER = ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=gold"] if shutil.which("ld.gold") else []

STRING = re.compile(r'"(?:[^"\\]|\\.)*"')
CALL = re.compile(r"(\s+)(?!return\b|throw\b|delete\b|else\b|using\b|case\b)[\w:.>\-\[\]*]+\([^{}]*\);$")
LOCK = re.compile(r"(\s+)const std::(?:lock_guard|unique_lock|shared_lock)\b.*;$")
CONDITION = re.compile(r"^(\s*(?:\} else )?(?:if|while) \()(?!constexpr)(.+)(\) \{)$")
RETURN = re.compile(r"^(\s+)return;$")
LOGGED = re.compile(r"(VLM_LOG(?:_PLAIN)?(?:_AS)?|KYO_LOG)\((\d)")


def changes_of(line):
    """Pairs of a kind of fault and the line that has it."""
    code = STRING.sub(lambda match: '"' + "\0" * (len(match[0]) - 2) + '"', line.partition("//")[0].rstrip())
    logs = LOGGED.search(code)
    if logs:
        yield "level", line[:logs.start(2)] + str(int(logs[2]) % 7 + 1) + line[logs.end(2):]
        if text := STRING.search(line):
            yield "text", line[:text.start() + 1] + "~" + line[text.start() + 1:]
    if LOCK.match(code):
        yield "lock removed", ""
    elif CALL.match(code) and "static_assert" not in code:
        yield "call removed", CALL.match(code)[1] + ";"
    if RETURN.match(code):
        yield "return removed", RETURN.match(code)[1] + ";"
    if match := CONDITION.match(code):
        yield "condition negated", line[:match.end(1)] + "!(" + line[match.start(2):match.end(2)] + ")" + line[match.end(2):]
    for pattern, kind, replacement in (
            (r"\breturn true;", "result", "return false;"), (r"\breturn false;", "result", "return true;"),
            (r" && ", "condition", " || "), (r" \|\| ", "condition", " && "), (r" == ", "condition", " != "),
            (r" != ", "condition", " == "), (r" < ", "limit", " <= "), (r" > ", "limit", " >= "),
            (r" <= ", "limit", " < "), (r" >= ", "limit", " > ")):
        for match in re.finditer(pattern, code):
            yield kind, line[:match.start()] + replacement + line[match.end():]
    if not logs and not code.lstrip().startswith("#"):
        for match in re.finditer(r"(?<![\w.\"'])\d+(?![\w.\"'])", code):
            yield "constant", line[:match.start()] + str(int(match[0]) + 1) + line[match.end():]


def faults(files, seed):
    found = []
    for name in files:
        for number, line in enumerate((TREE / name).read_text(encoding="utf-8").splitlines()):
            found += [(name, number, kind, changed) for kind, changed in changes_of(line)]
    random.Random(seed).shuffle(found)
    return found


def run(*command, timeout=None):
    return subprocess.run(command, cwd=TREE, capture_output=True, text=True, timeout=timeout, errors="replace")


def prepare(system):
    """A copy of the committed tree, configured, with the tests built once."""
    if not TREE.exists():
        PLACE.mkdir(parents=True, exist_ok=True)
        subprocess.run(["git", "clone", "--quiet", "--shared", str(ROOT), str(TREE)], check=True)
    head = subprocess.run(["git", "rev-parse", "HEAD"], cwd=ROOT, capture_output=True, text=True, check=True).stdout.strip()
    for command in (["git", "fetch", "--quiet", "origin"], ["git", "checkout", "--quiet", "--force", head],
                    ["cmake", "--preset", "dev", "--log-level=WARNING", "-DVLM_BENCH=OFF", *FASTER_LINKER],
                    ["cmake", "--build", "--preset", "dev"] + ([] if system else ["--target", UNIT_TESTS])):
        print(" ".join(command), flush=True)
        done = run(*command)
        if done.returncode != 0:
            sys.exit(f"mutants: {' '.join(command)} failed:\n{done.stdout[-2000:]}{done.stderr[-2000:]}")
    return head


def tests_by_source(system):
    """For each source of the tree, the tests whose program it is compiled into; of system tests only what `system`
    matches."""
    described = json.loads(run("ctest", "--preset", "dev", "--show-only=json-v1").stdout)["tests"]
    result = {}
    for test in described:
        labels = next((p["value"] for p in test["properties"] if p["name"] == "LABELS"), [])
        if "system" in labels:
            if not system or not re.search(system, test["name"]):
                continue
            SYSTEM_TESTS.add(test["name"])
        words = list(test["command"]) + [value for p in test["properties"] if p["name"] == "ENVIRONMENT" for value in p["value"]]
        for word in words:
            program = Path(word.rpartition("=")[2])
            if program.is_relative_to(BUILD) and program.is_file():
                inputs = run("ninja", "-C", str(BUILD), "-t", "inputs", str(program.relative_to(BUILD))).stdout
                for line in inputs.splitlines():
                    source = (BUILD / line).resolve()
                    if source.suffix == ".cpp" and source.is_relative_to(TREE):
                        result.setdefault(source.relative_to(TREE).as_posix(), {})[test["name"]] = program
    return result


def by_distance(name, tests):
    """The tests of the source's own folder, the others, and those of the system, which take longest."""
    own = BUILD / "tests/unit" / Path(name).parent
    groups = [{}, {}, {}]
    for test, program in tests.items():
        groups[2 if test in SYSTEM_TESTS else 0 if program.is_relative_to(own) else 1][test] = program
    return [group for group in groups if group]


def failing(tests):
    """The test that fails, "" when none does, or None if they do not compile."""
    targets = sorted({str(program.relative_to(BUILD)) for program in tests.values()})
    if run("ninja", "-C", str(BUILD), *targets, timeout=BUILD_TIMEOUT).returncode != 0:
        return None
    pattern = "^(" + "|".join(map(re.escape, sorted(tests))) + ")$"
    done = run("ctest", "--preset", "dev", "-R", pattern, "-j", "2", "--stop-on-failure", "--timeout", str(TEST_TIMEOUT))
    if done.returncode == 0:
        return ""
    failed = re.search(r"Test\s+#\d+: (\S+) \.+.*(?:Failed|Timeout|Exception|aborted)", done.stdout)
    return failed[1] if failed else "ctest"


def try_fault(name, number, changed, tests):
    """As failing(), with the fault in the tree."""
    path = TREE / name
    before = path.read_text(encoding="utf-8")
    lines = before.splitlines(keepends=True)
    lines[number] = changed + "\n"
    path.write_text("".join(lines), encoding="utf-8")
    try:
        for group in by_distance(name, tests):
            if (failed := failing(group)) != "":
                return failed
        return ""
    finally:
        path.write_text(before, encoding="utf-8")


def folder_of(name):
    parts = name.split("/")
    return "/".join(parts[:3 if parts[0] == "platform" else 1])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--files", nargs="+", default=[], metavar="PATTERN", help="all of application and platform without it")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--system", default="", metavar="REGEX", help="also run these tests of real processes")
    options = parser.parse_args()

    head = prepare(options.system)
    tests = tests_by_source(options.system)
    places = subprocess.run([str(ROOT / "tools/lint/check-includes"), "--folders"], capture_output=True, text=True,
                            check=True).stdout.split() + ["platform/linux"]
    files = [f for f in run("git", "ls-files", "*.cpp").stdout.split() if any(f.startswith(p + "/") for p in places)]
    if options.files:
        files = [f for f in files if any(fnmatch.fnmatch(f, pattern) for pattern in options.files)]
    planted = faults(files, options.seed)
    print(f"{len(planted)} faults in {len(files)} files of {head[:12]}, seed {options.seed}")

    caught, survived, useless = Counter(), Counter(), 0
    end = time.monotonic() + options.minutes * 60
    for name, number, kind, changed in planted:
        if time.monotonic() > end:
            break
        where = f"{name}:{number + 1}: {kind}"
        original = (TREE / name).read_text(encoding="utf-8").splitlines()[number]
        by = try_fault(name, number, changed, tests[name]) if tests.get(name) else ""
        if by is None:
            useless += 1
        elif by:
            caught[folder_of(name)] += 1
            print(f"caught    {where} ({by})", flush=True)
        else:
            survived[folder_of(name)] += 1
            print(f"SURVIVED  {where}\n    - {original.strip()}\n    + {changed.strip()}", flush=True)

    print(f"\n{'folder':<28}{'planted':>8}{'caught':>8}")
    for folder in sorted(set(caught) | set(survived)) + ["all"]:
        c = sum(caught.values()) if folder == "all" else caught[folder]
        n = c + (sum(survived.values()) if folder == "all" else survived[folder])
        print(f"{folder:<28}{n:>8}{c:>8}" + (f"{100 * c / n:>6.0f} %" if n else ""))
    print(f"{useless} faults did not compile and do not count")
    return 0


if __name__ == "__main__":
    sys.exit(main())
