#!/bin/sh
# Report upload speed and memory: posts reports of growing size through
# UploadFile to a loopback server that drops the body, and prints time,
# throughput and the growth of peak resident memory for each. Time should
# grow linearly with the size and memory by about one copy of the report.
#
# usage: bench/net_upload.sh [build-dir] [sizes in MB...]
# (default build/release, configured and built here when missing; sizes
# 25 50 100 200)
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/release}
[ $# -gt 0 ] && shift
sizes=${*:-25 50 100 200}
if [ ! -x "$build/bench/net_upload_bench" ]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$build" --target net_upload_bench -j 2 >/dev/null
fi
for mb in $sizes; do
  "$build/bench/net_upload_bench" "$mb" | grep '^upload bench:'
done
