#!/usr/bin/env bash
# Load and upload benchmark of the device's web server, on loopback only.
#
#   bench/web-load.sh            (from the repository root; `make bench-web` builds tapwright first)
#
# Starts a device on a temporary root, turns its web server on and fills the library with 1,000
# scripts, then:
#   1. wrk for WRK_SECONDS on the /files listing and on a static file of the site: requests/s,
#      average and p99 latency, errors (any non-2xx/3xx answer or socket error fails the run);
#   2. uploads a 5 MiB and a 50 MiB file with curl: throughput, the stored size, and the home
#      screen's peak resident memory (VmHWM) before and after each, since uploads are streamed to a
#      temporary file and the peak must not follow the file's size (a growth of half the file or
#      more fails the run);
#   3. prints one summary table. The device is always stopped and the root removed.
# Environment: TAPWRIGHT (default build/tapwright), WRK_SECONDS (10), WRK_THREADS (2),
# WRK_CONNECTIONS (16).
set -euo pipefail

tapwright="${TAPWRIGHT:-build/tapwright}"
seconds="${WRK_SECONDS:-10}"
threads="${WRK_THREADS:-2}"
connections="${WRK_CONNECTIONS:-16}"

for tool in wrk curl; do
    command -v "$tool" >/dev/null || { echo "web-load: $tool is missing (scripts/install-deps installs it)" >&2; exit 2; }
done
[ -x "$tapwright" ] || { echo "web-load: $tapwright is not built (make bench-web builds it)" >&2; exit 2; }

root="$(realpath "$(mktemp -d -t tw-bench.XXXXXX)")"
work="$(mktemp -d -t tw-bench-work.XXXXXX)"
device_pid=""
cleanup() {
    if [ -n "$device_pid" ]; then
        kill -TERM "$device_pid" 2>/dev/null || true
        wait "$device_pid" 2>/dev/null || true
    fi
    rm -rf "$root" "$work"
}
trap cleanup EXIT
fail() { echo "web-load: $*" >&2; exit 1; }

# --- the device and its web server ---------------------------------------------------------------
"$tapwright" device --root "$root" --web-port 0 --dav-port 0 2>"$work/device.log" >/dev/null &
device_pid=$!
for _ in $(seq 100); do
    grep -q ready "$work/device.log" && break
    kill -0 "$device_pid" 2>/dev/null || fail "the device stopped: $(cat "$work/device.log")"
    sleep 0.1
done
grep -q ready "$work/device.log" || fail "the device did not say it is ready in 10 s"

status="$("$tapwright" web start --root "$root")"
base="$(grep -o 'http://[^ ]*' <<<"$status")" || fail "no address in: $status"
base="${base%/}"
springboard="$(pgrep -f -- "role com.apple.springboard --root $root( |\$)" | head -n1)" ||
    fail "no home-screen role process on $root"

library="$root/var/mobile/Library/Tapwright/Scripts"
site="$root/Applications/Tapwright.app/website"
mkdir -p "$library"
for i in $(seq -w 1 1000); do printf 'print("script %s")\n' "$i" >"$library/script-$i.lua"; done

# The static case: an icon the site ships, or a small page of our own when it has none.
static="icons/folder@2x.png"
if [ ! -f "$site/$static" ]; then
    static="bench.html"
    printf '<!doctype html><title>bench</title><p>static page for the load benchmark</p>\n' >"$site/$static"
fi

# --- 1. wrk ---------------------------------------------------------------------------------------
# Sets NAME_rps, NAME_avg, NAME_p99 (latencies as wrk prints them) and NAME_err.
run_wrk() {
    local name="$1" url="$2" out
    [ "$(curl -s -o /dev/null -w '%{http_code}' "$url")" = 200 ] || fail "$url does not answer 200"
    out="$(wrk -t"$threads" -c"$connections" -d"${seconds}s" --latency "$url")"
    echo "$out" >>"$work/wrk.log"
    local rps avg p99 non2xx socket
    rps="$(awk '/^Requests\/sec:/ {print $2}' <<<"$out")"
    avg="$(awk '$1 == "Latency" {print $2; exit}' <<<"$out")"
    p99="$(awk '$1 == "99%" {print $2}' <<<"$out")"
    non2xx="$(awk '/Non-2xx or 3xx responses:/ {print $NF}' <<<"$out")"
    socket="$(awk -F'[ ,]+' '/Socket errors:/ {print $4 + $6 + $8 + $10}' <<<"$out")"
    printf -v "${name}_rps" '%s' "$rps"
    printf -v "${name}_avg" '%s' "$avg"
    printf -v "${name}_p99" '%s' "$p99"
    printf -v "${name}_err" '%s' "$(( ${non2xx:-0} + ${socket:-0} ))"
}
listing="$(curl -s "$base/files?path=/")"
[ "$(grep -o 'script-[0-9]*\.lua' <<<"$listing" | sort -u | wc -l)" -eq 1000 ] ||
    fail "/files?path=/ does not list the 1,000 scripts"
run_wrk files "$base/files?path=/"
run_wrk static "$base/$static"

# --- 2. uploads -----------------------------------------------------------------------------------
hwm_kib() { awk '/^VmHWM:/ {print $2}' "/proc/$springboard/status"; }
# The peak is reset to the present resident size before each upload (wrk's runs raised it), so
# "after" is the upload's own peak; where the kernel refuses, the peaks are since the start.
peak_reset="reset before each upload"
reset_peak() { echo 5 >"/proc/$springboard/clear_refs" 2>/dev/null || peak_reset="since the process started"; }
# Uploads MIB MiB of random bytes; sets upMIB_rate (MiB/s), upMIB_before and upMIB_after (peak,
# KiB) and upMIB_size (the stored file's size).
upload() {
    local mib="$1" name="upload-$1mib.bin" file="$work/upload-$1mib.bin" before after seconds_taken
    head -c "$((mib * 1024 * 1024))" /dev/urandom >"$file"
    reset_peak
    before="$(hwm_kib)"
    seconds_taken="$(curl -s -o "$work/upload.html" -w '%{time_total}' -F "file=@$file" \
        "$base/file/upload?path=/$name")" || fail "curl could not upload $mib MiB (exit $?)"
    after="$(hwm_kib)"
    grep -q 'Successful!' "$work/upload.html" || fail "the $mib MiB upload failed: $(cat "$work/upload.html")"
    local stored
    stored="$(stat -c %s "$library/$name")"
    [ "$stored" -eq "$((mib * 1024 * 1024))" ] || fail "the $mib MiB upload was stored as $stored bytes"
    printf -v "up${mib}_rate" '%s' "$(awk -v m="$mib" -v t="$seconds_taken" 'BEGIN {printf "%.1f", m / t}')"
    printf -v "up${mib}_before" '%s' "$before"
    printf -v "up${mib}_after" '%s' "$after"
    printf -v "up${mib}_size" '%s' "$stored"
}
upload 5
upload 50

# --- 3. summary -----------------------------------------------------------------------------------
echo
echo "web server load (wrk -t$threads -c$connections -d${seconds}s, loopback; $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg))"
printf '%-34s %12s %10s %10s %7s\n' "target" "requests/s" "avg" "p99" "errors"
printf '%-34s %12s %10s %10s %7s\n' "/files?path=/ (1,000 scripts)" "$files_rps" "$files_avg" "$files_p99" "$files_err"
printf '%-34s %12s %10s %10s %7s\n' "/$static" "$static_rps" "$static_avg" "$static_p99" "$static_err"
echo
echo "uploads (curl -F; home screen's peak resident memory VmHWM, $peak_reset)"
printf '%-10s %10s %14s %14s %12s\n' "file" "MiB/s" "peak before" "peak after" "stored"
printf '%-10s %10s %11s KiB %11s KiB %12s\n' "5 MiB" "$up5_rate" "$up5_before" "$up5_after" "$up5_size"
printf '%-10s %10s %11s KiB %11s KiB %12s\n' "50 MiB" "$up50_rate" "$up50_before" "$up50_after" "$up50_size"

result=0
[ "$files_err" -eq 0 ] && [ "$static_err" -eq 0 ] || { echo "web-load: wrk saw errors (see above)" >&2; result=1; }
if [ $((up50_after - up50_before)) -ge $((25 * 1024)) ]; then
    echo "web-load: the 50 MiB upload raised the peak by $(( (up50_after - up50_before) / 1024 )) MiB" >&2
    result=1
fi
exit "$result"
