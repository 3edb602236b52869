// Lock annotations, checked by clang's thread-safety analysis and empty for every other compiler.
//
// KSPIN_LOCK is a capability on the host; on Windows it is a plain integer and the annotations are
// empty. A field names the lock that guards it, a routine the locks that it needs, takes or gives
// back. ANALYSIS_OFF stands where the analysis cannot follow; the line beside it says why.
#pragma once

#if defined(__clang__) && !defined(_WIN32)
#define VORLIX_ANALYSIS(x) __attribute__((x))
#else
#define VORLIX_ANALYSIS(x)
#endif

#define CAPABILITY(name) VORLIX_ANALYSIS(capability(name))
#define GUARDED_BY(lock) VORLIX_ANALYSIS(guarded_by(lock))
#define PT_GUARDED_BY(lock) VORLIX_ANALYSIS(pt_guarded_by(lock))
#define ACQUIRED_BEFORE(...) VORLIX_ANALYSIS(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) VORLIX_ANALYSIS(acquired_after(__VA_ARGS__))
#define REQUIRES(...) VORLIX_ANALYSIS(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VORLIX_ANALYSIS(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VORLIX_ANALYSIS(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VORLIX_ANALYSIS(release_capability(__VA_ARGS__))
#define ASSERT_HELD(...) VORLIX_ANALYSIS(assert_capability(__VA_ARGS__))
#define ANALYSIS_OFF VORLIX_ANALYSIS(no_thread_safety_analysis)
