// SPDX-License-Identifier: Apache-2.0
//
// Thread and process helpers exported by the library with C linkage.
//
// Hosts and extensions may call them from any thread; none of them keeps state.
// Failures of the underlying platform calls are ignored except where a result
// says otherwise.
#ifndef KT_PLATFORM_H_
#define KT_PLATFORM_H_

#include "kt/visibility.h"

#ifdef __cplusplus
extern "C" {
#endif

// Sleeps for `ms` milliseconds (the microsecond count is taken in 32 bits).
KT_EXPORT void KTSleep(unsigned int ms);

// Gives up the processor to another runnable thread.
KT_EXPORT void KTYield(void);

// Returns the calling thread's identifier (its pthread_t value).
KT_EXPORT unsigned long KTGetCurrentThreadId(void);

// Returns the calling process's identifier.
KT_EXPORT int KTGetCurrentProcessId(void);

// Return the lowest and highest priority of the calling thread's scheduling
// policy, and the thread's present priority.
KT_EXPORT int KTGetCurrentThreadPriorityMin(void);
KT_EXPORT int KTGetCurrentThreadPriorityMax(void);
KT_EXPORT int KTGetCurrentThreadPriority(void);

// Sets the calling thread's priority under its present policy. Returns true
// when the platform accepted it (false for a priority outside the policy's
// range).
#ifdef __cplusplus
KT_EXPORT bool KTSetCurrentThreadPriority(int priority);
#else
KT_EXPORT _Bool KTSetCurrentThreadPriority(int priority);
#endif

// Formatted scan: forwards to vsscanf and returns its result (the number of
// items assigned, or EOF). A null `str` or `format` scans nothing and returns
// EOF; no argument is written.
KT_EXPORT int sdl_sscanf(const char* str, const char* format, ...);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // KT_PLATFORM_H_
