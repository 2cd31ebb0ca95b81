// Every committed fuzz corpus input runs clean through its target's entry: a
// fault once found by fuzzing and kept as an input stays fixed in every
// build, sanitizers included. An entry aborts on a broken check.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/entries.h"

namespace MetricsFramework {
namespace fuzz {
namespace {

struct Target {
  const char* name;
  int (*entry)(const uint8_t*, size_t);
};

class CorpusTest : public ::testing::TestWithParam<Target> {
 protected:
  static std::vector<std::filesystem::path> Inputs(const std::string& dir) {
    std::vector<std::filesystem::path> files;
    if (!std::filesystem::is_directory(dir)) return files;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      if (entry.is_regular_file()) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
  }
  static std::string Bytes(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
};

TEST_P(CorpusTest, EveryCommittedInputRunsClean) {
  const auto files = Inputs(std::string(KT_FUZZ_CORPUS_DIR) + "/" + GetParam().name);
  ASSERT_FALSE(files.empty()) << "no corpus for " << GetParam().name;
  for (const auto& file : files) {
    const std::string bytes = Bytes(file);
    EXPECT_EQ(GetParam().entry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0)
        << file;
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, CorpusTest,
                         ::testing::Values(Target{"client_command", &FuzzClientCommand},
                                           Target{"proxy_buffer", &FuzzProxyBuffer},
                                           Target{"descriptor_blob", &FuzzDescriptorBlob},
                                           Target{"path", &FuzzPath}),
                         [](const ::testing::TestParamInfo<Target>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
}  // namespace fuzz
}  // namespace MetricsFramework
