#!/bin/sh
# Looks for includes that the build cannot refuse.
set -eu
source_dir=$1
adaptor=$source_dir/Adaptors/src/qvlmf500
bad=0

# complain TITLE: reads "file:line" from standard input.
complain() {
  while IFS= read -r found; do
    [ -n "$found" ] || continue
    echo "$1: $found" >&2
    bad=1
  done
}

grep -rnE '#include [<"](unistd|fcntl|sys/|poll|termios|pthread|windows)' "$adaptor" "$source_dir/foundation" |
  complain "an operating system above platform/" || true
grep -rnE '#include "(NfcTamaBfl|Mf500bfl)\.h"' "$adaptor/tcl" "$adaptor/tagops" |
  complain "a concrete driver above bfl/" || true
exit $bad
