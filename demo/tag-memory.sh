#!/bin/sh
# The memory of a tag from the factory state and back, on a virtual reader: directory, applications, values, keys and
# access conditions. At the end the tag has to be as it was at the start, byte for byte.
#   tag-memory.sh [--reader tama|mf500] [QVLTAG]
set -eu
reader=tama
if [ "${1:-}" = --reader ]; then
  reader=${2:?tama or mf500}
  shift 2
fi
tag=${1:-qvltag}
case $tag in
*/*) tag=$(cd "$(dirname "$tag")" && pwd)/$(basename "$tag") ;;
esac
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# One command on the tag, whose image keeps what it changes.
on_tag() {
  echo
  echo "\$ qvltag $*"
  "$tag" --no-wait --virtual tag.mfd --reader "$reader" --save "$@"
}

say() {
  echo
  echo "== $*"
}

# Keys in files stay off the command line, where others could read them.
printf '4d4153544552\n' > master.key
printf '446f6f724131\n' > door.a
printf '446f6f724231\n' > door.b
printf '446f6f724132\n' > new.a
printf '446f6f724232\n' > new.b
printf '507572736541\n' > purse.a
printf '507572736542\n' > purse.b

say "A tag as delivered, copied into an image"
"$tag" --no-wait --virtual new:1k:01020304 --reader "$reader" dump tag.mfd
cp tag.mfd factory.mfd
on_tag ls

say "A directory, and two applications in it"
on_tag format --new-key-b @master.key
on_tag app init 4711 2 --mad-key-b @master.key --new-key-a @door.a --new-key-b @door.b
on_tag app init 4712 1 --mad-key-b @master.key --new-key-a @purse.a --new-key-b @purse.b
on_tag app ls

say "The first holds text"
on_tag app write 4711 --text "Door 17, employee 4711" --key @door.b --key-type b
on_tag app read 4711 --key @door.a

say "The second holds money"
on_tag value init 0 100 --app 4712 --key-a @purse.a --key-b @purse.b
on_tag value dec 0 30 --app 4712 --key @purse.a
on_tag value inc 0 5 --app 4712 --key @purse.b --key-type b
shown=$(on_tag value get 0 --app 4712 --key @purse.a)
echo "$shown"
[ "${shown##*
}" = 75 ]
on_tag access show --app 4712 --key @purse.a

say "Nobody fills it up with key A"
if on_tag value inc 0 1000 --app 4712 --key @purse.a; then exit 1; fi

say "New keys for the first; the old ones are refused from then on"
on_tag key set --app 4711 --key @door.b --key-type b --new-key-a @new.a --new-key-b @new.b
on_tag app read 4711 --key @new.a
if on_tag app read 4711 --key @door.a; then exit 1; fi

say "Both applications go, and the tag is as delivered again"
on_tag app reset 4712 1 --mad-key-b @master.key --key @purse.b
on_tag ls --apps
on_tag app remove 4711 --count 2 --mad-key-b @master.key --key @new.b
on_tag app ls
on_tag unformat --key-b @master.key
# What is left of the directory is its checksum.
on_tag write 1 00

cmp tag.mfd factory.mfd
echo
echo "The image is that of the start, byte for byte."
