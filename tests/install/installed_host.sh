#!/bin/sh
# Installs the product into a new prefix, builds the example host there by CMake package and by pkg-config, and lets it
# find a tag on each reader of the installed simulator.
#   installed_host.sh SOURCE_DIR BUILD_DIR CMAKE
set -eu
source_dir=$1
build_dir=$2
cmake=$3
work=$(mktemp -d)
simulator=
cleanup() {
  [ -z "$simulator" ] || kill "$simulator" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

"$cmake" --install "$build_dir" --prefix "$work/prefix" > "$work/install.log"
cp -r "$source_dir/examples/host" "$work/host"
"$cmake" -S "$work/host" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" > "$work/configure.log"
"$cmake" --build "$work/build" > "$work/build.log"

lib=$(dirname "$(find "$work/prefix" -name libqvlmf500.so)")
flags=$(PKG_CONFIG_PATH="$lib/pkgconfig" pkg-config --cflags --libs qvlmf500)
# shellcheck disable=SC2086
c++ -std=c++17 "$work/host/main.cpp" -o "$work/by_pkg_config" $flags

export QVL_DEVICE_ROOT="$work/devices"
export LD_LIBRARY_PATH="$lib"
mkfifo "$work/commands"
for reader in tama mf500; do
  log=$work/$reader.log
  "$work/prefix/bin/qvlreadersim" --root "$QVL_DEVICE_ROOT" --reader "$reader" new:1k:cafebabe \
    < "$work/commands" > "$log" &
  simulator=$!
  exec 9> "$work/commands"
  for _ in $(seq 100); do
    grep -q '^ready' "$log" && break
    sleep 0.05
  done
  for host in "$work/build/example_host" "$work/by_pkg_config"; do
    "$host" 10 > "$work/host.log" || { cat "$work/host.log" "$log" >&2; exit 1; }
    grep -q '^tag cafebabe, Mifare Standard$' "$work/host.log"
  done
  exec 9>&-
  wait "$simulator"
  simulator=
done
test -f "$work/prefix/share/man/man1/qvltag.1"
"$work/prefix/bin/qvltag" --version > /dev/null
echo "the installed host found its tag on both readers"
