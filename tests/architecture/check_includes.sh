#!/bin/bash
# Fails when a file includes a header that its room may not see; docs/architecture.md draws the rooms.
#   check_includes.sh SOURCE-FOLDER
set -euo pipefail
cd "$1"
status=0

# How high a folder stands: files see the public headers of their own height and below. lib/, mem/ and msg/ share the
# lowest one, the runtime core.
height_of_folder() {
  case $1 in
    tools/* | examples) echo 4 ;;
    drivers) echo 3 ;;
    img | img/formats) echo 2 ;;
    db) echo 1 ;;
    *) echo 0 ;;
  esac
}

# The same for a header of include/ka/, which its name tells.
height_of_header() {
  case $1 in
    ka/drivers*) echo 3 ;;
    ka/img*) echo 2 ;;
    ka/db* | ka/job*) echo 1 ;;
    *) echo 0 ;;
  esac
}

refuse() {
  echo "$file: $include: $1"
  status=1
}

# An include of <ka/...>: `header` is what stands in the brackets.
check_public() {
  local height
  height=$(height_of_folder "$folder")
  [[ $folder != include/ka ]] || height=$(height_of_header "${file#include/}")
  (($(height_of_header "$header") <= height)) || refuse "belongs to a room above"
  case $header in
    ka/detail/*) [[ $folder != include/ka && $folder != examples && $folder != drivers ]] || refuse "is private to the library" ;;
  esac
  case $file,$header in
    tools/measure/*,ka/message.h) refuse "is unknown to measuring and composing" ;;
    lib/messagelog*,ka/base.h | lib/messagelog*,ka/message.h | lib/messagelog*,ka/detail/context.h) ;;
    lib/messagelog*) refuse "the message log stands below everything that locks or allocates" ;;
  esac
}

# An include in quotes: a header of the file's own folder; drivers also see the core of the image library, and the core
# sees their operations. Tools see what they share, but for measuring and composing, which see only themselves.
check_private() {
  local family=${header#img_}
  case $folder,$header in
    img,formats/drivers.h) return ;;
    img/formats,img_*) [[ $file == img/formats/img*_"${family%.h}".cc ]] || refuse "belongs to another driver" ;;
    img/formats,*) [[ -f img/formats/$header || -f img/$header ]] || refuse "is in another room" ;;
    tools/measure,*) [[ -f tools/measure/$header ]] || refuse "is unknown to measuring and composing" ;;
    tools/common,*) [[ -f tools/common/$header ]] || refuse "is in another room" ;;
    tools/*,*)
      [[ -f $folder/$header || -f tools/common/$header || -f tools/measure/$header ]] || refuse "is in another room"
      ;;
    *) [[ $header != */* && -f $folder/$header ]] || refuse "is in another room" ;;
  esac
}

while IFS=: read -r file include; do
  folder=${file%/*}
  header=${include#*[<\"]}
  header=${header%%[>\"]*}
  case $include in
    *\<ka/*) check_public ;;
    *\"*) check_private ;;
  esac
done < <(grep -rEH --include='*.cc' --include='*.h' '^[[:space:]]*#[[:space:]]*include' \
  tools drivers img db lib mem msg examples include)
exit $status
