#!/usr/bin/python3
"""A scripted HTTP/2 peer for the faults a real server or client will not make.

server mode: answers the engine's requests as the scenario says (the first connection;
later ones are answered plainly, so that the engine can be seen to go on), on raw frames (header
blocks through python3-hpack), and keeps every byte the engine wrote (OUT/conn<N>.bin).
client mode: speaks to the engine's server the same way.
Every frame received is one line of OUT/events: "frame type=T flags=F sid=S len=L [code=C] [data=HEX] [first=B]".
OUT/ready appears once the server listens.

usage: h2_scripted_peer.py server|client HOST PORT SCENARIO OUT
"""
import os
import random
import socket
import struct
import sys
import threading

from hpack import Decoder, Encoder

PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
DATA, HEADERS, PRIORITY, RST, SETTINGS, PUSH, PING, GOAWAY, WINDOW, CONT = range(10)
END_STREAM, ACK, END_HEADERS, PADDED, PRIO = 0x1, 0x1, 0x4, 0x8, 0x20

mode, host, port, scenario, out = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4], sys.argv[5]
log_lock = threading.Lock()


def log(line):
    with log_lock, open(os.path.join(out, "events"), "a") as f:
        f.write(line + "\n")


def frame(t, flags, sid, payload=b""):
    return struct.pack(">I", len(payload))[1:] + bytes([t, flags]) + struct.pack(">I", sid & 0x7FFFFFFF) + payload


def settings(*pairs):
    return frame(SETTINGS, 0, 0, b"".join(struct.pack(">HI", k, v) for k, v in pairs))


class Conn:
    def __init__(self, sock, n):
        self.s = sock
        self.buf = b""
        self.rec = open(os.path.join(out, "conn%d.bin" % n), "wb")
        self.enc = Encoder()
        self.dec = Decoder()
        self.block = b""
        self.streams = {}
        self.sc = scenario if n == 1 else "ok"

    def send(self, b):
        try:
            self.s.sendall(b)
        except OSError:
            if mode == "server":
                raise  # a client goes on reading what the engine said before it closed

    def need(self, n):
        while len(self.buf) < n:
            d = self.s.recv(65536)
            if not d:
                raise EOFError
            self.rec.write(d)
            self.rec.flush()
            self.buf += d
        r, self.buf = self.buf[:n], self.buf[n:]
        return r

    def read_frame(self):
        h = self.need(9)
        length = struct.unpack(">I", b"\0" + h[:3])[0]
        t, flags, sid = h[3], h[4], struct.unpack(">I", h[5:9])[0] & 0x7FFFFFFF
        p = self.need(length)
        line = "frame type=%d flags=%d sid=%d len=%d" % (t, flags, sid, length)
        if t in (RST, GOAWAY) and len(p) >= 4:
            line += " code=%d" % struct.unpack(">I", p[-4:] if t == RST else p[4:8])[0]
        if t == PING:
            line += " data=%s" % p.hex()
        if t == HEADERS and p:
            line += " first=%d" % p[0]
        log(line)
        return t, flags, sid, p

    def headers(self, sid, hdrs, end_stream, flags_extra=0):
        block = self.enc.encode(hdrs)
        chunks = [block[i:i + 16384] for i in range(0, len(block), 16384)] or [b""]
        for i, c in enumerate(chunks):
            last = i == len(chunks) - 1
            if i == 0:
                f = (END_STREAM if end_stream else 0) | (END_HEADERS if last else 0) | flags_extra
                self.send(frame(HEADERS, f, sid, c))
            else:
                self.send(frame(CONT, END_HEADERS if last else 0, sid, c))

    def data(self, sid, body, end_stream):
        for i in range(0, max(len(body), 1), 16384):
            last = i + 16384 >= len(body)
            self.send(frame(DATA, END_STREAM if (end_stream and last) else 0, sid, body[i:i + 16384]))


def respond(c, sid, body, extra=()):
    c.headers(sid, [(":status", "200"), ("content-length", str(len(body)))] + list(extra), False)
    c.data(sid, body, True)


# ---------------------------------------------------------------- the server's scenarios

def on_headers_begin(c, sid):
    """Called when a request's header block is complete: some answers start at once."""
    st = c.streams[sid]
    if c.sc == "settings_mid" and sid == 1:
        # the response starts, then the settings change, then the rest of the upload follows
        c.headers(sid, [(":status", "200")], False)
        c.data(sid, b"part-one;", False)
        c.send(settings((1, 0), (4, 70000), (5, 20000)))
        c.send(frame(WINDOW, 0, 0, struct.pack(">I", 1000000)))
        st["started"] = True


def on_request(c, sid):
    st = c.streams[sid]
    path, body = st["headers"].get(":path", ""), st["body"]
    if c.sc == "continuation":
        big = "".join(random.Random(5).choice("abcdefghijklmnopqrstuvwxyz0123456789") for _ in range(40000))
        respond(c, sid, b"continued", [("x-big", big)])
    elif c.sc == "padding":
        block = c.enc.encode([(":status", "200"), ("x-pad", "yes")])
        pad = 20
        c.send(frame(HEADERS, END_HEADERS | PADDED | PRIO, sid, bytes([pad]) + b"\0\0\0\0\x0f" + block + b"\0" * pad))
        parts = [(b"padded-", 0), (b"body-", 50), (b"ends-here", 255)]
        for i, (p, n) in enumerate(parts):
            last = i == len(parts) - 1
            c.send(frame(DATA, PADDED | (END_STREAM if last else 0), sid, bytes([n]) + p + b"\0" * n))
    elif c.sc == "window1":
        respond(c, sid, body)
    elif c.sc == "ping":
        c.pending_ping = sid
        c.send(frame(PING, 0, 0, b"kestrane"))
    elif c.sc == "closed_stream":
        if sid == 1:
            respond(c, sid, b"first")
            c.send(frame(DATA, 0, 1, b"late"))
            c.headers(1, [(":status", "200"), ("x-late", "late-value-stays-in-table")], True)
        else:
            respond(c, sid, b"second", [("x-late", "late-value-stays-in-table")])
    elif c.sc == "settings_mid":
        if st.get("started"):
            c.data(sid, b"part-two;received=%d" % len(body), True)
        else:
            respond(c, sid, b"after")
    elif c.sc == "bigframe":
        c.headers(sid, [(":status", "200")], False)
        c.send(frame(DATA, END_STREAM, sid, b"x" * 20000))
    elif c.sc == "badhpack":
        c.send(frame(HEADERS, END_HEADERS | END_STREAM, sid, b"\xff\xff\xff\xff\xff\xff\xff\xff"))
    elif c.sc == "hpackindex":
        c.send(frame(HEADERS, END_HEADERS | END_STREAM, sid, b"\xff\x49"))  # index 200, the table is empty
    elif c.sc == "overwindow":
        if path == "/after":
            respond(c, sid, b"after")
        else:
            c.headers(sid, [(":status", "200")], False)
            c.send(frame(DATA, END_STREAM, sid, b"w" * 10000))  # past a stream window of 8192
    elif c.sc == "idle_stream":
        c.headers(sid + 6, [(":status", "200")], True)
    elif c.sc == "junk":
        c.send(random.Random(1).randbytes(1 << 20))
    else:
        respond(c, sid, b"ok")


def serve(c):
    initial = {"window1": [(4, 1)], "settings_mid": [(4, 1000)]}.get(c.sc, [])
    c.send(settings(*initial))
    if c.need(24) != PREFACE:
        log("bad preface")
        return
    while True:
        t, flags, sid, p = c.read_frame()
        if t == SETTINGS and not flags & ACK:
            c.send(frame(SETTINGS, ACK, 0))
        elif t == PING and flags & ACK and getattr(c, "pending_ping", None):
            sid_p, c.pending_ping = c.pending_ping, None
            respond(c, sid_p, b"pong")
        elif t in (HEADERS, CONT):
            if t == HEADERS:
                c.streams.setdefault(sid, {"body": b"", "headers": {}})
                c.cur_end = flags & END_STREAM
            c.block += p
            if flags & END_HEADERS:
                if c.sc == "settings_mid" and sid > 1:
                    c.dec.max_allowed_table_size = 0
                c.streams[sid]["headers"] = dict(c.dec.decode(c.block))
                c.block = b""
                on_headers_begin(c, sid)
                if c.cur_end:
                    on_request(c, sid)
        elif t == DATA:
            st = c.streams.get(sid)
            if st is None:
                continue
            st["body"] += p
            if p:
                c.send(frame(WINDOW, 0, 0, struct.pack(">I", len(p))))
                if not flags & END_STREAM:
                    c.send(frame(WINDOW, 0, sid, struct.pack(">I", len(p))))
            if flags & END_STREAM:
                on_request(c, sid)


def run_server():
    ls = socket.socket()
    ls.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    ls.bind((host, port))
    ls.listen(16)
    open(os.path.join(out, "ready"), "w").close()
    n = 0
    while True:
        s, _ = ls.accept()
        n += 1
        threading.Thread(target=guarded, args=(serve, Conn(s, n)), daemon=True).start()


def guarded(fn, c):
    try:
        fn(c)
    except (EOFError, ConnectionError, OSError) as e:
        log("closed %s" % type(e).__name__)
    finally:
        c.s.close()


# ---------------------------------------------------------------- the client's scenarios

def run_client():
    c = Conn(socket.create_connection((host, port)), 1)
    c.send(PREFACE)
    if scenario == "junk_after_preface":
        c.send(random.Random(2).randbytes(1 << 20))
    else:
        c.send(settings())
        get = [(":method", "GET"), (":scheme", "http"), (":authority", "%s:%d" % (host, port)), (":path", "/")]
        if scenario == "backwards":
            c.headers(5, get, True)
            c.headers(3, get, True)
        else:
            c.headers(1, get, True)
    try:
        while True:
            t, flags, sid, p = c.read_frame()
            if t == SETTINGS and not flags & ACK:
                c.send(frame(SETTINGS, ACK, 0))
            if t == GOAWAY or (scenario == "ok" and t == DATA and flags & END_STREAM):
                break
    except (EOFError, ConnectionError, OSError) as e:
        log("closed %s" % type(e).__name__)
    log("done")


if mode == "server":
    run_server()
else:
    run_client()
