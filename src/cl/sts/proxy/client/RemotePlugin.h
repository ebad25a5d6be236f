/*
 * The remote storage plug-in (libsts_remote.so, log name "libzvsclient"):
 * the client side of the proxy service.  Installed among the storage
 * plug-ins, it claims every proxied session (STSP_CLAIMS_PROXIED,
 * sts_plugin.h), so any user of our storage framework reaches a storage
 * server behind one proxy or a chain of them by putting the chain into
 * sd_proxy of its session definition; nothing else changes for it.
 *
 * Chains.  sd_proxy is "hop#hop#...", each hop "host" or "host:port"
 * (port 10001 when left out; "[v6addr]:port" for IPv6).  The plug-in
 * connects to the first hop, corbaloc::host:port/Proxy.StorageServerManager,
 * and sends the whole chain as the session's proxy; that service passes on
 * what follows the first '#', and where a service's own session still has a
 * next hop, this same plug-in, installed beside it, takes the call on.  So
 * "a#b#c" reaches the storage server at c by way of a and b.
 *
 * What is forwarded: every slot the service serves (sessions and servers,
 * the credential encrypted under the hop's public key, LSUs, LSU lists,
 * images, image lists, data, metadata, copy and include, the controls of
 * sts_api.h, snapshots and file lists), the job counters (below) and
 * REMOTE_IOCTL_REMOTE_LOG.  Each STSError gives its
 * number as the slot's result; each STSError_val also its byte count.
 *
 * Safe retry.  Every call carries the next number of the remote object it
 * goes to (per object, from 1; the manager's calls per hop and session id),
 * and calls on one object are sent one at a time.  When a reply is lost
 * (COMM_FAILURE, TRANSIENT, TIMEOUT) the same call goes again with the same
 * number, up to retry_tries times with a pause of retry_backoff_ms doubling
 * to retry_backoff_max_ms; the service answers a repeated number from its
 * record, so nothing runs twice.  Calls the service does not number and
 * that would not be safe to repeat (listing a file list, closing it,
 * claiming a volume) are sent again only when the ORB knows they did not
 * run (COMPLETED_NO).  Should the manager refuse a number as
 * out of order (another process used the same session id with the same
 * service before), the session's numbers move to the clock and the call is
 * sent once more.
 *
 * Transfers.  A read or write (data or metadata) longer than max_transfer
 * goes in pieces of at most that size, and no longer than the ORB's own
 * message limit allows; nothing else is split.  A write, copy or include
 * answered with a partial count and the busy numbers (2060005, 2060012)
 * continues from that count under a new number; a partial read comes again
 * (its bytes did not travel).  A read that returns fewer bytes than asked
 * has reached the end of the image.
 *
 * Jobs.  Each server opened or created through the hop is announced to it
 * as a job (increaseJobCounterV12) until it closes, so that the service
 * does not end itself as idle in the middle of a backup.
 *
 * Closing.  LSUs, lists and images are closed through their server while it
 * is open, so that the service lets their objects go at its next call;
 * servers close themselves.
 *
 * Settings: <root>/keldrive/zvsclient.conf ("name = value" lines, '#'
 * comments; <root> is $KELDV_ROOT or /usr/keldv), read when the plug-in
 * is loaded:
 *   max_transfer         bytes per message of data, 4096 .. 67108864
 *                        (default 16777216); must not exceed what the
 *                        service accepts
 *   retry_tries          sends of one call whose reply was lost, 1 .. 1000
 *                        (default 8)
 *   retry_backoff_ms     first pause before a resend (default 10)
 *   retry_backoff_max_ms longest pause (default 1000)
 *   call_timeout_ms      a reply not come by then counts as lost; 0 waits
 *                        for ever (default 0)
 *   tls                  "on" reaches every hop over TLS, at
 *                        corbaloc:ssliop:host:port (default "off"); the
 *                        hop's port is then its TLS endpoint's
 *   tls_certificate_file, tls_key_file, tls_ca_file
 *                        this client's certificate (PEM, with its chain)
 *                        and unencrypted key, and the authorities a hop's
 *                        certificate must be signed by; a relative path is
 *                        under <root>/keldrive.  In a process whose ORB the
 *                        plug-in starts, TLS is then its only transport.  In
 *                        a service (a hop of a chain) the ORB is the
 *                        service's: the service's own TLS identity
 *                        (TLS_CERTIFICATE ... of its master configuration)
 *                        serves towards the next hop, and without one an
 *                        open answers REMOTE_ETLS.
 * A line that cannot be used is logged and the default stays.
 *
 * The ORB.  In a process without an ORB the plug-in starts one at its first
 * proxied call, with a message limit fit for max_transfer; a process that
 * uses the ORB itself should start it first (its message limit then bounds
 * the transfers).  The plug-in stays in memory once loaded.
 *
 * Log.  Lines go through ProxyLogger type 2: to the session's sd_log (for
 * the severities its sd_flags let through) and, when the directory
 * <root>/keldrive/logs/libzvsclient exists, to files there.  A hop that
 * cannot be reached is named in an error line with the cause ("proxy hop
 * HOST:PORT cannot be reached: connection refused").
 */
#ifndef KELD_CLIENT_REMOTEPLUGIN_H
#define KELD_CLIENT_REMOTEPLUGIN_H

#include "sts_api.h"

/* Numbers of the remote plug-in (the framework's are 2061xxx). */
#define REMOTE_ELOST 2063001        /* the reply was lost retry_tries times in a row */
#define REMOTE_ENOOBJECT 2063002    /* the remote object is gone (the service restarted) */
#define REMOTE_ESYSTEM 2063003      /* the ORB refused the call (logged with its name) */
#define REMOTE_EBADPROXY 2063004    /* the first hop of sd_proxy is not host[:port] */
#define REMOTE_ECREDENTIAL 2063005  /* the credential cannot be encrypted under the hop's key */
#define REMOTE_ETLS 2063006         /* TLS is asked for, and the TLS identity cannot be used */
#define REMOTE_ESEND 2063007        /* the hop closed the connection each time the call arrived:
                                       most often a message larger than it accepts */
/* Hop N of the chain (0 the first) cannot be reached: REMOTE_EHOP + N + 100
 * times the cause found by a plain connection to the hop once the call was
 * given up (HopCause.h):
 *   0  it takes connections, yet the call did not get through
 *   1  connection refused
 *   2  connection timed out
 *   3  no route to host
 *   4  host name does not resolve
 *   5  the service closed the connection at once, before any request: peer
 *      admission may be refusing the host before it in the chain
 * A hop passes its own such number on one higher, so the client learns which
 * hop of its chain is down, and why. */
#define REMOTE_EHOP 2063100
#define REMOTE_EHOP_LAST 2063699
#define REMOTE_EHOP_PLACE(n) (((n) - REMOTE_EHOP) % 100)
#define REMOTE_EHOP_CAUSE(n) (((n) - REMOTE_EHOP) / 100)

/* A control of the remote plug-in on a server handle: the next line of the
 * first hop's own log.  The first such call opens a mailbox at the hop
 * (lines written from then on arrive); each call takes one line and
 * answers 0, or STS_ENO_EVENT (2060043) when none is waiting.  The mailbox
 * closes with the server. */
#define REMOTE_IOCTL_REMOTE_LOG 20101

typedef struct remote_log_line {
    char rl_origin[512];   /* "remote log from storage server:<host>" */
    char rl_line[1025];    /* one line, as the hop wrote it */
} remote_log_line_t;

#endif /* KELD_CLIENT_REMOTEPLUGIN_H */
