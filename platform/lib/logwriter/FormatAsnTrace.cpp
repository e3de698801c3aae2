// FormatAsnTrace.cpp - the text of a record's ASN.1 value, rendered on the
// writer thread from the record's own clone.
#include "logwriter/FormatAsnTrace.h"

#include <sstream>

#include <AsnType.h>

void FormatAsnTrace(const AsnType* asn, std::string& out) {
  if (asn == nullptr) return;
  std::ostringstream text;
  try {
    asn->Print(text);
  } catch (...) {
    // The value's own printer failed; log what it wrote before that.
  }
  text << std::ends;
  const std::string rendered = text.str();
  out += "ASN Trace:\n";
  out += rendered.c_str();  // up to the first NUL
}
