# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Completes the options of platform_conformance, whose names it takes from the program's own help, and file names.

_platform_conformance() {
  COMPREPLY=()
  [[ $2 == -* ]] || return 0
  mapfile -t COMPREPLY < <(compgen -W "$("$1" --help 2>/dev/null | grep -oE -- '--[a-z][a-z-]+' | sort -u)" -- "$2")
}

complete -o default -F _platform_conformance platform_conformance
