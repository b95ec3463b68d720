#!/usr/bin/env python3
"""Measures the driver as a kernel image beside the driver that is linked in.

    bench/beside_image.py build/image/gvnd_bench build/nt/gvnd.sys [BENCHMARK-OPTION...]

The two cannot be loaded at once, so runs of both alternate, and of each case the least time counts.
"""
import os
import re
import subprocess
import sys

ROUNDS = 5
LINE = re.compile(r"^(\S.*?)\s{2,}([\d.]+) (ns|us|ms)\s")
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6}


def times(command, image):
    environment = dict(os.environ)
    environment.pop("GVND_IMAGE", None)
    if image:
        environment["GVND_IMAGE"] = image
    output = subprocess.run(command, env=environment, stdout=subprocess.PIPE, text=True, check=True).stdout
    return {m[1]: float(m[2]) * NANOSECONDS[m[3]] for m in map(LINE.match, output.splitlines()) if m}


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    bench, image, *options = sys.argv[1:]
    command = [bench, "--benchmark_repetitions=10", *options]
    least = {False: {}, True: {}}
    for _ in range(ROUNDS):
        for is_image in (False, True):
            for case, value in times(command, image if is_image else None).items():
                least[is_image][case] = min(value, least[is_image].get(case, value))
    print(f"{'':40}{'linked':>12}{'image':>12}{'difference':>12}{'ratio':>8}")
    for case, linked in least[False].items():
        other = least[True].get(case)
        if other:
            print(f"{case:40}{linked:9.0f} ns{other:9.0f} ns{other - linked:+9.0f} ns{other / linked:8.2f}")


if __name__ == "__main__":
    main()
