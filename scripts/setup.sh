#!/usr/bin/env bash
# Installs the Debian packages that are missing:
#   setup.sh          what building and running the service needs
#   setup.sh --test   and what the tests, the sanitizer and fuzzing builds
#                     and the package check add
# Safe to run again: packages already present are left alone.
set -euo pipefail

build_and_run=(
  build-essential cmake pkg-config ccache
  libomniorb4-dev omniidl omniorb
  libace-dev
  libssl-dev
  libsqlite3-dev
  libcli11-dev nlohmann-json3-dev libinih-dev
  # The HTTP server of the service's metrics and health endpoint.
  libcpp-httplib-dev
  # sd_notify: the service tells systemd when it is ready and when it stops.
  libsystemd-dev
  openssl
  procps
  # The RADOS storage plug-in's client libraries (C interface, and the C++
  # interface's headers for its copies inside the cluster).
  librados-dev libradospp-dev libradosstriper-dev
)

testing=(
  libgtest-dev
  # The sanitizer and fuzzing builds of scripts/test.sh: clang with its
  # sanitizer and libFuzzer run-times, and llvm-symbolizer for readable reports.
  clang libclang-rt-14-dev llvm
  # The monitor and OSD daemons of the one-node cluster the RADOS tests
  # start (scripts/ceph-dev.sh).
  ceph-mon ceph-osd ceph-common
  # The package check (scripts/package.sh): the Debian package's own
  # checker, file(1) for CPack's dependency scan, systemd-analyze for the
  # units, python3 for the test that runs the packaged service.
  lintian file systemd python3
  # bench/webdav_compare.sh: a WebDAV server and its client, the baseline
  # keldctl put and get are measured against.
  nginx-light curl
  # The tests render the manual pages (man, groff).
  man-db groff-base
)

packages=("${build_and_run[@]}")
case "${1:-}" in
"") ;;
--test) packages+=("${testing[@]}") ;;
*) echo "usage: $0 [--test]" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
