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

# labOfSlurm: prints the folder of the laboratory of lab/start whose configuration $SLURM_CONF is. Fails for another Slurm.
labOfSlurm() {
  [[ -n ${SLURM_CONF:-} && $(head -n 1 "$SLURM_CONF" 2>/dev/null) == '# Made by lab/start: '* ]] || return 1
  dirname "$(realpath "$SLURM_CONF")"
}

# isOfLab PROCESS DIR: true if lab/start or lab/slurm/submit marked the process as one of the laboratory in DIR.
isOfLab() { grep -qsxzF "STRESS_LAB=$2" "/proc/$1/environ"; }

# jobProcesses DIR: those of its runs.
jobProcesses() {
  { grep -lsxzF "STRESS_LAB=$1" /proc/[0-9]*/environ | xargs -r grep -lsz '^SLURM_JOB_ID=' | cut -d/ -f3; } || true
}

# stepProcesses DIR: what watches over runs. They overwrite their environment, but stay in the folder of their daemon.
stepProcesses() {
  local process
  for process in $(pgrep -x slurmstepd); do
    if [[ $(readlink "/proc/$process/cwd") == "$1/log" ]]; then echo "$process"; fi
  done
}

# labProcesses DIR: all that belong to the laboratory in DIR.
labProcesses() {
  { grep -lsxzF "STRESS_LAB=$1" /proc/[0-9]*/environ | cut -d/ -f3; } || true
  stepProcesses "$1"
}
