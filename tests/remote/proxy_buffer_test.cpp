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

TEST(ProxyBufferRequest, LongTextIsSentAsItsFirst4096CharactersAndNul) {
  std::string text(5000, ' ');
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);

  Bytes record = Oldest(ProxyBuffer(1, 7, text.c_str()));

  ASSERT_EQ(record.size(), 12u + 4096 + 1);
  EXPECT_EQ(std::string(record.begin() + 12, record.end() - 1), text.substr(0, 4096));
  EXPECT_EQ(record.back(), 0);
}

TEST(ProxyBufferRequest, PayloadOfNullDataIsSentAsZeroesAndAnUnsizablePayloadNotAtAll) {
  RecordBuffer nullData(Bytes{}), huge(Bytes{});
  nullData.ClaimNullData(5);
  huge.ClaimNullData(0xFFFFFFF0ul);

  EXPECT_EQ(Oldest(ProxyBuffer(9, 1, &nullData)), Cat({Le(9, 4), Le(1, 8), Le(5, 8), Bytes(5, 0)}));
  ProxyBuffer dropped(9, 1, &huge);
  EXPECT_TRUE(Oldest(dropped).empty());
  EXPECT_EQ(dropped.GetOp(), 0u);
}

// ---- Reply records ---------------------------------------------------------

// A write that cannot be reserved writes nothing.
TEST(ProxyBufferReply, WriteAppendsStatusThenDataOrZeroes) {
  ProxyBuffer reply;
  testing_fakes::HostBuffer foreign, huge, refusing;
  refusing.refuse = true;

  reply.Write(7, "\xD1\xD2\xD3", 3);
  reply.Write(0, nullptr, 4);
  ProxyBuffer::Write(&foreign, 5, "\x04\x03\x02\x01", 4);
  ProxyBuffer::Write(&huge, 0, nullptr, 0xFFFFFFFDu);
  ProxyBuffer::Write(&refusing, 0, nullptr, 4);

  EXPECT_EQ(Oldest(reply), (Bytes{7, 0, 0, 0, 0xD1, 0xD2, 0xD3}));
  const void* first = nullptr;
  reply.GetData(&first, nullptr);
  reply.MakeAvailable(first);
  EXPECT_EQ(Oldest(reply), Bytes(8, 0));
  EXPECT_EQ(foreign.reserved, std::vector<unsigned long>{8});
  EXPECT_EQ(Oldest(foreign), (Bytes{5, 0, 0, 0, 4, 3, 2, 1}));
  EXPECT_TRUE(huge.reserved.empty());
  EXPECT_TRUE(refusing.records.empty());
}

// Without a whole status word, ReadBack answers invalid operation and
// writes nothing.
TEST(ProxyBufferReply, ReadBackCopiesAFittingReplyAndZeroFillsAnOversizedOne) {
  ProxyBuffer fitting, oversized(16), empty, shortReply;
  fitting.Write(5, "\x11\x22\x33\x44", 4);
  oversized.Write(0, Counting(16).data(), 16);
  shortReply.Commit(shortReply.Reserve(3));
  Bytes out(8, 0xAA), zeroed(8, 0xAA), untouched(4, 0xAA);

  EXPECT_EQ(fitting.ReadBack(out.data(), 8), 5u);
  EXPECT_EQ(fitting.ReadBack(nullptr, 0), 5u);
  EXPECT_EQ(oversized.ReadBack(zeroed.data(), 8), 0u);
  EXPECT_EQ(empty.ReadBack(untouched.data(), 4), KT_STATUS_INVALID_OPERATION);
  EXPECT_EQ(shortReply.ReadBack(untouched.data(), 4), KT_STATUS_INVALID_OPERATION);

  EXPECT_EQ(out, (Bytes{0x11, 0x22, 0x33, 0x44, 0xAA, 0xAA, 0xAA, 0xAA}));
  EXPECT_EQ(zeroed, Bytes(8, 0));
  EXPECT_EQ(untouched, Bytes(4, 0xAA));
}

// ---- Decoders over records of other buffer classes ---------------------------

TEST(ProxyBufferDecode, RecordTooShortForTheSizeTestFailsAndWritesNothing) {
  const unsigned long kKept = 0x5A5A5A5A5A5A5A5A;
  unsigned long a = kKept, b = kKept, c = kKept;
  unsigned int u = 0x5A5A5A5A;
  const void* payload = &a;
  RecordBuffer empty(Bytes{}), r3(Counting(3)), r7(Counting(7)), r11(Counting(11)),
      r15(Counting(15)), r23(Counting(23));

  EXPECT_EQ(ProxyBuffer::GetOp(&empty), 0u);
  EXPECT_EQ(ProxyBuffer::GetOp(&r3), 0u);
  EXPECT_FALSE(ProxyBuffer::Read(&empty, u));
  EXPECT_FALSE(ProxyBuffer::Read(&r3, u));
  EXPECT_FALSE(ProxyBuffer::Read(&r7, a));
  EXPECT_FALSE(ProxyBuffer::Read(&r11, a, u));
  EXPECT_FALSE(ProxyBuffer::Read(&r15, a, b));
  EXPECT_FALSE(ProxyBuffer::Read(&r23, a, b, c));
  EXPECT_FALSE(ProxyBuffer::Read(&r15, a, b, &payload));

  EXPECT_EQ(std::make_tuple(a, b, c, u, payload), std::make_tuple(kKept, kKept, kKept, 0x5A5A5A5Au,
                                                                   static_cast<const void*>(&a)));
}

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

TEST(ProxyBufferDecode, PayloadLengthBeyondTheRecordWritesAAndNButFails) {
  RecordBuffer tooLong(Cat({Le(9, 4), Le(0x77, 8), Le(100, 8), Bytes(4, 0)}));
  RecordBuffer wrapping(Cat({Le(9, 4), Le(0x78, 8), Le(ULONG_MAX - 5, 8), Bytes(4, 0)}));
  unsigned long a = 0, n = 0;
  const void* payload = &a;

  EXPECT_FALSE(ProxyBuffer::Read(&tooLong, a, n, &payload));
  EXPECT_EQ(std::make_tuple(a, n), std::make_tuple(0x77ul, 100ul));
  EXPECT_FALSE(ProxyBuffer::Read(&wrapping, a, n, &payload));  // n + 16 wraps to 10
  EXPECT_EQ(std::make_tuple(a, n), std::make_tuple(0x78ul, ULONG_MAX - 5));

  EXPECT_EQ(payload, &a);
}

TEST(ProxyBufferDecode, TextWithoutNulInsideItsRecordReadsAsEmpty) {
  RecordBuffer unterminated(Cat({Le(1, 4), Le(3, 8), Bytes{'a', 'b', 'c'}})), bare(Le(1, 4));
  unsigned long a = 9, b = 9;
  const char* text = nullptr;
  const char* bareText = nullptr;

  ASSERT_TRUE(ProxyBuffer::Read(&unterminated, a, &text));
  ASSERT_TRUE(ProxyBuffer::Read(&bare, b, &bareText));

  EXPECT_EQ(std::make_tuple(a, std::string(text)), std::make_tuple(3ul, std::string()));
  EXPECT_EQ(std::make_tuple(b, std::string(bareText)), std::make_tuple(0ul, std::string()));
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

TEST(DescriptorBlob, DefaultDescriptionIsSixtyTwoBytes) {
  Bytes ff(4, 0xFF);
  Bytes expected = Cat({ff, Bytes(4 * 5, 0),  // id; flags, count, word1, count, word2
                        Bytes(1 + 6, 0),      // byte1; uri, text1..text5
                        Bytes(4 + 1 + 1, 0),  // word3; text6; byte2
                        Bytes(16 + 1, 0),     // block; byte3
                        ff, ff});             // word4, word5

  std::string blob = EncodeDescription(Metric::Description());

  ASSERT_EQ(expected.size(), 62u);
  EXPECT_EQ(Bytes(blob.begin(), blob.end()), expected);
}

TEST(DescriptorBlob, EveryFieldSurvivesTheRoundTrip) {
  std::string blob = EncodeDescription(Filled());
  Metric::Description out;

  ASSERT_TRUE(Decode(blob, &out));

  EXPECT_EQ(blob.size(), 62u + (3 + 2 + 5 + 0 + 3 + 6 + 5) + 4 * 3);
  EXPECT_TRUE(Fields(out) == Fields(Filled()));
}

TEST(DescriptorBlob, TruncatedOrForgedBlobFailsWithoutReadingPastIt) {
  std::string blob = EncodeDescription(Filled());
  std::string forged = EncodeDescription(Metric::Description());
  forged.replace(8, 4, "\xFF\xFF\xFF\xFF");  // list1 count 0xFFFFFFFF
  Metric::Description out;

  for (size_t size = 0; size < blob.size(); ++size) {
    Metric::Description partial;
    EXPECT_FALSE(Decode(blob.substr(0, size), &partial)) << "size " << size;
  }
  EXPECT_FALSE(Decode(forged, &out));
  EXPECT_TRUE(out.list1.empty());  // no list grown from the forged count
}

}  // namespace
}  // namespace MetricsFramework
