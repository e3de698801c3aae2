// Warn.h - one line on standard error per problem, naming the file.
#ifndef TOVI_TOOLS_TOVILOG_WARN_H
#define TOVI_TOOLS_TOVILOG_WARN_H

#include <string>

namespace tovilog {

// "tovilog: <path>: <what>"; the path is left out when empty.
void Warn(const std::string& path, const std::string& what);

// The text of an errno value.
std::string ErrorText(int error);

}  // namespace tovilog

#endif
