#!/usr/bin/env python3
"""UDP traffic for capture-traffic.sh: a DNS-like exchange and plain datagrams.

  traffic-peers.py serve ADDRESS   answers DNS queries on ADDRESS:53 with one
                                   A record and swallows datagrams sent to
                                   ADDRESS:9999; runs until killed.
  traffic-peers.py send ADDRESS    asks the server two DNS questions (waiting
                                   for each answer), then sends datagrams of
                                   assorted sizes to ADDRESS:9999; the
                                   3000-byte one leaves the host as IPv4
                                   fragments.

Messages are built by hand with struct, so only the standard library is
needed.
"""

import select
import socket
import struct
import sys

DNS_PORT = 53
SINK_PORT = 9999
CLIENT_DNS_PORT = 53535
CLIENT_SINK_PORT = 45454
QUESTIONS = [(0x4e01, "files.example.test"), (0x4e02, "odd.example.test")]
ANSWER_ADDRESS = "10.0.0.2"
DATAGRAM_SIZES = [1, 37, 100, 511, 1472, 3000]


def encode_name(name):
    """Returns a DNS name as length-prefixed labels ending in a zero byte."""
    out = b""
    for label in name.split("."):
        out += bytes([len(label)]) + label.encode("ascii")
    return out + b"\x00"


def dns_query(query_id, name):
    """Returns a recursive query for the A record of name."""
    header = struct.pack("!HHHHHH", query_id, 0x0100, 1, 0, 0, 0)
    return header + encode_name(name) + struct.pack("!HH", 1, 1)


def dns_answer(query):
    """Returns the answer to a query built by dns_query: one A record."""
    query_id, = struct.unpack("!H", query[:2])
    question = query[12:]
    header = struct.pack("!HHHHHH", query_id, 0x8180, 1, 1, 0, 0)
    record = (b"\xc0\x0c" + struct.pack("!HHIH", 1, 1, 300, 4) +
              socket.inet_aton(ANSWER_ADDRESS))
    return header + question + record


def serve(address):
    """Answers DNS queries and swallows sink datagrams until killed."""
    dns = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    dns.bind((address, DNS_PORT))
    sink = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sink.bind((address, SINK_PORT))
    while True:
        readable, _, _ = select.select([dns, sink], [], [])
        for sock in readable:
            data, peer = sock.recvfrom(65535)
            if sock is dns and len(data) > 12:
                dns.sendto(dns_answer(data), peer)


def send(address):
    """Asks the DNS questions, then sends the sink datagrams; returns."""
    dns = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    dns.bind(("", CLIENT_DNS_PORT))
    dns.settimeout(2.0)
    for query_id, name in QUESTIONS:
        dns.sendto(dns_query(query_id, name), (address, DNS_PORT))
        dns.recvfrom(65535)
    sink = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sink.bind(("", CLIENT_SINK_PORT))
    for size in DATAGRAM_SIZES:
        payload = bytes((i * 7) % 256 for i in range(size))
        sink.sendto(payload, (address, SINK_PORT))


def main():
    """Runs the mode named on the command line."""
    if len(sys.argv) != 3 or sys.argv[1] not in ("serve", "send"):
        sys.exit(__doc__)
    {"serve": serve, "send": send}[sys.argv[1]](sys.argv[2])


if __name__ == "__main__":
    main()
