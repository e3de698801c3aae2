// DeferredFormatFuzz.cpp - deferred formatting against vsnprintf, byte for byte.
// The input is read as a recipe for a format and up to four arguments of the
// types its conversions take. Every call that Capture accepts must render to
// exactly what vsnprintf makes of the same call, 1 to kMaxText characters.
// Some inputs are handed to Render as they are, and accepted captures are
// cut short or have a byte changed, as a file a dead process left may have
// them: Render must then refuse or render something, never read outside.
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "logwriter/DeferredFormat.h"

// A broken expectation ends the run as a crash, so that libFuzzer keeps the
// input that caused it.
#define FUZZ_CHECK(cond)                                                                          \
  ((cond) ? void()                                                                                \
          : (std::fprintf(stderr, "line %d: check failed: %s\nformat: \"%s\"\n", __LINE__, #cond, \
                          g_format),                                                              \
             std::abort()))

namespace {

const char* g_format = "";  // the format under test, for the report of a failure

constexpr std::size_t kMaxArgs = 4;

// Reads the input a byte at a time, zeros once it is used up. The bytes are
// scrambled, so that the 0x00 and 0xff runs mutations like to make do not
// all pick the rare choices, which are made by the high values.
struct Source {
  const uint8_t* at;
  std::size_t left;

  uint8_t Byte() {
    if (left == 0) return 0;
    --left;
    return static_cast<uint8_t>(*at++ * 167 + 13);
  }
  template <class T>
  T Raw() {
    unsigned char bytes[sizeof(T)] = {};
    for (unsigned char& b : bytes) b = Byte();
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
  }
};

enum class Type { kInt, kLongLong, kDouble, kLongDouble, kString, kPointer };

struct Arg {
  Type type = Type::kInt;
  int i = 0;
  long long ll = 0;
  double d = 0;
  long double ld = 0;
  const char* s = nullptr;
  void* p = nullptr;
};

struct Plan {
  std::string format;
  Arg args[kMaxArgs];
  std::string strings[kMaxArgs];
  std::size_t count = 0;
  // Whether vsnprintf may run the call: every argument has the type the C
  // library reads for it. What is not executable must also be refused.
  bool executable = true;
  std::size_t capacity = 8192;
  bool damage = false;
  uint8_t cut = 0, flip = 0, flipTo = 0;
};

// Characters that can follow a '%' without continuing a directive:
// neither flags, digits, length modifiers nor conversions.
const char kStoppers[] = "!\"&(),/:;<=>?@[\\]^_`{|}~krvwyDHKNOPQRTUVWY";

// How many calls Capture took, told at exit: a recipe that makes mostly
// refused calls would leave the comparison with vsnprintf mostly untried.
struct Counts {
  unsigned long long formats = 0, captured = 0, raw = 0;
  ~Counts() {
    if (formats == 0) return;
    std::fprintf(stderr, "deferred_format: %llu formats, %llu captured (%.1f%%), %llu raw\n",
                 formats, captured,
                 100.0 * static_cast<double>(captured) / static_cast<double>(formats), raw);
  }
};
Counts g_counts;

void AddInt(Plan& plan, int value) {
  Arg& a = plan.args[plan.count++];
  a.type = Type::kInt;
  a.i = value;
}

int StarValue(Source& in) {
  const uint8_t b = in.Byte();
  switch (b % 32) {
    case 20:
      return 1990 + in.Byte() % 80;
    case 21:
      return -(1990 + in.Byte() % 80);
    case 22:
      return b & 32 ? INT_MIN : INT_MAX;
    case 23:
      return in.Raw<int>();
    default:
      return static_cast<int>(in.Byte() % 48) - 12;
  }
}

int IntValue(Source& in) {
  static const int kEdges[] = {0, -1, 1, INT_MIN, INT_MAX, 300, 255, -128, 65536};
  const uint8_t b = in.Byte();
  if (b < 64) return kEdges[b % (sizeof kEdges / sizeof *kEdges)];
  return in.Raw<int>();
}

long long LongLongValue(Source& in) {
  static const long long kEdges[] = {0, -1, LLONG_MIN, LLONG_MAX, 4294967296LL};
  const uint8_t b = in.Byte();
  if (b < 64) return kEdges[b % (sizeof kEdges / sizeof *kEdges)];
  return in.Raw<long long>();
}

double DoubleValue(Source& in) {
  static const double kEdges[] = {0.0,       -0.0,      1e308,      -1e-308,        4.9e-324,
                                  0.5,       9.9999995, 1e15 + 0.5, 999999.9999996, HUGE_VAL,
                                  -HUGE_VAL, NAN,       -NAN,       DBL_MAX};
  const uint8_t b = in.Byte();
  if (b < 96) return kEdges[b % (sizeof kEdges / sizeof *kEdges)];
  return in.Raw<double>();
}

long double LongDoubleValue(Source& in) {
  static const long double kEdges[] = {0.0L,  -0.0L,     1e4000L,        -LDBL_MAX, LDBL_MIN,
                                       0.25L, 1e18L - 1, 9.99999999999L, HUGE_VALL, NAN};
  const uint8_t b = in.Byte();
  if (b < 96) return kEdges[b % (sizeof kEdges / sizeof *kEdges)];
  // Any 80 bits, the encodings arithmetic never makes included.
  unsigned char bytes[sizeof(long double)] = {};
  for (std::size_t k = 0; k < 10 && k < sizeof bytes; ++k) bytes[k] = in.Byte();
  long double value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// A string from the input: empty, short, or a piece repeated to about the
// longest a message may be.
const char* StringValue(Source& in, std::string& storage) {
  const uint8_t b = in.Byte();
  if (b >= 252) return nullptr;
  if (b >= 220) return "";
  std::string piece;
  for (std::size_t n = 1 + in.Byte() % 12; n > 0; --n) {
    const char c = static_cast<char>(in.Byte());
    piece += c == '\0' ? 'z' : c;
  }
  storage = piece;
  if (b >= 200) {
    const std::size_t target = 1990 + in.Byte() % 80;
    while (storage.size() < target) storage += piece;
    storage.resize(target);
  }
  return storage.c_str();
}

void AddNumber(std::string& format, Source& in) {
  const uint8_t b = in.Byte();
  if (b < 224) {
    format += std::to_string(b % 40);
  } else if (b < 252) {
    format += std::to_string(1990 + in.Byte() % 80);
  } else {
    format += "99999999999";
  }
}

// Appends a width or precision: none, digits or '*', whose int comes first.
void AddField(Plan& plan, Source& in, bool precision, std::size_t& stars) {
  const uint8_t b = in.Byte();
  if (b % 8 < 4) return;
  if (precision) plan.format += '.';
  if (b % 8 == 7 && precision) return;  // "." alone is a precision of 0
  if (b % 8 == 6) {
    plan.format += '*';
    ++stars;
    return;
  }
  AddNumber(plan.format, in);
}

// The type vsnprintf takes for conversion with length modifier length, and
// whether the harness may run it at all.
bool ArgumentType(char conversion, const std::string& length, Type& type) {
  const bool none = length.empty();
  switch (conversion) {
    case 'd':
    case 'i':
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      type = none || length == "h" || length == "hh" ? Type::kInt : Type::kLongLong;
      return true;
    case 'c':
      type = Type::kInt;
      return none || length == "l";
    case 's':
      type = Type::kString;
      return none;
    case 'p':
      type = Type::kPointer;
      return none;
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      if (none || length == "l") {
        type = Type::kDouble;
        return true;
      }
      type = Type::kLongDouble;
      return length == "L" || length == "ll" || length == "q";
    default:
      return false;
  }
}

std::string LengthFor(char conversion, Source& in) {
  static const char* const kLengths[] = {"hh", "h", "l", "ll", "j", "z", "t", "q", "L"};
  const uint8_t b = in.Byte();
  if (b < 128) return "";
  const bool floating = std::strchr("fFeEgGaA", conversion) != nullptr;
  const bool integer = std::strchr("diouxX", conversion) != nullptr;
  if (floating && b < 240) return b & 1 ? "L" : "l";
  if (!floating && !integer && b < 248) return "";
  return kLengths[b % 9];
}

// Appends one conversion and its arguments; false when the arguments would
// be too many.
bool AddConversion(Plan& plan, Source& in) {
  static const char kCommon[] = "dddiuuoxXcsssspfffeEgGaAFdsf";
  const uint8_t kind = in.Byte();
  const std::size_t at = plan.format.size();
  plan.format += '%';
  if (kind >= 250) {
    // Kinds the call must format itself, however they are spelt.
    switch (kind % 6) {
      case 0:
        plan.format += std::to_string(1 + kind % 3) + "$";
        break;
      case 1:
        plan.format += "'";
        break;
      case 2:
        plan.format += "I";
        break;
      default:
        break;
    }
  }
  // Mostly the flags that are deferred, now and then the locale's ones.
  for (std::size_t n = in.Byte() % 4; n > 0; --n) {
    const uint8_t f = in.Byte();
    plan.format += f < 252 ? "-+ #0"[f % 5] : "'I"[f % 2];
  }
  std::size_t stars = 0;
  AddField(plan, in, false, stars);
  AddField(plan, in, true, stars);
  char conversion = kCommon[in.Byte() % (sizeof kCommon - 1)];
  if (kind >= 244 && kind < 250) conversion = "nmSC%nmls"[kind % 9];
  if (kind >= 240 && kind < 244) conversion = kStoppers[in.Byte() % (sizeof kStoppers - 1)];
  std::string length = conversion == 'l' ? "" : LengthFor(conversion, in);
  if (conversion == 'l') {
    length = "l";
    conversion = 's';
  }
  plan.format += length;
  plan.format += conversion;
  Type type = Type::kInt;
  const bool takes = ArgumentType(conversion, length, type);
  if (plan.count + stars + (takes ? 1 : 0) > kMaxArgs) {
    plan.format.resize(at);
    return false;
  }
  // Only a bare "%%" takes nothing and is still printed the same way.
  const bool percent = plan.format.compare(at, std::string::npos, "%%") == 0;
  if ((!takes && !percent) || plan.format.find('$', at) != std::string::npos) {
    plan.executable = false;
  }
  for (; stars > 0; --stars) AddInt(plan, StarValue(in));
  if (!takes) return true;
  Arg& a = plan.args[plan.count];
  a.type = type;
  switch (type) {
    case Type::kInt:
      a.i = IntValue(in);
      break;
    case Type::kLongLong:
      a.ll = LongLongValue(in);
      break;
    case Type::kDouble:
      a.d = DoubleValue(in);
      break;
    case Type::kLongDouble:
      a.ld = LongDoubleValue(in);
      break;
    case Type::kString:
      a.s = StringValue(in, plan.strings[plan.count]);
      break;
    case Type::kPointer:
      a.p = in.Byte() < 32 ? nullptr : reinterpret_cast<void*>(in.Raw<uintptr_t>());
      break;
  }
  ++plan.count;
  return true;
}

// Appends literal text, or a '%' that is not a conversion of its own.
// Returns false when nothing may follow.
bool AddLiteral(Plan& plan, Source& in, uint8_t b) {
  if (b % 8 == 2) {
    switch (in.Byte() % 4) {
      case 3:
        plan.executable = false;
        plan.format += '%';
        return false;  // trailing
      case 1:
        plan.executable = false;
        plan.format += '%';
        plan.format += kStoppers[in.Byte() % (sizeof kStoppers - 1)];
        return true;
      default:
        plan.format += "%%";
        return true;
    }
  }
  for (std::size_t n = 1 + in.Byte() % 12; n > 0; --n) {
    const char c = static_cast<char>(in.Byte());
    if (c == '\0') {
      plan.format += ' ';
    } else if (c == '%') {
      plan.format += "%%";
    } else {
      plan.format += c;
    }
  }
  return true;
}

void BuildPlan(Plan& plan, Source& in) {
  for (int pieces = 0; pieces < 8 && in.left > 0; ++pieces) {
    const uint8_t b = in.Byte();
    if (b % 8 < 3) {
      if (!AddLiteral(plan, in, b)) return;
    } else if (!AddConversion(plan, in)) {
      return;
    }
  }
}

// Renders bytes held in a block of exactly their size, so that any read
// outside them is an overflow the sanitizer reports.
std::size_t RenderExact(const char* bytes, std::size_t size, char* text) {
  std::vector<char> exact(bytes, bytes + size);
  const std::size_t n = deferred::Render(exact.data(), exact.size(), text);
  FUZZ_CHECK(n <= deferred::kMaxText && text[n] == '\0');
  return n;
}

// A capture as a crash may leave it: cut short, or with a byte changed.
void Damage(const Plan& plan, const std::vector<char>& capture, std::size_t size) {
  char text[deferred::kMaxText + 1];
  FUZZ_CHECK(RenderExact(capture.data(), plan.cut % size, text) == 0);
  std::vector<char> changed(capture.begin(), capture.begin() + static_cast<long>(size));
  changed[plan.flip % size] = static_cast<char>(plan.flipTo);
  RenderExact(changed.data(), size, text);
}

// Captures the call and, when Capture accepts it, formats it with vsnprintf
// too. A refused call is not formatted: what it prints is of no interest,
// and a width of INT_MAX would keep vsnprintf busy for seconds.
void Check(const Plan* plan, const char* format, ...) {
  va_list forCapture, forPrintf;
  va_start(forCapture, format);
  va_copy(forPrintf, forCapture);
  std::vector<char> capture(plan->capacity);
  g_format = format;
  const std::size_t size = deferred::Capture(format, forCapture, capture.data(), capture.size());
  va_end(forCapture);
  ++g_counts.formats;
  FUZZ_CHECK(size <= capture.size());
  if (size != 0) {
    ++g_counts.captured;
    FUZZ_CHECK(plan->executable);  // %n, %m, wide strings and the like are refused
    char expected[8192];
    const int n = std::vsnprintf(expected, sizeof expected, format, forPrintf);
    FUZZ_CHECK(n >= 1 && n <= static_cast<int>(deferred::kMaxText));
    char text[deferred::kMaxText + 1];
    FUZZ_CHECK(RenderExact(capture.data(), size, text) == static_cast<std::size_t>(n));
    FUZZ_CHECK(std::memcmp(text, expected, static_cast<std::size_t>(n)) == 0);
    if (plan->damage) Damage(*plan, capture, size);
  }
  va_end(forPrintf);
}

// Passes the plan's arguments with their own C types, one more per step.
template <class... Ts>
void Call(const Plan& plan, std::size_t i, Ts... args) {
  if constexpr (sizeof...(Ts) < kMaxArgs) {
    if (i < plan.count) {
      const Arg& a = plan.args[i];
      switch (a.type) {
        case Type::kInt:
          return Call(plan, i + 1, args..., a.i);
        case Type::kLongLong:
          return Call(plan, i + 1, args..., a.ll);
        case Type::kDouble:
          return Call(plan, i + 1, args..., a.d);
        case Type::kLongDouble:
          return Call(plan, i + 1, args..., a.ld);
        case Type::kString:
          return Call(plan, i + 1, args..., a.s);
        case Type::kPointer:
          return Call(plan, i + 1, args..., a.p);
      }
    }
  }
  Check(&plan, plan.format.c_str(), args...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Source in{data, size};
  const uint8_t mode = in.Byte();
  if (mode % 16 == 15) {
    ++g_counts.raw;
    char text[deferred::kMaxText + 1];
    RenderExact(reinterpret_cast<const char*>(in.at), in.left, text);
    return 0;
  }
  Plan plan;
  if ((mode & 0x71) == 0x70) plan.capacity = in.Byte() % 64;
  plan.damage = (mode & 0x80) != 0;
  if (plan.damage) {
    plan.cut = in.Byte();
    plan.flip = in.Byte();
    plan.flipTo = in.Byte();
  }
  BuildPlan(plan, in);
  Call(plan, 0);
  return 0;
}
