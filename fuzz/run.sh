#!/bin/sh
# Builds the fuzz targets with clang and libFuzzer (AddressSanitizer and
# UndefinedBehaviorSanitizer on) and fuzzes each target in turn for SECONDS,
# starting from its seed corpus. New inputs go to BUILD/corpus/<target>
# (not into the repository); crashes, leaks and timeouts are written to
# BUILD/findings/<target>/ and the script goes on with the next target.
# Add a finding to fuzz/corpus/<target>/ once it is fixed.
#
#   fuzz/run.sh SECONDS [TARGET...]      (default: every target)
#
# Environment: WL_FUZZ_BUILD (build directory, default build-fuzz/ in the
# source tree), WL_FUZZ_JOBS (build jobs, default 2), WL_FUZZ_NICE (nice
# level of the fuzzing, default 19).
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:?usage: fuzz/run.sh SECONDS [TARGET...]}
shift
build=${WL_FUZZ_BUILD:-$top/build-fuzz}
jobs=${WL_FUZZ_JOBS:-2}
level=${WL_FUZZ_NICE:-19}

# clang and its libFuzzer runtime; installed here only, so that the normal
# build and CI need neither.
if ! command -v clang++ >/dev/null 2>&1 ||
   ! ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1; then
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update
    apt-get install -y clang cmake ninja-build
    apt-get install -y libclang-rt-14-dev 2>/dev/null || true
  else
    echo "fuzz/run.sh: clang with libFuzzer is needed (apt-get install clang libclang-rt-14-dev)" >&2
    exit 1
  fi
fi

targets=$*
if [ -z "$targets" ]; then
  targets=$(sed -n '/^set(WL_FUZZ_TARGETS/,/)/p' "$top/fuzz/CMakeLists.txt" |
            tr -d '()' | sed 's/set//; s/WL_FUZZ_TARGETS//')
fi

generator=""
command -v ninja >/dev/null 2>&1 && generator="-G Ninja"
# shellcheck disable=SC2086
CC=clang CXX=clang++ cmake -S "$top" -B "$build" $generator -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DWL_FUZZ=ON -DWL_SANITIZE=ON -DWL_WERROR=OFF -DWL_TESTS=OFF >/dev/null
for t in $targets; do
  cmake --build "$build" -j "$jobs" --target "fuzz_$t"
done

# The targets write their scratch files below TMPDIR; memory is much faster
# than a disk for that.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  export TMPDIR=/dev/shm
fi

status=0
for t in $targets; do
  work="$build/corpus/$t"
  findings="$build/findings/$t"
  mkdir -p "$work" "$findings"
  echo "== fuzz_$t for $seconds s"
  log="$build/fuzz_$t.log"
  if ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
     nice -n "$level" "$build/fuzz/fuzz_$t" "$work" "$top/fuzz/corpus/$t" \
       -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=8192 \
       -artifact_prefix="$findings/" -print_final_stats=1 >"$log" 2>&1; then
    :
  else
    status=1
    echo "fuzz_$t: finding, see $log and $findings/"
  fi
  grep -E '^stat::number_of_executed_units|^stat::average_exec_per_sec|^stat::new_units_added|^stat::peak_rss_mb' "$log" || true
  ls "$findings" 2>/dev/null | sed 's/^/  finding: /'
done
exit $status
