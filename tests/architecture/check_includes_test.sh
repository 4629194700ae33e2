#!/bin/bash
# Shows single includes to check_includes.sh and compares what it makes of them.
#   check_includes_test.sh WORK-FOLDER
set -euo pipefail
check=$(dirname "${BASH_SOURCE[0]}")/check_includes.sh
tree=$1/tree
status=0

while read -r expected file include; do
  rm -rf "$tree"
  mkdir -p "$tree"/{tools,img/formats,db,lib,mem,msg,examples,include/ka/detail}
  touch "$tree"/{tools/measure.h,tools/options.h,img/driver.h,img/formats/{drivers.h,img_tiff.h},mem/mem.h}
  echo "#include $include" > "$tree/$file"
  found=refused
  if bash "$check" "$tree" > /dev/null; then found=allowed; fi
  if [[ $found != "$expected" ]]; then
    echo "$file with $include is $found"
    status=1
  fi
done << 'END'
allowed img/a.cc "formats/drivers.h"
allowed img/formats/imgop_tiff.cc "driver.h"
allowed img/formats/imgop_tiff.cc "img_tiff.h"
allowed mem/a.cc <ka/detail/scope.h>
allowed lib/messagelog.cc <ka/detail/context.h>
refused img/a.cc "formats/img_tiff.h"
refused img/formats/imgop_sgi.cc "img_tiff.h"
refused db/a.cc <ka/img.h>
refused msg/a.cc "../mem/mem.h"
refused lib/messagelog.cc <ka/mem.h>
refused tools/measure.cc "options.h"
refused tools/compose.cc <ka/message.h>
refused include/ka/mem.h <ka/img.h>
refused include/ka/img.h <ka/detail/owned.h>
refused examples/a.cc <ka/detail/owned.h>
END
exit $status
