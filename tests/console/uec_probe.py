#!/usr/bin/python3
"""An independent console for the engine's console protocol, written from the
protocol's tables with explicit little-endian packing. It checks ping, begin and
stop of a test, the statistics record and an unknown type byte for byte against a
running engine.

usage: uec_probe.py HOST PORT RUNNING_TEST IDLE_TEST LOADED_UES
RUNNING_TEST must be a test whose scenario runs long enough to be stopped.
Prints "ok" and exits 0 when every check holds; otherwise names the first failure.
"""
import socket
import struct
import sys
import time

HEADER = struct.Struct("<IIIQ")  # MessageSize, MessageType, RequestNo, siSocket
BEGIN_TEST = struct.Struct("<II")  # TestID, Stop
STATUS = struct.Struct("<I")
# __uec_stats_response after the header: 19 u32, ds char[28], UPTime u64
STATS = struct.Struct("<19I28sQ")
STATS_FIELDS = ("ConfiguredAMFCount ConfiguredRanCount ConnectedToAMF LoadedUEs UEPoolAvailable UEPoolTotal "
                "UERegistered UEDeRegistered UERegRejected CMConnetced CMIdle NGAPErrors NASErrors UEPduSessions "
                "ExecutingTestCaseCount TestCaseTimeout Executed_TestCases Executed_TestSteps LatchPerSecond").split()

PING, STATS_REQUEST, STATS_RESPONSE, BEGIN, BEGIN_RESPONSE = 63, 1, 2, 35, 36


class Failed(Exception):
    pass


def check(cond, what):
    if not cond:
        raise Failed(what)


class Console:
    def __init__(self, host, port):
        self.s = socket.create_connection((host, port), timeout=5)
        self.buf = b""

    def send(self, mtype, request_no, body=b"", si_socket=0):
        msg = HEADER.pack(HEADER.size + len(body), mtype, request_no, si_socket) + body
        self.s.sendall(msg)
        return msg

    def frame(self, timeout):
        self.s.settimeout(timeout)
        while True:
            if len(self.buf) >= HEADER.size:
                size = struct.unpack_from("<I", self.buf)[0]
                check(size >= HEADER.size, "an answer shorter than its header")
                if len(self.buf) >= size:
                    f, self.buf = self.buf[:size], self.buf[size:]
                    return f
            try:
                chunk = self.s.recv(65536)
            except socket.timeout:
                return None
            check(chunk, "the engine closed the connection")
            self.buf += chunk

    def call(self, mtype, request_no, body=b""):
        self.send(mtype, request_no, body)
        f = self.frame(5)
        check(f is not None, "no answer to type %d" % mtype)
        return f


def begin(c, request_no, test_id, stop):
    f = c.call(BEGIN, request_no, BEGIN_TEST.pack(test_id, stop))
    check(len(f) == 24, "a begin-test answer of 24 bytes, got %d" % len(f))
    size, mtype, no, _ = HEADER.unpack_from(f)
    check((size, mtype, no) == (24, BEGIN_RESPONSE, request_no), "begin-test header %r" % ((size, mtype, no),))
    return STATUS.unpack_from(f, HEADER.size)[0]


def main():
    host, port = sys.argv[1], int(sys.argv[2])
    running_test, idle_test, loaded = (int(x) for x in sys.argv[3:6])
    c = Console(host, port)

    # Ping: the request's own 20 bytes; the first 12 as sent, type 63 kept.
    sent = c.send(PING, 0x01020304, si_socket=0xDEADBEEFCAFEF00D)
    f = c.frame(5)
    check(f is not None and len(f) == 20, "a ping answer of 20 bytes")
    check(f[:12] == sent[:12], "ping echoes size, type and RequestNo: %s" % f.hex())

    # Begin test: every status.
    check(begin(c, 11, 0, 0) == 1, "test id 0 answers 1")
    check(begin(c, 12, 987654, 0) == 2, "an unknown test answers 2")
    check(begin(c, 13, idle_test, 1) == 101, "stop of an idle test answers 101")
    check(begin(c, 14, running_test, 0) == 3, "a start answers 3")
    deadline = time.time() + 15
    status = None
    while time.time() < deadline:
        status = begin(c, 15, running_test, 0)
        check(status in (4, 5), "a second start answers 4 or 5, got %r" % status)
        if status == 5:
            break
        time.sleep(0.1)
    check(status == 5, "a running test answers 5")
    check(begin(c, 16, running_test, 1) == 100, "stop of a running test answers 100")
    check(begin(c, 17, running_test, 1) == 101, "a second stop answers 101")

    # Statistics: 132 bytes at the offsets of the table.
    f = c.call(STATS_REQUEST, 21)
    check(len(f) == 132, "a stats answer of 132 bytes, got %d" % len(f))
    size, mtype, no, _ = HEADER.unpack_from(f)
    check((size, mtype, no) == (132, STATS_RESPONSE, 21), "stats header %r" % ((size, mtype, no),))
    v = STATS.unpack_from(f, HEADER.size)
    fields = dict(zip(STATS_FIELDS, v[:19]))
    check(fields["LoadedUEs"] == loaded, "LoadedUEs at offset 32: %r" % fields)
    check(fields["UEPoolTotal"] >= loaded, "UEPoolTotal at offset 40: %r" % fields)
    check(fields["UEPoolAvailable"] == fields["UEPoolTotal"] - loaded, "UEPoolAvailable at offset 36: %r" % fields)
    check(fields["CMConnetced"] == 0 and fields["CMIdle"] == 0, "CMConnetced and CMIdle are 0")
    check(fields["ConnectedToAMF"] == 0, "no AMF connections")
    check(struct.unpack_from("<I", f, 32)[0] == loaded, "LoadedUEs sits at offset 32")
    ds = v[19]
    text = ds.split(b"\0")[0].decode()
    check(len(text) == 26 and text[2] == "-" and text[5] == "-" and text[10] == ":", "ds at offset 96: %r" % ds)
    check(ds[26:] == b"\0\0", "ds is zero-padded")
    check(v[20] >= 1 and struct.unpack_from("<Q", f, 124)[0] == v[20], "UPTime at offset 124: %d" % v[20])

    # An unknown type gets no answer, and the connection stays usable.
    c.send(75, 31)
    c.send(36, 32, b"\0" * 4)
    check(c.frame(1.0) is None, "no answer to unknown types")
    f = c.call(PING, 33)
    check(HEADER.unpack_from(f)[2] == 33, "a ping after unknown types")
    print("ok")


if __name__ == "__main__":
    try:
        main()
    except Failed as e:
        print("FAILED: %s" % e)
        sys.exit(1)
