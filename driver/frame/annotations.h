// Names for clang's thread-safety analysis; nothing for other compilers.
#pragma once

#ifdef __clang__
#define GV_ANNOTATION(x) __attribute__((x))
#else
#define GV_ANNOTATION(x)
#endif

#define GV_CAPABILITY(name)  GV_ANNOTATION(capability(name))
#define GV_SCOPED_CAPABILITY GV_ANNOTATION(scoped_lockable)
#define GV_GUARDED_BY(lock)  GV_ANNOTATION(guarded_by(lock))
#define GV_REQUIRES(lock)    GV_ANNOTATION(requires_capability(lock))
#define GV_ACQUIRE(...)      GV_ANNOTATION(acquire_capability(__VA_ARGS__))
#define GV_RELEASE(...)      GV_ANNOTATION(release_capability(__VA_ARGS__))
#define GV_EXCLUDES(lock)    GV_ANNOTATION(locks_excluded(lock))
#define GV_NO_ANALYSIS       GV_ANNOTATION(no_thread_safety_analysis)
