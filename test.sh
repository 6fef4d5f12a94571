#!/bin/sh
# Builds everything and runs all tests.
#   ./test.sh [PRESET]     release (default), debug, asan or tsan
set -eu
cd "$(dirname "$0")"
preset=${1:-release}
case $preset in
  asan | tsan) scripts/install-packages ci ;;
  *) scripts/install-packages test ;;
esac
cmake --preset "$preset" > /dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"
