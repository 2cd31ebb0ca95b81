// Every committed seed of the network transport's fuzz targets runs clean
// through its entry (fuzz/net_entries.h), in every build: an input kept from
// a finding stays a regression test.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/net_entries.h"

namespace kt_net {
namespace fuzz {
namespace {

struct Target {
  const char* name;
  int (*entry)(const uint8_t*, size_t);
};

class NetCorpusTest : public ::testing::TestWithParam<Target> {};

TEST_P(NetCorpusTest, EveryCommittedInputRunsClean) {
  const std::filesystem::path dir = std::string(KT_FUZZ_CORPUS_DIR) + "/" + GetParam().name;
  ASSERT_TRUE(std::filesystem::is_directory(dir)) << "no corpus for " << GetParam().name;
  for (const auto& file : std::filesystem::directory_iterator(dir)) {
    std::ifstream in(file.path(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    EXPECT_EQ(GetParam().entry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0)
        << file.path();
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, NetCorpusTest,
                         ::testing::Values(Target{"net_frame", &FuzzNetFrame},
                                           Target{"net_serve", &FuzzNetServe}),
                         [](const ::testing::TestParamInfo<Target>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
}  // namespace fuzz
}  // namespace kt_net
