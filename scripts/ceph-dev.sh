#!/usr/bin/env bash
# A one-node RADOS cluster (one monitor, one OSD on memory) for the tests of
# the RADOS storage plug-in.
#
#   scripts/ceph-dev.sh start DIR    make (or restart) the cluster in DIR,
#                                        wait until pool `keld` takes writes,
#                                        print the path of its ceph.conf
#   scripts/ceph-dev.sh stop DIR     end its daemons by their pid files
#   scripts/ceph-dev.sh status DIR   say whether its daemons run (exit 3
#                                        when one does not)
#
# Everything lives in DIR: the configuration, the monitor's
# store, the OSD's data, the logs, the admin sockets and the pid files; no
# file outside it is read or written, so any user may run a cluster in a
# directory of their own and the daemons run as that user.  Every daemon
# binds to 127.0.0.1 only: the monitor on a free port picked at the first
# start, the OSD on free ports of its own choosing.  Authentication is off
# (a development cluster on the loopback): clients need only DIR/ceph.conf,
# under any client name.
#
# The OSD keeps objects in memory (memstore; saved to DIR when it stops), so
# the cluster is small and fast but holds no more than
# KELD_CEPH_DEVICE_BYTES (1 GiB).  Pools, objects, omap and extended
# attributes need no manager daemon; usage figures (`ceph df`, the pool and
# cluster statistics of librados) and pool quotas do: KELD_CEPH_MGR=1 at
# start runs one too (some 300 MiB more and 10-20 s longer to start).
set -euo pipefail

readonly POOL=keld
readonly MON_ID=a
readonly OSD_ID=0
readonly MGR_ID=x
readonly START_TIMEOUT=${KELD_CEPH_START_TIMEOUT:-90}
readonly STOP_TIMEOUT=30
readonly DEVICE_BYTES=${KELD_CEPH_DEVICE_BYTES:-1073741824}

die() { echo "ceph-dev: $*" >&2; exit 1; }

usage() {
  echo "usage: $0 start DIR | stop DIR | status DIR" >&2
  exit 2
}

# The pid of daemon NAME (mon.a, osd.0, mgr.x) when it runs on this cluster's
# configuration; nothing otherwise.  The command line is checked so that a
# reused pid is never taken for the daemon.
daemon_pid() {
  local pidfile=$dir/run/$1.pid pid
  [ -s "$pidfile" ] || return 0
  pid=$(<"$pidfile")
  [[ $pid =~ ^[0-9]+$ ]] || return 0
  if tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep -qF -- "-c $dir/ceph.conf "; then
    echo "$pid"
  fi
}

ceph_cli() {
  timeout 30 ceph -c "$dir/ceph.conf" --connect-timeout 10 "$@"
}

free_port() {
  /usr/bin/python3 -c 'import socket
s = socket.socket()
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])'
}

write_conf() {
  local fsid=$1 port=$2
  cat >"$dir/ceph.conf" <<EOF
[global]
fsid = $fsid
mon host = v2:127.0.0.1:$port
mon initial members = $MON_ID
public addr = 127.0.0.1
cluster addr = 127.0.0.1
ms bind ipv6 = false
ms bind msgr1 = false
auth cluster required = none
auth service required = none
auth client required = none
run dir = $dir/run
admin socket = $dir/run/\$name.asok
pid file = $dir/run/\$name.pid
log file = $dir/log/\$name.log
log to stderr = false
err to stderr = false
crash dir = $dir/crash
osd pool default size = 1
osd pool default min size = 1
osd pool default pg num = 8
osd pool default pgp num = 8
osd pool default pg autoscale mode = off
osd crush chooseleaf type = 0

[client]
# A client of a cluster that went away fails within seconds, not minutes.
client mount timeout = 10
rados mon op timeout = 30
rados osd op timeout = 30

[mon]
mon data = $dir/mon/\$id
mon cluster log file = $dir/log/cluster.\$channel.log
mon allow pool size one = true
# No manager module that serves HTTP (those would listen on every address).
mgr initial modules = iostat
mon allow pool delete = true
mon warn on pool no redundancy = false
# A test machine's disk may be fuller than a production monitor accepts.
mon data avail warn = 2
mon data avail crit = 1

[osd]
osd data = $dir/osd/\$id
osd objectstore = memstore
memstore device bytes = $DEVICE_BYTES
# The store's size and use are taken from this figure and the placement
# groups' byte counts rather than asked of memstore: in about one start in
# forty, the OSD's first usage report read a nonsense size from it ("now
# -2147483648% full"), engaged the full failsafe and dropped every write.
fake statfs for testing = $DEVICE_BYTES
# The OSD of this release exits at start ("wrong fsid") when it updates the
# crush map or its object classes itself; the map is made by make_osd.
osd crush update on start = false
osd class update on start = false
# A stop unmounts the store, which saves it to DIR, so that a restart finds
# the pool's objects again.
osd fast shutdown = false

[mgr]
mgr data = $dir/mgr/\$id
EOF
}

# The monitor's store is made with a key of its own even with authentication
# off; no daemon or client needs one.
make_mon_keyring() {
  ceph-authtool "$dir/mon.seed.keyring" --create-keyring --gen-key -n mon. --cap mon 'allow *'
}

make_monitor() {
  local fsid=$1 port=$2
  monmaptool --create --fsid "$fsid" --addv $MON_ID "[v2:127.0.0.1:$port]" "$dir/monmap" >/dev/null
  ceph-mon -c "$dir/ceph.conf" -i $MON_ID --mkfs --monmap "$dir/monmap" \
    --keyring "$dir/mon.seed.keyring"
}

# The OSD is registered under a uuid of its own and placed in the map before
# its store is made with that uuid, so that it comes up and in at its first
# start.
make_osd() {
  local uuid id
  uuid=$(uuidgen)
  id=$(ceph_cli osd create "$uuid")
  [ "$id" = $OSD_ID ] || die "the monitor gave the OSD id '$id', not $OSD_ID"
  ceph_cli osd crush add osd.$OSD_ID 1.0 host=localhost root=default >/dev/null 2>&1
  mkdir -p "$dir/osd/$OSD_ID"
  ceph-osd -c "$dir/ceph.conf" -i $OSD_ID --mkfs --osd-uuid "$uuid" 2>>"$dir/log/mkfs.log"
}

start_monitor() {
  ceph-mon -c "$dir/ceph.conf" -i $MON_ID ||
    die "the monitor did not start (port taken?); see $dir/log/mon.$MON_ID.log"
}

start_osd() {
  ceph-osd -c "$dir/ceph.conf" -i $OSD_ID ||
    die "the OSD did not start; see $dir/log/osd.$OSD_ID.log"
}

start_manager() {
  ceph-mgr -c "$dir/ceph.conf" -i $MGR_ID ||
    die "the manager did not start; see $dir/log/mgr.$MGR_ID.log"
}

manager_available() {
  ceph_cli mgr stat 2>/dev/null | grep -q '"available": true'
}

osd_up_and_in() {
  ceph_cli osd dump -f json 2>/dev/null | /usr/bin/python3 -c '
import json, sys
osds = json.load(sys.stdin)["osds"]
sys.exit(0 if osds and osds[0]["up"] == 1 and osds[0]["in"] == 1 else 1)'
}

# Ready when the OSD is up and in, an object of the test pool can be
# written and removed, and the manager, when asked for, is available.
wait_until_ready() {
  local deadline=$((SECONDS + START_TIMEOUT))
  until osd_up_and_in; do
    [ $SECONDS -lt $deadline ] || die "the OSD is not up and in after ${START_TIMEOUT}s; see $dir/log"
    sleep 0.5
  done
  ceph_cli osd pool create $POOL >/dev/null 2>&1 || die "could not create pool $POOL"
  ceph_cli osd pool application enable $POOL rados >/dev/null 2>&1 || true
  local probe=$dir/run/probe
  echo ready >"$probe"
  until timeout 10 rados -c "$dir/ceph.conf" -p $POOL put keld-cluster-probe "$probe" 2>/dev/null &&
        timeout 10 rados -c "$dir/ceph.conf" -p $POOL rm keld-cluster-probe 2>/dev/null; do
    [ $SECONDS -lt $deadline ] || die "pool $POOL takes no writes after ${START_TIMEOUT}s; see $dir/log"
    sleep 0.5
  done
  if [ "${KELD_CEPH_MGR:-0}" = 1 ]; then
    until manager_available; do
      [ $SECONDS -lt $deadline ] || die "the manager is not available after ${START_TIMEOUT}s; see $dir/log"
      sleep 0.5
    done
  fi
}

# Ends whatever this start got running when it fails half-way.
stop_on_failure() {
  local rc=$?
  if [ $rc -ne 0 ]; then
    stop_daemons
  fi
  exit $rc
}

cmd_start() {
  mkdir -p "$dir"
  dir=$(cd "$dir" && pwd)
  if [ -n "$(daemon_pid mon.$MON_ID)$(daemon_pid osd.$OSD_ID)$(daemon_pid mgr.$MGR_ID)" ]; then
    die "a cluster already runs in $dir"
  fi
  if [ -e "$dir/ceph.conf" ] && [ ! -e "$dir/made" ]; then
    die "$dir holds a cluster that was never made whole; remove it first"
  fi
  if [ ! -e "$dir/ceph.conf" ] && [ -n "$(ls -A "$dir")" ]; then
    die "$dir is not empty"
  fi
  trap stop_on_failure EXIT
  trap 'exit 143' TERM INT
  mkdir -p "$dir"/{run,log,crash,mon,mgr/$MGR_ID}
  if [ ! -e "$dir/made" ]; then
    local fsid port
    fsid=$(uuidgen)
    port=$(free_port)
    write_conf "$fsid" "$port"
    make_mon_keyring >/dev/null
    make_monitor "$fsid" "$port"
    start_monitor
    make_osd
    touch "$dir/made"
  else
    start_monitor
  fi
  start_osd
  if [ "${KELD_CEPH_MGR:-0}" = 1 ]; then
    start_manager
  fi
  wait_until_ready
  trap - EXIT TERM INT
  echo "$dir/ceph.conf"
}

# Signals each daemon, the monitor last, and waits for it to end; one that
# outlives the wait is killed.
stop_daemons() {
  local name pid deadline
  for name in osd.$OSD_ID mgr.$MGR_ID mon.$MON_ID; do
    pid=$(daemon_pid "$name")
    [ -n "$pid" ] || continue
    kill -TERM "$pid" 2>/dev/null || continue
    deadline=$((SECONDS + STOP_TIMEOUT))
    while kill -0 "$pid" 2>/dev/null && [ $SECONDS -lt $deadline ]; do
      sleep 0.1
    done
    if kill -0 "$pid" 2>/dev/null; then
      echo "ceph-dev: $name ($pid) still runs after ${STOP_TIMEOUT}s; killing it" >&2
      kill -KILL "$pid" 2>/dev/null || true
    fi
    rm -f "$dir/run/$name.pid"
  done
}

cmd_stop() {
  [ -d "$dir" ] || die "no directory $dir"
  dir=$(cd "$dir" && pwd)
  stop_daemons
}

cmd_status() {
  [ -d "$dir" ] || die "no directory $dir"
  dir=$(cd "$dir" && pwd)
  local name pid all=0
  for name in mon.$MON_ID osd.$OSD_ID mgr.$MGR_ID; do
    pid=$(daemon_pid "$name")
    if [ -n "$pid" ]; then
      echo "$name running (pid $pid)"
    elif [ "$name" != mgr.$MGR_ID ]; then
      echo "$name stopped"
      all=3
    fi
  done
  if [ -n "$(daemon_pid mon.$MON_ID)" ]; then
    ceph_cli -s || true
  fi
  return $all
}

[ $# -eq 2 ] || usage
dir=$2
case $1 in
  start) cmd_start ;;
  stop) cmd_stop ;;
  status) cmd_status ;;
  *) usage ;;
esac
