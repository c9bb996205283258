#!/usr/bin/env bash
# Checks the committed test data against the tools that made it:
#  - make-packets.py rebuilds packets/frames.pcap and cases.csv byte for byte;
#  - extract-expected.py run on the committed captures gives back the
#    committed expected.csv, offsets.csv and reassembly.csv;
#  - tshark finds exactly one bad checksum in packets/frames.pcap, the IPv4
#    header of the ip-bad-checksum case, and none in the traffic capture;
#  - traffic/summary.txt still matches the traffic capture's frame count.
# Needs python3-scapy (/usr/bin/python3) and tshark; no root.
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
failures=0

fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

# same <committed> <regenerated>: reports a difference between two files.
same() { cmp -s "$1" "$2" || fail "$2 differs from $1"; }

# Deterministic frames.
"$here/make-packets.py" "$scratch/packets" >/dev/null
same "$here/packets/frames.pcap" "$scratch/packets/frames.pcap"
same "$here/packets/cases.csv" "$scratch/packets/cases.csv"

# tshark's view of the committed captures.
for set in packets traffic; do
    capture=("$here/$set"/*.pcap)
    mkdir -p "$scratch/$set-copy"
    cp "${capture[0]}" "$scratch/$set-copy/"
    "$here/extract-expected.py" "$scratch/$set-copy/$(basename "${capture[0]}")" >/dev/null
    for file in expected.csv offsets.csv reassembly.csv; do
        if [[ -e "$here/$set/$file" || -e "$scratch/$set-copy/$file" ]]; then
            same "$here/$set/$file" "$scratch/$set-copy/$file"
        fi
    done
done

# bad_checksums <capture>: frame numbers whose IPv4/TCP/UDP/ICMP checksum
# tshark reports as bad, one per line.
bad_checksums() {
    tshark -n -r "$1" -o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE \
        -o udp.check_checksum:TRUE \
        -Y "ip.checksum.status == 0 || tcp.checksum.status == 0 || udp.checksum.status == 0 || icmp.checksum.status == 0" \
        -T fields -e frame.number 2>/dev/null
}
bad_frame="$(awk -F, '$2 == "ip-bad-checksum" { print $1 }' "$here/packets/cases.csv")"
[[ "$(bad_checksums "$here/packets/frames.pcap")" == "$bad_frame" ]] ||
    fail "packets: bad checksums expected in frame $bad_frame only"
[[ "$(tshark -n -r "$here/packets/frames.pcap" -o ip.check_checksum:TRUE \
        -Y "frame.number == $bad_frame" -T fields -e ip.checksum.status 2>/dev/null)" == 0 ]] ||
    fail "packets: frame $bad_frame should have a bad IPv4 header checksum"
[[ -z "$(bad_checksums "$here/traffic/host-a.pcap")" ]] ||
    fail "traffic: tshark reports bad checksums"

frames="$(tshark -n -r "$here/traffic/host-a.pcap" -T fields -e frame.number 2>/dev/null | wc -l)"
grep -qx "frames: $frames" "$here/traffic/summary.txt" ||
    fail "traffic: summary.txt does not say frames: $frames"

if ((failures)); then
    echo "verify-data: $failures problem(s)" >&2
    exit 1
fi
echo "verify-data: all test data consistent"
