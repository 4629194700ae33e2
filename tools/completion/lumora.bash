# Completion of vel_diff, vel_copy, vel_info and vel_disp for bash. Options are those that the tool itself prints, and
# formats and types those that it lists, so that nothing here has to follow the tools.

# The first word of each line of a list, of a tool that is there.
_lumora_list() {
  "$@" 2> /dev/null < /dev/null | while read -r word _; do printf '%s\n' "$word"; done
}

# vel_diff prints its options on standard error, with status 1.
_lumora_options() {
  case ${1##*/} in
    vel_diff) "$1" -h 2>&1 < /dev/null | grep -oE '^-[[:alpha:]]' ;;
    *) "$1" --help 2> /dev/null < /dev/null | grep -E '^ +-' | grep -oE '(^ +|,)--?[[:alpha:]][[:alpha:]-]*' | tr -d ' ,' ;;
  esac
}

_lumora_tool() {
  local tool=$1 word=$2 before=$3
  COMPREPLY=()
  case ${tool##*/}:$before in
    vel_copy:-f | vel_copy:--format) mapfile -t COMPREPLY < <(compgen -W "$(_lumora_list "$tool" -f help)" -- "$word") ;;
    vel_copy:-t | vel_copy:--type) mapfile -t COMPREPLY < <(compgen -W "$(_lumora_list "$tool" -t help)" -- "$word") ;;
    vel_copy:--fields) mapfile -t COMPREPLY < <(compgen -W "odd even both" -- "$word") ;;
    *) [[ $word != -* ]] || mapfile -t COMPREPLY < <(compgen -W "$(_lumora_options "$tool")" -- "$word") ;;
  esac
}
complete -o bashdefault -o default -F _lumora_tool vel_diff vel_copy vel_info vel_disp
