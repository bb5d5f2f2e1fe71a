#!/bin/sh
# Text hygiene of the tracked files (see .editorconfig): no trailing blanks,
# no carriage returns, a final newline. The fuzz corpora are raw inputs and
# exempt. Prints each offending file and line; fails when there is one.
set -eu
cd "$(dirname "$0")/.."
status=0
if git grep -n -I -E '[[:blank:]]+$' -- . ':!fuzz/corpus'; then
  echo "lint: trailing blanks above" >&2
  status=1
fi
if git grep -n -I "$(printf '\r')" -- . ':!fuzz/corpus'; then
  echo "lint: carriage returns above" >&2
  status=1
fi
unended=$(git ls-files -- . ':!fuzz/corpus' | while IFS= read -r f; do
  if [ -s "$f" ] && [ -n "$(tail -c 1 "$f")" ] && grep -Iq . "$f"; then
    echo "lint: $f: no newline at the end"
  fi
done)
if [ -n "$unended" ]; then
  echo "$unended" >&2
  status=1
fi
exit $status
