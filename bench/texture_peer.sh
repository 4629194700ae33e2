#!/usr/bin/env bash
# texture_peer.sh [FOLDER]: random look-ups in a texture of four times the cache's budget, beside
# OpenImageIO's ImageCache on the same texture as a TIFF file with tiles, with the same budget. FOLDER
# holds the built programs, build/release/bin unless told otherwise. Exits with 1 when ours takes more
# than half of the peer's time.
set -euo pipefail
export LC_ALL=C
bin=$(realpath "${1:-build/release/bin}")
here=$(dirname "$(realpath "${BASH_SOURCE[0]}")")

package=libopenimageio-dev
if [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2> /dev/null) != installed ]]; then
  as_root=()
  if [[ $EUID -ne 0 ]]; then as_root=(sudo); fi
  echo "Installing $package"
  "${as_root[@]}" apt-get -qq update
  "${as_root[@]}" apt-get -qq install --yes --no-install-recommends "$package" > /dev/null
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
g++ -std=c++20 -O3 -o "$work/peer" "$here/texture_peer.cc" -lOpenImageIO -lOpenImageIO_Util

# In turns, so that other work slows both.
for _ in 1 2 3; do
  "$bin/texture_lookups" "$work"
  "$work/peer" "$work"
done | sort -k1,2 -k3n | awk '
  { times[$1 " " $2] = times[$1 " " $2] " " $3 }
  END {
    split("anywhere patches", patterns, " ")
    for (i = 1; i <= 2; ++i) {
      split(times["lumora " patterns[i]], ours, " ")
      split(times["ImageCache " patterns[i]], peers, " ")
      printf "%-9s %6d ns, ImageCache %6d ns: %.2f of its time (at most 0.5)\n", patterns[i], ours[2], peers[2],
             ours[2] / peers[2]
      if (ours[2] > 0.5 * peers[2]) failed = 1
    }
    exit failed
  }'
