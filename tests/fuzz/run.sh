#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz and runs each one from
# a fresh copy of its committed corpus, so every run starts from the same
# seeds and the committed corpus stays small.
#   tests/fuzz/run.sh [seconds per target, default 30] [target...]
# With no target named, every target runs: config_reader deferred_format.
# Any crash, leak, timeout or sanitizer report fails the run; the input that
# caused it is left in build-fuzz/artifacts/. TOVI_FUZZ_ARGS adds libFuzzer
# options, e.g. "-runs=10000000" to stop after that many inputs.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
seconds=${1:-30}
shift || true
targets=("$@")
[ $# -gt 0 ] || targets=(config_reader deferred_format)

# clang only recommends the runtime that holds libFuzzer, so it is named too.
"$root/scripts/install-deps.sh" clang libclang-rt-dev
build=${TOVI_FUZZ_BUILD_DIR:-$root/build-fuzz}
cmake -S "$root" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTOVI_BUILD_FUZZ=ON -DTOVI_BUILD_TESTS=OFF -DTOVI_BUILD_EXAMPLES=OFF -DTOVI_BUILD_TOOLS=OFF \
  -DTOVI_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)"

# The targets write a file per input; on ext4 a rewritten file is flushed
# when closed, which makes the disk the bottleneck, so tmpfs is preferred.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi

failed=0
mkdir -p "$build/artifacts"
for t in "${targets[@]}"; do
  corpus=$build/corpus/$t log=$build/$t.log status=0
  rm -rf "$corpus" && mkdir -p "$corpus" && cp "$here/corpus/$t"/* "$corpus/"
  # A target's dictionary is $t.dict, if it has one.
  dict=()
  if [ -f "$here/$t.dict" ]; then dict=(-dict="$here/$t.dict"); fi
  # shellcheck disable=SC2086  # TOVI_FUZZ_ARGS is a list of options
  "$build/tests/fuzz/${t}_fuzz" "${dict[@]}" -max_total_time="$seconds" -timeout=10 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$build/artifacts/$t-" \
    ${TOVI_FUZZ_ARGS:-} "$corpus" >"$log" 2>&1 || status=$?
  runs=$(awk '/stat::number_of_executed_units/ { s += $2 } END { print s + 0 }' "$log")
  echo "$t: $runs executions, corpus $(ls "$corpus" | wc -l) inputs, exit $status"
  # A target may sum up its own run in a line that starts with its name.
  grep -a "^$t: " "$log" || true
  if [ "$status" -ne 0 ]; then
    grep -E -A30 '^==[0-9]+==|check failed|ERROR: libFuzzer' "$log" | head -60 >&2
    failed=1
  fi
done
exit "$failed"
