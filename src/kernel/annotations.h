// SPDX-License-Identifier: GPL-2.0-only
// Names for clang's thread-safety attributes; gcc sees empty macros.
#pragma once

#if defined(__clang__)
#define ZORV_TSA(x) __attribute__((x))
#else
#define ZORV_TSA(x)
#endif

#define CAPABILITY(name) ZORV_TSA(capability(name))
#define SCOPED_CAPABILITY ZORV_TSA(scoped_lockable)
#define GUARDED_BY(x) ZORV_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) ZORV_TSA(pt_guarded_by(x))
#define REQUIRES(...) ZORV_TSA(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) ZORV_TSA(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) ZORV_TSA(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) ZORV_TSA(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) ZORV_TSA(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) ZORV_TSA(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) ZORV_TSA(release_generic_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) ZORV_TSA(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) ZORV_TSA(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS ZORV_TSA(no_thread_safety_analysis)
