#pragma once

// What clang's thread-safety analysis reads; nothing for other compilers. A capability is a
// lockable object; see SoThread.h for the two classes that carry these marks.
#if defined(__clang__)
#define SO_ANNOTATION(x) __attribute__((x))
#else
#define SO_ANNOTATION(x)
#endif

#define SO_CAPABILITY(name) SO_ANNOTATION(capability(name))
#define SO_SCOPED_CAPABILITY SO_ANNOTATION(scoped_lockable)
#define SO_GUARDED_BY(lock) SO_ANNOTATION(guarded_by(lock))
#define SO_PT_GUARDED_BY(lock) SO_ANNOTATION(pt_guarded_by(lock))
#define SO_REQUIRES(...) SO_ANNOTATION(requires_capability(__VA_ARGS__))
#define SO_EXCLUDES(...) SO_ANNOTATION(locks_excluded(__VA_ARGS__))
#define SO_ACQUIRE(...) SO_ANNOTATION(acquire_capability(__VA_ARGS__))
#define SO_RELEASE(...) SO_ANNOTATION(release_capability(__VA_ARGS__))
#define SO_RETURN_CAPABILITY(lock) SO_ANNOTATION(lock_returned(lock))
#define SO_NO_THREAD_SAFETY_ANALYSIS SO_ANNOTATION(no_thread_safety_analysis)
