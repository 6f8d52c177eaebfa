#!/usr/bin/env python3
"""Holds many slow connections open against a kova-webd on loopback, as a
slow or hostile client does: each sends the start of a request, then one
header line every few seconds, and never finishes. A connection the server
answers or closes (its header deadline) is opened again at once, so the
count stays up for the whole run. Prints what happened at the end.

    slow-clients.py --port N [--count 1000] [--interval 2] [--seconds 30]
                    [--first 2] [--addresses 40]

Connections come from 127.0.0.FIRST .. 127.0.0.(FIRST+ADDRESSES-1), spread
evenly, so no address passes the server's per-address limit; the server is
only ever 127.0.0.1."""
import argparse
import resource
import socket
import time


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--count", type=int, default=1000)
    p.add_argument("--interval", type=float, default=2.0)
    p.add_argument("--seconds", type=float, default=30.0)
    p.add_argument("--first", type=int, default=2)
    p.add_argument("--addresses", type=int, default=40)
    a = p.parse_args()
    if not (1 <= a.count <= 5000 and 0 < a.seconds <= 600 and 0.1 <= a.interval <= 60
            and 2 <= a.first and a.first + a.addresses - 1 <= 254 and a.addresses >= 1):
        p.error("out of range: count 1..5000, seconds up to 600, addresses within 127.0.0.2-254")
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))

    def connect(i):
        s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        s.bind(("127.0.0.%d" % (a.first + i % a.addresses), 0))
        s.settimeout(5)
        s.connect(("127.0.0.1", a.port))
        s.setblocking(False)
        s.send(b"POST /webapi HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n")
        return s

    conns = [connect(i) for i in range(a.count)]
    answered = {}
    reopened = 0
    end = time.monotonic() + a.seconds
    line = 0
    while time.monotonic() < end:
        time.sleep(min(a.interval, max(0.0, end - time.monotonic())))
        line += 1
        for i, s in enumerate(conns):
            closed = False
            try:
                data = s.recv(4096)
                # An answer (the server's 408) or the end of the connection.
                status = data.split(b" ", 2)[1].decode() if data.startswith(b"HTTP/") else "closed"
                answered[status] = answered.get(status, 0) + 1
                closed = True
            except BlockingIOError:
                pass
            except OSError:
                answered["reset"] = answered.get("reset", 0) + 1
                closed = True
            if not closed:
                try:
                    s.send(b"X-Slow-%d: 1\r\n" % line)
                    continue
                except OSError:
                    answered["reset"] = answered.get("reset", 0) + 1
            s.close()
            conns[i] = connect(i)
            reopened += 1
    for s in conns:
        s.close()
    print("slow clients: %d held for %.0f s, one header line every %.1f s; reopened %d; server answers: %s"
          % (a.count, a.seconds, a.interval, reopened,
             ", ".join("%s x%d" % kv for kv in sorted(answered.items())) or "none"))


if __name__ == "__main__":
    main()
