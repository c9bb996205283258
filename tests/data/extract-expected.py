#!/usr/bin/env python3
"""Records what tshark decodes in a capture, as expected values for tests.

For each capture it writes, next to the capture:
  expected.csv    one row per frame: tshark's own field values (-T fields),
                  with IPv4, TCP and UDP checksum checks switched on
                  (ICMP checksums are always checked);
  offsets.csv     one row per frame: where the network header, transport
                  header and transport payload start, taken from the `pos`
                  and `size` attributes of tshark's PDML output;
  reassembly.csv  only if the capture holds IPv4 fragments: how tshark puts
                  them back together and its verdict on the whole datagram's
                  UDP/TCP checksum.

expected.csv and offsets.csv describe each frame on its own, as a per-packet
filter sees it: IPv4 reassembly and TCP stream reassembly are off. Where a
field occurs more than once (an ICMP error quoting an IPv4 header), the first
(outermost) occurrence is kept.

Checksum status columns hold tshark's numbers: 0 = bad, 1 = good,
2 = not verified (e.g. the UDP header of a first fragment), 3 = not present
(a UDP checksum of 0x0000).

Usage: extract-expected.py [CAPTURE ...]
Without arguments: packets/frames.pcap and traffic/*.pcap next to this script.
Needs tshark.
"""

import collections
import csv
import glob
import io
import os
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

CHECKSUM_CHECKS = [
    "-o", "ip.check_checksum:TRUE",
    "-o", "tcp.check_checksum:TRUE",
    "-o", "udp.check_checksum:TRUE",
]
PER_FRAME = [
    "-o", "ip.defragment:FALSE",
    "-o", "tcp.desegment_tcp_streams:FALSE",
]

FIELDS = [
    "frame.number", "frame.len",
    "eth.src", "eth.dst", "eth.type",
    "vlan.id", "vlan.priority", "vlan.etype",
    "arp.opcode", "arp.src.proto_ipv4", "arp.dst.proto_ipv4",
    "ip.hdr_len", "ip.len", "ip.id", "ip.flags.df", "ip.flags.mf",
    "ip.frag_offset", "ip.ttl", "ip.proto",
    "ip.checksum", "ip.checksum.status", "ip.src", "ip.dst",
    "tcp.srcport", "tcp.dstport", "tcp.seq_raw", "tcp.ack_raw",
    "tcp.hdr_len", "tcp.flags", "tcp.len",
    "tcp.checksum", "tcp.checksum.status",
    "udp.srcport", "udp.dstport", "udp.length",
    "udp.checksum", "udp.checksum.status",
    "icmp.type", "icmp.code", "icmp.checksum", "icmp.checksum.status",
    "dns.id", "dns.flags.response",
    "dhcp.option.dhcp",
]

REASSEMBLY_FIELDS = [
    "frame.number", "ip.id", "ip.flags.mf", "ip.frag_offset",
    "ip.reassembled_in", "ip.reassembled.length",
    "udp.length", "udp.checksum", "udp.checksum.status",
    "tcp.checksum", "tcp.checksum.status",
    "icmp.checksum", "icmp.checksum.status",
]

NETWORK_PROTOS = ("ip", "arp", "ipv6")
TRANSPORT_PROTOS = ("tcp", "udp", "icmp")
OFFSET_COLUMNS = [
    "frame", "network", "network_offset", "network_size",
    "transport", "transport_offset", "transport_size",
    "payload_offset", "payload_size",
]


def tshark(capture, *args):
    """Runs tshark on a capture and returns its standard output as text."""
    command = ["tshark", "-n", "-r", capture, *args]
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"tshark failed on {capture}:\n{done.stderr}")
    return done.stdout


def field_args(fields):
    """Returns tshark arguments printing the fields as CSV with a header."""
    args = ["-T", "fields", "-E", "header=y", "-E", "separator=,",
            "-E", "occurrence=f"]
    for field in fields:
        args += ["-e", field]
    return args


def frame_offsets(packet):
    """Returns the offsets row of one PDML <packet> element.

    The network header is the first IPv4/ARP/IPv6 layer; the transport header
    is the first TCP/UDP/ICMP layer right after an IPv4/IPv6 header (none for
    a non-first fragment); the payload is tshark's tcp.payload or udp.payload
    field. Positions count bytes from the start of the Ethernet frame. Sizes
    are what tshark gives the layer: the header for IPv4, TCP and UDP, the
    whole message for ARP and ICMP.
    """
    number = packet.find("proto[@name='frame']/field[@name='frame.number']")
    row = {"frame": number.get("show")}
    protos = packet.findall("proto")
    names = [proto.get("name") for proto in protos]
    for index, proto in enumerate(protos):
        name = proto.get("name")
        if name in NETWORK_PROTOS and "network" not in row:
            row.update(network=name, network_offset=proto.get("pos"),
                       network_size=proto.get("size"))
            following = names[index + 1] if index + 1 < len(names) else ""
            if name != "arp" and following in TRANSPORT_PROTOS:
                transport = protos[index + 1]
                row.update(transport=following,
                           transport_offset=transport.get("pos"),
                           transport_size=transport.get("size"))
                payload = transport.find(
                    f"field[@name='{following}.payload']")
                if payload is not None:
                    row.update(payload_offset=payload.get("pos"),
                               payload_size=payload.get("size"))
    return row


def write_offsets(capture, path):
    """Writes the offsets.csv rows of every frame of a capture to path."""
    pdml = tshark(capture, *PER_FRAME, "-T", "pdml")
    root = ElementTree.fromstring(pdml)
    with open(path, "w", newline="") as out:
        writer = csv.DictWriter(out, OFFSET_COLUMNS, lineterminator="\n")
        writer.writeheader()
        for packet in root.findall("packet"):
            writer.writerow(frame_offsets(packet))


def write_text(path, text):
    """Writes text to path as it is (no newline translation)."""
    with open(path, "w", newline="") as out:
        out.write(text)


def checksum_verdicts(expected_csv):
    """Counts, per checksum status column, how often each verdict occurs."""
    names = {"0": "bad", "1": "good", "2": "unverified", "3": "absent"}
    counts = {}
    for row in csv.DictReader(io.StringIO(expected_csv)):
        for column, value in row.items():
            if column.endswith("checksum.status") and value:
                counts.setdefault(column, collections.Counter())[
                    names.get(value, value)] += 1
    return counts


def extract(capture):
    """Writes the expected-value files of one capture; prints a summary."""
    folder = os.path.dirname(os.path.abspath(capture))
    expected = tshark(capture, *CHECKSUM_CHECKS, *PER_FRAME,
                      *field_args(FIELDS))
    write_text(os.path.join(folder, "expected.csv"), expected)
    write_offsets(capture, os.path.join(folder, "offsets.csv"))

    reassembly = tshark(capture, "-2", *CHECKSUM_CHECKS,
                        "-o", "ip.defragment:TRUE",
                        "-Y", "ip.flags.mf == 1 || ip.frag_offset > 0",
                        *field_args(REASSEMBLY_FIELDS))
    reassembly_path = os.path.join(folder, "reassembly.csv")
    if reassembly.count("\n") > 1:
        write_text(reassembly_path, reassembly)
    elif os.path.exists(reassembly_path):
        os.remove(reassembly_path)

    frames = expected.count("\n") - 1
    print(f"{capture}: {frames} frames")
    for column, counts in sorted(checksum_verdicts(expected).items()):
        verdicts = ", ".join(f"{n} {v}" for v, n in sorted(counts.items()))
        print(f"  {column}: {verdicts}")


def main():
    """Extracts the captures named on the command line, or the default ones."""
    captures = sys.argv[1:]
    if not captures:
        here = os.path.dirname(os.path.abspath(__file__))
        captures = [os.path.join(here, "packets", "frames.pcap")]
        captures += sorted(glob.glob(os.path.join(here, "traffic", "*.pcap")))
    folders = [os.path.dirname(os.path.abspath(c)) for c in captures]
    if len(set(folders)) != len(folders):
        sys.exit("one capture per folder: the output file names are fixed")
    for capture in captures:
        extract(capture)


if __name__ == "__main__":
    main()
