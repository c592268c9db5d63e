#!/usr/bin/env bash
# The parts of the provider reach each other only through the headers that docs/architecture.md lists under
# "Seams between the parts": a product file of one part that includes any other header of another part
# fails, and so does a listed header that does not exist.
#   seams_test.sh SOURCE_DIR
set -euo pipefail
cd "$1"
parts='wmi|monitor|device|channels'
seams=$(awk '/^## Seams between the parts/{on=1; next} /^## /{on=0} on' docs/architecture.md |
        { grep -oE "\`($parts)/[a-z_0-9]+\.h\`" || true; } | tr -d '`' | sort -u)
[ -n "$seams" ] || { echo "docs/architecture.md lists no seams"; exit 1; }
status=0
for header in $seams; do
    [ -f "$header" ] || { echo "listed seam $header does not exist"; status=1; }
done
for file in $(ls wmi/*.{cpp,h} monitor/*.{cpp,h} device/*.{cpp,h} channels/*.{cpp,h} 2>/dev/null); do
    own=${file%%/*}
    while IFS= read -r included; do
        part=${included%%/*}
        [ "$part" = "$own" ] && continue
        if ! grep -qxF "$included" <<<"$seams"; then
            echo "$file includes $included, which is not a seam of $part"
            status=1
        fi
    done < <(sed -nE "s@^#include \"\.\./(($parts)/[^\"]+)\".*@\1@p" "$file")
done
[ $status -eq 0 ] && echo "$(wc -w <<<"$seams") seams; every cross-part include goes through one"
exit $status
