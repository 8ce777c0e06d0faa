# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Sourced by the scripts beside it. The comment at the top of each script is its help.

# Prints the help of the script.
printHelp() { sed -n '2,/^[^#]/{/^# SPDX-/d;s/^# \{0,1\}//p;}' "$0"; }

# answerHelp "$@": if --help or -h is among the arguments, prints the script's help and ends it. Nothing precedes this.
answerHelp() {
  local argument
  for argument; do
    if [[ $argument == --help || $argument == -h ]]; then
      printHelp
      exit 0
    fi
  done
}

# refuse [REASON]: ends the script with status 2, its usage on standard error.
refuse() {
  if (($#)); then printf '%s: %s\n' "${0##*/}" "$1" >&2; fi
  printHelp | sed -n '/^usage: /,/^$/p' >&2
  exit 2
}
