// ToviLogLevel.h - the level and the outputs of a message.
//
// Kept apart from the manager's header so that the writer, which is below
// the manager, can speak of levels without knowing of the manager.
#ifndef TOVI_LOGLEVEL_H
#define TOVI_LOGLEVEL_H

#include <bitset>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

// The level of a message, and the number of its bit in a level mask. Levels 4
// to 31 are accepted and carry no name; the fixed underlying type keeps every
// one of them a valid value.
enum ToviLogLevel : int32_t {
  LEVEL_ASSERT = 0,
  LEVEL_ERROR = 1,
  LEVEL_WARN = 2,
  LEVEL_INFO = 3
};

// One output of a message, and the number of its bit in an output mask.
enum ToviOutputDirection : int32_t {
  OUTPUT_CONSOLE = 0,
  OUTPUT_FILE = 1
};

// Sub-module name -> (level mask, output mask).
typedef std::map<std::string, std::pair<std::bitset<32>, std::bitset<32>>> ToviModuleMasks;

#endif
