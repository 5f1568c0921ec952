// Names for clang's lock analysis (-Wthread-safety), which checks what declarations say of locks. Other compilers
// ignore them. The only set above the platform layer. No state.
#pragma once

#if defined(__has_attribute)
#if __has_attribute(guarded_by)
#define LOCK_ANALYSIS(attribute) __attribute__((attribute))
#endif
#endif
#ifndef LOCK_ANALYSIS
#define LOCK_ANALYSIS(attribute)
#endif

// A type that is a lock, and a guard that holds one for as long as it lives.
#define CAPABILITY(name) LOCK_ANALYSIS(capability(name))
#define SCOPED_CAPABILITY LOCK_ANALYSIS(scoped_lockable)
// What may be touched only while a lock is held.
#define GUARDED_BY(lock) LOCK_ANALYSIS(guarded_by(lock))
// A lock that a function requires, must be called without, acquires, or releases. A method of a lock names none.
#define REQUIRES(lock) LOCK_ANALYSIS(requires_capability(lock))
#define EXCLUDES(lock) LOCK_ANALYSIS(locks_excluded(lock))
#define ACQUIRE(lock) LOCK_ANALYSIS(acquire_capability(lock))
#define RELEASE() LOCK_ANALYSIS(release_capability())
// A function that the analysis skips; a comment there says why, unless the function is the lock itself.
#define NO_LOCK_ANALYSIS LOCK_ANALYSIS(no_thread_safety_analysis)
