#!/bin/sh
# Runs the tool's main job on a sample build tree, twice, against a local
# receiver that stands in for the build server, and shows what the receiver
# got. Installs the Debian packages it needs first (as root).
#
#   tools/sample/run-sample.sh [WORK_DIR]
#
# WORK_DIR (default /tmp/wlinspector-sample) is made anew; it holds the
# sample tree, the start directory of the runs and what the receiver stored.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
work=${1:-/tmp/wlinspector-sample}

sh "$top/tools/install-deps.sh"

echo "== building"
cmake -S "$top" -B "$top/build/sample" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWL_TESTS=OFF >/dev/null
cmake --build "$top/build/sample" -j "$(nproc 2>/dev/null || echo 2)" --target wlinspector wlreceiver >/dev/null
tool=$top/build/sample/wlinspector
receiver=$top/build/sample/tools/receiver/wlreceiver

rm -rf "$work"
mkdir -p "$work/tree/src/io" "$work/tree/include" "$work/tree/.git" "$work/runs/reports"
printf 'int main(void) { return 0; }\n' > "$work/tree/src/main.c"
printf 'int read_all(int fd);\n' > "$work/tree/src/io/reader.c"
printf '#define VERSION "1.0"\n' > "$work/tree/include/version.h"
printf 'all:\n\tcc -o app src/main.c\n' > "$work/tree/Makefile"
printf 'ignored\n' > "$work/tree/.git/HEAD"

# The receiver listens on a free loopback port and stores the two uploads of
# each run.
inspect() {
  rm -f "$work/port"
  "$receiver" --dir "$work/received-$1" --port-file "$work/port" --count 2 --timeout 30 \
    > "$work/receiver-$1.log" &
  pid=$!
  tries=0
  while [ ! -s "$work/port" ]; do
    tries=$((tries + 1))
    [ "$tries" -lt 100 ] || { echo "receiver did not start"; exit 1; }
    sleep 0.1
  done
  # The job name holds ".bom.data", so a later run finds this run's inventory
  # (an earlier inventory is chosen only under such a name).
  (cd "$work/runs" && WEFTLANE_SERVER="http://127.0.0.1:$(cat "$work/port")" \
    "$tool" -b "$work/tree" -lj sample.bom.data -lm buildbox -ld "$2" -t REL_1 -ln "$1")
  wait "$pid"
  # Keep each change report beside the runs, so that the next run's search
  # for the earlier inventory sees inventories only.
  mv "$work"/runs/*-diff.data "$work/runs/reports/"
  echo "-- the receiver got:"
  ls "$work/received-$1"
}

echo "== first run: every file is new"
inspect 1 "2026-11-21 10:00:00"

echo "== changing the tree: one file edited, one removed, one added"
printf '/* v2 */\nint main(void) { return 2; }\n' > "$work/tree/src/main.c"
rm "$work/tree/Makefile"
printf 'void write_all(void);\n' > "$work/tree/src/io/writer.c"

echo "== second run: the report names exactly those three"
inspect 2 "2026-11-21 11:00:00"

echo "== change report of the second run, as the receiver stored it:"
cat "$work"/received-2/*-diff.data
