// Thread rules the compiler checks: Clang's thread-safety attributes, as
// LevelDB names them. A record says which mutex guards it (GUARDED_BY), a
// function which mutex it needs held (REQUIRES) or must not hold (EXCLUDES),
// and a lock type what it takes and gives back (ACQUIRE, RELEASE). Clang with
// -Wthread-safety then refuses a read of a guarded record without its mutex;
// other compilers see empty macros.
//
// std::mutex carries no attributes in libstdc++, so guarded records use
// platform::Mutex and platform::MutexLock (platform/mutex.h).
#ifndef VEXO_PLATFORM_THREAD_ANNOTATIONS_H
#define VEXO_PLATFORM_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define VEXO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VEXO_THREAD_ANNOTATION(x)
#endif

// A type that is a lock (a mutex, a device lock).
#define CAPABILITY(x) VEXO_THREAD_ANNOTATION(capability(x))
// A type whose objects hold a lock for their lifetime (a scoped lock).
#define SCOPED_CAPABILITY VEXO_THREAD_ANNOTATION(scoped_lockable)

// The record may be read or written only with the mutex held.
#define GUARDED_BY(x) VEXO_THREAD_ANNOTATION(guarded_by(x))
// What the pointer points to may be used only with the mutex held.
#define PT_GUARDED_BY(x) VEXO_THREAD_ANNOTATION(pt_guarded_by(x))

// The caller must hold the mutex (exclusively / shared).
#define REQUIRES(...) VEXO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) VEXO_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
// The function takes the mutex and returns holding it.
#define ACQUIRE(...) VEXO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
// The function gives back a mutex the caller held.
#define RELEASE(...) VEXO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// The function takes the mutex when it returns the given value.
#define TRY_ACQUIRE(...) VEXO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// The caller must not hold the mutex (the function takes it itself).
#define EXCLUDES(...) VEXO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// The function checks at run time that the mutex is held; the analysis takes
// it as held afterwards.
#define ASSERT_CAPABILITY(x) VEXO_THREAD_ANNOTATION(assert_capability(x))
// The function returns the mutex named.
#define RETURN_CAPABILITY(x) VEXO_THREAD_ANNOTATION(lock_returned(x))

// Turns the analysis off for one function; say why beside it.
#define NO_THREAD_SAFETY_ANALYSIS VEXO_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // VEXO_PLATFORM_THREAD_ANNOTATIONS_H
