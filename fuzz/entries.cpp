// The fuzz targets' entry functions; what each input means is in entries.h.
#include "fuzz/entries.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/served_process.h"
#include "kt/buffer.h"
#include "kt/metric.h"
#include "registry/registry.h"
#include "remote/descriptor_blob.h"
#include "remote/proxy_buffer.h"

namespace MetricsFramework {
namespace fuzz {

namespace {

// Sums of bytes read only to make the sanitizer look at them land here.
volatile unsigned long g_sink;

// The input copied into a heap block of exactly its size, so that the
// sanitizer sees any read past the record.
class ExactCopy {
 public:
  ExactCopy(const uint8_t* data, size_t size) : m_bytes(new uint8_t[size]), m_size(size) {
    if (size > 0) std::memcpy(m_bytes.get(), data, size);
  }
  uint8_t* data() const { return m_bytes.get(); }
  size_t size() const { return m_size; }

 private:
  std::unique_ptr<uint8_t[]> m_bytes;
  size_t m_size;
};

// A read buffer whose one record is the bytes given (none when empty), as a
// peer's transport may hand a request over.
class RecordView : public IReadBuffer {
 public:
  RecordView(const void* data, size_t size) : m_data(size > 0 ? data : nullptr), m_size(size) {}
  void GetData(const void** data, unsigned long* size) const override {
    *data = m_data;
    if (size != nullptr) *size = m_size;
  }
  void MakeAvailable(const void*) const override {}

 private:
  const void* m_data;
  size_t m_size;
};

// A ProxyBuffer holding the bytes as its one record.
void CommitRecord(ProxyBuffer* buffer, const void* data, size_t size) {
  if (size == 0) return;
  void* block = buffer->Reserve(size);
  std::memcpy(block, data, size);
  buffer->Commit(block);
}

// The Word at `offset` of the input, zero-filled past its end.
template <typename Word>
Word InputWord(const uint8_t* data, size_t size, size_t offset) {
  Word word = 0;
  if (offset < size) std::memcpy(&word, data + offset, std::min(sizeof word, size - offset));
  return word;
}

// ---------------------------------------------------------------------------
// Client command

constexpr uint32_t kHandleMark = 0x4B544844;  // "KTHD" in a word's upper half
constexpr char kNextRequest[] = "\xFE\xFFRQ";  // between two requests of one input
constexpr int kMaxRequests = 16;

void SubstituteHandles(uint8_t* data, size_t size, const std::vector<unsigned long>& handles) {
  for (size_t i = 0; i + 8 <= size;) {
    uint32_t upper;
    std::memcpy(&upper, data + i + 4, sizeof upper);
    if (upper != kHandleMark) {
      ++i;
      continue;
    }
    uint32_t index;
    std::memcpy(&index, data + i, sizeof index);
    const unsigned long handle = handles[index % handles.size()];
    std::memcpy(data + i, &handle, sizeof handle);
    i += 8;
  }
}

// Reads every reply record in order, as the proxy does, touching each byte.
void DrainReplies(const IReadBuffer& reply) {
  unsigned long sum = 0;
  for (int records = 0; records < 64; ++records) {
    const void* data = nullptr;
    unsigned long size = 0;
    reply.GetData(&data, &size);
    if (data == nullptr) break;
    for (unsigned long i = 0; i < size; ++i) sum += static_cast<const uint8_t*>(data)[i];
    reply.MakeAvailable(data);
  }
  g_sink = sum;
}

// ---------------------------------------------------------------------------
// ProxyBuffer

// Every decoder's answer for one record.
struct Decoded {
  unsigned int op = 0;
  bool okX = false, okA = false, okAB32 = false, okAB = false, okABC = false, okPayload = false;
  unsigned int x = 0, b32 = 0;
  unsigned long a1 = 0, a2 = 0, b2 = 0, a3 = 0, b3 = 0, c3 = 0;
  unsigned long aP = 0, n = 0, aT = 0;
  const void* payload = nullptr;
  const char* text = nullptr;

  bool SameAnswers(const Decoded& o) const {
    return op == o.op && okX == o.okX && okA == o.okA && okAB32 == o.okAB32 && okAB == o.okAB &&
           okABC == o.okABC && okPayload == o.okPayload && x == o.x && b32 == o.b32 &&
           a1 == o.a1 && a2 == o.a2 && b2 == o.b2 && a3 == o.a3 && b3 == o.b3 && c3 == o.c3 &&
           aP == o.aP && n == o.n && aT == o.aT && (payload == nullptr) == (o.payload == nullptr) &&
           std::strcmp(text, o.text) == 0;
  }
};

Decoded DecodeStatic(const IReadBuffer* buffer) {
  Decoded d;
  unsigned long a = 0;
  d.op = ProxyBuffer::GetOp(buffer);
  d.okX = ProxyBuffer::Read(buffer, d.x);
  d.okA = ProxyBuffer::Read(buffer, d.a1);
  d.okAB32 = ProxyBuffer::Read(buffer, a, d.b32);
  d.okAB = ProxyBuffer::Read(buffer, d.a2, d.b2);
  d.okABC = ProxyBuffer::Read(buffer, d.a3, d.b3, d.c3);
  d.okPayload = ProxyBuffer::Read(buffer, d.aP, d.n, &d.payload);
  ProxyBuffer::Read(buffer, d.aT, &d.text);
  return d;
}

Decoded DecodeMember(const ProxyBuffer& buffer) {
  Decoded d;
  unsigned long a = 0;
  d.op = buffer.GetOp();
  d.okX = buffer.Read(d.x);
  d.okA = buffer.Read(d.a1);
  d.okAB32 = buffer.Read(a, d.b32);
  d.okAB = buffer.Read(d.a2, d.b2);
  d.okABC = buffer.Read(d.a3, d.b3, d.c3);
  d.okPayload = buffer.Read(d.aP, d.n, &d.payload);
  buffer.Read(d.aT, &d.text);
  return d;
}

// A payload and a text handed out by the decoders lie whole inside the
// record; every byte is read, so the sanitizer sees any that does not.
void CheckInsideRecord(const Decoded& d, const uint8_t* record, size_t size) {
  const auto* end = record + size;
  if (d.okPayload && d.payload != nullptr) {
    const auto* payload = static_cast<const uint8_t*>(d.payload);
    Check(payload >= record && d.n <= static_cast<unsigned long>(end - payload),
          "payload inside its record");
    unsigned long sum = 0;
    for (unsigned long i = 0; i < d.n; ++i) sum += payload[i];
    g_sink = sum;
  }
  const auto* text = reinterpret_cast<const uint8_t*>(d.text);
  if (*d.text != '\0') Check(text >= record && text < end, "text inside its record");
  Check(std::strlen(d.text) < size + 1, "text ends");
}

void CheckReadBack(const uint8_t* data, size_t size) {
  ProxyBuffer reply;
  CommitRecord(&reply, data, size);
  const unsigned int expected = size >= 4 ? InputWord<uint32_t>(data, size, 0) : 4;
  Check(reply.ReadBack(nullptr, 0) == expected, "ReadBack status");
  // Exact, one short and one long: an oversized reply is zeroes, never part.
  for (size_t outSize : {size >= 4 ? size - 4 : 0, size > 4 ? size - 5 : 0, size + 3}) {
    std::vector<uint8_t> out(outSize, 0xA5);
    Check(reply.ReadBack(out.data(), static_cast<unsigned int>(outSize)) == expected,
          "ReadBack status with data");
    if (size < 4) continue;
    if (size == 4) continue;
    if (size - 4 <= outSize) {
      Check(std::memcmp(out.data(), data + 4, size - 4) == 0, "ReadBack copies the data");
    } else {
      Check(std::all_of(out.begin(), out.end(), [](uint8_t b) { return b == 0; }),
            "ReadBack zeroes an oversized reply");
    }
  }
}

// The input's words built into each request form and a reply, which must
// read back as written.
void CheckRoundTrips(const uint8_t* data, size_t size) {
  const auto op = InputWord<uint32_t>(data, size, 0);
  const auto a = InputWord<uint64_t>(data, size, 4);
  const auto b = InputWord<uint64_t>(data, size, 12);
  const auto c = InputWord<uint64_t>(data, size, 20);
  unsigned long a2 = 0, b2 = 0, c2 = 0, n = 0;

  const ProxyBuffer three(op, a, b, c);
  Check(three.GetOp() == op && three.Read(a2, b2, c2) && a2 == a && b2 == b && c2 == c,
        "(op, a, b, c) reads back");

  const std::string text(reinterpret_cast<const char*>(data), size);
  const ProxyBuffer named(op, a, text.c_str());
  const char* read = nullptr;
  named.Read(a2, &read);
  Check(a2 == a && std::string(read) == std::string(text.c_str()).substr(0, 4096),
        "(op, a, text) reads back cut at 4096");

  const RecordView view(data, size);
  const ProxyBuffer carried(op, a, &view);
  const void* payload = nullptr;
  Check(carried.Read(a2, n, &payload) && a2 == a && n == size, "(op, a, payload) reads back");
  Check(size == 0 || (payload != nullptr && std::memcmp(payload, data, size) == 0),
        "the payload's bytes");

  ProxyBuffer reply;
  reply.Write(op, data, static_cast<unsigned int>(size));
  std::vector<uint8_t> out(size);
  Check(reply.ReadBack(out.data(), static_cast<unsigned int>(size)) == op &&
            (size == 0 || std::memcmp(out.data(), data, size) == 0),
        "a written reply reads back");
}

// ---------------------------------------------------------------------------
// Path program
//
// Steps of at least three bytes, [op][flags][length] then `length` bytes of
// text (fewer when the input ends). The low three bits of op choose the
// step; bit 3 lengthens the text to 5000 bytes with a long name. Flags go to
// the library unchanged, unknown bits included.
//   0 GetChild(text, flags)            1 GetChild(text, flags, &rest)
//   2 GetChildNamed(text whole, NULs included)
//   3 GetChild(text) without creating  4 step into the last node found
//   5 back to the top                  6 rename the last node found
//   7 remove the last node found (not the top, nor a node above the cursor)

constexpr size_t kLongText = 5000;  // beyond the 4096 a request text is cut at

struct PathProgram {
  Path* top;
  Path* cursor;
  Path* last;

  bool Above(Path* node) const {
    for (Path* p = cursor; p != nullptr; p = p->GetParent()) {
      if (p == node) return true;
    }
    return false;
  }

  void Resolve(const std::string& text, unsigned char flags, bool withRest) {
    const char* path = text.c_str();
    const char* rest = nullptr;
    last = cursor->GetChild(path, flags, withRest ? &rest : nullptr);
    if (rest != nullptr) {
      Check(last != nullptr && rest > path && rest <= path + std::strlen(path),
            "rest points inside the path");
    }
    if ((flags & kPathCreate) == 0 || *path == '\0') return;
    Check(last != nullptr, "creating resolves");
    Check(cursor->GetChild(path, 0) == last, "a created path resolves to the same node");
  }

  void Step(unsigned char op, unsigned char flags, const std::string& text) {
    switch (op & 7) {
      case 0: return Resolve(text, flags, false);
      case 1: return Resolve(text, flags, true);
      case 2:
        last = cursor->GetChildNamed(text, flags);
        if (last != nullptr) Check(last->GetName() == text, "a node found by name has it");
        if ((flags & kPathCreate) != 0) Check(last != nullptr, "creating by name finds");
        return;
      case 3: return Resolve(text, flags & ~kPathCreate, true);
      case 4:
        if (last != nullptr) cursor = last;
        return;
      case 5: cursor = top; return;
      case 6:
        if (last == nullptr || last == top) return;
        try {
          last->SetName(text.c_str());
        } catch (const std::out_of_range&) {
          // A node its parent does not list under its handle refuses: kept.
        }
        return;
      case 7:
        if (last == nullptr || last == top || Above(last)) return;
        delete last;
        last = nullptr;
        return;
    }
  }
};

// With `repeat`, the text once, then again without its separators until it
// is kLongText bytes: one very long name after whatever path the text holds
// (thousands of levels would only measure tree building).
std::string StepText(const uint8_t* data, size_t length, bool repeat) {
  std::string text(reinterpret_cast<const char*>(data), length);
  if (!repeat) return text;
  std::string name = text;
  name.erase(std::remove_if(name.begin(), name.end(),
                            [](char c) { return c == '/' || c == '\\'; }),
             name.end());
  if (name.empty()) name = "n";
  while (text.size() + name.size() <= kLongText) text += name;
  return text;
}

}  // namespace

int FuzzClientCommand(const uint8_t* data, size_t size) {
  ServedProcess process;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string_view separator(kNextRequest, sizeof kNextRequest - 1);
  size_t start = 0;
  for (int served = 0; served < kMaxRequests && start <= size; ++served) {
    size_t end = input.find(separator, start);
    if (end == std::string_view::npos) end = size;
    ExactCopy request(data + start, end - start);
    SubstituteHandles(request.data(), request.size(), process.Handles());
    const RecordView view(request.data(), request.size());
    ProxyBuffer reply;
    process.Command().Run(&view, &reply);
    DrainReplies(reply);
    start = end + separator.size();
  }
  return 0;
}

int FuzzProxyBuffer(const uint8_t* data, size_t size) {
  ExactCopy record(data, size);
  const RecordView view(record.data(), record.size());
  const Decoded fromView = DecodeStatic(&view);
  CheckInsideRecord(fromView, record.data(), record.size());

  ProxyBuffer buffer;
  CommitRecord(&buffer, data, size);
  const Decoded fromMember = DecodeMember(buffer);
  Check(fromMember.SameAnswers(fromView), "member and static forms agree");
  Check(DecodeStatic(&buffer).SameAnswers(fromView), "decoders agree on every buffer class");

  CheckReadBack(record.data(), record.size());
  CheckRoundTrips(record.data(), record.size());
  return 0;
}

int FuzzDescriptorBlob(const uint8_t* data, size_t size) {
  ExactCopy blob(data, size);
  Metric::Description desc;
  if (!DecodeDescription(blob.data(), blob.size(), &desc)) return 0;
  const std::string encoded = EncodeDescription(desc);
  Check(encoded.size() <= size && std::memcmp(encoded.data(), data, encoded.size()) == 0,
        "a decoded blob re-encodes to its own bytes");
  ExactCopy shorter(reinterpret_cast<const uint8_t*>(encoded.data()), encoded.size() - 1);
  Metric::Description partial;
  Check(!DecodeDescription(shorter.data(), shorter.size(), &partial),
        "a blob one byte short fails");
  Metric::Description again;
  Check(DecodeDescription(encoded.data(), encoded.size(), &again) &&
            EncodeDescription(again) == encoded,
        "the re-encoded blob decodes to the same description");
  return 0;
}

int FuzzPath(const uint8_t* data, size_t size) {
  // One registry for every input: its handles branch is the library's to
  // keep, and each input works in a subtree removed at its end.
  static Registry* registry = new Registry();
  Path* top = registry->GetChild("fuzz", kPathCreate);
  PathProgram program{top, top, nullptr};
  for (size_t i = 0; i + 3 <= size;) {
    const unsigned char op = data[i];
    const unsigned char flags = data[i + 1];
    const size_t length = std::min<size_t>(data[i + 2], size - i - 3);
    program.Step(op, flags, StepText(data + i + 3, length, (op & 8) != 0));
    i += 3 + length;
  }
  delete top;
  return 0;
}

}  // namespace fuzz
}  // namespace MetricsFramework
