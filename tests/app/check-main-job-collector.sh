#!/usr/bin/env bash
# Runs the main job with the collector client sending to two socat processes
# (one receiving the datagrams, one taking the TCP connection) and checks that
# both received one record per frame the summary says the collector captured.
#
#   check-main-job-collector.sh PATH-TO-ndisfilter-host
#
# Exit status: 0 passed, 1 failed, 77 socat is missing.
set -uo pipefail

program="$1"
command -v socat >/dev/null || { echo "SKIP: socat is not installed" >&2; exit 77; }
work="$(mktemp -d)"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
    rm -rf "$work"
}
trap cleanup EXIT

# A port free for both UDP and TCP.
port="$(python3 -c 'import socket
for _ in range(50):
    u = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); u.bind(("127.0.0.1", 0)); p = u.getsockname()[1]
    t = socket.socket()
    try:
        t.bind(("127.0.0.1", p)); print(p); break
    except OSError:
        pass')"
socat -u "UDP4-RECV:$port,bind=127.0.0.1" "OPEN:$work/udp.bin,creat" & pids+=($!)
socat -u "TCP4-LISTEN:$port,bind=127.0.0.1,reuseaddr" "OPEN:$work/tcp.bin,creat" & pids+=($!)
for _ in $(seq 100); do
    ss -ltn 2>/dev/null | grep -q "127.0.0.1:$port " && break
    sleep 0.05
done

"$program" --quiet --collector "127.0.0.1:$port" --out "$work/out" >"$work/summary" 2>/dev/null
status=$?
cat "$work/summary"
if [[ $status -ne 0 ]] || ! grep -qx 'result: clean' "$work/summary"; then
    echo "FAIL: the main job did not end clean (exit status $status)" >&2
    exit 1
fi
line="$(grep '^collector: ' "$work/summary")"
captured="$(sed -n 's/^collector: captured \([0-9]*\);.*/\1/p' <<<"$line")"
if [[ -z "$captured" || "$captured" == 0 || "$line" != *"sent udp $captured / tcp $captured; dropped 0, failed 0"* ]]; then
    echo "FAIL: unexpected collector line: $line" >&2
    exit 1
fi
sleep 0.5
# Both files hold the records back to back: 8-byte headers with the captured length first.
# Worker threads run the filters too, so the two orders may differ: compare them sorted.
records="$(python3 -c 'import struct, sys
def records(path):
    data = open(path, "rb").read(); out = []; at = 0
    while at + 8 <= len(data):
        end = at + 8 + struct.unpack(">H", data[at:at + 2])[0]; out.append(data[at:end]); at = end
    return sorted(out) if at == len(data) else None
udp, tcp = records(sys.argv[1]), records(sys.argv[2])
print(len(tcp) if tcp is not None and udp == tcp else -1)' "$work/udp.bin" "$work/tcp.bin")"
if [[ "$records" != "$captured" ]]; then
    echo "FAIL: the collector's UDP and TCP records differ or are not $captured" \
         "(UDP $(wc -c <"$work/udp.bin") bytes, TCP $(wc -c <"$work/tcp.bin") bytes)" >&2
    exit 1
fi
echo "collector check: $captured records over UDP and over TCP"
