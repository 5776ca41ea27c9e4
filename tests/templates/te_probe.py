#!/usr/bin/python3
"""An independent console for the element connection requests, written from the protocol's
tables with explicit little-endian packing: the connection list (51) and a connection command
(53), checked byte for byte against a running engine whose data/noc.json holds

  UPF client 1  127.0.0.1:8805   IP_2 127.0.0.11  Port_2 "2152"
  UPF server 2  127.0.0.2:8805   IP_2 10.0.0.22   Port_2 "2153"
  UPF server 3  ::1:8806         IP_2 10.0.0.33   Port_2 "2154"
  HSS client 4  127.0.0.1:3868   IP_2 hss-client  Port_2 realm
  HSS server 5  10.0.0.5:3868    IP_2 hss         Port_2 realm
  PGW client 6, and no PGW server

usage: te_probe.py HOST PORT
Prints "ok" and exits 0 when every check holds; otherwise names the first failure.
"""
import os
import socket
import struct
import sys

# The console's framing and checks are the console probe's (no bytecode left in the tree).
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "console"))
from uec_probe import HEADER, Console, Failed, check  # noqa: E402

CONNECTION = struct.Struct("<IIII")   # ID, Spare, TEApplicationType, Command
LIST_HEAD = struct.Struct("<II")      # Count, TEApplicationType
ROW = struct.Struct("<IIII20s16sHH16sHH16sHH16sHH")
COMMAND_ANSWER = struct.Struct("<IIII")  # ConnectionId, ConnectionStatus, CommandStatus, TEApplicationType
LIST, LIST_ANSWER, COMMAND, COMMAND_ANSWER_TYPE = 51, 52, 53, 54


def call(c, mtype, request_no, body):
    """A request with a socket reference the answer must not carry back."""
    c.send(mtype, request_no, body, si_socket=0xdeadbeef)
    f = c.frame(5)
    check(f is not None, "no answer to type %d" % mtype)
    return f


def ipv4(text):
    return socket.inet_aton(text) + bytes(12)


def listing(c, request_no, app_type, body=None):
    f = call(c, LIST, request_no, CONNECTION.pack(0, 0, app_type, 0) if body is None else body)
    size, mtype, no, _ = HEADER.unpack_from(f)
    check((mtype, no) == (LIST_ANSWER, request_no), "list answer header %r" % ((mtype, no),))
    count, echoed = LIST_HEAD.unpack_from(f, HEADER.size)
    check(size == len(f) == HEADER.size + LIST_HEAD.size + count * ROW.size,
          "a list answer of %d bytes for %d rows, got %d" % (HEADER.size + LIST_HEAD.size + count * ROW.size,
                                                             count, len(f)))
    check(echoed == app_type, "the list names type %d, not %d" % (echoed, app_type))
    return [ROW.unpack_from(f, HEADER.size + LIST_HEAD.size + i * ROW.size) for i in range(count)]


def main():
    c = Console(sys.argv[1], int(sys.argv[2]))

    upf = listing(c, 7, 2)
    check(len(upf) == 2, "two UPF pairs, got %d" % len(upf))
    want = [
        (1, 0, 0, 2, b"TD-1 DUT-2".ljust(20, b"\0"), ipv4("127.0.0.2"), 4, 8805, ipv4("10.0.0.22"), 4, 2153,
         ipv4("127.0.0.1"), 4, 8805, ipv4("127.0.0.11"), 4, 2152),
        (2, 0, 0, 2, b"TD-1 DUT-3".ljust(20, b"\0"), bytes(16), 6, 8806, ipv4("10.0.0.33"), 4, 2154,
         ipv4("127.0.0.1"), 4, 8805, ipv4("127.0.0.11"), 4, 2152),
    ]
    for got, exp in zip(upf, want):
        check(got == exp, "UPF row %r, expected %r" % (got, exp))

    hss = listing(c, 8, 7)
    check(len(hss) == 1, "one HSS pair")
    check(hss[0][:5] == (3, 0, 0, 7, b"TD-4 DUT-5".ljust(20, b"\0")), "HSS row %r" % (hss[0][:5],))
    check(hss[0][8:11] == (bytes(16), 0, 0), "an HSS server's second address is its host, not an address")
    check(listing(c, 9, 5) == [], "a PGW client without a server has no pair")
    check(listing(c, 10, 0, body=b"") == [], "a request of the header alone reads as type 0")

    for request_no, (conn_id, command) in enumerate([(1, 1), (99, 1), (2, 5)], start=20):
        f = call(c, COMMAND, request_no, CONNECTION.pack(conn_id, 0, 2, command))
        size, mtype, no, si = HEADER.unpack_from(f)
        check((size, mtype, no, si) == (36, COMMAND_ANSWER_TYPE, request_no, 0),
              "command answer header %r" % ((size, mtype, no, si),))
        check(COMMAND_ANSWER.unpack_from(f, HEADER.size) == (conn_id, 0, 0, 2),
              "command answer %r" % (COMMAND_ANSWER.unpack_from(f, HEADER.size),))
    print("ok")
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (Failed, OSError, struct.error) as e:
        print("FAILED: %s" % e)
        sys.exit(1)
