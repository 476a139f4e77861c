#!/bin/sh
# Every function the shared library exports must be defined through the guarded export
# macro, which lists its name in the "veltrix_exports" section. Prints the names that
# differ and fails when the two sets are not the same.
set -eu
lib=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
nm -D --defined-only "$lib" | awk '$2 == "T" || $2 == "W" || $2 == "i" {print $3}' | sort -u >"$dir/exported"
objcopy -O binary --only-section=veltrix_exports "$lib" "$dir/section"
tr '\0' '\n' <"$dir/section" | grep -v '^$' | sort -u >"$dir/guarded"
if [ ! -s "$dir/exported" ]; then echo "no exported functions found in $lib"; exit 1; fi
status=0
unguarded=$(comm -23 "$dir/exported" "$dir/guarded")
if [ -n "$unguarded" ]; then echo "exported without the guard:"; echo "$unguarded"; status=1; fi
hidden=$(comm -13 "$dir/exported" "$dir/guarded")
if [ -n "$hidden" ]; then echo "guarded but not exported:"; echo "$hidden"; status=1; fi
echo "$(wc -l <"$dir/exported") exported functions, all guarded: $([ $status = 0 ] && echo yes || echo no)"
exit $status
