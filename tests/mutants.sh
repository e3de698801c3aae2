#!/usr/bin/env bash
# tests/mutants.sh [--only N,M,...] - puts each one-line fault listed below
# into a scratch copy of the tree, one at a time, rebuilds and runs the
# suite: a fault that the suite lets pass is a gap in the tests. A list line
# is "path|old text|new text", both texts taken literally; an old text that
# does not occur exactly once in its file is reported STALE, and a fault that
# does not compile NOBUILD: either means the list needs re-pointing.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
[ "${1:-}" = --only ] && only=",${2:-}," || only=""
[ "$(df -Pk /dev/shm 2>/dev/null | awk 'NR == 2 { print $4 }')" -gt 4000000 ] 2>/dev/null && base=/dev/shm || base=${TMPDIR:-/tmp}
work=$(mktemp -d "$base/tovi-mutants.XXXXXX") && trap 'rm -rf "$work"' EXIT || exit 2
src=$work/src build=$work/build
# The working-tree state of every tracked file, uncommitted edits included.
mkdir -p "$src" && (cd "$root" && git ls-files -z | xargs -0 cp -P --parents -t "$src" 2>/dev/null)
# A hang is ended by the per-test bound and counts as a failure.
suite() { (cd "$build" && ctest --stop-on-failure -j2 --timeout 60 >"$work/log" 2>&1); }
{ cmake -S "$src" -B "$build" -DTOVI_BUILD_EXAMPLES=OFF -DTOVI_BUILD_BENCH=OFF -DTOVI_TEST_TIMEOUT=60 &&
  cmake --build "$build" -j2 && suite; } >"$work/log" 2>&1 ||
  { tail -40 "$work/log"; echo "the unchanged tree does not build or pass" >&2; exit 2; }
n=0 total=0 killed=0 bad=0
while IFS='|' read -r path old new <&3; do
  n=$((n + 1)) f=$src/$path
  [ -z "$only" ] || [[ $only == *",$n,"* ]] || continue
  total=$((total + 1)) count=$(OLD=$old perl -0ne 'print scalar(() = /\Q$ENV{OLD}\E/g)' "$f" 2>/dev/null || echo 0)
  status="STALE($count)"
  if [ "$count" = 1 ]; then
    cp -p "$f" "$work/orig" && OLD=$old NEW=$new perl -0pi -e 's/\Q$ENV{OLD}\E/$ENV{NEW}/' "$f"
    if ! cmake --build "$build" -j2 >"$work/log" 2>&1; then status=NOBUILD
    elif suite; then status=SURVIVED
    else status=KILLED killed=$((killed + 1))
    fi
    cp "$work/orig" "$f" && touch "$f"
  fi
  [[ $status == KILLED || $status == SURVIVED ]] || bad=$((bad + 1))
  printf '%-9s %2d  %s  %s -> %s\n' "$status" "$n" "$path" "$old" "$new"
done 3<<'MUTANTS'
platform/lib/logwriter/LogFormat.h|kThreadMark = ".T"|kThreadMark = ".t"
platform/lib/logwriter/ToviLogWriter.cpp|"0123456789abcdef"[id & 0xF]|"0123456789ABCDEF"[id & 0xF]
platform/lib/logwriter/LogFileSet.cpp|if (record.lineEnd) Write("\n", 1);|if (record.lineEnd) Write("\n", 0);
platform/lib/logwriter/ToviLogWriter.cpp|g_lastDay.store(day,|g_lastDay.store(0,
platform/lib/logwriter/AddLog.cpp|kMaxMessage = 2048|kMaxMessage = 2047
platform/lib/logwriter/AddLog.cpp|kMaxSubModuleName = 255|kMaxSubModuleName = 256
platform/lib/logwriter/TimeStamp.cpp|(micros / 100 % 100)|(micros / 10 % 100)
platform/lib/logwriter/LogFileSet.cpp|"%Y%m%d_%H%M%S"|"%Y%m%d-%H%M%S"
platform/lib/logwriter/LogFileSet.cpp|m_bytes += static_cast<int64_t>(size);|m_bytes += 2 * static_cast<int64_t>(size);
platform/lib/logwriter/LogFileSet.cpp|(m_path + logfilenames::kArchiveSuffix)|(m_path + ".zip")
platform/lib/logwriter/LogFileSet.cpp|CutFile(m_fd, m_flushedBytes);|CutFile(m_fd, m_flushedBytes + 1);
platform/lib/logwriter/LogArchive.cpp|names.size() - keep;|names.size() - keep + 1;
platform/lib/logwriter/LogArchive.cpp|if (!m_sparedKey.empty() &&|if (m_sparedKey.empty() &&
platform/lib/logwriter/LogArchive.cpp|Compress(name) != Outcome::Busy|Compress(name) == Outcome::Busy
platform/lib/logwriter/GzipArchive.cpp|if (done) toviport::RemoveFile|if (archived) toviport::RemoveFile
platform/lib/logwriter/RecordQueue.cpp|message_count() >= m_heldBackLimit|message_count() > m_heldBackLimit
platform/lib/logwriter/ToviLogWriter.cpp|record->m_bLog = true;|record->m_bLog = false;
platform/lib/logwriter/RecordJournal.cpp|if (PositionOf(state) != m_cursor) return nullptr;|if (PositionOf(state) > m_cursor) return nullptr;
platform/lib/logwriter/ConsoleOutput.cpp|m_stalled ? 0 : kConsoleWaitMs|m_stalled ? kConsoleWaitMs : 0
platform/lib/trace/Trace.cpp|level >= 0 && level <= 31|level >= 0 && level < 31
platform/lib/trace/Trace.cpp|outputs.test(OUTPUT_CONSOLE)|outputs.test(OUTPUT_FILE)
platform/lib/debugmgr/WriterTable.cpp|initName + appName + "_"|initName + appName
platform/lib/debugmgr/WriterTable.cpp|toviport::MutexLock creating(m_creation);|toviport::Mutex spare; toviport::MutexLock creating(spare);
platform/lib/debugmgr/CallGate.cpp|) == manager;|) != nullptr;
platform/lib/debugmgr/ToviDebugMgr.cpp|options.archivesKept *= 5|options.archivesKept *= 4
platform/lib/debugmgr/DebugConfig.cpp|value > 4369 ?|value >= 4369 ?
platform/lib/debugmgr/ConfigKeys.h|kLevelDefault[] = "1100"|kLevelDefault[] = "1110"
platform/lib/debugmgr/DebugConfig.cpp|c != '1') return false;|c != '1') continue;
platform/lib/baseutil/ConfigReader.cpp|if (line[0] == '#')|if (line[0] == ';')
platform/lib/baseutil/ConfigReader.cpp|if (len < n + 1) break;|if (len < n) break;
platform/lib/baseutil/ConfigReader.cpp|n == cap - 1|n == cap - 2
platform/lib/baseutil/CommandCodes.cpp|kMaxPieceLen = 9|kMaxPieceLen = 10
platform/lib/baseutil/CommandCodes.cpp|*begin == ' '|*begin == '\t'
platform/lib/baseutil/MessageTypeNames.cpp|type >= kMsgTypeCount|type > kMsgTypeCount
platform/lib/baseutil/OutputSwitches.cpp|g_enablePrint{0}|g_enablePrint{1}
platform/lib/baseutil/MakeDirEx.cpp|sizeof("mkdir \"\"") - 1|sizeof("mkdir \"\"")
platform/lib/baseutil/InstallPaths.cpp|"var/logs/mrblog/"|"var/log/mrblog/"
platform/lib/baseutil/LocaleBom.cpp|"\xEF\xBB\xBF"|"\xEF\xBB"
platform/lib/trace/Trace.cpp|kFormatBufSize = 2048|kFormatBufSize = 2049
platform/lib/trace/Trace.cpp|m_pDefaults->Level()|LEVEL_INFO
platform/lib/logwriter/LogFormat.h|{"WARN", "WARN: ", 4}|{"WARN", "WARN: ", 5}
platform/lib/forward/SyslogMessage.cpp|" [tovi@32473 thread=\""|"[tovi@32473 thread=\""
platform/lib/forward/SyslogMessage.cpp|(sizeof kCutMark - 1)|sizeof kCutMark
tools/tovilog/Level.cpp|(2u << level) - 1|(1u << level) - 1
tools/tovilog/DateTracker.cpp|kHalfDay = kMicrosPerDay / 2|kHalfDay = kMicrosPerDay
tools/tovilog/Filter.cpp|showEvents_(!options.quietEvents|showEvents_(options.quietEvents
tools/tovilog/LineReader.cpp|lineNumber_ == 1 &&|lineNumber_ == 2 &&
tools/tovilog/FileReader.cpp|kAsnMarker = "ASN Trace:"|kAsnMarker = "ASN trace:"
MUTANTS
echo "killed $killed of $total"
[ "$bad" -eq 0 ] || echo "$bad mutant(s) STALE or NOBUILD: re-point them" >&2
exit $((bad > 0))
