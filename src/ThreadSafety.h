// Facts about locks that clang checks while compiling (-Wthread-safety); other compilers read
// nothing here. See https://clang.llvm.org/docs/ThreadSafetyAnalysis.html.
#pragma once

#if defined(__clang__)
#define DROVANE_TS(attribute) __attribute__((attribute))
#else
#define DROVANE_TS(attribute)
#endif

#define DROVANE_CAPABILITY(kind) DROVANE_TS(capability(kind))
#define DROVANE_SCOPED_CAPABILITY DROVANE_TS(scoped_lockable)
#define DROVANE_GUARDED_BY(lock) DROVANE_TS(guarded_by(lock))
#define DROVANE_ACQUIRE(...) DROVANE_TS(acquire_capability(__VA_ARGS__))
#define DROVANE_RELEASE(...) DROVANE_TS(release_capability(__VA_ARGS__))
#define DROVANE_REQUIRES(...) DROVANE_TS(requires_capability(__VA_ARGS__))
