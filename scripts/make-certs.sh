#!/usr/bin/env bash
# Makes a private certificate authority and certificates signed by it, for a
# test or a small site:
#   make-certs.sh DIR [SERVER_HOST]    CA (kept if DIR/ca.key exists), server and client
#   make-certs.sh DIR --client NAME    one more client certificate, DIR/NAME.crt and .key
# Files in DIR:
#   ca.crt ca.key            the authority; ca.crt is TLS_CA_FILE, ca.key stays private
#   server.crt server.key    TLS_CERTIFICATE and TLS_PRIVATE_KEY of the service
#   client.crt client.key    a certificate for a client
# Keys are unencrypted (mode 600): the service starts unattended.
set -euo pipefail

usage() {
  echo "usage: $0 DIR [SERVER_HOST] | $0 DIR --client NAME" >&2
  exit 2
}

[ $# -ge 1 ] || usage
dir="$1"
shift
days_ca=3650
days_leaf=825

make_key() {
  (umask 077 && openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null)
}

make_ca() {
  [ -e "$dir/ca.key" ] && return
  make_key "$dir/ca.key"
  openssl req -x509 -new -key "$dir/ca.key" -sha256 -days "$days_ca" \
    -subj "/CN=keldv private CA $(date +%Y%m%d%H%M%S)-$$" \
    -addext "basicConstraints=critical,CA:TRUE" \
    -addext "keyUsage=critical,keyCertSign,cRLSign" \
    -out "$dir/ca.crt"
}

# make_leaf NAME CN USAGE [SAN]
make_leaf() {
  local name="$1" cn="$2" usage="$3" san="${4:-}"
  local ext
  ext="$(mktemp)"
  trap 'rm -f "$ext"' RETURN
  {
    echo "basicConstraints=critical,CA:FALSE"
    echo "keyUsage=critical,digitalSignature,keyEncipherment"
    echo "extendedKeyUsage=$usage"
    [ -z "$san" ] || echo "subjectAltName=$san"
  } >"$ext"
  make_key "$dir/$name.key"
  openssl req -new -key "$dir/$name.key" -subj "/CN=$cn" |
    openssl x509 -req -CA "$dir/ca.crt" -CAkey "$dir/ca.key" -CAcreateserial \
      -sha256 -days "$days_leaf" -extfile "$ext" -out "$dir/$name.crt" 2>/dev/null
}

mkdir -p "$dir"
if [ "${1:-}" = "--client" ]; then
  [ $# -eq 2 ] || usage
  [ -e "$dir/ca.key" ] || { echo "$0: no CA in $dir; run '$0 $dir' first" >&2; exit 1; }
  make_leaf "$2" "$2" clientAuth
  echo "client certificate: $dir/$2.crt  key: $dir/$2.key"
  exit 0
fi
[ $# -le 1 ] || usage
host="${1:-$(hostname -f 2>/dev/null || hostname)}"

make_ca
make_leaf server "$host" serverAuth,clientAuth "DNS:$host,DNS:localhost,IP:127.0.0.1"
make_leaf client "client" clientAuth
cat <<MSG
CA:      $dir/ca.crt        (TLS_CA_FILE)
server:  $dir/server.crt    (TLS_CERTIFICATE)  key: $dir/server.key (TLS_PRIVATE_KEY)
client:  $dir/client.crt    key: $dir/client.key
MSG
