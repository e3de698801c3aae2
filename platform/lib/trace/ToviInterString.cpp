// ToviInterString.cpp - members of the sub-module name wrapper, kept out of
// line so that the class's layout stays the library's business.
#include "ToviInterString.h"

#include <utility>

ToviInterString::ToviInterString(std::string text) : m_strText(std::move(text)) {}

ToviInterString::ToviInterString(const ToviInterString& other) : m_strText(other.m_strText) {}

ToviInterString& ToviInterString::operator=(const ToviInterString& other) {
  m_strText = other.m_strText;
  return *this;
}

ToviInterString::~ToviInterString() {}
