#!/usr/bin/env bash
# The host program on a live adapter between real programs (scripts/live-run):
#   check-live.sh exchange PATH-TO-ndisfilter-host   ping, DNS, HTTP, a blocked port, the
#                                                     application's frame, capture logs read by tshark
#   check-live.sh soak PATH-TO-ndisfilter-host        the same after NF_LIVE_SOAK_SECONDS (default 10)
#                                                     of flood ping and HTTP transfers
# Exit status: live-run's (77 where namespaces cannot be made).
set -uo pipefail
mode="$1"
program="$2"
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
args=(--host "$program" --out "$out/live" --quiet)
[[ "$mode" == soak ]] && args+=(--soak "${NF_LIVE_SOAK_SECONDS:-10}")
"$root/scripts/live-run" "${args[@]}"
