#!/bin/sh
# Builds everything and runs all tests.
#   ./test.sh [PRESET]     release (default), debug, asan or tsan
set -eu
cd "$(dirname "$0")"
preset=${1:-release}
case $preset in
  release | debug) scripts/install-packages test ;;
  asan | tsan) scripts/install-packages ci ;;
  *) echo "usage: test.sh [release | debug | asan | tsan]" >&2; exit 2 ;;
esac
scripts/build "build/$preset" --preset "$preset"
echo "Testing build/$preset"
ctest --preset "$preset"
