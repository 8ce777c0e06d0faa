# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Completes the options of make_network, whose names it takes from the program's own help, and file names.

_make_network() {
  COMPREPLY=()
  [[ $2 == -* ]] || return 0
  mapfile -t COMPREPLY < <(compgen -W "$("$1" --help 2>/dev/null | grep -oE -- '--[a-z][a-z-]+' | sort -u)" -- "$2")
}

complete -o default -F _make_network make_network
