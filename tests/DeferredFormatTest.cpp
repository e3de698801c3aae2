// Deferred formatting: the writer's text against vsnprintf's at the call, the
// calls left to format at once, and captures damaged as a crash leaves them.
#include <gtest/gtest.h>

#include <locale.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "logwriter/DeferredFormat.h"

namespace {

std::size_t CaptureInto(char* out, std::size_t capacity, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::size_t size = deferred::Capture(format, args, out, capacity);
  va_end(args);
  return size;
}

// Whether Capture leaves the call to be formatted at once. The arguments
// never reach vsnprintf, so %n is safe here.
bool Refused(const char* format, ...) {
  char capture[8192];
  va_list args;
  va_start(args, format);
  const std::size_t size = deferred::Capture(format, args, capture, sizeof capture);
  va_end(args);
  return size == 0;
}

// Expects the call captured, and rendered to exactly vsnprintf's bytes.
void ExpectSame(const char* format, ...) {
  char capture[8192], printed[8192], text[deferred::kMaxText + 1];
  va_list forCapture, forPrintf;
  va_start(forCapture, format);
  va_copy(forPrintf, forCapture);
  const std::size_t size = deferred::Capture(format, forCapture, capture, sizeof capture);
  const int n = std::vsnprintf(printed, sizeof printed, format, forPrintf);
  va_end(forPrintf);
  va_end(forCapture);
  ASSERT_NE(size, 0u) << format;
  const std::size_t length = deferred::Render(capture, size, text);
  EXPECT_EQ(std::string(text, length), std::string(printed, static_cast<std::size_t>(n))) << format;
  EXPECT_EQ(text[length], '\0') << format;
}

// Renders bytes from a block of exactly their size, so that the sanitizer
// builds catch a read past them.
std::size_t RenderExact(const std::vector<char>& bytes, std::size_t size, char* text) {
  const std::vector<char> exact(bytes.begin(), bytes.begin() + static_cast<long>(size));
  return deferred::Render(exact.data(), exact.size(), text);
}

}  // namespace

TEST(DeferredFormat, RendersTheBytesVsnprintfMakes) {
  int local = 0;
  const std::string s2047(2047, 'w');
  const char unterminated[5] = {'a', 'b', 'c', 'd', 'e'};
  ExpectSame("Backup storage speeds (min): %d MB/s", 120);
  ExpectSame("%+08d|% d|%-6d|%05.3d|%x", -42, -7, -1, -5, -1);
  ExpectSame("%#o|%#x|%#X|%#.0o", 0, 0, 255, 0);
  ExpectSame("[%.0d]", 0);
  ExpectSame("%+.3e|%G|%#.0f|%g|%a", 12345.678, 1e-10, 2.5, 100000.0, 1.0 / 3);
  ExpectSame("%Lf|%.30Le|%LA", 1e300L, LDBL_MAX, LDBL_MIN);
  ExpectSame("%-*.*s|%*d|%.*f", 10, 3, "abcdef", -5, 3, -1, 3.14159);
  ExpectSame("%hhd %hhu %hd", 300, 300, 70000);
  ExpectSame("%zu %zd %jd %td %lu %llx %qd", SIZE_MAX, static_cast<std::ptrdiff_t>(-3), INTMAX_MIN,
             PTRDIFF_MIN, ULONG_MAX, ULLONG_MAX, LLONG_MIN);
  ExpectSame("%p %p %-20p|", static_cast<void*>(nullptr), static_cast<void*>(&local),
             static_cast<void*>(&local));
  ExpectSame("100%% sure, %d%%", INT_MIN);
  ExpectSame("%f %e %g %a %F %E", HUGE_VAL, -HUGE_VAL, NAN, -NAN, HUGE_VAL, NAN);
  ExpectSame("%Lf %Lg", HUGE_VALL, -static_cast<long double>(NAN));
  ExpectSame("%c", 0);  // a NUL inside the text
  ExpectSame("%1s", "");
  ExpectSame("%.5s|%.3s", unterminated, unterminated);
  ExpectSame("%s", s2047.c_str());
  ExpectSame("%2047d", 1);
  ExpectSame("%2040.2020f", -0.5);
}

TEST(DeferredFormat, RefusesWhatOnlyTheCallCanFormat) {
  int written = 7;
  const std::string s2048(2048, 'l');
  EXPECT_TRUE(Refused("%d%n", 1, &written));
  EXPECT_EQ(written, 7);
  for (const char* format :
       {"%1$d", "%*1$d", "%ls",  "%lc",  "%S",     "%C",      "%m",      "%'d",
        "%Id",  "%y",    "%",    "abc%", "%5%",    "%Ld",     "%llf",    "%hf",
        "%hs",  "%lp",   "%.0d", "%.d",  "%2048d", "x%2047d", "%.2048d", "%99999999999d"}) {
    EXPECT_TRUE(Refused(format, 0, 0)) << format;
  }
  EXPECT_TRUE(Refused(""));
  EXPECT_TRUE(Refused("%s", ""));
  EXPECT_TRUE(Refused("%s", static_cast<const char*>(nullptr)));
  EXPECT_TRUE(Refused("%s", s2048.c_str()));
  EXPECT_TRUE(Refused("x%s", s2048.c_str() + 1));
  EXPECT_TRUE(Refused("%*d", INT_MIN, 1));
  EXPECT_TRUE(Refused("%.*d", INT_MAX, 1));
  EXPECT_TRUE(Refused("%Lf", 1e4000L));
  EXPECT_TRUE(
      Refused("%f%f%f%f%f%f%f", DBL_MAX, DBL_MAX, DBL_MAX, DBL_MAX, DBL_MAX, DBL_MAX, DBL_MAX));

  // A capture that does not fit is refused without a byte past its room.
  char out[64];
  std::memset(out, 'Z', sizeof out);
  EXPECT_EQ(CaptureInto(out, 20, "%s and %d", "thirty characters of text here", 5), 0u);
  EXPECT_EQ(std::string(out + 20, sizeof out - 20), std::string(sizeof out - 20, 'Z'));

  // A thread with a locale of its own formats its floating conversions itself.
  locale_t own = newlocale(LC_ALL_MASK, "C", nullptr);
  ASSERT_NE(own, nullptr);
  const locale_t before = uselocale(own);
  EXPECT_TRUE(Refused("%f", 1.5));
  EXPECT_FALSE(Refused("%d %s", 1, "x"));
  uselocale(before);
  freelocale(own);
  EXPECT_FALSE(Refused("%f", 1.5));
}

TEST(DeferredFormat, RenderRefusesDamagedCaptures) {
  std::vector<char> capture(4096);
  const std::size_t size =
      CaptureInto(capture.data(), capture.size(), "a%d %-*.*f|%Lg %s %p %c%%", -12, 9, 2, 3.25,
                  1e-7L, "str", static_cast<void*>(nullptr), 'q');
  ASSERT_NE(size, 0u);
  char text[deferred::kMaxText + 1];
  ASSERT_EQ(RenderExact(capture, size, text), std::strlen("a-12 3.25     |1e-07 str (nil) q%"));
  EXPECT_STREQ(text, "a-12 3.25     |1e-07 str (nil) q%");

  for (std::size_t cut = 0; cut < size; ++cut) {
    EXPECT_EQ(RenderExact(capture, cut, text), 0u) << cut;
    EXPECT_EQ(text[0], '\0');
  }
  std::vector<char> longer(capture.begin(), capture.begin() + static_cast<long>(size) + 1);
  EXPECT_EQ(RenderExact(longer, longer.size(), text), 0u);

  // Any byte changed to anything: a text within bounds or a refusal.
  for (std::size_t at = 0; at < size; ++at) {
    for (int value : {0, 1, int('%'), int('*'), int('n'), int('s'), 0x7F, 0xFF}) {
      std::vector<char> changed(capture.begin(), capture.begin() + static_cast<long>(size));
      changed[at] = static_cast<char>(value);
      const std::size_t n = RenderExact(changed, size, text);
      EXPECT_LE(n, deferred::kMaxText);
      EXPECT_EQ(text[n], '\0');
    }
  }

  // A stored format turned into one that writes through its argument is
  // never executed.
  std::vector<char> withN(capture.begin(), capture.begin() + static_cast<long>(size));
  char* const format = withN.data() + size - 1 - std::strlen("a%d %-*.*f|%Lg %s %p %c%%");
  ASSERT_EQ(std::string(format, 3), "a%d");
  format[2] = 'n';
  EXPECT_EQ(RenderExact(withN, size, text), 0u);
}
