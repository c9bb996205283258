#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz harnesses into fuzz/corpus/<harness>/.

Each seed is a short, well-formed input in its harness's format (described at
the top of fuzz/fuzz-<harness>.cpp) that takes one ordinary path: the fuzzer
mutates from there. The frame seeds are frames of tests/data/traffic/host-a.pcap.
Run it again after changing an input format; the seeds are committed. Other
files in the corpora are inputs of fixed bugs (see fuzz/crashes/README.md),
which this script leaves alone.
"""
import os
import struct

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CORPUS = os.path.join(ROOT, "fuzz", "corpus")


def u16(v):
    return struct.pack("<H", v & 0xFFFF)


def u32(v):
    return struct.pack("<I", v & 0xFFFFFFFF)


def write(harness, name, data):
    directory = os.path.join(CORPUS, harness)
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, name), "wb") as f:
        f.write(data)


# ---- ioctl: request = 0, handle, code selector, [U32], method, in U16, out U16, wait, input ----
CODES = ["DIAG", "GET_VERSION", "START_SHARE", "STOP_SHARE", "READ_SHARE", "WRITE_SHARE",
         "GET_TCPIP_INTERFACES", "GET_EVENT", "CLEAR_EVENT", "START_ETHRLOG", "STOP_ETHRLOG",
         "SET_IPCONFIG", "GET_IPCONFIG", "SET_MEDIA_STATUS", "GET_MEDIA_STATUS", "GET_DBGFLAG",
         "SET_PACKET_DUMP", "GET_PACKET_DUMP", "GET_ADAPTER", "PUT_SHAREDMEMORYSIZE",
         "DUMP_DEVICE_EXTENSION", "SET_CONGESTION_CONTROL", "BIND", "UNBIND"]


def request(code, handle=0, method=0, input=b"", out=0, wait=1, raw=None):
    selector = CODES.index(code) if raw is None else raw
    data = bytes([0, handle, selector])
    if raw is not None and raw >= 0xE0:
        data += u32(code)
    return data + bytes([method]) + u16(len(input)) + u16(out) + bytes([wait]) + input


def reopen(handle):
    return bytes([2, handle])


def ioctl_seeds():
    write("ioctl", "get-version", request("GET_VERSION", out=2))
    write("ioctl", "share-cycle",
          request("PUT_SHAREDMEMORYSIZE", out=4) + request("START_SHARE", input=u32(1), out=8) +
          request("READ_SHARE") + request("WRITE_SHARE") + request("STOP_SHARE"))
    write("ioctl", "share-owner",
          request("START_SHARE", input=u32(7), out=8) + request("START_SHARE", handle=1, input=u32(1), out=8) +
          request("READ_SHARE", handle=1) + request("WRITE_SHARE", handle=1) + reopen(0) +
          request("START_SHARE", handle=1, input=u32(1), out=8) + request("READ_SHARE", handle=1, wait=0))
    write("ioctl", "congestion",
          request("SET_CONGESTION_CONTROL", input=u32(0)) + request("SET_CONGESTION_CONTROL", input=b"\x05"))
    write("ioctl", "hook-codes",
          request(0, raw=0xC1, out=700) + request(0, raw=0xC1, out=16) + request(0, raw=0xC0, out=64) +
          request("GET_ADAPTER", out=286 * 4) + request("GET_EVENT", input=b"x" * 8, out=64))
    write("ioctl", "random-code", request(0x00224000, raw=0xE0, input=b"\x01\x02\x03\x04", out=32))


# ---- shared-area: op byte first (see fuzz-shared-area.cpp) ----
def block(direction, frame, adapter=0):
    return bytes([2, adapter, direction]) + u16(len(frame)) + frame


WRITE_SHARE, READ_SHARE, DRAIN = b"\x03", b"\x04", b"\x06"


def sleep(units=4):
    return bytes([7, units])


def dns(payload):
    return bytes([5, len(payload)]) + payload


def shared_area_seeds(frames):
    udp = frames["dns-query"]
    write("shared-area", "program-sends",
          block(0, udp) + WRITE_SHARE + sleep() + block(1, frames["icmp-echo"]) + WRITE_SHARE + sleep())
    write("shared-area", "application-loop",
          READ_SHARE + dns(b"\x12\x34\x01\x00\x00\x01") + sleep() + DRAIN + block(2, udp) + WRITE_SHARE +
          sleep() + DRAIN + READ_SHARE)
    write("shared-area", "block-bytes",
          bytes([0]) + u32(20 + 80 + 164) + bytes([8]) + b"\x45\x00\x00\x54\x00\x00\x40\x00" + block(0, udp) +
          WRITE_SHARE + sleep(2))


# ---- frames: flags (bit 0 send, bit 1 second adapter, bit 2 layout), API byte, [layout], length U16, bytes ----
def read_pcap(path):
    data = open(path, "rb").read()
    offset, frames = 24, []
    while offset + 16 <= len(data):
        _, _, captured, _ = struct.unpack("<IIII", data[offset:offset + 16])
        frames.append(data[offset + 16:offset + 16 + captured])
        offset += 16 + captured
    return frames


def pick_frames(pcap):
    """One frame of each kind the clients care about, by its headers."""
    kinds = {}
    host_a = bytes.fromhex("02000000 0a01".replace(" ", ""))
    for frame in pcap:
        sent = frame[6:12] == host_a
        ethertype = frame[12:14]
        if ethertype == b"\x08\x06":
            kinds.setdefault("arp", (frame, sent))
            continue
        if ethertype != b"\x08\x00":
            continue
        ihl = (frame[14] & 15) * 4
        proto = frame[23]
        transport = frame[14 + ihl:]
        if proto == 1:
            kinds.setdefault("icmp-echo" if transport[0] == 8 else "icmp-reply", (frame, sent))
        elif proto == 17:
            port = struct.unpack(">H", transport[2:4])[0]
            kinds.setdefault("dns-query" if port == 53 else "udp-%d" % port, (frame, sent))
        elif proto == 6:
            ports = struct.unpack(">HH", transport[0:4])
            if len(frame) > 1000:
                kinds.setdefault("tcp-large", (frame, sent))
            elif 8080 in ports:
                kinds.setdefault("http" if len(frame) > 100 else "tcp-ack", (frame, sent))
    return kinds


API_NONE, API_READ_PARSE, API_CHECKSUMS, API_MODIFY_CLONE = 0x00, 0x03, 0x0E, 0xC1


def frame_record(frame, send, adapter=0, layout=None, api=API_NONE):
    flags = (1 if send else 0) | (2 if adapter else 0) | (4 if layout else 0)
    data = bytes([flags, api])
    if layout:
        data += u16(layout[0]) + u16(layout[1]) + u16(layout[2])
    return data + u16(len(frame)) + frame


def frames_seeds(kinds):
    apis = {"icmp-echo": 0x1E, "dns-query": 0x3E, "http": 0x2E, "tcp-large": API_MODIFY_CLONE}
    for name in ("arp", "icmp-echo", "icmp-reply", "dns-query", "http", "tcp-large"):
        if name in kinds:
            frame, sent = kinds[name]
            write("frames", name, frame_record(frame, sent, api=apis.get(name, API_READ_PARSE)))
    frame, sent = kinds["http"]
    write("frames", "http-split", frame_record(frame, sent, adapter=1, layout=(1, 3, 20)))
    frame, sent = kinds["tcp-large"]
    write("frames", "large-chunked", frame_record(frame, not sent, layout=(0xFFFF, 0, 1648)))
    udp = bytearray(kinds["dns-query"][0])
    udp[36:38] = struct.pack(">H", 9999)  # the firewall's default rule
    write("frames", "firewall-port", frame_record(bytes(udp), False) + frame_record(bytes(udp), True))
    write("frames", "runt-and-jumbo",
          frame_record(b"\x00" * 6, False, api=0xFF) + bytes([1, API_CHECKSUMS]) + u16(9000) + b"\xff" * 14)


# ---- handles: op byte, [packet bytes], handle bytes, arguments (see fuzz-handles.cpp) ----
DRIVER0, DRIVER1 = bytes([1, 0]), bytes([1, 1])
FILTER0, ADAPTER0, MEMORY, FREED, FORGED = bytes([3, 0, 0]), bytes([5, 0]), bytes([6, 0]), bytes([7, 0]), bytes([8]) + u16(40)


def packet(length_units=10):
    return bytes([0, length_units, 0])


def handles_seeds():
    register = bytes([3]) + DRIVER0 + bytes([1, 1]) + u32(0xFFFFFFFF)
    write("handles", "filter-life",
          register + bytes([10]) + packet() + FILTER0 + bytes([0, 1]) + bytes([7]) + FILTER0 + bytes([0, 1]) +
          bytes([2]) + FILTER0 + bytes([4]) + DRIVER0 + FILTER0 + bytes([2]) + FREED + bytes([7]) + FREED + b"\0\0")
    write("handles", "wrong-owner",
          register + bytes([4]) + DRIVER1 + FILTER0 + bytes([1]) + FILTER0 + bytes([5]) + DRIVER0 + bytes([1]) +
          FREED + bytes([0]) + FREED)
    write("handles", "adapters",
          bytes([8]) + ADAPTER0 + b"".join(bytes([9]) + packet() + ADAPTER0 + bytes([i]) for i in range(6)) +
          bytes([9]) + packet() + ADAPTER0 + bytes([6, 3]) +
          bytes([8]) + bytes([5, 1]) + bytes([6]) + ADAPTER0 + b"\0")
    write("handles", "memory",
          bytes([13]) + u16(64) + bytes([12]) + MEMORY + bytes([12]) + FREED + bytes([13]) + u16(0) + bytes([1]) + MEMORY)
    write("handles", "forged",
          bytes([14]) + u16(32) + bytes([32]) + b"\x11" * 32 + bytes([0]) + FORGED + bytes([1]) + FORGED +
          bytes([9]) + packet() + FORGED + bytes([0]) + bytes([10]) + packet() + FORGED + bytes([1, 1]) +
          bytes([2]) + bytes([9]) + bytes([0]) + bytes([10, 0]))
    write("handles", "verdicts",
          register + bytes([15, 1]) + bytes([11]) + packet() + bytes([0]) + bytes([1]) + bytes([15, 2]) +
          bytes([11]) + packet() + bytes([0]) + bytes([1]))


def main():
    kinds = pick_frames(read_pcap(os.path.join(ROOT, "tests", "data", "traffic", "host-a.pcap")))
    ioctl_seeds()
    shared_area_seeds({name: frame for name, (frame, _) in kinds.items()})
    frames_seeds(kinds)
    handles_seeds()


if __name__ == "__main__":
    main()
