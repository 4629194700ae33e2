#!/bin/bash
# Installs what is missing on a Debian 12 machine: what building needs, with the argument "test" also what
# scripts/test.sh needs, a second compiler and the programs that read and write the same formats, and with "check"
# what scripts/check.sh needs besides.
# Where everything is there it does nothing and takes no time.
set -euo pipefail

packages=(g++ cmake ninja-build libjpeg62-turbo-dev libgtest-dev libbenchmark-dev pkgconf
          libdeflate-dev zlib1g-dev libopenexr-dev libwebp-dev libtiff-dev libcli11-dev
          nlohmann-json3-dev libsdl2-dev)
if [[ ${1-} == test || ${1-} == check ]]; then
  packages+=(ffmpeg ghostscript imagemagick libjpeg-turbo-progs libtiff-tools netpbm openimageio-tools webp
             xvfb xdotool
             clang-14 clang-tidy-14)
fi
if [[ ${1-} == check ]]; then
  packages+=(clang-format-14 libclang-rt-14-dev mandoc lintian debootstrap)
fi

if ! command -v dpkg-query > /dev/null; then
  echo "This is not a Debian system. What is needed, under Debian's names: ${packages[*]}" >&2
  exit 0  # it may be there all the same; the build tells what is not
fi

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2> /dev/null || true)
  [[ $status == installed* ]] || missing+=("$package")
done
[[ ${#missing[@]} -gt 0 ]] || exit 0

as_root=()
if [[ $EUID -ne 0 ]]; then
  if ! command -v sudo > /dev/null; then
    echo "To be installed by root: apt-get install ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
apt_get() {
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o Acquire::Retries=3 -o DPkg::Lock::Timeout=300 \
    -o Dpkg::Use-Pty=0 "$@" < /dev/null > /dev/null
}

echo "Installing ${missing[*]}; this can take some minutes."
apt_get update
apt_get install --yes --no-install-recommends "${missing[@]}"
