// What AddressSanitizer and ThreadSanitizer must be told: which bytes are off limits, which fiber
// runs, and which of the model's own synchronisation a driver may not rely on.
#pragma once

#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MODEL_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define MODEL_TSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define MODEL_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__)
#define MODEL_TSAN 1
#endif

#if defined(MODEL_ASAN)
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
constexpr bool AsanOn = true;
#else
constexpr bool AsanOn = false;
#endif

#if defined(MODEL_TSAN)
#include <sanitizer/tsan_interface.h>
extern "C" {
void AnnotateIgnoreReadsBegin(const char *File, int Line);
void AnnotateIgnoreReadsEnd(const char *File, int Line);
void AnnotateIgnoreWritesBegin(const char *File, int Line);
void AnnotateIgnoreWritesEnd(const char *File, int Line);
void AnnotateIgnoreSyncBegin(const char *File, int Line);
void AnnotateIgnoreSyncEnd(const char *File, int Line);
}
#endif

inline void BytesForbid([[maybe_unused]] const void *Bytes, [[maybe_unused]] size_t Count) {
#if defined(MODEL_ASAN)
  __asan_poison_memory_region(Bytes, Count);
#endif
}

inline void BytesAllow([[maybe_unused]] const void *Bytes, [[maybe_unused]] size_t Count) {
#if defined(MODEL_ASAN)
  __asan_unpoison_memory_region(Bytes, Count);
#endif
}

// The model's own locks would order threads that the driver does not order and so hide its races.
// Between these two, ThreadSanitizer sees neither the model's locks nor what they guard; what a
// service does promise is told with SyncRelease and SyncAcquire, outside of them.
inline void TsanIgnoreBegin() {
#if defined(MODEL_TSAN)
  AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
  AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
  AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
}

inline void TsanIgnoreEnd() {
#if defined(MODEL_TSAN)
  AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
  AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
  AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
#endif
}

// What happened before SyncRelease happened before what follows SyncAcquire of the same address.
// The address is a name; the bytes behind it are not touched.
inline void SyncRelease([[maybe_unused]] const volatile void *Address) {
#if defined(MODEL_TSAN)
  __tsan_release(const_cast<void *>(Address));
#endif
}

inline void SyncAcquire([[maybe_unused]] const volatile void *Address) {
#if defined(MODEL_TSAN)
  __tsan_acquire(const_cast<void *>(Address));
#endif
}
