// FormatAsnTrace.h - the text of a record's ASN.1 value, rendered on the
// writer thread from the record's own clone.
#ifndef TOVI_LOGWRITER_FORMATASNTRACE_H
#define TOVI_LOGWRITER_FORMATASNTRACE_H

#include <string>

class AsnType;

// Appends "ASN Trace:\n" and what the value prints (up to its first NUL) to
// out; nothing for a null value.
void FormatAsnTrace(const AsnType* asn, std::string& out);

#endif
