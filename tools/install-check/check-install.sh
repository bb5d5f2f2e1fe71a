#!/bin/sh
# Checks what users get from an install: installs a configured build into a
# fresh staging prefix, builds a small program against the installed library
# twice (CMake find_package, then pkg-config) and runs it, checks the man
# pages with `man --warnings`, then builds the .deb, prints its control data
# and contents, and builds the program once more against the package's files
# (unpacked into a directory, not installed). Fails when anything fails.
#
#   tools/install-check/check-install.sh BUILD_DIR
#
# BUILD_DIR must already be built (CI uses the release preset).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:?usage: check-install.sh BUILD_DIR}" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/wl-install-check.XXXXXX")
trap 'rm -rf "$work"' EXIT
stage=$work/stage
expected="Weftlane(R) 7.5.1 Build 10142020 equal=1"

echo "== install into $stage"
cmake --install "$build" --prefix "$stage" >/dev/null
(cd "$stage" && find . -type f | sort)
for f in bin/wlinspector bin/wlreceiver share/man/man1/wlinspector.1 share/man/man1/wlreceiver.1 \
         lib/cmake/wlinspector/wlinspectorConfig.cmake lib/pkgconfig/wlinspector.pc; do
  [ -f "$stage/$f" ] || { echo "check-install: $f was not installed" >&2; exit 1; }
done

echo "== a program built with find_package(wlinspector)"
cmake -S "$here/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$work/consumer" >/dev/null
out=$("$work/consumer/consumer")
echo "$out"
[ "$out" = "$expected" ]

echo "== a program built with pkg-config wlinspector"
flags=$(PKG_CONFIG_PATH="$stage/lib/pkgconfig" pkg-config --cflags --libs wlinspector)
echo "pkg-config: $flags"
# shellcheck disable=SC2086
${CXX:-c++} -o "$work/consumer-pc" "$here/consumer/consumer.cc" $flags
out=$("$work/consumer-pc")
echo "$out"
[ "$out" = "$expected" ]

echo "== man pages"
for page in "$stage"/share/man/man1/*.1; do
  warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)
  if [ -n "$warnings" ]; then
    echo "$warnings" >&2
    echo "check-install: man --warnings complains about $(basename "$page")" >&2
    exit 1
  fi
  echo "$(basename "$page"): no warnings"
done

echo "== Debian package"
(cd "$work" && cpack --config "$build/CPackConfig.cmake" -B "$work/deb" >/dev/null 2>&1) ||
  { echo "check-install: cpack failed" >&2; exit 1; }
deb=$(ls "$work"/deb/*.deb)
dpkg-deb --field "$deb"
dpkg-deb --field "$deb" Depends | grep -q 'libc6' ||
  { echo "check-install: the package names no run-time dependencies" >&2; exit 1; }
dpkg-deb --contents "$deb" | awk '{print $1, $NF}'
echo "== a program built with pkg-config against the unpacked package"
dpkg-deb -x "$deb" "$work/unpacked"
flags=$(PKG_CONFIG_PATH="$work/unpacked/usr/lib/pkgconfig" pkg-config --cflags --libs wlinspector)
# shellcheck disable=SC2086
${CXX:-c++} -o "$work/consumer-deb" "$here/consumer/consumer.cc" $flags
out=$("$work/consumer-deb")
echo "$out"
[ "$out" = "$expected" ]
"$work/unpacked/usr/bin/wlreceiver" --help | head -n 1
mkdir -p "$build/packages"
cp "$deb" "$build/packages/"
echo "package: $build/packages/$(basename "$deb")"
