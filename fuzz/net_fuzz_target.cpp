// One libFuzzer target of the network transport: KT_FUZZ_ENTRY names the
// entry function of fuzz/net_entries.h it runs.
#include <cstddef>
#include <cstdint>

#include "fuzz/net_entries.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return kt_net::fuzz::KT_FUZZ_ENTRY(data, size);
}
