#!/usr/bin/env bash
# End to end, with real processes, inside a private network namespace: a pretend Eos console
# on its own address fires cues, oscsend sends "/tavrin/" commands that start and stop a
# recording and add markers, and the result is one movie per camera (checked with ffprobe)
# with a CSV whose rows match what was sent. A recording cut off by kill -9: the next start
# and `orvane recover` both finish it, with its chapters and its cue log from the journal. Then
# the bad input: "/tavrin/" commands with wrong argument types, a settings file of random bytes
# with a recordings folder that cannot be made, and a disk that fills up while recording;
# SIGTERM finishes the movies each time.
#
# Usage: end_to_end.sh ORVANE   (runs itself inside scripts/offline when not isolated yet)
set -euo pipefail
orvane=$(realpath "${1:-${ORVANE_EXECUTABLE:?give the orvane executable}}")
source "$(dirname "$0")/lib.sh"
run_offline "$0" "$orvane"
need_tools oscsend ffprobe ip

work=$(mktemp -d)
trap 'stop_everything; rm -rf "$work"' EXIT
use_home "$work"

# seconds HH:MM:SS
seconds() { awk -F: '{ print $1 * 3600 + $2 * 60 + $3 }' <<<"$1"; }
# since SENT_AT: the seconds from the recording's start to SENT_AT.
since() { awk -v a="$1" -v b="$started" 'BEGIN { print a - b }'; }
# near SECONDS SENT_AT: SECONDS into the movie is when SENT_AT came, give or take.
near() { awk -v e="$1" -v x="$(since "$2")" 'BEGIN { exit !(e >= x - 1.5 && e <= x + 1) }'; }
# check_row PATTERN SENT_AT WHAT: the row of $csv matching PATTERN is at the moment it was sent.
check_row() {
    local row
    row=$(grep -F -- "$1" "$csv" | head -1) || true
    [ -n "$row" ] || { fail "$name: no row $3"; cat "$csv"; return; }
    near "$(seconds "${row%%,*}")" "$2" &&
        pass "$name: $3 at ${row%%,*} (sent at $(since "$2")s)" ||
        fail "$name: $3 at ${row%%,*}, sent at $(since "$2")s"
}
# check_chapter TITLE SENT_AT: $movie has the chapter TITLE at the moment it was sent.
check_chapter() {
    local at
    at=$(ffprobe -v error -show_entries chapter=start_time:chapter_tags=title -of csv=p=0 \
        "$movie" | grep -F ",$1" | head -1 | cut -d, -f1) || true
    [ -n "$at" ] && near "$at" "$2" && pass "$name: chapter $1 at ${at}s (sent at $(since "$2")s)" ||
        fail "$name: chapter $1 at '$at', sent at $(since "$2")s"
}
# record_storm NAME PORT ARGS...: starts orvane recording with OSC, then cue 14.5 is fired.
record_storm() {
    local name=$1 port=$2; shift 2
    start_orvane "$name" "$@"
    wait_for "$work/$name.out" "Eos: Connected" 15
    wait_for "$work/$name.out" "The camera is live." 15
    oscsend localhost "$port" /tavrin/record/start
    wait_for "$work/$name.out" "Recording to" 10
    started=$(now)
    sleep 1
    echo "fire 14.5" >&3
    storm_at=$(now)
    wait_for "$work/$name.out" "Cue 14.5 — Storm" 5
}

write_settings() { # FILE OSC_PORT [EXTRA JSON]
    cat >"$1" <<JSON
{"eosEnabled": true, "eosHost": "10.99.0.2", "eosAutoConnect": false, "qlabEnabled": false,
 "oscEnabled": true, "oscPort": $2, "codec": "h264", "writesCueLog": true,
 "cameraLabel": "Stage/Left", "webViewerEnabled": false, "ndiEnabled": false $3}
JSON
}

# --- The pretend console on a host of its own ------------------------------------------------
console_host e2e 10.99.0
mkfifo "$work/console.in"
ip netns exec e2e-console "$orvane" pretend-console --address 10.99.0.2 --no-discovery \
    <"$work/console.in" >"$work/console.out" 2>&1 &
pids+=($!)
exec 3>"$work/console.in" # keeps the console's input open
wait_for "$work/console.out" "Pretend Eos console" 10

# --- A recording driven by OSC: two cameras, cues, markers, SIGTERM ---------------------------
port=9101
write_settings "$work/show.json" $port \
    ', "extraCameras": [{"id": "6F1C1A52-7A43-4C1B-9A51-6B2B0B7A1E11", "deviceID": "orvane:test-pattern", "label": "", "isMirrored": false}]'
record_storm show $port --settings "$work/show.json" --recordings "$work/Recordings" --demo
oscsend localhost $port /tavrin/marker s 'Scene 2, "Storm"'
marker_at=$(now)
oscsend localhost $port /tavrin/record/start # a second start changes nothing
# `orvane recover` leaves the recording that is running alone.
busy=$("$orvane" recover "$work/Recordings" 2>&1) || true
check "recover beside a recording: $busy" grep -q "^There's no cut-off recording" <<<"$busy"
# Wrong argument types: a number for a marker's text, a layout without a name, a blob-less
# record toggle with a float. None of them may stop the run.
oscsend localhost $port /tavrin/layout i 3
oscsend localhost $port /tavrin/field/Scene f 2.5
sleep 1.2
echo "fire 4" >&3
blackout_at=$(now)
wait_for "$work/show.out" "Cue 4 — Blackout" 5
oscsend localhost $port /tavrin/marker
sleep 0.5
stop_orvane
[ -z "$(find "$work/Recordings" -name '*.journal')" ] || fail "a journal stayed after the stop"

mapfile -t movies < <(find "$work/Recordings" -name '*.mov' | sort)
check "one movie per camera: ${movies[*]}" [ ${#movies[@]} -eq 2 ]
for movie in "${movies[@]}"; do
    name=$(basename "$movie")
    case "$name" in
        "Stage-Left "????-??-??" "??.??.??.mov | "Camera 2 "????-??-??" "??.??.??.mov) ;;
        *) fail "unexpected movie name $name" ;;
    esac
    n=$(frames "$movie")
    check "$name has ${n:-no} frames" [ "${n:-0}" -ge 10 ]
    csv=${movie%.mov}.csv
    [ -f "$csv" ] || { fail "no CSV beside $name"; continue; }
    grep -qxF "Saved “$movie”." "$work/show.out" &&
        grep -qxF "Saved the cue log “$csv”." "$work/show.out" || fail "$name: not said saved"
    [ -s "${movie%.mov}.edl" ] && [ -s "${movie%.mov}.xml" ] || fail "$name: no marker lists"
    head -1 "$csv" | grep -qx 'Recording Time,Timecode,Event,Detail' || fail "$csv header"
    # Every row has the demo show's timecode, and is a cue or a marker: a layout adds none.
    check "$name: cues and markers, all with a timecode" awk -F, '
        NR > 1 && ($2 !~ /^01:[0-9][0-9]:[0-9][0-9]:[0-9][0-9]$/ || $3 !~ /^(Cue .+|Marker)$/) {
            print "    row " NR ": " $0; bad = 1
        }
        END { exit bad }' "$csv"
    check_row ",Cue 14.5,Storm" "$storm_at" "cue 14.5"
    check_row ',Marker,"Scene 2, ""Storm"""' "$marker_at" "the marker"
    check_row ",Cue 4,Blackout" "$blackout_at" "cue 4"
    grep -q ',Marker,Marker$' "$csv" || fail "$name: the marker without text"
    check_chapter "Cue 4 Blackout" "$blackout_at"
done
[ ${#movies[@]} -eq 2 ] && cmp -s "${movies[0]%.mov}.csv" "${movies[1]%.mov}.csv" &&
    pass "both cameras carry the same cue log" || fail "the cue logs differ"

# --- kill -9 mid-recording: the next start, and `orvane recover`, finish it ----------------------
write_settings "$work/crash.json" 9104 ', "cameraLabel": "Crash"'
record_storm crash 9104 --settings "$work/crash.json" --recordings "$work/Crash"
oscsend localhost 9104 /tavrin/marker s 'Interval'
marker_at=$(now)
wait_for "$work/crash.out" "Marker — Interval" 5
sleep 2 # the rows' moments reach the disk in the movie's next fragments
kill -9 "$orvane_pid"
wait "$orvane_pid" 2>/dev/null || true
[ -f "$work/Crash/"*.journal ] && pass "kill -9 left the journal" || fail "no journal after kill -9"
cp -a "$work/Crash" "$work/CrashCopy"
"$orvane" recover "$work/CrashCopy" >"$work/recover.out" 2>"$work/recover.err" &&
    grep -q "^Orvane recovered the recording “Crash [0-9 .-]*” that was cut off.$" "$work/recover.out" &&
    pass "orvane recover: $(cat "$work/recover.out")" || fail "orvane recover: $(cat "$work/recover.out" "$work/recover.err")"
start_orvane again --settings "$work/crash.json" --recordings "$work/Crash"
wait_for "$work/again.out" "that was cut off." 30 &&
    pass "the next start: $(grep -F "cut off" "$work/again.out")" || fail "the next start recovered nothing"
stop_orvane
for folder in Crash CrashCopy; do
    movie=$(find "$work/$folder" -name '*.mov' | head -1)
    name="$folder/$(basename "$movie")"
    csv=${movie%.mov}.csv
    [ -z "$(find "$work/$folder" -name '*.journal')" ] || fail "$folder: the journal stayed"
    [ -s "${movie%.mov}.edl" ] && [ -s "${movie%.mov}.xml" ] || fail "$folder: no marker lists"
    ffprobe -v error -show_entries format=format_name -of csv=p=0 "$movie" | grep -q mov ||
        fail "$name: ffprobe can't read it"
    check_chapter "Cue 14.5 Storm" "$storm_at"
    check_chapter "Marker Interval" "$marker_at"
    check_row ",Cue 4,Blackout" "$started" "the cue active at the start" # of the show's run
    check_row ",Cue 14.5,Storm" "$storm_at" "cue 14.5"
    check_row ",Marker,Interval" "$marker_at" "the marker"
done

# --- A settings file of random bytes, and a recordings folder that cannot be made -------------
head -c 4096 /dev/urandom >"$work/random.json"
touch "$work/not-a-folder"
start_orvane random --settings "$work/random.json" --recordings "$work/not-a-folder/Recordings" --record
wait_for "$work/random.out" "Orvane couldn't read all of its settings" 10 &&
    pass "$(grep -F "couldn't read all" "$work/random.out")" || fail "no sentence for bad settings"
wait_for "$work/random.out" "The camera is live." 15 || fail "no camera with damaged settings"
wait_for "$work/random.out" "Orvane couldn't create the recordings folder in Videos. " 15 &&
    pass "$(grep -F "couldn't create" "$work/random.out")" || fail "no sentence for the folder"
oscsend localhost 8001 /tavrin/record/start # the listener's port when the settings are lost
stop_orvane

# --- A disk that fills up while recording -----------------------------------------------------
mkdir -p "$work/small"
if mount -t tmpfs -o size=1200k e2e-small "$work/small" 2>/dev/null; then
    write_settings "$work/full.json" 9103 ', "eosEnabled": false, "codec": "proRes422Proxy"'
    start_orvane full --settings "$work/full.json" --recordings "$work/small/Recordings" --record
    wait_for "$work/full.out" "Recording to" 15
    wait_for "$work/full.out" "A camera stopped recording. " 30 &&
        pass "disk full: $(grep -F "A camera stopped" "$work/full.out")" || fail "no sentence"
    # With its only camera stopped, the recording is over.
    wait_for "$work/full.out" "Recording stopped; finishing the movies." 10 ||
        fail "the recording went on without a camera"
    stop_orvane
    movie=$(find "$work/small/Recordings" -name '*.mov' | head -1)
    n=$(frames "$movie")
    check "the full disk kept ${n:-no} frames" [ "${n:-0}" -gt 0 ]
    # Its journal stays until there is room to finish it; then every whole picture is kept.
    "$orvane" recover "$work/small/Recordings" >"$work/recover-full.out" 2>&1 || true
    check "no room to recover yet" grep -qF "There isn't enough room on the disk" \
        "$work/recover-full.out"
    mount -o remount,size=100m "$work/small"
    "$orvane" recover "$work/small/Recordings" >"$work/recover-full.out" 2>&1
    m=$(frames "$movie")
    check "finished once there was room, $m of $n frames" grep -qF "Orvane finished the" \
        "$work/recover-full.out" && check "no picture lost" [ "${m:-0}" -ge $((n - 1)) ]
    # A stop with room for the movie but not for its copy with chapters: said, and put off.
    rm -r "$work/small/Recordings"
    mount -o remount,size=40m "$work/small"
    start_orvane noroom --settings "$work/full.json" --recordings "$work/small/Recordings" \
        --record --demo
    wait_for "$work/noroom.out" "Recording to" 15 && sleep 3
    stop_orvane
    check "no room for chapters is said" grep -qF "There wasn't room on the disk to add the cue" \
        "$work/noroom.out"
    mount -o remount,size=100m "$work/small"
    "$orvane" recover "$work/small/Recordings" >"$work/recover-full.out" 2>&1
    check "said as finished, not cut off" grep -qF "now have their cue chapters" \
        "$work/recover-full.out"
    movie=$(find "$work/small/Recordings" -name '*.mov' | head -1)
    chapters=$(ffprobe -v error -show_chapters -of csv=p=0 "$movie" | wc -l)
    check "the chapters came at the next recovery ($chapters)" [ "$chapters" -gt 0 ]
    umount "$work/small"
else
    echo "SKIP: disk full: cannot mount a tmpfs here"
fi

grep -h "Couldn't\|couldn't" "$work"/*.err | head -5 || true
finish "end to end"
