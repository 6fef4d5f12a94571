#!/bin/sh
# Shows the main job on a virtual reader: real tag images, polled over a pseudo-terminal.
set -eu
cd "$(dirname "$0")"
scripts/install-packages run
cmake --preset release -DQVL_BUILD_TESTS=OFF -DQVL_BUILD_BENCH=OFF -B build/demo > /dev/null
cmake --build build/demo > build/demo/build.log || { cat build/demo/build.log; exit 1; }

tag=build/demo/cli/qvltag
show() {
  echo
  echo "\$ qvltag $*"
  "$tag" "$@"
}

tags=$(mktemp -d)
trap 'rm -rf "$tags"' EXIT
cp demo/*.mfd demo/*.card "$tags"
cd "$tags" && tag=$OLDPWD/$tag

echo "A virtual reader on a pseudo-terminal, with tags from the image files in demo/."
show --virtual ticket.mfd info
show --virtual ticket.mfd --virtual door.mfd --virtual passport.card poll --count 3
show --virtual ticket.mfd --json poll --count 1
show --virtual ticket.mfd led 2 on
