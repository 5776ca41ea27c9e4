#!/usr/bin/python3
"""A scripted UPF for the PFCP stack's tests: it answers as a UPF would, or makes the faults a real
UPF will not make on demand. Messages are built with scapy's PFCP layers.

Usage: scripted_upf.py --listen IP --peer IP [--port 8805] --record FILE [options]

Every datagram it receives is written to FILE as "rx HEX", every one it sends as "tx HEX" (or
"bad HEX" for the deliberately broken ones), so that the test can have tshark read both sides.
Events go to standard output, one line each, flushed: "ready", "assoc-req seq=N", "hb-req seq=N",
"sess-req type=T seq=N seid=S", "report-rsp seq=N cause=C", "vns seq=N", "flood-done".
"""
import argparse
import random
import socket
import struct
import sys
import threading
import time

from scapy.contrib.pfcp import (
    PFCP, IE_Cause, IE_CreatedPDR, IE_FSEID, IE_FTEID, IE_NodeId, IE_PDR_Id, IE_RecoveryTimeStamp, IE_ReportType,
    IE_UPFunctionFeatures, IE_UR_SEQN, IE_URR_Id, IE_UsageReport_SRR, IE_UsageReportTrigger, IE_VolumeMeasurement,
    PFCPAssociationReleaseResponse, PFCPAssociationSetupRequest, PFCPAssociationSetupResponse, PFCPHeartbeatRequest,
    PFCPHeartbeatResponse, PFCPSessionDeletionResponse, PFCPSessionEstablishmentResponse,
    PFCPSessionModificationResponse, PFCPSessionReportRequest)

RTS = 3911484802  # this UPF's recovery time stamp


def event(text):
    sys.stdout.write(text + "\n")
    sys.stdout.flush()


class Upf:
    def __init__(self, a):
        self.a = a
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind((a.listen, a.port))
        self.peer = (a.peer, a.port)
        self.rec = open(a.record, "a", buffering=1)
        self.lock = threading.Lock()
        self.refused = 0
        self.hb_answered = 0
        self.seq = 7000
        self.assoc_up = False
        self.sessions = {}  # the UPF's SEID to ours

    def send(self, data, tag="tx", to=None):
        with self.lock:
            self.rec.write("%s %s\n" % (tag, data.hex()))
        self.sock.sendto(data, to or self.peer)

    def next_seq(self):
        self.seq += 1
        return self.seq

    def node_id(self):
        return IE_NodeId(id_type=0, ipv4=self.a.listen)

    def answer(self, hdr, body, seid=None):
        p = PFCP(version=1, S=0 if seid is None else 1, seq=hdr.seq) if seid is None else \
            PFCP(version=1, S=1, seid=seid, seq=hdr.seq)
        self.send(bytes(p / body))

    def on_request(self, data):
        try:
            h = PFCP(data)
        except Exception:
            return
        t = h.message_type
        if t == 5:
            event("assoc-req seq=%d" % h.seq)
            cause = 64 if self.refused < self.a.refuse else 1
            self.refused += 1
            self.answer(h, PFCPAssociationSetupResponse(IE_list=[
                self.node_id(), IE_Cause(cause=cause), IE_RecoveryTimeStamp(timestamp=RTS),
                IE_UPFunctionFeatures(BUCP=1)]))
            if cause == 1:
                self.assoc_up = True
        elif t == 1:
            event("hb-req seq=%d" % h.seq)
            if self.a.hb_answers < 0 or self.hb_answered < self.a.hb_answers:
                self.hb_answered += 1
                self.answer(h, PFCPHeartbeatResponse(IE_list=[IE_RecoveryTimeStamp(timestamp=RTS)]))
        elif t == 9:
            event("release-req seq=%d" % h.seq)
            self.assoc_up = False
            self.answer(h, PFCPAssociationReleaseResponse(IE_list=[self.node_id(), IE_Cause(cause=1)]))
        elif t in (50, 52, 54):
            # Our SEID for this session is the one in the CP F-SEID; it must come back in the header.
            cp_seid = self.sessions.get(h.seid, h.seid)
            for ie in getattr(h.payload, "IE_list", []):
                if ie.ietype == 57:
                    cp_seid = ie.seid
            up_seid = 0xABC000 + h.seq
            if t == 50:
                self.sessions[up_seid] = cp_seid
            event("sess-req type=%d seq=%d seid=%d" % (t, h.seq, h.seid))
            if self.a.session == "silent":
                return
            if self.a.session == "wrong-seid":
                cp_seid += 1000
            if t == 50:
                body = PFCPSessionEstablishmentResponse(IE_list=[
                    self.node_id(), IE_Cause(cause=1), IE_FSEID(v4=1, seid=up_seid, ipv4=self.a.listen),
                    IE_CreatedPDR(IE_list=[IE_PDR_Id(id=2), IE_FTEID(V4=1, TEID=1000, ipv4=self.a.listen)])])
            elif t == 52:
                body = PFCPSessionModificationResponse(IE_list=[IE_Cause(cause=1)])
            else:
                body = PFCPSessionDeletionResponse(IE_list=[IE_Cause(cause=1)])
            self.answer(h, body, seid=cp_seid)

    def on_answer(self, data):
        h = PFCP(data)
        t = h.message_type
        if t == 57:
            cause = 0
            for ie in getattr(h.payload, "IE_list", []):
                if ie.ietype == 19:
                    cause = ie.cause
            event("report-rsp seq=%d cause=%d" % (h.seq, cause))
        elif t == 11:
            event("vns seq=%d" % h.seq)
        elif t == 6:
            event("assoc-rsp seq=%d" % h.seq)
        elif t == 2:
            event("hb-rsp seq=%d" % h.seq)

    def report(self):
        seq = self.next_seq()
        req = bytes(PFCP(version=1, S=1, seid=self.a.report_seid, seq=seq) / PFCPSessionReportRequest(IE_list=[
            IE_ReportType(USAR=1), IE_UsageReport_SRR(IE_list=[
                IE_URR_Id(id=1), IE_UR_SEQN(number=1), IE_UsageReportTrigger(VOLTH=1),
                IE_VolumeMeasurement(TOVOL=1, total=4096)])]))
        self.send(req)
        time.sleep(0.3)
        self.send(req)  # as if our first answer had been lost

    def bad_inputs(self):
        hb = struct.pack("!HHI", 96, 4, RTS)
        cases = [
            b"\x20\x01\x00",                                                    # truncated header
            b"\x21\x01\x00\x0c\x00\x00\x00\x00",                                 # SEID header cut short
            struct.pack("!BBHI", 0x20, 1, 40, 0x000100) + hb,                    # length past the datagram
            struct.pack("!BBHI", 0x20, 1, 12, 0x000200) + struct.pack("!HHI", 96, 9, RTS),  # element past it
            # a grouped element overrunning its parent: Created PDR of 10 octets holding an F-TEID of 9
            struct.pack("!BBHQI", 0x21, 51, 29, 502, 0x000300) +
            bytes.fromhex("0008000a" "0038000200020015000901" "0000"),
            struct.pack("!BBHI", 0x20, 1, 18, 0x000400) + struct.pack("!HH", 0x0fff, 2) + b"\xab\xcd" + hb,  # unknown IE
            struct.pack("!BBHI", 0x20, 77, 12, 0x000500) + hb,                   # unknown message type
            struct.pack("!BBHI", 0x20, 2, 12, 0x000600) + hb,                    # an answer to nothing we asked
        ]
        big = bytearray(65507)  # the largest UDP payload: a header that claims all of it
        big[0:4] = struct.pack("!BBH", 0x20, 1, len(big) - 4)
        cases.append(bytes(big))
        for c in cases:
            self.send(c, "bad")
            time.sleep(0.01)

    def flood(self, n):
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.bind((self.a.listen, 0))
        rnd = random.Random(17)
        for i in range(n):
            d = rnd.randbytes(rnd.randrange(0, 64))
            if i % 3 == 0 and len(d) >= 4:  # version 1 and a matching length, random beyond
                d = bytes([0x20 | (d[0] & 1), d[1]]) + struct.pack("!H", len(d) - 4) + d[4:]
            s.sendto(d, self.peer)
            if i % 2000 == 1999:
                time.sleep(0.01)  # let the kernel's queue drain a little; a flood, not a wall
        s.close()

    def version2(self):
        self.send(struct.pack("!BBHI", 0x40, 1, 12, 0x000777 << 8) + struct.pack("!HHI", 96, 4, RTS), "bad")

    def actions(self):
        while not self.assoc_up:
            time.sleep(0.05)
        time.sleep(0.2)
        if self.a.assoc_req:
            seq = self.next_seq()
            self.send(bytes(PFCP(version=1, S=0, seq=seq) / PFCPAssociationSetupRequest(IE_list=[
                self.node_id(), IE_RecoveryTimeStamp(timestamp=RTS), IE_UPFunctionFeatures(BUCP=1)])))
        if self.a.report:
            self.report()
        if self.a.vns:
            self.version2()
        if self.a.flood >= 0:
            self.bad_inputs()
            self.flood(self.a.flood)
            event("flood-done")

    def heartbeats(self):
        while True:
            time.sleep(self.a.hb_interval)
            if self.assoc_up and self.a.hb_interval > 0:
                seq = self.next_seq()
                self.send(bytes(PFCP(version=1, S=0, seq=seq) / PFCPHeartbeatRequest(IE_list=[
                    IE_RecoveryTimeStamp(timestamp=RTS)])))

    def run(self):
        threading.Thread(target=self.actions, daemon=True).start()
        if self.a.hb_interval > 0:
            threading.Thread(target=self.heartbeats, daemon=True).start()
        event("ready")
        while True:
            data, frm = self.sock.recvfrom(70000)
            with self.lock:
                self.rec.write("rx %s\n" % data.hex())
            if len(data) < 4:
                continue
            if data[1] in (1, 5, 9, 50, 52, 54):
                self.on_request(data)
            else:
                self.on_answer(data)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--listen", required=True)
    ap.add_argument("--peer", required=True)
    ap.add_argument("--port", type=int, default=8805)
    ap.add_argument("--record", required=True)
    ap.add_argument("--refuse", type=int, default=0, help="refuse the first N association requests (cause 64)")
    ap.add_argument("--hb-answers", type=int, default=-1, help="answer only the first N heartbeats")
    ap.add_argument("--hb-interval", type=float, default=0, help="send our own heartbeats this often")
    ap.add_argument("--session", default="answer", choices=["answer", "silent", "wrong-seid"])
    ap.add_argument("--report", action="store_true", help="send a session report request, twice")
    ap.add_argument("--report-seid", type=int, default=502)
    ap.add_argument("--assoc-req", action="store_true", help="ask for an association ourselves")
    ap.add_argument("--vns", action="store_true", help="send a request in version 2")
    ap.add_argument("--flood", type=int, default=-1, help="send bad datagrams, then N random ones")
    Upf(ap.parse_args()).run()


if __name__ == "__main__":
    main()
