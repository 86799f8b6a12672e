# The shell helpers of the whole-application tests (end_to_end.sh and the soak): run inside a
# private network, start and stop headless Orvane, wait for its lines, put the pretend console
# on a host of its own, and read movies with ffprobe. Sourced, after setting `orvane` to the
# executable; every process started goes into `pids` and is killed by stop_everything.

lib_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
pids=()
console_netns=
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
pass() { echo "PASS: $*"; }
now() { date +%s.%N; }
# check WHAT COMMAND...: passes WHAT when the command succeeds, fails it otherwise.
check() {
    local what=$1; shift
    if "$@"; then pass "$what"; else fail "$what"; fi
}

# run_offline SCRIPT ARGS...: runs the script again inside scripts/offline, unless it already is.
run_offline() {
    [ "${ORVANE_TEST_ISOLATED:-0}" = 1 ] && return
    ORVANE_TEST_ISOLATED=1 exec "$lib_dir/../../scripts/offline" bash "$@"
}

# need_tools TOOL...: the test is skipped (and passes) without them.
need_tools() {
    for tool in "$@"; do
        command -v "$tool" >/dev/null || { echo "SKIP: $tool is not installed"; exit 0; }
    done
}

# use_home FOLDER: a home folder of the test's own, and the offscreen platform.
use_home() {
    export HOME=$1/home XDG_CONFIG_HOME=$1/home/.config XDG_DATA_HOME=$1/home/.local/share
    export QT_QPA_PLATFORM=offscreen ORVANE_STRICT_CHECKS=1
    mkdir -p "$HOME"
}

stop_everything() {
    for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    [ -z "$console_netns" ] || ip netns del "$console_netns" 2>/dev/null || true
}

# wait_for FILE PATTERN SECONDS [FROM_LINE]: until a line of FILE (from FROM_LINE on) holds the
# fixed text PATTERN.
wait_for() {
    local deadline=$(($(date +%s) + $3))
    until awk -v from="${4:-1}" -v text="$2" 'NR >= from && index($0, text) { found = 1; exit }
        END { exit !found }' "$1" 2>/dev/null; do
        if [ "$(date +%s)" -ge $deadline ]; then
            echo "timed out waiting for '$2' in $1"; tail -20 "$1" | sed 's/^/    /'; return 1
        fi
        sleep 0.1
    done
}

# console_host NAME NET: a host of its own, the network namespace NAME-console joined to this
# one by a veth pair, with NET.1 here and NET.2 there.
console_host() {
    console_netns=$1-console
    ip netns add "$console_netns"
    ip link add "$1-o" type veth peer name "$1-c" netns "$console_netns"
    ip addr add "$2.1/24" dev "$1-o" && ip link set "$1-o" up
    ip netns exec "$console_netns" ip addr add "$2.2/24" dev "$1-c"
    ip netns exec "$console_netns" ip link set "$1-c" up
    ip netns exec "$console_netns" ip link set lo up
}

# start_orvane NAME ARGS...: `orvane --headless ARGS` with its output in $work/NAME.out and .err.
start_orvane() {
    local name=$1; shift
    "$orvane" --headless "$@" >"$work/$name.out" 2>"$work/$name.err" &
    orvane_pid=$!
    pids+=("$orvane_pid")
}

# stop_orvane [SECONDS]: SIGTERM; the exit code must be 0 within SECONDS (20).
stop_orvane() {
    kill -TERM "$orvane_pid"
    local code=0
    timeout "${1:-20}" tail --pid="$orvane_pid" -f /dev/null ||
        { fail "orvane did not stop"; return; }
    wait "$orvane_pid" || code=$?
    [ $code -eq 0 ] || fail "orvane exited with $code"
}

# frames MOVIE, duration_of MOVIE: its video frames, and its video's length in seconds.
frames() {
    ffprobe -v error -select_streams v:0 -count_packets -show_entries stream=nb_read_packets \
        -of csv=p=0 "$1" 2>/dev/null || echo 0
}
duration_of() {
    ffprobe -v error -select_streams v:0 -show_entries stream=duration -of csv=p=0 "$1" \
        2>/dev/null || echo 0
}

# finish NAME: the verdict, and the exit code.
finish() {
    if [ $failures -eq 0 ]; then
        echo "$1: all checks passed"
        exit 0
    fi
    echo "$1: $failures checks failed"
    exit 1
}
