// ToviBaseUtil.h - the shared free functions every process of the product uses:
// key=value configuration lookups, installation paths, directory creation,
// the application exit flag, the library's own console/log output, the UTF-8
// byte-order mark, message type names and command code lists.
#ifndef TOVI_BASEUTIL_H
#define TOVI_BASEUTIL_H

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

#include "ToviExport.h"

// A count with a caller-owned array of command codes. GetCmdCodefromString
// allocates pCmdCode with new[]; the caller releases it with delete[].
struct TOVI_EXPORT CmdCodeVecter {
  int32_t nCmdNum;
  int32_t* pCmdCode;
};

// Configuration files.
TOVI_EXPORT void ToviStrTrim(char* text);
TOVI_EXPORT bool ToviGetCfgString(const char* key, char* value, int& len, const char* file);
TOVI_EXPORT bool ToviGetCfgInt(const char* key, int& value, const char* file);

// Installation root and the directories below it; each call reads TOVI_ROOT anew.
TOVI_EXPORT std::string ToviGetRootPath();
TOVI_EXPORT std::string ToviGetDefaultLogPath();
TOVI_EXPORT std::string ToviGetDefaultTempPath();
TOVI_EXPORT std::string ToviGetDefaultCfgPath();
TOVI_EXPORT std::string ToviGetDefaultDebugCfgFile();
TOVI_EXPORT std::string ToviGetDefaultCfgFile();
TOVI_EXPORT std::string ToviGetDefaultSslPath();
TOVI_EXPORT int ToviMakeDirEx(const char* path);

// Process flags and the library's own output.
TOVI_EXPORT bool ToviAppIsExit();
TOVI_EXPORT void SetToviAppExit(bool exit);
TOVI_EXPORT void ToviOutputFrmtString(const char* format, ...) TOVI_PRINTF_LIKE(1, 2);
TOVI_EXPORT void ToviOutputString_i(const char* text);
TOVI_EXPORT bool TOVIIsGlobalVersion();
TOVI_EXPORT void TOVIInsertBOM(std::ofstream& file);
TOVI_EXPORT void TOVIInsertBOM(FILE* file);

// Message type names and command codes.
TOVI_EXPORT const char* ToviGetMsgTypeString(unsigned char type);
TOVI_EXPORT int GetCmdCodefromString(CmdCodeVecter& codes, char* text);

#endif
