#!/bin/sh
# Peak memory of one inspection run whose SCM client prints hundreds of
# megabytes: a fake svn first on PATH prints MB of NUL bytes in one line,
# about a quarter as much again in short noise lines, then the one entry
# the run needs. The client's output is read a piece at a time, so peak
# memory should stay flat as MB grows. Uploads go to a closed port on
# 127.0.0.1 and fail at once. Needs python3 (for the children's peak memory).
#
# usage: bench/scm_output.sh [build-dir] [MB...]   (default build, 100 300)
set -eu
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
[ $# -gt 0 ] && shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/tree" "$work/bin" "$work/home"
echo 'int main(void) { return 0; }' > "$work/tree/a.c"
for mb in ${*:-100 300}; do
  cat > "$work/bin/svn" <<SVN
#!/bin/sh
head -c $((mb * 1000000)) /dev/zero
echo
yes 'Path: noise' | head -c $((mb * 240000))
printf 'Path: a.c\nRevision: 3\nNode Kind: file\n'
SVN
  chmod +x "$work/bin/svn"
  rm -f "$work"/*.data
  kib=$(cd "$work" && env -i PATH="$work/bin:/usr/bin:/bin" HOME="$work/home" \
    WEFTLANE_SERVER=http://127.0.0.1:1 python3 -c '
import resource, subprocess, sys
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, check=True)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)' \
    "$build/wlinspector" -b "$work/tree" -c SVN -lj job -lm box -ld "2020-10-14 10_20_30")
  printf '%s MB of client output: peak %s KiB, a.c at revision %s\n' "$mb" "$kib" \
    "$(grep -c '; 3;' "$work"/*-bom.data || true)"
done
