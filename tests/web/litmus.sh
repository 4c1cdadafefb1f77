#!/usr/bin/env bash
# litmus, the WebDAV conformance suite (groups basic, copymove, props, locks and http), against the
# WebDAV server over a fresh folder.
#   litmus.sh device TAPWRIGHT   a virtual device with its WebDAV server started by the CLI
#   litmus.sh server PROGRAM     PROGRAM ROOT STATE prints the server's URL on its first line and
#                                serves until SIGTERM
set -euo pipefail

mode="$1" program="$2"
work="$(mktemp -d "${TMPDIR:-/tmp}/tw-litmus-XXXXXX")"
pid=""
cleanup() {
    if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

address() { grep -m1 -o 'http://127\.0\.0\.1:[0-9]*/' "$@" || true; }

url=""
case "$mode" in
device)
    "$program" device --root "$work/device" --dav-port 0 >"$work/server.log" 2>&1 &
    pid=$!
    # The device takes a moment to listen for commands.
    for _ in $(seq 150); do
        "$program" dav start --root "$work/device" >/dev/null 2>&1 && break
        sleep 0.1
    done
    url="$("$program" dav status --root "$work/device" 2>/dev/null | address)"
    ;;
server)
    mkdir -p "$work/root" "$work/state"
    "$program" "$work/root" "$work/state" >"$work/url" 2>"$work/server.log" &
    pid=$!
    for _ in $(seq 100); do
        url="$(address "$work/url")"
        [ -n "$url" ] && break
        sleep 0.1
    done
    ;;
*) echo "litmus.sh: unknown mode '$mode'" >&2; exit 2 ;;
esac
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
