#!/usr/bin/env python3
"""Runs the fuzz targets of a build: first the seeds in seeds/, then new inputs for the given time.

What was found in earlier runs goes on from build/fuzz/corpus; an input that breaks something is left in
build/fuzz/findings. Exit status 1 when there is one.
"""
import argparse
import concurrent.futures
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
# Files of the repository that serve as seeds.
EXAMPLES = {"collector_configuration": ["examples/collector*.json"],
            "machine_manifest": ["examples/machine-manifest.json", "packaging/machine-manifest.json"]}
LARGEST_EXAMPLE = 4096  # bytes; the limit below truncates larger ones
DICTIONARIES = {"someip_discovery": "discovery", "someip_header": None, "someip_structure": None,
                "spool_file": None, "compressed_payload": None, "http_api": "http"}
LIMITS = ["-timeout=10", "-rss_limit_mb=1024", "-malloc_limit_mb=128", "-max_len=4096"]


def seeds_of(target):
    found = sorted((HERE / "seeds" / target).glob("*"))
    for pattern in EXAMPLES.get(target, []):
        found += [path for path in sorted(ROOT.glob(pattern)) if path.stat().st_size <= LARGEST_EXAMPLE]
    return found


running = set()
stopped = []


def stop(*_):
    stopped.append(True)
    for process in list(running):
        process.terminate()


def run_target(target, options):
    """Returns the number of executions with new inputs, and an error or None."""
    program = str(options.build / "tests/fuzz" / f"fuzz_{target}")
    findings = options.build / "findings"
    corpus = options.build / "corpus" / target
    corpus.mkdir(parents=True, exist_ok=True)
    log = options.build / f"{target}.log"
    seeds = seeds_of(target)
    # A small quarantine, since targets free their memory within one input. No allocation stacks, since the
    # sanitizer keeps each one; repeat a finding by hand to get them.
    sanitizer = "quarantine_size_mb=16:malloc_context_size=1:" + os.environ.get("ASAN_OPTIONS", "")
    environment = {**os.environ, "ASAN_OPTIONS": sanitizer}
    common = [program, *LIMITS, f"-artifact_prefix={findings}/{target}-"]

    def execute(arguments, limit):
        with open(log, "ab") as out:
            if stopped:
                return "stopped"
            process = subprocess.Popen(common + arguments, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                       env=environment, start_new_session=True)
            running.add(process)
            try:
                return process.wait(limit)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
                return "does not end"
            finally:
                running.discard(process)

    log.write_bytes(b"")
    if not seeds or not os.access(program, os.X_OK):
        return 0, "is not built" if seeds else "has no seeds"
    if execute([str(seed) for seed in seeds], 60 + 10 * len(seeds)) != 0:
        return 0, "stopped" if stopped else "FAULT in a kept seed"
    for path in seeds:
        shutil.copyfile(path, corpus / f"seed-{path.name}")
    dictionary = DICTIONARIES.get(target, "json")
    arguments = [f"-max_total_time={options.seconds}", f"-seed={options.seed}", "-print_final_stats=1"]
    if dictionary:
        arguments.append(f"-dict={HERE / 'dictionaries' / dictionary}.dict")
    fault = None
    if execute([*arguments, str(corpus)], options.seconds + 120) != 0:
        fault = "stopped" if stopped else "FAULT in a new input"
    found = re.findall(r"stat::number_of_executed_units:\s+(\d+)", log.read_text(errors="replace"))
    return int(found[-1]) if found else 0, fault


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=ROOT / "build/fuzz", help="build folder of the preset fuzz")
    parser.add_argument("--seconds", type=int, default=60, help="per target, behind the kept seeds")
    parser.add_argument("--seed", type=int, default=0, help="of new inputs; 0: another one in each run")
    parser.add_argument("--jobs", type=int, default=1, help="targets at once")
    parser.add_argument("targets", nargs="*", help="all without one")
    options = parser.parse_args()
    options.build = options.build.resolve()
    (options.build / "findings").mkdir(parents=True, exist_ok=True)
    targets = options.targets or sorted(path.name for path in (HERE / "seeds").iterdir())

    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, stop)
    begin = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(max(1, options.jobs)) as pool:
        results = list(zip(targets, pool.map(lambda target: run_target(target, options), targets)))

    print(f"{'target':26} {'executions':>12}  result")
    for target, (executions, fault) in results:
        print(f"{target:26} {executions:12,}  {fault or 'clean'}")
    print(f"{options.seconds} s each, {time.monotonic() - begin:.0f} s in all")
    bad = [target for target, (_, fault) in results if fault]
    for target in bad:
        log = options.build / f"{target}.log"
        lines = log.read_text(errors="replace").splitlines()
        tail = [line for line in lines if not line.startswith("#")]  # without progress lines
        print(f"\n{target}: {log}\n" + "\n".join(tail[-60:]), file=sys.stderr)
    if bad:
        print(f"Inputs are in {options.build / 'findings'}; one of them again: build/fuzz/tests/fuzz/fuzz_TARGET FILE. "
              "Keep it in tests/fuzz/seeds/TARGET when it is mended.", file=sys.stderr)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
