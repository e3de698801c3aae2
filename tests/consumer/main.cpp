// Builds against the installed headers and library only, and reads back a
// value through the exported configuration lookup.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "ToviBaseUtil.h"
#include "ToviDebugEngine.h"
#include "ToviDebugMgr.h"
#include "ToviInterString.h"

int main(int argc, char** argv) {
  if (argc != 2) return std::fprintf(stderr, "usage: consumer <scratch file>\n"), 2;
  std::ofstream(argv[1]) << "# installed package check\n  greeting = hello from tovibaseutil \n";
  char value[64];
  int len = sizeof value;
  if (!ToviGetCfgString("greeting", value, len, argv[1]) ||
      std::strcmp(value, "hello from tovibaseutil") != 0 || len != 23) {
    return std::fprintf(stderr, "lookup through the installed library failed\n"), 1;
  }
  const ToviInterString name(std::string("consumer"));
  std::printf("%s: %s (log path %s)\n", name.str().c_str(), value, ToviGetDefaultLogPath().c_str());
  return 0;
}
