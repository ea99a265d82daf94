// What a build with a sanitizer, or one that counts the lines that run, cannot show: memory of such
// a process is not ours to limit, and its own library has to be the first one.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// `what` says why, to come after "a sanitizer ".
#define SKIP_WHEN_SANITIZED(what) \
  if (kSanitized) GTEST_SKIP() << "a sanitizer " << (what)

#ifdef DROVANE_COVERAGE
inline constexpr bool kCounted = true;
#else
inline constexpr bool kCounted = false;
#endif

// `what` says why, to come after "a program that counts its lines ".
#define SKIP_WHEN_COUNTED(what) \
  if (kCounted) GTEST_SKIP() << "a program that counts its lines " << (what)
