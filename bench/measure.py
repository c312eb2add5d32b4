"""Runs everything that is measured, in one go, and gathers it in one dictionary.

    rows    benchmark name -> {"real": [ns of each repetition], "cpu": [...],
                               "wall": elapsed time counts, "manual": and nothing else can}
    facts   name -> number
    idle    name -> numbers, one of each round
    machine, errors, elapsed
"""

import json
import math
import os
import platform
import random
import re
import subprocess
import tempfile
import time

import dns

MIN_TIME = "0.01"  # seconds of each repetition
PROCESSES = 4  # that share the repetitions: where its stack happens to lie sets a process's pace
IDLE_ROUNDS = 4
IDLE_SETTLE = 0.7  # seconds after the start that are not looked at
IDLE_WINDOW = 4.0
START_ROUNDS = 15
TIMERS = 400

# The rows of timers and watchdogs have, besides the usual process, one for each of these numbers
# alive, whose pool is made for the number. Filling takes longer than measuring: few repetitions.
MANY = {"timer": (3000, 30000, 100000), "watchdog": (10000,)}
MANY_REPETITIONS = 8

NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def command_for(build, pattern, repetitions, out):
    return [os.path.join(build, "hnetd_bench"), f"--benchmark_filter={pattern}",
            f"--benchmark_repetitions={repetitions}", f"--benchmark_min_time={MIN_TIME}",
            "--benchmark_enable_random_interleaving=true",
            f"--benchmark_out={out}", "--benchmark_out_format=json"]


def add_rows(text, rows, errors):
    """Name suffixes that say what was timed are left out."""
    for run in json.loads(text)["benchmarks"] if text.strip() else []:
        if run["run_type"] != "iteration":
            continue
        name = re.sub(r"/(process_time|real_time|manual_time|iterations:\d+)(?=/|$)", "", run["name"])
        if run.get("error_occurred"):
            errors.append(f"{name}: {run['error_message']}")
            continue
        unit = NS[run["time_unit"]]
        row = rows.setdefault(name, {"real": [], "cpu": [], "wall": "_time" in run["name"],
                                     "manual": "manual_time" in run["name"]})
        row["real"].append(run["real_time"] * unit)
        row["cpu"].append(run["cpu_time"] * unit)


def run_quietly(command, environment):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                   env=dict(os.environ, **environment))


def row_keys(build, pattern, environment):
    """The rows that a pattern is found in: what stands before the first slash of a name."""
    listed = subprocess.run([os.path.join(build, "hnetd_bench"), "--benchmark_list_tests=true",
                             f"--benchmark_filter={pattern}"], stdout=subprocess.PIPE, text=True,
                            stderr=subprocess.DEVNULL, env=dict(os.environ, **environment))
    return sorted({line.partition("/")[0] for line in listed.stdout.splitlines() if "/" in line})


def run_rows(build, pattern, repetitions, kind="", run=run_quietly, **environment):
    """Those of a kind, in random order, each row with its contestants interleaved in a process of
    its own: what disturbs one of them for some seconds disturbs the others as well."""
    rows, errors = {}, []
    keys = [key for key in row_keys(build, pattern, environment) if key.startswith(kind)]
    keys *= PROCESSES
    random.shuffle(keys)
    for key in keys:
        with tempfile.NamedTemporaryFile(suffix=".json") as out:
            each = math.ceil(repetitions / PROCESSES)
            run(command_for(build, f"^{key}/", each, out.name), environment)
            add_rows(out.read(), rows, errors)
    return rows, errors


def run_resolver_rows(build, repetitions):
    if not dns.available():
        return {}, ["dns: no network namespace or no dnsmasq here"]
    return run_rows(build, "^dns[.]", repetitions, run=dns.run, HNETD_BENCH_DNS="1")


def run_facts(build):
    with tempfile.NamedTemporaryFile() as out:
        subprocess.run([os.path.join(build, "hnetd_bench_facts"), out.name], check=True,
                       stdout=subprocess.DEVNULL)
        return {name: float(value) for name, value in
                (line.split() for line in out.read().decode().splitlines())}


class Started:
    """A process that reports through a pipe; ended on leaving."""

    def __init__(self, build, program, **environment):
        reports, mine = os.pipe()
        os.set_inheritable(mine, True)
        env = dict(os.environ, HNETD_BENCH_FD=str(mine), LD_LIBRARY_PATH=f"{build}/idle",
                   **environment)
        path = os.path.join(build, program)
        silent = [(os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0)]
        self.spawned = time.clock_gettime_ns(time.CLOCK_MONOTONIC)
        self.pid = os.posix_spawn(path, [path], env, file_actions=silent)
        os.close(mine)
        self.reports = os.fdopen(reports)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.kill(self.pid, 9)
        os.waitpid(self.pid, 0)
        self.reports.close()

    def start_ms(self):
        """From the start of the process to hnetInit, or to the same point of the floor."""
        return (int(self.reports.readline().split()[1]) - self.spawned) / 1e6

    def cpu_ns(self):
        total = 0
        for thread in os.listdir(f"/proc/{self.pid}/task"):
            with open(f"/proc/{self.pid}/task/{thread}/schedstat") as stat:
                total += int(stat.read().split()[0])
        return total

    def resident_kib(self):
        with open(f"/proc/{self.pid}/status") as status:
            return int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1))


def run_idle(build):
    """The daemon with a net library that asks nothing of it, beside a bare process."""
    programs = {"hnetd": "hnetd", "floor": "hnetd_bench_floor"}
    idle = {f"{what}.{who}": [] for who in programs for what in ("cpu", "rss", "start")}

    for _ in range(START_ROUNDS):
        for who, program in programs.items():
            with Started(build, program) as process:
                idle[f"start.{who}"].append(process.start_ms())
    for _ in range(IDLE_ROUNDS):  # both at the same time: what disturbs one disturbs the other
        with Started(build, programs["hnetd"]) as ours, Started(build, programs["floor"]) as floor:
            time.sleep(IDLE_SETTLE)
            before = ours.cpu_ns(), floor.cpu_ns()
            time.sleep(IDLE_WINDOW)
            for process, who, was in (ours, "hnetd", before[0]), (floor, "floor", before[1]):
                idle[f"cpu.{who}"].append((process.cpu_ns() - was) / IDLE_WINDOW / 1e9)
                idle[f"rss.{who}"].append(process.resident_kib())
    with Started(build, "hnetd", HNETD_BENCH_TIMERS=str(TIMERS)) as process:
        process.start_ms()
        lines = iter(process.reports.readline, "end 0\n")
        idle["lateness"] = [int(line.split()[1]) / 1000 for line in lines]
    return idle


def machine():
    with open("/proc/cpuinfo") as info:
        model = re.search(r"model name\s*: (.*)", info.read())
    with open("/etc/os-release") as release:
        system = re.search(r'PRETTY_NAME="(.*)"', release.read()).group(1)
    compiler = subprocess.run(["g++", "-dumpfullversion"], capture_output=True, text=True)
    return (f"{model.group(1) if model else platform.machine()}, "
            f"{len(os.sched_getaffinity(0))} CPUs, Linux {platform.release()}, {system}, "
            f"glibc {platform.libc_ver()[1]}, g++ {compiler.stdout.strip()} -O2")


def run_all(build, pattern, repetitions):
    began = time.monotonic()
    result = {"machine": machine(), "date": time.strftime("%Y-%m-%d"), "facts": {}, "idle": {}}
    result["rows"], result["errors"] = run_rows(build, pattern, repetitions)
    for kind, sizes in MANY.items():
        for size in sizes:
            many, errors = run_rows(build, pattern, min(repetitions, MANY_REPETITIONS), kind,
                                    HNETD_BENCH_MANY=str(size))
            result["rows"].update(many)
            result["errors"] += errors
    if re.search(pattern, "dns"):
        found, errors = run_resolver_rows(build, repetitions)
        result["rows"].update(found)
        result["errors"] += errors
    if re.search(pattern, "facts"):
        result["facts"] = run_facts(build)
    if re.search(pattern, "idle"):
        result["idle"] = run_idle(build)
    result["elapsed"] = time.monotonic() - began
    return result
