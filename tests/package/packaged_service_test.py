#!/usr/bin/env python3
"""Runs the service as the Debian package lays it out.

    packaged_service_test.py keldpxy_VERSION_amd64.deb

Extracts the package into a scratch directory and, with KELDV_ROOT at the
extracted usr/keldv (so the binaries must find their libraries through their
own RUNPATH), checks in one run what an administrator relies on: the packaged
configuration refuses a host the client database does not know; the service
says READY=1 on a datagram socket this test owns once it serves; a keldctl
put and get through it on 127.0.0.1 return the bytes put; its warnings reach
standard error for the journal; signal 15 brings STOPPING=1 and exit 0; and
the daily log removal removes only the service's old rolled files.  Every
process it starts is stopped by its PID.
"""

import hashlib
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

READY_TIMEOUT = 60
STOP_TIMEOUT = 90


def fail(message):
    raise AssertionError(message)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Root:
    """The extracted package: its install root, its /etc and its units."""

    def __init__(self, deb, scratch):
        subprocess.run(["dpkg-deb", "-x", deb, scratch], check=True)
        self.top = scratch
        self.root = os.path.join(scratch, "usr/keldv")
        self.conf = os.path.join(self.root, "keldrive/keldrive.conf")
        self.logs = os.path.join(self.root, "keldrive/logs/keldpxy")
        self.env = {k: v for k, v in os.environ.items()
                    if k not in ("LD_LIBRARY_PATH", "NOTIFY_SOCKET", "JOURNAL_STREAM")}
        self.env["KELDV_ROOT"] = self.root

    def path(self, relative):
        return os.path.join(self.root, relative)

    def unit(self, name):
        with open(os.path.join(self.top, "lib/systemd/system", name)) as f:
            return f.read()

    def run(self, *args, **kwargs):
        return subprocess.run([self.path("bin/" + args[0])] + list(args[1:]), env=self.env,
                              capture_output=True, timeout=120, **kwargs)


def check_layout(root):
    # The master configuration is the conffile in /etc, reached from the
    # root; extracted here, the link is pointed at the extracted copy.
    if os.readlink(root.conf) != "/etc/keldv/keldrive.conf":
        fail("keldrive/keldrive.conf does not lead to /etc/keldv/keldrive.conf")
    os.unlink(root.conf)
    os.symlink(os.path.join(root.top, "etc/keldv/keldrive.conf"), root.conf)
    if not any(n.endswith(".so") for n in os.listdir(root.path("lib/stsplugins"))):
        fail("no storage plug-in in lib/stsplugins")
    for tool in ("keldctl", "keldv-clients"):
        if os.path.realpath(os.path.join(root.top, "usr/bin", tool)) != os.path.realpath(root.path("bin/" + tool)):
            fail("usr/bin/%s does not lead to the install root's" % tool)
    dynamic = subprocess.run(["readelf", "-d", root.path("bin/keldpxy")], capture_output=True,
                             text=True, check=True).stdout
    if "[$ORIGIN/../lib]" not in dynamic:
        fail("keldpxy's RUNPATH is not $ORIGIN/../lib:\n" + dynamic)


class NotifySocket:
    """The datagram socket a service manager would give the service."""

    def __init__(self, path):
        self.path = path
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(path)
        self.messages = []

    def wait_for(self, field, timeout, process):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            for message in self.messages:
                if field in message.split("\n"):
                    return message
            self.sock.settimeout(0.5)
            try:
                self.messages.append(self.sock.recv(4096).decode())
            except socket.timeout:
                if process.poll() is not None and field == "READY=1":
                    fail("the service ended with %s before it was ready" % process.returncode)
        fail("no %s within %d s; got %r" % (field, timeout, self.messages))

    def close(self):
        self.sock.close()


def put_and_get(root, proxy, scratch):
    server = "Disk:" + socket.gethostname()
    source = os.path.join(scratch, "source.bin")
    with open(source, "wb") as f:
        f.write(os.urandom(3 * 1024 * 1024 + 17))
    put = root.run("keldctl", "-q", "--proxy", proxy, "put", source, server, "lsu0", "packaged")
    if put.returncode != 0:
        fail("put failed: %s" % put.stderr.decode())
    restored = os.path.join(scratch, "restored.bin")
    got = root.run("keldctl", "-q", "--proxy", proxy, "get", server, "lsu0", "packaged", restored)
    if got.returncode != 0:
        fail("get failed: %s" % got.stderr.decode())
    with open(source, "rb") as a, open(restored, "rb") as b:
        if hashlib.sha256(a.read()).digest() != hashlib.sha256(b.read()).digest():
            fail("the restored bytes differ from the ones put")


# --- metrics: the exposition parsed, the counters moved by the transfers ----
def scrape(address, path):
    try:
        with urllib.request.urlopen("http://%s%s" % (address, path), timeout=5) as reply:
            return reply.status, reply.read().decode()
    except (urllib.error.URLError, ConnectionError, socket.timeout):
        return None, None


def counters(exposition):
    """Family -> sum of its samples; fails when a family lacks HELP or TYPE."""
    helped, typed, values = set(), {}, {}
    for line in exposition.splitlines():
        if line.startswith("# HELP "):
            helped.add(line.split()[2])
        elif line.startswith("# TYPE "):
            typed[line.split()[2]] = line.split()[3]
        elif line and not line.startswith("#"):
            name = re.match(r"[a-zA-Z_:][a-zA-Z0-9_:]*", line).group(0)
            family = re.sub(r"_(total|count|sum|bucket|created)$", "", name)
            family = family if family in typed else name
            if family not in helped or family not in typed:
                fail("metric family %s has no HELP or TYPE" % family)
            if typed[family] == "counter":
                values[family] = values.get(family, 0.0) + float(line.rsplit(None, 1)[1])
    return values


def check_metrics(address, before):
    status, health = scrape(address, "/healthz")
    if status != 200 or health.strip() != "ok":
        fail("/healthz answered %s %r" % (status, health))
    status, text = scrape(address, "/metrics")
    if status != 200:
        fail("/metrics answered %s" % status)
    after = counters(text)
    for family in ("keldpxy_written_bytes_total", "keldpxy_read_bytes_total", "keldpxy_calls_total"):
        if not after.get(family, 0) > before.get(family, 0):
            fail("%s did not move with the put and get" % family)
# ---------------------------------------------------------------------------


def check_log_retention(root):
    """The retention unit's own command, on the extracted root."""
    unit = root.unit("keldpxy-log-retention.service")
    command = re.search(r"^ExecStart=(.*)$", unit, re.M).group(1)
    with open(os.path.join(root.top, "etc/default/keldpxy")) as f:
        days = re.search(r"^KELDPXY_LOG_DAYS=(\d+)$", f.read(), re.M).group(1)
    command = command.replace("${KELDPXY_LOG_DAYS}", days).replace("/usr/keldv", root.root)
    old = time.time() - (int(days) + 2) * 86400
    kept = {"keep-recent": "112426_00003.log", "keep-other": "notes.txt", "keep-prefix": "x010126_00001.log"}
    for name in list(kept.values()) + ["010126_00001.log", "010126_00002.log"]:
        path = os.path.join(root.logs, name)
        open(path, "w").close()
        if name != kept["keep-recent"]:
            os.utime(path, (old, old))
    subprocess.run(command.replace('"', "").split(), check=True, env=root.env)
    left = set(os.listdir(root.logs))
    if "010126_00001.log" in left or "010126_00002.log" in left:
        fail("an old rolled log file was kept: %s" % sorted(left))
    if not set(kept.values()) <= left:
        fail("the retention removed more than old rolled log files: %s" % sorted(left))


def run_service(root, scratch):
    port = free_port()
    metrics = "127.0.0.1:%d" % free_port()
    proxy = "127.0.0.1:%d" % port
    # The packaged endpoint's port may be taken on this host: a free one.
    with open(root.conf) as f:
        packaged = [line for line in f if not line.startswith("METRICS_ENDPOINT")]
    with open(root.conf, "w") as f:
        f.writelines(packaged)
        f.write("METRICS_ENDPOINT = %s\nPACKAGE_CHECK_UNKNOWN = 1\n" % metrics)
    notify = NotifySocket(os.path.join(scratch, "notify.sock"))
    env = dict(root.env, NOTIFY_SOCKET=notify.path)
    stderr = open(os.path.join(scratch, "stderr.txt"), "w+")
    service = subprocess.Popen([root.path("bin/keldpxy"), "-start", "-ORBListenEndPoints", "iiop://" + proxy],
                               env=env, stderr=stderr, stdout=subprocess.DEVNULL)
    try:
        ready = notify.wait_for("READY=1", READY_TIMEOUT, service)
        if "STATUS=serving on giop:tcp:%s" % proxy not in ready.split("\n"):
            fail("READY=1 without the endpoint in its status: %r" % ready)

        # Admission is on as packaged: this host is refused until postinst's
        # step, adding it to the client database, has been made.
        probe = os.path.join(scratch, "probe.txt")
        with open(probe, "w") as f:
            f.write("refused\n")
        refused = root.run("keldctl", "-q", "--proxy", proxy, "put", probe,
                           "Disk:" + socket.gethostname(), "lsu0", "refused")
        if refused.returncode == 0:
            fail("a host the client database does not know was admitted")
        added = root.run("keldv-clients", "add", "localhost")
        if added.returncode != 0:
            fail("keldv-clients add failed: %s" % added.stderr.decode())

        before = counters(scrape(metrics, "/metrics")[1] or "")
        put_and_get(root, proxy, scratch)
        check_metrics(metrics, before)

        service.send_signal(signal.SIGTERM)
        stopping = notify.wait_for("STOPPING=1", STOP_TIMEOUT, service)
        if not any(line.startswith("STATUS=stopping") for line in stopping.split("\n")):
            fail("STOPPING=1 without a status: %r" % stopping)
        code = service.wait(timeout=STOP_TIMEOUT)
        if code != 0:
            fail("the service ended with %d after signal 15" % code)
    finally:
        if service.poll() is None:
            service.kill()
            service.wait()
        notify.close()
    stderr.seek(0)
    text = stderr.read()
    if not re.search(r"^<4>.*unknown key PACKAGE_CHECK_UNKNOWN", text, re.M):
        fail("the warning of the unknown key is not on standard error:\n" + text)


def main():
    if len(sys.argv) != 2:
        print("usage: %s PACKAGE.deb" % sys.argv[0], file=sys.stderr)
        return 2
    scratch = tempfile.mkdtemp(prefix="keld-package-")
    try:
        root = Root(sys.argv[1], scratch)
        check_layout(root)
        run_service(root, scratch)
        check_log_retention(root)
    except AssertionError as e:
        print("package test: FAILED: %s (scratch kept in %s)" % (e, scratch), file=sys.stderr)
        return 1
    shutil.rmtree(scratch)
    print("package test: passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
