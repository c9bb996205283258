#!/usr/bin/env bash
# Runs the main job with no arguments and checks that every capture it wrote
# holds, as tshark counts them, the frames its summary printed; and that the
# framework's capture logs hold the frames the summary says, in the order of
# their times, every time between the start and the stop of the logs.
#
#   check-main-job.sh PATH-TO-ndisfilter-host
#
# Exit status: 0 passed, 1 failed, 77 the run passed but tshark is missing.
set -uo pipefail

program="$1"
summary="$(mktemp)"
trap 'rm -f "$summary"' EXIT

"$program" >"$summary" 2>/dev/null
status=$?
cat "$summary"
if [[ $status -ne 0 ]] || ! grep -qx 'result: clean' "$summary"; then
    echo "FAIL: the main job did not end clean (exit status $status)" >&2
    exit 1
fi

if ! grep -Eq '^flows: [1-9][0-9]* in the table, [1-9][0-9]* listed by IOCTL_EXAMPLE_FLOW_TRACKER_LIST_FLOWS$' "$summary"; then
    echo "FAIL: the summary does not show the flow tracker's table" >&2
    exit 1
fi

mapfile -t captures < <(sed -n 's/^pcap \(.*\): \([0-9]*\) frames$/\2 \1/p' "$summary")
if ((${#captures[@]} < 3)); then
    echo "FAIL: expected the wire, protocols and application captures, found ${#captures[@]}" >&2
    exit 1
fi

if ! command -v tshark >/dev/null; then
    echo "SKIP: tshark is not installed, the captures' frame counts are not checked" >&2
    exit 77
fi

failed=0
for entry in "${captures[@]}"; do
    expected="${entry%% *}"
    path="${entry#* }"
    counted="$(tshark -r "$path" -T fields -e frame.number 2>/dev/null | wc -l)"
    if [[ "$counted" != "$expected" ]]; then
        echo "FAIL: $path: the summary says $expected frames, tshark reads $counted" >&2
        failed=1
    else
        echo "ok: $path: $counted frames"
    fi
done
mapfile -t logs < <(sed -n 's/^capture log \(.*\): \([0-9]*\) frames$/\2 \1/p' "$summary")
window="$(sed -n 's/^capture logs: from \([0-9.]*\) to \([0-9.]*\)$/\1 \2/p' "$summary")"
if ((${#logs[@]} < 5)) || [[ -z "$window" ]]; then
    echo "FAIL: expected the framework's capture logs (3 per adapter, 2 of the rings), found ${#logs[@]}" >&2
    exit 1
fi
for entry in "${logs[@]}"; do
    expected="${entry%% *}"
    path="${entry#* }"
    # Times in microseconds: each inside the window, none before the one in front of it.
    verdict="$(tshark -r "$path" -T fields -e frame.time_epoch 2>/dev/null | awk -v window="$window" '
        function micros(t,   parts, frac) {
            split(t, parts, "."); frac = substr(parts[2] "000000", 1, 6)
            return parts[1] * 1000000 + frac
        }
        BEGIN { split(window, w, " "); from = micros(w[1]); to = micros(w[2]); last = 0; bad = "" }
        { t = micros($1); n++
          if (bad == "" && (t < from || t > to)) bad = "frame " n " is stamped outside the capture"
          if (bad == "" && t < last) bad = "frame " n " is older than the frame before it"
          last = t }
        END { print (n + 0) " " bad }')"
    counted="${verdict%% *}"
    problem="${verdict#* }"
    if [[ "$counted" != "$expected" ]]; then
        echo "FAIL: $path: the summary says $expected frames, tshark reads $counted" >&2
        failed=1
    elif [[ -n "$problem" ]]; then
        echo "FAIL: $path: $problem" >&2
        failed=1
    else
        echo "ok: $path: $counted frames, in order, inside the capture"
    fi
done
exit $failed
