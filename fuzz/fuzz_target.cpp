// One libFuzzer target: KT_FUZZ_ENTRY names the entry function it runs
// (fuzz/CMakeLists.txt builds one target per entry).
#include <cstddef>
#include <cstdint>

#include "fuzz/entries.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return MetricsFramework::fuzz::KT_FUZZ_ENTRY(data, size);
}
