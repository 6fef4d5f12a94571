#!/bin/sh
# Looks for includes that point up where the build cannot: service/ and tagdata/ share one target.
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

names_of() { find "$1" -name '*.h' -exec basename {} \; | tr '\n' '|' | sed 's/|$//'; }

in_tagdata=$(names_of "$adaptor/tagdata")
if [ -n "$in_tagdata" ]; then
  grep -rnE "#include \"($in_tagdata)\"" "$adaptor/service" | complain "service/ includes tagdata/" || true
fi
grep -rnE '#include [<"](unistd|fcntl|sys/|poll|termios|pthread|windows)' "$adaptor" "$source_dir/foundation" |
  complain "an operating system above platform/" || true
# The deselection alone needs to know the TAMA driver: it asks the reader for a command of its own.
found=$(grep -rlE '#include "(NfcTamaBfl|Mf500bfl)\.h"' "$adaptor/tcl" "$adaptor/tagdata" 2>/dev/null |
  grep -v '/QvlTclDeselect\.cpp$' || true)
printf '%s\n' "$found" | complain "a concrete driver above bfl/"
exit $bad
