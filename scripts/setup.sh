#!/usr/bin/env bash
# Installs the Debian packages the build needs, when they are missing.
# Safe to run again: packages already present are left alone.
set -euo pipefail

packages=(
  build-essential cmake pkg-config ccache
  libgtest-dev
  libomniorb4-dev omniidl omniorb
  libace-dev
  libssl-dev
  libsqlite3-dev
  libcli11-dev nlohmann-json3-dev libinih-dev
  # The HTTP server of the service's metrics and health endpoint.
  libcpp-httplib-dev
  openssl
  procps
  # The sanitizer and fuzzing builds of scripts/test.sh: clang with its
  # sanitizer and libFuzzer run-times, and llvm-symbolizer for readable reports.
  clang libclang-rt-14-dev llvm
  # The RADOS storage plug-in's client libraries (C interface, and the C++
  # interface's headers for its copies inside the cluster) and the
  # monitor and OSD daemons of the one-node cluster its tests start
  # (scripts/ceph-dev.sh).
  librados-dev libradospp-dev libradosstriper-dev ceph-mon ceph-osd ceph-common
  # bench/webdav_compare.sh: a WebDAV server and its client, the baseline
  # keldctl put and get are measured against.
  nginx-light curl
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all build packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
