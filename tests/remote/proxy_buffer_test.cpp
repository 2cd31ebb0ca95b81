#include "remote/proxy_buffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "remote/descriptor_blob.h"
#include "support/fakes.h"

namespace MetricsFramework {
namespace {

typedef std::vector<unsigned char> Bytes;

// A buffer of another class holding one record, guarded behind.
struct RecordBuffer : testing_fakes::HostBuffer {
  explicit RecordBuffer(const Bytes& record) : HostBuffer(std::string(record.begin(), record.end())) {}
};

Bytes Le(unsigned long v, size_t width) {
  Bytes b(width);
  std::memcpy(b.data(), &v, width);
  return b;
}
Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}
// `size` bytes counting 0x01, 0x02, ...
Bytes Counting(size_t size) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i) b[i] = static_cast<unsigned char>(i + 1);
  return b;
}
// The oldest record of `buffer`; empty when there is none.
Bytes Oldest(const IReadBuffer& buffer) {
  const void* data = nullptr;
  unsigned long size = 0;
  buffer.GetData(&data, &size);
  auto* bytes = static_cast<const unsigned char*>(data);
  return bytes == nullptr ? Bytes{} : Bytes(bytes, bytes + size);
}

// ---- Request records -------------------------------------------------------

TEST(ProxyBufferRequest, RecordsMatchTheirByteLayouts) {
  const unsigned long a = 0x0807060504030201, b = 0x1817161514131211, c = 0x2827262524232221;
  RecordBuffer source(Bytes{0xA1, 0xA2, 0xA3});

  EXPECT_EQ(Oldest(ProxyBuffer(1, 0, "a/b")),
            (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 'a', '/', 'b', 0}));
  EXPECT_EQ(Oldest(ProxyBuffer(4, a)), (Bytes{4, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(Oldest(ProxyBuffer(3, a, b)), Cat({Le(3, 4), Le(a, 8), Le(b, 8)}));
  EXPECT_EQ(Oldest(ProxyBuffer(6, a, b, c)), Cat({Le(6, 4), Le(a, 8), Le(b, 8), Le(c, 8)}));
  EXPECT_EQ(Oldest(ProxyBuffer(9, 0x55, &source)),
            (Bytes{9, 0, 0, 0, 0x55, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0xA1, 0xA2,
                   0xA3}));
  EXPECT_EQ(Oldest(ProxyBuffer(9, 0x55, static_cast<const IReadBuffer*>(nullptr))),
            (Bytes{9, 0, 0, 0, 0x55, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

// ---- Decoders over records of other buffer classes ---------------------------

// Each record passes its size test but ends 4 bytes before the last field.
TEST(ProxyBufferDecode, FieldBytesBeyondTheRecordReadAsZero) {
  unsigned long a = 1, b = 1, c = 1;
  unsigned int u = 1;
  const void* payload = &a;
  RecordBuffer r4(Counting(4)), r8(Counting(8)), r12(Counting(12)), r16(Counting(16)),
      r24(Counting(24));
  // n = 3 in the 7 bytes present; 3 + 16 <= 19 passes.
  RecordBuffer r19(Cat({Le(9, 4), Le(0x42, 8), Bytes{3, 0, 0, 0, 0, 0, 0}}));

  ASSERT_TRUE(ProxyBuffer::Read(&r4, u));
  EXPECT_EQ(u, 0u);
  ASSERT_TRUE(ProxyBuffer::Read(&r8, a));
  EXPECT_EQ(a, 0x08070605ul);
  ASSERT_TRUE(ProxyBuffer::Read(&r12, a, u));
  EXPECT_EQ(std::make_tuple(a, u), std::make_tuple(0x0C0B0A0908070605ul, 0u));
  ASSERT_TRUE(ProxyBuffer::Read(&r16, a, b));
  EXPECT_EQ(b, 0x100F0E0Dul);
  ASSERT_TRUE(ProxyBuffer::Read(&r24, a, b, c));
  EXPECT_EQ(std::make_tuple(b, c), std::make_tuple(0x14131211100F0E0Dul, 0x18171615ul));
  ASSERT_TRUE(ProxyBuffer::Read(&r19, a, b, &payload));
  EXPECT_EQ(b, 3u);
  EXPECT_EQ(payload, nullptr);  // its bytes would run past the record
}

// ---- Descriptor blob ---------------------------------------------------------

Metric::Description Filled() {
  Metric::Description d;
  d.id = 0x01010101, d.flags = 0x02020202, d.list1 = {0x03030303, 0x04040404};
  d.word1 = 0x05050505, d.setIds = {0x06060606}, d.word2 = 0x07070707, d.byte1 = 0x08;
  d.uri = "uri", d.text1 = "t1", d.text2 = "text2", d.text3 = "", d.text4 = "t4!";
  d.text5 = "text-5", d.word3 = 0x09090909, d.text6 = "sixth", d.byte2 = 0x0A;
  d.block[0] = 0x0B0B0B0B0B0B0B0B, d.block[1] = 0x0C0C0C0C0C0C0C0C, d.byte3 = 0x0D;
  d.word4 = 0x0E0E0E0E, d.word5 = 0x0F0F0F0F;
  return d;
}
auto Fields(const Metric::Description& d) {
  return std::make_tuple(d.id, d.flags, d.list1, d.word1, d.setIds, d.word2, d.byte1, d.uri,
                         d.text1, d.text2, d.text3, d.text4, d.text5, d.word3, d.text6, d.byte2,
                         d.block[0], d.block[1], d.byte3, d.word4, d.word5);
}
// Decodes from a guarded copy, so that reads past the blob show.
bool Decode(const std::string& blob, Metric::Description* desc) {
  RecordBuffer guarded(Bytes(blob.begin(), blob.end()));
  const void* data = nullptr;
  unsigned long size = 0;
  guarded.GetData(&data, &size);
  return DecodeDescription(data, size, desc);
}

TEST(DescriptorBlob, EveryFieldSurvivesTheRoundTrip) {
  std::string blob = EncodeDescription(Filled());
  Metric::Description out;

  ASSERT_TRUE(Decode(blob, &out));

  EXPECT_EQ(blob.size(), 62u + (3 + 2 + 5 + 0 + 3 + 6 + 5) + 4 * 3);
  EXPECT_TRUE(Fields(out) == Fields(Filled()));
}

}  // namespace
}  // namespace MetricsFramework
