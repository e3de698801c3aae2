// TimeStamp.h - the local time of a trace call, as the log prints it.
//
// Every record carries "YYYY-MM-DD HH:MM:SS.uuuuuu". Converting to local time
// and formatting with printf on every call would cost more than the rest of
// the call together, so each thread keeps the text of the current second and
// formats only the microseconds. A new second (and with it a new day or a
// new zone offset) is converted afresh at the first call that sees it.
#ifndef TOVI_LOGWRITER_TIMESTAMP_H
#define TOVI_LOGWRITER_TIMESTAMP_H

#include <ctime>

#include <ace/Time_Value.h>

namespace timestamp {

// Characters of a time stamp, without its NUL.
constexpr int kLength = 26;

// Writes the local time of now and a NUL into out (kLength + 1 bytes): the
// same bytes as ACE::timestamp gives for that time.
void Format(const ACE_Time_Value& now, char* out);
void Format(time_t seconds, long microseconds, char* out);

// Format for the current time of day.
void FormatNow(char* out);

}  // namespace timestamp

#endif
