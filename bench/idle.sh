#!/usr/bin/env bash
# Idle cost of the client and its development backend: CPU (from /proc utime+stime) and resident
# memory (RSS, and PSS from smaps_rollup) over a window of quiet, for
#   1. the headless client (tarnwick --headless),
#   2. the desktop client under Xvfb with its window never shown,
#   3. the development backend the client runs (measured alongside each client).
# Each run signs in to a fresh development backend and adds 10 folders, waits until they are
# synced, then measures. Everything lives in a temporary home; nothing of the user's is touched.
#
# Usage: bench/idle.sh [seconds (default 60)] [build dir (default ./build)] [headless|desktop|all]
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${1:-60}
build=${2:-"$here/build"}
only=${3:-all}
client="$build/bin/tarnwick"
[[ -x "$client" ]] || { echo "idle.sh: $client is missing (build the tarnwick target)" >&2; exit 1; }
hz=$(getconf CLK_TCK)

cpu_ticks() { # utime + stime of a process, in clock ticks
    awk '{ print $14 + $15 }' "/proc/$1/stat"
}
rss_kb() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status"; }
pss_kb() { awk '/^Pss:/ { print $2 }' "/proc/$1/smaps_rollup"; }
backend_of() { # the client's backend child (a tray host started with it is another child)
    local pid=$1 child
    for child in $(cat /proc/"$pid"/task/*/children 2>/dev/null); do
        if [[ "$(readlink -f "/proc/$child/exe" 2>/dev/null)" == */kovrit-* ]]; then
            echo "$child"
            return
        fi
    done
}

find_client() { # the process running the client binary: the pid itself or a descendant
    local pid=$1 child found
    if [[ "$(readlink -f "/proc/$pid/exe" 2>/dev/null)" == "$(readlink -f "$client")" ]]; then
        echo "$pid"
        return
    fi
    for child in $(cat /proc/"$pid"/task/*/children 2>/dev/null); do
        found=$(find_client "$child")
        if [[ -n "$found" ]]; then
            echo "$found"
            return
        fi
    done
}

setup_home() {
    home=$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-idle.XXXXXX")
    mkdir -p "$home/config" "$home/data" "$home/state" "$home/cache" "$home/run" "$home/folders"
    chmod 700 "$home/run"
    export HOME="$home" XDG_CONFIG_HOME="$home/config" XDG_DATA_HOME="$home/data" \
        XDG_STATE_HOME="$home/state" XDG_CACHE_HOME="$home/cache" XDG_RUNTIME_DIR="$home/run" \
        KOVRIT_DEV_CODE=424242 KOVRIT_DEV_OPEN=0
}

start_client() { # the command that starts the client; sets launcher and pid
    "$@" >>"$home/client.log" 2>&1 &
    launcher=$!
    local tries=0
    until "$client" status >/dev/null 2>&1; do
        sleep 0.5
        tries=$((tries + 1))
        if ((tries > 60)); then
            echo "idle.sh: the client did not come up (log: $home/client.log)" >&2
            kill "$launcher" 2>/dev/null || true
            return 1
        fi
    done
    pid=$(find_client "$launcher")
    current_pid=$pid
    trap 'kill "$current_pid" 2>/dev/null || true' EXIT
}

stop_client() {
    kill "$pid" 2>/dev/null || true
    wait "$launcher" 2>/dev/null || true
    sleep 3 # its backend ends once the client is gone
}

sign_in_and_add_folders() {
    # The code is asked for first (the backend's fixed development code), then given; once more
    # when a busy machine made the first attempt fail.
    local attempt
    for attempt in 1 2 3; do
        "$client" login idle@example.org </dev/null >/dev/null 2>&1 || true
        if "$client" login idle@example.org --code 424242 >/dev/null 2>&1; then
            break
        fi
        echo "idle.sh: sign-in attempt $attempt failed" >&2
    done
    for i in $(seq 1 10); do
        mkdir -p "$home/folders/f$i"
        echo "file $i" >"$home/folders/f$i/a.txt"
        "$client" add Personal "$home/folders/f$i" >/dev/null
    done
}

measure() { # name
    local name=$1
    sleep 10 # the first sync passes end, the screens settle
    local backend
    backend=$(backend_of "$pid")
    local c0 b0 c1 b1
    c0=$(cpu_ticks "$pid")
    b0=$(cpu_ticks "$backend")
    sleep "$seconds"
    c1=$(cpu_ticks "$pid")
    b1=$(cpu_ticks "$backend")
    awk -v n="$name" -v c=$((c1 - c0)) -v b=$((b1 - b0)) -v hz="$hz" -v s="$seconds" \
        -v crss="$(rss_kb "$pid")" -v cpss="$(pss_kb "$pid")" \
        -v brss="$(rss_kb "$backend")" -v bpss="$(pss_kb "$backend")" 'BEGIN {
        printf "%-30s CPU %6.3f %% of a core   RSS %6.1f MB   PSS %6.1f MB\n", n,
            100 * c / hz / s, crss / 1024, cpss / 1024
        printf "%-30s CPU %6.3f %% of a core   RSS %6.1f MB   PSS %6.1f MB\n", "  its backend",
            100 * b / hz / s, brss / 1024, bpss / 1024
    }'
}

echo "idle over $seconds s, 10 folders, signed in ($(nproc) cores)"
if [[ "$only" != desktop ]]; then
    setup_home
    start_client "$client" --headless
    sign_in_and_add_folders
    measure "headless client"
    stop_client
    rm -rf "$home"
fi
if [[ "$only" == headless ]]; then
    :
elif command -v xvfb-run >/dev/null; then
    # Signed in and with its folders before the desktop client starts, as a user's client
    # starts: nothing asks it to show its window. With a tray host the window stays hidden, as
    # on a desktop; without one the client shows it.
    setup_home
    start_client "$client" --headless
    sign_in_and_add_folders
    stop_client
    if command -v trayer >/dev/null; then
        start_client xvfb-run -a -s "-screen 0 1280x800x24" \
            sh -c 'trayer --edge top --align right --widthtype request --height 24 & sleep 1; exec "$0"' \
            "$client"
        measure "desktop client (Xvfb, tray)"
    else
        start_client xvfb-run -a -s "-screen 0 1280x800x24" "$client"
        measure "desktop client (Xvfb, no tray)"
    fi
    stop_client
    rm -rf "$home"
else
    echo "desktop client: xvfb-run is missing, skipped"
fi
