// CommandCodesFuzz.cpp - the command code parser on any text. Code lists come
// from other processes' messages and configuration, so besides memory errors
// it checks what callers rely on: a refused text leaves the result alone, an
// accepted one yields one code per piece, each of nine digits at most, and
// the text itself is never changed.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ToviBaseUtil.h"
#include "FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exactly sized copy, so that a read past the terminator is caught.
  std::vector<char> text(data, data + size);
  text.push_back('\0');
  const std::vector<char> before = text;
  const std::size_t length = std::strlen(text.data());

  int32_t sentinel = 42;
  CmdCodeVecter codes{-7, &sentinel};
  const int accepted = GetCmdCodefromString(codes, text.data());
  FUZZ_CHECK(text == before);
  if (accepted != 1) {
    FUZZ_CHECK(codes.nCmdNum == -7 && codes.pCmdCode == &sentinel && sentinel == 42);
    return 0;
  }

  const auto commas = std::count(text.data(), text.data() + length, ',');
  FUZZ_CHECK(length > 0);
  FUZZ_CHECK(codes.nCmdNum == commas + (text[length - 1] != ',' ? 1 : 0));
  for (int32_t i = 0; i < codes.nCmdNum; ++i) {
    FUZZ_CHECK(codes.pCmdCode[i] >= 0 && codes.pCmdCode[i] <= 999999999);
  }
  delete[] codes.pCmdCode;
  return 0;
}
