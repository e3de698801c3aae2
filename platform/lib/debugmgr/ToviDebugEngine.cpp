// ToviDebugEngine.cpp - the out-of-line members of the engine interface. The
// destructor lives here so that the interface's type information and virtual
// table have one home in the library.
#include "ToviDebugEngine.h"

ToviDebugEngine::ToviDebugEngine() {}

ToviDebugEngine::ToviDebugEngine(const ToviDebugEngine& other) { (void)other; }

ToviDebugEngine& ToviDebugEngine::operator=(const ToviDebugEngine& other) {
  (void)other;
  return *this;
}

ToviDebugEngine::~ToviDebugEngine() {}
