#!/usr/bin/env bash
# test_hardening.sh FILE...: each library or program is hardened; a library made to be soft is found out.
set -euo pipefail
DIR=$(mktemp -d)
trap 'rm -rf "$DIR"' EXIT

has() { grep -qE -- "$1" <<<"$2"; }

# faults FILE: what it lacks, one a line.
faults() {
  local headers dynamic imports
  headers=$(readelf -hlW "$1")
  dynamic=$(readelf -dW "$1")
  imports=$(nm -D --undefined-only "$1")
  has 'Type: +DYN' "$headers" || echo 'loads at a fixed address'
  has 'GNU_STACK.* RW ' "$headers" || echo 'executable stack'
  has 'GNU_RELRO' "$headers" || echo 'no RELRO'
  has '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW' "$dynamic" || echo 'RELRO is not full'
  has '__stack_chk_fail' "$imports" || echo 'no stack protector'
  has '__[a-z]+_chk@' "$imports" || echo 'not fortified'
}

code=0
for file in "$@"; do
  found=$(faults "$file")
  [ -z "$found" ] || { echo "FAILED: $file: $found" >&2 && code=1; }
done

echo 'int Answer() { return 42; }' >"$DIR/soft.cpp"
"${CXX:-g++}" -shared -fPIC -fno-stack-protector -Wl,-z,execstack,-z,norelro,-z,lazy "$DIR/soft.cpp" -o "$DIR/soft.so"
[ "$(faults "$DIR/soft.so" | wc -l)" = 5 ] || { echo "FAILED: seen in a soft library: $(faults "$DIR/soft.so")" >&2 && code=1; }
exit $code
