#!/usr/bin/env bash
# The host program on a live adapter between real programs (scripts/live-run):
#   check-live.sh exchange PATH-TO-ndisfilter-host   ping, DNS, HTTP, a blocked port, capture logs read by
#                                                     tshark, with the host program as a daemon and the user
#                                                     program (ndisfilterctl, bridge-probe) in other processes
#   check-live.sh soak PATH-TO-ndisfilter-host        the same in one process (the balance of every frame
#                                                     checked) after NF_LIVE_SOAK_SECONDS (default 10) of
#                                                     flood ping and HTTP transfers
# Exit status: live-run's (77 where namespaces cannot be made).
set -uo pipefail
mode="$1"
program="$2"
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
args=(--host "$program" --out "$out/live" --quiet)
[[ "$mode" == soak ]] && args+=(--in-process --soak "${NF_LIVE_SOAK_SECONDS:-10}")
"$root/scripts/live-run" "${args[@]}"
