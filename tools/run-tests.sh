#!/bin/sh
# Builds and runs every test twice: with the dev preset (warnings are errors),
# then with the asan preset (AddressSanitizer and UndefinedBehaviorSanitizer,
# leak detection on). Fails when any build step or test fails.
#
#   tools/run-tests.sh [BUILD_ROOT]     (default: build/ in the source tree;
#                                        the builds go to BUILD_ROOT/dev and
#                                        BUILD_ROOT/asan)
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
root=${1:-$top/build}
jobs=$(nproc 2>/dev/null || echo 2)
# Many tests wait (on clients, on servers that stay silent until a timeout),
# so ctest runs twice as many at once as there are processors.
test_jobs=$((jobs * 2))

sh "$top/tools/install-deps.sh"

# Ninja keeps every core busy across targets and starts faster than make
# (a build directory made earlier keeps the generator it was made with).
if command -v ninja >/dev/null 2>&1 && [ ! -f "$root/dev/CMakeCache.txt" ]; then
  export CMAKE_GENERATOR=Ninja
fi

# Line tables only (-g1): enough for sanitizer reports and backtraces, and
# the debug information of full -g is a good part of the compile time.
cd "$top"
echo "== build and test (dev preset: warnings are errors)"
cmake --preset dev -B "$root/dev" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG"
cmake --build "$root/dev" -j "$jobs"
ctest --test-dir "$root/dev" --output-on-failure -j "$test_jobs"

echo "== build and test under AddressSanitizer and UndefinedBehaviorSanitizer (asan preset)"
cmake --preset asan -B "$root/asan" -DCMAKE_CXX_FLAGS_DEBUG="-g1"
cmake --build "$root/asan" -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir "$root/asan" --output-on-failure -j "$test_jobs"
