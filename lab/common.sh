# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Sourced by the scripts of this folder and of slurm/. The comment at the top of each script is its help.
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"

say() { printf '%s: %s\n' "${0##*/}" "$*" >&2; }
die() {
  say "$@"
  exit 2
}

# needProgram NAME PACKAGE: ends the script if the program is missing. Slurm's daemons lie in /usr/sbin.
needProgram() {
  PATH=$PATH:/usr/sbin:/sbin
  command -v "$1" >/dev/null || die "$1 is missing: install Debian's package $2."
}

# findScope: the stress_scope to use: $STRESS_SCOPE, that of the build, or the installed one.
findScope() {
  local built
  built=$(realpath -m "$(dirname "${BASH_SOURCE[0]}")/../build/bin/stress_scope")
  if [[ -n ${STRESS_SCOPE:-} ]]; then
    realpath "$STRESS_SCOPE"
  elif [[ -x $built ]]; then
    printf '%s\n' "$built"
  else
    command -v stress_scope || die 'stress_scope is missing: build it (./scripts/build release), install it, or set STRESS_SCOPE.'
  fi
}

# isOfLab PROCESS DIR: true if the process belongs to the laboratory in DIR: lab/start marks its daemons, lab/night its jobs.
isOfLab() { tr '\0' '\n' 2>/dev/null <"/proc/$1/environ" | grep -qxF "STRESS_LAB=$2"; }

# labProcesses DIR: the processes that belong to the laboratory in DIR.
labProcesses() {
  local process
  for process in /proc/[0-9]*; do
    ! isOfLab "${process##*/}" "$1" || printf '%s\n' "${process##*/}"
  done 2>/dev/null
}
