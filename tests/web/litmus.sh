#!/usr/bin/env bash
# litmus, the WebDAV conformance suite (groups basic, copymove, props, locks and http), against the
# WebDAV server over a fresh folder.
#   litmus.sh TAPWRIGHT   a virtual device, its WebDAV server started through the CLI
set -euo pipefail

program="$1"
work="$(mktemp -d "${TMPDIR:-/tmp}/tw-litmus-XXXXXX")"
pid=""
cleanup() {
    if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

address() { grep -m1 -o 'http://127\.0\.0\.1:[0-9]*/' "$@" || true; }

url=""
"$program" device --root "$work/device" --dav-port 0 >"$work/server.log" 2>&1 &
pid=$!
# The device takes a moment to listen for commands.
for _ in $(seq 150); do
    "$program" dav start --root "$work/device" >/dev/null 2>&1 && break
    sleep 0.1
done
url="$("$program" dav status --root "$work/device" 2>/dev/null | address)"
if [ -z "$url" ]; then
    echo "litmus.sh: the WebDAV server gave no address" >&2
    cat "$work/server.log" >&2
    exit 1
fi

# litmus writes its traces (debug.log) into the current folder.
cd "$work"
if ! TESTS="basic copymove props locks http" litmus "$url"; then
    tail -n 60 debug.log >&2 || true
    exit 1
fi
