#!/bin/sh
# Compares the names that the shared library exports with the list in the tree.
#   exported_names.sh LIBRARY LIST [--update]
set -eu
library=$1
list=$2
# Left out: vtables and their kind, guards, and what a compiler instantiates of the standard library.
names=$(nm -D --defined-only "$library" | cut -d' ' -f3 |
  grep -vE '^(_ZT|_ZGV|_Z(Z?St|Z?NK?(St|S[abdios]|9__gnu_cxx)|nw|na|dl|da)|__|_init|_fini)' |
  c++filt | LC_ALL=C sort -u)
if [ "${3:-}" = --update ]; then
  printf '%s\n' "$names" > "$list"
  exit 0
fi
printf '%s\n' "$names" | diff -u "$list" - && exit 0
echo "The exported names have changed. If that is wanted: $0 LIBRARY LIST --update" >&2
exit 1
