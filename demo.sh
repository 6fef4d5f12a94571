#!/bin/sh
# Shows the main job on a virtual reader: tags from image files, polled over a pseudo-terminal or a message socket; then
# what the memory of a tag can do, and a session with a smart card. Uses an installed product in build/demo/prefix and
# nothing else.
#   demo.sh [--reader tama|mf500]
set -eu

usage() {
  echo "usage: demo.sh [--reader tama|mf500]"
  echo "Builds the product and shows it on a virtual reader: a PN531 on a serial port (tama, the default)"
  echo "or an MF RC500 on a message socket (mf500)."
}
refuse() {
  echo "demo.sh: $1" >&2
  usage >&2
  exit 2
}
reader=tama
while [ $# -gt 0 ]; do
  case $1 in
  -h | --help) usage; exit 0 ;;
  --reader) [ $# -gt 1 ] || refuse "--reader: which one?"; reader=$2; shift 2 ;;
  *) refuse "not expected: $1" ;;
  esac
done
# What to say of the reader, and what the simulator is told.
case $reader in
tama) place="PN531 reader on a pseudo-terminal" options="--com 1" ;;
mf500) place="MF RC500 reader on a message socket" options="--reader mf500" ;;
*) refuse "--reader: \"$reader\" is neither tama nor mf500" ;;
esac

cd "$(dirname "$0")"
scripts/install-packages run
scripts/build build/demo --preset release -DBUILD_TESTING=OFF -DQVL_BUILD_BENCH=OFF -DQVL_WARNINGS_AS_ERRORS=OFF
cmake --install build/demo --prefix "$PWD/build/demo/prefix" > build/demo/install.log 2>&1 ||
  { cat build/demo/install.log; exit 1; }
echo

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
script=$PWD/demo/tag-memory.sh examples=$PWD/examples
# As on a machine where the product is installed. The Python package is built if the machine has what it needs.
library=$(dirname "$(find "$PWD/build/demo/prefix" -name libqvlmf500.so)")
python=$(find "$PWD/build/demo/prefix" -name dist-packages)
include=$PWD/build/demo/prefix/include
c++ -std=c++20 examples/count_down.cpp -o "$work/count_down" "-I$include" "-I$include/qvlmf500" \
  "-L$library" "-Wl,-rpath,$library" -lqvlmf500
cd "$work"

show() {
  echo
  echo "\$ $*"
  "$@"
}

echo "A virtual $place, with three tags from the files in demo/:"
echo
echo "\$ qvlreadersim --root devices $options ticket.mfd door.mfd passport.card &"
mkfifo commands
# shellcheck disable=SC2086
qvlreadersim --root "$work/devices" $options ticket.mfd door.mfd passport.card < commands > ready &
simulator=$!
exec 9> commands
for _ in $(seq 100); do
  grep -q '^ready' ready && break
  sleep 0.05
done
cat ready

# The settings of a product that may be installed on this machine are ignored.
export QVL_PATH="$work" QVL_DEVICE_ROOT="$work/devices"
show qvltag info
show qvltag poll --count 3
show qvltag --json poll --forced --count 1
if [ "$reader" = tama ]; then
  show qvltag led 2 on
  show qvltag relay 02
else
  echo
  echo "The library switches no lights of this reader, so \"led\" does nothing, and has no raw relay to it (status 3139):"
  show qvltag led 2 on
  if show qvltag relay 02 2> refusal; then exit 1; fi
  cat refusal
  grep -q 'status 3139' refusal
fi

echo
echo "A session with a smart card on the same line, with chains of blocks and requests for more time:"
printf 'remove %s\n' tag1 tag2 tag3 >&9
echo "place ledger.card" >&9
show qvltag apdu --uid 08a1b2c3 --script ledger.apdu

echo
echo "A ticket with a value of 10, and two hosts of a few lines that take a ride each, in C++ and in Python"
echo "(examples/count_down.cpp and examples/python/count_down.py):"
printf '%s\n' "remove tag4" "place new:1k:0badcafe" >&9
master=4d4153544552 key_a=a1a1a1a1a1a1 key_b=b1b1b1b1b1b1
ticket="--uid 0badcafe --mad-key-b $master --new-key-a $key_a --new-key-b $key_b"
show qvltag format --uid 0badcafe --new-key-b $master
# shellcheck disable=SC2086
show qvltag app init 4711 1 $ticket
show qvltag value init 0 10 --app 4711 --key-a $key_a --key-b $key_b
show qvltag write 1 --text Tram --app 4711 --key $key_b --key-type b
show "$work/count_down"
if [ -n "$python" ]; then show env PYTHONPATH="$python" /usr/bin/python3 "$examples/python/count_down.py"; fi
unset QVL_DEVICE_ROOT

echo
echo "And what an NFC Forum Type 4 Tag holds:"
show qvltag --virtual link.card --reader "$reader" apdu --ndef

echo
echo "The same program brings a virtual reader of its own, and keeps what was written in the image file:"
"$script" --reader "$reader" "$bin/qvltag"
