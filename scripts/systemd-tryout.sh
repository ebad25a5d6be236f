#!/usr/bin/env bash
# Installs a keldpxy package the way an administrator would, under a real
# systemd that runs as PID 1 of its own throwaway machine, and checks what
# the administrator would look at:
#   scripts/systemd-tryout.sh DEB          one line per check, non-zero on a failure
#   scripts/systemd-tryout.sh --can-boot   whether this machine can do it (why not)
# The machine is this one's root file system seen through an overlay whose
# writable layer is a scratch directory, in new PID, mount, network (its own
# loopback only), UTS, IPC and cgroup namespaces: dpkg, the keldv user,
# /usr/keldv and the units land in the scratch directory and go with it.
# Nothing is mounted here; the machine's PID 1 is killed by its PID at the
# end, and everything in it dies with it.  Needs root.
set -euo pipefail

BOOT_TIMEOUT=60
ACTIVE_TIMEOUT=60

# The capabilities the machine keeps: no module loading, clock setting,
# raw I/O or kernel log control, which would reach past the namespaces.
KEPT_CAPS=-all,+chown,+dac_override,+dac_read_search,+fowner,+fsetid,+kill,+setgid,+setuid,+setpcap,+linux_immutable,+net_bind_service,+net_broadcast,+net_admin,+net_raw,+ipc_lock,+ipc_owner,+sys_chroot,+sys_ptrace,+sys_admin,+sys_boot,+sys_nice,+sys_resource,+mknod,+lease,+audit_write,+setfcap

die() { echo "systemd-tryout: $*" >&2; exit 2; }

# The cgroup2 hierarchy of this machine, the machine's own cgroup goes under.
cgroup2_mount() {
    local dir
    for dir in /sys/fs/cgroup /sys/fs/cgroup/unified; do
        if [ "$(stat -f -c %T "$dir" 2>/dev/null)" = cgroup2fs ]; then
            echo "$dir"
            return 0
        fi
    done
    return 1
}

why_not() {
    [ "$(id -u)" = 0 ] || { echo "not running as root"; return; }
    local tool
    for tool in unshare nsenter setpriv pivot_root curl; do
        command -v "$tool" >/dev/null || { echo "$tool is missing"; return; }
    done
    [ -x /lib/systemd/systemd ] || { echo "/lib/systemd/systemd is missing"; return; }
    grep -qw overlay /proc/filesystems || { echo "the kernel has no overlayfs"; return; }
    local cgroups
    cgroups="$(cgroup2_mount)" || { echo "no cgroup2 hierarchy is mounted"; return; }
    [ -w "$cgroups" ] || { echo "the cgroup2 hierarchy $cgroups is read-only"; return; }
    unshare --pid --fork --mount --net --uts --ipc --cgroup true 2>/dev/null ||
        { echo "unshare cannot make the namespaces"; return; }
}

if [ "${1:-}" = --can-boot ]; then
    reason="$(why_not)"
    [ -z "$reason" ] || { echo "$reason"; exit 1; }
    exit 0
fi
[ $# = 1 ] && [ -f "$1" ] || die "usage: $0 PACKAGE.deb | --can-boot"
deb="$(realpath "$1")"
reason="$(why_not)"
[ -z "$reason" ] || die "cannot boot a throwaway systemd here: $reason"

# Units that must not run in the throwaway machine, or would only slow its
# boot: terminals, the network and clock managers, kernel modules and
# settings, device management.  What this machine enabled itself (databases,
# storage daemons, disk timers) is not enabled there at all.
MASKED_UNITS="getty.target console-getty.service systemd-timesyncd.service
systemd-networkd.service systemd-networkd.socket systemd-network-generator.service
systemd-networkd-wait-online.service networking.service NetworkManager.service
systemd-modules-load.service kmod-static-nodes.service systemd-sysctl.service
systemd-binfmt.service proc-sys-fs-binfmt_misc.automount
systemd-udevd.service systemd-udevd-control.socket systemd-udevd-kernel.socket
systemd-udev-trigger.service systemd-hwdb-update.service systemd-firstboot.service
systemd-pcrphase.service systemd-pcrphase-sysinit.service systemd-repart.service
systemd-random-seed.service systemd-pstore.service
sys-kernel-config.mount sys-kernel-debug.mount sys-kernel-tracing.mount
sys-fs-fuse-connections.mount dev-hugepages.mount"

# Runs as PID 1 of the new namespaces: lays out the machine's root on the
# overlay, turns this machine's own enabled services off in it, and becomes
# systemd there.  Arguments: scratch directory, kept capabilities, masked units.
read -r -d '' BOOT <<'INNER' || true
set -eu
scratch=$1 caps=$2 masked=$3
root=$scratch/root
mount -t overlay overlay -o "lowerdir=/,upperdir=$scratch/upper,workdir=$scratch/work" "$root"

# The kernel's settings stay read-only; /sys too (no device management).
mount -t proc -o nosuid,nodev,noexec proc "$root/proc"
for entry in sys sysrq-trigger; do
    [ -e "$root/proc/$entry" ] || continue
    mount --bind "$root/proc/$entry" "$root/proc/$entry"
    mount -o remount,bind,ro "$root/proc/$entry"
done
mount -t sysfs -o ro,nosuid,nodev,noexec sysfs "$root/sys"
mount -t cgroup2 -o nosuid,nodev,noexec cgroup2 "$root/sys/fs/cgroup"

# A /dev of its own with only the harmless character devices.
mount -t tmpfs -o mode=755,nosuid tmpfs "$root/dev"
for node in null zero full random urandom tty; do
    touch "$root/dev/$node"
    mount --bind "/dev/$node" "$root/dev/$node"
done
touch "$root/dev/console"
mount --bind "$scratch/console.log" "$root/dev/console"
mkdir "$root/dev/pts" "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
ln -s /proc/self/fd "$root/dev/fd"
mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs "$root/dev/shm"
mount -t tmpfs -o mode=755,nosuid,nodev tmpfs "$root/run"
mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs "$root/tmp"

# Only the units the distribution enables by itself, not this machine's.
etc=$root/etc/systemd/system
find "$etc" -mindepth 2 -maxdepth 2 -path '*.wants/*' -delete
for unit in $masked; do ln -sfn /dev/null "$etc/$unit"; done
ln -sfn /lib/systemd/system/multi-user.target "$etc/default.target"
mkdir -p "$root/etc/systemd/system-generators" "$root/etc/systemd/journald.conf.d"
for generator in /lib/systemd/system-generators/*; do
    ln -sfn /dev/null "$root/etc/systemd/system-generators/${generator##*/}"
done
printf '[Journal]\nStorage=volatile\n' >"$root/etc/systemd/journald.conf.d/tryout.conf"
# An image built for containers forbids maintainer scripts to start
# services; an administrator's machine does not.
rm -f "$root/usr/sbin/policy-rc.d"

cd "$root"
mkdir -p .oldroot
pivot_root . .oldroot
exec chroot . /bin/sh -c 'umount -l /.oldroot && rmdir /.oldroot &&
    exec env -i container=keldpxy-tryout setpriv --bounding-set "$1" /lib/systemd/systemd' _ "$caps"
INNER

scratch="$(mktemp -d /tmp/keldpxy-tryout.XXXXXX)"
mkdir "$scratch/upper" "$scratch/work" "$scratch/root"
touch "$scratch/console.log"
cgroup="$(cgroup2_mount)/keldpxy-tryout.$$"
unshare_pid=""
machine_pid=""

teardown() {
    if [ -n "$machine_pid" ]; then
        kill -KILL "$machine_pid" 2>/dev/null || true
    elif [ -n "$unshare_pid" ]; then
        kill -KILL "$unshare_pid" 2>/dev/null || true
    fi
    [ -z "$unshare_pid" ] || wait "$unshare_pid" 2>/dev/null || true
    # The machine's cgroups, deepest first, once their processes are gone.
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        [ -d "$cgroup" ] || break
        find "$cgroup" -depth -type d -exec rmdir {} + 2>/dev/null || sleep 0.2
    done
    [ ! -d "$cgroup" ] || echo "systemd-tryout: could not remove $cgroup" >&2
    # Nothing was mounted here, but never follow a mount out of the scratch.
    if grep -q " ${scratch}[/ ]" /proc/self/mountinfo; then
        echo "systemd-tryout: $scratch has mounts; left in place" >&2
    elif [ -n "${KEEP_SCRATCH:-}" ]; then
        echo "systemd-tryout: scratch kept in $scratch" >&2
    else
        rm -rf --one-file-system "$scratch"
    fi
}
trap teardown EXIT
trap 'exit 130' INT TERM

mkdir "$cgroup"
# The machine's PID 1 starts in its own cgroup, which becomes the root of
# its cgroup namespace.
sh -c 'echo $$ >"$1/cgroup.procs" && shift && exec "$@"' _ "$cgroup" \
    unshare --pid --fork --mount --net --uts --ipc --cgroup \
    bash -c "$BOOT" _ "$scratch" "$KEPT_CAPS" "$MASKED_UNITS" \
    </dev/null >"$scratch/boot.log" 2>&1 &
unshare_pid=$!
for _ in $(seq 50); do
    machine_pid="$(cat "/proc/$unshare_pid/task/$unshare_pid/children" 2>/dev/null || true)"
    machine_pid="${machine_pid%% *}"
    [ -z "$machine_pid" ] || break
    sleep 0.1
done
[ -n "$machine_pid" ] || die "the namespaces did not start: $(cat "$scratch/boot.log")"

# Runs a command in the machine, as its root, with the machine's capabilities.
in_machine() {
    nsenter --target "$machine_pid" --mount --uts --ipc --net --pid --cgroup --root --wd -- \
        setpriv --bounding-set "$KEPT_CAPS" \
        env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 SYSTEMD_PAGER= "$@"
}

# --- the checks -------------------------------------------------------------
failures=0
# check NAME COMMAND...: one line, ok or FAILED with what the command said.
check() {
    local name=$1 out
    shift
    if out="$("$@" 2>&1)"; then
        echo "ok      $name"
    else
        echo "FAILED  $name"
        [ -z "$out" ] || printf '%s\n' "$out" | tail -n 25 | sed 's/^/        /'
        failures=$((failures + 1))
    fi
}

# waits_for SECONDS COMMAND...: until the command succeeds.
waits_for() {
    local seconds=$1
    shift
    for _ in $(seq $((seconds * 5))); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.2
    done
    "$@"
}

# What the machine must look like to this host afterwards: no install root,
# no keldv user, the same units, network and host name.
host_fingerprint() {
    ls -la /usr/keldv 2>&1 || true
    getent passwd keldv || true
    ls -laR /etc/systemd/system /etc/keldv 2>&1 || true
    ip -brief address 2>/dev/null || ls /sys/class/net
    hostname
}

booted() {
    local state
    state="$(in_machine systemctl is-system-running || true)"
    case "$state" in running|degraded) ;; *) echo "state: $state"; return 1 ;; esac
}

install_package() {
    in_machine sh -c 'cat >/root/keldpxy.deb' <"$deb"
    local out
    out="$(in_machine dpkg -i /root/keldpxy.deb 2>&1)" || { echo "$out"; return 1; }
    # The maintainer scripts say "keldpxy: ..." only when a step failed.
    if grep -E '^keldpxy:|[Ff]ailed' <<<"$out"; then return 1; fi
}

service_user() {
    local passwd
    passwd="$(in_machine getent passwd keldv)" || { echo "no keldv user"; return 1; }
    in_machine id keldv
    local uid
    uid="$(cut -d: -f3 <<<"$passwd")"
    [ "$uid" -lt 1000 ] || { echo "keldv is not a system user: $passwd"; return 1; }
}

is_active() { [ "$(in_machine systemctl is-active "$1")" = active ]; }

service_active() {
    waits_for "$ACTIVE_TIMEOUT" is_active keldpxy && return 0
    in_machine systemctl status --no-pager keldpxy
    in_machine journalctl --no-pager -n 30 -u keldpxy
    return 1
}

# Started by the package, running as keldv, ready by its own word, never
# restarted by the manager.
service_properties() {
    local show pid
    show="$(in_machine systemctl show -p MainPID,User,Type,NRestarts,StatusText keldpxy)"
    echo "$show"
    grep -qx 'Type=notify' <<<"$show" && grep -qx 'User=keldv' <<<"$show" &&
        grep -qx 'NRestarts=0' <<<"$show" && grep -q '^StatusText=serving' <<<"$show" || return 1
    pid="$(sed -n 's/^MainPID=//p' <<<"$show")"
    [ "$pid" -gt 0 ] && [ "$(in_machine ps -o user= -p "$pid")" = keldv ]
}

metrics_and_health() {
    local health
    health="$(in_machine curl -fsS http://127.0.0.1:9810/healthz)" && [ "$health" = ok ] ||
        { echo "/healthz: $health"; return 1; }
    in_machine curl -fsS http://127.0.0.1:9810/metrics >"$scratch/metrics.txt" || return 1
    grep -q '^keldpxy_' "$scratch/metrics.txt" || { head "$scratch/metrics.txt"; return 1; }
}

keldctl_status() { in_machine keldctl status --proxy 127.0.0.1:10001 --metrics 127.0.0.1:9810; }

# A file put through the service onto the packaged disk storage server and
# got back byte for byte.
put_and_get() {
    in_machine sh -ec '
        head -c 1048593 /dev/urandom >/root/tryout.bin
        server="Disk:$(hostname)"
        keldctl -q --proxy 127.0.0.1:10001 put /root/tryout.bin "$server" lsu0 tryout
        keldctl -q --proxy 127.0.0.1:10001 get "$server" lsu0 tryout /root/tryout.back
        cmp /root/tryout.bin /root/tryout.back'
}

# Installing the package again (an upgrade, to its scripts) restarts the
# service on the client database it already has.
reinstall_restarts() {
    local before after
    before="$(in_machine systemctl show -p MainPID --value keldpxy)"
    in_machine dpkg -i /root/keldpxy.deb >/dev/null || return 1
    waits_for "$ACTIVE_TIMEOUT" is_active keldpxy || return 1
    after="$(in_machine systemctl show -p MainPID --value keldpxy)"
    [ "$after" != "$before" ] && [ "$after" -gt 0 ] || { echo "MainPID $before, then $after"; return 1; }
    in_machine keldctl -q --proxy 127.0.0.1:10001 get "Disk:$(in_machine hostname)" lsu0 tryout /root/tryout.again &&
        in_machine cmp /root/tryout.bin /root/tryout.again
}

# The service's warnings reach the journal with their priority: an unknown
# key in the master configuration is one.
journal_warnings() {
    in_machine sh -c 'echo "TRYOUT_UNKNOWN_KEY = 1" >>/etc/keldv/keldrive.conf'
    in_machine systemctl restart keldpxy
    waits_for "$ACTIVE_TIMEOUT" is_active keldpxy || return 1
    in_machine journalctl --no-pager -u keldpxy -p warning | grep 'unknown key TRYOUT_UNKNOWN_KEY'
}

retention_timer() {
    in_machine systemctl list-timers --all --no-pager | grep keldpxy-log-retention.timer &&
        is_active keldpxy-log-retention.timer
}

# The timer's service, run now: its sandbox must leave it the log directory.
retention_runs() {
    in_machine systemctl start keldpxy-log-retention.service ||
        { in_machine journalctl --no-pager -n 20 -u keldpxy-log-retention; return 1; }
    [ "$(in_machine systemctl show -p Result --value keldpxy-log-retention.service)" = success ]
}

service_stops() {
    in_machine systemctl stop keldpxy || return 1
    local show
    show="$(in_machine systemctl show -p ActiveState,Result,ExecMainStatus keldpxy)"
    echo "$show"
    grep -qx 'ActiveState=inactive' <<<"$show" && grep -qx 'Result=success' <<<"$show" &&
        grep -qx 'ExecMainStatus=0' <<<"$show"
}

package_removed() {
    in_machine dpkg -r keldpxy || return 1
    ! in_machine pgrep -u keldv keldpxy || { echo "keldpxy still runs"; return 1; }
    ! is_active keldpxy-log-retention.timer
}

# Purged, only the backups under keldrive/storage and the keldv user stay.
package_purged() {
    in_machine dpkg -P keldpxy || return 1
    local left
    left="$(in_machine sh -c '
        [ ! -d /usr/keldv ] || find /usr/keldv -path /usr/keldv/keldrive/storage -prune -o \
            ! -path /usr/keldv ! -path /usr/keldv/keldrive -print
        find /etc /lib/systemd/system /var/lib/systemd /usr/bin /usr/sbin /usr/share/doc /usr/share/man \
            -name "*keld*" -print' 2>&1)"
    [ -z "$left" ] || { echo "left after purge:"; echo "$left"; return 1; }
}

before="$(host_fingerprint)"
check "a throwaway systemd boots as PID 1" waits_for "$BOOT_TIMEOUT" booted
[ "$failures" = 0 ] || { tail -n 20 "$scratch/boot.log" "$scratch/console.log"; exit 1; }
check "dpkg -i installs the package" install_package
[ "$failures" = 0 ] || exit 1
check "the keldv system user exists" service_user
check "keldpxy.service is active" service_active
check "it runs as keldv, Type=notify, ready, not restarted" service_properties
check "/healthz and /metrics answer on 127.0.0.1:9810" metrics_and_health
check "keldctl status through the service" keldctl_status
check "keldctl put and get, byte for byte" put_and_get
check "dpkg -i again restarts it" reinstall_restarts
check "warnings reach journalctl -u keldpxy" journal_warnings
check "the log retention timer is loaded" retention_timer
check "the log retention service runs" retention_runs
check "systemctl stop ends it cleanly" service_stops
check "dpkg -r stops and removes it" package_removed
check "dpkg -P leaves only the storage" package_purged
teardown
trap - EXIT
check "this machine is untouched" [ "$before" = "$(host_fingerprint)" ]
[ "$failures" = 0 ] || { echo "systemd-tryout: $failures check(s) failed"; exit 1; }
echo "systemd-tryout: all checks passed"
