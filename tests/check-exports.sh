#!/bin/sh
# Lists the symbols that a shared library defines for its consumers and fails
# when one of them is not part of the library's exported interface.
set -eu
lib=$1
syms=$(nm -D --defined-only -C "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }')
[ -n "$syms" ] || { echo "no exported symbols in $lib"; exit 1; }
bad=$(printf '%s\n' "$syms" | grep -vE \
  '^(Tovi|TOVI|SetToviAppExit|GetCmdCodefromString|(typeinfo|typeinfo name|vtable) for Tovi)|^TOVI_[0-9A-Z_.]*$|^ *$' || true)
if [ -n "$bad" ]; then
  echo "unexpected exported symbols:"
  printf '%s\n' "$bad"
  exit 1
fi
printf '%s\n' "$syms" | grep -q '^ToviGetCfgString(' || { echo "ToviGetCfgString is not exported"; exit 1; }
echo "exported symbols: $(printf '%s\n' "$syms" | wc -l)"
