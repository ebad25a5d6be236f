#!/usr/bin/env bash
# Sets up the machine, builds, and runs the service in the foreground on its
# embedded default: KELDV_ROOT under the checkout, the log switched on, the
# disk and shared-memory plug-ins installed, listening on 127.0.0.1:10001.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
"$here/scripts/setup.sh"
"$here/scripts/build.sh"

build="${BUILD_DIR:-$here/build}"
export KELDV_ROOT="${KELDV_ROOT:-$here/var/keldv}"
endpoint="${KELDPXY_ENDPOINT:-iiop://127.0.0.1:10001}"

"$here/scripts/install-root.sh" "$KELDV_ROOT" "$build"

logdir="$KELDV_ROOT/keldrive/logs/keldpxy"
cat <<MSG
keldpxy: install root  $KELDV_ROOT
keldpxy: listening on  $endpoint  (corbaloc::${endpoint#iiop://}/Proxy.StorageServerManager)
keldpxy: log files in  $logdir
keldpxy: to stop it, run in another terminal:
           KELDV_ROOT=$KELDV_ROOT $build/bin/keldpxy -stop
MSG
exec "$build/bin/keldpxy" -start -ORBListenEndPoints "$endpoint"
