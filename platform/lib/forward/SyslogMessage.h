// SyslogMessage.h - one record as an RFC 5424 message, for collectors that
// take syslog rather than files.
//
//   <PRI>1 TIMESTAMP HOSTNAME APP-NAME PROCID MSGID [tovi@32473 thread="T" level="L"] MSG
//
// PRI is the facility times 8 plus the severity of the level (ASSERT crit,
// ERROR err, WARN warning, INFO info, levels 4 to 31 debug). TIMESTAMP is the
// record's local time with its microseconds and the zone offset; APP-NAME is
// the writer's prefix; MSGID the sub-module, cut at 32 characters; MSG the
// message text as the file shows it after the level, with its ASN.1 lines.
// A message longer than kMaxMessage octets is cut to that length and ends
// with "[cut]": most collectors take 2048 octets without being told more.
#ifndef TOVI_FORWARD_SYSLOGMESSAGE_H
#define TOVI_FORWARD_SYSLOGMESSAGE_H

#include <cstddef>
#include <string>

#include "ToviLogLevel.h"

class ToviLogRecord;

namespace syslogmessage {

constexpr std::size_t kMaxMessage = 2048;

// The facility's code for a name ("local0" to "local7", "user"); -1 for
// anything else.
int FacilityCode(const std::string& name);

// " HOSTNAME APP-NAME PROCID ": what every message of one writer shares.
std::string Identity(const std::string& appName);

// Appends the message of record (with its rendered ASN.1 value, or empty)
// to out, framed for TCP by octet counting: "LEN SP MESSAGE".
void AppendFramed(const ToviLogRecord& record, const std::string& asn,
                  const std::string& identity, int facility, std::string& out);

// The message of a frame that starts at `at` in framed; false when no whole
// frame starts there. next is where the following frame starts.
bool NextFrame(const std::string& framed, std::size_t at, std::size_t& begin, std::size_t& length,
               std::size_t& next);

}  // namespace syslogmessage

#endif
