#!/bin/sh
# Installs the Debian packages that building, testing, the sample run and CI
# need, when any is missing. Needs root (apt-get); otherwise it only names
# what is missing.
#   build and tests:   cmake g++ ninja-build libgtest-dev, subversion and cvs
#                      (real clients in the tests and the sample), python3, perl,
#                      nginx (the proxy of the upload test)
#   CI only:           clang (second release compiler), pkg-config, dpkg-dev and
#                      file (the .deb and its dependencies), man-db (man page check)
set -eu
packages="cmake g++ make ninja-build libgtest-dev subversion cvs python3 perl nginx
          clang pkg-config dpkg-dev file man-db"
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $p"
done
[ -n "$missing" ] || exit 0
if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  # shellcheck disable=SC2086
  apt-get install -y $missing
else
  echo "missing Debian packages:$missing (install them as root: apt-get install -y$missing)" >&2
  exit 1
fi
