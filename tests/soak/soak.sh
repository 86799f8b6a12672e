#!/usr/bin/env bash
# The soak: the whole application under a show's load for a long run, with real processes in a
# private network namespace: two cameras recording, a pretend console and QLab, OSC, web viewers
# and NDI, then a run killed with SIGKILL. docs/soak.md says what runs and what it checks.
#
# Usage: soak.sh [--ci] [--minutes M] ORVANE NDI_RUNTIME_DIR
#   --minutes M  M minutes (the default: 10) at full size (1920x1080 and 1280x720 at 30),
#                recording restarted every 2 minutes
#   --ci         1 minute (or M) at 960x540 and 640x360, recording restarted every 20 s, so
#                that it also runs in the sanitizer build on two cores
# Runs itself inside scripts/offline when not isolated yet. ORVANE_SOAK_KEEP=1 keeps the movies
# (the logs of a failed run are always kept; the last line says where).
set -euo pipefail
source "$(dirname "$0")/../app/lib.sh"
run_offline "$0" "$@"
usage="usage: soak.sh [--ci] [--minutes M] ORVANE NDI_RUNTIME_DIR"
mode=full
minutes=
while [ $# -gt 2 ]; do
    case "$1" in
        --ci) mode=ci; shift ;;
        --minutes) minutes=$2; shift 2 ;;
        *) echo "$usage" >&2; exit 2 ;;
    esac
done
[ $# -eq 2 ] || { echo "$usage" >&2; exit 2; }
[ -z "$minutes" ] || [[ $minutes =~ ^[1-9][0-9]*$ ]] || { echo "$usage" >&2; exit 2; }
orvane=$(realpath "$1")
ndi_runtime=$(realpath "$2")
need_tools oscsend ffprobe curl ip
[ -f "$ndi_runtime/libndi.so.6" ] || { echo "no stand-in NDI runtime in $ndi_runtime" >&2; exit 2; }

if [ $mode = ci ]; then
    duration=$((${minutes:-1} * 60)) cycle=20 warmup=25 main_size=960x540 extra_size=640x360
    kill_max=12
else
    duration=$((${minutes:-10} * 60)) cycle=120 warmup=60 main_size=1920x1080
    extra_size=1280x720 kill_max=40
fi
osc_port=9301 web_port=9380 fps=30 cue_every=0.2 viewers=10

work=$(mktemp -d "${TMPDIR:-/tmp}/orvane-soak.XXXXXX")
stall_fd=
cleanup() {
    local code=$?
    stop_everything
    if [ "${ORVANE_SOAK_KEEP:-0}" = 1 ]; then
        echo "soak: everything kept in $work"
    elif [ $code -eq 0 ]; then
        rm -rf "$work"
    else
        find "$work" -name '*.mov' -delete
        echo "soak: logs and cue logs kept in $work"
    fi
}
trap cleanup EXIT
use_home "$work"
# The stand-in NDI runtime, found through the ordinary search; it logs every frame it is given
# and reports one receiver.
export NDI_RUNTIME_DIR_V6=$ndi_runtime ORVANE_NDI_TEST_LOG=$work/ndi.log
export ORVANE_NDI_TEST_CONNECTIONS=1
# In a sanitizer build, freed memory waits in a quarantine and the sanitizer's allocator keeps
# what it frees: resident memory says more about it than about Orvane, so there it is only
# reported, and LeakSanitizer judges leaks when Orvane exits.
sanitized=0
grep -qa __asan_init "$orvane" && sanitized=1
note() { echo "      $*"; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }'; }
# percent A B: A / B as a percentage with two decimals (0 when B is 0).
percent() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? 100 * a / b : 0) }'; }
below() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(a < b) }'; }
lines_of() { wc -l <"$1"; }

# --- The pretend console on a host of its own, the pretend QLab on this one -------------------
console_host soak 10.99.7
start_console() {
    ip netns exec soak-console "$orvane" pretend-console --address 10.99.7.2 --no-discovery \
        --auto-go $cue_every </dev/null >>"$work/console.out" 2>&1 &
    console_pid=$!
    pids+=("$console_pid")
}
start_console
"$orvane" pretend-qlab --address 127.0.0.1 --port 53000 >"$work/qlab.out" 2>&1 &
pids+=($!)
wait_for "$work/console.out" "Pretend Eos console" 20
wait_for "$work/qlab.out" "Pretend QLab on" 20

# --- Orvane ---------------------------------------------------------------------------------
cat >"$work/soak.json" <<JSON
{"cameraID": "orvane:test-pattern@$main_size", "cameraLabel": "Soak Main", "recordsAudio": false,
 "extraCameras": [{"id": "0D5A1C2E-55B4-4E0B-8C3F-7A9D2B6E4F10",
                   "deviceID": "orvane:test-pattern@$extra_size", "label": "Soak Wide",
                   "isMirrored": false}],
 "codec": "h264", "writesCueLog": true, "showsShowName": true, "showsDate": true,
 "eosEnabled": true, "eosHost": "10.99.7.2", "eosAutoConnect": false,
 "qlabEnabled": true, "qlabHost": "127.0.0.1", "qlabPort": 53000,
 "oscEnabled": true, "oscPort": $osc_port,
 "webViewerEnabled": true, "webViewerPort": $web_port, "ndiEnabled": true, "ndiName": "Soak"}
JSON
# start_soak NAME FOLDER ARGS...: Orvane on these settings, recording into FOLDER.
start_soak() {
    start_orvane "$1" --settings "$work/soak.json" --recordings "$2" "${@:3}"
}
rss() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status" 2>/dev/null || echo 0; }
alive() { # PID: running, not a zombie
    local state
    state=$(awk '/^State:/ { print $2 }' "/proc/$1/status" 2>/dev/null || true)
    [ -n "$state" ] && [ "$state" != Z ]
}
osc() { oscsend localhost $osc_port "$@"; }

start_soak soak "$work/Recordings"
for line in "The camera is live." "Eos: Connected." "QLab: Connected." "Watch the picture at"; do
    wait_for "$work/soak.out" "$line" 60
done
ndi_before=$(grep -c '^video ' "$work/ndi.log" 2>/dev/null || true)

# --- Viewers: nine that read, one that stalls -------------------------------------------------
for i in $(seq 2 $viewers); do
    curl -s -N --max-time $((duration + 120)) "http://127.0.0.1:$web_port/stream.mjpg" \
        > >(grep -a -c -- '^--frame' >"$work/viewer$i.frames") &
    pids+=($!)
done
exec {stall_fd}<>"/dev/tcp/127.0.0.1/$web_port"
printf 'GET /stream.mjpg HTTP/1.1\r\nHost: localhost\r\n\r\n' >&"$stall_fd"

# --- The run ----------------------------------------------------------------------------------
# Every second: a field now and then, a marker in the middle of each recording, the recording
# stopped and started every $cycle s, the console killed once and started again 3 s later,
# resident memory every 5 s. The loop ends after $duration seconds.
recording=0
osc /tavrin/record/start
wait_for "$work/soak.out" "Recording to" 30
run_start=$(now)
kill_at=$(((duration / cycle) / 2 * cycle + 2))
[ $kill_at -gt 2 ] && [ $((kill_at + 20)) -le $duration ] || kill_at=$((duration / 3))
: >"$work/markers.txt"
: >"$work/rss.txt"
follow=none
marker=0
for second in $(seq 1 $duration); do
    sleep "$(awk -v s="$second" -v start="$run_start" -v t="$(now)" \
        'BEGIN { d = start + s - t; print (d > 0 ? d : 0) }')"
    alive "$orvane_pid" || { fail "orvane died after $second s"; break; }
    [ $((second % 5)) -eq 0 ] && echo "$second $(rss "$orvane_pid")" >>"$work/rss.txt"
    [ $((second % 2)) -eq 0 ] && osc /tavrin/field/Scene s "Scene $second"
    if [ $((second % cycle)) -eq $((cycle / 2)) ]; then
        marker=$((marker + 1))
        osc /tavrin/marker s "Soak marker $marker, at $second s"
        echo "$recording Soak marker $marker, at $second s" >>"$work/markers.txt"
    fi
    if [ $second -eq $kill_at ]; then
        kill -9 "$console_pid"
        wait "$console_pid" 2>/dev/null || true
        note "killed the console at $second s"
    fi
    if [ $second -eq $((kill_at + 3)) ]; then
        start_console
        restarted_at=$(now)
        from=$(($(lines_of "$work/soak.out") + 1))
        # Followed again: a cue of the new console in Orvane's cue log lines.
        (wait_for "$work/soak.out" ": Cue " 30 $from >/dev/null && since "$restarted_at" \
            >"$work/follow.txt" || echo none >"$work/follow.txt") &
        pids+=($!)
    fi
    if [ $((second % cycle)) -eq 0 ] && [ $second -lt $duration ]; then
        from=$(($(lines_of "$work/soak.out") + 1))
        osc /tavrin/record/stop
        wait_for "$work/soak.out" " while recording." 30 $from || fail "no stop"
        osc /tavrin/record/start
        wait_for "$work/soak.out" "Recording to" 30 $from || fail "no new recording"
        recording=$((recording + 1))
    fi
done
run_seconds=$(since "$run_start")
ndi_frames=$(($(grep -c '^video ' "$work/ndi.log" || true) - ${ndi_before:-0}))
# The stalled viewer: once its unread bytes are taken, the connection ends (or was reset, when
# the kernel gave up on the bytes Orvane left unsent) if Orvane dropped it; one still served
# would stream on until the time-out.
stalled=dropped
timeout 10 cat <&"$stall_fd" >/dev/null 2>&1 || [ $? -ne 124 ] || stalled="still connected"
exec {stall_fd}<&-
stop_orvane 60
[ -f "$work/follow.txt" ] && follow=$(cat "$work/follow.txt")

# --- What the run left ------------------------------------------------------------------------
echo "soak: $mode, ${run_seconds}s, main $main_size and extra $extra_size at $fps fps"

# No crash, no sanitizer report.
if grep -qE 'ERROR: (Address|Leak)Sanitizer|runtime error:|SUMMARY: UndefinedBehavior' \
    "$work"/*.err "$work"/*.out; then
    fail "a sanitizer report:"
    grep -hE -A5 'Sanitizer|runtime error:' "$work"/*.err "$work"/*.out | head -40 || true
else
    pass "no sanitizer report"
fi

# Resident memory after the warm-up. Each restart of the recording makes and frees two encoders,
# and the level swings by a few percent either way from one recording to the next; a leak
# raises the level that memory comes back to. So the lowest sample of the last third of the
# run is held against the lowest of the first third after the warm-up.
read -r rss_warm rss_end rss_max rss_first rss_last < <(awk -v w=$warmup '
    $1 >= w { v[++n] = $2; if ($2 > max) max = $2 }
    END {
        k = int(n / 3); if (k < 1) k = 1
        for (i = 1; i <= k; i++) if (!first || v[i] < first) first = v[i]
        for (i = n - k + 1; i <= n; i++) if (!last || v[i] < last) last = v[i]
        print v[1] + 0, v[n] + 0, max + 0, first + 0, last + 0
    }' "$work/rss.txt")
growth=$(percent $((rss_last - rss_first)) "$rss_first")
note "resident memory: $rss_warm kB at $warmup s, $rss_end kB at the end, $rss_max kB at most;" \
    "lowest $rss_first kB in the first third after the warm-up, $rss_last kB in the last"
if [ $sanitized -eq 1 ]; then
    note "memory grew ${growth} % after the warm-up (not judged in a sanitizer build)"
else
    check "memory grew ${growth} % after the warm-up" below "$growth" 5
fi

# Frames: what Orvane says the main camera lost ("The main camera lost no frames / 1 frame /
# N frames while recording."), and what every movie holds against its duration.
reported_lost=$(awk '/^The main camera lost .* while recording\.$/ { lost += $5 }
    END { print lost + 0 }' "$work/soak.out")
# decodes_to_end MOVIE DURATION: the last second decodes without an error, frame by frame.
decodes_to_end() {
    local from last errors
    from=$(awk -v d="$2" 'BEGIN { print (d > 1 ? d - 1 : 0) }')
    last=$(ffprobe -v error -read_intervals "${from}%" -select_streams v:0 \
        -show_entries frame=pts_time -of csv=p=0 "$1" 2>"$work/decode.err" |
        awk -v f="$from" '$1 >= f { n++ } END { print n + 0 }')
    errors=$(wc -l <"$work/decode.err")
    [ "$errors" -eq 0 ] && [ "$last" -ge $((fps - 2)) ]
}
mapfile -t movies < <(find "$work/Recordings" -name '*.mov' | sort)
expected_movies=$((2 * ((duration + cycle - 1) / cycle)))
check "${#movies[@]} movies, expected $expected_movies" [ ${#movies[@]} -eq $expected_movies ]
total_frames=0 total_expected=0 main_expected=0
for movie in "${movies[@]}"; do
    name=$(basename "$movie" .mov)
    frames=$(frames "$movie")
    seconds=$(duration_of "$movie")
    expected=$(awk -v d="$seconds" -v f=$fps 'BEGIN { printf "%d", d * f + 0.5 }')
    total_frames=$((total_frames + frames)) total_expected=$((total_expected + expected))
    [[ $name = "Soak Main "* ]] && main_expected=$((main_expected + expected))
    lost=$(percent $((expected - frames)) "$expected")
    note "$name: ${seconds}s, $frames frames of $expected (${lost} % lost)"
    below "$lost" 0.5 || fail "$name lost ${lost} % of its frames"
    decodes_to_end "$movie" "$seconds" ||
        fail "$name does not decode to its end: $(head -3 "$work/decode.err")"
done
movie_lost=$(percent $((total_expected - total_frames)) "$total_expected")
orvane_lost=$(percent "$reported_lost" "$main_expected")
what="frames lost: ${movie_lost} % by the movies, ${orvane_lost} % ($reported_lost) of the"
what+=" main camera's by Orvane"
below "$movie_lost" 0.5 && below "$orvane_lost" 0.5 && pass "$what" || fail "$what"

# Cue logs: the console's cues in its order with none missing (one break in the order or in
# time where the console was restarted), from the first second to the last; the QLab cues;
# the markers sent meanwhile; the same log beside every movie of a recording.
cycle_of_cues="1 2 3 4 5 6 14.5 20"
check_cue_log() { # CSV DURATION BREAKS_ALLOWED
    awk -F, -v cycle="$cycle_of_cues" -v d="$2" -v breaks_allowed="$3" '
        BEGIN {
            n = split(cycle, order, " ")
            for (i = 1; i <= n; i++) next_of[order[i]] = order[i % n + 1]
        }
        NR == 1 {
            if ($0 != "Recording Time,Timecode,Event,Detail") { print "header: " $0; bad = 1 }
            next
        }
        { split($1, t, ":"); s = t[1] * 3600 + t[2] * 60 + t[3] }
        $2 !~ /^[0-9][0-9]:[0-9][0-9]:[0-9][0-9][:;][0-9][0-9]$/ {
            if (!untimed++) print "no timecode from " $0
            bad = 1
        }
        $3 ~ /^Cue / {
            cue = substr($3, 5); cues++
            if (previous != "" && next_of[previous] != cue) {
                breaks++; where = where " " previous "->" cue " at " $1
            }
            # Cues come 0.2 s apart: a longer pause lost some, even if the order goes on.
            if (first != "" && s - last > 2) { pauses++; where = where " pause at " $1 }
            if (first == "") first = s
            previous = cue; last = s
        }
        $3 ~ /^QLab / { qlab++ }
        END {
            if (breaks > breaks_allowed || pauses > breaks_allowed) {
                print breaks + 0 " breaks in the cue order, " pauses + 0 " pauses:" where
                bad = 1
            }
            if (first > 1 || last < d - 2) {
                print "cues from " first " s to " last " s of " d; bad = 1
            }
            if (untimed) print untimed " rows without a timecode"
            # A cue every 10 s: a row for each start, not for each look at the running cues.
            if (qlab < int(d / 10) - 1 || qlab > int(d / 10) + 2) {
                print qlab + 0 " QLab cues in " d " s"; bad = 1
            }
            printf "%d cues, %d QLab cues, %d breaks, %d pauses\n", cues, qlab, breaks,
                pauses > "/dev/stderr"
            exit bad
        }' "$1"
}
mapfile -t stamps < <(for movie in "${movies[@]}"; do basename "$movie" .mov; done |
    sed 's/^Soak [A-Za-z]* //' | sort -u)
for index in "${!stamps[@]}"; do
    stamp=${stamps[$index]}
    main_csv="$work/Recordings/Soak Main $stamp.csv"
    extra_csv="$work/Recordings/Soak Wide $stamp.csv"
    [ -f "$main_csv" ] && [ -f "$extra_csv" ] || { fail "$stamp: a cue log is missing"; continue; }
    cmp -s "$main_csv" "$extra_csv" || fail "$stamp: the two cameras' cue logs differ"
    seconds=$(duration_of "$work/Recordings/Soak Main $stamp.mov")
    allowed=0
    [ $index -eq $(((kill_at - 1) / cycle)) ] && allowed=1 # the console's restart
    summary=$(check_cue_log "$main_csv" "$seconds" $allowed 2>&1) &&
        pass "$stamp cue log: $summary" || fail "$stamp cue log: $summary"
    while IFS= read -r text; do
        count=$(grep -cF ",Marker,\"$text\"" "$main_csv" || true)
        [ "$count" -eq 1 ] || fail "$stamp: the marker \"$text\" is there $count times"
    done < <(awk -v r=$index '$1 == r { $1 = ""; print substr($0, 2) }' "$work/markers.txt")
done

# The console followed again after its restart.
[ "$follow" != none ] && ! below 15 "$follow" &&
    pass "the console was followed again ${follow}s after its restart" ||
    fail "the console was not followed again within 15 s of its restart ($follow)"

# Viewers: each reading one got frames all along (their streams ended with Orvane); the stalled
# one was dropped.
for _ in $(seq 1 100); do
    [ "$(cat "$work"/viewer*.frames 2>/dev/null | wc -l)" -eq $((viewers - 1)) ] && break
    sleep 0.2
done
viewer_rates=$(for i in $(seq 2 $viewers); do
    awk -v s="$run_seconds" '{ printf "%.1f\n", $1 / s }' "$work/viewer$i.frames" 2>/dev/null ||
        echo 0
done | sort -n | tr '\n' ' ')
note "web frames a second at each of $((viewers - 1)) reading viewers: $viewer_rates"
slowest=${viewer_rates%% *}
below "$slowest" 5 && fail "a viewer got $slowest frames a second" ||
    pass "every reading viewer got frames"
check "the stalled viewer was $stalled at the end" [ "$stalled" = dropped ]

# NDI: frames sent into the stand-in runtime, none changed while it read them, every sender
# destroyed.
ndi_rate=$(awk -v n="$ndi_frames" -v s="$run_seconds" 'BEGIN { printf "%.1f", n / s }')
note "NDI: $ndi_frames frames, $ndi_rate a second"
below "$ndi_rate" $((fps * 9 / 10)) && fail "NDI got $ndi_rate frames a second" ||
    pass "NDI got $ndi_rate frames a second"
grep -q 'changed-while-sending' "$work/ndi.log" && fail "an NDI frame changed while it was sent"
[ "$(grep -c '^create ' "$work/ndi.log")" -eq "$(grep -c '^destroy ' "$work/ndi.log")" ] ||
    fail "an NDI sender was not destroyed"

# --- A second run: SIGKILL at a random moment, then the next start recovers ---------------
# --record waits for both cameras, so both movies must come back.
start_soak killed "$work/Killed" --record
wait_for "$work/killed.out" "Recording to" 60
wait_for "$work/killed.out" "Soak Wide" 30
sleep $((5 + RANDOM % kill_max))
kill -9 "$orvane_pid"
wait "$orvane_pid" 2>/dev/null || true
mapfile -t logged < <(grep -o 'Cue log [0-9:]*: .*' "$work/killed.out" |
    sed -E 's/^Cue log [0-9:]+: //; s/ \(timecode .*\)$//; s/ — /,/')
note "killed Orvane after ${#logged[@]} cue log rows"
start_soak recovered "$work/Killed"
wait_for "$work/recovered.out" recovered 60 && pass "$(grep -m1 recovered "$work/recovered.out")" ||
    fail "the next start recovered nothing"
stop_orvane 60
mapfile -t killed_movies < <(find "$work/Killed" -name '*.mov' | sort)
[ ${#killed_movies[@]} -eq 2 ] || fail "${#killed_movies[@]} movies after the kill"
for movie in "${killed_movies[@]}"; do
    name=$(basename "$movie" .mov)
    seconds=$(duration_of "$movie")
    decodes_to_end "$movie" "$seconds" && pass "$name decodes to its end (${seconds}s)" ||
        fail "$name does not decode to its end"
    csv=${movie%.mov}.csv
    [ -f "$csv" ] || { fail "$name: no cue log after the recovery"; continue; }
    # Every row printed before the kill but the last (it may not have reached the disk).
    rows=$(($(wc -l <"$csv") - 1)) missing=0 sure=$((${#logged[@]} > 0 ? ${#logged[@]} - 1 : 0))
    for row in "${logged[@]:0:sure}"; do
        grep -qF -- ",$row" "$csv" || missing=$((missing + 1))
    done
    what="$name: the recovered cue log holds $rows rows, $missing of ${#logged[@]} missing"
    [ $missing -eq 0 ] && [ $rows -ge $sure ] && pass "$what" || fail "$what"
done
"$orvane" recover "$work/Killed" >"$work/recover.out" 2>&1 || fail "orvane recover failed"

finish soak
