# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Completes the commands and options of stress_scope. It takes their names from the program's own help.

_stress_scope() {
  local program=$1 word=$2 previous=$3 command='' i help value
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    if [[ ${COMP_WORDS[i]} != -* ]]; then
      command=${COMP_WORDS[i]}
      break
    fi
  done
  help=$("$program" ${command:+"$command"} --help 2>/dev/null) || return 0
  if [[ -z $command && $word != -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(sed -n '/^Commands:/,/^$/s/^  \([a-z][a-z]*\) .*/\1/p' <<<"$help")" -- "$word")
    return 0
  fi
  if [[ $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(sed -nE 's/^  (-[a-z], )?(--[a-z-]+)( .*)?$/\2/p' <<<"$help")" -- "$word")
    return 0
  fi
  # The word in capitals after an option says what it takes.
  value=
  [[ $previous != -* ]] || value=$(sed -nE "s/^  ([^ ]*, )*$previous(, --[a-z-]+)? ([A-Z]+)( .*)?\$/\\3/p" <<<"$help")
  case $value in
    '' | FILE | DIR) ;; # file names, by "-o default" below
    WHEN) mapfile -t COMPREPLY < <(compgen -W 'auto always never' -- "$word") ;;
    *) compopt +o default 2>/dev/null || true ;;
  esac
}

complete -o default -F _stress_scope stress_scope
