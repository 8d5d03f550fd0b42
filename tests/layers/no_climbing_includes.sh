#!/bin/sh
# Fails when a product source includes a header by a path that climbs out of
# its folder ("../app/..." or "scan/../app/...") or starts at the root: such a path would reach
# around the include folders that keep each layer to the layers below it.
#
#   no_climbing_includes.sh SOURCE_DIR
cd "$1" || exit 2
if grep -rnE '#include[[:space:]]*"(/|([^"]*/)?\.\./)' platform engine queue scan intake app ui tools eventhelper korvane; then
  echo "includes above climb out of their folders" >&2
  exit 1
fi
exit 0
