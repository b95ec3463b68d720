#!/usr/bin/env python3
"""Counts the instructions of a request, from the caller's service to the plugin and back, by callgrind.

    bench/instructions.py build/release/gvnd_bench            prints the table
    bench/instructions.py build/release/gvnd_bench --check    and compares it with the one in docs/performance.md
    bench/instructions.py build/release/gvnd_bench --write    puts it there

Unlike times, counts are the same on a busy machine. Those of another compiler or C library are not.
"""
import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

PAGE = pathlib.Path(__file__).resolve().parent.parent / "docs" / "performance.md"
ROW = re.compile(r"^\| (.+?) \| ([\d,]+) \|$", re.M)
TOLERANCE = 0.05
# Others wait for threads, or depend on what the processor's caches hold, or copy much, which takes as many instructions
# as the processor's widest registers make of it.
CASES = "depth|create|information|truncate|rename|link|list"
# The C library's routines for every processor, not those that it would choose for this one.
PLAIN = {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX2,-AVX,-AVX_Fast_Unaligned_Load,-ERMS,-FSRM"}


def counted(bench):
    """For each case the instructions of one iteration."""
    with tempfile.TemporaryDirectory() as directory:
        # Of debug information callgrind needs none, and does not understand every compiler's.
        program = pathlib.Path(directory) / "bench"
        strip = shutil.which("objcopy") or shutil.which("llvm-objcopy") or sys.exit("error: objcopy is not installed")
        subprocess.run([strip, "--strip-debug", bench, program], check=True)
        run = subprocess.run(
            ["valgrind", "--tool=callgrind", "--collect-atstart=no", f"--callgrind-out-file={directory}/out", program,
             "--instructions", f"--benchmark_filter={CASES}"], capture_output=True, text=True, check=False,
            env={**os.environ, **PLAIN})
        if run.returncode:
            sys.exit(f"error: callgrind ended with {run.returncode}\n{run.stdout}{run.stderr}")
        totals = {}
        for dump in pathlib.Path(directory).glob("out.*"):
            text = dump.read_text()
            name = re.search(r"^desc: Trigger: Client Request: (.*) x (\d+)$", text, re.M)
            total = re.search(r"^(?:totals|summary): (\d+)", text, re.M)
            if name and total:
                totals.setdefault(name[1], {})[int(name[2])] = int(total[1])
    return {case: (most - least) / (max(by) - min(by))
            for case, by in totals.items() for least, most in [(by[min(by)], by[max(by)])]}


def table(counts):
    rows = "".join(f"| {case} | {round(count):,} |\n" for case, count in sorted(counts.items()))
    return "| request | instructions |\n|---|---|\n" + rows


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bench", type=pathlib.Path)
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--write", action="store_true")
    arguments = parser.parse_args()
    counts = counted(arguments.bench)
    if not counts:
        sys.exit("error: nothing was counted; was the benchmark built without <valgrind/callgrind.h>?")
    print(table(counts), end="")
    page = PAGE.read_text()
    known = {case: int(count.replace(",", "")) for case, count in ROW.findall(page)}
    if arguments.write:
        head, rest = page.split("<!-- instructions -->\n")[0], page.split("<!-- end -->\n")[1]
        PAGE.write_text(head + "<!-- instructions -->\n" + table(counts) + "<!-- end -->\n" + rest)
    failed = False
    for case in sorted(known.keys() | counts.keys()) if arguments.check else ():
        before, now = known.get(case), counts.get(case)
        if before is None or now is None or abs(now / before - 1) > TOLERANCE:
            print(f"error: {case}: {before} instructions in {PAGE.name}, {now and round(now)} now", file=sys.stderr)
            failed = True
    return failed


if __name__ == "__main__":
    sys.exit(main())
