#!/usr/bin/env bash
# keldctl put and get through the service against what an administrator
# might use instead: a WebDAV server (nginx's dav module, PUT and GET with
# curl), on the same disk, in alternating rounds.  keldctl syncs what it
# stores and restores, so each curl is followed by an fsync of the stored or
# restored file; every side starts after a sync, so that none pays for the
# write-back of another's bytes.  Prints the medians with the lowest and
# highest round, and the ratios against the target (keldctl >= 1.1 x curl).
#   bench/webdav_compare.sh [MiB, default 1024] [rounds, default 5]
# The build is taken from $BUILD_DIR (default ./build); the scratch
# directory (images, stored and restored files, nginx's body buffers) from
# $SCRATCH_PARENT (default /tmp), the source file lies in /dev/shm.
set -euo pipefail

here="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$here/build}"
mib="${1:-1024}"
rounds="${2:-5}"
nginx=/usr/sbin/nginx
keldctl="$build/bin/keldctl"
keldpxy="$build/bin/keldpxy"
target=1.1

for tool in "$nginx" "$keldctl" "$keldpxy" /usr/bin/curl; do
  [ -x "$tool" ] || { echo "webdav_compare: $tool is missing (build first; nginx-light and curl from scripts/setup.sh)" >&2; exit 2; }
done
[[ "$mib" =~ ^[1-9][0-9]*$ && "$rounds" =~ ^[1-9][0-9]*$ ]] || { echo "usage: $0 [MiB] [rounds]" >&2; exit 2; }

scratch="$(mktemp -d "${SCRATCH_PARENT:-/tmp}/keldv-webdav-XXXXXX")"
source_dir="$(mktemp -d /dev/shm/keldv-webdav-XXXXXX)"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$scratch" "$source_dir"
}
trap cleanup EXIT

# A port on 127.0.0.1 that nothing listens on now.
free_port() {
  local port
  while :; do
    port=$((20000 + RANDOM % 20000))
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then echo "$port"; return; fi
  done
}

wait_for() {   # wait_for WHAT COMMAND...: up to 30 s
  local what="$1"; shift
  for _ in $(seq 300); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
  echo "webdav_compare: $what did not start" >&2
  exit 1
}

# ---- the service, on an install root of its own (log on, as installed) ----
root="$scratch/root"
mkdir -p "$root/lib/stsplugins" "$root/keldrive/storage" "$root/keldrive/logs/keldpxy"
ln -s "$build"/lib/stsplugins/*.so "$root/lib/stsplugins/"
export KELDV_ROOT="$root"
service_port="$(free_port)"
"$keldpxy" -start -ORBListenEndPoints "iiop://127.0.0.1:$service_port" 2>"$scratch/keldpxy.err" &
pids+=($!)
wait_for "keldpxy" grep -rqs "succeed to advertise object EventChannelManager" "$root/keldrive/logs/keldpxy"
server="Disk:$(hostname)"
proxy=(--proxy "127.0.0.1:$service_port")

# ---- nginx with PUT, its body buffers on the same disk, no access log ----
dav="$scratch/dav"
mkdir -p "$dav" "$scratch/nginx/body" "$scratch/nginx/logs"
dav_port="$(free_port)"
user_line=""
[ "$(id -u)" -ne 0 ] || user_line="user $(id -un) $(id -gn);"
cat >"$scratch/nginx/nginx.conf" <<EOF
$user_line
worker_processes 1;
pid $scratch/nginx/nginx.pid;
error_log $scratch/nginx/logs/error.log;
events { worker_connections 64; }
http {
  access_log off;
  client_body_temp_path $scratch/nginx/body;
  proxy_temp_path $scratch/nginx/body;
  fastcgi_temp_path $scratch/nginx/body;
  uwsgi_temp_path $scratch/nginx/body;
  scgi_temp_path $scratch/nginx/body;
  client_max_body_size 0;
  sendfile on;
  server {
    listen 127.0.0.1:$dav_port;
    root $dav;
    location / { dav_methods PUT DELETE; dav_access user:rw; }
  }
}
EOF
"$nginx" -p "$scratch/nginx" -c "$scratch/nginx/nginx.conf" -g "daemon off;" 2>"$scratch/nginx.err" &
pids+=($!)
wait_for "nginx" curl -s -o /dev/null "http://127.0.0.1:$dav_port/"
url="http://127.0.0.1:$dav_port"

# ---- the source file, in memory so that reading it costs no disk ----
src="$source_dir/source.bin"
head -c "$((mib * 1024 * 1024))" /dev/urandom >"$src"
restored="$scratch/restored.bin"

# Seconds a command takes, started after a sync; the run stops on a failure.
timed() {
  sync
  local start end
  start="$(date +%s.%N)"
  if ! "$@" >>"$scratch/commands.log" 2>&1; then
    echo "webdav_compare: failed: $*" >&2
    tail -5 "$scratch/commands.log" >&2
    exit 1
  fi
  end="$(date +%s.%N)"
  awk -v a="$start" -v b="$end" 'BEGIN { print b - a }'
}

keldctl_put() { "$keldctl" "${proxy[@]}" put "$src" "$server" lsu0 "$1"; }
keldctl_get() { rm -f "$restored"; "$keldctl" "${proxy[@]}" get "$server" lsu0 "$1" "$restored"; }
curl_put() { curl -sSf -T "$src" "$url/$1" && sync "$dav/$1"; }
curl_get() { rm -f "$restored"; curl -sSf -o "$restored" "$url/$1" && sync "$restored"; }

declare -A secs   # secs[side,op] = space-separated seconds of the rounds
for ((r = 0; r < rounds; r++)); do
  image="bench$r"
  if ((r % 2 == 0)); then order=(keldctl curl); else order=(curl keldctl); fi
  for op in put get; do
    for side in "${order[@]}"; do
      secs[$side,$op]+="$(timed "${side}_$op" "$image") "
    done
  done
  rm -f "$restored" "$dav/$image"
  "$keldctl" "${proxy[@]}" rm "$server" lsu0 "$image" >>"$scratch/commands.log" 2>&1
done

# "median [lowest-highest]" of a list of numbers; a spread over 20 % of
# the median adds a WARNING line to the warnings file.
warnings="$scratch/warnings"
: >"$warnings"
summary() {   # summary WHAT DECIMALS NUMBERS...
  local what="$1" decimals="$2"; shift 2
  printf '%s\n' "$@" | sort -g | awk -v what="$what" -v d="$decimals" -v warnings="$warnings" '
    { v[NR] = $1 }
    END {
      m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
      printf "%.*f [%.*f-%.*f]", d, m, d, v[1], d, v[NR]
      if (m > 0 && (v[NR] - v[1]) / m > 0.20)
        printf "WARNING: %s spreads %.0f %% (over 20 %%)\n", what, (v[NR] - v[1]) / m * 100 >>warnings
    }'
}

echo "keldctl --proxy against nginx WebDAV (curl), $mib MiB from /dev/shm to and from $(df --output=source "$scratch" | tail -1), $rounds alternating rounds"
echo "MiB/s and ratios: median [lowest-highest] of the rounds; each side synced before, and its bytes fsynced at its end"
misses=0
for op in put get; do
  read -r -a k <<<"${secs[keldctl,$op]}"
  read -r -a c <<<"${secs[curl,$op]}"
  rates_k=() rates_c=() ratios=()
  for ((i = 0; i < rounds; i++)); do
    rates_k+=("$(awk -v s="${k[$i]}" -v m="$mib" 'BEGIN { print m / s }')")
    rates_c+=("$(awk -v s="${c[$i]}" -v m="$mib" 'BEGIN { print m / s }')")
    ratios+=("$(awk -v a="${k[$i]}" -v b="${c[$i]}" 'BEGIN { print b / a }')")
  done
  ratio_text="$(summary "$op, keldctl against curl" 2 "${ratios[@]}")"
  verdict="$(awk -v m="${ratio_text%% *}" -v t="$target" 'BEGIN { print (m >= t ? "holds" : "misses") }')"
  [ "$verdict" = holds ] || misses=$((misses + 1))
  printf '%s: keldctl %s MiB/s, curl %s MiB/s, keldctl against curl %s (target >= %s: %s)\n' "$op" \
    "$(summary "$op, keldctl MiB/s" 0 "${rates_k[@]}")" "$(summary "$op, curl MiB/s" 0 "${rates_c[@]}")" \
    "$ratio_text" "$target" "$verdict"
done
cat "$warnings"
echo "$misses target(s) missed"
