#!/bin/sh
# Shows the tool's whole job on a real Subversion workspace: builds wlinspector
# and wlreceiver, makes a repository and a workspace, builds the workspace,
# inspects it, commits a change (one file edited, one added, one deleted),
# builds and inspects again, with wlreceiver standing in for the build server.
# Prints the second change report as the receiver stored it: the "C" line of
# the edited file carries its svn history and diff. Installs the Debian
# packages it needs first (as root).
#
#   tools/sample/run-sample.sh
#
# Everything it makes goes to a new directory under $TMPDIR (or /tmp), named
# at the end; the tool itself is built in build/sample/ of the source tree.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)

sh "$top/tools/install-deps.sh"

echo "== building wlinspector and wlreceiver (build/sample)"
if command -v ninja >/dev/null 2>&1 && [ ! -f "$top/build/sample/CMakeCache.txt" ]; then
  export CMAKE_GENERATOR=Ninja
fi
(cd "$top" && cmake --preset release -B "$top/build/sample" >/dev/null)
cmake --build "$top/build/sample" -j "$(nproc 2>/dev/null || echo 2)" --target wlinspector wlreceiver >/dev/null
tool=$top/build/sample/wlinspector
receiver=$top/build/sample/tools/receiver/wlreceiver

work=$(mktemp -d "${TMPDIR:-/tmp}/wlinspector-sample.XXXXXX")
repo=$work/repo        # the Subversion repository
ws=$work/workspace     # its working copy, which is also the build tree
runs=$work/runs        # where wlinspector runs and leaves its files
mkdir -p "$runs/reports"
# The run's SCM client calls and svn itself see only this sample's settings.
export HOME="$work/home" LC_ALL=C TZ=UTC
mkdir -p "$HOME"

echo "== a repository with a small C project, checked out in $ws"
svnadmin create "$repo"
svn checkout -q "file://$repo" "$ws"
mkdir -p "$ws/src" "$ws/include"
printf 'all: app\napp: src/main.c src/util.c\n\tcc -Iinclude -o app src/main.c src/util.c\n' > "$ws/Makefile"
printf '#include "version.h"\nint util(void);\nint main(void) { return util(); }\n' > "$ws/src/main.c"
printf 'int util(void) { return 0; }\n' > "$ws/src/util.c"
printf '#define VERSION "1.0"\n' > "$ws/include/version.h"
printf 'Sample project.\n' > "$ws/README"
svn add -q "$ws/Makefile" "$ws/src" "$ws/include" "$ws/README"
svn commit -q -m "First version" "$ws"
svn update -q "$ws"

# One receiver for both runs: it numbers what arrives 1, 2, 3, 4 and stops
# after the four uploads (or after 60 s without one).
"$receiver" --dir "$work/received" --port-file "$work/port" --count 4 --idle-exit 60 \
  > "$work/receiver.log" &
receiver_pid=$!
tries=0
while [ ! -s "$work/port" ]; do
  tries=$((tries + 1))
  [ "$tries" -lt 100 ] || { echo "wlreceiver did not start"; kill "$receiver_pid"; exit 1; }
  sleep 0.1
done
export WEFTLANE_SERVER="http://127.0.0.1:$(cat "$work/port")"

# The job name holds ".bom.data" and -b is the same absolute path each time:
# only then does a run find the previous run's inventory. Each change report
# is moved to reports/ after its run, since earlier reports in the start
# directory can hide that inventory.
inspect() {
  (cd "$ws" && make -s)
  (cd "$runs" && "$tool" -b "$ws" -c SVN -lj sample.bom.data -lm buildbox -ld "$1" -t "$2") \
    > "$work/run-$2.log"
  mv "$runs"/*-diff.data "$runs/reports/"
  echo "-- wlinspector: $(tail -n 1 "$work/run-$2.log") (output in $work/run-$2.log)"
}

echo "== build and first inspection: every file is new"
inspect "2026-11-21 10:00:00" REL_1

echo "== a commit: src/main.c edited, src/extra.c added, src/util.c deleted"
printf '#include "version.h"\nint extra(void);\nint main(void) { return extra(); }\n' > "$ws/src/main.c"
printf 'int extra(void) { return 0; }\n' > "$ws/src/extra.c"
printf 'app: src/main.c src/extra.c\n\tcc -Iinclude -o app src/main.c src/extra.c\n' > "$ws/Makefile"
svn add -q "$ws/src/extra.c"
svn rm -q "$ws/src/util.c"
svn commit -q -m "Replace util by extra" "$ws"
svn update -q "$ws"

echo "== build and second inspection"
inspect "2026-11-21 11:00:00" REL_2

wait "$receiver_pid"
echo "== what wlreceiver got (one line per uploaded file):"
sed 1d "$work/receiver.log"

echo "== the second change report, as wlreceiver stored it:"
echo "   (D deleted, A added, C changed; a C line is followed by svn info and"
echo "   svn diff of the file against the revision of the previous run. app is"
echo "   a build output svn does not know, so its detail is svn's error text.)"
cat "$work"/received/4-*-diff.data

cat <<EOF
== files
  repository          $repo
  workspace (tree)    $ws
  wlinspector's files $runs (inventories) and $runs/reports (change reports)
  run logs            $work/run-REL_1.log, $work/run-REL_2.log
  received uploads    $work/received (1-4; see wlreceiver(1))
Remove $work when done.
EOF
