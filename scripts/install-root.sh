#!/usr/bin/env bash
# Lays out an install root for a built tree:
#   install-root.sh ROOT BUILD_DIR
# ROOT/lib/stsplugins gets the built storage plug-ins, ROOT/lib the client
# database library, ROOT/keldrive/logs/keldpxy is created so that the service
# logs.  Safe to run again.
set -euo pipefail
root="$1"
build="$(cd "$2" && pwd)"
mkdir -p "$root/lib/stsplugins" "$root/keldrive/logs/keldpxy"
for plugin in "$build"/lib/stsplugins/*.so; do
  [ -e "$plugin" ] || continue
  ln -sfn "$plugin" "$root/lib/stsplugins/$(basename "$plugin")"
done
ln -sfn "$build/lib/libKdbMT.so" "$root/lib/libKdbMT.so"
