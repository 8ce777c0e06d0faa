# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash disable=SC2154 # root
# Sourced by the scripts that test in a bare Debian. They set $root, the folder that makeRoot fills, and remove it.

# The first process of what runs in the root. The mounts belong to a namespace that ends with it, so that nothing has to be
# unmounted.
inside=

# removeRoot: ends what runs in the root, and removes it.
removeRoot() {
  [[ -z $inside ]] || { kill -KILL "$inside" && wait "$inside"; } 2>/dev/null || true
  rm -rf --one-file-system "$root" || { sleep 2 && rm -rf --one-file-system "$root"; }
}

# debianSources SUITE: the mirrors of this machine, for another suite.
debianSources() {
  local codename uri part
  # shellcheck source=/dev/null
  codename=$(. /etc/os-release && printf '%s' "${VERSION_CODENAME:-}")
  while read -r uri part; do
    printf 'deb %s %s%s main\n' "$uri" "$1" "$part"
  done < <(apt-get update --print-uris |
    sed -nE "s#^'(.*)/dists/$codename(-updates|-security)?/InRelease'.*#\1 \2#p")
}

# makeRoot SUITE: makes a bare Debian in $root.
makeRoot() {
  local sources include=()
  sources=$(debianSources "$1")
  [[ -n $sources ]] || {
    echo "${0##*/}: no Debian mirror is among this machine's apt sources." >&2
    exit 1
  }
  [[ $sources != *https:* ]] || include=(--include=ca-certificates)
  mmdebstrap --quiet --variant=minbase "${include[@]}" "$1" "$root" - <<<"$sources"
  # What this machine's network may need: its resolver, and certificates of its own, which the package ca-certificates
  # takes up when it is installed.
  cp -L /etc/resolv.conf "$root/etc/"
  mkdir -p "$root/usr/local/share/ca-certificates"
  cp -a /usr/local/share/ca-certificates/. "$root/usr/local/share/ca-certificates/" 2>/dev/null || true
}

# withMounts COMMAND...: runs it beside the root, with /proc, /sys and /dev there. In the background, so that a signal ends
# the script at once.
withMounts() {
  # shellcheck disable=SC2016
  unshare --mount --pid --fork --kill-child bash -c '
    mount -t proc proc "$1/proc" && mount --rbind /sys "$1/sys" && mount --rbind /dev "$1/dev" && exec "${@:2}"' \
    bash "$root" "$@" &
  inside=$!
  local status=0
  wait "$inside" || status=$?
  inside=
  return "$status"
}

# inRoot FOLDER COMMAND...: runs it in this folder of the root.
inRoot() {
  # shellcheck disable=SC2016
  withMounts chroot "$root" /usr/bin/env -i --default-signal=INT,QUIT HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    TERM=dumb NODE_EXTRA_CA_CERTS=/etc/ssl/certs/ca-certificates.crt \
    bash -c 'cd "$1" && exec "${@:2}"' bash "$@"
}
