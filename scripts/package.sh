#!/usr/bin/env bash
# Builds the Debian package from the build tree (./build or $BUILD_DIR) and
# checks it: lintian with no error, systemd-analyze verify on its units, the
# packaged service run from the extracted package
# (tests/package/packaged_service_test.py), and, where this machine can boot
# one, the package installed under a real systemd (scripts/systemd-tryout.sh).
#   scripts/package.sh            build and check
#   scripts/package.sh --no-test  build only
# Prints the package's path last.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$here/build}"

cmake --build "$build" -j "$(nproc)"
rm -f "$build"/package/keldpxy_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
deb="$(ls "$build"/package/keldpxy_*_amd64.deb)"
[ "${1:-}" = "--no-test" ] && { echo "$deb"; exit 0; }

echo "package: lintian"
lintian --allow-root --fail-on error "$deb"

# The units name the installed binary: each is verified as a copy whose
# ExecStart points into the extracted package.  The manual pages they name
# come from another part of the tree and are not required here.
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
dpkg-deb -x "$deb" "$scratch/root"
mkdir "$scratch/units"
for unit in "$scratch"/root/lib/systemd/system/*; do
    sed "s#^ExecStart=/usr/keldv/#ExecStart=$scratch/root/usr/keldv/#" "$unit" >"$scratch/units/${unit##*/}"
done
echo "package: systemd-analyze verify"
verify="$(systemd-analyze verify --man=no "$scratch"/units/* 2>&1)"
if [ -n "$verify" ]; then
    echo "$verify" >&2
    exit 1
fi

echo "package: the packaged service"
python3 "$here/tests/package/packaged_service_test.py" "$deb"

# Installed as an administrator would, under a real systemd in a throwaway
# machine; only where this one can boot it.
if reason="$("$here/scripts/systemd-tryout.sh" --can-boot)"; then
    echo "package: under a real systemd"
    "$here/scripts/systemd-tryout.sh" "$deb"
else
    echo "package: under a real systemd: skipped, $reason"
fi
echo "$deb"
