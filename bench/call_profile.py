#!/usr/bin/env python3
"""Per-call cost of the service's data path from a perf profile.

    perf script -F comm,tid,time,period,event,ip,sym,dso -i perf.data | call_profile.py CALLS [folded-out]

Every sample of the service is put in one part of a call by the innermost
frame of its stack that names one (the log, the call record, the gates, the
plug-in, the ORB's receive or reply), and in the write or the read phase by
the data call nearest before it.  CALLS is the number of calls of each kind;
the table prints microseconds of CPU per call.  With folded-out the stacks
are also written folded (one line per stack, frames root first, ';'
between them, then the count), for flame_graph.py.
"""
import re
import sys
from collections import defaultdict

# Innermost match wins: the log called from the call record counts as log.
PARTS = [
    ("log lines: formatting, time, lock", r"ProxyLogger::logMsg|writeLogLine|^log_msg|logDirectory|lineTime"),
    ("plug-in (pwrite / pread)", r"libsts_disk|stsa_write_image|stsa_read_image|pwrite|pread"),
    ("servant gate", r"ServantGate::"),
    ("concurrency gate", r"ConcurrencyGate::|gatedUpcall|DepthScope|GatePass"),
    ("request peer", r"upcallWithPeer|noteArrival|UpcallPeer"),
    ("call record", r"CallSequence|runSequenced|runInGate|Admission|copyPayload"),
    ("servant (buffer, checks)", r"ImageImpl::|SessionUse"),
    ("ORB reply (marshal, send)", r"marshalReturnedValues|SendReply|outputMessageEnd|outputMessageBegin|sendChunk|sendCopyChunk|marshalReplyHeader"),
    ("ORB receive and demarshal", r"unmarshalArguments|inputMessage|inputNewServerMessage|ReceiveRequest|inputCopyChunk|unmarshalRequestHeader|handleRequest|dispatcher|giopWorker|acquireServer|sleepOnRdLock|omniAsync|giopStrand|GIOP_S|_dispatch|omniOrbPOA|omniObjAdapter"),
]
COMPILED = [(name, re.compile(pattern)) for name, pattern in PARTS]
OTHER = "other (threads, scheduler, idle timer)"


def samples(lines):
    head, frames = None, []
    for line in lines:
        line = line.rstrip("\n")
        if not line.strip():
            if head:
                yield head, frames
            head, frames = None, []
        elif not line.startswith("\t") and not line.startswith(" "):
            head = line
        else:
            parts = line.strip().split(" ", 1)
            frames.append(parts[1] if len(parts) > 1 else parts[0])
    if head:
        yield head, frames


LOG, LOG_SYSCALLS = PARTS[0][0], "log lines: their access(2) and write(2)"


def part_of(frames):
    for frame in frames:
        for name, pattern in COMPILED:
            if pattern.search(frame):
                # The two system calls of a line stay; the rest is its formatting.
                if name == LOG and frames and "[kernel" in frames[0]:
                    return LOG_SYSCALLS
                return name
    return OTHER


def main():
    calls = int(sys.argv[1])
    folded_out = open(sys.argv[2], "w") if len(sys.argv) > 2 else None
    ns = {"write": defaultdict(int), "read": defaultdict(int)}
    folded = defaultdict(int)
    phase = None
    for head, frames in samples(sys.stdin):
        m = re.match(r"(\S+)\s+(\d+)\s+([\d.]+):\s+(\d+)", head)
        if not m:
            continue
        period = int(m.group(4))
        text = " ".join(frames)
        if "writeImageV12" in text:
            phase = "write"
        elif "readImageV12" in text:
            phase = "read"
        if phase is None:
            continue
        ns[phase][part_of(frames)] += period
        if folded_out:
            names = [re.sub(r"\s*\(.*\)$", "", f) for f in reversed(frames)]
            folded[phase + ";" + ";".join(names)] += 1
    names = [LOG_SYSCALLS] + [name for name, _ in PARTS] + [OTHER]
    print("| part of a 64 KiB call | write, us | read, us |")
    print("|---|---:|---:|")
    for name in names:
        print("| %s | %.1f | %.1f |" % (name, ns["write"][name] / 1e3 / calls, ns["read"][name] / 1e3 / calls))
    print("| **total CPU of the service** | **%.1f** | **%.1f** |" % (
        sum(ns["write"].values()) / 1e3 / calls, sum(ns["read"].values()) / 1e3 / calls))
    if folded_out:
        for stack, count in sorted(folded.items()):
            folded_out.write("%s %d\n" % (stack, count))


if __name__ == "__main__":
    main()
