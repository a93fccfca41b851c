// Thread-safety annotations that Clang's -Wthread-safety checks at compile time: which
// lock guards a member, which locks a function needs held or must not hold, and the order
// in which locks are taken. Other compilers see nothing (the macros expand to nothing).
//
//   class CCounter {
//     CMutex mutex_;
//     int count_ GUARDED_BY(mutex_) = 0;   // read or written only with mutex_ held
//     void BumpLocked() REQUIRES(mutex_);  // the caller holds mutex_
//     void Bump() EXCLUDES(mutex_);        // takes mutex_ itself
//   };
//
// A lock is a capability: a class marked CAPABILITY("mutex") whose lock and unlock
// functions say ACQUIRE() and RELEASE(). A scoped guard is SCOPED_CAPABILITY. The
// analysis works on one function at a time and does not know recursion: a recursive lock
// that its owner takes again is annotated as taken once (see runtime/RecursiveLock.h).
// Members read without their lock by design (atomics, tables published once) carry no
// annotation, and their header says why.
#ifndef EM_BASE_THREADANNOTATIONS_H
#define EM_BASE_THREADANNOTATIONS_H

#if defined(__clang__)
#define EM_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define EM_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) EM_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY EM_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) EM_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) EM_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) EM_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) EM_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) EM_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) EM_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) EM_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) EM_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) EM_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) EM_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) EM_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) EM_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) EM_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) EM_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) EM_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS EM_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // EM_BASE_THREADANNOTATIONS_H
