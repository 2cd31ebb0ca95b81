// Whether the process runs one thread only, as the C library tracks it.
//
// While it does, nothing can contend for a lock, so a lock may change its
// state with plain (relaxed) atomic loads and stores instead of locked
// read-modify-write operations, as the C library's own mutexes do. The answer
// turns false before a second thread starts, and starting a thread orders
// everything the first thread wrote before it, so the new thread sees every
// lock in the state the plain stores left it in.
#ifndef KT_FOUNDATION_SINGLE_THREAD_H_
#define KT_FOUNDATION_SINGLE_THREAD_H_

#include <sys/single_threaded.h>

namespace MetricsFramework {

inline bool ProcessIsSingleThreaded() { return __libc_single_threaded != 0; }

}  // namespace MetricsFramework

#endif  // KT_FOUNDATION_SINGLE_THREAD_H_
