#!/usr/bin/python3
"""Writes the hand-made test frames: packets/frames.pcap and packets/cases.csv.

Every frame is built with Scapy from fixed values (MAC and IPv4 addresses,
ports, IP identifiers, TCP sequence numbers, payloads) and stamped with a
fixed capture time, so running this script again gives byte-identical files.
Scapy computes every length and checksum, except where a case says it
deliberately stores a wrong or special value.

Frames are written to one pcap (Ethernet link type) in the order of CASES;
cases.csv maps each frame number to its case name and what it exercises.

Usage: make-packets.py [OUTPUT_DIR]   (default: packets/ next to this script)
Needs the Debian package python3-scapy (hence /usr/bin/python3).
"""

import csv
import os
import sys
from decimal import Decimal

from scapy.all import (ARP, BOOTP, DHCP, DNS, DNSQR, DNSRR, ICMP, IP, TCP,
                       UDP, Dot1Q, Ether, Padding, Raw, fragment, mac2str,
                       wrpcap)
from scapy.layers.inet import IPOption_Router_Alert

# Fixed capture time of frame 1 (2024-01-01 00:00:00 UTC); each following
# frame is stamped one millisecond later.
BASE_TIME = Decimal(1704067200)
STEP = Decimal("0.001")

# Ethernet frames shorter than this (without FCS) are zero-padded, as they
# arrive from a real wire.
ETH_MIN_FRAME = 60

# The hosts on the test LAN.
CLIENT_MAC = "02:00:00:00:00:0a"
CLIENT_IP = "192.168.1.10"
GATEWAY_MAC = "02:00:00:00:00:01"
GATEWAY_IP = "192.168.1.1"       # also the DNS and DHCP server
PEER_MAC = "02:00:00:00:00:14"
PEER_IP = "192.168.1.20"
WEB_IP = "198.51.100.80"         # off-LAN, reached through the gateway
NEW_CLIENT_MAC = "02:00:00:00:00:64"
OFFERED_IP = "192.168.1.100"
BROADCAST_MAC = "ff:ff:ff:ff:ff:ff"


def pad(frame):
    """Appends zero padding up to the Ethernet minimum frame size."""
    short = ETH_MIN_FRAME - len(frame)
    if short > 0:
        frame = frame / Padding(load=b"\x00" * short)
    return frame


def client_to_gateway():
    """Ethernet header of a frame the client sends to (or via) the gateway."""
    return Ether(src=CLIENT_MAC, dst=GATEWAY_MAC)


def gateway_to_client():
    """Ethernet header of a frame the gateway sends to the client."""
    return Ether(src=GATEWAY_MAC, dst=CLIENT_MAC)


def arp_request():
    return pad(Ether(src=CLIENT_MAC, dst=BROADCAST_MAC) /
               ARP(op=1, hwsrc=CLIENT_MAC, psrc=CLIENT_IP,
                   hwdst="00:00:00:00:00:00", pdst=GATEWAY_IP))


def arp_reply():
    return pad(gateway_to_client() /
               ARP(op=2, hwsrc=GATEWAY_MAC, psrc=GATEWAY_IP,
                   hwdst=CLIENT_MAC, pdst=CLIENT_IP))


def rarp_request():
    # Reverse ARP has its own ethertype and opcode 3 ("request reverse").
    return pad(Ether(src=NEW_CLIENT_MAC, dst=BROADCAST_MAC, type=0x8035) /
               ARP(op=3, hwsrc=NEW_CLIENT_MAC, psrc="0.0.0.0",
                   hwdst=NEW_CLIENT_MAC, pdst="0.0.0.0"))


# The 32-byte payload a common desktop ping sends.
PING_PAYLOAD = b"abcdefghijklmnopqrstuvwabcdefghi"


def icmp_echo_request():
    return (client_to_gateway() /
            IP(src=CLIENT_IP, dst=GATEWAY_IP, id=0x1001, ttl=128) /
            ICMP(type=8, id=0x0001, seq=0x0007) / Raw(PING_PAYLOAD))


def icmp_echo_reply():
    return (gateway_to_client() /
            IP(src=GATEWAY_IP, dst=CLIENT_IP, id=0x2001, ttl=64) /
            ICMP(type=0, id=0x0001, seq=0x0007) / Raw(PING_PAYLOAD))


def tcp_syn_with_options():
    return (client_to_gateway() /
            IP(src=CLIENT_IP, dst=WEB_IP, id=0x1002, flags="DF", ttl=64) /
            TCP(sport=49152, dport=80, seq=0x10000000, ack=0, flags="S",
                window=64240,
                options=[("MSS", 1460), ("SAckOK", b""),
                         ("Timestamp", (1000000, 0)), ("NOP", None),
                         ("WScale", 7)]))


def tcp_syn_ack_with_options():
    return (gateway_to_client() /
            IP(src=WEB_IP, dst=CLIENT_IP, id=0x0000, flags="DF", ttl=56) /
            TCP(sport=80, dport=49152, seq=0x20000000, ack=0x10000001,
                flags="SA", window=65160,
                options=[("MSS", 1400), ("SAckOK", b""),
                         ("Timestamp", (5000000, 1000000)), ("NOP", None),
                         ("WScale", 9)]))


# Data segments belong to a second connection (port 49153) that did not
# negotiate timestamps, so they carry no TCP options.
HTTP_REQUEST = (b"GET /index.html HTTP/1.1\r\n"
                b"Host: www.example.test\r\n"
                b"Accept: */*\r\n\r\n")
ODD_PAYLOAD = b"odd-length TCP payload of 37 bytes!\r\n"
assert len(ODD_PAYLOAD) == 37


def tcp_data_without_options():
    return (client_to_gateway() /
            IP(src=CLIENT_IP, dst=WEB_IP, id=0x1003, flags="DF", ttl=64) /
            TCP(sport=49153, dport=80, seq=0x30000001, ack=0x40000001,
                flags="PA", window=502) / Raw(HTTP_REQUEST))


def tcp_odd_payload():
    return (client_to_gateway() /
            IP(src=CLIENT_IP, dst=WEB_IP, id=0x1004, flags="DF", ttl=64) /
            TCP(sport=49153, dport=80, seq=0x30000001 + len(HTTP_REQUEST),
                ack=0x40000001, flags="PA", window=502) / Raw(ODD_PAYLOAD))


def tcp_ack_padded():
    """The server's bare ACK of both data segments: 54 bytes, padded to 60."""
    return pad(gateway_to_client() /
               IP(src=WEB_IP, dst=CLIENT_IP, id=0x2004, flags="DF", ttl=56) /
               TCP(sport=80, dport=49153, seq=0x40000001,
                   ack=0x30000001 + len(HTTP_REQUEST) + len(ODD_PAYLOAD),
                   flags="A", window=509))


def dns_query():
    return (client_to_gateway() /
            IP(src=CLIENT_IP, dst=GATEWAY_IP, id=0x1005, ttl=64) /
            UDP(sport=53000, dport=53) /
            DNS(id=0x1234, rd=1, qd=DNSQR(qname="www.example.test",
                                          qtype="A")))


def dns_response():
    return (gateway_to_client() /
            IP(src=GATEWAY_IP, dst=CLIENT_IP, id=0x2005, ttl=64) /
            UDP(sport=53, dport=53000) /
            DNS(id=0x1234, qr=1, rd=1, ra=1,
                qd=DNSQR(qname="www.example.test", qtype="A"),
                an=DNSRR(rrname="www.example.test", type="A", ttl=300,
                         rdata=WEB_IP)))


def dhcp_discover():
    return (Ether(src=NEW_CLIENT_MAC, dst=BROADCAST_MAC) /
            IP(src="0.0.0.0", dst="255.255.255.255", id=0x1006, ttl=64) /
            UDP(sport=68, dport=67) /
            BOOTP(op=1, xid=0x3903F326, flags=0x8000,
                  chaddr=mac2str(NEW_CLIENT_MAC)) /
            DHCP(options=[("message-type", "discover"),
                          ("param_req_list", [1, 3, 6, 15]),
                          "end"]))


def dhcp_offer():
    return (Ether(src=GATEWAY_MAC, dst=BROADCAST_MAC) /
            IP(src=GATEWAY_IP, dst="255.255.255.255", id=0x2006, ttl=64) /
            UDP(sport=67, dport=68) /
            BOOTP(op=2, xid=0x3903F326, flags=0x8000, yiaddr=OFFERED_IP,
                  siaddr=GATEWAY_IP, chaddr=mac2str(NEW_CLIENT_MAC)) /
            DHCP(options=[("message-type", "offer"),
                          ("server_id", GATEWAY_IP),
                          ("lease_time", 86400),
                          ("subnet_mask", "255.255.255.0"),
                          ("router", GATEWAY_IP),
                          ("name_server", GATEWAY_IP),
                          "end"]))


# A 3000-byte UDP datagram (8-byte header + 2992 payload bytes counting
# 0x00..0xFF round and round) in 1480-byte pieces: 1480 + 1480 + 40.
FRAGMENTED_PAYLOAD = bytes(i % 256 for i in range(2992))


def udp_fragment_train():
    whole = (client_to_gateway() /
             IP(src=CLIENT_IP, dst=PEER_IP, id=0x1007, ttl=64) /
             UDP(sport=40000, dport=9000) / Raw(FRAGMENTED_PAYLOAD))
    # Build once so the UDP checksum covers the whole datagram.
    whole = Ether(bytes(whole))
    return fragment(whole, fragsize=1480)


def vlan_tagged_udp():
    return (Ether(src=CLIENT_MAC, dst=PEER_MAC) /
            Dot1Q(prio=5, vlan=100) /
            IP(src=CLIENT_IP, dst=PEER_IP, id=0x1008, ttl=64) /
            UDP(sport=40001, dport=9001) / Raw(b"tagged frame on VLAN 100"))


def udp_with_sum_ffff():
    """A UDP datagram whose one's-complement sum is 0xFFFF.

    The complement of that sum is 0x0000, which UDP reserves for "no
    checksum", so the value on the wire must be 0xFFFF. The last two payload
    bytes are searched, lowest first, until Scapy's computed checksum is
    0xFFFF (Scapy applies the 0 -> 0xFFFF rule itself).
    """
    stem = b"zero-sum checksum case.."
    for filler in range(0x10000):
        frame = (client_to_gateway() /
                 IP(src=CLIENT_IP, dst=PEER_IP, id=0x1009, ttl=64) /
                 UDP(sport=40002, dport=9002) /
                 Raw(stem + filler.to_bytes(2, "big")))
        frame = Ether(bytes(frame))
        if frame[UDP].chksum == 0xFFFF:
            return frame
    raise RuntimeError("no payload gives a UDP checksum of 0xFFFF")


def udp_without_checksum():
    frame = (client_to_gateway() /
             IP(src=CLIENT_IP, dst=PEER_IP, id=0x100A, ttl=64) /
             UDP(sport=40003, dport=9003, chksum=0) /
             Raw(b"sent without a UDP checksum"))
    return frame


def ip_options_udp():
    return (client_to_gateway() /
            IP(src=CLIENT_IP, dst=PEER_IP, id=0x100B, ttl=1,
               options=[IPOption_Router_Alert()]) /
            UDP(sport=40004, dport=9004) / Raw(b"IPv4 header of 24 bytes"))


def ip_bad_header_checksum():
    """A UDP datagram whose IPv4 header checksum is deliberately wrong.

    Everything else (UDP checksum included) is correct; the stored header
    checksum is the correct one XOR 0x5A5A.
    """
    frame = Ether(bytes(client_to_gateway() /
                        IP(src=CLIENT_IP, dst=PEER_IP, id=0x100C, ttl=64) /
                        UDP(sport=40005, dport=9005) /
                        Raw(b"IPv4 header checksum is wrong")))
    good = frame[IP].chksum
    frame[IP].chksum = good ^ 0x5A5A
    return Ether(bytes(frame))


# (case name, builder, what it exercises). A builder returns one frame or a
# list of frames; list cases get "-1", "-2", ... appended to their name.
CASES = [
    ("arp-request", arp_request,
     "ARP who-has, broadcast, padded to 60 bytes"),
    ("arp-reply", arp_reply,
     "ARP is-at, unicast, padded to 60 bytes"),
    ("rarp-request", rarp_request,
     "reverse ARP request, ethertype 0x8035, opcode 3"),
    ("icmp-echo-request", icmp_echo_request,
     "ICMP echo request with a 32-byte payload"),
    ("icmp-echo-reply", icmp_echo_reply,
     "ICMP echo reply with a 32-byte payload"),
    ("tcp-syn-options", tcp_syn_with_options,
     "TCP SYN with MSS, SACK-permitted, timestamps, NOP, window scale"),
    ("tcp-syn-ack-options", tcp_syn_ack_with_options,
     "TCP SYN+ACK answering the SYN, with options"),
    ("tcp-data", tcp_data_without_options,
     f"TCP data segment without options (20-byte header), "
     f"{len(HTTP_REQUEST)}-byte payload"),
    ("tcp-odd-payload", tcp_odd_payload,
     "TCP data segment with an odd payload length (37 bytes)"),
    ("tcp-ack-padded", tcp_ack_padded,
     "bare TCP ACK, 6 bytes of Ethernet padding after the IPv4 datagram"),
    ("dns-query", dns_query,
     "UDP DNS query, client port 53000 -> 53"),
    ("dns-response", dns_response,
     "UDP DNS response with one A record, 53 -> 53000"),
    ("dhcp-discover", dhcp_discover,
     "DHCP discover, 0.0.0.0:68 -> 255.255.255.255:67, broadcast MAC"),
    ("dhcp-offer", dhcp_offer,
     "DHCP offer, 67 -> 68, broadcast"),
    ("udp-fragment", udp_fragment_train,
     "3000-byte UDP datagram in 3 IPv4 fragments; only the first has the "
     "UDP header"),
    ("vlan-udp", vlan_tagged_udp,
     "802.1Q tag (VLAN 100, priority 5) in front of IPv4/UDP"),
    ("udp-checksum-ffff", udp_with_sum_ffff,
     "UDP checksum whose complement is 0, so 0xFFFF is sent"),
    ("udp-no-checksum", udp_without_checksum,
     "UDP checksum 0x0000: sender computed none"),
    ("ip-options", ip_options_udp,
     "IPv4 header with Router Alert option (IHL 6), TTL 1, carrying UDP"),
    ("ip-bad-checksum", ip_bad_header_checksum,
     "WRONG IPv4 header checksum (correct one XOR 0x5A5A); rest correct"),
]


def build_frames():
    """Returns [(case name, description, frame)] in capture order."""
    frames = []
    for name, builder, what in CASES:
        built = builder()
        if isinstance(built, list):
            for index, frame in enumerate(built, start=1):
                frames.append((f"{name}-{index}", what, frame))
        else:
            frames.append((name, what, built))
    return frames


def main():
    """Writes frames.pcap and cases.csv to the output folder."""
    here = os.path.dirname(os.path.abspath(__file__))
    out_dir = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here,
                                                                 "packets")
    os.makedirs(out_dir, exist_ok=True)

    frames = build_frames()
    packets = []
    for number, (_, _, frame) in enumerate(frames):
        frame = Ether(bytes(frame))     # freeze lengths and checksums
        frame.time = BASE_TIME + STEP * number
        packets.append(frame)
    wrpcap(os.path.join(out_dir, "frames.pcap"), packets, linktype=1)

    with open(os.path.join(out_dir, "cases.csv"), "w", newline="") as out:
        writer = csv.writer(out, lineterminator="\n")
        writer.writerow(["frame", "case", "bytes", "exercises"])
        for number, ((name, what, _), packet) in enumerate(
                zip(frames, packets), start=1):
            writer.writerow([number, name, len(bytes(packet)), what])
    print(f"wrote {len(packets)} frames to {out_dir}/frames.pcap")


if __name__ == "__main__":
    main()
