// Record layouts: docs/remote_records.md.
#include "remote/proxy_buffer.h"

#include <climits>
#include <cstring>
#include <mutex>

namespace MetricsFramework {

namespace {

constexpr unsigned int kMaxText = 4096;
constexpr unsigned long kHeaderSize = 12;         // op u32, a u64
constexpr unsigned long kPayloadHeaderSize = 20;  // op u32, a u64, n u64

// The oldest record of `buffer`; false when there is none.
bool OldestRecord(const IReadBuffer* buffer, const unsigned char** record, unsigned long* size) {
  const void* data = nullptr;
  *size = 0;
  buffer->GetData(&data, size);
  *record = static_cast<const unsigned char*>(data);
  return *record != nullptr;
}

// Copies the field of `width` bytes at `offset`. The size tests let a field
// run up to 4 bytes past its record; those bytes read as zero instead of
// whatever lies behind the record.
void ReadField(const unsigned char* record, unsigned long size, unsigned long offset, void* out,
               unsigned long width) {
  unsigned long present = size > offset ? size - offset : 0;
  if (present > width) present = width;
  if (present > 0) std::memcpy(out, record + offset, present);
  std::memset(static_cast<unsigned char*>(out) + present, 0, width - present);
}

unsigned long ReadU64(const unsigned char* record, unsigned long size, unsigned long offset) {
  unsigned long value;
  ReadField(record, size, offset, &value, sizeof value);
  return value;
}

// The length a text request carries: at most 4096 characters, and none for a
// null text, which is sent as the empty one rather than read.
unsigned long TextLength(const char* text) {
  return text != nullptr ? strnlen(text, kMaxText) : 0;
}

// Reserves `size` bytes of `buffer` and writes the op word and `a` into them.
unsigned char* BeginRequest(IWriteBuffer* buffer, unsigned long size, unsigned int op,
                            unsigned long a) {
  auto* record = static_cast<unsigned char*>(buffer->Reserve(size));
  std::memcpy(record, &op, sizeof op);
  std::memcpy(record + 4, &a, sizeof a);
  return record;
}

}  // namespace

ProxyBuffer::ProxyBuffer() : QueueBuffer(4, nullptr, 0, 0, 0) {}

ProxyBuffer::ProxyBuffer(unsigned int capacity) : QueueBuffer(capacity + 4, nullptr, 0, 0, 0) {}

ProxyBuffer::ProxyBuffer(unsigned int op, unsigned long a) : QueueBuffer(12, nullptr, 0, 0, 0) {
  Commit(BeginRequest(this, 12, op, a));
}

ProxyBuffer::ProxyBuffer(unsigned int op, unsigned long a, unsigned long b)
    : QueueBuffer(20, nullptr, 0, 0, 0) {
  unsigned char* record = BeginRequest(this, 20, op, a);
  std::memcpy(record + 12, &b, sizeof b);
  Commit(record);
}

ProxyBuffer::ProxyBuffer(unsigned int op, unsigned long a, unsigned long b, unsigned long c)
    : QueueBuffer(28, nullptr, 0, 0, 0) {
  unsigned char* record = BeginRequest(this, 28, op, a);
  std::memcpy(record + 12, &b, sizeof b);
  std::memcpy(record + 20, &c, sizeof c);
  Commit(record);
}

ProxyBuffer::ProxyBuffer(unsigned int op, unsigned long a, const IReadBuffer* payload)
    : QueueBuffer(0, nullptr, 0, 0, 0) {
  const void* data = nullptr;
  unsigned long n = 0;
  if (payload != nullptr) payload->GetData(&data, &n);
  // Block sizes are 32-bit: a payload whose record could not be described
  // would overrun a truncated block. No request is built; the far side then
  // answers nothing and the caller reads status 4.
  if (n > UINT_MAX - kPayloadHeaderSize) return;
  // Two reservations with the second one used: the first block stays reserved
  // and unused. Intended; it is how requests of this form have always been
  // laid out in the arenas.
  Reserve(n + kPayloadHeaderSize);
  unsigned char* record = BeginRequest(this, n + kPayloadHeaderSize, op, a);
  std::memcpy(record + 12, &n, sizeof n);
  if (data != nullptr) {
    std::memcpy(record + kPayloadHeaderSize, data, n);
  } else {
    std::memset(record + kPayloadHeaderSize, 0, n);
  }
  Commit(record);
}

ProxyBuffer::ProxyBuffer(unsigned int op, unsigned long a, const char* text)
    : QueueBuffer(static_cast<unsigned int>(TextLength(text)) + 13, nullptr, 0, 0, 0) {
  const unsigned long length = TextLength(text);
  unsigned char* record = BeginRequest(this, length + 13, op, a);
  if (length > 0) std::memcpy(record + kHeaderSize, text, length);
  record[kHeaderSize + length] = 0;
  Commit(record);
}

ProxyBuffer::~ProxyBuffer() = default;

void ProxyBuffer::Write(unsigned int status, const void* data, unsigned int size) {
  Write(this, status, data, size);
}

void ProxyBuffer::Write(IWriteBuffer* buffer, unsigned int status, const void* data,
                        unsigned int size) {
  // A record of more than 4 GiB cannot be described by 32-bit block sizes,
  // and a buffer of another class may refuse to reserve: either way the reply
  // is not written, and ReadBack reports it missing.
  if (size > UINT_MAX - 4) return;
  auto* record = static_cast<unsigned char*>(buffer->Reserve(size + 4UL));
  if (record == nullptr) return;
  std::memcpy(record, &status, sizeof status);
  if (data != nullptr) {
    std::memcpy(record + 4, data, size);
  } else {
    std::memset(record + 4, 0, size);
  }
  buffer->Commit(record);
}

unsigned int ProxyBuffer::GetOp() const { return GetOp(this); }

unsigned int ProxyBuffer::GetOp(const IReadBuffer* buffer) {
  const unsigned char* record;
  unsigned long size;
  if (!OldestRecord(buffer, &record, &size) || size < 4) return 0;
  unsigned int op;
  std::memcpy(&op, record, sizeof op);
  return op;
}

bool ProxyBuffer::Read(unsigned int& x) const { return Read(this, x); }
bool ProxyBuffer::Read(unsigned long& a) const { return Read(this, a); }
bool ProxyBuffer::Read(unsigned long& a, unsigned int& b) const { return Read(this, a, b); }
bool ProxyBuffer::Read(unsigned long& a, unsigned long& b) const { return Read(this, a, b); }
bool ProxyBuffer::Read(unsigned long& a, unsigned long& b, unsigned long& c) const {
  return Read(this, a, b, c);
}
bool ProxyBuffer::Read(unsigned long& a, unsigned long& n, const void** payload) const {
  return Read(this, a, n, payload);
}
bool ProxyBuffer::Read(unsigned long& a, const char** text) const { return Read(this, a, text); }

// The size tests below are 4 bytes short of the fields they guard; that is the
// protocol's and kept. ReadField zero-fills what they let through.

bool ProxyBuffer::Read(const IReadBuffer* buffer, unsigned int& x) {
  const unsigned char* record;
  unsigned long size;
  if (!OldestRecord(buffer, &record, &size) || size <= 3) return false;
  ReadField(record, size, 4, &x, sizeof x);
  return true;
}

bool ProxyBuffer::Read(const IReadBuffer* buffer, unsigned long& a) {
  const unsigned char* record;
  unsigned long size;
  if (!OldestRecord(buffer, &record, &size) || size <= 7) return false;
  a = ReadU64(record, size, 4);
  return true;
}

bool ProxyBuffer::Read(const IReadBuffer* buffer, unsigned long& a, unsigned int& b) {
  const unsigned char* record;
  unsigned long size;
  if (!OldestRecord(buffer, &record, &size) || size <= 11) return false;
  a = ReadU64(record, size, 4);
  ReadField(record, size, 12, &b, sizeof b);
  return true;
}

bool ProxyBuffer::Read(const IReadBuffer* buffer, unsigned long& a, unsigned long& b) {
  const unsigned char* record;
  unsigned long size;
  if (!OldestRecord(buffer, &record, &size) || size <= 15) return false;
  a = ReadU64(record, size, 4);
  b = ReadU64(record, size, 12);
  return true;
}

bool ProxyBuffer::Read(const IReadBuffer* buffer, unsigned long& a, unsigned long& b,
                       unsigned long& c) {
  const unsigned char* record;
  unsigned long size;
  if (!OldestRecord(buffer, &record, &size) || size <= 23) return false;
  a = ReadU64(record, size, 4);
  b = ReadU64(record, size, 12);
  c = ReadU64(record, size, 20);
  return true;
}

bool ProxyBuffer::Read(const IReadBuffer* buffer, unsigned long& a, unsigned long& n,
                       const void** payload) {
  const unsigned char* record;
  unsigned long size;
  if (!OldestRecord(buffer, &record, &size) || size <= 15) return false;
  a = ReadU64(record, size, 4);
  n = ReadU64(record, size, 12);
  // n + 16 <= size, written so that a huge n cannot wrap the sum.
  if (n > size - 16) return false;
  // The test admits a payload reaching up to 4 bytes past the record. Such a
  // payload is handed on as null with its n, which every reader of this form
  // takes as n zero bytes, so no one reads behind the record.
  bool inside = size >= kPayloadHeaderSize && n <= size - kPayloadHeaderSize;
  *payload = inside ? record + kPayloadHeaderSize : nullptr;
  return true;
}

bool ProxyBuffer::Read(const IReadBuffer* buffer, unsigned long& a, const char** text) {
  const unsigned char* record;
  unsigned long size;
  // No size test: this form always succeeds, an absent record included.
  if (!OldestRecord(buffer, &record, &size)) size = 0;
  a = ReadU64(record, size, 4);
  // A text must end inside its record; one that does not reads as empty rather
  // than running on into whatever follows.
  bool terminated = size > kHeaderSize &&
                    std::memchr(record + kHeaderSize, 0, size - kHeaderSize) != nullptr;
  *text = terminated ? reinterpret_cast<const char*>(record + kHeaderSize) : "";
  return true;
}

unsigned int ProxyBuffer::ReadBack(void* out, unsigned int outSize) const {
  const unsigned char* record;
  unsigned long size;
  if (!OldestRecord(this, &record, &size) || size < 4) return KT_STATUS_INVALID_OPERATION;
  unsigned int status;
  std::memcpy(&status, record, sizeof status);
  if (out == nullptr) return status;
  unsigned long m = size - 4;
  // An oversized reply is discarded, not truncated: a caller never sees half
  // of a list or a record.
  if (m <= outSize) {
    std::memcpy(out, record + 4, m);
  } else {
    std::memset(out, 0, outSize);
  }
  return status;
}

unsigned long ProxyBuffer::QueuedBytes() const {
  std::lock_guard<LeafMutex> hold(queueMutex);
  unsigned long total = 0;
  for (std::size_t i = 0; i < committed.Size(); ++i) total += committed[i].size;
  return total;
}

}  // namespace MetricsFramework
