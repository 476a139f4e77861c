#!/usr/bin/env bash
# Every C or C++ block in README.md and docs/*.md is either an excerpt of a program in
# examples/ (which the build compiles and the tests run) or compiles on its own: wrapped
# in a function that has the handle names the docs use (h, handle, dev) as parameters,
# against the public headers, with warnings as errors.
# Usage: doc_snippets.sh SOURCE_DIR
set -uo pipefail
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
checked=0
for doc in "$src"/README.md "$src"/docs/*.md; do
  # Split the fenced blocks into files: LANG.LINE.snippet
  awk -v dir="$work" -v base="$(basename "$doc")" '
    /^```(c|cpp)[[:space:]]*$/ && !inside { inside = 1; lang = substr($0, 4); sub(/[[:space:]]*$/, "", lang);
                                             file = dir "/" base "." NR "." lang; next }
    /^```/ && inside { inside = 0; close(file); next }
    inside { print > file }' "$doc"
done
for snippet in "$work"/*.c "$work"/*.cpp; do
  [ -e "$snippet" ] || continue
  checked=$((checked + 1))
  name=$(basename "$snippet")
  where="${name%.*}"                      # DOC.md.LINE
  where="${where%.*}:${where##*.}"
  # An excerpt of an example: its text appears verbatim in one of them.
  if python3 - "$snippet" "$src"/examples/*.c "$src"/examples/*.cpp <<'PY'
import sys
text = open(sys.argv[1]).read()
sys.exit(0 if any(text in open(f).read() for f in sys.argv[2:]) else 1)
PY
  then continue; fi
  lang=${name##*.}
  {
    grep -E '^#include' "$snippet"
    echo '#include <veltrix/veltrix.h>'
    echo 'void doc_snippet(unsigned int h, unsigned int handle, unsigned int dev) {'
    echo '  (void)h; (void)handle; (void)dev;'
    grep -vE '^#include' "$snippet"
    echo '}'
  } >"$work/unit.$lang"
  if [ "$lang" = c ]; then
    compiler=(cc -std=c99)
  else
    compiler=(c++ -std=c++17)
  fi
  if ! "${compiler[@]}" -Wall -Werror -Wno-unused-variable -Wno-unused-but-set-variable \
      -I"$src/include" -c "$work/unit.$lang" -o "$work/unit.o" 2>"$work/err"; then
    echo "doc_snippets: the block at $where is not an excerpt of examples/ and does not compile:"
    cat "$work/err"
    status=1
  fi
done
echo "doc_snippets: $checked blocks checked"
[ "$checked" -gt 0 ] || status=1
exit $status
