"""Plants one fault at a time in a module and tells which of them its tests catch: see scripts/mutate.

All faults of a module stand in one rewritten copy of its source, which takes the place of the
module's object in the tests that a preset has built. A fault that no test notices in the plain
build is tried again under the sanitizers, as scripts/test would.
"""

import argparse
import concurrent.futures
import difflib
import json
import os
import pathlib
import random
import re
import shlex
import subprocess
import tempfile
import time

import plant

ROOT = pathlib.Path(__file__).resolve().parents[3]
HERE = ROOT / "scripts/lib/mutate"
OUT = ROOT / "build/mutate"
SLOW = "*Stress*"  # tests that are run after the others of their program
SEED = 11

# A test that goes wrong stays alone: its processes in a namespace of their own, which ends with it,
# the file system read-only but for a /tmp that goes with it, the first to go when memory is short.
ALONE = """mount -t tmpfs -o size=256m none /tmp && mount --bind "$0" "$0" &&
mount -o remount,ro,bind / && cd /tmp || exit 99
echo 1000 >/proc/self/oom_score_adj; ulimit -c 0 -f 400000; [ "$1" = 0 ] || ulimit -v "$1"
shift; exec timeout -k 1 "$@" """
ADDRESSES_KB = 40 << 20  # thousands of stacks are alive in some tests
BUILDS = {  # preset -> (limit of address space, what ctest sets)
    "release": (ADDRESSES_KB, {}),
    "asan": (0, {"ASAN_OPTIONS": "detect_leaks=1"}),
    "tsan": (0, {"TSAN_OPTIONS": "halt_on_error=1 report_signal_unsafe=0"}),
}


def read_programs():
    """module -> (its own tests, others), each with the arguments that it wants"""
    table = {}
    for line in (HERE / "programs.txt").read_text().splitlines():
        if line and not line.startswith("#"):
            module, _, names = line.partition(":")
            table[module] = [re.findall(r"(\w+)(?:\[(.*?)\])?", part) for part in names.split("|")]
            table[module] += [[]] * (2 - len(table[module]))
    return table


def read_equal():
    """(module, function, line, old => new) -> why it changes nothing that anybody could notice"""
    text = re.sub(r"^#.*\n", "", (HERE / "equal.txt").read_text(), flags=re.M)
    equal = {}
    for entry in filter(None, text.strip().split("\n\n")):
        place, line, change, *why = (part.strip() for part in entry.strip().splitlines())
        equal[(*place.split(), line, change)] = " ".join(why)
    return equal


# ---- Building ----

class Build:
    """A preset's commands, and programs in which a mutated source has taken the original's place."""

    def __init__(self, preset, module):
        self.folder = ROOT / "build" / preset
        self.preset = preset
        self.out = OUT / preset
        self.out.mkdir(parents=True, exist_ok=True)
        self.module = module
        subprocess.run(["cmake", "--preset", preset], cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
        with open(self.folder / "compile_commands.json", encoding="utf-8") as file:
            self.compile = {self.output_of(c["command"]): c for c in json.load(file)}

    @staticmethod
    def output_of(command):
        return re.search(r" -o (\S+)", command)[1]

    def build(self, programs):
        targets = [f"test_{name}" for name, _ in programs]
        subprocess.run(["cmake", "--build", self.folder, "--target", *targets], check=True,
                       stdout=subprocess.DEVNULL)

    def source(self):
        ending = f"/{self.module}.cpp"
        return next(c for c in self.compile.values() if c["file"].endswith(ending))

    def compile_to(self, command, source, target):
        """@return the lines that the compiler refused"""
        line = command["command"].replace(command["file"], str(source), 1)
        line = line.replace(f" -o {self.output_of(line)}", f" -o {target}")
        line = re.sub(r"^(\S*ccache )?(\S+)", rf"\2 -I{OUT}", line)
        line += f" -O1 -w -fpermissive -Wno-narrowing -I{pathlib.Path(command['file']).parent}"
        result = subprocess.run(line, shell=True, cwd=command["directory"], stderr=subprocess.PIPE,
                                text=True, check=False)
        refused = {int(n) for n in re.findall(rf"{self.module}\.cpp:(\d+):\d+: error", result.stderr)}
        if result.returncode != 0 and not refused:
            raise SystemExit(result.stderr)
        return refused

    def link(self, program):
        """@return the lines that the compiler refused"""
        commands = subprocess.run(["ninja", "-C", self.folder, "-t", "commands", f"test_{program}"],
                                  capture_output=True, text=True, check=True).stdout
        line = commands.strip().splitlines()[-1]
        objects = [o for o in shlex.split(line) if o.endswith(f"/{self.module}.cpp.o")]
        source = OUT / f"{self.module}.cpp"
        if not objects:  # the test includes the source
            objects = [o for o in shlex.split(line) if o.endswith(f"/{program}_test.cpp.o")]
            source = self.compile[objects[0]]["file"]
        for original in objects:
            target = self.out / original.replace("/", "_")
            if not target.exists():
                refused = self.compile_to(self.compile[original], source, target)
                if refused:
                    return refused
            line = line.replace(original, f"{target} {OUT / 'switch.o'}", 1)
        line = line.replace(f" -o test_{program} ", f" -o {self.out / f'test_{program}'} ", 1)
        subprocess.run(line, shell=True, cwd=self.folder, check=True)
        return set()


# ---- Running ----

class Runner:
    def __init__(self, preset):
        self.preset = preset
        self.limit_kb, self.settings = BUILDS[preset]
        self.times = {}  # run -> seconds that it takes without a fault

    def run(self, what, limit, fault=0, reached=None):
        """@return the name of the test that failed, or None"""
        program, arguments = what
        environment = dict(os.environ, HNETD_MUTANT=str(fault), **self.settings)
        if reached:
            environment["HNETD_REACHED"] = str(reached)
        command = ["nice", "unshare", "-p", "-f", "-m", "--kill-child", "--mount-proc"]
        command += ["-r"] if os.geteuid() != 0 else []
        command += ["sh", "-c", ALONE, OUT, str(self.limit_kb), f"{limit:.1f}",
                    OUT / self.preset / f"test_{program}", *arguments.split()]
        with tempfile.TemporaryFile() as output:
            code = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                  env=environment, check=False, start_new_session=True).returncode
            output.seek(0)
            text = output.read().decode(errors="replace")
        if code == 0:
            return None
        if code == 99:
            raise SystemExit(f"no namespace to run tests in: {text}")
        tests = re.findall(r"\[ +(?:RUN|FAILED) +\] (\S+?),?(?: |$)", text, flags=re.M)
        return f"{program}: {tests[-1] if tests else f'code {code}'}" + (" hung" if code == 124 else "")

    def runs_of(self, program, arguments):
        """A program in one or two runs, the slow tests last."""
        if arguments:
            return [(program, arguments)]
        names = subprocess.run([OUT / self.preset / f"test_{program}", "--gtest_list_tests"],
                               capture_output=True, text=True, check=True).stdout
        slow = "Stress" in names and re.search(r"^  (?!.*Stress)", names, flags=re.M)
        filters = [f"-{SLOW}", SLOW] if slow else ["*"]
        return [(program, f"--gtest_fail_fast --gtest_filter={each}") for each in filters]

    def prove(self, what, faults):
        """Runs without a fault, which has to pass, and says which faults that comes across."""
        path = OUT / "reached"
        path.write_bytes(bytes(faults + 1))
        start = time.monotonic()
        failed = self.run(what, 300, reached=path)
        self.times[what] = time.monotonic() - start
        if failed:
            raise SystemExit(f"fails without a fault: {failed}")
        return {n for n, seen in enumerate(path.read_bytes()) if seen}

    def catch(self, what, fault):
        """Runs with a fault. Out of time counts only where the time does without the fault."""
        limit = 4 + 3 * self.times[what]
        failed = self.run(what, limit, fault)
        while failed and failed.endswith("hung") and self.run(what, limit):
            limit *= 2
            failed = self.run(what, limit, fault)
        return failed


def build_all(preset, module, programs, finder, faults):
    """Builds the programs; a fault in a line that does not compile is left out of the list."""
    build = Build(preset, module)
    build.build(programs)
    refused = {0}
    while refused:
        for old in build.out.iterdir():
            old.unlink()
        (OUT / f"{module}.cpp").write_text(plant.rewrite(finder, faults), encoding="latin-1")
        for program, _ in programs:
            refused = build.link(program)
            if refused:
                faults[:] = [f for f in faults if f.line not in refused]
                break


def try_faults(preset, module, programs, finder, faults, left, jobs):
    """@return fault number -> the test that caught it, and the numbers that no run reached"""
    build_all(preset, module, programs, finder, faults)
    runner = Runner(preset)
    last = max(f.number for f in faults)
    runs = {}
    for program, arguments in programs:
        for what in runner.runs_of(program, arguments):
            runs[what] = runner.prove(what, last)

    def catch(number):
        for what, seen in runs.items():
            failed = number in seen and runner.catch(what, number)
            if failed:
                return failed
        return None

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        caught = dict(zip(left, pool.map(catch, left)))
    return {n: by for n, by in caught.items() if by}, set(left) - set().union(*runs.values())


# ---- Telling ----

def difference(finder, fault):
    new = "" if fault.new == ";" else f"({fault.new})" if fault.new.endswith(" + 1") else fault.new
    text = finder.original
    changed = text[:fault.start] + new + text[fault.end:]
    lines = difflib.unified_diff(text.splitlines(), changed.splitlines(), lineterm="", n=2)
    return "\n".join(list(lines)[2:])


def key_of(module, finder, fault):
    line = finder.text.splitlines()[fault.line - 1].strip()
    return module, fault.function, line, f"{fault.old} => {fault.new}"


def show(module, finder, fault, state):
    print(f"{module} {fault.number} ({state}): {fault.function}, line {fault.line}")
    print(difference(finder, fault), end="\n\n", flush=True)


def mutate(module, programs, options):
    """@return the module's row: planted, caught, equal, survivors"""
    own, others = programs
    command = Build("release", module).source()
    arguments = [a for a in shlex.split(command["command"]) if re.match("-I|-D|-std|-fno-exc", a)]
    finder, faults = plant.faults_in(command["file"], arguments)
    subprocess.run(["g++", "-O2", "-c", HERE / "switch.cpp", "-o", OUT / "switch.o"], check=True)
    equal = read_equal()
    chosen = [f.number for f in faults if not options.only or f.number in options.only]
    if options.sample and options.sample < len(chosen):
        chosen = sorted(random.Random(SEED).sample(chosen, options.sample))
    by_number = {f.number: f for f in faults}
    same = [n for n in chosen
            if not options.only and key_of(module, finder, by_number[n]) in equal]
    left = [n for n in chosen if n not in same]
    known = {key_of(module, finder, f) for f in faults}
    for entry in equal:
        if entry[0] == module and entry not in known:
            print(f"equal.txt: no such fault: {entry}")
    if options.list:
        for number in left:
            fault = by_number[number]
            print(f"{module} {number}: {fault.function}, line {fault.line}: {fault.old} => {fault.new}")
        return None
    caught = {}
    unreached = set()
    for preset in options.builds:
        if not left:
            break
        tests = own + others if preset == "release" else own
        now, never = try_faults(preset, module, tests, finder, faults, left, options.jobs)
        planted = {f.number for f in faults}
        left = [n for n in left if n not in now and n in planted]
        caught.update(now)
        unreached |= never if preset == "release" else set()
    for number in caught if options.only else ():
        show(module, finder, by_number[number], f"caught by {caught[number]}")
    for number in left:
        state = "not reached" if number in unreached else "survives"
        show(module, finder, by_number[number], state)
    return len(caught) + len(left) + len(same), len(caught), len(same), left


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate")
    parser.add_argument("modules", nargs="*")
    parser.add_argument("--only", type=int, nargs="+")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--sample", type=int)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--builds", nargs="+", default=list(BUILDS), choices=list(BUILDS))
    options = parser.parse_args()
    table = read_programs()
    OUT.mkdir(parents=True, exist_ok=True)
    rows = []
    for module in options.modules or table:
        start = time.monotonic()
        row = mutate(module, table[module], options)
        if row:
            planted, caught, same, left = row
            share = f"{100 * caught / max(planted - same, 1):.0f} %"
            rows.append(f"| `{module}` | {planted} | {caught} | {same} | {len(left)} | {share} |")
            print(rows[-1], f"{time.monotonic() - start:.0f} s, left: {left}", flush=True)
    if rows:
        print("\n| Module | Planted | Caught | Equal | Left | Share |\n|---|---|---|---|---|---|")
        print("\n".join(rows))


main()
