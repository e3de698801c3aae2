#!/usr/bin/env bash
# Builds the peer benchmark in build-bench and runs every logger, each thread
# count in a fresh process, then prints one markdown table. With valgrind on
# PATH it also prints what one ToviDebugMgr::Trace call and one Printf call
# cost the caller in instructions and heap allocations.
#   bench/peer_bench.sh [--calls N] [--threads "1 2 4"] [--quick]
# Exits non-zero when any run lost or doubled a record, or did not finish.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

calls=200000
threads="1 2 4"
callgrind_calls="20000 200000"

usage() {
  echo "usage: $0 [--calls N] [--threads \"1 2 4\"] [--quick]" >&2
  echo "  --calls N      calls per thread (default $calls)" >&2
  echo "  --threads L    thread counts to run, one process each (default \"$threads\")" >&2
  echo "  --quick        a few thousand calls: a smoke run, not a measurement" >&2
  exit 2
}

while [ $# -gt 0 ]; do
  case $1 in
    --calls) [ $# -ge 2 ] || usage; calls=$2; shift 2 ;;
    --threads) [ $# -ge 2 ] || usage; threads=$2; shift 2 ;;
    --quick) calls=3000; callgrind_calls=2000; shift ;;
    *) usage ;;
  esac
done
[[ $calls =~ ^[1-9][0-9]*$ ]] || usage
for t in $threads; do [[ $t =~ ^[1-9][0-9]*$ ]] || usage; done

# Installs the Debian packages among "$@" that are missing; a machine that has
# them all is left alone and offline.
install_missing() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}" >&2
  local sudo=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
    sudo=(sudo)
  fi
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q >&2
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" >&2
}

# stdout carries only the results, so the build talks on stderr.
"$root/scripts/install-deps.sh" >&2
install_missing libspdlog-dev liblog4cplus-dev

build=$root/build-bench
cmake -S "$root" -B "$build" -DTOVI_BUILD_BENCH=ON -DTOVI_BUILD_TESTS=OFF -DQUILL_DIR="${QUILL_DIR:-}" \
  -DTOVI_BUILD_EXAMPLES=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" >&2
bin=$build/bench

# label, executable, extra arguments
loggers=(
  "ToviDebugMgr::Trace|bench_tovi|"
  "ToviDebugMgr::Printf|bench_tovi|--printf"
  "spdlog async, flush each|bench_spdlog|"
  "spdlog async, unflushed|bench_spdlog|--unflushed"
  "log4cplus AsyncAppender|bench_log4cplus|"
  "Quill (default backend)|bench_quill|"
)

rows=()
failed=0
for t in $threads; do
  for entry in "${loggers[@]}"; do
    IFS='|' read -r label exe extra <<<"$entry"
    if [ ! -x "$bin/$exe" ]; then
      echo "skipping $label: $exe was not built (its package is missing)" >&2
      continue
    fi
    echo "running $label, $t thread(s) x $calls calls" >&2
    status=0
    # shellcheck disable=SC2086  # extra is zero or one word
    row=$("$bin/$exe" --threads "$t" --calls "$calls" $extra) || status=$?
    [ "$status" -eq 0 ] || failed=1
    # A run that printed no row crashed or could not set up its logger.
    if [[ $row != \|* ]]; then
      row="| $label | $t | - | - | - | - | - | - | - | FAIL: exit $status |"
    fi
    rows+=("$row")
  done
done

echo
echo "Latencies in µs per call (snprintf + logger call) on the calling thread;"
echo "records/s from the first call until every record is on disk; $calls calls per thread."
echo
echo "| logger | threads | p50 µs | p99 µs | p99.9 µs | max µs | records/s | peak RSS MiB | records found | check |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|---|---|"
printf '%s\n' "${rows[@]}"

# Collection is switched on only inside Trace, and callgrind keeps that
# switch per thread: the writer thread never enters Trace, so what is counted
# is the caller's own work. Heap allocations are the calls to the C
# allocator made in there; operator new ends in malloc, so it is not counted
# again. A short run is mostly the pool's warm-up (every block is new while
# the queue fills); a long one shows the steady state of a running process.
# $1: the call counted (Trace or Printf; Printf's count includes the Trace it
# makes), $2: calls, $3: bench_tovi's flag for it.
callgrind_call() {
  local fn=$1 callgrind_calls=$2 flag=$3 work out
  work=$(mktemp -d)
  out=$work/callgrind.out
  # shellcheck disable=SC2086  # flag is zero or one word
  if ! valgrind --tool=callgrind --toggle-collect="ToviDebugMgr::$fn*" --callgrind-out-file="$out" \
      "$bin/bench_tovi" --threads 1 --calls "$callgrind_calls" $flag >/dev/null 2>"$work/valgrind.log"; then
    echo "callgrind run failed, see $work/valgrind.log" >&2
    failed=1
    return
  fi
  awk -v calls="$callgrind_calls" -v fn="$fn" '
    /^totals:/ { total = $2 }
    /^c?fn=\(/ {
      s = $0; sub(/^c?fn=\(/, "", s); id = s; sub(/\).*/, "", id)
      rest = s; sub(/^[0-9]+\) ?/, "", rest)
      if (rest != "") name[id] = rest
      if ($0 ~ /^cfn=/) callee = id
      next
    }
    /^calls=/ { split(substr($0, 7), a, " "); count[callee] += a[1] }
    END {
      if (total == 0) { print "callgrind: no instructions inside ToviDebugMgr::" fn " (pattern matched nothing?)"; exit 1 }
      for (id in count) if (name[id] ~ /^(malloc|calloc|realloc)$/) allocs += count[id]
      printf "\nPer ToviDebugMgr::%s call on the calling thread (callgrind, 1 thread, %d calls):\n", fn, calls
      printf "  instructions      %.0f\n", total / calls
      printf "  heap allocations  %.2f\n", allocs / calls
    }' "$out" || failed=1
  rm -rf "$work"
}

if command -v valgrind >/dev/null; then
  for n in $callgrind_calls; do
    echo "callgrind: $n Trace calls on one thread" >&2
    callgrind_call Trace "$n" ""
  done
  n=${callgrind_calls##* }
  echo "callgrind: $n Printf calls on one thread" >&2
  callgrind_call Printf "$n" --printf
fi
exit "$failed"
