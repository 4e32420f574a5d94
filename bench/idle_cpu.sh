#!/usr/bin/env bash
# Idle CPU of qev with its live feeds open: `qev --headless` beside a test core whose /traffic
# and /logs streams it keeps, measured from /proc over a quiet minute, against the same qev with
# no core to stream from.
#
#   bench/idle_cpu.sh [build dir (default build/release)] [seconds (default 60)]
# FAKE_CORE names the test core when the build dir has none (a package build has no tests).
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$here/build/release}" && pwd)
seconds=${2:-60}
qev=$build/bin/qev
core=${FAKE_CORE:-$build/tests/bin/fake_core}
for needed in "$qev" "$core"; do
  [ -x "$needed" ] || { echo "idle_cpu: missing $needed (build qev and the tests first)" >&2; exit 2; }
done

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

ticks() {  # user + system clock ticks of a process
  awk '{ print $14 + $15 }' "/proc/$1/stat"
}

# Starts qev with its stdin held open for the whole run; sets qev_pid.
start_qev() {
  mkdir -p "$work/$1"
  mkfifo "$work/$1/in"
  HOME=$work/$1 GSETTINGS_BACKEND=memory "$qev" --headless <"$work/$1/in" >/dev/null 2>&1 &
  qev_pid=$!
  pids+=("$qev_pid")
  exec {hold}>"$work/$1/in"
}

measure() {  # pid -> percent of one core over $seconds
  local before after hz
  hz=$(getconf CLK_TCK)
  before=$(ticks "$1")
  sleep "$seconds"
  after=$(ticks "$1")
  awk -v t=$((after - before)) -v hz="$hz" -v s="$seconds" 'BEGIN { printf "%.2f", 100 * t / hz / s }'
}

cat >"$work/core.yaml" <<'YAML'
mixed-port: 33210
external-controller: 127.0.0.1:33212
proxies:
  - { name: HK-01, type: ss, server: a.example.com, port: 443, cipher: aes-128-gcm, password: p }
proxy-groups:
  - { name: SELECT, type: select, proxies: [HK-01] }
rules:
  - MATCH,SELECT
YAML

# Without a core: only the feed's slow reconnect attempts.
start_qev alone
sleep 5
echo "qev idle, no core:              $(measure "$qev_pid") % of one core"
kill "$qev_pid"

"$core" -d "$work" -f "$work/core.yaml" >/dev/null 2>&1 &
pids+=($!)
start_qev streaming
sleep 5
echo "qev idle, streaming from core:  $(measure "$qev_pid") % of one core"
