#!/usr/bin/env python3
"""Whole-run speed and memory of an inspection, against md5sum.

Generates two deterministic build trees (reused when already present):
  small: about 30,000 files of 1 to 16 KiB over about 1,500 nested directories
  large: a few files of 256 MiB
For each tree it runs, alternately and several times each, with a warm page
cache:
  - a whole inspection (-b <tree>, a job name holding ".bom.data") in a start
    directory that holds the inventory of an earlier run, so the run scans
    and digests every file, loads the earlier inventory, compares, and writes
    the change report and the new inventory (uploads go to a closed loopback
    port and fail at once);
  - find TREE -type f -print0 | xargs -0 md5sum > /dev/null
and prints the medians, their ratio, MB/s and the inspection's peak resident
memory per file (ru_maxrss of the child / number of files).

Targets: inspection <= 1.2 x md5sum on both trees; peak RSS < 2 KiB per file.
The figures are wall-clock times on whatever else the machine is doing, so
run it on a quiet machine and compare medians, not single runs.

usage: bench/inventory_bench.py [--data DIR] [--binary PATH] [--runs N]
         [--small-files N] [--dirs N] [--large-files N] [--large-mib N]
         [--only small|large]
Data goes to --data (default /tmp/wlinspector-bench), never into the
repository. Without --binary the script builds build/bench (RelWithDebInfo,
as CI does) first.
"""

import argparse
import os
import random
import shutil
import statistics
import subprocess
import sys
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
JOB = "bench.bom.data"
MACHINE = "m1"
DATE = "2026-01-02 03:04:05"
SEED = 20260102


def log(msg):
    print(msg, flush=True)


def build_binary():
    build = os.path.join(REPO, "build", "bench")
    # The optimisation level CI builds with; warnings do not stop a benchmark.
    subprocess.run(["cmake", "-S", REPO, "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                    "-DWL_TESTS=OFF", "-DWL_WERROR=OFF"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build, "--target", "wlinspector", "-j", "2"],
                   check=True, stdout=subprocess.DEVNULL)
    return os.path.join(build, "wlinspector")


def tree_is_current(root, stamp):
    try:
        with open(os.path.join(root, ".bench-stamp")) as f:
            return f.read() == stamp
    except OSError:
        return False


def mark_tree(root, stamp):
    # Hidden name: the scan records it, but it is tiny, and md5sum sees it too.
    with open(os.path.join(root, ".bench-stamp"), "w") as f:
        f.write(stamp)


def make_small_tree(root, files, dirs):
    stamp = f"small files={files} dirs={dirs} seed={SEED}\n"
    if tree_is_current(root, stamp):
        return
    log(f"generating {files} files over {dirs} directories in {root}")
    shutil.rmtree(root, ignore_errors=True)
    rng = random.Random(SEED)
    paths = [root]
    os.makedirs(root)
    for i in range(dirs - 1):
        parent = paths[rng.randrange(len(paths))]
        d = os.path.join(parent, f"d{i:04d}")
        os.mkdir(d)
        paths.append(d)
    for i in range(files):
        d = paths[rng.randrange(len(paths))]
        with open(os.path.join(d, f"f{i:05d}.dat"), "wb") as f:
            f.write(rng.randbytes(rng.randint(1024, 16 * 1024)))
    mark_tree(root, stamp)


def make_large_tree(root, count, mib):
    stamp = f"large files={count} mib={mib} seed={SEED}\n"
    if tree_is_current(root, stamp):
        return
    log(f"generating {count} files of {mib} MiB in {root}")
    shutil.rmtree(root, ignore_errors=True)
    os.makedirs(root)
    rng = random.Random(SEED + 1)
    block = bytearray(rng.randbytes(1 << 20))
    for i in range(count):
        with open(os.path.join(root, f"big{i}.bin"), "wb") as f:
            for m in range(mib):
                block[0:16] = f"{i:07d}:{m:07d}:".encode()
                f.write(block)
    mark_tree(root, stamp)


def tree_stats(root):
    count = 0
    total = 0
    for dirpath, _, names in os.walk(root):
        for n in names:
            count += 1
            total += os.lstat(os.path.join(dirpath, n)).st_size
    return count, total


def warm(root):
    subprocess.run(f"find '{root}' -type f -print0 | xargs -0 cat > /dev/null", shell=True,
                   check=True)


def run_child(argv, cwd, env):
    """Runs argv in cwd with stdout to /dev/null; returns (wall seconds, exit
    code, peak resident memory in KiB, CPU seconds of the child and the
    descendants it waited for)."""
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
    cpu = usage.ru_utime + usage.ru_stime
    return seconds, os.waitstatus_to_exitcode(status), usage.ru_maxrss, cpu


def inspection_env():
    return {"PATH": "/usr/bin:/bin", "HOME": "/tmp", "LC_ALL": "C", "TZ": "UTC",
            "WEFTLANE_SERVER": "http://127.0.0.1:1"}


def prepare_start(start, binary, tree):
    """A start directory holding exactly one earlier inventory of tree."""
    shutil.rmtree(start, ignore_errors=True)
    os.makedirs(start)
    argv = [binary, "-b", tree, "-lj", JOB, "-lm", MACHINE, "-ld", DATE]
    _, status, _, _ = run_child(argv, start, inspection_env())
    if status != 0:
        sys.exit(f"seeding run failed with status {status}")
    for name in os.listdir(start):
        if not name.endswith("-01-bom.data"):
            os.unlink(os.path.join(start, name))
    return argv


def reset_start(start):
    # Keep only the earlier inventory: later outputs (and the change reports,
    # whose names also hold ".bom.data") would change what the next run finds.
    for name in os.listdir(start):
        if not name.endswith("-01-bom.data"):
            os.unlink(os.path.join(start, name))


def check_found_earlier(start, argv):
    out = subprocess.run(argv, cwd=start, env=inspection_env(), capture_output=True,
                         text=True, check=False).stdout
    reset_start(start)
    if "Loading comparison data: " not in out:
        sys.exit("the inspection did not load the earlier inventory:\n" + out)


def bench_tree(label, tree, start, binary, runs):
    count, total = tree_stats(tree)
    log(f"\n== {label}: {count} files, {total / 2**20:.1f} MiB ({tree})")
    argv = prepare_start(start, binary, tree)
    check_found_earlier(start, argv)
    md5 = ["/bin/sh", "-c", f"find '{tree}' -type f -print0 | xargs -0 md5sum > /dev/null"]
    warm(tree)
    ours, theirs, rss, ours_cpu, theirs_cpu = [], [], [], [], []
    for i in range(runs):
        secs, status, maxrss, cpu = run_child(argv, start, inspection_env())
        reset_start(start)
        if status != 0:
            sys.exit(f"inspection failed with status {status}")
        ours.append(secs)
        ours_cpu.append(cpu)
        rss.append(maxrss)
        secs, status, _, cpu = run_child(md5, None, dict(os.environ))
        if status != 0:
            sys.exit(f"md5sum pipeline failed with status {status}")
        theirs.append(secs)
        theirs_cpu.append(cpu)
        log(f"  run {i + 1}: inspection {ours[-1]:.3f} s (cpu {ours_cpu[-1]:.3f} s, "
            f"maxrss {maxrss} KiB), md5sum {theirs[-1]:.3f} s (cpu {theirs_cpu[-1]:.3f} s)")
    m_ours = statistics.median(ours)
    m_theirs = statistics.median(theirs)
    ratio = m_ours / m_theirs
    per_file = statistics.median(rss) * 1024 / count
    mb = total / 1e6
    log(f"  median inspection {m_ours:.3f} s ({mb / m_ours:.0f} MB/s), "
        f"median md5sum {m_theirs:.3f} s ({mb / m_theirs:.0f} MB/s)")
    log(f"  ratio inspection/md5sum {ratio:.2f} (target <= 1.20: "
        f"{'met' if ratio <= 1.2 else 'MISSED'})")
    cpu_ratio = statistics.median(ours_cpu) / statistics.median(theirs_cpu)
    log(f"  CPU time (user+sys, less sensitive to other load): inspection "
        f"{statistics.median(ours_cpu):.3f} s, md5sum pipeline {statistics.median(theirs_cpu):.3f} s, "
        f"ratio {cpu_ratio:.2f}")
    log(f"  peak RSS {statistics.median(rss)} KiB = {per_file:.0f} bytes per file"
        + (f" (target < 2048: {'met' if per_file < 2048 else 'MISSED'})" if count > 1000 else ""))
    return ratio, per_file


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--data", default="/tmp/wlinspector-bench")
    p.add_argument("--binary")
    p.add_argument("--runs", type=int, default=5)
    p.add_argument("--small-files", type=int, default=30000)
    p.add_argument("--dirs", type=int, default=1500)
    p.add_argument("--large-files", type=int, default=4)
    p.add_argument("--large-mib", type=int, default=256)
    p.add_argument("--only", choices=["small", "large"])
    a = p.parse_args()

    data = os.path.abspath(a.data)
    if data == REPO or data.startswith(REPO + os.sep):
        sys.exit("--data must lie outside the repository")
    binary = os.path.abspath(a.binary) if a.binary else build_binary()
    log(f"binary {binary}; data under {data}; {a.runs} runs each; "
        f"{os.cpu_count()} cpus; load average {os.getloadavg()[0]:.2f}")

    if a.only in (None, "small"):
        small = os.path.join(data, "small")
        make_small_tree(small, a.small_files, a.dirs)
        bench_tree("small files", small, os.path.join(data, "start-small"), binary, a.runs)
    if a.only in (None, "large"):
        large = os.path.join(data, "large")
        make_large_tree(large, a.large_files, a.large_mib)
        bench_tree("large files", large, os.path.join(data, "start-large"), binary, a.runs)


if __name__ == "__main__":
    main()
