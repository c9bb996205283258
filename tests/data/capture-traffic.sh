#!/usr/bin/env bash
# Captures a few seconds of real traffic between two network namespaces and
# writes it to traffic/host-a.pcap (Ethernet link type), plus
# traffic/summary.txt (tshark's frame count and protocol hierarchy).
#
# Host A (10.0.0.1, MAC 02:00:00:00:0a:01) and host B (10.0.0.2,
# MAC 02:00:00:00:0b:01) are joined by a veth pair; tcpdump listens on A's
# end, so the capture holds what A sends and receives:
#   ARP (by itself), ICMP echo both ways (two 2000-byte pings in fragments),
#   two rounds of a DNS-like UDP exchange with port 53 and of UDP datagrams
#   of assorted sizes (one in fragments), and five HTTP/1.0 requests over
#   TCP (small page, 12 KB and 48 KB files, one 404).
# IPv6 is switched off in both namespaces and checksum/segmentation offloads
# are switched off on both veth ends, so every frame is captured as it would
# cross a wire: at most 1514 bytes, with final checksums.
#
# Needs root, iproute2, ethtool, tcpdump, ping, curl, python3 and tshark.
# Usage: capture-traffic.sh [OUTPUT_DIR]   (default: traffic/ next to it)
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
out_dir="${1:-$here/traffic}"
capture_name="host-a.pcap"

ns_a="nfdata-a-$$"
ns_b="nfdata-b-$$"
addr_a=10.0.0.1
addr_b=10.0.0.2
http_port=8080
work="$(mktemp -d)"
pids=()

# cleanup: stops what this script started and removes its namespaces (and
# with them the veth pair); runs on every exit, failed or not.
cleanup() {
    local pid
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    ip netns del "$ns_a" 2>/dev/null || true
    ip netns del "$ns_b" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

((EUID == 0)) || { echo "capture-traffic: needs root" >&2; exit 1; }
for tool in ip ethtool tcpdump ping curl python3 tshark ss; do
    command -v "$tool" >/dev/null || { echo "capture-traffic: $tool missing" >&2; exit 1; }
done

# in_a/in_b <command...>: runs a command on host A/B. Background processes
# are started with `ip netns exec` directly instead, so that $! is their pid.
in_a() { ip netns exec "$ns_a" "$@"; }
in_b() { ip netns exec "$ns_b" "$@"; }

# wait_for <seconds> <command...>: retries the command every 0.1 s.
wait_for() {
    local tries=$(($1 * 10)); shift
    until "$@" >/dev/null 2>&1; do
        ((--tries > 0)) || { echo "capture-traffic: timed out: $*" >&2; exit 1; }
        sleep 0.1
    done
}

# --- two hosts joined by a veth pair ---------------------------------------
ip netns add "$ns_a"
ip netns add "$ns_b"
for ns in "$ns_a" "$ns_b"; do
    ip netns exec "$ns" sysctl -q -w net.ipv6.conf.all.disable_ipv6=1 \
        net.ipv6.conf.default.disable_ipv6=1
done
ip link add veth-a netns "$ns_a" address 02:00:00:00:0a:01 type veth \
    peer name veth-b netns "$ns_b" address 02:00:00:00:0b:01
in_a ethtool -K veth-a rx off tx off sg off tso off gso off gro off >/dev/null
in_b ethtool -K veth-b rx off tx off sg off tso off gso off gro off >/dev/null
in_a ip addr add "$addr_a/24" dev veth-a
in_b ip addr add "$addr_b/24" dev veth-b
in_a ip link set lo up
in_b ip link set lo up
in_a ip link set veth-a up
in_b ip link set veth-b up

# --- servers on B, started before the capture -------------------------------
mkdir -p "$work/www"
printf '<html><body>host B says hello</body></html>\n' >"$work/www/index.html"
python3 -c 'import sys; sys.stdout.buffer.write(bytes((i * 31 + 7) % 256 for i in range(12001)))' \
    >"$work/www/blob.bin"
python3 -c 'import sys; sys.stdout.buffer.write(bytes((i * 13 + 1) % 251 for i in range(48000)))' \
    >"$work/www/big.bin"
ip netns exec "$ns_b" python3 -m http.server "$http_port" --bind "$addr_b" --directory "$work/www" \
    >"$work/http.log" 2>&1 &
pids+=($!)
ip netns exec "$ns_b" python3 "$here/traffic-peers.py" serve "$addr_b" >"$work/peers.log" 2>&1 &
pids+=($!)
wait_for 10 in_b sh -c "ss -ltn | grep -q ':$http_port '"
wait_for 10 in_b sh -c "ss -lun | grep -q ':53 '"

# --- capture on A's end while the traffic runs ------------------------------
# -Z root: write the file without dropping to the tcpdump user.
ip netns exec "$ns_a" tcpdump -i veth-a -n -s 0 -U -Z root -w "$work/$capture_name" 2>"$work/tcpdump.log" &
tcpdump_pid=$!
pids+=("$tcpdump_pid")
wait_for 10 grep -q "listening on" "$work/tcpdump.log"

in_a ping -c 10 -i 0.1 -q "$addr_b" >/dev/null
in_a ping -c 2 -i 0.2 -s 2000 -q "$addr_b" >/dev/null
in_a python3 "$here/traffic-peers.py" send "$addr_b"
for file in index.html blob.bin missing.html index.html big.bin; do
    # missing.html answers 404; curl is asked not to fail on it.
    in_a curl -sS -o /dev/null "http://$addr_b:$http_port/$file"
done
in_b ping -c 10 -i 0.1 -q "$addr_a" >/dev/null
in_a python3 "$here/traffic-peers.py" send "$addr_b"
sleep 1

kill -TERM "$tcpdump_pid"
wait "$tcpdump_pid" || true

# --- results ----------------------------------------------------------------
mkdir -p "$out_dir"
cp "$work/$capture_name" "$out_dir/$capture_name"
frames="$(tshark -n -r "$out_dir/$capture_name" -T fields -e frame.number 2>/dev/null | wc -l)"
{
    echo "capture: $capture_name"
    echo "frames: $frames"
    echo "bytes: $(stat -c %s "$out_dir/$capture_name")"
    tshark -n -r "$out_dir/$capture_name" -q -z io,phs 2>/dev/null
} >"$out_dir/summary.txt"
echo "capture-traffic: $frames frames in $out_dir/$capture_name"
