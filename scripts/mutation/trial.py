"""The build that scripts/mutate tries mutants in, and one trial: recompile, relink, run.

The build is never touched by a mutant. The changed source is compiled elsewhere, and its object stands on the linker's
command line ahead of the library with the original, which the linker then has no use for.
"""
import collections
import json
import os
import pathlib
import re
import resource
import shlex
import shutil
import signal
import subprocess

TARGETS = ("driver_tests", "model_tests")
STANDSTILL, POLL = 8, 0.5  # seconds: longer than any test waits for nothing
SLOW = 0.3  # seconds for one test
Step = collections.namedtuple("Step", "target only seconds")
PASSED = re.compile(r"^\[       OK \] (\S+) \((\d+) ms\)", re.M)
INCLUDE = re.compile(r'^#include "([^"]+)"', re.M)


def limit(seconds):
    """A mutant may run, write, allocate or crash without end."""
    resource.setrlimit(resource.RLIMIT_CPU, (seconds, seconds + 5))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_FSIZE, (256 << 20, 256 << 20))
    resource.setrlimit(resource.RLIMIT_AS, (16 << 30, 16 << 30))


class Build:
    def __init__(self, root, directory):
        self.root, self.directory = root, directory
        self.sources = {p.relative_to(root).as_posix(): p.read_text() for p in sorted(root.glob("driver/*/*"))
                        if p.suffix in (".cpp", ".h")}

    def make(self):
        # No sanitizers, which find little that the checks and leak reports do not and take ten times as long.
        subprocess.run(["cmake", "-S", self.root, "-B", self.directory, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                        "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++",
                        "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld", "-DCMAKE_C_FLAGS_DEBUG=-O1 -g0",
                        "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -g0", "-DGVND_CHECKS=ON", "-DGVND_BUILD_CHECKS=OFF",
                        "-DGVND_BUILD_TOOL=OFF"], check=True, stdout=subprocess.DEVNULL)
        subprocess.run(["ninja", "-C", self.directory, *TARGETS], check=True)
        database = json.loads((self.directory / "compile_commands.json").read_text())
        self.compile = {pathlib.Path(e["file"]).relative_to(self.root).as_posix(): shlex.split(e["command"])
                        for e in database}
        self.link = {t: self.link_command(t) for t in TARGETS}
        self.originals = {}

    def link_command(self, target):
        listed = subprocess.run(["ninja", "-C", self.directory, "-t", "commands", target], check=True,
                                capture_output=True, text=True).stdout.splitlines()[-1]
        return shlex.split(listed.removeprefix(": && ").removesuffix(" && :"))

    def measure(self):
        """Runs the tests as they are, for the order of a trial: what takes long comes last."""
        for target in TARGETS:
            done = subprocess.run([self.directory / target], env=environment(), capture_output=True, text=True)
            if done.returncode != 0:
                raise SystemExit(f"{target} fails without a mutant:\n{done.stdout[-3000:]}")
            took = {test: int(ms) / 1000 for test, ms in PASSED.findall(done.stdout)}
            if target == "driver_tests":
                slow = [test for test in took if took[test] > SLOW]
                self.steps = [Step(target, "*-" + ":".join(slow), sum(took.values()) - sum(took[t] for t in slow))]
                last = [Step(target, ":".join(slow), sum(took[t] for t in slow))] if slow else []
            else:
                self.steps.append(Step(target, "*", sum(took.values())))
        self.steps += last

    def users(self, header):
        """The .cpp files that read a header of the driver, by whatever way."""
        wanted, found = {header}, True
        while found:
            found = {n for n, text in self.sources.items()
                     if n not in wanted and wanted & {"driver/" + i for i in INCLUDE.findall(text)}}
            wanted |= found
        return sorted(n for n in wanted if n.endswith(".cpp"))

    def compiled(self, room, name, changed, text):
        """The object of one source, with `changed` reading `text`; None if it does not compile."""
        overlay = room / changed
        overlay.parent.mkdir(parents=True, exist_ok=True)
        overlay.write_text(text)
        source = overlay if name == changed else self.root / name
        out = room / (name.replace("/", ".") + ".o")
        command = list(self.compile[name])
        command[command.index("-o") + 1] = str(out)
        command[command.index("-c") + 1] = str(source)
        # Asserted lines hold the file's name; they must not differ by it.
        command[1:1] = ["-w", f"-ffile-prefix-map={room}={self.root}", f"-I{room / 'driver'}"]
        done = subprocess.run(command, cwd=self.directory, capture_output=True, text=True)
        return out if done.returncode == 0 else None

    def original(self, name):
        if name not in self.originals:
            room = self.directory / "originals"
            room.mkdir(exist_ok=True)
            self.originals[name] = self.compiled(room, name, name, self.sources[name]).read_bytes()
        return self.originals[name]


def environment():
    # The models draw the same steps for each mutant, and fewer than usual.
    return os.environ | {"GVND_TEST_SEED": "1", "GVND_TEST_OPERATIONS": "10000"}


def killer(output):
    failed = re.search(r"^\[  FAILED  \] ([^\s,]+)", output, re.M)
    running = re.findall(r"^\[ RUN      \] (\S+)", output, re.M)
    return failed.group(1) if failed else (running[-1] if running else "start")


class Trial:
    """One mutant at a time, in a room of its own."""

    def __init__(self, build, room):
        self.build, self.room = build, room

    def of(self, mutant):
        shutil.rmtree(self.room, ignore_errors=True)
        self.room.mkdir(parents=True)
        build = self.build
        names = [mutant.file] if mutant.file.endswith(".cpp") else build.users(mutant.file)
        objects = {n: build.compiled(self.room, n, mutant.file, mutant.text) for n in names}
        if None in objects.values():
            return "does not compile", ""
        objects = [o for n, o in objects.items() if o.read_bytes() != build.original(n)]
        if not objects:
            return "same code", ""
        for step in build.steps:
            program = self.linked(step.target, objects)
            if not program:
                return "does not compile", ""
            result, by = self.run(program, step.only, 10 + round(4 * step.seconds))
            if result != "survived":
                return result, by
        return "survived", ""

    def linked(self, target, objects):
        program = self.room / target
        if program.exists():
            return program
        command = list(self.build.link[target])
        command[command.index("-o") + 1] = str(program)
        command[1:1] = [str(o) for o in objects]
        done = subprocess.run(command, cwd=self.build.directory, capture_output=True, text=True)
        return program if done.returncode == 0 else None

    def run(self, program, only, seconds):
        log = self.room / "log"
        with log.open("wb") as out:
            process = subprocess.Popen([program, "--gtest_fail_fast", f"--gtest_filter={only}"], cwd=self.room,
                                       stdout=out, stderr=subprocess.STDOUT, env=environment(),
                                       preexec_fn=lambda: limit(seconds), start_new_session=True)
            code = ended(process)
        if code == 0:
            return "survived", ""
        spun = code in (-signal.SIGXCPU, -signal.SIGKILL)
        return ("timeout" if code is None or spun else "killed"), killer(log.read_text(errors="replace"))


def ended(process):
    """The exit code; None for one that stood still, whatever else the machine has to do, and was ended."""
    still, before = 0, None
    while still < STANDSTILL:
        try:
            return process.wait(POLL)
        except subprocess.TimeoutExpired:
            now = consumed(process.pid)
            still = still + POLL if now == before else 0
            before = now
    os.killpg(process.pid, signal.SIGKILL)
    process.wait()
    return None


def consumed(pid):
    """Processor time of all threads, or something new as long as one of them only waits for a processor."""
    try:
        tasks = pathlib.Path(f"/proc/{pid}/task").iterdir()
        stats = [(task / "stat").read_text().rsplit(")", 1)[1].split() for task in tasks]
    except OSError:  # a thread that has just ended
        return object()
    return object() if any(s[0] in "RD" for s in stats) else sum(int(s[11]) + int(s[12]) for s in stats)
