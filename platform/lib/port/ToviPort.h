// ToviPort.h - the one place where the library meets the operating system.
//
// The rest of the library asks for runtime and system services only through
// these functions, so their semantics (what counts as "exists", how a
// directory tree is made, what a thread id is) are decided here and nowhere
// else. A failure comes back as its errno value (0: success), so that
// callers can say why. Paths are plain data: nothing here hands one to a
// shell except RunCommand, whose caller asked for exactly that.
//
// The calls are declared by concern in the headers below; this one brings
// them all in.
#ifndef TOVI_PORT_H
#define TOVI_PORT_H

#include "port/ClockThread.h"
#include "port/Files.h"
#include "port/Process.h"

#endif
