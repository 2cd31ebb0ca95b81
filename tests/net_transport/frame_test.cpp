// The frame codec against golden bytes: each frame type encodes to its golden,
// no truncation and no corrupted length of a golden is accepted, and every
// committed seed of the transport's fuzz targets runs clean.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/net_entries.h"
#include "net_transport/frame.h"

namespace kt_net {
namespace {

const unsigned char kBytes[] = {'x', 'y', 'z'};

struct Golden {
  std::string encoded;
  std::string hex;  // after the magic and the version
  std::vector<std::pair<size_t, size_t>> lengths;  // (offset, width) of every length field
};

std::vector<Golden> Goldens() {
  const Hello hello{0x11223344u, 1, 0x0000000500000007ul, "ab"};
  const char* helloBody = "0000 0000000000000000 00000000 14000000 44332211 01000000 0700000005000000 0200 6162";
  return {
      {EncodeHello(FrameType::kHello, hello), std::string("01 ") + helloBody, {{20, 4}, {40, 2}}},
      {EncodeHello(FrameType::kWelcome, hello), std::string("02 ") + helloBody, {{20, 4}, {40, 2}}},
      {EncodeRequest(0x0102, 200, {0x00ABBAFABBAABBAFul, kBytes, 3}),
       "03 0000 0201000000000000 C8000000 0F000000 AFBBAABBFABAAB00 03000000 78797A", {{20, 4}, {32, 4}}},
      {EncodeReply(0x0102, Reply{4, {{kBytes, 1}, {nullptr, 0}}}),
       "04 0000 0201000000000000 00000000 11000000 04000000 02000000 01000000 78 00000000",
       {{20, 4}, {28, 4}, {32, 4}, {37, 4}}},
      {EncodeHeartbeat(), "05 0000 0000000000000000 00000000 00000000", {{20, 4}}},
      {EncodeBye({ByeReason::kAlreadyLinked, "dup"}),
       "06 0000 0000000000000000 00000000 09000000 04000000 0300 647570", {{20, 4}, {28, 2}}},
  };
}

TEST(FrameTest, EachTypeEncodesToItsGoldenBytesAndNothingOversized) {
  for (const Golden& golden : Goldens()) {
    std::string hex;
    for (unsigned char c : golden.encoded) hex += {"0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
    std::string expected = "4B544E46 01 " + golden.hex;
    expected.erase(std::remove(expected.begin(), expected.end(), ' '), expected.end());
    EXPECT_EQ(hex, expected);
    EXPECT_TRUE(DecodeFrame(golden.encoded.data(), golden.encoded.size())) << golden.hex;
  }
  // Nothing is encoded that the other side would refuse.
  const std::vector<unsigned char> huge(kMaxFrameSize);
  EXPECT_TRUE(EncodeRequest(1, 0, {1, huge.data(), static_cast<uint32_t>(huge.size())}).empty());
  EXPECT_TRUE(EncodeReply(1, Reply{0, std::vector<RecordView>(kMaxReplyRecords + 1, {kBytes, 1})}).empty());
  EXPECT_FALSE(EncodeReply(1, Reply{0, std::vector<RecordView>(kMaxReplyRecords, {kBytes, 1})}).empty());
}

TEST(FrameTest, EveryTruncationAndEveryCorruptLengthIsRejected) {
  for (const Golden& golden : Goldens()) {
    const std::string& frame = golden.encoded;
    for (size_t cut = 0; cut < frame.size(); ++cut) {
      EXPECT_FALSE(DecodeFrame(frame.data(), cut)) << golden.hex << " cut to " << cut;
    }
    EXPECT_FALSE(DecodeFrame((frame + '\0').data(), frame.size() + 1)) << golden.hex;
    for (const auto& [offset, width] : golden.lengths) {
      uint32_t value = 0;
      std::memcpy(&value, frame.data() + offset, width);
      const uint32_t mask = width == 4 ? 0xFFFFFFFFu : 0xFFFFu;
      for (uint32_t wrong : {value + 1, value - 1, value + 2, mask, mask / 2 + 1}) {
        std::string bad = frame;
        std::memcpy(&bad[offset], &wrong, width);
        EXPECT_TRUE((wrong & mask) == value || !DecodeFrame(bad.data(), bad.size()))
            << golden.hex << ": " << wrong << " at " << offset;
      }
    }
  }
}

TEST(FrameTest, EveryCommittedFuzzInputRunsClean) {
  const std::pair<const char*, int (*)(const uint8_t*, size_t)> targets[] = {
      {"net_frame", &fuzz::FuzzNetFrame}, {"net_serve", &fuzz::FuzzNetServe}};
  for (const auto& [name, entry] : targets) {
    const std::filesystem::path dir = std::string(KT_FUZZ_CORPUS_DIR) + "/" + name;
    ASSERT_TRUE(std::filesystem::is_directory(dir)) << dir;
    for (const auto& file : std::filesystem::directory_iterator(dir)) {
      std::ifstream in(file.path(), std::ios::binary);
      const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      EXPECT_EQ(entry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0) << file.path();
    }
  }
}

}  // namespace
}  // namespace kt_net
