#!/bin/bash
# The Debian packages of a built tree: made, accepted by lintian, installed in a clean root, where the tool runs and a
# program is built. Parts are left out with a message where programs or the network are missing, the clean root also where
# LUMORA_CLEAN_ROOT is not set: it takes a minute.
#   package_test.sh CPACK BUILD-FOLDER WORK-FOLDER
set -euo pipefail
cpack=$1 build=$2 work=$3/package
skip() {
  echo "left out: $*"
  exit 77
}

command -v dpkg-deb > /dev/null || skip "dpkg-deb is not installed"
rm -rf "$work"
mkdir -p "$work"
"$cpack" --config "$build/CPackConfig.cmake" -B "$work" > "$work/log" || { cat "$work/log"; exit 1; }
packages=("$work"/*.deb)
[[ ${#packages[@]} -eq 4 ]] || { [[ ${#packages[@]} -eq 3 ]] && ! grep -q "LUMORA_VIEWER:BOOL=ON" "$build/CMakeCache.txt"; }

if command -v lintian > /dev/null; then
  run=()
  [[ $EUID -ne 0 ]] || run=(--allow-root)
  lintian "${run[@]}" --fail-on error,warning "${packages[@]}"
else
  echo "left out: lintian is not installed"
fi

[[ -n ${LUMORA_CLEAN_ROOT-} ]] || exit 0
command -v debootstrap > /dev/null || skip "debootstrap is not installed"
[[ $EUID -eq 0 ]] || skip "only root can make a clean root"
root=$work/root
trap 'rm -rf "$root"' EXIT
debootstrap --variant=minbase bookworm "$root" > "$work/log" || skip "debootstrap cannot make a clean root: $work/log"
cp "${packages[@]}" "$(dirname "${BASH_SOURCE[0]}")/consumer/consumer.c" "$root/tmp"
chroot "$root" bash -euc '
  export DEBIAN_FRONTEND=noninteractive
  apt-get -qq update
  apt-get -qq install --no-install-recommends /tmp/lumora-tools_*.deb
  vel_diff -h > /dev/null 2>&1 || [[ $? -eq 1 ]]
  apt-get -qq install --no-install-recommends /tmp/*.deb gcc libc6-dev
  gcc /tmp/consumer.c -llumora -o /tmp/consumer
  /tmp/consumer /tmp/pixel.ppm
  vel_diff /tmp/pixel.ppm /tmp/pixel.ppm
  apt-get -qq purge lumora-tools "lumora-viewer*" liblumora3 liblumora-dev
  [[ -z $(find /usr -name "*lumora*" -not -path "/usr/share/man/*") ]]
' > "$work/log" 2>&1 || { tail -n 30 "$work/log"; exit 1; }
