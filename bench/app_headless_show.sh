#!/usr/bin/env bash
# The whole application as a show runs it: `orvane --headless` with the demo show, the 1080p30
# test pattern recorded in H.264, and the web viewer's MJPEG stream read by a client (curl)
# for the whole recording. Reports the CPU time the process spends per recorded frame (from
# /proc/PID/stat over the recording), the frames Orvane says the camera lost while recording,
# the frames in the movie (ffprobe) and the JPEG frames the client received.
#
# Usage: bench/app_headless_show.sh ORVANE [SECONDS]   (default 60; runs itself inside
# scripts/offline, which keeps every packet on this machine)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
orvane=$(realpath "${1:?give the orvane executable}")
seconds=${2:-60}
if [ "${ORVANE_BENCH_ISOLATED:-0}" != 1 ]; then
    ORVANE_BENCH_ISOLATED=1 exec "$here/../scripts/offline" bash "$0" "$orvane" "$seconds"
fi
for tool in oscsend ffprobe curl; do
    command -v $tool >/dev/null || { echo "needs $tool" >&2; exit 2; }
done

work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share
export QT_QPA_PLATFORM=offscreen
mkdir -p "$HOME"
osc_port=9201
web_port=9290

# wait_for PATTERN SECONDS: until a line of Orvane's output has the fixed text PATTERN.
wait_for() {
    local deadline=$(($(date +%s) + $2))
    until grep -qF -- "$1" "$work/orvane.out" 2>/dev/null; do
        if [ "$(date +%s)" -ge $deadline ]; then
            echo "timed out waiting for '$1'; Orvane said:" >&2
            sed 's/^/    /' "$work/orvane.out" >&2
            exit 1
        fi
        sleep 0.1
    done
}
# cpu_ticks: user and system time of Orvane so far, in clock ticks (fields 14 and 15).
cpu_ticks() { sed 's/.*) //' "/proc/$orvane_pid/stat" | awk '{ print $12 + $13 }'; }

cat >"$work/settings.json" <<JSON
{"eosEnabled": false, "qlabEnabled": false, "oscEnabled": true, "oscPort": $osc_port,
 "codec": "h264", "writesCueLog": true, "ndiEnabled": false}
JSON
"$orvane" --headless --settings "$work/settings.json" --recordings "$work/Recordings" --demo \
    --web $web_port >"$work/orvane.out" 2>"$work/orvane.err" &
orvane_pid=$!
pids+=("$orvane_pid")
wait_for "The camera is live." 20
wait_for "Watch the picture at" 10

# The viewer: one MJPEG client for the whole run, counting the pictures it receives.
curl -s -N --max-time $((seconds + 10)) "http://127.0.0.1:$web_port/stream.mjpg" |
    grep -a -c "Content-Type: image/jpeg" >"$work/viewer.count" || true &
pids+=($!)
sleep 2 # the client settles in; the demo show runs its cues

oscsend localhost $osc_port /tavrin/record/start
wait_for "Recording to" 10
ticks_before=$(cpu_ticks)
sleep "$seconds"
ticks_after=$(cpu_ticks)
oscsend localhost $osc_port /tavrin/record/stop
wait_for "while recording." 10
wait_for "Saved the cue log" 30
kill -TERM "$orvane_pid"
timeout 30 tail --pid="$orvane_pid" -f /dev/null || echo "Orvane did not stop within 30 s" >&2
wait "${pids[-1]}" 2>/dev/null || true

movie=$(find "$work/Recordings" -name '*.mov' | head -1)
frames=$(ffprobe -v error -select_streams v:0 -count_packets -show_entries \
    stream=nb_read_packets -of csv=p=0 "$movie")
lost=$(grep -F "while recording." "$work/orvane.out" | head -1)
hz=$(getconf CLK_TCK)
awk -v t=$((ticks_after - ticks_before)) -v hz="$hz" -v f="$frames" -v s="$seconds" \
    -v v="$(cat "$work/viewer.count" 2>/dev/null || echo 0)" 'BEGIN {
    cpu = t / hz
    printf "recorded %d s: %d frames in the movie (%.1f a second)\n", s, f, f / s
    printf "CPU: %.2f s, %.1f ms per recorded frame, %.2f cores busy\n", cpu, f ? cpu * 1000 / f : 0, cpu / s
    printf "web viewer client received %d pictures\n", v
}'
echo "Orvane: $lost"
