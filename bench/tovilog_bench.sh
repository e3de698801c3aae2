#!/usr/bin/env bash
# Measures tovilog on a file set of at least 500 MB that the library itself
# writes (not part of CI): filtering plain files, reading archives against
# zlib's own speed of decompression, text and JSON output, and peak memory.
#   bench/tovilog_bench.sh [MiB of text, default 600]
# TOVI_BUILD_DIR chooses the build directory (default: build). The set is made
# in a temporary directory and removed at the end. Runs are pinned to one core
# when taskset is there; the files are read once first, so the figures are of
# the page cache, not of the disk.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
mib=${1:-600}
"$root/scripts/install-deps.sh"
build=${TOVI_BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVI_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target tovilog tovilog_benchgen >/dev/null
tovilog=$build/tools/tovilog/tovilog
gen=$build/bench/tovilog_benchgen

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo "writing about $mib MiB of records through the library ..."
"$gen" write "$work/set" "$mib"

# The archives alone, and the same text as plain files.
mkdir "$work/gz" "$work/plain"
for f in "$work/set/logs"/*.log.gz; do
  gzip -dc -- "$f" >"$work/plain/$(basename -- "${f%.gz}")"
  mv -- "$f" "$work/gz/"
done
mv -- "$work/set/logs"/*.log "$work/plain/"
cat -- "$work/gz"/* "$work/plain"/* >/dev/null

one_core=()
if command -v taskset >/dev/null; then one_core=(taskset -c 0); fi
plain_bytes=$(cat -- "$work/plain"/* | wc -c)
text_in_gz=$("$gen" inflate "$work/gz"/* | cut -d' ' -f1)
records=$("$tovilog" "$work/plain" --count)
records_gz=$("$tovilog" "$work/gz" --count)

# run LABEL BYTES RECORDS -- command...: seconds, MB/s of text, records/s and
# peak RSS.
run() {
  local label=$1 bytes=$2 records=$3
  shift 4
  /usr/bin/time -f '%e %M' -o "$work/time" "${one_core[@]}" "$@" >/dev/null 2>&1 || true
  local stats
  stats=$(tail -n1 "$work/time")
  local seconds=${stats% *} rss=${stats#* }
  awk -v l="$label" -v b="$bytes" -v s="$seconds" -v r="$records" -v m="$rss" 'BEGIN {
    if (s < 0.01) s = 0.01
    printf "%-44s %7.2f s %8.0f MB/s %11.0f records/s %7.1f MiB peak\n", l, s, b / s / 1e6, r / s, m / 1024 }'
}

echo "set: $(ls "$work/gz" | wc -l) archives holding $((text_in_gz / 1000000)) MB of text," \
     "$(ls "$work/plain" | wc -l) plain files of $((plain_bytes / 1000000)) MB, $records records"
read -r zbytes zseconds < <("${one_core[@]}" "$gen" inflate "$work/gz"/*)
awk -v b="$zbytes" -v s="$zseconds" 'BEGIN {
  printf "%-44s %7.2f s %8.0f MB/s\n", "zlib alone: decompress the archives", s, b / s / 1e6 }'
p=("$plain_bytes" "$records" --)
g=("$text_in_gz" "$records_gz" --)
run "plain: --count" "${p[@]}" "$tovilog" "$work/plain" --count
run "plain: --level ERROR+ --grep 'depth 6[0-9]'" "${p[@]}" \
  "$tovilog" "$work/plain" --level ERROR+ --grep 'depth 6[0-9]'
run "plain: --module 'd*' --since -1h --until now" "${p[@]}" \
  "$tovilog" "$work/plain" --module 'd*' --since -1h --until now --count
run "plain: every record as text" "${p[@]}" "$tovilog" "$work/plain"
run "plain: every record as JSON" "${p[@]}" "$tovilog" "$work/plain" --json
run "plain: --stats" "${p[@]}" "$tovilog" "$work/plain" --stats
run "archives: --count" "${g[@]}" "$tovilog" "$work/gz" --count
run "archives: --level ERROR+ --grep 'depth 6[0-9]'" "${g[@]}" \
  "$tovilog" "$work/gz" --level ERROR+ --grep 'depth 6[0-9]'
echo "(MB/s of text; records/s counts every record read, whatever the filter passes)"
