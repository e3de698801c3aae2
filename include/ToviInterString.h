// ToviInterString.h - carries a sub-module name into ToviDebugMgr::Printf.
//
// A distinct type keeps the sub-module overload of Printf from being confused
// with a format string.
#ifndef TOVI_INTERSTRING_H
#define TOVI_INTERSTRING_H

#include <string>

#include "ToviExport.h"

class TOVI_EXPORT ToviInterString {
public:
  ToviInterString(std::string text);
  ToviInterString(const ToviInterString& other);
  ToviInterString& operator=(const ToviInterString& other);
  ~ToviInterString();

  const std::string& str() const { return m_strText; }

private:
  std::string m_strText;
};

#endif
