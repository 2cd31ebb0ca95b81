// The frame codec against golden bytes: each frame type encodes to its golden
// and decodes from it, and no truncation and no corrupted length of a golden
// is accepted.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "net_transport/frame.h"

namespace kt_net {
namespace {

std::string Hex(const std::string& bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : bytes) out += {digits[c >> 4], digits[c & 15], ' '};
  return out;
}

std::string Unhex(const char* text) {
  std::string out;
  for (const char* p = text; *p != '\0';) {
    if (*p == ' ') { ++p; continue; }
    out += static_cast<char>(std::stoi(std::string(p, 2), nullptr, 16));
    p += 2;
  }
  return out;
}

const char kHeader[] = "4B544E46 01";
const unsigned char kQ[] = {'q'};

struct Golden {
  const char* name;
  std::string encoded;
  const char* bytes;             // after the magic and version
  std::vector<std::pair<size_t, size_t>> lengths;  // (offset, width) of every length field
};

std::vector<Golden> Goldens() {
  Hello hello{0x11223344u, 1, 0x0000000500000007ul, "ab"};
  Reply reply{4, {{kQ, 1}, {nullptr, 0}}};
  const unsigned char xyz[] = {'x', 'y', 'z'};
  return {
      {"hello", EncodeHello(FrameType::kHello, hello),
       "01 0000 0000000000000000 00000000 14000000 44332211 01000000 0700000005000000 0200 6162",
       {{20, 4}, {40, 2}}},
      {"welcome", EncodeHello(FrameType::kWelcome, hello),
       "02 0000 0000000000000000 00000000 14000000 44332211 01000000 0700000005000000 0200 6162",
       {{20, 4}, {40, 2}}},
      {"request", EncodeRequest(0x0102, 200, {0x00ABBAFABBAABBAFul, xyz, 3}),
       "03 0000 0201000000000000 C8000000 0F000000 AFBBAABBFABAAB00 03000000 78797A",
       {{20, 4}, {32, 4}}},
      {"reply", EncodeReply(0x0102, reply),
       "04 0000 0201000000000000 00000000 11000000 04000000 02000000 01000000 71 00000000",
       {{20, 4}, {28, 4}, {32, 4}, {37, 4}}},
      {"heartbeat", EncodeHeartbeat(), "05 0000 0000000000000000 00000000 00000000", {{20, 4}}},
      {"bye", EncodeBye({ByeReason::kAlreadyLinked, "dup"}),
       "06 0000 0000000000000000 00000000 09000000 04000000 0300 647570", {{20, 4}, {28, 2}}},
  };
}

TEST(FrameTest, EachTypeEncodesToItsGoldenBytes) {
  for (const Golden& golden : Goldens()) {
    EXPECT_EQ(Hex(golden.encoded), Hex(Unhex(kHeader) + Unhex(golden.bytes))) << golden.name;
    EXPECT_TRUE(DecodeFrame(golden.encoded.data(), golden.encoded.size())) << golden.name;
  }
}

TEST(FrameTest, GoldenBodiesDecodeToWhatWasEncoded) {
  const std::vector<Golden> goldens = Goldens();
  FrameHeader header;
  const unsigned char* body = nullptr;
  uint32_t size = 0;
  ASSERT_TRUE(DecodeHeader(goldens[0].encoded.data(), goldens[0].encoded.size(), &header, &body, &size));
  Hello hello;
  ASSERT_TRUE(DecodeHello(body, size, &hello));
  EXPECT_EQ(std::make_tuple(hello.guid, hello.protocol, hello.conduit, hello.name),
            std::make_tuple(0x11223344u, 1u, 0x0000000500000007ul, std::string("ab")));

  ASSERT_TRUE(DecodeHeader(goldens[2].encoded.data(), goldens[2].encoded.size(), &header, &body, &size));
  Request request;
  ASSERT_TRUE(DecodeRequest(body, size, &request));
  EXPECT_EQ(std::make_tuple(header.correlation, header.remainingMs, request.method,
                            std::string(reinterpret_cast<const char*>(request.record), request.size)),
            std::make_tuple(0x0102ul, 200u, 0x00ABBAFABBAABBAFul, std::string("xyz")));

  ASSERT_TRUE(DecodeHeader(goldens[3].encoded.data(), goldens[3].encoded.size(), &header, &body, &size));
  Reply reply;
  ASSERT_TRUE(DecodeReply(body, size, &reply));
  ASSERT_EQ(reply.records.size(), 2u);
  EXPECT_EQ(reply.status, 4u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(reply.records[0].data), reply.records[0].size), "q");
  EXPECT_EQ(reply.records[1].size, 0u);
}

TEST(FrameTest, EveryTruncationAndEveryCorruptLengthIsRejected) {
  for (const Golden& golden : Goldens()) {
    const std::string& frame = golden.encoded;
    for (size_t cut = 0; cut < frame.size(); ++cut) {
      EXPECT_FALSE(DecodeFrame(frame.data(), cut)) << golden.name << " cut to " << cut;
    }
    EXPECT_FALSE(DecodeFrame((frame + '\0').data(), frame.size() + 1)) << golden.name;
    for (const auto& [offset, width] : golden.lengths) {
      uint32_t value = 0;
      std::memcpy(&value, frame.data() + offset, width);
      const uint32_t mask = width == 4 ? 0xFFFFFFFFu : 0xFFFFu;
      for (uint32_t wrong : {value + 1, value - 1, value + 2, mask, mask / 2 + 1}) {
        wrong &= mask;
        if (wrong == value) continue;
        std::string bad = frame;
        std::memcpy(&bad[offset], &wrong, width);
        EXPECT_FALSE(DecodeFrame(bad.data(), bad.size()))
            << golden.name << " length at " << offset << " = " << wrong;
      }
    }
  }
}

TEST(FrameTest, OversizedCountsAndFramesAreRefused) {
  // A reply that claims more records than the cap, in a body that could not
  // hold them anyway.
  std::string reply = EncodeReply(1, Reply{0, {}});
  const uint32_t many = kMaxReplyRecords + 1;
  std::memcpy(&reply[28], &many, 4);
  EXPECT_FALSE(DecodeFrame(reply.data(), reply.size()));
  std::vector<RecordView> records(kMaxReplyRecords + 1, RecordView{kQ, 1});
  EXPECT_TRUE(EncodeReply(1, Reply{0, records}).empty());
  std::string huge(kMaxFrameSize, 'x');
  EXPECT_TRUE(EncodeRequest(1, 0, {1, reinterpret_cast<const unsigned char*>(huge.data()),
                                   static_cast<uint32_t>(huge.size())})
                  .empty());
}

}  // namespace
}  // namespace kt_net
