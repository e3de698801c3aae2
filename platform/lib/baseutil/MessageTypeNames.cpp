// MessageTypeNames.cpp - printable names of the product's one-byte message
// type codes, for logs and consoles.
//
// Codes without a name map to "" rather than null, so a caller can print the
// result without checking it. Codes 11 to 15 have no names; their empty
// entries keep every later code at its own index.
#include "ToviBaseUtil.h"

namespace {
const char* const kMsgTypeNames[] = {
    "",                    // 0
    "REQUESTBC",           // 1
    "RESPONSEBC",          // 2
    "REGISTER",            // 3
    "RESTART",             // 4
    "ANSFRAME",            // 5
    "REQUESTNBC",          // 6
    "RESPONSENBC",         // 7
    "TIMER",               // 8
    "EXIT",                // 9
    "SVCTYPEINFO_REQ_V3",  // 10
    "",                    // 11
    "",                    // 12
    "",                    // 13
    "",                    // 14
    "",                    // 15
    "SHAKEHAND",           // 16
    "RECONNECT",           // 17
    "GET_COUNTER_REQ",     // 18
    "GET_COUNTER_RSP",     // 19
    "INQUIRE",             // 20
    "GET_SVR_STATE",       // 21
    "GET_TASKMGR_STATE",   // 22
    "CORE_DUMP_CMD",       // 23
    "MULTCMD_REG",         // 24
    "HEARTBEAT_REQ",       // 25
    "HEARTBEAT_RSP",       // 26
    "DISPFAIL_RSP",        // 27
    "SVCTYPEINFO_REQ",     // 28
    "QUERY_REQ",           // 29
    "QUERY_RSP",           // 30
};
constexpr unsigned kMsgTypeCount = sizeof(kMsgTypeNames) / sizeof(kMsgTypeNames[0]);
static_assert(kMsgTypeCount == 31, "message type codes run from 0 to 30");

// The spelling is what existing log readers match on; do not correct it.
const char kUnknownMsgType[] = "unknow";
}  // namespace

const char* ToviGetMsgTypeString(unsigned char type) {
  if (type >= kMsgTypeCount) return kUnknownMsgType;
  return kMsgTypeNames[type];
}
