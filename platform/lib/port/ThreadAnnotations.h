// ThreadAnnotations.h - the locking rules of the library's own classes,
// written where the compiler can check them.
//
// clang's -Wthread-safety reads these attributes: a member GUARDED_BY a lock
// may only be touched with that lock held, a function that REQUIRES a lock
// may only be called with it held. Other compilers see nothing. The build
// with TOVI_THREAD_SAFETY=ON (CI) makes every breach an error.
#ifndef TOVI_PORT_THREADANNOTATIONS_H
#define TOVI_PORT_THREADANNOTATIONS_H

#if defined(__clang__)
#define TOVI_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TOVI_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) TOVI_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY TOVI_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) TOVI_THREAD_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) TOVI_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define REQUIRES(...) TOVI_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) TOVI_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) TOVI_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) TOVI_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) TOVI_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) TOVI_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) TOVI_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define EXCLUDES(...) TOVI_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) TOVI_THREAD_ATTRIBUTE(assert_capability(x))
#define RETURN_CAPABILITY(x) TOVI_THREAD_ATTRIBUTE(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS TOVI_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif
