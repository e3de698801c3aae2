#!/usr/bin/env bash
# A soak run of the writer (not part of CI): many threads tracing into small
# files, so the files roll, are compressed and pruned all the time, then
# every record is looked for. The writer keeps at most 50 archives, so a
# watcher hard-links each archive aside as soon as it appears, before it can
# be pruned; the records are then read from those links and the plain files.
#   bench/soak.sh [--threads N] [--records N per thread] [--file-mb N]
# Prints one summary line; exits non-zero when a record was lost, doubled,
# out of its thread's order or damaged, or the watcher missed an archive.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

threads=8
records=1000000
file_mb=1

usage() {
  echo "usage: $0 [--threads N] [--records N] [--file-mb N]" >&2
  echo "  defaults: $threads threads, $records records per thread, $file_mb MiB files" >&2
  exit 2
}
while [ $# -gt 0 ]; do
  case $1 in
    --threads) [ $# -ge 2 ] || usage; threads=$2; shift 2 ;;
    --records) [ $# -ge 2 ] || usage; records=$2; shift 2 ;;
    --file-mb) [ $# -ge 2 ] || usage; file_mb=$2; shift 2 ;;
    *) usage ;;
  esac
done
for n in "$threads" "$records" "$file_mb"; do [[ $n =~ ^[1-9][0-9]*$ ]] || usage; done

# The same configuration as bench/peer_bench.sh, so the two share build-bench.
"$root/scripts/install-deps.sh" >&2
build=$root/build-bench
cmake -S "$root" -B "$build" -DTOVI_BUILD_BENCH=ON -DTOVI_BUILD_TESTS=OFF \
  -DTOVI_BUILD_EXAMPLES=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target soak_tovi >/dev/null
soak=$build/bench/soak_tovi

work=$(mktemp -d)
watcher=
cleanup() {
  [ -z "$watcher" ] || kill "$watcher" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
logs=$work/root/logs
kept=$work/kept
mkdir -p "$work/root/etc/conf" "$logs" "$kept"
printf 'nEachFileMaxSize=%s\nnEachProcessMaxZipNum=50\n' "$file_mb" \
  >"$work/root/etc/conf/default_debug.cfg"

# A link shares the archive's inode, so its records stay readable after the
# writer prunes the name. An archive that vanished between the listing and
# the link is noted: its records would count as lost.
keep_archives() {
  local f name
  for f in "$logs"/*.log.gz; do
    [ -e "$f" ] || continue
    name=${f##*/}
    [ -e "$kept/$name" ] && continue
    ln "$f" "$kept/$name" 2>/dev/null || echo "$name" >>"$work/missed"
  done
}
(while :; do keep_archives; sleep 0.05; done) &
watcher=$!

echo "soak: $threads threads x $records records, $file_mb MiB files, in $work" >&2
run=$("$soak" run "$work/root" "$threads" "$records")
kill "$watcher" 2>/dev/null || true
wait "$watcher" 2>/dev/null || true
watcher=
keep_archives

shopt -s nullglob
archives=("$kept"/*.log.gz)
plain=("$logs"/*.log)
status=0
check=$("$soak" check "$threads" "$records" "${archives[@]}" "${plain[@]}") || status=$?
missed=0
[ -f "$work/missed" ] && missed=$(wc -l <"$work/missed")
[ "$missed" -eq 0 ] || status=1

# Both halves print key=value words; the summary picks from them.
declare -A v
for kv in $run $check; do v[${kv%%=*}]=${kv#*=}; done
printf '%s records/s, lost %s, duplicated %s, out-of-order %s, peak RSS %s MiB, worst call %s µs' \
  "${v[records_per_s]}" "${v[lost]}" "${v[duplicated]}" "${v[out_of_order]}" \
  "${v[peak_rss_mib]}" "${v[worst_call_us]}"
printf ' (%s calls over 1 ms; %s files read; damaged %s, unreadable %s; archives missed %s)\n' \
  "${v[calls_over_1ms]}" "${v[files]}" "${v[damaged]}" "${v[unreadable]}" "$missed"
exit "$status"
