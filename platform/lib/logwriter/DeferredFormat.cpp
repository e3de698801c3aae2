// DeferredFormat.cpp - a printf call's format and arguments kept for later.
//
// A capture is laid out as
//   [format length: 2 bytes][argument bytes: 2 bytes][arguments][format][NUL]
// with the arguments in the order the format takes them: a '*' value and a
// %c as 4 bytes (int), an integer as 8 (its promoted value, sign- or
// zero-extended), a double as 8, a long double as its significant bytes, a
// pointer as 8, a string as a 2-byte length, that many bytes and a NUL.
// Numbers are in the machine's own byte order: a capture is read back by the
// same build that wrote it, or found not to be one.
//
// Capture decides from the format and the values whether the text is sure to
// be 1 to kMaxText characters, counting each conversion at its longest, so
// that the writer never meets a capture it cannot turn into a record. Render
// trusts nothing of the bytes and checks all of it again.
#include "logwriter/DeferredFormat.h"

#include <locale.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace deferred {
namespace {

constexpr std::size_t kHeader = 4;
constexpr std::size_t kMaxField = 0xFFFF;  // what a 2-byte length holds
// A directive is copied whole for snprintf; nothing reasonable is longer.
constexpr std::size_t kMaxDirective = 31;
constexpr int kAbsent = -1;  // no precision was given
// A decimal point is one character, of up to 4 bytes in UTF-8.
constexpr std::size_t kPointBytes = 4;

// x87's 80-bit long double is stored without the padding that follows it,
// so that a capture holds no indeterminate bytes.
#if (defined(__x86_64__) || defined(__i386__)) && LDBL_MANT_DIG == 64
constexpr bool kX87 = true;
constexpr std::size_t kLongDoubleBytes = 10;
#else
constexpr bool kX87 = false;
constexpr std::size_t kLongDoubleBytes = sizeof(long double);
#endif

enum class Length : unsigned char {
  kNone,
  kChar,
  kShort,
  kLong,
  kLongLong,
  kMax,
  kSize,
  kPtrdiff,
  kLongDouble
};
enum class Kind : unsigned char {
  kRefused,
  kPercent,
  kSigned,
  kUnsigned,
  kChar,
  kString,
  kPointer,
  kDouble,
  kLongDouble
};

struct Directive {
  int width = 0;  // as printf uses it once any '*' is settled
  int precision = kAbsent;
  bool widthStar = false;
  bool precisionStar = false;
  Length length = Length::kNone;
  Kind kind = Kind::kRefused;
  char conversion = 0;
  unsigned char size = 0;  // characters from the '%' through the conversion
};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Skips the flags that only change the layout of a conversion. The ' and I
// flags ask for the locale's digits and grouping and are left unread, so
// that they end up as an unknown conversion.
const char* SkipFlags(const char* p) {
  for (;; ++p) {
    switch (*p) {
      case '-':
      case '+':
      case ' ':
      case '#':
      case '0':
        break;
      default:
        return p;
    }
  }
}

// Reads a run of digits into value, which saturates just above kMaxText so
// that a longer number stays one too large; returns the first non-digit.
const char* ReadNumber(const char* p, int& value) {
  value = 0;
  for (; IsDigit(*p); ++p) {
    if (value <= static_cast<int>(kMaxText)) value = value * 10 + (*p - '0');
  }
  return p;
}

// Reads the width at p, digits or '*', if there is one.
const char* ReadWidth(const char* p, Directive& directive) {
  if (*p == '*') {
    directive.widthStar = true;
    return p + 1;
  }
  return ReadNumber(p, directive.width);
}

// Reads the precision after the '.' at p: digits, '*' or nothing, which is 0.
const char* ReadPrecision(const char* p, Directive& directive) {
  if (*p == '*') {
    directive.precisionStar = true;
    return p + 1;
  }
  return ReadNumber(p, directive.precision);
}

// Reads the length modifier at p, if there is one.
const char* ReadLength(const char* p, Length& length) {
  switch (*p) {
    case 'h':
      length = p[1] == 'h' ? Length::kChar : Length::kShort;
      return p[1] == 'h' ? p + 2 : p + 1;
    case 'l':
      length = p[1] == 'l' ? Length::kLongLong : Length::kLong;
      return p[1] == 'l' ? p + 2 : p + 1;
    case 'q':
      length = Length::kLongLong;
      return p + 1;
    case 'j':
      length = Length::kMax;
      return p + 1;
    case 'z':
      length = Length::kSize;
      return p + 1;
    case 't':
      length = Length::kPtrdiff;
      return p + 1;
    case 'L':
      length = Length::kLongDouble;
      return p + 1;
    default:
      length = Length::kNone;
      return p;
  }
}

// What a conversion with this length modifier takes, or kRefused when it is
// not one this file reproduces: %n, %m, wide characters and strings, and any
// pairing whose argument type is the C library's own choice (%Ld, %llf).
constexpr Kind Classify(char conversion, Length length) {
  switch (conversion) {
    case 'd':
    case 'i':
      return length == Length::kLongDouble ? Kind::kRefused : Kind::kSigned;
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      return length == Length::kLongDouble ? Kind::kRefused : Kind::kUnsigned;
    case 'c':
      return length == Length::kNone ? Kind::kChar : Kind::kRefused;
    case 's':
      return length == Length::kNone ? Kind::kString : Kind::kRefused;
    case 'p':
      return length == Length::kNone ? Kind::kPointer : Kind::kRefused;
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      if (length == Length::kNone || length == Length::kLong) return Kind::kDouble;
      return length == Length::kLongDouble ? Kind::kLongDouble : Kind::kRefused;
    default:
      return Kind::kRefused;
  }
}

// What '%' and the character c alone make, for each c: kRefused where that
// is not a whole directive.
struct PlainKinds {
  Kind kind[256] = {};
  constexpr PlainKinds() {
    for (int c = 0; c < 256; ++c) kind[c] = Classify(static_cast<char>(c), Length::kNone);
    kind[static_cast<unsigned char>('%')] = Kind::kPercent;
  }
};
constexpr PlainKinds kPlain;

// Reads the directive at p, which starts with a '%', when it is that and
// one character, as most are; false for anything longer or refused.
bool ParsePlain(const char* p, Directive& directive) {
  const Kind kind = kPlain.kind[static_cast<unsigned char>(p[1])];
  if (kind == Kind::kRefused) return false;
  directive.kind = kind;
  directive.conversion = p[1];
  directive.size = 2;
  return true;
}

// Reads a directive ParsePlain did not. False for anything not deferred:
// an unknown conversion, positional arguments, a width or precision beyond
// kMaxText, a directive longer than kMaxDirective. Reads up to the first
// character that cannot continue it, so a NUL ends it.
bool ParseLonger(const char* p, Directive& directive) {
  const char* q = ReadWidth(SkipFlags(p + 1), directive);
  if (*q == '.') q = ReadPrecision(q + 1, directive);
  q = ReadLength(q, directive.length);
  directive.conversion = *q;
  directive.kind = Classify(*q, directive.length);
  if (directive.kind == Kind::kRefused) return false;
  const std::size_t size = static_cast<std::size_t>(q + 1 - p);
  if (size > kMaxDirective || directive.width > static_cast<int>(kMaxText)) return false;
  if (directive.precision > static_cast<int>(kMaxText)) return false;
  directive.size = static_cast<unsigned char>(size);
  return true;
}

// Reads the conversion directive that starts with the '%' at p; false
// for anything not deferred.
bool ParseDirective(const char* p, Directive& directive) {
  return ParsePlain(p, directive) || ParseLonger(p, directive);
}

// Applies a '*' width the way printf does, a negative one meaning '-';
// false when it is beyond kMaxText.
bool SettleWidth(int value, Directive& directive) {
  const long long width = value < 0 ? -static_cast<long long>(value) : value;
  if (width > static_cast<long long>(kMaxText)) return false;
  directive.width = static_cast<int>(width);
  return true;
}

// Applies a '*' precision the way printf does, a negative one counting as
// none; false when it is beyond kMaxText.
bool SettlePrecision(int value, Directive& directive) {
  if (value > static_cast<int>(kMaxText)) return false;
  directive.precision = value < 0 ? kAbsent : value;
  return true;
}

// Whether a long double is an encoding arithmetic can produce. x87 spells
// the leading significand bit out, and encodings where it disagrees with the
// exponent (pseudo-denormals, unnormals, pseudo-infinities) are left to the
// call; a damaged capture must not hand them to the C library later.
bool Canonical(const unsigned char* bytes) {
  if (!kX87) return true;
  const bool leading = (bytes[7] & 0x80) != 0;
  const unsigned exponent = (bytes[9] & 0x7Fu) << 8 | bytes[8];
  return leading == (exponent != 0);
}

// The most digits %f can give before the point for value, a carry from
// rounding included; 3 for inf and nan.
std::size_t IntegerDigits(long double value) {
  const long double magnitude = std::fabs(value);
  if (magnitude < 1e18L) return 19;
  if (!std::isfinite(magnitude)) return 3;
  // magnitude < 2^(exponent + 1); 0.30103 is just above log10(2).
  const long exponent = std::ilogb(magnitude);
  return static_cast<std::size_t>(exponent + 1) * 30103 / 100000 + 2;
}

// The most characters a floating conversion of value can give, before any
// width: sign, digits, point, exponent.
std::size_t FloatingBound(const Directive& directive, long double value) {
  const std::size_t digits =
      directive.precision == kAbsent ? 6 : static_cast<std::size_t>(directive.precision);
  switch (directive.conversion) {
    case 'f':
    case 'F':
      return 1 + IntegerDigits(value) + kPointBytes + digits;
    case 'e':
    case 'E':
      return digits + kPointBytes + 12;
    case 'g':
    case 'G':
      return (digits == 0 ? 1 : digits) + kPointBytes + 16;
    // A hexadecimal significand has at most 28 digits after the point.
    default:
      return (directive.precision == kAbsent ? 32 : digits) + kPointBytes + 12;
  }
}

// The most characters an integer conversion can give before any width:
// 22 octal digits of a 64-bit value, and a sign or a "0x".
std::size_t IntegerBound(const Directive& directive) {
  return (directive.precision > 22 ? static_cast<std::size_t>(directive.precision) : 22) + 2;
}

// A capture under way: where the next argument goes, and the longest the
// text read so far can come out.
struct Capturing {
  char* at;               // where the next argument is stored
  char* end;              // the end of the room for the capture
  std::size_t bound = 0;  // the most characters the text read so far can give
  bool nonEmpty = false;  // it gives one character at least
  bool localeChecked = false;

  // Appends n bytes; false, with nothing written, when they do not fit.
  bool Put(const void* bytes, std::size_t n) {
    if (static_cast<std::size_t>(end - at) < n) return false;
    std::memcpy(at, bytes, n);
    at += n;
    return true;
  }

  // Counts a conversion of at most body characters before its width;
  // someBody says it gives one character at least even without a width.
  void Add(const Directive& directive, std::size_t body, bool someBody) {
    const std::size_t width = static_cast<std::size_t>(directive.width);
    bound += width > body ? width : body;
    nonEmpty |= someBody | (width != 0);
  }

  // Counts n characters copied as they are.
  void AddText(std::size_t n) {
    bound += n;
    nonEmpty |= n != 0;
  }
};

// Takes a signed integer argument of the type length names, as an int64_t.
int64_t SignedArgument(va_list* ap, Length length) {
  switch (length) {
    case Length::kLong:
      return va_arg(*ap, long);
    case Length::kLongLong:
      return va_arg(*ap, long long);
    case Length::kMax:
      return va_arg(*ap, intmax_t);
    case Length::kSize:
      return va_arg(*ap, std::make_signed_t<std::size_t>);
    case Length::kPtrdiff:
      return va_arg(*ap, std::ptrdiff_t);
    default:
      return va_arg(*ap, int);  // char and short arrive promoted
  }
}

// Takes an unsigned integer argument of the type length names, as a uint64_t.
uint64_t UnsignedArgument(va_list* ap, Length length) {
  switch (length) {
    case Length::kLong:
      return va_arg(*ap, unsigned long);
    case Length::kLongLong:
      return va_arg(*ap, unsigned long long);
    case Length::kMax:
      return va_arg(*ap, uintmax_t);
    case Length::kSize:
      return va_arg(*ap, std::size_t);
    case Length::kPtrdiff:
      return va_arg(*ap, std::make_unsigned_t<std::ptrdiff_t>);
    default:
      return va_arg(*ap, unsigned);
  }
}

// Stores a %s argument, only the bytes the precision and kMaxText let show;
// false for a null pointer, which the C library prints its own way, and for
// a string that would make the text too long.
bool CaptureString(const Directive& directive, const char* s, Capturing& c) {
  if (s == nullptr) return false;
  const std::size_t limit =
      directive.precision == kAbsent ? kMaxText + 1 : static_cast<std::size_t>(directive.precision);
  const std::size_t length = strnlen(s, limit);
  if (length > kMaxText) return false;
  const uint16_t stored = static_cast<uint16_t>(length);
  if (!c.Put(&stored, sizeof stored) || !c.Put(s, length) || !c.Put("", 1)) return false;
  c.Add(directive, length, length > 0);
  return true;
}

// Stores a long double argument; false for a non-canonical encoding.
bool CaptureLongDouble(const Directive& directive, long double value, Capturing& c) {
  unsigned char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  if (!Canonical(bytes) || !c.Put(bytes, kLongDoubleBytes)) return false;
  c.Add(directive, FloatingBound(directive, value), true);
  return true;
}

// Stores a double argument.
bool CaptureDouble(const Directive& directive, double value, Capturing& c) {
  if (!c.Put(&value, sizeof value)) return false;
  c.Add(directive, FloatingBound(directive, value), true);
  return true;
}

// Whether floating conversions may be formatted later: only in the
// process's global locale, which is the one the writer formats in.
bool FloatingDeferrable(Capturing& c) {
  if (c.localeChecked) return true;
  if (uselocale(static_cast<locale_t>(nullptr)) != LC_GLOBAL_LOCALE) return false;
  c.localeChecked = true;
  return true;
}

// Takes the directive's '*' values and stores them; false when one is out of range
// or there is no room.
bool CaptureStars(Directive& directive, va_list* ap, Capturing& c) {
  if (directive.widthStar) {
    const int width = va_arg(*ap, int);
    if (!SettleWidth(width, directive) || !c.Put(&width, sizeof width)) return false;
  }
  if (directive.precisionStar) {
    const int precision = va_arg(*ap, int);
    if (!SettlePrecision(precision, directive) || !c.Put(&precision, sizeof precision))
      return false;
  }
  return true;
}

// Takes the arguments of one conversion, stores them and counts the text it
// can give; false when the call must be formatted at once.
bool CaptureDirective(Directive& directive, va_list* ap, Capturing& c) {
  if (!CaptureStars(directive, ap, c)) return false;
  switch (directive.kind) {
    case Kind::kSigned:
    case Kind::kUnsigned: {
      const uint64_t bits = directive.kind == Kind::kSigned
                                ? static_cast<uint64_t>(SignedArgument(ap, directive.length))
                                : UnsignedArgument(ap, directive.length);
      if (!c.Put(&bits, sizeof bits)) return false;
      // Only a zero precision lets a zero vanish.
      c.Add(directive, IntegerBound(directive), directive.precision != 0);
      return true;
    }
    case Kind::kChar: {
      const int character = va_arg(*ap, int);
      if (!c.Put(&character, sizeof character)) return false;
      c.Add(directive, 1, true);
      return true;
    }
    case Kind::kString:
      return CaptureString(directive, va_arg(*ap, const char*), c);
    case Kind::kPointer: {
      const uint64_t bits = reinterpret_cast<uintptr_t>(va_arg(*ap, void*));
      if (!c.Put(&bits, sizeof bits)) return false;
      // "(nil)", or a sign, "0x" and the digits.
      c.Add(directive,
            (directive.precision > 16 ? static_cast<std::size_t>(directive.precision) : 16) + 3,
            true);
      return true;
    }
    case Kind::kDouble:
      return FloatingDeferrable(c) && CaptureDouble(directive, va_arg(*ap, double), c);
    case Kind::kLongDouble:
      return FloatingDeferrable(c) && CaptureLongDouble(directive, va_arg(*ap, long double), c);
    default:
      return false;
  }
}

// Walks the format from p while it holds nothing but text, "%%" and %d, %i,
// %u, %o, %x or %X alone, which is what most calls pass, storing their ints
// into c. Returns where it stopped: the format's NUL, or the first other
// directive, for CaptureArguments to go on from. Such an int gives 1 to
// 11 characters. Nothing of the walk's state leaves registers in the loop,
// and as everything it meets gives a character at least, the text is not
// empty when its bound is not 0.
const char* CapturePlain(const char* p, va_list* ap, Capturing& c) {
  char* at = c.at;
  char* const end = c.end;
  std::size_t bound = c.bound;
  for (;;) {
    const char* percent = strchrnul(p, '%');
    bound += static_cast<std::size_t>(percent - p);
    p = percent;
    if (*p == '\0') break;
    const Kind kind = kPlain.kind[static_cast<unsigned char>(p[1])];
    if (kind == Kind::kPercent) {
      ++bound;
      p += 2;
      continue;
    }
    if ((kind != Kind::kSigned && kind != Kind::kUnsigned) || end - at < 8) break;
    const uint64_t bits = kind == Kind::kSigned ? static_cast<uint64_t>(int64_t{va_arg(*ap, int)})
                                                : uint64_t{va_arg(*ap, unsigned)};
    std::memcpy(at, &bits, sizeof bits);
    at += sizeof bits;
    bound += 11;
    p += 2;
  }
  c.at = at;
  c.bound = bound;
  c.nonEmpty |= bound != 0;
  return p;
}

// Walks the format from p, storing the arguments; returns the format's
// terminating NUL, or nullptr when the call must be formatted at once.
const char* CaptureArguments(const char* p, va_list* ap, Capturing& c) {
  for (;;) {
    const char* percent = strchrnul(p, '%');
    c.AddText(static_cast<std::size_t>(percent - p));
    if (*percent == '\0') return percent;
    Directive directive;
    if (!ParseDirective(percent, directive)) return nullptr;
    if (directive.kind == Kind::kPercent) {
      c.AddText(1);
    } else if (!CaptureDirective(directive, ap, c)) {
      return nullptr;
    }
    p = percent + directive.size;
  }
}

// Completes a capture whose arguments are stored: checks the text's bounds,
// appends the format and writes the header. Returns the capture's size, or
// 0 when the text may be empty or too long or the format does not fit.
std::size_t Finish(const char* format, const char* end, char* out, Capturing& c) {
  if (c.bound > kMaxText || !c.nonEmpty) return 0;
  const std::size_t formatLength = static_cast<std::size_t>(end - format);
  const std::size_t argumentBytes = static_cast<std::size_t>(c.at - (out + kHeader));
  if ((formatLength | argumentBytes) > kMaxField) return 0;
  if (!c.Put(format, formatLength + 1)) return 0;
  const uint16_t header[2] = {static_cast<uint16_t>(formatLength),
                              static_cast<uint16_t>(argumentBytes)};
  std::memcpy(out, header, sizeof header);
  return kHeader + argumentBytes + formatLength + 1;
}

// Reads the arguments of a capture from [at, end).
struct Reader {
  const char* at;
  const char* end;

  // Reads n bytes into bytes; false when fewer are left.
  bool Get(void* bytes, std::size_t n) {
    if (static_cast<std::size_t>(end - at) < n) return false;
    std::memcpy(bytes, at, n);
    at += n;
    return true;
  }

  // Reads a stored string; false unless its length, bytes and NUL are all
  // there.
  bool GetString(const char*& s) {
    uint16_t length = 0;
    if (!Get(&length, sizeof length) || length > kMaxText) return false;
    if (static_cast<std::size_t>(end - at) <= length || at[length] != '\0') return false;
    s = at;
    at += length + 1;
    return true;
  }
};

// One conversion as snprintf is to see it: its own directive text and
// the '*' values it takes first.
struct Conversion {
  char format[kMaxDirective + 1];
  int stars[2];
  int starCount = 0;
};

// The text Render builds, kMaxText characters at most.
struct Output {
  char* text;
  std::size_t length;

  // Appends n bytes; false when the text would be too long.
  bool Append(const char* bytes, std::size_t n) {
    if (n > kMaxText - length) return false;
    std::memcpy(text + length, bytes, n);
    length += n;
    return true;
  }

  // Appends what snprintf makes of one conversion of value; false when it
  // fails or the text would be too long.
  template <class T>
  bool Format(const Conversion& c, T value) {
    char* at = text + length;
    const std::size_t room = kMaxText + 1 - length;
    int n = -1;
    switch (c.starCount) {
      case 0:
        n = std::snprintf(at, room, c.format, value);
        break;
      case 1:
        n = std::snprintf(at, room, c.format, c.stars[0], value);
        break;
      default:
        n = std::snprintf(at, room, c.format, c.stars[0], c.stars[1], value);
        break;
    }
    if (n < 0 || static_cast<std::size_t>(n) >= room) return false;
    length += static_cast<std::size_t>(n);
    return true;
  }
};

// Formats a stored signed integer as the type its length modifier names.
bool FormatSigned(const Conversion& c, Length length, int64_t value, Output& out) {
  switch (length) {
    case Length::kLong:
      return out.Format(c, static_cast<long>(value));
    case Length::kLongLong:
      return out.Format(c, static_cast<long long>(value));
    case Length::kMax:
      return out.Format(c, static_cast<intmax_t>(value));
    case Length::kSize:
      return out.Format(c, static_cast<std::make_signed_t<std::size_t>>(value));
    case Length::kPtrdiff:
      return out.Format(c, static_cast<std::ptrdiff_t>(value));
    default:
      return out.Format(c, static_cast<int>(value));
  }
}

// Formats a stored unsigned integer as the type its length modifier names.
bool FormatUnsigned(const Conversion& c, Length length, uint64_t value, Output& out) {
  switch (length) {
    case Length::kLong:
      return out.Format(c, static_cast<unsigned long>(value));
    case Length::kLongLong:
      return out.Format(c, static_cast<unsigned long long>(value));
    case Length::kMax:
      return out.Format(c, static_cast<uintmax_t>(value));
    case Length::kSize:
      return out.Format(c, static_cast<std::size_t>(value));
    case Length::kPtrdiff:
      return out.Format(c, static_cast<std::make_unsigned_t<std::ptrdiff_t>>(value));
    default:
      return out.Format(c, static_cast<unsigned>(value));
  }
}

// Reads the directive's stored '*' values into c, checking them as Capture did.
bool RenderStars(Directive& directive, Reader& in, Conversion& c) {
  if (directive.widthStar) {
    int& width = c.stars[c.starCount++];
    if (!in.Get(&width, sizeof width) || !SettleWidth(width, directive)) return false;
  }
  if (directive.precisionStar) {
    int& precision = c.stars[c.starCount++];
    if (!in.Get(&precision, sizeof precision) || !SettlePrecision(precision, directive))
      return false;
  }
  return true;
}

// Formats the stored value of the long double conversion c.
bool FormatLongDouble(const Conversion& c, Reader& in, Output& out) {
  unsigned char bytes[sizeof(long double)] = {};
  if (!in.Get(bytes, kLongDoubleBytes) || !Canonical(bytes)) return false;
  long double value;
  std::memcpy(&value, bytes, sizeof value);
  return out.Format(c, value);
}

// Formats the stored arguments of the conversion directive, whose text starts at
// text, onto out; false when they are missing or out of range.
bool RenderDirective(const char* text, Directive directive, Reader& in, Output& out) {
  if (directive.kind == Kind::kPercent) return out.Append("%", 1);
  Conversion c;
  std::memcpy(c.format, text, directive.size);
  c.format[directive.size] = '\0';
  if (!RenderStars(directive, in, c)) return false;
  switch (directive.kind) {
    case Kind::kSigned: {
      int64_t value = 0;
      return in.Get(&value, sizeof value) && FormatSigned(c, directive.length, value, out);
    }
    case Kind::kUnsigned: {
      uint64_t value = 0;
      return in.Get(&value, sizeof value) && FormatUnsigned(c, directive.length, value, out);
    }
    case Kind::kChar: {
      int value = 0;
      return in.Get(&value, sizeof value) && out.Format(c, value);
    }
    case Kind::kString: {
      const char* s = nullptr;
      return in.GetString(s) && out.Format(c, s);
    }
    case Kind::kPointer: {
      uint64_t bits = 0;
      return in.Get(&bits, sizeof bits) &&
             out.Format(c, reinterpret_cast<void*>(static_cast<uintptr_t>(bits)));
    }
    case Kind::kDouble: {
      double value = 0;
      return in.Get(&value, sizeof value) && out.Format(c, value);
    }
    case Kind::kLongDouble:
      return FormatLongDouble(c, in, out);
    default:
      return false;
  }
}

// Walks a stored format, copying its text and formatting its conversions;
// returns the NUL it ends at, or nullptr for anything Capture cannot have
// written.
const char* RenderArguments(const char* format, Reader& in, Output& out) {
  for (const char* p = format;;) {
    const char* percent = strchrnul(p, '%');
    if (!out.Append(p, static_cast<std::size_t>(percent - p))) return nullptr;
    if (*percent == '\0') return percent;
    Directive directive;
    if (!ParseDirective(percent, directive) || !RenderDirective(percent, directive, in, out))
      return nullptr;
    p = percent + directive.size;
  }
}

}  // namespace

std::size_t Capture(const char* format, va_list args, char* out, std::size_t capacity) {
  if (format == nullptr || capacity < kHeader + 1) return 0;
  va_list ap;
  va_copy(ap, args);
  Capturing c{out + kHeader, out + capacity};
  const char* end = CapturePlain(format, &ap, c);
  if (*end != '\0') end = CaptureArguments(end, &ap, c);
  va_end(ap);
  return end == nullptr ? 0 : Finish(format, end, out, c);
}

std::size_t Render(const char* captured, std::size_t size, char* out) {
  if (out == nullptr) return 0;
  out[0] = '\0';
  // The format's NUL ends the capture, so no walk of the format can leave it.
  if (captured == nullptr || size < kHeader + 1 || captured[size - 1] != '\0') return 0;
  uint16_t header[2];
  std::memcpy(header, captured, sizeof header);
  const std::size_t formatLength = header[0], argumentBytes = header[1];
  if (kHeader + argumentBytes + formatLength + 1 != size) return 0;
  Reader in{captured + kHeader, captured + kHeader + argumentBytes};
  const char* format = in.end;
  Output text{out, 0};
  const char* end = RenderArguments(format, in, text);
  if (end != format + formatLength || in.at != in.end || text.length == 0) {
    out[0] = '\0';
    return 0;
  }
  out[text.length] = '\0';
  return text.length;
}

}  // namespace deferred
