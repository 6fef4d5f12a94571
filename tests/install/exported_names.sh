#!/bin/sh
# Compares the names that the shared library exports with the list in the tree.
#   exported_names.sh LIBRARY LIST [--update]
set -eu
library=$1
list=$2
names=$(nm -D --defined-only --demangle "$library" | cut -d' ' -f3- |
  grep -vE '^(vtable|typeinfo|VTT|construction vtable|typeinfo name|virtual thunk|non-virtual thunk|guard variable)' |
  grep -vE '^([a-z ]*std::|__|_init|_fini|operator (new|delete))' |
  LC_ALL=C sort -u)
if [ "${3:-}" = --update ]; then
  printf '%s\n' "$names" > "$list"
  exit 0
fi
printf '%s\n' "$names" | diff -u "$list" - && exit 0
echo "The exported names have changed. If that is wanted: $0 LIBRARY LIST --update" >&2
exit 1
