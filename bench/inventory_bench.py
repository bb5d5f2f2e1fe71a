#!/usr/bin/env python3
"""Whole-run speed and memory of an inspection, against md5sum.

Generates deterministic build trees under --data (reused when present):
  small: 30,000 files of 1 to 16 KiB over 1,500 nested directories
  deep:  20,000 files of 1 to 4 KiB in one directory
  large: 6 files of 256 MiB
  one:   one file of 1 GiB
  1m:    1,000,000 files of 1 to 2 KiB over 1,000 directories (--with-1m)
  wide:  150 directories of 1,000 empty files and one of 50,000 (--with-wide;
         the scale check that used to be a unit test)
For each tree it runs, in interleaved rounds with a warm page cache:
  first   an inspection with no earlier inventory (every file "added")
  second  an inspection whose start directory holds the inventory of an
          earlier run (loaded and compared: the usual case)
  md5     find TREE -type f -print0 | xargs -0 md5sum
  md5-P2  the same with xargs -P2 (two md5sum processes at once)
and prints per command the median wall time, its ratio to md5, the median
CPU time (user+system) and the peak resident memory per file (a child's peak
counts from this script's own size, so a figure at that floor is marked
"<=": the command's own peak is that or less).

Only public tools are used: python3, find, xargs, md5sum (and the binary).
Wall times depend on what else the machine does: the load average is
printed before each tree; compare medians, and prefer a quiet machine.

usage: bench/inventory_bench.py [--data DIR] [--binary PATH] [--rounds N]
         [--only NAME[,NAME...]] [--with-1m] [--with-wide] [--threads N]
Without --binary the script builds build/bench (RelWithDebInfo) first.
"""

import argparse
import os
import random
import resource
import shutil
import statistics
import subprocess
import sys
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
JOB = "bench.bom.data"  # holds ".bom.data", so the earlier inventory is found
MACHINE = "m1"
DATE = "2026-01-02 03:04:05"
SEED = 20260102


def log(msg):
    print(msg, flush=True)


def build_binary():
    build = os.path.join(REPO, "build", "bench")
    subprocess.run(["cmake", "-S", REPO, "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                    "-DWL_TESTS=OFF", "-DWL_WERROR=OFF"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build, "--target", "wlinspector", "-j", "2"],
                   check=True, stdout=subprocess.DEVNULL)
    return os.path.join(build, "wlinspector")


def stamp_ok(root, stamp):
    try:
        with open(os.path.join(root, ".bench-stamp")) as f:
            return f.read() == stamp
    except OSError:
        return False


def fresh(root, stamp):
    """True when root must be generated (it is then emptied)."""
    if stamp_ok(root, stamp):
        return False
    log(f"generating {root}: {stamp.strip()}")
    shutil.rmtree(root, ignore_errors=True)
    os.makedirs(root)
    return True


def mark(root, stamp):
    with open(os.path.join(root, ".bench-stamp"), "w") as f:
        f.write(stamp)


def make_files(root, files, dirs, low, high, nested):
    stamp = f"files={files} dirs={dirs} sizes={low}-{high} nested={nested} seed={SEED}\n"
    if not fresh(root, stamp):
        return
    rng = random.Random(SEED)
    paths = [root]
    for i in range(dirs - 1):
        parent = paths[rng.randrange(len(paths))] if nested else root
        d = os.path.join(parent, f"d{i:04d}")
        os.mkdir(d)
        paths.append(d)
    pool = rng.randbytes(1 << 20)
    for i in range(files):
        d = paths[rng.randrange(len(paths))] if dirs > 1 else root
        n = rng.randint(low, high)
        at = rng.randrange(len(pool) - n)
        with open(os.path.join(d, f"f{i:07d}.dat"), "wb") as f:
            f.write(i.to_bytes(8, "little") + pool[at:at + n - 8])
    mark(root, stamp)


def make_big(root, count, mib):
    stamp = f"big files={count} mib={mib} seed={SEED}\n"
    if not fresh(root, stamp):
        return
    rng = random.Random(SEED + 1)
    block = bytearray(rng.randbytes(1 << 20))
    for i in range(count):
        with open(os.path.join(root, f"big{i}.bin"), "wb") as f:
            for m in range(mib):
                block[0:16] = f"{i:07d}:{m:07d}:".encode()
                f.write(block)
    mark(root, stamp)


def make_wide(root):
    stamp = f"wide seed={SEED}\n"
    if not fresh(root, stamp):
        return
    for d in range(151):
        sub = os.path.join(root, f"d{d % 10}", f"e{d}")
        os.makedirs(sub)
        for f in range(50000 if d == 150 else 1000):
            open(os.path.join(sub, f"f{f:06d}"), "wb").close()
    mark(root, stamp)


def tree_stats(root):
    count = total = 0
    for dirpath, _, names in os.walk(root):
        for n in names:
            count += 1
            total += os.lstat(os.path.join(dirpath, n)).st_size
    return count, total


def run_child(argv, cwd, env):
    """(wall seconds, exit code, peak RSS KiB, CPU seconds) of argv, stdout
    to /dev/null."""
    devnull = os.open(os.devnull, os.O_WRONLY)
    old = os.getcwd()
    try:
        if cwd:
            os.chdir(cwd)
        start = time.perf_counter()
        pid = os.posix_spawn(argv[0], argv, env,
                             file_actions=[(os.POSIX_SPAWN_DUP2, devnull, 1)])
    finally:
        os.chdir(old)
        os.close(devnull)
    _, status, usage = os.wait4(pid, 0)
    seconds = time.perf_counter() - start
    return seconds, os.waitstatus_to_exitcode(status), usage.ru_maxrss, \
        usage.ru_utime + usage.ru_stime


def inspection_env(threads):
    env = {"PATH": "/usr/bin:/bin", "HOME": "/tmp", "LC_ALL": "C", "TZ": "UTC",
           "WEFTLANE_SERVER": "http://127.0.0.1:1"}
    if threads:
        env["WEFTLANE_THREADS"] = str(threads)
    return env


def keep_only_earlier(start):
    # Later outputs (and reports, whose names also hold ".bom.data") would
    # change what the next run finds.
    for name in os.listdir(start):
        if not name.endswith("-01-bom.data"):
            os.unlink(os.path.join(start, name))


def bench_tree(label, tree, data, binary, rounds, threads):
    count, total = tree_stats(tree)
    log(f"\n== {label}: {count} files, {total / 2**20:.1f} MiB; "
        f"load average {os.getloadavg()[0]:.2f}")
    argv = [binary, "-b", tree, "-lj", JOB, "-lm", MACHINE, "-ld", DATE]
    env = inspection_env(threads)
    first_dir = os.path.join(data, f"start-{label}-first")
    second_dir = os.path.join(data, f"start-{label}-second")
    for d in (first_dir, second_dir):
        shutil.rmtree(d, ignore_errors=True)
        os.makedirs(d)
    if run_child(argv, second_dir, env)[1] != 0:
        sys.exit("seeding run failed")
    keep_only_earlier(second_dir)
    out = subprocess.run(argv, cwd=second_dir, env=env, capture_output=True, text=True).stdout
    keep_only_earlier(second_dir)
    if "Loading comparison data: " not in out:
        sys.exit("the inspection did not load the earlier inventory:\n" + out)
    per = max(1, min(256, count // 8))
    commands = {
        "first": (argv, first_dir, env),
        "second": (argv, second_dir, env),
        "md5": (["/bin/sh", "-c", f"find '{tree}' -type f -print0 | xargs -0 md5sum"],
                None, dict(os.environ)),
        "md5-P2": (["/bin/sh", "-c",
                    f"find '{tree}' -type f -print0 | xargs -0 -P2 -n {per} md5sum"],
                   None, dict(os.environ)),
    }
    subprocess.run(commands["md5"][0], stdout=subprocess.DEVNULL, check=True)  # warm the cache
    wall = {k: [] for k in commands}
    cpu = {k: [] for k in commands}
    rss = {k: [] for k in commands}
    for r in range(rounds):
        order = list(commands) if r % 2 == 0 else list(reversed(commands))
        for name in order:
            args, cwd, cenv = commands[name]
            secs, status, maxrss, used = run_child(args, cwd, cenv)
            if cwd == first_dir:
                for n in os.listdir(first_dir):
                    os.unlink(os.path.join(first_dir, n))
            elif cwd == second_dir:
                keep_only_earlier(second_dir)
            if status != 0:
                sys.exit(f"{name} failed with status {status}")
            wall[name].append(secs)
            cpu[name].append(used)
            rss[name].append(maxrss)
        log(f"  round {r + 1}: " + ", ".join(f"{k} {wall[k][-1]:.3f}s" for k in commands))
    base = statistics.median(wall["md5"])
    # A child's peak counts from this script's own resident size (the child
    # starts as a copy of it), so a peak at or below that only says "at most".
    floor = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    log(f"  {'command':8} {'wall s':>8} {'x md5':>6} {'cpu s':>8} {'MB/s':>7} {'peak B/file':>12}")
    for k in commands:
        w = statistics.median(wall[k])
        peak = statistics.median(rss[k])
        per_file = peak * 1024 / max(count, 1)
        mark = "<=" if peak <= floor * 1.02 else ""
        log(f"  {k:8} {w:8.3f} {w / base:6.2f} {statistics.median(cpu[k]):8.3f} "
            f"{total / 1e6 / w:7.0f} {mark:>2}{per_file:10.0f}")
    log(f"  (peaks marked <= are this script's own {floor} KiB: the command's is that or less)")


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--data", default="/tmp/wlinspector-bench")
    p.add_argument("--binary")
    p.add_argument("--rounds", type=int, default=5)
    p.add_argument("--only", help="comma-separated: small,deep,large,one,1m,wide")
    p.add_argument("--with-1m", action="store_true")
    p.add_argument("--with-wide", action="store_true")
    p.add_argument("--threads", type=int, help="WEFTLANE_THREADS for the inspections")
    a = p.parse_args()

    data = os.path.abspath(a.data)
    if data == REPO or data.startswith(REPO + os.sep):
        sys.exit("--data must lie outside the repository")
    binary = os.path.abspath(a.binary) if a.binary else build_binary()
    names = ["small", "deep", "large", "one"] + (["1m"] if a.with_1m else []) + \
        (["wide"] if a.with_wide else [])
    if a.only:
        names = a.only.split(",")
    log(f"binary {binary}; data under {data}; {a.rounds} rounds; {os.cpu_count()} cpus")
    makers = {
        "small": lambda r: make_files(r, 30000, 1500, 1024, 16 * 1024, True),
        "deep": lambda r: make_files(r, 20000, 1, 1024, 4 * 1024, False),
        "large": lambda r: make_big(r, 6, 256),
        "one": lambda r: make_big(r, 1, 1024),
        "1m": lambda r: make_files(r, 1000000, 1000, 1024, 2 * 1024, True),
        "wide": make_wide,
    }
    for name in names:
        root = os.path.join(data, name)
        makers[name](root)
        bench_tree(name, root, data, binary, a.rounds, a.threads)


if __name__ == "__main__":
    main()
