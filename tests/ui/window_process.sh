#!/usr/bin/env bash
# The window as a real process on a virtual display: it opens with its panels (not headless),
# records what --record asks for while the demo show plays, and on SIGTERM, as the window's
# close button does, finishes the movie and its cue log before it exits with 0.
# Usage: window_process.sh ORVANE
set -euo pipefail
orvane=$1
source "$(dirname "$0")/../app/lib.sh"
run_offline "$0" "$@"
need_tools Xvfb ffprobe
work=$(mktemp -d)
trap 'stop_everything; rm -rf "$work"' EXIT
use_home "$work"
unset QT_QPA_PLATFORM

Xvfb -displayfd 3 -nolisten tcp -screen 0 1280x800x24 3>"$work/display" 2>/dev/null &
pids+=($!)
timeout 10 bash -c "until [ -s '$work/display' ]; do sleep 0.1; done"
export DISPLAY=:$(cat "$work/display")

echo '{"eosEnabled":false,"qlabEnabled":false,"oscEnabled":false,"recordsAudio":false,
"codec":"h264","automaticallyChecksForUpdates":false}' >"$work/settings.json"
"$orvane" --settings "$work/settings.json" --recordings "$work/Recordings" --record --demo \
    >"$work/window.out" 2>"$work/window.err" &
orvane_pid=$!
pids+=("$orvane_pid")
wait_for "$work/window.out" "Recording to" 20 || fail "the window did not record"
check "the window, not headless mode" \
    bash -c "! grep -q 'running headless' '$work/window.out'"
sleep 2
stop_orvane 30
movie=$(find "$work/Recordings" -name '*.mov' | head -1)
check "the movie holds its pictures ($(frames "$movie") frames)" [ "$(frames "$movie")" -ge 30 ]
check "the cue log beside it has the demo's cues" grep -q 'Cue' "${movie%.mov}.csv"
check "the window wrote where it was left" grep -q '"windowState"' "$work/settings.json"
grep -iE 'AddressSanitizer|LeakSanitizer|runtime error' "$work/window.err" && fail "sanitizer report"
finish window_process
