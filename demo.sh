#!/bin/sh
# Shows the main job on a virtual reader: tags from image files, polled over a pseudo-terminal; then what the memory of
# a tag can do, and a session with a smart card. Uses an installed product in build/demo/prefix and nothing else.
set -eu
cd "$(dirname "$0")"
scripts/install-packages run
mkdir -p build/demo
{
  cmake --preset release -DQVL_BUILD_TESTS=OFF -DQVL_BUILD_BENCH=OFF -DQVL_WARNINGS_AS_ERRORS=OFF -B build/demo
  cmake --build build/demo
  cmake --install build/demo --prefix "$PWD/build/demo/prefix"
} > build/demo/build.log 2>&1 || { cat build/demo/build.log; exit 1; }

bin=$PWD/build/demo/prefix/bin
export PATH="$bin:$PATH"

work=$(mktemp -d)
simulator=
finish() {
  [ -z "$simulator" ] || kill "$simulator" 2> /dev/null || true
  rm -rf "$work"
}
trap finish EXIT
cp demo/*.mfd demo/*.card demo/*.ndef demo/*.apdu "$work"
script=$PWD/demo/tag-memory.sh
cd "$work"

show() {
  echo
  echo "\$ $*"
  "$@"
}

echo "A virtual reader on a pseudo-terminal, with three tags from the files in demo/:"
echo
echo "\$ qvlreadersim --root devices --com 1 ticket.mfd door.mfd passport.card &"
mkfifo commands
qvlreadersim --root "$work/devices" --com 1 ticket.mfd door.mfd passport.card < commands > ready &
simulator=$!
exec 9> commands
for _ in $(seq 100); do
  grep -q '^ready' ready && break
  sleep 0.05
done
cat ready

# The settings of a product that may be installed on this machine play no part.
export QVL_PATH="$work" QVL_DEVICE_ROOT="$work/devices"
show qvltag info
show qvltag poll --count 3
show qvltag --json poll --forced --count 1
show qvltag led 2 on
show qvltag relay 02

echo
echo "A session with a smart card on the same line, with chains of blocks and requests for more time:"
printf 'remove %s\n' tag1 tag2 tag3 >&9
echo "place ledger.card" >&9
show qvltag apdu --uid 08a1b2c3 --script ledger.apdu
unset QVL_DEVICE_ROOT

echo
echo "And what an NFC Forum Type 4 Tag holds:"
show qvltag --virtual link.card apdu --ndef

echo
echo "The same program brings a virtual reader of its own, and keeps what was written in the image file:"
"$script" "$bin/qvltag"
