#!/usr/bin/env bash
# Sets up the machine, builds what the service needs (no tests, no
# benchmarks) and runs the service in the foreground on its embedded
# default: KELDV_ROOT under the checkout, the log switched on, the storage
# plug-ins installed, listening on 127.0.0.1:10001.  One line says when it
# is ready; Ctrl-C stops it.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
"$here/scripts/setup.sh"
"$here/scripts/build.sh" -DKELD_BUILD_TESTS=OFF

build="${BUILD_DIR:-$here/build}"
export KELDV_ROOT="${KELDV_ROOT:-$here/var/keldv}"
endpoint="${KELDPXY_ENDPOINT:-iiop://127.0.0.1:10001}"
address="${endpoint#iiop://}"
host="${address%:*}"
port="${address##*:}"

"$here/scripts/install-root.sh" "$KELDV_ROOT" "$build"

"$build/bin/keldpxy" -start -ORBListenEndPoints "$endpoint" &
pid=$!
# A background process of a script ignores Ctrl-C: the script passes it on
# as the service's stop signal.
trap 'kill -TERM "$pid" 2>/dev/null || true' INT TERM

# Ready once the endpoint takes connections; a service that failed to start
# has said why on standard error.
until (exec 3<>"/dev/tcp/$host/$port") 2>/dev/null; do
    if ! kill -0 "$pid" 2>/dev/null; then
        wait "$pid" && exit 0 || exit $?
    fi
    sleep 0.2
done
echo "keldpxy: ready at corbaloc::$address/Proxy.StorageServerManager (install root $KELDV_ROOT, log in $KELDV_ROOT/keldrive/logs/keldpxy); stop it with Ctrl-C or KELDV_ROOT=$KELDV_ROOT $build/bin/keldpxy -stop"

status=0
while kill -0 "$pid" 2>/dev/null; do
    wait "$pid" && status=0 || status=$?
done
exit "$status"
