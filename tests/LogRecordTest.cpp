// The time stamp of every record.
#include <ace/ACE.h>

#include "WriterTestSupport.h"
#include "logwriter/TimeStamp.h"

using namespace tovitest;

// The time stamp comes from a per-thread cache of the current second; its
// bytes must be ACE's to the last digit, across second, day and zone-offset
// changes (a spring-forward night in a zone east of UTC), and when the clock
// steps back.
TEST(LogRecord, TimeStampIsAcesToTheByte) {
  ScopedEnv zone("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
  ::tzset();
  // 2026-03-28 22:59:00 UTC: local midnight, then the jump from 02:00 to 03:00.
  const time_t start = 1774738740;
  for (long step = 0; step < 40000; ++step) {
    // Strides that land on every microsecond pattern and cross each second
    // several times; every seventh call goes back in time.
    const long offset = step % 7 == 6 ? -step * 137 : step * 271351;
    const ACE_Time_Value when(start + offset / 1000000, offset % 1000000 < 0 ? 0 : offset % 1000000);
    char ours[timestamp::kLength + 1];
    char ace[40];
    timestamp::Format(when, ours);
    ACE::timestamp(when, ace, sizeof ace, false);
    ASSERT_STREQ(ours, ace) << "at " << when.sec() << "." << when.usec();
  }
}
