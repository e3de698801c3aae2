// ConfigReader.h - internal side of the key=value configuration reader.
//
// Lines, keys and values live in fixed buffers (2048, 256 and 1792 bytes) and
// are cut, not grown: the cut lengths are part of how a file is read.
#ifndef TOVI_BASEUTIL_CONFIGREADER_H
#define TOVI_BASEUTIL_CONFIGREADER_H

#include <cstddef>
#include <fstream>
#include <map>
#include <string>

namespace toviconfig {
constexpr std::size_t kLineBufSize = 2048;
constexpr std::size_t kKeyBufSize = 256;
constexpr std::size_t kValueBufSize = 1792;
}  // namespace toviconfig

// Returns text without the leading and trailing characters of set.
std::string TrimString(const std::string& text, const char* set);

// Splits line (changed in place) at its first "=" into a trimmed key of at
// most 255 characters and a trimmed value of at most 1791. 1: split; -1: no
// item.
int SplitCfgLine(char* key, char* value, char* line);

// Reads one line of the stream. 1: key and value hold an item; 2: the line
// was a comment, held no "=", or could not be read.
int ReadCfgLine(char* key, char* value, std::ifstream& stream);

// Adds every item of file to items (later lines win). With a non-empty
// keyPart only keys that hold it are taken, cut in front of it. False only
// when the file cannot be opened; an empty file name reads nothing.
bool LoadCfgFileToMap(std::map<std::string, std::string>& items, const std::string& file,
                      const std::string& keyPart);

#endif
