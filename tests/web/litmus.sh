#!/usr/bin/env bash
# litmus, the WebDAV conformance suite (groups basic, copymove, props, locks and http), against the
# WebDAV server over a fresh folder.
#   litmus.sh SERVER   SERVER ROOT STATE prints the server's URL on its first line, serves until
#                      SIGTERM
set -euo pipefail

server="$1"
work="$(mktemp -d "${TMPDIR:-/tmp}/tw-litmus-XXXXXX")"
pid=""
cleanup() {
    if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

mkdir -p "$work/root" "$work/state"
"$server" "$work/root" "$work/state" >"$work/url" 2>"$work/server.log" &
pid=$!
url=""
for _ in $(seq 100); do
    url="$(grep -m1 -o 'http://127\.0\.0\.1:[0-9]*/' "$work/url" || true)"
    [ -n "$url" ] && break
    sleep 0.1
done
if [ -z "$url" ]; then
    echo "litmus.sh: the WebDAV server printed no address" >&2
    cat "$work/server.log" >&2
    exit 1
fi

# litmus writes its traces (debug.log) into the current folder.
cd "$work"
if ! TESTS="basic copymove props locks http" litmus "$url"; then
    tail -n 60 debug.log >&2 || true
    exit 1
fi
