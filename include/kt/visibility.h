// SPDX-License-Identifier: Apache-2.0
//
// KT_EXPORT: marks what the library shows to other modules. The library is
// built with every symbol hidden by default; what carries this mark is its
// whole binary interface: the export table, the KT C functions, the two
// accessors, and the public interfaces, whose type information a run-time
// cast needs when an object made in one module is cast in another.
//
// Extension modules may use the mark for their own export table. Nothing here
// has state or threads.
#ifndef KT_VISIBILITY_H_
#define KT_VISIBILITY_H_

#if defined(__GNUC__) || defined(__clang__)
#define KT_EXPORT __attribute__((visibility("default")))
#else
#define KT_EXPORT
#endif

#endif  // KT_VISIBILITY_H_
