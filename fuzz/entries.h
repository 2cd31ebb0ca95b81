// The entry functions of the fuzz targets. Each takes one input of arbitrary
// bytes, feeds it to one decoder or resolver of the library and checks what
// must hold for every input (a record that decodes re-encodes to the same
// bytes, a resolver never points outside its path). A broken check prints
// what broke and aborts; a fault shows as the sanitizers' report. Every entry
// returns 0.
//
// The fuzz targets (fuzz/fuzz_target.cpp) call them from libFuzzer; the test
// suite (tests/fuzz/corpus_test.cpp) feeds them every committed corpus file,
// so each corpus file is also a regression test under the ordinary builds.
//
// Threads: the entries keep their state on the stack (or, for the path
// entry, a registry it builds on first use); call them from one thread at a
// time.
#ifndef KT_FUZZ_ENTRIES_H_
#define KT_FUZZ_ENTRIES_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace MetricsFramework {
namespace fuzz {

// What must hold for every input: prints `what` and aborts when it does not.
inline void Check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

// Request records served one after the other by ClientCommandMethod::Run in
// a freshly populated process (fuzz/served_process.h), so that a request
// meets what earlier ones left (a flush after a subscription). The four bytes
// FE FF 'R' 'Q' separate the requests of an input; at most 16 are served. A
// 64-bit word "KTHD" << 32 | k in a request stands for the k-th handle of
// that process (modulo their number), so that inputs reach real nodes
// although handles change from run to run.
int FuzzClientCommand(const uint8_t* data, size_t size);

// The input as one record, read by every ProxyBuffer decoder (static forms on
// a buffer holding exactly the record, member forms and ReadBack on a
// ProxyBuffer); then the input's words built into requests and replies that
// must read back as written.
int FuzzProxyBuffer(const uint8_t* data, size_t size);

// The input as a descriptor blob. A blob that decodes re-encodes to the bytes
// it was decoded from, and that encoding decodes to the same description.
int FuzzDescriptorBlob(const uint8_t* data, size_t size);

// A small program of path operations (fuzz/entries.cpp, "Path program") run
// on a fresh subtree of a registry: lookups and creations by path text with
// arbitrary flags, renames and removals.
int FuzzPath(const uint8_t* data, size_t size);

}  // namespace fuzz
}  // namespace MetricsFramework

#endif  // KT_FUZZ_ENTRIES_H_
