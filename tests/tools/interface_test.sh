#!/bin/bash
# Every tool's options, manual page and completion agree, and help and version are where they belong.
#   interface_test.sh SOURCE-FOLDER TOOL...
set -uo pipefail
source=$1
shift
failures=0
# shellcheck source=../../tools/completion/lumora.bash
source "$source/tools/completion/lumora.bash"

expect() {  # WHAT EXPECTED FOUND
  [[ $2 != "$3" ]] || return 0
  printf '%s\n  expected: %s\n  found:    %s\n' "$1" "${2//$'\n'/ }" "${3//$'\n'/ }"
  failures=$((failures + 1))
}

# The options of a manual page, "Fl a , Fl -all" being two. -imgtitle, as vel_diff has it, is not in the list of vel_disp.
documented() {
  grep -E '^\.It Fl ' "$source/docs/$1.1" | grep -oE 'Fl [^ ,]+' | sed 's/^Fl /-/' | grep -vx -e -imgtitle | sort -u
}

for tool; do
  name=${tool##*/}
  options=$(_lumora_options "$tool" | sort -u)
  [[ -n $options ]] || expect "$name: options" "some" ""
  expect "$name: manual page" "$options" "$(documented "$name")"
  first=${options%%$'\n'*}
  _lumora_tool "$tool" "$first" ""
  expect "$name: completion of $first" "yes" "$([[ " ${COMPREPLY[*]} " == *" $first "* ]] && echo yes || echo no)"
  [[ $name != vel_diff ]] || continue
  for option in --help --version; do
    expect "$name $option: status 0, nothing on standard error" "0" "$("$tool" "$option" 2>&1 > /dev/null)$?"
    if "$tool" "$option" > /dev/full 2> /dev/null; then expect "$name $option: full disk" "status 1" "status 0"; fi
  done
  status=0
  "$tool" --no-such-option > /dev/null 2>&1 || status=$?
  expect "$name: wrong usage" 2 "$status"
done

for list in format type; do
  _lumora_tool "$(printf '%s\n' "$@" | grep vel_copy)" "rg" "--$list"
  expect "vel_copy --$list: completion of rg" "yes" "$([[ ${#COMPREPLY[@]} -gt 0 && ${COMPREPLY[*]} == rg* ]] && echo yes || echo no)"
done
exit $((failures > 0))
