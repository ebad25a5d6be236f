#!/usr/bin/env bash
# Checks that no layer reaches up or sideways:
#   check-layers.sh [SOURCE_DIR]
# What the service and the client side share (src/sts/proxy/common) uses
# neither; the service (src/sts/proxy/server) and the client side (src/cl)
# never use each other; the remote plug-in and keldctl share only
# src/cl/sts/proxy/client; keldctl knows the storage plug-ins only through
# the framework (the servers they list, the texts of their numbers), never
# by their insides, so that a new plug-in needs no change there.  Both the includes (by header name) and the link
# graph of a scratch configuration are checked.  Prints each wrong arrow and
# exits 1 when there is one.
set -euo pipefail
src="$(cd "${1:-$(dirname "$0")/..}" && pwd)"
status=0

common=src/sts/proxy/common
server=src/sts/proxy/server
client=src/cl/sts/proxy/client
remote=src/cl/sts/proxy/remote
keldctl=src/cl/sts/proxy/keldctl
plugins=src/sts/plugins

# Fails when a file under FROM includes a header that lives under one of TO.
no_includes() {
  local from="$1" to header file
  shift
  for to in "$@"; do
    while IFS= read -r header; do
      while IFS= read -r file; do
        echo "wrong include: ${file#"$src"/} includes $header of $to"
        status=1
      done < <(grep -rlE "^[[:space:]]*#[[:space:]]*include[[:space:]]*[\"<]([^\">]*/)?$header[\">]" "$src/$from" || true)
    done < <(find "$src/$to" -name '*.h' -printf '%f\n')
  done
}

no_includes "$common" "$server" "$client" "$remote" "$keldctl"
no_includes "$server" "$client" "$remote" "$keldctl"
no_includes src/cl "$server"
no_includes "$remote" "$keldctl"
no_includes "$keldctl" "$remote" "$plugins"

# The link graph: CMake writes, per target, what it depends on, directly or
# not (deps.dot.TARGET).
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
cmake -S "$src" -B "$scratch/build" --graphviz="$scratch/graph/deps.dot" >"$scratch/configure.log" 2>&1 ||
  { cat "$scratch/configure.log"; exit 1; }

# Fails when TARGET depends on one of the targets that follow.
no_links() {
  local target="$1" graph="$scratch/graph/deps.dot.$1" other
  shift
  [ -f "$graph" ] || { echo "no target $target in the build"; status=1; return; }
  for other in "$@"; do
    if grep -q "label = \"$other\"" "$graph"; then
      echo "wrong link: $target depends on $other"
      status=1
    fi
  done
}

no_links proxy_common proxy_server_core proxy_client sts_remote keldctl
no_links proxy_server_core proxy_client sts_remote keldctl
no_links proxy_client proxy_server_core sts_remote keldctl
no_links sts_remote proxy_server_core keldctl
no_links keldctl proxy_server_core proxy_common sts_remote sts_disk disk_store sts_shmem shmem_lsu

[ "$status" -eq 0 ] && echo "layers: no include or link reaches up or sideways"
exit "$status"
