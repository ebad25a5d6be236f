#!/usr/bin/env bash
# Makes or lists LSUs of a disk storage server (the contract has no call that
# creates one).
#   disk-lsu.sh create [SERVER] LSU     SERVER defaults to Disk:<this host>
#   disk-lsu.sh list [SERVER]
# The install root is $KELDV_ROOT, or /usr/keldv.
set -euo pipefail
root="${KELDV_ROOT:-/usr/keldv}/keldrive/storage"
usage() { echo "usage: disk-lsu.sh create [Disk:HOST] LSU | list [Disk:HOST]" >&2; exit 2; }
valid() { [[ -n "$1" && "$1" != .* && "$1" != */* && ${#1} -lt 1024 ]]; }

cmd="${1:-}"; shift || true
server="Disk:$(hostname)"
if [[ "${1:-}" == Disk:* ]]; then server="$1"; shift; fi
host="${server#Disk:}"
valid "$host" || { echo "disk-lsu.sh: bad server name: $server" >&2; exit 2; }
dir="$root/$host"

case "$cmd" in
  create)
    lsu="${1:-}"
    valid "$lsu" || { echo "disk-lsu.sh: bad LSU name: $lsu" >&2; exit 2; }
    if [[ ! -f "$dir/server.conf" ]]; then
      mkdir -p "$dir/lsus"
      echo "# server $server" > "$dir/server.conf"
    fi
    [[ -e "$dir/lsus/$lsu" ]] && { echo "disk-lsu.sh: $lsu exists on $server" >&2; exit 1; }
    mkdir -p "$dir/lsus/$lsu/images"
    echo "created LSU $lsu on $server"
    ;;
  list)
    ls -1 "$dir/lsus" 2>/dev/null || true
    ;;
  *) usage ;;
esac
