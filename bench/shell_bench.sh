#!/usr/bin/env bash
# Measures the desktop application against a bare WebKitGTK window showing the same page
# (bench/bare_webview.cpp), both under one private Xvfb display:
#   - time from start to the page's load event,
#   - resident memory at idle after load: the process and all its WebKit children,
#   - median page -> native -> page round trip of getSettings (the bare window echoes).
# Each program runs `runs` times, alternating; the medians are reported with their ratios.
#
#   bench/shell_bench.sh [build dir (default build/release)] [runs (default 5)]
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$here/build/release}" && pwd)
runs=${2:-5}
qev=$build/bin/qev
bare=$build/bench/bare_webview
stage=$build/share/qev
for needed in "$qev" "$bare" "$stage/nativeCompatibilityScript.js"; do
  [ -e "$needed" ] || { echo "shell_bench: missing $needed (build qev and bare_webview first)" >&2; exit 2; }
done
for tool in Xvfb dbus-daemon; do
  command -v "$tool" >/dev/null || { echo "shell_bench: $tool is not installed" >&2; exit 2; }
done

work=$(mktemp -d)
xvfb_pid=""
bus_pid=""
cleanup() {
  [ -n "$bus_pid" ] && kill "$bus_pid" 2>/dev/null || true
  [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

Xvfb -displayfd 5 -screen 0 1024x768x24 -nolisten tcp 5>"$work/display" >/dev/null 2>&1 &
xvfb_pid=$!
for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.1; done
[ -s "$work/display" ] || { echo "shell_bench: Xvfb did not start" >&2; exit 1; }
export DISPLAY=":$(head -1 "$work/display")"
dbus-daemon --session --fork --print-address=1 --print-pid=1 >"$work/bus"
export DBUS_SESSION_BUS_ADDRESS=$(sed -n 1p "$work/bus")
bus_pid=$(sed -n 2p "$work/bus")
export NO_AT_BRIDGE=1
unset XDG_DATA_HOME XDG_CONFIG_HOME XDG_CACHE_HOME WAYLAND_DISPLAY

# The same resources for both: the staged runtime script and the benchmark page as dist/.
resources=$work/resources
mkdir -p "$resources"
cp -r "$stage/." "$resources/"
rm -rf "$resources/dist"
cp -r "$here/bench/shell_bench_page" "$resources/dist"

now_ms() { date +%s%3N; }

# Resident memory (KiB) of a process and all its descendants.
tree_rss() {
  local all=$1 level=$1 next
  while [ -n "$level" ]; do
    next=""
    for p in $level; do next="$next $(pgrep -P "$p" | tr '\n' ' ')"; done
    level=$(echo $next)
    all="$all $level"
  done
  ps -o rss= -p "$(echo $all | tr ' ' ',')" | awk '{ s += $1 } END { print s + 0 }'
}

# One run: prints "<ms to load> <KiB resident> <ms round trip>".
measure() {
  local kind=$1 run=$2 home log pid started
  home=$work/home-$kind-$run
  mkdir -p "$home"
  started=$(now_ms)
  if [ "$kind" = bare ]; then
    log=$work/bare-$run.log
    HOME=$home "$bare" "$resources/dist" "$resources/nativeCompatibilityScript.js" \
      "$here/resources/relay/native_relay.js" >"$log" 2>/dev/null &
    pid=$!
  else
    log=$home/.local/share/qevjs/native-webview.log
    HOME=$home QEV_RESOURCES_DIR=$resources "$qev" >/dev/null 2>&1 &
    pid=$!
  fi
  for _ in $(seq 1200); do
    grep -q 'bench.roundTrip: ' "$log" 2>/dev/null && break
    sleep 0.1
  done
  if ! grep -q 'bench.roundTrip: ' "$log" 2>/dev/null; then
    kill -TERM "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    echo "shell_bench: $kind run $run did not finish its page" >&2
    return 1
  fi
  local loaded trip
  loaded=$(grep -o 'bench.loaded: [0-9]*' "$log" | head -1 | awk '{ print $2 }')
  trip=$(grep -o 'bench.roundTrip: [0-9.]*' "$log" | head -1 | awk '{ print $2 }')
  sleep 3  # idle after load
  local rss
  rss=$(tree_rss "$pid")
  kill -TERM "$pid"
  wait "$pid" 2>/dev/null || true
  echo "$((loaded - started)) $rss $trip"
}

median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

measure bare 0 >/dev/null  # warm-up: font and shader caches
: >"$work/bare.txt"
: >"$work/qev.txt"
for run in $(seq "$runs"); do
  measure bare "$run" >>"$work/bare.txt"
  measure qev "$run" >>"$work/qev.txt"
done

column_median() { awk -v c="$2" '{ print $c }' "$1" | median; }
bare_start=$(column_median "$work/bare.txt" 1)
qev_start=$(column_median "$work/qev.txt" 1)
bare_rss=$(column_median "$work/bare.txt" 2)
qev_rss=$(column_median "$work/qev.txt" 2)
bare_trip=$(column_median "$work/bare.txt" 3)
qev_trip=$(column_median "$work/qev.txt" 3)

echo "desktop shell vs bare WebKitGTK window, median of $runs runs each (display $DISPLAY)"
awk -v bs="$bare_start" -v qs="$qev_start" -v br="$bare_rss" -v qr="$qev_rss" \
    -v bt="$bare_trip" -v qt="$qev_trip" 'BEGIN {
  printf "%-26s %12s %12s %8s %8s\n", "measure", "bare", "qev", "ratio", "target"
  printf "%-26s %12d %12d %8.2f %8s\n", "start to page loaded (ms)", bs, qs, qs / bs, "1.20"
  printf "%-26s %12.1f %12.1f %8.2f %8s\n", "resident memory (MiB)", br / 1024, qr / 1024, qr / br, "1.10"
  printf "%-26s %12.3f %12.3f %8.2f %8s\n", "getSettings round trip (ms)", bt, qt, qt / bt, "1.50"
}'
echo "runs (ms to load, KiB, ms round trip):"
sed 's/^/  bare /' "$work/bare.txt"
sed 's/^/  qev  /' "$work/qev.txt"
