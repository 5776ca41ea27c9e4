#!/usr/bin/python3
# Makes the small captures the GTP-U replay tests read (run once; the files are committed):
#   ue_traffic.pcap  Ethernet: what a UE sends (TCP with a checksum left to offload, UDP, ICMP and
#                    ICMPv6 echo, IPv6 with a hop-by-hop header, a VLAN tag) and what a replay leaves
#                    out (ARP, a fragment, GRE, a frame cut short by the snapshot length)
#   raw_ip.pcap      raw IP (link type 101): IPv4 and IPv6 UDP
#   sll.pcap         Linux cooked (113): an ICMP echo
# The files are written by hand so that a record can be cut shorter than its frame.
import struct
from scapy.all import (ARP, ICMP, IP, TCP, UDP, Dot1Q, Ether, GRE, ICMPv6EchoRequest, IPv6,
                       IPv6ExtHdrHopByHop, Raw, raw)

def write(name, linktype, frames):
    with open(name, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, linktype))
        for i, (frame, caplen) in enumerate(frames):
            data = raw(frame)
            cut = data[:caplen] if caplen else data
            f.write(struct.pack("<IIII", 1700000000 + i, 0, len(cut), len(data)))
            f.write(cut)

eth = Ether(src="02:00:00:00:00:01", dst="02:00:00:00:00:02")
ue4, ue6 = "10.1.1.1", "2001:db8::1"
frames = [
    (eth / IP(src=ue4, dst="93.184.216.34", id=7) / TCP(sport=40000, dport=80, flags="S", seq=1000, chksum=0x1234), 0),
    (eth / IP(src=ue4, dst="8.8.8.8") / UDP(sport=53000, dport=53) / Raw(b"\x12\x34\x01\x00\x00\x01" + b"\x00" * 6 + b"\x07example\x03com\x00\x00\x01\x00\x01"), 0),
    (eth / IP(src=ue4, dst="8.8.4.4") / ICMP(type=8, id=0x4242, seq=3) / Raw(b"odd-length payload!"), 0),
    (eth / IPv6(src=ue6, dst="2001:db8::53") / UDP(sport=34000, dport=9999) / Raw(b"v6 datagram"), 0),
    (eth / IPv6(src=ue6, dst="2001:db8::80") / IPv6ExtHdrHopByHop() / TCP(sport=41000, dport=443, flags="PA", seq=5) / Raw(b"x" * 101), 0),
    (eth / IPv6(src=ue6, dst="2001:db8::1:1") / ICMPv6EchoRequest(id=9, seq=1, data=b"ping6"), 0),
    (Ether(src="02:00:00:00:00:01", dst="ff:ff:ff:ff:ff:ff") / ARP(psrc=ue4, pdst="10.1.1.254"), 0),
    (eth / IP(src=ue4, dst="8.8.8.8", flags="MF", id=99) / UDP(sport=1, dport=2) / Raw(b"f" * 64), 0),
    (eth / IP(src=ue4, dst="10.9.9.9") / GRE() / IP(src="1.1.1.1", dst="2.2.2.2"), 0),
    (eth / IP(src=ue4, dst="93.184.216.34") / TCP(sport=40001, dport=80, flags="PA", options=[("NOP", None), ("NOP", None), ("Timestamp", (1, 2))]) / Raw(b"y" * 1000), 200),
    (eth / IP(src=ue4, dst="93.184.216.34") / TCP(sport=40002, dport=80, flags="PA", options=[("NOP", None), ("NOP", None), ("Timestamp", (3, 4))]) / Raw(b"z" * 1000), 0),
    (eth / Dot1Q(vlan=100) / IP(src=ue4, dst="1.0.0.1") / UDP(sport=6000, dport=7000) / Raw(b"tagged"), 0),
]
write("ue_traffic.pcap", 1, frames)
write("raw_ip.pcap", 101, [
    (IP(src=ue4, dst="8.8.8.8") / UDP(sport=1000, dport=2000) / Raw(b"raw v4"), 0),
    (IPv6(src=ue6, dst="2001:db8::2") / UDP(sport=1000, dport=2000) / Raw(b"raw v6"), 0),
])
sll = struct.pack(">HHH8sH", 0, 1, 6, b"\x02\x00\x00\x00\x00\x01\x00\x00", 0x0800)
write("sll.pcap", 113, [(Raw(sll) / IP(src=ue4, dst="9.9.9.9") / ICMP(id=1, seq=1), 0)])
