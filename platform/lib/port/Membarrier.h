// Membarrier.h - a memory barrier that one thread issues on behalf of every
// thread of the process.
//
// With it, threads that run often can order their own accesses with nothing
// but a compiler barrier, and the rare thread that needs the order pays for
// all of them at once (see debugmgr/CallGate.cpp).
#ifndef TOVI_PORT_MEMBARRIER_H
#define TOVI_PORT_MEMBARRIER_H

namespace toviport {

// Readies ProcessBarrier for this process; once is enough, and a second
// call costs one system call. False when the system offers no such barrier
// (an old or restricted kernel): ProcessBarrier must then not be relied on.
bool RegisterProcessBarrier();

// On return, every other thread of the process has passed a full memory
// barrier at some point between this call's start and its return, as if it
// had executed one there: what a thread stored before that point is visible
// to the caller now, and what the caller stored before this call is visible
// to the thread after that point. False when it could not be done (no
// successful RegisterProcessBarrier); nothing is then ordered.
bool ProcessBarrier();

}  // namespace toviport

#endif
