// AsnType.h - stand-in for the polymorphic value class of the caller's ASN.1
// library.
//
// The log writer clones a caller's value on the tracing thread, prints the
// clone on the writer thread and deletes it there, so only the destructor,
// Clone and Print are used. The two operations between Clone and Print exist
// so that the virtual slots line up with the real class; a build against the
// real library points TOVI_ASN_INCLUDE_DIR at its headers instead.
#ifndef TOVI_ASNTYPE_H
#define TOVI_ASNTYPE_H

#include <cstddef>
#include <ostream>
#include <string>

class AsnType {
public:
  virtual ~AsnType() {}
  virtual AsnType* Clone() const = 0;
  virtual std::size_t Encode(std::string& out) const {
    (void)out;
    return 0;
  }
  virtual bool Decode(const std::string& in) {
    (void)in;
    return false;
  }
  virtual void Print(std::ostream& os) const = 0;
};

#endif
