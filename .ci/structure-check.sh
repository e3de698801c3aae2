#!/usr/bin/env bash
# The library's two structural promises, checked from the sources:
# 1. includes run one way only: trace -> debugmgr -> forward -> logwriter ->
#    baseutil -> port, and a public header counts as part of the layer it
#    serves. forward sits above logwriter because a forwarder is one per
#    process and reaches every writer through the writer's sink interface,
#    while a writer knows nothing of where its records travel beyond the
#    file; the manager, above both, wires them together;
# 2. outside platform/lib/port/, nothing calls the C library's or ACE's
#    operating-system functions directly;
# 3. every public header is installed.
set -euo pipefail
cd "$(dirname "$0")/.."
status=0

rank() {
  case "$1" in
    port/*|ToviExport.h|ToviLogLevel.h|AsnType.h) echo 0 ;;
    baseutil/*|ToviBaseUtil.h) echo 1 ;;
    logwriter/*) echo 2 ;;
    forward/*) echo 3 ;;
    debugmgr/*|ToviDebugMgr.h|ToviDebugEngine.h) echo 4 ;;
    trace/*|ToviInterString.h) echo 5 ;;
    *) echo "unknown" ;;
  esac
}

while IFS= read -r file; do
  from=${file#platform/lib/}
  from=${from#include/}
  mine=$(rank "$from")
  while IFS= read -r target; do
    theirs=$(rank "$target")
    if [[ $mine == unknown || $theirs == unknown || $theirs -gt $mine ]]; then
      echo "upward include: $file -> $target"
      status=1
    fi
  done < <(sed -n 's/^#include "\([^"]*\)".*/\1/p' "$file")
done < <(find platform/lib include -name '*.h' -o -name '*.cpp' | sort)

os_calls='ACE_OS::|ACE_Thread::|ACE_SOCK|ACE_INET_Addr|ACE_DIR|ACE::timestamp|std::(time|getenv|system|remove|rename|fopen|tmpfile)\(|(^|[^.>:A-Za-z0-9_])(::)?(open|close|read|write|pread|pwrite|lseek|fstat|stat|lstat|access|unlink|rename|mkdir|rmdir|opendir|readdir|closedir|flock|fcntl|ftruncate|fsync|poll|select|socket|connect|send|recv|sendto|getaddrinfo|gethostname|getpid|gettid|syscall|sleep|usleep|nanosleep|gettimeofday|clock_gettime|localtime_r|localtime|gmtime_r|getenv|pthread_[a-z_]+|sched_[a-z_]+|fopen|fwrite|fflush|fputs|vprintf|printf|system|realpath|pathconf|sysconf)\(|#include <(unistd\.h|fcntl\.h|dirent\.h|poll\.h|netdb\.h|pthread\.h|sys/[a-z_]+\.h|ace/OS_NS_[a-z_]+\.h|ace/SOCK[A-Za-z_]*\.h|ace/Thread\.h|ace/INET_Addr\.h)>'
if grep -rnE "$os_calls" platform/lib --include='*.h' --include='*.cpp' | grep -v '^platform/lib/port/' |
   grep -vE '^[^:]+:[0-9]+:\s*//'; then
  echo "operating-system calls outside platform/lib/port/ (above)"
  status=1
fi
# A header missing from the build's list would be missing from the package.
for header in include/*.h; do
  grep -qF "  $header" CMakeLists.txt || { echo "not installed: $header"; status=1; }
done
exit $status
