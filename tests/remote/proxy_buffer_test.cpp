#include "remote/proxy_buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "remote/descriptor_blob.h"
#include "support/fakes.h"

namespace MetricsFramework {
namespace {

using Bytes = std::string;
using testing_fakes::HostBuffer;  // a buffer of another class, guarded behind its record

Bytes Le(unsigned long v, size_t width) { return Bytes(reinterpret_cast<const char*>(&v), width); }
// `size` bytes counting 0x01, 0x02, ...
Bytes Counting(size_t size) {
  Bytes b(size, 0);
  for (size_t i = 0; i < size; ++i) b[i] = static_cast<char>(i + 1);
  return b;
}
Bytes Oldest(const IReadBuffer& buffer) {
  const void* data = nullptr;
  unsigned long size = 0;
  buffer.GetData(&data, &size);
  return data == nullptr ? Bytes{} : Bytes(static_cast<const char*>(data), size);
}

TEST(ProxyBufferTest, RequestRecordsMatchTheirByteLayouts) {
  const unsigned long a = 0x0807060504030201, b = 0x1817161514131211, c = 0x2827262524232221;
  HostBuffer source("\xA1\xA2\xA3");
  const Bytes zero8 = Le(0, 8);

  EXPECT_EQ(Oldest(ProxyBuffer(1, 0, "a/b")), Le(1, 4) + zero8 + Bytes("a/b", 4));
  EXPECT_EQ(Oldest(ProxyBuffer(1, 5, static_cast<const char*>(nullptr))),
            Le(1, 4) + Le(5, 8) + Bytes(1, '\0'));
  EXPECT_EQ(Oldest(ProxyBuffer(4, a)), Le(4, 4) + Le(a, 8));
  EXPECT_EQ(Oldest(ProxyBuffer(3, a, b)), Le(3, 4) + Le(a, 8) + Le(b, 8));
  EXPECT_EQ(Oldest(ProxyBuffer(6, a, b, c)), Le(6, 4) + Le(a, 8) + Le(b, 8) + Le(c, 8));
  EXPECT_EQ(Oldest(ProxyBuffer(9, 0x55, &source)), Le(9, 4) + Le(0x55, 8) + Le(3, 8) + "\xA1\xA2\xA3");
  EXPECT_EQ(Oldest(ProxyBuffer(9, 0x55, static_cast<const IReadBuffer*>(nullptr))),
            Le(9, 4) + Le(0x55, 8) + zero8);
}

// Each record passes its size test but ends 4 bytes before the last field.
TEST(ProxyBufferTest, FieldBytesBeyondTheRecordReadAsZero) {
  unsigned long a = 1, b = 1, c = 1;
  unsigned int u = 1;
  const void* payload = &a;
  HostBuffer r4(Counting(4)), r8(Counting(8)), r12(Counting(12)), r16(Counting(16)),
      r24(Counting(24));
  // n = 3 in the 7 bytes present; 3 + 16 <= 19 passes.
  HostBuffer r19(Le(9, 4) + Le(0x42, 8) + Le(3, 7));

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

// 62 bytes, the texts and 4 bytes a list member.
TEST(ProxyBufferTest, DescriptorBlobHasItsSizeAndDecodesFromAGuardedCopy) {
  Metric::Description d;
  d.list1 = {3, 4}, d.setIds = {6}, d.uri = "uri", d.text1 = "t1", d.text2 = "text2";
  d.text4 = "t4!", d.text5 = "text-5", d.text6 = "sixth", d.word5 = 0x0F0F0F0F;
  const std::string blob = EncodeDescription(d);
  HostBuffer guarded(blob);
  const void* data = nullptr;
  unsigned long size = 0;
  guarded.GetData(&data, &size);
  Metric::Description out;

  ASSERT_TRUE(DecodeDescription(data, size, &out));

  EXPECT_EQ(blob.size(), 62u + (3 + 2 + 5 + 0 + 3 + 6 + 5) + 4 * 3);
  EXPECT_EQ(std::make_tuple(out.list1, out.setIds, out.uri, out.text2, out.text6, out.word5),
            std::make_tuple(d.list1, d.setIds, d.uri, d.text2, d.text6, d.word5));
}

}  // namespace
}  // namespace MetricsFramework
